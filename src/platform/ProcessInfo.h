// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

namespace larimo {

/// Absolute path of the running program, or an empty text when the system cannot tell.
/// Any thread.
std::string ExecutablePath();

/// Numeric id of the calling thread as the system knows it (what `ps -L` shows).
/// Any thread.
unsigned CurrentThreadId();

} // namespace larimo

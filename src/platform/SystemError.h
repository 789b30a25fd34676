// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <string>

namespace larimo {

/// The system's description of an errno-style error code, in the user's language where the
/// system has one, into `text`. Returns false, leaving `text` alone, for a code the system does
/// not know. Any thread.
bool SystemErrorDescription(uint32_t code, std::string& text);

} // namespace larimo

// SPDX-License-Identifier: GPL-3.0-or-later
// Every test program gets named objects of its own: a namespace apart from a real Larimo the
// user may run and from the test programs running beside it. Its files (of every user the
// program becomes) are removed when the program ends, so no test leaves anything behind.
#pragma once

#include <string>

namespace larimo::test {

/// The namespace of this test program ("t<pid>"), set before the first test runs.
std::string PrivateObjectNamespace();

/// Puts this process, and every service it starts from now on, back into that namespace.
void UsePrivateObjectNamespace();

/// Removes the files of that namespace; call when every object is closed.
void RemovePrivateObjectNamespace();

} // namespace larimo::test

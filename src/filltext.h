// SPDX-License-Identifier: GPL-3.0-or-later
// Filling a translated text that is a printf format ("Plug-in \"%s\" already exists.").
#pragma once

#include <string>

namespace larimo {

/// Formats the text of string `id` (GetText) with the arguments, at most 3999 characters.
/// The compiler cannot check the arguments against a format known only at run time: pass
/// exactly the conversions of the English text (a translation is refused by the language
/// loader unless its conversions equal the English ones). Any thread.
std::string FillText(unsigned id, ...);

} // namespace larimo

// SPDX-License-Identifier: GPL-3.0-or-later
// Process-wide folders and the conversion of settings paths to file-system paths.
//
// Settings files keep paths in the backslash form (".\lang\larimo_en.tra",
// "Party\Laugh.wav") so that they move between platforms unchanged; code turns them
// into real paths only where it touches the file system.
#pragma once

#include <string>
#include <string_view>

namespace larimo {

/// Folder of the running program, always ending in '/'; empty if the system cannot tell.
/// Any thread.
std::string ProgramFolder();

/// The data root: the folder of "config.ini", "voiceeffects.ini" and the library folders.
/// Set once at start-up (and by tests) before other threads run; read from any thread.
/// Defaults to ProgramFolder().
const std::string& DataRoot();
/// Stores `folder` as the data root, adding a trailing '/' when it ends in neither '/' nor '\'
/// (a trailing '\' becomes '/').
void SetDataRoot(std::string_view folder);

/// Turns a settings path into a file-system path. Backslashes become slashes; a path that
/// starts with '/' is taken as it is, any other one is taken relative to `baseFolder`.
/// "." segments are dropped, ".." segments go up where they can. A trailing separator stays.
std::string SettingsPathToFs(std::string_view settingsPath, std::string_view baseFolder);

/// Ensures `folder` ends in '/'; an empty text stays empty.
std::string WithTrailingSlash(std::string_view folder);

/// Compares two UTF-8 texts without regard to ASCII letter case.
bool EqualsNoCase(std::string_view a, std::string_view b);
/// UTF-8 text with every letter made lower case ("Ärger" gives "ärger"). Any thread.
std::string FoldCase(std::string_view text);
/// UTF-8 text with its first letter made upper case ("über" gives "Über"). Any thread.
std::string CapitalizeFirst(std::string_view text);

} // namespace larimo

namespace larimo {

/// UTF-8 to UTF-16 and back. Invalid UTF-8 sequences become U+FFFD; unpaired surrogates in
/// UTF-16 become U+FFFD. Any thread.
std::u16string Utf8ToUtf16(std::string_view text);
std::string Utf16ToUtf8(std::u16string_view text);

} // namespace larimo

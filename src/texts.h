// SPDX-License-Identifier: GPL-3.0-or-later
// The texts the program shows: the string table, translated once at start-up into the user's
// language and kept in a cache that every thread reads afterwards.
#pragma once

#include "translate.h"

#include <optional>
#include <string>
#include <string_view>

namespace larimo {

/// What GetText answers for an ID that has no text.
inline constexpr char kTextNotFound[] = "!String did not found!";

/// Full path of a language setting: a path starting with '/' is only normalised, any other
/// is taken from `programFolder`; backslashes become slashes. Any thread.
std::string LanguageFullPath(std::string_view settingsPath, std::string_view programFolder);

/// The language record for the settings `langsPath` and `langFile`, with both made full paths
/// from `programFolder` and the folder ending in '/'. Null, with the reason in `why`, when a
/// path does not fit into its 259 UTF-16 units. Any thread.
std::optional<LanguageRecord> MakeLanguageRecord(std::string_view langsPath,
                                                 std::string_view langFile,
                                                 std::string_view programFolder,
                                                 std::string* why = nullptr);

/// StartTexts with the language settings of "config.ini" (its general keys). Main thread, at
/// start-up, after the data root is set.
bool StartTexts();

/// Starts the translation library with the given language settings (texts as in the settings
/// file, relative to the program folder), translates every string-table text and fills the
/// cache. Returns false, leaving the cache empty, when the library refuses the language.
/// Main thread, at start-up, before other threads read texts.
bool StartTexts(const std::string& langsPath, const std::string& langFile);

/// The cached text of `id`, or kTextNotFound. Never loads anything. Any thread, between
/// StartTexts and EndTexts; the reference stays valid until EndTexts.
const std::string& GetText(unsigned id);

/// Ends the translation library and frees the cache. Main thread, after every other thread
/// has stopped reading texts.
void EndTexts();

} // namespace larimo

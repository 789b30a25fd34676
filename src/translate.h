// SPDX-License-Identifier: GPL-3.0-or-later
// The translation library: four calls that start it with a language record, register threads,
// translate one text and end it. Language files (".tra") are PO files whose msgid is the
// English text and whose msgstr is its translation.
//
// Everything that crosses these calls is UTF-16 (host byte order, which is little-endian on
// every platform we build for): the paths in the language record and both text buffers of
// GLTranslateString. Capacities count UTF-16 code units including the terminating zero.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace larimo {

/// Layout of the language record handed to GLStart. All other bytes are zero.
inline constexpr std::size_t kLanguageRecordSize = 1596;
inline constexpr std::size_t kLanguageRecordFileOffset = 4;      ///< full path of the .tra file
inline constexpr std::size_t kLanguageRecordFolderOffset = 524;  ///< language folder, ends in '/'
inline constexpr std::size_t kLanguageRecordPathUnits = 260;     ///< UTF-16 units incl. the zero
inline constexpr std::size_t kLanguageRecordWord1044 = 1044;     ///< always 0
inline constexpr std::size_t kLanguageRecordWord1568 = 1568;     ///< always 1
inline constexpr std::size_t kLanguageRecordWord1572 = 1572;     ///< always 0
inline constexpr std::size_t kLanguageRecordWord1576 = 1576;     ///< always 0

using LanguageRecord = std::array<std::uint8_t, kLanguageRecordSize>;

/// Starts the library with the language file named in `languageRecord` (a LanguageRecord's
/// bytes). Reads and checks the whole file; a missing, unreadable or malformed file, or a
/// record that is not a language record, is refused with a log record saying why.
/// Returns non-zero when started. Starting again replaces the language.
/// The calling thread is registered. Call from the main thread before others use the library.
int GLStart(const void* languageRecord);

/// Registers another thread (by CurrentThreadId()) as a user of the library. Main thread.
void GLAddThread(unsigned threadId);

/// Translates the zero-terminated `source`. When the language has a translation of it and the
/// translation with its terminator fits into `capacity` units, copies it to `destination` and
/// returns non-zero; otherwise returns zero and leaves `destination` untouched.
/// Registered threads only (an unregistered thread always gets zero).
int GLTranslateString(char16_t* destination, const char16_t* source, int capacity);

/// Ends the library and forgets the language and the threads. Main thread, after the last
/// translation.
void GLEnd();

} // namespace larimo

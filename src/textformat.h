// SPDX-License-Identifier: GPL-3.0-or-later
// Bounded printf-style formatting of UTF-8 text. Limits are counted the way the settings and
// the IPC wire count characters: in UTF-16 code units. Cuts fall between code points.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

#if defined(__GNUC__)
#define LARIMO_VPRINTF(fmtIndex) __attribute__((format(printf, fmtIndex, 0)))
#define LARIMO_FORMAT_PRINTF(fmtIndex, firstArg) __attribute__((format(printf, fmtIndex, firstArg)))
#else
#define LARIMO_VPRINTF(fmtIndex)
#define LARIMO_FORMAT_PRINTF(fmtIndex, firstArg)
#endif

namespace larimo {

/// Number of UTF-16 code units `utf8` needs; a byte that is not part of a well-formed sequence
/// counts as one. Any thread.
size_t Utf16Length(std::string_view utf8);

/// The longest leading part of `utf8` that needs at most `maxUnits` UTF-16 code units and ends
/// on a code point boundary. Any thread.
std::string_view CutToUtf16(std::string_view utf8, size_t maxUnits);

/// Formats printf-style and cuts the result to `maxUnits` UTF-16 code units; a null format
/// gives an empty text. Any thread.
std::string VFormatCut(size_t maxUnits, const char* format, va_list args) LARIMO_VPRINTF(2);
std::string FormatCut(size_t maxUnits, const char* format, ...) LARIMO_FORMAT_PRINTF(2, 3);

} // namespace larimo

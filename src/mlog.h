// SPDX-License-Identifier: GPL-3.0-or-later
// The log: one plain-text trace file beside the program ("larimocl.log"), appended to by every
// thread and by every process of the user that logs to a file of the same name.
//
// All functions may be called from any thread except the real-time audio thread (they write
// through to the file). LogOpen is called once at start-up before other threads run.
// Texts are UTF-8. Each writer returns true when the record was written or there was no file
// to write to, false when writing failed; callers may ignore the result.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/LocalTime.h"

#if defined(__GNUC__)
#define LARIMO_PRINTF(fmtIndex, firstArg) __attribute__((format(printf, fmtIndex, firstArg)))
#else
#define LARIMO_PRINTF(fmtIndex, firstArg)
#endif

namespace larimo {

enum class LogLevel : int {
    Info = 0,
    Plain = 1,
    Warning = 2,
    Error = 3,
    Exception = 4,
    Enter = 5,
    Leave = 6,
};

/// Stores the switches and creates the lock named after the file. The file itself is opened by
/// the first write. Returns whether the lock could be created.
bool LogOpen(const std::string& fileName, bool timestamps, bool threadIds, bool consoleEcho,
             bool semicolonMode, bool compactPrefixes);

/// Writes the "Application started on ..." box.
bool LogStartBanner();

/// The lines LogStartBanner writes for `text`: a box of three lines, one line framed by empty
/// lines in semicolon mode, or nothing for a text too long to frame. Any thread.
std::vector<std::string> LogBannerLines(const std::string& text, bool semicolonMode);

using LogClockSource = LocalTime (*)();
using LogThreadIdSource = unsigned (*)();
/// Replaces where records take the local time and the thread id from (tests pin both); a null
/// source restores the system's. Call while no other thread logs.
void LogSetSources(LogClockSource clock, LogThreadIdSource threadId);

bool LogInfo(const char* format, ...) LARIMO_PRINTF(1, 2);
bool LogText(const char* format, ...) LARIMO_PRINTF(1, 2);
bool LogWarning(const char* format, ...) LARIMO_PRINTF(1, 2);
bool LogError(const char* format, ...) LARIMO_PRINTF(1, 2);
bool LogException(const char* format, ...) LARIMO_PRINTF(1, 2);

/// "scope(): text", or "scope()" when `format` is null.
bool LogScopeInfo(const char* scope, const char* format = nullptr, ...) LARIMO_PRINTF(2, 3);
/// "scope(arguments)"; empty arguments when `format` is null.
bool LogEnter(const char* scope, const char* format = nullptr, ...) LARIMO_PRINTF(2, 3);
/// "scope()".
bool LogLeave(const char* scope);

/// Writes one record of any level with an already formatted text (a level above 6 is Plain).
bool LogRecord(int level, const std::string& text);

/// The text LogLeaveResult writes for a value, formatted by the value's type.
std::string LogValueText(bool value);
std::string LogValueText(long long value);
std::string LogValueText(unsigned long long value);
std::string LogValueText(long double value);
std::string LogValueText(const char* value);
std::string LogValueText(const void* value);

/// "scope() = value", the value formatted by its type.
template <typename T>
bool LogLeaveResult(const char* scope, const T& value)
{
    std::string text;
    if constexpr (std::is_same_v<T, bool>)
        text = LogValueText(value);
    else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>)
        text = LogValueText(static_cast<long long>(value));
    else if constexpr (std::is_integral_v<T>)
        text = LogValueText(static_cast<unsigned long long>(value));
    else if constexpr (std::is_enum_v<T>)
        text = LogValueText(static_cast<long long>(value));
    else if constexpr (std::is_floating_point_v<T>)
        text = LogValueText(static_cast<long double>(value));
    else if constexpr (std::is_same_v<T, std::string>)
        text = LogValueText(value.c_str());
    else if constexpr (std::is_convertible_v<T, const char*>)
        text = LogValueText(static_cast<const char*>(value));
    else if constexpr (std::is_pointer_v<T>)
        text = LogValueText(static_cast<const void*>(value));
    else
        text = "undefined type!";
    return LogRecord(static_cast<int>(LogLevel::Leave), std::string(scope) + "() = " + text);
}

} // namespace larimo

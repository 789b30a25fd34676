// SPDX-License-Identifier: GPL-3.0-or-later
#include "mlog.h"

#include <atomic>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <new>
#include <string_view>

#include "platform/AppendFile.h"
#include "platform/ProcessInfo.h"
#include "textformat.h"

namespace larimo {

namespace {

constexpr size_t kMessageUnits = 1023;
constexpr size_t kFieldUnits = 39;
constexpr size_t kTimeColumn = 9;   // "00:00:00 "
constexpr size_t kThreadColumn = 8; // "[00000] "
constexpr size_t kValueUnits = 2047;
constexpr size_t kBannerBorderWidth = 79;
constexpr size_t kBannerMaxText = 2028;
constexpr const char* kBannerBorder =
    "+-----------------------------------------------------------------------------+";

struct Marker {
    const char* padded;
    const char* compact;
    const char* semicolon;
};

constexpr Marker kMarkers[] = {
    {"        == ", "==", "==;"},
    {"           ", "", ";"},
    {"  Warning: ", "Warning: ", "Warning;"},
    {"    Error: ", "Error: ", "Error;"},
    {"Exception: ", "Exception: ", "Exception;"},
    {"       --> ", "--> ", "-->;"},
    {"       <-- ", "<-- ", "<--;"},
};

// The settings are written by LogOpen before other threads run; atomics keep the unlocked
// reads of every writer well defined all the same.
struct LogState {
    std::mutex mutex;
    std::string fileName;
    AppendFile file;
    std::atomic<bool> timestamps{false};
    std::atomic<bool> threadIds{false};
    std::atomic<bool> consoleEcho{false};
    std::atomic<bool> semicolonMode{false};
    std::atomic<bool> compactPrefixes{false};
    std::atomic<LogClockSource> clock{&CurrentLocalTime};
    std::atomic<LogThreadIdSource> threadId{&CurrentThreadId};
};

// Never destroyed: threads may still log while static objects are torn down at exit, and the
// file handle is meant to live until the process ends.
LogState& State()
{
    alignas(LogState) static unsigned char storage[sizeof(LogState)];
    static LogState* state = ::new (static_cast<void*>(storage)) LogState();
    return *state;
}

void PadTo(std::string& field, size_t column)
{
    const size_t width = Utf16Length(field);
    if (width < column)
        field.append(column - width, ' ');
}

const char* MarkerFor(int level, bool semicolon, bool compact)
{
    const Marker& marker =
        (level >= 0 && level <= static_cast<int>(LogLevel::Leave)) ? kMarkers[level] : kMarkers[1];
    if (semicolon)
        return marker.semicolon;
    return compact ? marker.compact : marker.padded;
}

std::string ComposeRecord(int level, std::string_view message)
{
    LogState& state = State();
    const bool semicolon = state.semicolonMode.load(std::memory_order_relaxed);
    std::string line;
    line.reserve(kTimeColumn + kThreadColumn + 11 + message.size() + 2);

    if (state.timestamps.load(std::memory_order_relaxed)) {
        const LocalTime now = state.clock.load(std::memory_order_relaxed)();
        std::string field = FormatCut(kFieldUnits, "%d:%d:%d", now.hour, now.minute, now.second);
        if (semicolon)
            field += ';';
        else
            PadTo(field, kTimeColumn);
        line += field;
    }
    if (state.threadIds.load(std::memory_order_relaxed)) {
        std::string field = FormatCut(kFieldUnits, "[%u]", state.threadId.load(std::memory_order_relaxed)());
        if (semicolon)
            field += ';';
        else
            PadTo(field, kThreadColumn);
        line += field;
    }
    line += CutToUtf16(MarkerFor(level, semicolon, state.compactPrefixes.load(std::memory_order_relaxed)),
                       kFieldUnits);
    line += CutToUtf16(message, kMessageUnits);
    return line;
}

// Writes the lines as one append, so that a record (or the banner box) stays together even
// when other processes write to the same file.
bool WriteLines(const std::vector<std::string>& lines, bool lineEnd)
{
    std::string bytes;
    for (const std::string& line : lines) {
        bytes += line;
        if (lineEnd)
            bytes += "\r\n";
    }

    LogState& state = State();
    bool written = true;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.file.IsOpen() && !state.fileName.empty())
            state.file.Open(state.fileName);
        if (state.file.IsOpen())
            written = state.file.Append(bytes);

        if (state.consoleEcho.load(std::memory_order_relaxed)) {
            for (const std::string& line : lines)
                std::printf(lineEnd ? "%s\n" : "%s", line.c_str());
            std::fflush(stdout);
        }
    }
    return written;
}

bool WriteRecord(int level, std::string_view message)
{
    return WriteLines({ComposeRecord(level, message)}, true);
}

bool VWriteRecord(LogLevel level, const char* format, va_list args) LARIMO_VPRINTF(2);
bool VWriteRecord(LogLevel level, const char* format, va_list args)
{
    const std::string message = VFormatCut(kMessageUnits, format, args);
    return WriteRecord(static_cast<int>(level), message);
}

const char* SafeScope(const char* scope)
{
    return scope != nullptr ? scope : "(null)";
}

} // namespace

bool LogOpen(const std::string& fileName, bool timestamps, bool threadIds, bool consoleEcho,
             bool semicolonMode, bool compactPrefixes)
{
    LogState& state = State();
    state.timestamps.store(timestamps);
    state.threadIds.store(threadIds);
    state.consoleEcho.store(consoleEcho);
    state.semicolonMode.store(semicolonMode);
    state.compactPrefixes.store(compactPrefixes);
    std::lock_guard<std::mutex> lock(state.mutex);
    state.fileName = fileName;
    // A second LogOpen (tests, a forked child) starts over with its own descriptor; the lock
    // on the file only separates processes that opened the file themselves.
    state.file.Close();
    return true;
}

void LogSetSources(LogClockSource clock, LogThreadIdSource threadId)
{
    LogState& state = State();
    state.clock.store(clock != nullptr ? clock : &CurrentLocalTime);
    state.threadId.store(threadId != nullptr ? threadId : &CurrentThreadId);
}

std::vector<std::string> LogBannerLines(const std::string& text, bool semicolonMode)
{
    if (semicolonMode)
        return {FormatCut(kMessageUnits, "\r\n%s\r\n", text.c_str())};
    if (Utf16Length(text) > kBannerMaxText)
        return {};
    std::string middle = "| " + text;
    const size_t width = Utf16Length(middle);
    if (width < kBannerBorderWidth) {
        middle.append(kBannerBorderWidth - 1 - width, ' ');
        middle += '|';
    }
    return {kBannerBorder, middle, kBannerBorder};
}

bool LogStartBanner()
{
    LogState& state = State();
    const LocalTime now = state.clock.load(std::memory_order_relaxed)();
    const std::string moment = FormatCut(127, "%d.%d.%d %d:%d:%d", now.day, now.month, now.year,
                                         now.hour, now.minute, now.second);
    const std::string text = "Application started on " + moment;
    const std::vector<std::string> lines =
        LogBannerLines(text, state.semicolonMode.load(std::memory_order_relaxed));
    if (lines.empty())
        return true;
    return WriteLines(lines, true);
}

bool LogInfo(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const bool written = VWriteRecord(LogLevel::Info, format, args);
    va_end(args);
    return written;
}

bool LogText(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const bool written = VWriteRecord(LogLevel::Plain, format, args);
    va_end(args);
    return written;
}

bool LogWarning(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const bool written = VWriteRecord(LogLevel::Warning, format, args);
    va_end(args);
    return written;
}

bool LogError(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const bool written = VWriteRecord(LogLevel::Error, format, args);
    va_end(args);
    return written;
}

bool LogException(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const bool written = VWriteRecord(LogLevel::Exception, format, args);
    va_end(args);
    return written;
}

bool LogScopeInfo(const char* scope, const char* format, ...)
{
    std::string message;
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        const std::string text = VFormatCut(kMessageUnits, format, args);
        va_end(args);
        message = FormatCut(kMessageUnits, "%s(): %s", SafeScope(scope), text.c_str());
    } else {
        message = FormatCut(kMessageUnits, "%s()", SafeScope(scope));
    }
    return WriteRecord(static_cast<int>(LogLevel::Info), message);
}

bool LogEnter(const char* scope, const char* format, ...)
{
    std::string arguments;
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        arguments = VFormatCut(kMessageUnits, format, args);
        va_end(args);
    }
    const std::string message = FormatCut(kMessageUnits, "%s(%s)", SafeScope(scope), arguments.c_str());
    return WriteRecord(static_cast<int>(LogLevel::Enter), message);
}

bool LogLeave(const char* scope)
{
    return WriteRecord(static_cast<int>(LogLevel::Leave), FormatCut(kMessageUnits, "%s()", SafeScope(scope)));
}

bool LogRecord(int level, const std::string& text)
{
    return WriteRecord(level, text);
}

std::string LogValueText(bool value)
{
    return value ? "true" : "false";
}

std::string LogValueText(long long value)
{
    return FormatCut(kValueUnits, "%lld", value);
}

std::string LogValueText(unsigned long long value)
{
    return FormatCut(kValueUnits, "%llu", value);
}

std::string LogValueText(long double value)
{
    return FormatCut(kValueUnits, "%Le", value);
}

std::string LogValueText(const char* value)
{
    return std::string(CutToUtf16(value != nullptr ? value : "(null)", kValueUnits));
}

std::string LogValueText(const void* value)
{
    // Fixed width and upper case so pointers line up in the log; "%p" would add a second "0x".
    return FormatCut(kValueUnits, "0x%0*" PRIXPTR, static_cast<int>(sizeof(void*) * 2),
                     reinterpret_cast<uintptr_t>(value));
}

} // namespace larimo

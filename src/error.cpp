// SPDX-License-Identifier: GPL-3.0-or-later
#include "error.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <new>

#include "mlog.h"
#include "platform/SystemError.h"

namespace larimo {

namespace {

constexpr size_t kCaptionUnits = 127;
constexpr size_t kMessageUnits = 3999;
constexpr size_t kErrorUnits = 1999;
constexpr size_t kSystemTextUnits = 4096;
constexpr const char* kFallbackCaption = "Error";

std::atomic<MessageBoxSink*> g_sink{nullptr};

struct MessageDefaults {
    std::mutex mutex;
    void* owner = nullptr;
    std::string caption;
};

MessageDefaults& Defaults()
{
    static MessageDefaults defaults;
    return defaults;
}

// Without anyone to ask, the answer that changes nothing.
int CautiousAnswer(unsigned style)
{
    switch (style & MB_TYPEMASK) {
    case MB_OK:
        return IDOK;
    case MB_YESNO:
        return IDNO;
    case MB_ABORTRETRYIGNORE:
        return IDABORT;
    default:
        return IDCANCEL;
    }
}

} // namespace

void SetMessageBoxSink(MessageBoxSink* sink)
{
    g_sink.store(sink);
}

int ShowMessageBox(void* owner, const std::string& text, const std::string& caption, unsigned style)
{
    if (MessageBoxSink* sink = g_sink.load())
        return sink->ShowMessageBox(owner, text, caption, style);

    switch (style & MB_ICONMASK) {
    case MB_ICONERROR:
        LogError("Message \"%s\": %s", caption.c_str(), text.c_str());
        break;
    case MB_ICONWARNING:
        LogWarning("Message \"%s\": %s", caption.c_str(), text.c_str());
        break;
    default:
        LogInfo("Message \"%s\": %s", caption.c_str(), text.c_str());
        break;
    }
    std::fprintf(stderr, "%s: %s\n", caption.c_str(), text.c_str());
    return CautiousAnswer(style);
}

void SetMessageDefaults(void* owner, const char* caption)
{
    MessageDefaults& defaults = Defaults();
    std::lock_guard<std::mutex> lock(defaults.mutex);
    defaults.owner = owner;
    if (caption != nullptr)
        defaults.caption = std::string(CutToUtf16(caption, kCaptionUnits));
}

std::string MessageCaption()
{
    MessageDefaults& defaults = Defaults();
    std::lock_guard<std::mutex> lock(defaults.mutex);
    return defaults.caption;
}

void* MessageOwner()
{
    MessageDefaults& defaults = Defaults();
    std::lock_guard<std::mutex> lock(defaults.mutex);
    return defaults.owner;
}

int ShowInfo(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const std::string text = VFormatCut(kMessageUnits, format, args);
    va_end(args);
    return ShowMessageBox(nullptr, text, MessageCaption(), MB_ICONINFORMATION);
}

int ShowMessage(void* owner, unsigned style, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const std::string text = VFormatCut(kMessageUnits, format, args);
    va_end(args);
    return ShowMessageBox(owner, text, MessageCaption(), style);
}

std::string SystemErrorText(uint32_t code)
{
    std::string text;
    if (!SystemErrorDescription(code, text))
        return {};
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    return std::string(CutToUtf16(text, kSystemTextUnits));
}

MyError::MyError(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    try {
        m_text = VFormatCut(kErrorUnits, format, args);
        m_hasText = true;
    } catch (const std::bad_alloc&) {
        m_text.clear();
        m_hasText = false;
    }
    va_end(args);
}

int MyError::Show(void* owner, unsigned style) const
{
    if (!m_hasText)
        return 0;
    std::string caption = MessageCaption();
    if (caption.empty())
        caption = kFallbackCaption;
    return ShowMessageBox(owner, m_text, caption, style | MB_SETFOREGROUND);
}

int MyError::Show(unsigned style) const
{
    return Show(MessageOwner(), style);
}

} // namespace larimo

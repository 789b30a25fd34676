// SPDX-License-Identifier: GPL-3.0-or-later
// Message boxes and the error that carries a finished message to the place that shows it.
//
// Every message box of the program goes through ShowMessageBox, so they all carry the
// application title. The window system installs a MessageBoxSink; without one (the service,
// tests, start-up before the GUI exists) a message goes to the log and standard error and the
// cautious answer is returned.
#pragma once

#include <cstdint>
#include <string>

#include "textformat.h"

namespace larimo {

// Style flags and results of a message box, with the values settings and callers already use.
constexpr unsigned MB_OK = 0x0U;
constexpr unsigned MB_OKCANCEL = 0x1U;
constexpr unsigned MB_ABORTRETRYIGNORE = 0x2U;
constexpr unsigned MB_YESNOCANCEL = 0x3U;
constexpr unsigned MB_YESNO = 0x4U;
constexpr unsigned MB_RETRYCANCEL = 0x5U;
constexpr unsigned MB_TYPEMASK = 0xFU;
constexpr unsigned MB_ICONERROR = 0x10U;
constexpr unsigned MB_ICONQUESTION = 0x20U;
constexpr unsigned MB_ICONWARNING = 0x30U;
constexpr unsigned MB_ICONINFORMATION = 0x40U;
constexpr unsigned MB_ICONMASK = 0xF0U;
constexpr unsigned MB_SETFOREGROUND = 0x10000U;

constexpr int IDOK = 1;
constexpr int IDCANCEL = 2;
constexpr int IDABORT = 3;
constexpr int IDYES = 6;
constexpr int IDNO = 7;

/// Shows message boxes for the core. Implemented by the GUI.
class MessageBoxSink {
public:
    virtual ~MessageBoxSink() = default;
    /// Shows `text` modally with `caption` and the MB_ style flags over `owner` (an opaque
    /// window, may be null) and returns the button chosen (IDOK, IDCANCEL, IDYES, IDNO, ...).
    /// Called on whichever thread shows the message; the sink brings it to the window thread.
    virtual int ShowMessageBox(void* owner, const std::string& text, const std::string& caption,
                               unsigned style) = 0;
};

/// Installs the sink every message box goes through (not owned; null removes it). Call at
/// start-up or shutdown, while no other thread shows messages.
void SetMessageBoxSink(MessageBoxSink* sink);

/// Shows one message box through the sink, or, without a sink, logs the message, prints it to
/// standard error and returns IDOK for MB_OK, IDNO for MB_YESNO, IDABORT for
/// MB_ABORTRETRYIGNORE and IDCANCEL otherwise. Any thread.
int ShowMessageBox(void* owner, const std::string& text, const std::string& caption, unsigned style);

/// Stores the owner window and the caption (the application title, cut to 127 characters) of
/// every message box; a null caption leaves the caption as it is. Any thread.
void SetMessageDefaults(void* owner, const char* caption);
/// The caption SetMessageDefaults stored; empty until one is set. Any thread.
std::string MessageCaption();
/// The owner window SetMessageDefaults stored. Any thread.
void* MessageOwner();

/// Formats at most 3999 characters and shows them with no owner, the caption and the
/// information icon. Returns the box's result. Any thread.
int ShowInfo(const char* format, ...) LARIMO_FORMAT_PRINTF(1, 2);
/// Formats at most 3999 characters and shows them over `owner` with `style` and the caption.
/// Returns the box's result. Any thread.
int ShowMessage(void* owner, unsigned style, const char* format, ...) LARIMO_FORMAT_PRINTF(3, 4);

/// The system's message for an error code, without a trailing line end; empty when the system
/// has none. Any thread.
std::string SystemErrorText(uint32_t code);

/// A failure with a finished message (at most 1999 characters), thrown and caught by value.
/// Deliberately not polymorphic, so catching it by value slices nothing.
class MyError {
public:
    explicit MyError(const char* format, ...) LARIMO_FORMAT_PRINTF(2, 3);

    /// False only when the text could not be made; such an error shows nothing.
    bool HasText() const noexcept { return m_hasText; }
    const std::string& Text() const noexcept { return m_text; }

    /// Shows the text over `owner` with the caption ("Error" when none is set) and `style`
    /// plus MB_SETFOREGROUND. Returns the box's result, or 0 without a text. Any thread.
    int Show(void* owner, unsigned style) const;
    /// The same over the default owner window.
    int Show(unsigned style) const;

private:
    std::string m_text;
    bool m_hasText = false;
};

} // namespace larimo

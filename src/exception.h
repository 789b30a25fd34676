// SPDX-License-Identifier: GPL-3.0-or-later
// The exception that carries a system error code, and the description of faults caught by the
// crash guard around plug-in code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/CrashGuard.h"
#include "textformat.h"

namespace larimo {

/// A failure with a finished message, optionally explained by the system's text for an error
/// code. Thrown by value or by pointer.
class CMyException {
public:
    static constexpr int kSystemError = 0;
    static constexpr int kPlainText = 1;
    static constexpr uint32_t kNoCode = 0xFFFFFFFFU;

    /// Kind kSystemError: "message system-text", or "message Unknown error code 0x0000000C."
    /// when the system has no text for `code`. Kind kPlainText: the message, or no text when it
    /// is empty. A null format gives an empty message. Any thread.
    CMyException(int kind, uint32_t code, const char* format, ...) LARIMO_FORMAT_PRINTF(4, 5);
    virtual ~CMyException();
    CMyException(const CMyException&) = default;
    CMyException& operator=(const CMyException&) = default;
    CMyException(CMyException&&) = default;
    CMyException& operator=(CMyException&&) = default;

    uint32_t Code() const noexcept { return m_code; }
    int Kind() const noexcept { return m_kind; }
    bool HasText() const noexcept { return m_hasText; }
    /// The finished message; empty when there is none.
    const std::string& Text() const noexcept { return m_text; }

private:
    uint32_t m_code;
    std::string m_text;
    bool m_hasText = false;
    int m_kind;
};

/// What the description tells the guard that asked for it: run the handler.
constexpr int kExceptionExecuteHandler = 1;

/// The name of a structured exception code ("EXCEPTION_ACCESS_VIOLATION", ...), or null for a
/// code without one. Any thread.
const char* ExceptionName(uint32_t code);

/// Writes the description of a caught fault ("Unhandled exeption. ...") into `buffer` of
/// `size` bytes, cut to fit, and returns kExceptionExecuteHandler. Any thread, not inside a
/// signal handler.
int DescribeException(const ExceptionRecord& record, char* buffer, size_t size);
/// The same description as a string.
std::string DescribeException(const ExceptionRecord& record);

} // namespace larimo

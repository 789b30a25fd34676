// SPDX-License-Identifier: GPL-3.0-or-later
#include "exception.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <new>

#include "error.h"

namespace larimo {

namespace {

constexpr size_t kMaxMessageUnits = 65536;

struct ExceptionNameEntry {
    uint32_t code;
    const char* name;
};

constexpr ExceptionNameEntry kExceptionNames[] = {
    {0x80000001U, "EXCEPTION_GUARD_PAGE"},
    {0x80000002U, "EXCEPTION_DATATYPE_MISALIGNMENT"},
    {0x80000003U, "EXCEPTION_BREAKPOINT"},
    {0x80000004U, "EXCEPTION_SINGLE_STEP"},
    {0xC0000005U, "EXCEPTION_ACCESS_VIOLATION"},
    {0xC0000006U, "EXCEPTION_IN_PAGE_ERROR"},
    {0xC0000008U, "EXCEPTION_INVALID_HANDLE"},
    {0xC000001DU, "EXCEPTION_ILLEGAL_INSTRUCTION"},
    {0xC0000025U, "EXCEPTION_NONCONTINUABLE_EXCEPTION"},
    {0xC0000026U, "EXCEPTION_INVALID_DISPOSITION"},
    {0xC000008CU, "EXCEPTION_ARRAY_BOUNDS_EXCEEDED"},
    {0xC000008DU, "EXCEPTION_FLT_DENORMAL_OPERAND"},
    {0xC000008EU, "EXCEPTION_FLT_DIVIDE_BY_ZERO"},
    {0xC000008FU, "EXCEPTION_FLT_INEXACT_RESULT"},
    {0xC0000090U, "EXCEPTION_FLT_INVALID_OPERATION"},
    {0xC0000091U, "EXCEPTION_FLT_OVERFLOW"},
    {0xC0000092U, "EXCEPTION_FLT_STACK_CHECK"},
    {0xC0000093U, "EXCEPTION_FLT_UNDERFLOW"},
    {0xC0000094U, "EXCEPTION_INT_DIVIDE_BY_ZERO"},
    {0xC0000095U, "EXCEPTION_INT_OVERFLOW"},
    {0xC0000096U, "EXCEPTION_PRIV_INSTRUCTION"},
    {0xC00000FDU, "EXCEPTION_STACK_OVERFLOW"},
};

} // namespace

CMyException::CMyException(int kind, uint32_t code, const char* format, ...) : m_code(code), m_kind(kind)
{
    va_list args;
    va_start(args, format);
    try {
        // Sized for the arguments; the limit only stops runaway input.
        const std::string message = VFormatCut(kMaxMessageUnits, format, args);
        if (kind == kSystemError) {
            const std::string system = SystemErrorText(code);
            if (!system.empty())
                m_text = message + " " + system;
            else
                m_text = FormatCut(kMaxMessageUnits + 64, "%s Unknown error code 0x%08lX.", message.c_str(),
                                   static_cast<unsigned long>(code));
            m_hasText = true;
        } else {
            m_text = message;
            m_hasText = !message.empty();
        }
    } catch (const std::bad_alloc&) {
        m_text.clear();
        m_hasText = false;
    }
    va_end(args);
}

CMyException::~CMyException() = default;

const char* ExceptionName(uint32_t code)
{
    for (const ExceptionNameEntry& entry : kExceptionNames) {
        if (entry.code == code)
            return entry.name;
    }
    return nullptr;
}

int DescribeException(const ExceptionRecord& record, char* buffer, size_t size)
{
    if (buffer == nullptr || size == 0)
        return kExceptionExecuteHandler;
    if (record.code == kExceptionAccessViolation) {
        const bool write = record.numberParameters > 0 && record.information[0] != 0;
        const uintptr_t address = record.numberParameters > 1 ? record.information[1] : 0;
        std::snprintf(buffer, size, "Unhandled exeption. Access violation %s location by address 0x%" PRIXPTR,
                      write ? "writing" : "reading", address);
    } else if (const char* name = ExceptionName(record.code)) {
        std::snprintf(buffer, size, "Unhandled exeption. Exception code: %s", name);
    } else {
        std::snprintf(buffer, size, "Unhandled exeption. Exception code: %" PRIx32, record.code);
    }
    return kExceptionExecuteHandler;
}

std::string DescribeException(const ExceptionRecord& record)
{
    char buffer[200];
    DescribeException(record, buffer, sizeof buffer);
    return buffer;
}

} // namespace larimo

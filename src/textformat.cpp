// SPDX-License-Identifier: GPL-3.0-or-later
#include "textformat.h"

#include <cstdio>
#include <vector>

namespace larimo {

namespace {

struct CodePoint {
    size_t bytes;
    size_t units;
};

bool IsContinuation(unsigned char byte)
{
    return (byte & 0xC0U) == 0x80U;
}

CodePoint NextCodePoint(std::string_view text, size_t at)
{
    const auto lead = static_cast<unsigned char>(text[at]);
    size_t length = 1;
    size_t units = 1;
    if (lead >= 0xF0U && lead <= 0xF4U) {
        length = 4;
        units = 2;
    } else if (lead >= 0xE0U && lead <= 0xEFU) {
        length = 3;
    } else if (lead >= 0xC2U && lead <= 0xDFU) {
        length = 2;
    }
    if (length > 1) {
        if (at + length > text.size())
            return {1, 1};
        for (size_t i = 1; i < length; ++i) {
            if (!IsContinuation(static_cast<unsigned char>(text[at + i])))
                return {1, 1};
        }
    }
    return {length, units};
}

} // namespace

size_t Utf16Length(std::string_view utf8)
{
    size_t units = 0;
    for (size_t at = 0; at < utf8.size();) {
        const CodePoint point = NextCodePoint(utf8, at);
        at += point.bytes;
        units += point.units;
    }
    return units;
}

std::string_view CutToUtf16(std::string_view utf8, size_t maxUnits)
{
    size_t units = 0;
    size_t at = 0;
    while (at < utf8.size()) {
        const CodePoint point = NextCodePoint(utf8, at);
        if (units + point.units > maxUnits)
            break;
        units += point.units;
        at += point.bytes;
    }
    return utf8.substr(0, at);
}

std::string VFormatCut(size_t maxUnits, const char* format, va_list args)
{
    if (format == nullptr)
        return {};
    // No UTF-8 sequence takes more than three bytes per UTF-16 unit, so a buffer of three bytes
    // per unit (plus a few for a torn last sequence) always holds more than the cut keeps.
    char small[1024];
    va_list measure;
    va_copy(measure, args);
    const int needed = std::vsnprintf(small, sizeof small, format, measure);
    va_end(measure);
    if (needed < 0)
        return {};
    if (static_cast<size_t>(needed) < sizeof small)
        return std::string(CutToUtf16(std::string_view(small, static_cast<size_t>(needed)), maxUnits));

    const size_t cap = maxUnits * 3 + 4;
    const size_t keep = static_cast<size_t>(needed) < cap ? static_cast<size_t>(needed) : cap;
    std::vector<char> buffer(keep + 1);
    std::vsnprintf(buffer.data(), buffer.size(), format, args);
    return std::string(CutToUtf16(std::string_view(buffer.data(), keep), maxUnits));
}

std::string FormatCut(size_t maxUnits, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = VFormatCut(maxUnits, format, args);
    va_end(args);
    return text;
}

} // namespace larimo

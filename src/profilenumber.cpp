// SPDX-License-Identifier: GPL-3.0-or-later
#include "profilenumber.h"

#include <cmath>

namespace larimo {

namespace {

bool IsSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

} // namespace

std::optional<int64_t> ScanInteger(std::string_view text)
{
    size_t pos = 0;
    while (pos < text.size() && IsSpace(text[pos]))
        ++pos;
    bool negative = false;
    if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
        negative = text[pos] == '-';
        ++pos;
    }
    if (pos >= text.size() || text[pos] < '0' || text[pos] > '9')
        return std::nullopt;
    // Accumulate towards the sign's side so that the most negative value fits.
    constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
    constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
    int64_t value = 0;
    for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos) {
        const int digit = text[pos] - '0';
        if (negative) {
            value = value < (kMin + digit) / 10 ? kMin : value * 10 - digit;
        } else {
            value = value > (kMax - digit) / 10 ? kMax : value * 10 + digit;
        }
    }
    return value;
}

std::optional<float> ScanFloat(std::string_view text)
{
    while (!text.empty() && IsSpace(text.front()))
        text.remove_prefix(1);
    if (!text.empty() && text.front() == '+')
        text.remove_prefix(1);
    // A decimal comma, as a program running in another locale would have written it.
    std::string withPoint;
    const size_t separator = text.find_first_of(".,");
    if (separator != std::string_view::npos && text[separator] == ',') {
        withPoint.assign(text.substr(0, 64));
        if (separator < withPoint.size())
            withPoint[separator] = '.';
        text = withPoint;
    }
    float value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::general);
    if (result.ec != std::errc {} || !std::isfinite(value))
        return std::nullopt;
    return value;
}

std::string FormatFloat(float value)
{
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, 6);
    if (result.ec != std::errc {})
        return "0.000000";
    return std::string(buffer, result.ptr);
}

float ReadProfileFloat(const IniDocument& document, std::string_view section, std::string_view key,
                       float defaultValue)
{
    // A missing key would give the formatted default; defaults are whole numbers, which parse
    // back to themselves.
    return ScanFloat(document.Get(section, key, {})).value_or(defaultValue);
}

} // namespace larimo

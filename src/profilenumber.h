// SPDX-License-Identifier: GPL-3.0-or-later
// Numbers in the settings files: written as "%d", "%u" and "%f" would write them, read back
// without regard to the process locale.
//
// Reading follows the classic rule: the default is formatted with the key's format and given to
// the profile reader as its default, and the text that comes back is parsed with the same format.
// An empty text, or one that does not start like a number, gives the default; trailing rubbish
// is ignored ("1abc" reads as 1). Values outside the field's type saturate at its limits.
// All functions are pure and may be called from any thread.
#pragma once

#include "platform/Profile.h"

#include <charconv>
#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace larimo {

/// The leading decimal integer of `text` as sscanf's "%d" finds it (blanks skipped, an optional
/// sign, at least one digit), saturated to the 64-bit range; nothing when there is none.
std::optional<int64_t> ScanInteger(std::string_view text);

/// The leading decimal number of `text` in any plain notation ("0.5", ".5", "5e-1", "+0.5",
/// "0,5"); nothing when there is none or it is not finite.
std::optional<float> ScanFloat(std::string_view text);

/// "%f" of a float: six decimals, '.' as the separator, whatever the locale.
std::string FormatFloat(float value);

template <std::integral T>
std::string FormatInteger(T value)
{
    char buffer[24];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    return std::string(buffer, end);
}

/// Reads an integer key by the rule above.
template <std::integral T>
T ReadProfileInteger(const IniDocument& document, std::string_view section, std::string_view key, T defaultValue)
{
    // A missing key would give the formatted default, which parses back to the default itself.
    const std::optional<int64_t> parsed = ScanInteger(document.Get(section, key, {}));
    if (!parsed)
        return defaultValue;
    constexpr int64_t low = static_cast<int64_t>(std::numeric_limits<T>::min());
    constexpr int64_t high = std::is_unsigned_v<T> && sizeof(T) >= sizeof(int64_t)
        ? std::numeric_limits<int64_t>::max()
        : static_cast<int64_t>(std::numeric_limits<T>::max());
    if (*parsed < low)
        return std::numeric_limits<T>::min();
    if (*parsed > high)
        return static_cast<T>(high);
    return static_cast<T>(*parsed);
}

/// Reads a float key by the rule above ("%f").
float ReadProfileFloat(const IniDocument& document, std::string_view section, std::string_view key,
                       float defaultValue);

} // namespace larimo

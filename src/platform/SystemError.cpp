// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/SystemError.h"

#include <climits>
#include <cstring>

namespace larimo {

namespace {

// strerror_r comes in two shapes, depending on the feature macros in force.
[[maybe_unused]] const char* DescriptionFrom(int result, const char* buffer)
{
    return result == 0 ? buffer : nullptr;
}

[[maybe_unused]] const char* DescriptionFrom(const char* result, const char*)
{
    return result;
}

} // namespace

bool SystemErrorDescription(uint32_t code, std::string& text)
{
    if (code > static_cast<uint32_t>(INT_MAX))
        return false;
    const int number = static_cast<int>(code);
    // strerror_r makes up "Unknown error N" for numbers it lacks; strerrordesc_np tells them
    // apart by returning nothing.
    if (strerrordesc_np(number) == nullptr)
        return false;
    char buffer[512] = {};
    const char* description = DescriptionFrom(strerror_r(number, buffer, sizeof buffer), buffer);
    if (description == nullptr || *description == '\0')
        return false;
    text = description;
    return true;
}

} // namespace larimo

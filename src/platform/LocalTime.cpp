// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/LocalTime.h"

#include <ctime>

namespace larimo {

LocalTime CurrentLocalTime()
{
    LocalTime result;
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    // localtime_r, unlike localtime, shares no static buffer between threads.
    if (localtime_r(&now, &parts) == nullptr)
        return result;
    result.year = parts.tm_year + 1900;
    result.month = parts.tm_mon + 1;
    result.day = parts.tm_mday;
    result.hour = parts.tm_hour;
    result.minute = parts.tm_min;
    result.second = parts.tm_sec;
    return result;
}

} // namespace larimo

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace larimo {

/// A moment of the local calendar, month 1 to 12, four-digit year.
struct LocalTime {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
};

/// The current local date and time of day (the system's time zone). Any thread.
LocalTime CurrentLocalTime();

} // namespace larimo

#pragma once

#include "model/CivilCalendar.h"
#include "platform/Instant.h"

#include <string_view>

namespace almanor::test {

// An instant written as a wall-clock date and time in the named zone.
inline Instant localAt(std::string_view zone, int y, unsigned m, unsigned d, int h = 0,
                       int min = 0) {
    using namespace std::chrono;
    auto calendar = CivilCalendar::forZone(zone);
    return calendar->instant(
        LocalTime(local_days(year(y) / m / d).time_since_epoch() + hours(h) + minutes(min)));
}

} // namespace almanor::test

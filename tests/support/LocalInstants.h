#pragma once

#include "model/CivilCalendar.h"
#include "platform/Instant.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace almanor::test {

// The tray's and the window's tests live in New York.
inline constexpr const char* zone = "America/New_York";

// An instant written as a wall-clock date and time there.
inline Instant at(int y, unsigned m, unsigned d, int h = 0, int min = 0) {
    using namespace std::chrono;
    return CivilCalendar::forZone(zone)->instant(
        LocalTime(local_days(year(y) / m / d).time_since_epoch() + hours(h) + minutes(min)));
}

// Tests whose dates and zone come from the environment, as the programs' do.
struct InNewYork : testing::Test {
    InNewYork() {
        ::setenv("TZ", zone, 1);
        ::setenv("LC_ALL", "en_US.UTF-8", 1);
    }
};

} // namespace almanor::test

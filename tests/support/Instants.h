#pragma once

#include "platform/Instant.h"

namespace almanor::test {

// An instant written as its UTC date and time.
inline Instant utc(int y, unsigned m, unsigned d, int h = 0, int min = 0, int s = 0, int ms = 0) {
    using namespace std::chrono;
    return Instant(sys_days(year(y) / m / d).time_since_epoch() + hours(h) + minutes(min) +
                   seconds(s) + milliseconds(ms));
}

} // namespace almanor::test

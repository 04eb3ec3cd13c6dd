#pragma once

#include <chrono>

namespace almanor {

// An instant on the UTC time line. Milliseconds are the grain of both the store's date text and
// ICU's calendar arithmetic, so nothing finer is ever kept.
using Instant = std::chrono::sys_time<std::chrono::milliseconds>;

// Wall-clock time in some zone, without the zone.
using LocalTime = std::chrono::local_time<std::chrono::milliseconds>;

// The platform's reference date for "seconds since 2001-01-01 00:00:00 UTC".
inline constexpr Instant referenceDate{std::chrono::sys_days{std::chrono::year{2001} / 1 / 1}};

inline double secondsSinceReferenceDate(Instant t) {
    return std::chrono::duration<double>(t - referenceDate).count();
}

} // namespace almanor

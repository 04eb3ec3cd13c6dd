#pragma once

#include "platform/Export.h"
#include "platform/Instant.h"

#include <memory>
#include <string_view>

namespace almanor {

// Gregorian calendar arithmetic in one time zone, with the semantics of ICU's icu::Calendar:
// day, month and year addition with the calendar's clamping and its handling of skipped and
// repeated wall times, whole-unit differences truncated toward zero, weekdays 1 = Sunday.
//
// A calendar holds the zone that was current when it was made. Make one per computation (one
// title, one listing) so that a change of the user's zone is seen at the next one. Not for use
// from two threads at once.
class ALMANOR_EXPORT DayCalendar {
  public:
    virtual ~DayCalendar() = default;

    // The user's calendar now: the zone from TZ, else the system's.
    static std::unique_ptr<DayCalendar> current();
    // The calendar of a named zone ("Europe/Prague"); an unknown name is nullptr.
    static std::unique_ptr<DayCalendar> forZone(std::string_view zoneId);

    virtual std::string zoneId() const = 0;

    // 1 Sunday, 2 Monday, ... 7 Saturday, of the local day that holds t.
    virtual int weekday(Instant t) const = 0;
    // Wall time of t in the zone.
    virtual LocalTime localTime(Instant t) const = 0;
    // The instant of a wall time: a skipped time moves forward by the gap, a repeated time
    // takes its later occurrence.
    virtual Instant instant(LocalTime wall) const = 0;
    // The first instant of the local day that holds t (year, month and day of t at 00:00).
    virtual Instant startOfDay(Instant t) const = 0;

    virtual Instant addDays(Instant t, int days) const = 0;
    virtual Instant addMonths(Instant t, int months) const = 0;
    virtual Instant addYears(Instant t, int years) const = 0;

    // Whole units from `from` to `to`, truncated toward zero, negative when `to` is earlier.
    virtual int daysBetween(Instant from, Instant to) const = 0;
    virtual int monthsBetween(Instant from, Instant to) const = 0;
    virtual int yearsBetween(Instant from, Instant to) const = 0;
};

} // namespace almanor

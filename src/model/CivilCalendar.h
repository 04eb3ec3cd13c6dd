#pragma once

#include "model/DayCalendar.h"
#include "platform/Export.h"

#include <memory>
#include <string_view>

namespace almanor {

// DayCalendar that reproduces icu::Calendar's add and fieldDifference step for step (the
// wall-time repair of day addition across a zone transition, the day-of-month clamping of month
// and year addition, the choice of offset for skipped and repeated wall times, the Julian
// calendar before 15 October 1582) with its own day arithmetic, and takes the zone's UTC offsets
// from the system's time-zone database. A multi-year difference costs well under a microsecond
// instead of ICU's tens, and nothing of ICU is loaded.
class ALMANOR_EXPORT CivilCalendar final : public DayCalendar {
  public:
    static std::unique_ptr<CivilCalendar> current();
    static std::unique_ptr<CivilCalendar> forZone(std::string_view zoneId);
    ~CivilCalendar() override;

    std::string zoneId() const override;
    int weekday(Instant t) const override;
    LocalTime localTime(Instant t) const override;
    Instant instant(LocalTime wall) const override;
    Instant startOfDay(Instant t) const override;
    Instant addDays(Instant t, int days) const override;
    Instant addMonths(Instant t, int months) const override;
    Instant addYears(Instant t, int years) const override;
    int daysBetween(Instant from, Instant to) const override;
    int monthsBetween(Instant from, Instant to) const override;
    int yearsBetween(Instant from, Instant to) const override;

    struct Impl;

  private:
    explicit CivilCalendar(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

} // namespace almanor

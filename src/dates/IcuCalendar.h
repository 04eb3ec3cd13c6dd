#pragma once

#include "model/DayCalendar.h"
#include "platform/Export.h"

#include <memory>
#include <string_view>

namespace almanor {

// DayCalendar computed step by step with ICU's icu::GregorianCalendar and ICU's own zone data:
// the definition of the arithmetic, which CivilCalendar reproduces without ICU. It costs tens of
// microseconds per difference.
class ALMANOR_EXPORT IcuCalendar final : public DayCalendar {
  public:
    static std::unique_ptr<IcuCalendar> current();
    static std::unique_ptr<IcuCalendar> forZone(std::string_view zoneId);
    ~IcuCalendar() override;

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
    explicit IcuCalendar(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

} // namespace almanor

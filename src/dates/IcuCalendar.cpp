#include "dates/IcuCalendar.h"

#include "dates/IcuZone.h"

#include <unicode/gregocal.h>

namespace almanor {

using namespace std::chrono;
using icuzone::check;

struct IcuCalendar::Impl {
    std::unique_ptr<icu::GregorianCalendar> calendar;
    const icu::BasicTimeZone* zone = nullptr;

    icu::GregorianCalendar& at(Instant t) {
        UErrorCode status = U_ZERO_ERROR;
        calendar->setTime(double(t.time_since_epoch().count()), status);
        check(status, __LINE__);
        return *calendar;
    }
    Instant time() {
        UErrorCode status = U_ZERO_ERROR;
        double ms = calendar->getTime(status);
        check(status, __LINE__);
        return Instant(milliseconds(static_cast<std::int64_t>(ms)));
    }
    Instant add(Instant t, UCalendarDateFields field, int amount) {
        UErrorCode status = U_ZERO_ERROR;
        at(t).add(field, amount, status);
        check(status, __LINE__);
        return time();
    }
    int difference(Instant from, Instant to, UCalendarDateFields field) {
        UErrorCode status = U_ZERO_ERROR;
        int n = at(from).fieldDifference(double(to.time_since_epoch().count()), field, status);
        check(status, __LINE__);
        return n;
    }
};

namespace {

std::unique_ptr<IcuCalendar::Impl> makeImpl(icuzone::ZonePtr zone) {
    auto impl = std::make_unique<IcuCalendar::Impl>();
    UErrorCode status = U_ZERO_ERROR;
    // Gregorian whatever the user's locale prefers, so counting never depends on the locale.
    impl->calendar = std::make_unique<icu::GregorianCalendar>(zone.release(), status);
    check(status, __LINE__);
    impl->zone = dynamic_cast<const icu::BasicTimeZone*>(&impl->calendar->getTimeZone());
    return impl;
}

} // namespace

IcuCalendar::IcuCalendar(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
IcuCalendar::~IcuCalendar() = default;

std::unique_ptr<IcuCalendar> IcuCalendar::current() {
    return std::unique_ptr<IcuCalendar>(new IcuCalendar(makeImpl(icuzone::detectHost())));
}

std::unique_ptr<IcuCalendar> IcuCalendar::forZone(std::string_view zoneId) {
    auto zone = icuzone::named(zoneId);
    if (!zone) {
        return nullptr;
    }
    return std::unique_ptr<IcuCalendar>(new IcuCalendar(makeImpl(std::move(zone))));
}

std::string IcuCalendar::zoneId() const {
    return icuzone::idOf(impl_->calendar->getTimeZone());
}

int IcuCalendar::weekday(Instant t) const {
    UErrorCode status = U_ZERO_ERROR;
    int day = impl_->at(t).get(UCAL_DAY_OF_WEEK, status);
    check(status, __LINE__);
    return day;
}

LocalTime IcuCalendar::localTime(Instant t) const {
    UErrorCode status = U_ZERO_ERROR;
    auto& c = impl_->at(t);
    int offset = c.get(UCAL_ZONE_OFFSET, status) + c.get(UCAL_DST_OFFSET, status);
    check(status, __LINE__);
    return LocalTime(t.time_since_epoch() + milliseconds(offset));
}

Instant IcuCalendar::instant(LocalTime wall) const {
    // What Calendar::computeTime does with a wall time: a skipped time takes the offset from
    // before the transition, a repeated one the offset from after it.
    UErrorCode status = U_ZERO_ERROR;
    int32_t raw = 0;
    int32_t dst = 0;
    impl_->zone->getOffsetFromLocal(double(wall.time_since_epoch().count()), UCAL_TZ_LOCAL_FORMER,
                                    UCAL_TZ_LOCAL_LATTER, raw, dst, status);
    check(status, __LINE__);
    return Instant(wall.time_since_epoch() - milliseconds(raw + dst));
}

Instant IcuCalendar::startOfDay(Instant t) const {
    auto& c = impl_->at(t);
    c.set(UCAL_HOUR_OF_DAY, 0);
    c.set(UCAL_MINUTE, 0);
    c.set(UCAL_SECOND, 0);
    c.set(UCAL_MILLISECOND, 0);
    return impl_->time();
}

Instant IcuCalendar::addDays(Instant t, int days) const {
    return impl_->add(t, UCAL_DATE, days);
}
Instant IcuCalendar::addMonths(Instant t, int months) const {
    return impl_->add(t, UCAL_MONTH, months);
}
Instant IcuCalendar::addYears(Instant t, int years) const {
    return impl_->add(t, UCAL_YEAR, years);
}

int IcuCalendar::daysBetween(Instant from, Instant to) const {
    return impl_->difference(from, to, UCAL_DATE);
}
int IcuCalendar::monthsBetween(Instant from, Instant to) const {
    return impl_->difference(from, to, UCAL_MONTH);
}
int IcuCalendar::yearsBetween(Instant from, Instant to) const {
    return impl_->difference(from, to, UCAL_YEAR);
}

} // namespace almanor

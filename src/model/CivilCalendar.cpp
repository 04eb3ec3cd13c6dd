#include "model/CivilCalendar.h"

#include "model/IcuCalendar.h"
#include "model/IcuZone.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <unicode/tztrans.h>
#include <vector>

namespace almanor {

using namespace std::chrono;
using icuzone::check;

namespace {

constexpr std::int64_t dayMs = 86'400'000;

std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
    std::int64_t q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}
std::int64_t floorMod(std::int64_t a, std::int64_t b) {
    return a - floorDiv(a, b) * b;
}

// Where proleptic Gregorian dates agree with ICU's calendar (which is Julian before its 1582
// cut-over) and <chrono>'s years stay in range.
constexpr std::int64_t fastFirst = sys_days(year(1583) / 1 / 1).time_since_epoch().count() * dayMs;
constexpr std::int64_t fastLast = sys_days(year(30000) / 1 / 1).time_since_epoch().count() * dayMs;

bool fast(std::int64_t ms) {
    return ms >= fastFirst && ms < fastLast;
}

std::int64_t ms(Instant t) {
    return t.time_since_epoch().count();
}
Instant instantOf(std::int64_t ms) {
    return Instant(milliseconds(ms));
}

} // namespace

struct CivilCalendar::Impl {
    icuzone::ZonePtr zone;
    mutable std::unique_ptr<IcuCalendar> fallback;

    // Stretches of UTC time with one offset, learnt from ICU's transitions as they are needed.
    // Counting thousands of events asks for the same few dozen stretches over and over, and a
    // lookup here is a fraction of the cost of ICU's own offset computation.
    struct Span {
        std::int64_t start; // first instant
        std::int64_t end;   // first instant after
        std::int64_t offset;
    };
    mutable std::vector<Span> spans; // sorted by start, disjoint
    mutable std::size_t lastSpan = 0;

    const Span& spanAt(std::int64_t utc) const {
        if (lastSpan < spans.size() && spans[lastSpan].start <= utc && utc < spans[lastSpan].end) {
            return spans[lastSpan];
        }
        auto it = std::upper_bound(spans.begin(), spans.end(), utc,
                                   [](std::int64_t t, const Span& s) { return t < s.start; });
        if (it != spans.begin() && utc < std::prev(it)->end) {
            lastSpan = std::size_t(std::prev(it) - spans.begin());
            return spans[lastSpan];
        }
        Span span{std::numeric_limits<std::int64_t>::min(),
                  std::numeric_limits<std::int64_t>::max(), icuOffsetAt(utc)};
        icu::TimeZoneTransition transition;
        if (zone->getPreviousTransition(double(utc), true, transition)) {
            span.start = static_cast<std::int64_t>(transition.getTime());
        }
        if (zone->getNextTransition(double(utc), false, transition)) {
            span.end = static_cast<std::int64_t>(transition.getTime());
        }
        it = spans.insert(it, span);
        lastSpan = std::size_t(it - spans.begin());
        return *it;
    }

    std::int64_t icuOffsetAt(std::int64_t utc) const {
        UErrorCode status = U_ZERO_ERROR;
        int32_t raw = 0;
        int32_t dst = 0;
        zone->getOffset(double(utc), false, raw, dst, status);
        check(status, __LINE__);
        return raw + dst;
    }

    // UTC offset at a UTC instant.
    std::int64_t offsetAt(std::int64_t utc) const { return spanAt(utc).offset; }

    // Calendar::computeTime's choice for a wall time: skipped wall times use the offset from
    // before the transition (so they land after it), repeated ones the offset after it.
    std::int64_t toUtc(std::int64_t wall) const {
        // Offsets differ by at most a day and a few hours, so a wall time whose instant lies this
        // far inside its stretch has no other instant: no transition can be in reach.
        constexpr std::int64_t reach = 30LL * 3'600'000;
        std::int64_t guess = wall - offsetAt(wall);
        const Span& span = spanAt(guess);
        std::int64_t utc = wall - span.offset;
        if (utc - reach >= span.start && utc + reach < span.end) {
            return utc;
        }
        UErrorCode status = U_ZERO_ERROR;
        int32_t raw = 0;
        int32_t dst = 0;
        zone->getOffsetFromLocal(double(wall), UCAL_TZ_LOCAL_FORMER, UCAL_TZ_LOCAL_LATTER, raw, dst,
                                 status);
        check(status, __LINE__);
        return wall - (raw + dst);
    }
    std::int64_t local(std::int64_t utc) const { return utc + offsetAt(utc); }

    // Calendar::add for a day field: move by whole 24-hour days, then repair the wall time if
    // a zone transition lies between; a wall time that does not exist goes to the later side.
    std::int64_t addDays(std::int64_t t, std::int64_t days) const {
        std::int64_t prevOffset = offsetAt(t);
        std::int64_t prevWall = floorMod(t + prevOffset, dayMs);
        std::int64_t result = t + days * dayMs;
        std::int64_t newOffset = offsetAt(result);
        std::int64_t newWall = floorMod(result + newOffset, dayMs);
        if (newWall != prevWall && newOffset != prevOffset) {
            std::int64_t unadjusted = result;
            std::int64_t adjust = prevOffset - newOffset;
            adjust = adjust >= 0 ? adjust % dayMs : -((-adjust) % dayMs);
            if (adjust != 0) {
                result = unadjusted + adjust;
                newWall = floorMod(local(result), dayMs);
            }
            if (newWall != prevWall && adjust < 0) {
                result = unadjusted;
            }
        }
        return result;
    }

    // Calendar::add for months: the same wall time on the same day of the month, the day pinned
    // to the length of the target month.
    std::int64_t addMonths(std::int64_t t, std::int64_t months) const {
        if (months == 0) {
            return t; // Calendar::add does nothing at all for 0, even on a repeated wall time
        }
        std::int64_t wall = local(t);
        year_month_day date{sys_days(days(floorDiv(wall, dayMs)))};
        year_month target = year_month(date.year(), date.month()) + std::chrono::months(months);
        day d = std::min(date.day(), (target / last).day());
        std::int64_t targetWall =
            sys_days(target / d).time_since_epoch().count() * dayMs + floorMod(wall, dayMs);
        return toUtc(targetWall);
    }

    std::int64_t localDay(std::int64_t t) const { return floorDiv(local(t), dayMs); }
    year_month_day localDate(std::int64_t t) const {
        return year_month_day{sys_days(days(localDay(t)))};
    }

    // Calendar::fieldDifference: the largest n with add(from, n) <= to (or, going back, the
    // n nearest zero with add(from, n) >= to). `add` is monotonic in n, so walking from a close
    // estimate finds the same n as ICU's search.
    template <typename Add>
    int difference(std::int64_t from, std::int64_t to, std::int64_t estimate, Add add) const {
        if (from == to) {
            return 0;
        }
        std::int64_t n = estimate;
        if (from < to) {
            n = std::max<std::int64_t>(n, 0);
            while (n > 0 && add(from, n) > to) {
                --n;
            }
            while (add(from, n + 1) <= to) {
                ++n;
            }
        } else {
            n = std::min<std::int64_t>(n, 0);
            while (n < 0 && add(from, n) < to) {
                ++n;
            }
            while (add(from, n - 1) >= to) {
                --n;
            }
        }
        return static_cast<int>(n);
    }
};

CivilCalendar::CivilCalendar(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
CivilCalendar::~CivilCalendar() = default;

std::unique_ptr<CivilCalendar> CivilCalendar::current() {
    auto impl = std::make_unique<Impl>();
    impl->zone = icuzone::detectHost();
    return std::unique_ptr<CivilCalendar>(new CivilCalendar(std::move(impl)));
}

std::unique_ptr<CivilCalendar> CivilCalendar::forZone(std::string_view zoneId) {
    auto zone = icuzone::named(zoneId);
    if (!zone) {
        return nullptr;
    }
    auto impl = std::make_unique<Impl>();
    impl->zone = std::move(zone);
    return std::unique_ptr<CivilCalendar>(new CivilCalendar(std::move(impl)));
}

const IcuCalendar& CivilCalendar::fallback() const {
    if (!impl_->fallback) {
        impl_->fallback = IcuCalendar::forZone(zoneId());
        if (!impl_->fallback) {
            fatalError("Almanor/Utility", __LINE__, "No calendar for the zone " + zoneId());
        }
    }
    return *impl_->fallback;
}

std::string CivilCalendar::zoneId() const {
    return icuzone::idOf(*impl_->zone);
}

int CivilCalendar::weekday(Instant t) const {
    if (!fast(ms(t))) {
        return fallback().weekday(t);
    }
    return int(std::chrono::weekday(sys_days(days(impl_->localDay(ms(t))))).c_encoding()) + 1;
}

LocalTime CivilCalendar::localTime(Instant t) const {
    return LocalTime(milliseconds(impl_->local(ms(t))));
}

Instant CivilCalendar::instant(LocalTime wall) const {
    return instantOf(impl_->toUtc(wall.time_since_epoch().count()));
}

Instant CivilCalendar::startOfDay(Instant t) const {
    if (!fast(ms(t))) {
        return fallback().startOfDay(t);
    }
    return instantOf(impl_->toUtc(impl_->localDay(ms(t)) * dayMs));
}

Instant CivilCalendar::addDays(Instant t, int n) const {
    std::int64_t start = ms(t);
    std::int64_t naive = start + std::int64_t(n) * dayMs;
    if (!fast(start) || !fast(naive)) {
        return fallback().addDays(t, n);
    }
    return instantOf(impl_->addDays(start, n));
}

Instant CivilCalendar::addMonths(Instant t, int n) const {
    std::int64_t start = ms(t);
    std::int64_t naive = start + std::int64_t(n) * 31 * dayMs;
    if (!fast(start) || !fast(naive) || !fast(start + std::int64_t(n) * 28 * dayMs)) {
        return fallback().addMonths(t, n);
    }
    return instantOf(impl_->addMonths(start, n));
}

Instant CivilCalendar::addYears(Instant t, int n) const {
    std::int64_t start = ms(t);
    if (!fast(start) || !fast(start + std::int64_t(n) * 366 * dayMs) ||
        !fast(start + std::int64_t(n) * 365 * dayMs)) {
        return fallback().addYears(t, n);
    }
    return instantOf(impl_->addMonths(start, std::int64_t(n) * 12));
}

int CivilCalendar::daysBetween(Instant from, Instant to) const {
    if (!fast(ms(from)) || !fast(ms(to))) {
        return fallback().daysBetween(from, to);
    }
    const Impl& c = *impl_;
    std::int64_t estimate = c.localDay(ms(to)) - c.localDay(ms(from));
    return c.difference(ms(from), ms(to), estimate,
                        [&c](std::int64_t t, std::int64_t n) { return c.addDays(t, n); });
}

int CivilCalendar::monthsBetween(Instant from, Instant to) const {
    if (!fast(ms(from)) || !fast(ms(to))) {
        return fallback().monthsBetween(from, to);
    }
    const Impl& c = *impl_;
    auto a = c.localDate(ms(from));
    auto b = c.localDate(ms(to));
    std::int64_t estimate = (int(b.year()) - int(a.year())) * 12 +
                            (int(unsigned(b.month())) - int(unsigned(a.month())));
    return c.difference(ms(from), ms(to), estimate,
                        [&c](std::int64_t t, std::int64_t n) { return c.addMonths(t, n); });
}

int CivilCalendar::yearsBetween(Instant from, Instant to) const {
    if (!fast(ms(from)) || !fast(ms(to))) {
        return fallback().yearsBetween(from, to);
    }
    const Impl& c = *impl_;
    std::int64_t estimate = int(c.localDate(ms(to)).year()) - int(c.localDate(ms(from)).year());
    return c.difference(ms(from), ms(to), estimate,
                        [&c](std::int64_t t, std::int64_t n) { return c.addMonths(t, n * 12); });
}

std::unique_ptr<DayCalendar> DayCalendar::current() {
    return CivilCalendar::current();
}

std::unique_ptr<DayCalendar> DayCalendar::forZone(std::string_view zoneId) {
    return CivilCalendar::forZone(zoneId);
}

} // namespace almanor

#include "model/CivilCalendar.h"

#include "model/CivilDays.h"
#include "model/ZoneRules.h"
#include "platform/Fatal.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <vector>

namespace almanor {

using namespace std::chrono;
using civil::floorDiv;
using civil::floorMod;

namespace {

constexpr std::int64_t dayMs = 86'400'000;

// The range of instants ICU's calendar takes (it pins others to it), about 5.8 million years
// either way, and the day numbers that month and year sums are pinned to, far beyond it but
// still clear of overflow in milliseconds.
constexpr std::int64_t firstMs = -184'303'902'528'000'000;
constexpr std::int64_t lastMs = 183'882'168'921'600'000;
constexpr std::int64_t farDays = 100'000'000'000;

// The Gregorian calendar from 15 October 1582 on, the Julian one before, as ICU's
// GregorianCalendar counts.
constexpr std::int64_t cutover = civil::gregorianDays(1582, 10, 15);

// <chrono>'s conversions, the fastest, where they hold: Gregorian dates up to the year 30000.
constexpr std::int64_t chronoLast = civil::gregorianDays(30000, 1, 1);

civil::Date dateOf(std::int64_t day) {
    if (day >= cutover && day < chronoLast) {
        year_month_day date{sys_days(days(day))};
        return {int(date.year()), int(unsigned(date.month())), int(unsigned(date.day()))};
    }
    return day >= cutover ? civil::gregorianDate(day) : civil::julianDate(day);
}

// A date written in the cut-over year that the Gregorian calendar puts before the cut-over
// (5 to 14 October included) is read as Julian, as ICU reads it.
std::int64_t dayOf(std::int64_t year, int month, int day) {
    if (year > 1582 && year < 30000) {
        return sys_days(std::chrono::year(int(year)) / std::chrono::month(unsigned(month)) /
                        std::chrono::day(unsigned(day)))
            .time_since_epoch()
            .count();
    }
    if (year >= 1582) {
        std::int64_t g = civil::gregorianDays(year, month, day);
        if (g >= cutover) {
            return g;
        }
    }
    return civil::julianDays(year, month, day);
}

int monthLength(std::int64_t year, int month) {
    constexpr std::array<int, 12> lengths{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month != 2) {
        return lengths[std::size_t(month - 1)];
    }
    bool leap = year >= 1582 ? civil::isGregorianLeap(year) : floorMod(year, 4) == 0;
    return leap ? 29 : 28;
}

std::int64_t ms(Instant t) {
    return std::clamp<std::int64_t>(t.time_since_epoch().count(), firstMs, lastMs);
}
Instant instantOf(std::int64_t ms) {
    return Instant(milliseconds(ms));
}

} // namespace

struct CivilCalendar::Impl {
    Zone zone;

    // Stretches of UTC time with one offset, learnt from the zone's rules as they are needed.
    // Counting thousands of events asks for the same few dozen stretches over and over.
    using Span = ZoneRules::Span;
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
        it = spans.insert(it, zone.rules.spanAt(utc));
        lastSpan = std::size_t(it - spans.begin());
        return *it;
    }

    // UTC offset at a UTC instant.
    std::int64_t offsetAt(std::int64_t utc) const { return spanAt(utc).offset; }

    // Calendar::computeTime's choice for a wall time: skipped wall times use the offset from
    // before the transition (so they land after it), repeated ones the offset after it.
    std::int64_t toUtc(std::int64_t wall) const {
        wall = std::clamp(wall, firstMs - dayMs, lastMs + dayMs);
        // Offsets differ by at most a day and a few hours, so a wall time whose instant lies this
        // far inside its stretch has no other instant: no transition can be in reach.
        constexpr std::int64_t reach = 30LL * 3'600'000;
        std::int64_t guess = wall - offsetAt(wall);
        const Span& span = spanAt(guess);
        std::int64_t utc = wall - span.offset;
        if (utc - reach >= span.start && utc + reach < span.end) {
            return utc;
        }
        // Near a transition: the offset after the last transition whose new wall clock has
        // started by `wall` (TimeZone::getOffsetFromLocal with "former" for skipped and
        // "latter" for repeated times).
        constexpr std::int64_t window = 2 * dayMs;
        const Span* s = &spanAt(wall - window);
        std::int64_t offset = s->offset;
        while (s->end <= wall + window) {
            std::int64_t transition = s->end;
            s = &spanAt(transition);
            if (transition + s->offset <= wall) {
                offset = s->offset;
            }
        }
        return wall - offset;
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
        civil::Date date = dateOf(floorDiv(wall, dayMs));
        std::int64_t month = date.month - 1 + months;
        std::int64_t year = date.year + floorDiv(month, 12);
        int m = int(floorMod(month, 12)) + 1;
        int d = std::min(date.day, monthLength(year, m));
        std::int64_t day = std::clamp(dayOf(year, m, d), -farDays, farDays);
        return toUtc(day * dayMs + floorMod(wall, dayMs));
    }

    std::int64_t localDay(std::int64_t t) const { return floorDiv(local(t), dayMs); }
    civil::Date localDate(std::int64_t t) const { return dateOf(localDay(t)); }

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
        if (n < std::numeric_limits<int>::min() || n > std::numeric_limits<int>::max()) {
            fatalError("Almanor/Utility", __LINE__, "Calendar difference out of range");
        }
        return static_cast<int>(n);
    }
};

CivilCalendar::CivilCalendar(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
CivilCalendar::~CivilCalendar() = default;

std::unique_ptr<CivilCalendar> CivilCalendar::current() {
    auto impl = std::make_unique<Impl>();
    impl->zone = hostZone();
    return std::unique_ptr<CivilCalendar>(new CivilCalendar(std::move(impl)));
}

std::unique_ptr<CivilCalendar> CivilCalendar::forZone(std::string_view zoneId) {
    auto zone = namedZone(zoneId);
    if (!zone) {
        return nullptr;
    }
    auto impl = std::make_unique<Impl>();
    impl->zone = std::move(*zone);
    return std::unique_ptr<CivilCalendar>(new CivilCalendar(std::move(impl)));
}

std::string CivilCalendar::zoneId() const {
    return impl_->zone.id;
}

int CivilCalendar::weekday(Instant t) const {
    return civil::weekdayOf(impl_->localDay(ms(t))) + 1;
}

LocalTime CivilCalendar::localTime(Instant t) const {
    return LocalTime(milliseconds(impl_->local(ms(t))));
}

Instant CivilCalendar::instant(LocalTime wall) const {
    return instantOf(impl_->toUtc(wall.time_since_epoch().count()));
}

Instant CivilCalendar::startOfDay(Instant t) const {
    return instantOf(impl_->toUtc(impl_->localDay(ms(t)) * dayMs));
}

Instant CivilCalendar::addDays(Instant t, int n) const {
    return instantOf(impl_->addDays(ms(t), n));
}

Instant CivilCalendar::addMonths(Instant t, int n) const {
    return instantOf(impl_->addMonths(ms(t), n));
}

Instant CivilCalendar::addYears(Instant t, int n) const {
    return instantOf(impl_->addMonths(ms(t), std::int64_t(n) * 12));
}

int CivilCalendar::daysBetween(Instant from, Instant to) const {
    const Impl& c = *impl_;
    std::int64_t a = ms(from);
    std::int64_t b = ms(to);
    std::int64_t estimate = c.localDay(b) - c.localDay(a);
    return c.difference(a, b, estimate,
                        [&c](std::int64_t t, std::int64_t n) { return c.addDays(t, n); });
}

int CivilCalendar::monthsBetween(Instant from, Instant to) const {
    const Impl& c = *impl_;
    std::int64_t a = ms(from);
    std::int64_t b = ms(to);
    civil::Date x = c.localDate(a);
    civil::Date y = c.localDate(b);
    std::int64_t estimate = (y.year - x.year) * 12 + (y.month - x.month);
    return c.difference(a, b, estimate,
                        [&c](std::int64_t t, std::int64_t n) { return c.addMonths(t, n); });
}

int CivilCalendar::yearsBetween(Instant from, Instant to) const {
    const Impl& c = *impl_;
    std::int64_t a = ms(from);
    std::int64_t b = ms(to);
    std::int64_t estimate = c.localDate(b).year - c.localDate(a).year;
    return c.difference(a, b, estimate,
                        [&c](std::int64_t t, std::int64_t n) { return c.addMonths(t, n * 12); });
}

std::unique_ptr<DayCalendar> DayCalendar::current() {
    return CivilCalendar::current();
}

std::unique_ptr<DayCalendar> DayCalendar::forZone(std::string_view zoneId) {
    return CivilCalendar::forZone(zoneId);
}

} // namespace almanor

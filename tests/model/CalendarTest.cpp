// The fast calendar against ICU's own, operation by operation, where naive arithmetic breaks:
// month ends, leap days, every hour around DST changes, wall times that are skipped or repeat.
#include "Instants.h"
#include "dates/IcuCalendar.h"
#include "model/CivilCalendar.h"

#include <algorithm>
#include <ctime>
#include <gtest/gtest.h>
#include <random>

using namespace almanor;
using namespace std::chrono;
using almanor::test::utc;

namespace {

// Northern and southern DST, DST at midnight, 30- and 45-minute offsets, a 30-minute DST shift,
// the day Samoa skipped, the date line, Dublin's negative DST: zones whose rules ICU's built-in
// data still has right (the system's database is the one counted by: see the last test).
const char* const zones[] = {
    "America/New_York",    "Europe/Prague", "Australia/Sydney",   "America/Santiago",
    "America/Sao_Paulo",   "Asia/Beirut",   "Asia/Kolkata",       "Asia/Kathmandu",
    "Australia/Lord_Howe", "Pacific/Apia",  "Pacific/Kiritimati", "America/Havana",
    "Europe/Dublin",       "UTC",
};

std::int64_t ms(Instant t) {
    return t.time_since_epoch().count();
}

// Every operation on a and b, with n as the amount to add.
void expectAgreement(const DayCalendar& fast, const DayCalendar& icu, Instant a, Instant b, int n) {
    ASSERT_EQ(fast.weekday(a), icu.weekday(a));
    ASSERT_EQ(fast.startOfDay(a), icu.startOfDay(a));
    ASSERT_EQ(fast.localTime(a), icu.localTime(a));
    ASSERT_EQ(fast.instant(fast.localTime(b)), icu.instant(icu.localTime(b)));
    ASSERT_EQ(fast.addDays(a, n), icu.addDays(a, n)) << "days " << n;
    ASSERT_EQ(fast.addMonths(a, n), icu.addMonths(a, n)) << "months " << n;
    ASSERT_EQ(fast.addYears(a, n % 200), icu.addYears(a, n % 200)) << "years " << n % 200;
    ASSERT_EQ(fast.daysBetween(a, b), icu.daysBetween(a, b));
    ASSERT_EQ(fast.monthsBetween(a, b), icu.monthsBetween(a, b));
    ASSERT_EQ(fast.yearsBetween(a, b), icu.yearsBetween(a, b));
}

class CalendarAgreement : public testing::TestWithParam<const char*> {
  protected:
    void SetUp() override {
        fast = CivilCalendar::forZone(GetParam());
        icu = IcuCalendar::forZone(GetParam());
        ASSERT_TRUE(fast && icu);
        ASSERT_EQ(fast->zoneId(), GetParam());
    }

    // Local midnights, the last days of months, the hours of the months DST changes in, any time.
    Instant draw(std::mt19937_64& rng) {
        auto any = [&rng](auto from, auto to) {
            return std::uniform_int_distribution<decltype(from + to)>(from, to)(rng);
        };
        sys_days month = sys_days(year(any(1900, 2060)) / unsigned(any(1, 12)) / 1);
        switch (any(0, 3)) {
        case 0:
            return fast->startOfDay(Instant((month + days(any(0, 27))).time_since_epoch()));
        case 1:
            return Instant((sys_days(year_month_day(month) + months(1)) - days(any(1, 4)))
                               .time_since_epoch()) +
                   milliseconds(any(0, 86'399'999));
        case 2: {
            const unsigned changes[] = {3, 4, 9, 10, 11};
            year_month_day ymd(month);
            return Instant(sys_days(ymd.year() / changes[any(0, 4)] / unsigned(any(1, 30)))
                               .time_since_epoch()) +
                   hours(any(0, 23)) + minutes(30 * any(0, 1));
        }
        default:
            return Instant(milliseconds(any(ms(utc(1900, 1, 1)), ms(utc(2060, 1, 1)))));
        }
    }

    std::unique_ptr<CivilCalendar> fast;
    std::unique_ptr<IcuCalendar> icu;
};

TEST_P(CalendarAgreement, RandomOperationsMatchIcu) {
    std::mt19937_64 rng(20261122);
    for (int i = 0; i < 1500; ++i) {
        Instant a = draw(rng);
        Instant b = draw(rng);
        SCOPED_TRACE(std::to_string(ms(a)) + " " + std::to_string(ms(b)));
        int n = std::uniform_int_distribution<int>(i % 2 == 0 ? -40 : -30000,
                                                   i % 2 == 0 ? 40 : 30000)(rng);
        ASSERT_NO_FATAL_FAILURE(expectAgreement(*fast, *icu, a, b, n));
        // b as a wall time, which may be skipped or repeated here.
        LocalTime wall(b.time_since_epoch());
        ASSERT_EQ(fast->instant(wall), icu->instant(wall));
    }
}

// Day steps from every hour of the days around each transition of a decade: where "add
// 86,400 s" or "add to the wall clock" goes wrong.
TEST_P(CalendarAgreement, DayStepsAcrossEveryTransitionHourMatchIcu) {
    for (int y = 2008; y <= 2016; ++y) {
        for (unsigned m : {3u, 4u, 10u, 11u, 12u}) {
            for (unsigned d = 1; d <= 31 && year_month_day(year(y) / m / d).ok(); ++d) {
                for (int h = 0; h < 24; ++h) {
                    Instant a = Instant(sys_days(year(y) / m / d).time_since_epoch()) + hours(h);
                    for (int n : {-8, -1, 1, 2, 7}) {
                        ASSERT_EQ(fast->addDays(a, n), icu->addDays(a, n)) << ms(a) << " " << n;
                    }
                    Instant b = a + hours(23 + h % 3);
                    ASSERT_EQ(fast->daysBetween(a, b), icu->daysBetween(a, b)) << ms(a);
                    ASSERT_EQ(fast->daysBetween(b, a), icu->daysBetween(b, a)) << ms(a);
                    ASSERT_EQ(fast->startOfDay(a), icu->startOfDay(a)) << ms(a);
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Zones, CalendarAgreement, testing::ValuesIn(zones), [](const auto& p) {
    std::string name = p.param;
    std::replace(name.begin(), name.end(), '/', '_');
    return name;
});

// ICU counts in the Julian calendar before 15 October 1582 (years before 1 AD included), and by
// the zone's last rule for ever.
TEST(Calendar, BeforeTheGregorianReformAndFarAheadIcuIsFollowed) {
    auto fast = CivilCalendar::forZone("Europe/Rome");
    auto icu = IcuCalendar::forZone("Europe/Rome");
    const std::int64_t ranges[][2] = {
        {ms(utc(-3000, 1, 1)), ms(utc(1700, 1, 1))},
        {ms(utc(1582, 9, 1)), ms(utc(1582, 12, 1))},
        {ms(utc(30000, 1, 1)), 6'000'000'000'000'000}, // to year 192,000
    };
    std::mt19937_64 rng(1582);
    std::uniform_int_distribution<int> amount(-3000, 3000);
    for (int i = 0; i < 600; ++i) {
        std::uniform_int_distribution<std::int64_t> any(ranges[i % 3][0], ranges[i % 3][1]);
        Instant a{milliseconds(any(rng))};
        Instant b = i % 2 == 0 ? Instant{milliseconds(any(rng))} : a + days(amount(rng));
        SCOPED_TRACE(std::to_string(ms(a)) + " " + std::to_string(ms(b)));
        ASSERT_NO_FATAL_FAILURE(expectAgreement(*fast, *icu, a, b, amount(rng)));
    }
}

TEST(Calendar, TzIsReadEachTimeAsIcuReadsIt) {
    EXPECT_EQ(CivilCalendar::forZone("Mars/Olympus_Mons"), nullptr);
    EXPECT_EQ(CivilCalendar::forZone("../zoneinfo/UTC"), nullptr);
    // Zone names, with the prefixes a TZ path may carry; names of none (the C library's standard
    // offset); POSIX rules and the unset TZ (both the system's zone).
    for (const char* tz : {"Asia/Tokyo", ":America/Denver", "posix/Europe/Paris",
                           "Mars/Olympus_Mons", "GMT+5", "", "CET-1CEST", "unset"}) {
        SCOPED_TRACE(tz);
        std::string_view(tz) == "unset" ? unsetenv("TZ") : setenv("TZ", tz, 1);
        auto fast = DayCalendar::current();
        auto icu = IcuCalendar::current();
        EXPECT_EQ(fast->zoneId(), icu->zoneId());
        for (Instant t : {utc(2024, 1, 15), utc(2024, 7, 15)}) {
            EXPECT_EQ(fast->localTime(t), icu->localTime(t));
        }
    }
}

// Greenland moved to -02 in 2023, with daylight time at -01 from 2024 by a rule of negative
// hours, after ICU 72's built-in data was made: the C library reads the same files as the
// calendar, here every hour to 2045, past the end of the file's table.
TEST(Calendar, OffsetsFollowTheSystemsDatabase) {
    auto nuuk = CivilCalendar::forZone("America/Nuuk");
    ASSERT_TRUE(nuuk);
    setenv("TZ", "America/Nuuk", 1);
    tzset();
    for (Instant t = utc(2022, 1, 1); t < utc(2046, 1, 1); t += hours(1)) {
        std::time_t s = duration_cast<seconds>(t.time_since_epoch()).count();
        std::tm local{};
        ASSERT_TRUE(localtime_r(&s, &local));
        ASSERT_EQ(nuuk->localTime(t).time_since_epoch() - t.time_since_epoch(),
                  seconds(local.tm_gmtoff))
            << s;
    }
    unsetenv("TZ");
}

} // namespace

// The fast calendar must agree with ICU's own calendar, operation by operation, on the cases that
// break naive arithmetic: month ends, leap days, DST transitions at every hour, zones with
// 30-minute shifts, zones that skipped a whole day, and dates around them.
#include "Instants.h"
#include "dates/IcuCalendar.h"
#include "model/CivilCalendar.h"

#include <array>
#include <cstdio>
#include <gtest/gtest.h>
#include <random>

using namespace almanor;
using namespace std::chrono;
using almanor::test::utc;

namespace {

LocalTime wall(int y, unsigned m, unsigned d, int h = 0, int min = 0) {
    return LocalTime(local_days(year(y) / m / d).time_since_epoch() + hours(h) + minutes(min));
}

std::string text(Instant t) {
    auto day = floor<days>(t);
    year_month_day ymd(day);
    hh_mm_ss hms(t - day);
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%d-%02u-%02uT%02ld:%02ld:%02ld.%03ldZ", int(ymd.year()),
                  unsigned(ymd.month()), unsigned(ymd.day()), long(hms.hours().count()),
                  long(hms.minutes().count()), long(hms.seconds().count()),
                  long(hms.subseconds().count()));
    return buffer;
}

// Zones chosen for their transitions: northern and southern DST, DST at midnight (days whose
// midnight does not exist), half-hour and 45-minute offsets, a 30-minute DST shift, a zone that
// skipped 30 December 2011, the date line, and winter as "negative" DST in the system's files
// (Dublin). Only zones whose rules ICU's built-in data still has right: the system's database is
// the one counted by (see OffsetsFollowTheSystemsDatabase).
const char* const zones[] = {
    "America/New_York",    "Europe/Prague", "Australia/Sydney",   "America/Santiago",
    "America/Sao_Paulo",   "Asia/Beirut",   "Asia/Kolkata",       "Asia/Kathmandu",
    "Australia/Lord_Howe", "Pacific/Apia",  "Pacific/Kiritimati", "America/Havana",
    "Europe/Dublin",       "UTC",
};

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

    // Instants clustered on the zone's transitions and on month ends, plus uniform ones.
    Instant draw(std::mt19937_64& rng) {
        std::uniform_int_distribution<int> kind(0, 3);
        std::uniform_int_distribution<int> yearDist(1900, 2060);
        std::uniform_int_distribution<int> monthDist(1, 12);
        std::uniform_int_distribution<std::int64_t> msInDay(0, 86'400'000 - 1);
        std::uniform_int_distribution<int> hourDist(0, 23);
        int y = yearDist(rng);
        unsigned m = unsigned(monthDist(rng));
        switch (kind(rng)) {
        case 0: { // local midnight of some day, as the start of today would be
            std::uniform_int_distribution<int> dayDist(1, 31);
            year_month_day ymd = year(y) / m / unsigned(dayDist(rng));
            if (!ymd.ok()) {
                ymd = year(y) / m / last;
            }
            return fast->startOfDay(Instant(sys_days(ymd).time_since_epoch()) + hours(12));
        }
        case 1: { // around the last days of a month
            std::uniform_int_distribution<int> back(0, 3);
            sys_days d = sys_days(year(y) / m / last) - days(back(rng));
            return Instant(d.time_since_epoch()) + milliseconds(msInDay(rng));
        }
        case 2: { // on the hour, on days in March/April and September-November (transitions)
            const unsigned transitionMonths[] = {3, 4, 9, 10, 11};
            std::uniform_int_distribution<int> pick(0, 4);
            std::uniform_int_distribution<int> dayDist(1, 30);
            sys_days d = sys_days(year(y) / transitionMonths[pick(rng)] / unsigned(dayDist(rng)));
            std::uniform_int_distribution<int> half(0, 1);
            return Instant(d.time_since_epoch()) + hours(hourDist(rng)) + minutes(30 * half(rng));
        }
        default: {
            std::uniform_int_distribution<std::int64_t> any(
                utc(1900, 1, 1).time_since_epoch().count(),
                utc(2060, 1, 1).time_since_epoch().count());
            return Instant(milliseconds(any(rng)));
        }
        }
    }

    std::unique_ptr<CivilCalendar> fast;
    std::unique_ptr<IcuCalendar> icu;
};

TEST_P(CalendarAgreement, RandomOperationsMatchIcu) {
    std::mt19937_64 rng(20261122);
    std::uniform_int_distribution<int> smallAmount(-40, 40);
    std::uniform_int_distribution<int> largeAmount(-30000, 30000);
    for (int i = 0; i < 1500; ++i) {
        Instant a = draw(rng);
        Instant b = draw(rng);
        SCOPED_TRACE("a=" + text(a) + " b=" + text(b));
        int n = i % 2 == 0 ? smallAmount(rng) : largeAmount(rng);
        ASSERT_NO_FATAL_FAILURE(expectAgreement(*fast, *icu, a, b, n));
    }
}

// Day steps from every hour of the days around each transition of a decade: where naive
// "add 86,400 s" or "add to the wall clock" code goes wrong.
TEST_P(CalendarAgreement, DayStepsAcrossEveryTransitionHourMatchIcu) {
    for (int y = 2008; y <= 2016; ++y) {
        for (unsigned m : {3u, 4u, 10u, 11u, 12u}) {
            for (unsigned d = 1; d <= 31; d += 1) {
                year_month_day ymd = year(y) / m / d;
                if (!ymd.ok()) {
                    continue;
                }
                for (int h = 0; h < 24; h += 1) {
                    Instant a = Instant(sys_days(ymd).time_since_epoch()) + hours(h);
                    for (int n : {-8, -1, 1, 2, 7}) {
                        ASSERT_EQ(fast->addDays(a, n), icu->addDays(a, n)) << text(a) << " " << n;
                    }
                    Instant b = a + hours(23 + h % 3);
                    ASSERT_EQ(fast->daysBetween(a, b), icu->daysBetween(a, b)) << text(a);
                    ASSERT_EQ(fast->daysBetween(b, a), icu->daysBetween(b, a)) << text(a);
                    ASSERT_EQ(fast->startOfDay(a), icu->startOfDay(a)) << text(a);
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Zones, CalendarAgreement, testing::ValuesIn(zones), [](const auto& p) {
    std::string name = p.param;
    for (char& c : name) {
        if (c == '/') {
            c = '_';
        }
    }
    return name;
});

TEST(Calendar, WallTimesThatDoNotExistOrRepeat) {
    auto ny = CivilCalendar::forZone("America/New_York");
    // 02:30 on 10 March 2024 does not exist: it becomes 03:30 EDT.
    EXPECT_EQ(ny->instant(wall(2024, 3, 10, 2, 30)), utc(2024, 3, 10, 7, 30));
    // 01:30 on 3 November 2024 happens twice: the later one (EST) is taken.
    EXPECT_EQ(ny->instant(wall(2024, 11, 3, 1, 30)), utc(2024, 11, 3, 6, 30));
    // Where midnight is skipped the day starts at 01:00.
    auto santiago = CivilCalendar::forZone("America/Santiago");
    Instant start = santiago->startOfDay(utc(2022, 9, 11, 15));
    EXPECT_EQ(santiago->localTime(start), wall(2022, 9, 11, 1, 0));
}

TEST(Calendar, MonthAndYearAdditionClampToTheMonth) {
    auto cal = CivilCalendar::forZone("Europe/Prague");
    Instant jan31 = cal->instant(wall(2024, 1, 31, 18, 45));
    EXPECT_EQ(cal->localTime(cal->addMonths(jan31, 1)), wall(2024, 2, 29, 18, 45));
    EXPECT_EQ(cal->localTime(cal->addMonths(jan31, 2)), wall(2024, 3, 31, 18, 45));
    EXPECT_EQ(cal->localTime(cal->addMonths(jan31, 3)), wall(2024, 4, 30, 18, 45));
    Instant leap = cal->instant(wall(2020, 2, 29));
    EXPECT_EQ(cal->localTime(cal->addYears(leap, 1)), wall(2021, 2, 28));
    EXPECT_EQ(cal->localTime(cal->addYears(leap, 4)), wall(2024, 2, 29));
    // Differences truncate: 31 Jan to 29 Feb is not yet a whole month.
    EXPECT_EQ(cal->monthsBetween(jan31, cal->addMonths(jan31, 1)), 1);
    EXPECT_EQ(cal->monthsBetween(jan31, cal->instant(wall(2024, 2, 29, 18, 44))), 0);
    EXPECT_EQ(
        cal->daysBetween(cal->instant(wall(2024, 3, 2, 12)), cal->instant(wall(2024, 3, 1, 13))),
        0);
    EXPECT_EQ(
        cal->daysBetween(cal->instant(wall(2024, 3, 2, 12)), cal->instant(wall(2024, 3, 1, 12))),
        -1);
}

TEST(Calendar, BeforeTheGregorianReformAndFarAheadIcuIsFollowed) {
    // ICU counts in the Julian calendar before 15 October 1582 (the years before 1 AD included),
    // and the zone's last rule for ever.
    auto fast = CivilCalendar::forZone("Europe/Rome");
    auto icu = IcuCalendar::forZone("Europe/Rome");
    const std::int64_t ranges[][2] = {
        {utc(-3000, 1, 1).time_since_epoch().count(), utc(1700, 1, 1).time_since_epoch().count()},
        {utc(1582, 9, 1).time_since_epoch().count(), utc(1582, 12, 1).time_since_epoch().count()},
        {utc(30000, 1, 1).time_since_epoch().count(), 6'000'000'000'000'000}, // to year 192,000
    };
    std::mt19937_64 rng(1582);
    std::uniform_int_distribution<int> amount(-3000, 3000);
    for (int i = 0; i < 600; ++i) {
        const auto& range = ranges[i % 3];
        std::uniform_int_distribution<std::int64_t> any(range[0], range[1]);
        Instant a{milliseconds(any(rng))};
        Instant b = i % 2 == 0 ? Instant{milliseconds(any(rng))} : a + days(amount(rng));
        SCOPED_TRACE(std::to_string(a.time_since_epoch().count()) + " " +
                     std::to_string(b.time_since_epoch().count()));
        ASSERT_NO_FATAL_FAILURE(expectAgreement(*fast, *icu, a, b, amount(rng)));
    }
}

TEST(Calendar, TzIsReadEachTimeAsIcuReadsIt) {
    EXPECT_EQ(CivilCalendar::forZone("Mars/Olympus_Mons"), nullptr);
    EXPECT_EQ(CivilCalendar::forZone("../zoneinfo/UTC"), nullptr);
    // Names of zones, with the prefixes a TZ path may carry; names of none (they keep the C
    // library's standard offset); POSIX rules and the unset TZ (both the system's zone).
    const char* const values[] = {"Asia/Tokyo",
                                  ":America/Denver",
                                  "posix/Europe/Paris",
                                  "Mars/Olympus_Mons",
                                  "GMT+5",
                                  "",
                                  "CET-1CEST",
                                  nullptr};
    for (const char* tz : values) {
        SCOPED_TRACE(tz == nullptr ? "unset" : tz);
        tz == nullptr ? unsetenv("TZ") : setenv("TZ", tz, 1);
        auto fast = DayCalendar::current();
        auto icu = IcuCalendar::current();
        EXPECT_EQ(fast->zoneId(), icu->zoneId());
        for (Instant t : {utc(2024, 1, 15), utc(2024, 7, 15)}) {
            EXPECT_EQ(fast->localTime(t), icu->localTime(t));
        }
    }
    unsetenv("TZ");
}

TEST(Calendar, OffsetsFollowTheSystemsDatabase) {
    // Greenland moved to -02 in 2023, with daylight time at -01 from 2024 by a rule of negative
    // hours, after ICU 72's built-in data was made: zdump reads the same files as the calendar.
    auto nuuk = CivilCalendar::forZone("America/Nuuk");
    ASSERT_TRUE(nuuk);
    std::unique_ptr<FILE, int (*)(FILE*)> zdump(popen("zdump -v -c 2022,2045 America/Nuuk", "r"),
                                                pclose);
    ASSERT_TRUE(zdump);
    const std::string months = "JanFebMarAprMayJunJulAugSepOctNovDec";
    std::array<char, 256> line{};
    int checked = 0;
    while (std::fgets(line.data(), int(line.size()), zdump.get()) != nullptr) {
        std::array<char, 4> month{};
        int d = 0, h = 0, min = 0, sec = 0, y = 0;
        long offset = 0;
        if (std::sscanf(line.data(), "%*s %*s %3s %d %d:%d:%d %d UT = %*[^=]=%*d gmtoff=%ld",
                        month.data(), &d, &h, &min, &sec, &y, &offset) != 7) {
            continue;
        }
        Instant t = utc(y, unsigned(months.find(month.data()) / 3 + 1), unsigned(d), h, min, sec);
        EXPECT_EQ(nuuk->localTime(t).time_since_epoch() - t.time_since_epoch(), seconds(offset))
            << line.data();
        ++checked;
    }
    EXPECT_GE(checked, 40); // every change to 2045, past the end of the file's table
}

} // namespace

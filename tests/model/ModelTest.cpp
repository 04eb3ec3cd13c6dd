// The fast calendar against ICU's own where naive arithmetic breaks (month ends, leap days, every
// hour around DST changes, wall times that are skipped or repeat).
#include "Instants.h"
#include "Language.h"
#include "dates/DateText.h"
#include "dates/IcuCalendar.h"
#include "model/CivilCalendar.h"
#include "model/Event.h"
#include "model/Text.h"
#include "model/Utility.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <random>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

using namespace almanor;
using namespace std::chrono;
using almanor::test::utc;

namespace {

// Northern and southern DST, DST at midnight, 30- and 45-minute offsets, a 30-minute DST shift,
// the day Samoa skipped, the date line, Dublin's negative DST: zones whose rules ICU's built-in
// data still has right (the system's database is the one counted by: see the Nuuk test).
const char* const zones[] = {
    "America/New_York",    "Europe/Prague", "Australia/Sydney",   "America/Santiago",
    "America/Sao_Paulo",   "Asia/Beirut",   "Asia/Kolkata",       "Asia/Kathmandu",
    "Australia/Lord_Howe", "Pacific/Apia",  "Pacific/Kiritimati", "America/Havana",
    "Europe/Dublin",       "UTC",
};

std::int64_t ms(Instant t) {
    return t.time_since_epoch().count();
}

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

// A wall-clock time in New York, where Sunday 10 March 2024 has 23 hours.
struct Wall {
    int y;
    unsigned m, d;
    int h = 0, min = 0;
};

const auto ny = CivilCalendar::forZone("America/New_York");

Instant at(Wall w) {
    return ny->instant(LocalTime(local_days(year(w.y) / w.m / w.d).time_since_epoch() + hours(w.h) +
                                 minutes(w.min)));
}

TEST(Utility, CountsForEveryScheduleAndMethod) {
    using enum Schedule;
    using enum CountMethod;
    struct Case {
        Wall today, date;
        Schedule schedule;
        CountMethod method;
        int days;
    };
    // Around the week of Monday 4 March 2024.
    const Case cases[] = {
        // The past counts both days; later today is today; the 23-hour day is a whole day.
        {{2024, 3, 6}, {2024, 3, 6, 23, 59}, none, standard, 0},
        {{2024, 3, 6}, {2024, 3, 5}, none, standard, -2},
        {{2024, 3, 9}, {2024, 3, 11}, none, standard, 2},
        {{2024, 3, 8}, {2024, 3, 11}, none, excludeWeekends, 1},
        {{2024, 3, 11}, {2024, 3, 8}, none, excludeWeekends, -2},
        {{2024, 3, 3}, {2024, 3, 9}, none, excludeWeekends, 5},
        {{2024, 3, 10}, {2024, 3, 9}, none, excludeWeekends, 0},
        {{2024, 3, 9}, {2024, 3, 8}, none, excludeWeekends, -1},
        {{2024, 3, 4}, {2024, 4, 1}, none, excludeWeekends, 20},
        {{2024, 4, 1}, {2024, 3, 4}, none, excludeWeekends, -21},
        {{2024, 3, 6}, {2024, 3, 6, 20}, none, excludeWeekends, 0},
        // Weekend targets move to the Friday before or the Monday after.
        {{2024, 3, 6}, {2024, 3, 10}, none, weekendUsesFridayBefore, 2},
        {{2024, 3, 6}, {2024, 3, 9}, none, weekendUsesMondayAfter, 5},
        {{2024, 3, 6}, {2024, 3, 7}, none, weekendUsesFridayBefore, 1},
        {{2024, 3, 13}, {2024, 3, 10}, none, weekendUsesMondayAfter, -3},
        {{2024, 3, 8}, {2024, 3, 9}, none, weekendUsesFridayBefore, 0},
        {{2024, 3, 9}, {2024, 3, 9, 20}, none, weekendUsesMondayAfter, 2},
        // Weekly: the next such weekday, or the coming Sunday once this week's has passed.
        {{2024, 3, 8}, {2024, 2, 23, 9, 30}, weekly, standard, 7},
        {{2024, 3, 7}, {2024, 2, 23, 9, 30}, weekly, standard, 1},
        {{2024, 3, 9}, {2024, 2, 23, 9, 30}, weekly, standard, 1},
        {{2024, 3, 6}, {2024, 2, 26}, weekly, standard, 4},
        {{2024, 3, 4}, {2024, 2, 26}, weekly, standard, 7},
        {{2024, 3, 6}, {2024, 3, 6, 18}, weekly, standard, 0},
        {{2024, 3, 9}, {2024, 2, 23, 9, 30}, weekly, excludeWeekends, 0},
        // Monthly on the clamped day and back to the 31st; at midnight today, next month's.
        {{2024, 2, 10}, {2024, 1, 31}, monthly, standard, 19},
        {{2024, 3, 1}, {2024, 1, 31}, monthly, standard, 30},
        {{2024, 4, 5}, {2024, 1, 31}, monthly, standard, 25},
        {{2024, 3, 6}, {2024, 2, 6}, monthly, standard, 31},
        {{2024, 3, 6}, {2024, 2, 6, 14}, monthly, standard, 0},
        // A leap day recurs on the 28th in common years; one dated today's midnight is next year's.
        {{2023, 3, 1}, {2020, 2, 29}, annually, standard, 365},
        {{2021, 2, 1}, {2020, 2, 29}, annually, standard, 27},
        {{2024, 3, 6}, {2024, 3, 6}, annually, standard, 365},
    };
    for (const auto& c : cases) {
        Instant today = at(c.today);
        Instant date = Utility::occurrenceDate(*ny, today, at(c.date), c.schedule);
        EXPECT_EQ(Utility::dayCount(*ny, today, date, c.method), c.days)
            << c.today.m << "/" << c.today.d << " to " << c.date.y << "/" << c.date.m << "/"
            << c.date.d << " " << int(c.schedule) << " " << int(c.method);
    }
    // The time of day stays across the change to summer time.
    EXPECT_EQ(Utility::occurrenceDate(*ny, at({2024, 3, 20}), at({2024, 1, 25, 8, 15}), monthly),
              at({2024, 3, 25, 8, 15}));
}

TEST(Utility, StatusTextIsOneLine) {
    const std::tuple<std::string, int, std::string> cases[] = {
        {"Holiday", 0, "Holiday today!"},
        {"Holiday", 1, "Holiday 1 day"},
        {"Holiday", -1, "Holiday 1 day ago"},
        {"Holiday", -3, "Holiday 3 days ago"},
        // CR LF, tab, escape, DEL, NUL: a space each; bytes that are no UTF-8 stay as they are.
        {"Two\r\nlines\tand\x1b[2Jmore\x7F", 3, "Two  lines and [2Jmore  3 days"},
        {std::string("nul\0byte", 8), 2, "nul byte 2 days"},
        {"bad\xC2\xFF\xE2\x80", 2, "bad\xC2\xFF\xE2\x80 2 days"},
    };
    for (const auto& [label, days, text] : cases) {
        EXPECT_EQ(Utility::statusText(label, days), text);
    }
    Instant today = at({2025, 12, 20});
    Event e(Uuid::random(), at({2025, 12, 25}), "Christmas Day", std::string("Xmas"),
            Schedule::annually, CountMethod::standard);
    EXPECT_EQ(Utility::statusText(*ny, e, today), "Xmas 5 days");
    std::vector<std::string> heard; // observers hear of each change before it
    auto token = e.observeWillChange([&] { heard.push_back(e.name() + "|" + *e.alias()); });
    e.setName("Christmas");
    e.setAlias(std::string());
    e.disconnect(token);
    e.setName("Christmas Day");
    EXPECT_EQ(heard, (std::vector<std::string>{"Christmas Day|Xmas", "Christmas|Xmas"}));
    EXPECT_EQ(Utility::statusText(*ny, e, today + days(6)), "Christmas Day 364 days");
}

// Each language's plural rule, from its catalogue: Czech has a form for 2 to 4 (not for 22), and
// both decline the count after "ago" otherwise.
TEST(StatusText, FormsInGermanAndCzech) {
    for (auto [locale, expected] :
         {std::pair{"de_DE.UTF-8",
                    "heute!|1 Tag|2 Tage|5 Tage|22 Tage|vor 1 Tag|vor 3 Tagen|vor 5 Tagen|"},
          std::pair{"cs_CZ.UTF-8",
                    "dnes!|1 den|2 dny|5 dní|22 dní|před 1 dnem|před 3 dny|před 5 dny|"}}) {
        test::Language speaking(locale);
        std::string forms;
        for (int count : {0, 1, 2, 5, 22, -1, -3, -5}) {
            forms += Utility::statusText("Urlaub", count).substr(7) + "|";
        }
        EXPECT_EQ(forms, expected);
    }
}

// Trimming takes ICU's White_Space; one-line text breaks at ICU's controls and separators.
TEST(Utility, CharacterClassesAreIcusForEveryCodePoint) {
    for (char32_t c = 0; c <= 0x10FFFF; c = c == 0xD7FF ? 0xE000 : c + 1) {
        std::array<char, 4> bytes{};
        int32_t length = 0;
        U8_APPEND_UNSAFE(bytes.data(), length, c);
        std::string one(bytes.data(), std::size_t(length));
        int8_t type = u_charType(UChar32(c));
        bool breaks =
            type == U_CONTROL_CHAR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR;
        std::string inner = "x" + one + "x";
        ASSERT_EQ(trimmed(one + inner + one),
                  u_isUWhiteSpace(UChar32(c)) ? inner : one + inner + one)
            << int(c);
        ASSERT_EQ(controlsAsSpaces(one), breaks ? " " : one) << int(c);
    }
    // Bytes that are no UTF-8 are no space, nor part of the space before them.
    EXPECT_EQ(trimmed("\xE2\x80 x \xA0 \xE2\x80\x80"), "\xE2\x80 x \xA0");
    EXPECT_EQ(trimmed("\xFF x \xFF"), "\xFF x \xFF");
}

TEST(Event, StoredCodesOutOfRangeReadAsTheFirstCase) {
    EXPECT_EQ(scheduleFromRawValue(7), Schedule::none);
    EXPECT_EQ(scheduleFromRawValue(-1), Schedule::none);
    EXPECT_EQ(countMethodFromRawValue(std::int64_t(1) << 40), CountMethod::standard);
}

TEST(DateTextTest, MenuDatesAndOrdinalsFollowTheZoneAndTheLanguage) {
    DateText en("en_US", "America/New_York");
    // 5 Jan 2031 04:00 UTC is still the 4th in New York; the one formatter keeps no pattern.
    EXPECT_EQ(en.format(utc(2031, 1, 5, 4), "MMM d, yyyy"), "Jan 4, 2031");
    EXPECT_EQ(en.format(utc(2031, 1, 6, 12), "E"), "Mon");
    EXPECT_EQ(en.format(utc(2031, 1, 6, 12), "MMM d, yyyy"), "Jan 6, 2031");
    EXPECT_EQ(en.format(utc(2031, 3, 5, 12), ""), "");
    EXPECT_EQ(en.dayOfMonth(utc(2031, 3, 1, 3)), 28);
    std::string ordinals;
    for (int n : {1, 2, 3, 11, 12, 13, 21, 22, 31}) {
        ordinals += en.ordinal(n) + " ";
    }
    EXPECT_EQ(ordinals, "1st 2nd 3rd 11th 12th 13th 21st 22nd 31st ");
    DateText de("de_DE", "UTC");
    EXPECT_EQ(de.ordinal(22), "22.");
    EXPECT_EQ(de.format(utc(2031, 3, 5, 12), "MMM "), "März ");
}

TEST(DateTextTest, TypedDatesAreWholeDatesOrNothing) {
    DateText en("en_US", "Europe/Berlin");
    DateText de("de_DE", "Europe/Berlin");
    int y = 0, m = 0, d = 0;
    auto parsed = [&](const DateText& text, const char* typed) {
        return text.parseDay(typed, y, m, d)
                   ? std::to_string(y) + "-" + std::to_string(m) + "-" + std::to_string(d)
                   : "refused";
    };
    EXPECT_EQ(parsed(en, " 2032-02-29 "), "2032-2-29");
    EXPECT_EQ(en.shortDate(utc(2031, 7, 4, 12)), "7/4/31");
    EXPECT_EQ(parsed(en, "7/4/31"), "2031-7-4");
    EXPECT_EQ(parsed(de, de.shortDate(utc(2031, 12, 24, 12)).c_str()), "2031-12-24");
    for (const char* bad : {"2031-02-29", "2031-13-01", "2031-00-10", "2031-01-01x", "", "tomorrow",
                            "1/5/31 and more"}) {
        EXPECT_EQ(parsed(en, bad), "refused") << bad;
    }
    EXPECT_EQ(parsed(de, "31.02.31"), "refused");
}

TEST(DateTextTest, UserLocaleFollowsThePosixPrecedence) {
    ::setenv("LC_ALL", "", 1);
    ::setenv("LC_TIME", "de_DE.UTF-8@euro", 1);
    ::setenv("LANG", "fr_FR.UTF-8", 1);
    EXPECT_EQ(DateText::userLocale(), "de_DE");
    ::setenv("LC_ALL", "C", 1);
    EXPECT_EQ(DateText::userLocale(), "en_US_POSIX");
    ::unsetenv("LC_ALL");
    ::unsetenv("LC_TIME");
    EXPECT_EQ(DateText::userLocale(), "fr_FR");
    ::unsetenv("LANG");
    EXPECT_EQ(DateText::userLocale(), "en_US_POSIX");
}

} // namespace

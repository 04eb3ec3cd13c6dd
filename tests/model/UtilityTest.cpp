#include "model/Utility.h"

#include "Instants.h"
#include "Language.h"
#include "dates/DateText.h"
#include "model/CivilCalendar.h"
#include "model/Event.h"
#include "model/Text.h"

#include <array>
#include <cstdlib>
#include <gtest/gtest.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

using namespace almanor;
using namespace std::chrono;
using almanor::test::utc;

namespace {

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
        {{2024, 3, 6}, {2024, 3, 7, 23, 59}, none, standard, 1},
        {{2024, 3, 6}, {2024, 3, 5}, none, standard, -2},
        {{2024, 3, 6}, {2024, 2, 28}, none, standard, -8},
        {{2024, 3, 9}, {2024, 3, 11}, none, standard, 2},
        // Weekdays only.
        {{2024, 3, 6}, {2024, 3, 8}, none, excludeWeekends, 2},
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
        // A leap day recurs on the 28th in common years.
        {{2021, 3, 1}, {2020, 2, 29}, annually, standard, 364},
        {{2023, 3, 1}, {2020, 2, 29}, annually, standard, 365},
        {{2021, 2, 1}, {2020, 2, 29}, annually, standard, 27},
        // Dates ahead stay whatever the schedule.
        {{2024, 3, 6}, {2024, 5, 1, 10}, annually, standard, 56},
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
        {"Holiday", 12, "Holiday 12 days"},
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
    e.setAlias(std::string());
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
        ASSERT_EQ(trimmed("x" + one), u_isUWhiteSpace(UChar32(c)) ? "x" : "x" + one) << int(c);
        ASSERT_EQ(controlsAsSpaces(one), breaks ? " " : one) << int(c);
    }
}

TEST(Event, StoredCodesOutOfRangeReadAsTheFirstCase) {
    EXPECT_EQ(scheduleFromRawValue(3), Schedule::annually);
    EXPECT_EQ(scheduleFromRawValue(7), Schedule::none);
    EXPECT_EQ(scheduleFromRawValue(-1), Schedule::none);
    EXPECT_EQ(countMethodFromRawValue(2), CountMethod::weekendUsesFridayBefore);
    EXPECT_EQ(countMethodFromRawValue(std::int64_t(1) << 40), CountMethod::standard);
}

TEST(Event, ObserversHearBeforeNameOrAliasChange) {
    Event e(Uuid::random(), Instant{}, "Old", std::nullopt, Schedule::none, CountMethod::standard);
    std::vector<std::string> seen;
    auto token =
        e.observeWillChange([&] { seen.push_back(e.name() + "|" + e.alias().value_or("-")); });
    e.setName("New");
    e.setAlias(std::string("A"));
    e.disconnect(token);
    e.setName("Gone");
    EXPECT_EQ(seen, (std::vector<std::string>{"Old|-", "New|-"}));
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

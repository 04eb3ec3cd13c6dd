#include "model/Utility.h"

#include "Language.h"
#include "dates/IcuCalendar.h"
#include "model/CivilCalendar.h"
#include "model/Text.h"

#include <array>
#include <gtest/gtest.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

using namespace almanor;
using namespace std::chrono;

namespace {

// Every case runs on both calendars: the fast one must give the same counts as ICU's own.
class UtilityTest : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        if (GetParam()) {
            cal = CivilCalendar::forZone("America/New_York");
        } else {
            cal = IcuCalendar::forZone("America/New_York");
        }
    }
    Instant at(int y, unsigned m, unsigned d, int h = 0, int min = 0) const {
        return cal->instant(
            LocalTime(local_days(year(y) / m / d).time_since_epoch() + hours(h) + minutes(min)));
    }
    int count(Instant today, Instant date, Schedule s,
              CountMethod m = CountMethod::standard) const {
        return Utility::dayCount(*cal, today, Utility::occurrenceDate(*cal, today, date, s), m);
    }
    std::unique_ptr<DayCalendar> cal;
};

// The week of 4 March 2024: Monday 4 ... Sunday 10 (also the day clocks go forward).
constexpr unsigned mon = 4, wed = 6, thu = 7, fri = 8, sat = 9, sun = 10;

TEST_P(UtilityTest, StandardCountsThePastWithAnExtraDay) {
    Instant today = at(2024, 3, wed);
    EXPECT_EQ(Utility::dayCount(*cal, today, today, CountMethod::standard), 0);
    EXPECT_EQ(Utility::dayCount(*cal, today, at(2024, 3, thu), CountMethod::standard), 1);
    EXPECT_EQ(Utility::dayCount(*cal, today, at(2024, 3, 5), CountMethod::standard), -2);
    EXPECT_EQ(Utility::dayCount(*cal, today, at(2024, 2, 28), CountMethod::standard), -8);
    // Across the 23-hour day: Saturday to Monday is still two days.
    EXPECT_EQ(Utility::dayCount(*cal, at(2024, 3, sat), at(2024, 3, 11), CountMethod::standard), 2);
    // A later time of day today is today, not tomorrow.
    EXPECT_EQ(Utility::dayCount(*cal, today, at(2024, 3, wed, 23, 59), CountMethod::standard), 0);
    EXPECT_EQ(Utility::dayCount(*cal, today, at(2024, 3, thu, 23, 59), CountMethod::standard), 1);
}

TEST_P(UtilityTest, WeekdaysOnlyCountsMondayToFriday) {
    auto wd = [&](Instant today, Instant target) {
        return Utility::weekdaysBetween(*cal, today, target);
    };
    EXPECT_EQ(wd(at(2024, 3, wed), at(2024, 3, fri)), 2);
    EXPECT_EQ(wd(at(2024, 3, fri), at(2024, 3, 11)), 1);
    EXPECT_EQ(wd(at(2024, 3, 11), at(2024, 3, fri)), -2);
    EXPECT_EQ(wd(at(2024, 3, 3), at(2024, 3, sat)), 5);
    EXPECT_EQ(wd(at(2024, 3, wed), at(2024, 3, wed)), 0);
    EXPECT_EQ(wd(at(2024, 3, sun), at(2024, 3, sat)), 0);
    // A Friday event seen on Saturday is one weekday ago.
    EXPECT_EQ(wd(at(2024, 3, sat), at(2024, 3, fri)), -1);
    // Whole weeks: Monday to the Monday four weeks later is 20 weekdays.
    EXPECT_EQ(wd(at(2024, 3, mon), at(2024, 4, 1)), 20);
    EXPECT_EQ(wd(at(2024, 4, 1), at(2024, 3, mon)), -21);
}

TEST_P(UtilityTest, WeekendTargetsMoveToFridayOrMonday) {
    Instant today = at(2024, 3, wed);
    EXPECT_EQ(Utility::weekendAdjustedCount(*cal, today, at(2024, 3, sun), -1), 2);
    EXPECT_EQ(Utility::weekendAdjustedCount(*cal, today, at(2024, 3, sun), +1), 5);
    EXPECT_EQ(Utility::weekendAdjustedCount(*cal, today, at(2024, 3, sat), -1), 2);
    EXPECT_EQ(Utility::weekendAdjustedCount(*cal, today, at(2024, 3, sat), +1), 5);
    // Weekdays stay; a past weekend target keeps the past's extra day.
    EXPECT_EQ(Utility::weekendAdjustedCount(*cal, today, at(2024, 3, thu), -1), 1);
    EXPECT_EQ(Utility::weekendAdjustedCount(*cal, at(2024, 3, 13), at(2024, 3, sun), +1), -3);
    // Moved onto today: today!
    EXPECT_EQ(Utility::weekendAdjustedCount(*cal, at(2024, 3, fri), at(2024, 3, sat), -1), 0);
}

TEST_P(UtilityTest, WeeklyCountsToTheNextWeekdayOrTheComingSunday) {
    Instant pastFriday = at(2024, 2, 23, 9, 30);
    EXPECT_EQ(count(at(2024, 3, fri), pastFriday, Schedule::weekly), 7);
    EXPECT_EQ(count(at(2024, 3, thu), pastFriday, Schedule::weekly), 1);
    EXPECT_EQ(count(at(2024, 3, sat), pastFriday, Schedule::weekly), 1); // to Sunday, by design
    // A Monday event seen on Wednesday counts to the coming Sunday.
    Instant pastMonday = at(2024, 2, 26);
    Instant today = at(2024, 3, wed);
    EXPECT_EQ(Utility::occurrenceDate(*cal, today, pastMonday, Schedule::weekly), at(2024, 3, sun));
    // Never 0 once the first date has passed, but a first date later today is today.
    EXPECT_EQ(count(at(2024, 3, mon), pastMonday, Schedule::weekly), 7);
    EXPECT_EQ(count(today, at(2024, 3, wed, 18), Schedule::weekly), 0);
    // Under weekdays-only, Saturday to the coming Sunday is 0.
    EXPECT_EQ(count(at(2024, 3, sat), pastFriday, Schedule::weekly, CountMethod::excludeWeekends),
              0);
}

TEST_P(UtilityTest, MonthlyRecursOnTheClampedDayAndComesBackToThe31st) {
    Instant jan31 = at(2024, 1, 31);
    EXPECT_EQ(Utility::occurrenceDate(*cal, at(2024, 2, 10), jan31, Schedule::monthly),
              at(2024, 2, 29));
    EXPECT_EQ(Utility::occurrenceDate(*cal, at(2024, 3, 1), jan31, Schedule::monthly),
              at(2024, 3, 31));
    EXPECT_EQ(Utility::occurrenceDate(*cal, at(2024, 4, 5), jan31, Schedule::monthly),
              at(2024, 4, 30));
    // Stored exactly at midnight today: already the next occurrence.
    Instant mar6 = at(2024, 2, 6);
    EXPECT_EQ(Utility::occurrenceDate(*cal, at(2024, 3, 6), mar6, Schedule::monthly),
              at(2024, 4, 6));
    // With a later time of day the recurrence day itself is today.
    EXPECT_EQ(count(at(2024, 3, 6), at(2024, 2, 6, 14), Schedule::monthly), 0);
    // Keeps its time of day across the DST change.
    EXPECT_EQ(
        Utility::occurrenceDate(*cal, at(2024, 3, 20), at(2024, 1, 25, 8, 15), Schedule::monthly),
        at(2024, 3, 25, 8, 15));
}

TEST_P(UtilityTest, AnnualLeapDayRecursOnThe28thInCommonYears) {
    Instant leap = at(2020, 2, 29);
    EXPECT_EQ(Utility::occurrenceDate(*cal, at(2021, 3, 1), leap, Schedule::annually),
              at(2022, 2, 28));
    EXPECT_EQ(Utility::occurrenceDate(*cal, at(2023, 3, 1), leap, Schedule::annually),
              at(2024, 2, 29));
    EXPECT_EQ(Utility::occurrenceDate(*cal, at(2021, 2, 1), leap, Schedule::annually),
              at(2021, 2, 28));
}

TEST_P(UtilityTest, OneOffAndFutureEventsAreNotMoved) {
    Instant today = at(2024, 3, wed);
    Instant past = at(2023, 12, 25, 10);
    EXPECT_EQ(Utility::occurrenceDate(*cal, today, past, Schedule::none), past);
    EXPECT_LT(count(at(2024, 6, 1), past, Schedule::none), count(today, past, Schedule::none));
    Instant future = at(2024, 5, 1, 10);
    for (auto s : {Schedule::none, Schedule::weekly, Schedule::monthly, Schedule::annually}) {
        EXPECT_EQ(Utility::occurrenceDate(*cal, today, future, s), future);
    }
    // Later today counts 0 with every method unless a weekend rule moves it.
    Instant laterToday = at(2024, 3, wed, 20);
    for (auto m : {CountMethod::standard, CountMethod::excludeWeekends,
                   CountMethod::weekendUsesFridayBefore, CountMethod::weekendUsesMondayAfter}) {
        EXPECT_EQ(Utility::dayCount(*cal, today, laterToday, m), 0);
    }
    EXPECT_EQ(Utility::dayCount(*cal, at(2024, 3, sat), at(2024, 3, sat, 20),
                                CountMethod::weekendUsesMondayAfter),
              2);
}

INSTANTIATE_TEST_SUITE_P(BothCalendars, UtilityTest, testing::Values(true, false),
                         [](const auto& p) { return p.param ? "Civil" : "Icu"; });

TEST(StatusText, Forms) {
    EXPECT_EQ(Utility::statusText("Holiday", 0), "Holiday today!");
    EXPECT_EQ(Utility::statusText("Holiday", 1), "Holiday 1 day");
    EXPECT_EQ(Utility::statusText("Holiday", 12), "Holiday 12 days");
    EXPECT_EQ(Utility::statusText("Holiday", -1), "Holiday 1 day ago");
    EXPECT_EQ(Utility::statusText("Holiday", -3), "Holiday 3 days ago");
    EXPECT_EQ(Utility::statusText("Holiday", 1000), "Holiday 1000 days");
    EXPECT_EQ(Utility::statusText("", 0), " today!");
    EXPECT_EQ(Utility::statusText("", 2), " 2 days");
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

TEST(StatusText, ALabelOfSeveralLinesGivesOneLine) {
    // CR LF, tab, escape, DEL: one space each (every other character: below).
    EXPECT_EQ(Utility::statusText("Two\r\nlines\tand\x1b[2Jmore\x7F", 3),
              "Two  lines and [2Jmore  3 days");
    // Bytes that are no UTF-8 are no control characters either: left as they are.
    EXPECT_EQ(Utility::statusText("bad\xC2\xFF\xE2\x80", 2), "bad\xC2\xFF\xE2\x80 2 days");
    EXPECT_EQ(Utility::statusText(std::string("nul\0byte", 8), 2), "nul byte 2 days");
}

// Character by character, the classes are ICU's: White_Space for trimming; control characters and
// line and paragraph separators for one-line text.
TEST(StatusText, CharacterClassesAreIcusForEveryCodePoint) {
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

TEST(StatusText, AliasReplacesTheNameUnlessEmpty) {
    auto cal = CivilCalendar::forZone("Europe/Prague");
    Instant today = cal->instant(LocalTime(local_days(year(2025) / 12 / 20).time_since_epoch()));
    Instant christmas =
        cal->instant(LocalTime(local_days(year(2025) / 12 / 25).time_since_epoch()));
    Event e(Uuid::random(), christmas, "Christmas Day", std::string("Xmas"), Schedule::annually,
            CountMethod::standard);
    EXPECT_EQ(Utility::statusText(*cal, e, today), "Xmas 5 days");
    e.setAlias(std::string());
    EXPECT_EQ(Utility::statusText(*cal, e, today), "Christmas Day 5 days");
    e.setAlias(std::nullopt);
    EXPECT_EQ(Utility::statusText(*cal, e, today + days(6)), "Christmas Day 364 days");
}

} // namespace

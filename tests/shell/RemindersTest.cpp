#include "shell/Reminders.h"

#include "LocalInstants.h"
#include "TempDir.h"

#include <gtest/gtest.h>

using namespace almanor;
using namespace almanor::test;

namespace {

EventPtr event(Instant date, Schedule schedule, CountMethod method = CountMethod::standard) {
    return makeEvent(Uuid::random(), date, "E", std::nullopt, schedule, method);
}

TEST(RemindersTest, AnEventIsDueOnceOnTheDayItsTitleSaysTodayAndItsNextOccurrenceAgain) {
    test::TempDir dir;
    auto calendar = DayCalendar::forZone(zone);
    struct Case {
        const char* what;
        Instant date;
        Schedule schedule;
        CountMethod method;
        Instant today;
        bool due;
        int ahead = 0; // days ahead for a reminder of their own
    };
    const auto none = Schedule::none;
    const auto all = CountMethod::standard;
    const auto monday = CountMethod::weekendUsesMondayAfter;
    const auto weekdays = CountMethod::excludeWeekends;
    const Case cases[] = {
        {"later today", at(2030, 1, 9, 20), none, all, at(2030, 1, 9), true},
        {"yesterday: never late", at(2030, 1, 8, 9), none, all, at(2030, 1, 9), false},
        {"monthly, its day", at(2029, 12, 9, 0, 30), Schedule::monthly, all, at(2030, 1, 9), true},
        {"weekly, its day: 7", at(2030, 1, 2, 9), Schedule::weekly, all, at(2030, 1, 9), false},
        {"a Saturday, on the Monday after", at(2030, 1, 5, 10), none, monday, at(2030, 1, 7), true},
        {"on the Saturday itself", at(2030, 1, 5, 10), none, monday, at(2030, 1, 5), false},
        {"3 days ahead", at(2030, 1, 12, 9), none, all, at(2030, 1, 9), true, 3},
        {"3 weekdays, Friday", at(2030, 1, 16, 9), none, weekdays, at(2030, 1, 11), true, 3},
        {"still 3 on the Sunday", at(2030, 1, 16, 9), none, weekdays, at(2030, 1, 13), false, 3},
    };
    for (const auto& c : cases) {
        auto e = event(c.date, c.schedule, c.method);
        Reminders first(dir / Reminders::fileName);
        auto due = first.due({e}, *calendar, c.today, c.ahead);
        EXPECT_EQ(due.size(), c.due ? 1u : 0u) << c.what;
        for (const auto& d : due) {
            EXPECT_TRUE(first.remember(d));
        }
        Reminders restarted(dir / Reminders::fileName);
        EXPECT_TRUE(restarted.due({e}, *calendar, c.today, c.ahead).empty()) << c.what;
    }
    // Remembered is the occurrence: the next one is due again.
    auto birthday = event(at(1990, 1, 9, 10), Schedule::annually);
    Reminders reminders(dir / Reminders::fileName);
    ASSERT_TRUE(reminders.remember(reminders.due({birthday}, *calendar, at(2029, 1, 9)).at(0)));
    EXPECT_EQ(reminders.due({birthday}, *calendar, at(2030, 1, 9)).size(), 1u);
}

} // namespace

#include "model/Event.h"

#include "model/CivilCalendar.h"

#include <gtest/gtest.h>

using namespace almanor;
using namespace std::chrono;

TEST(Event, StoredCodesOutOfRangeReadAsTheFirstCase) {
    EXPECT_EQ(scheduleFromRawValue(3), Schedule::annually);
    EXPECT_EQ(scheduleFromRawValue(7), Schedule::none);
    EXPECT_EQ(scheduleFromRawValue(-1), Schedule::none);
    EXPECT_EQ(countMethodFromRawValue(2), CountMethod::weekendUsesFridayBefore);
    EXPECT_EQ(countMethodFromRawValue(4), CountMethod::standard);
    EXPECT_EQ(countMethodFromRawValue(std::int64_t(1) << 40), CountMethod::standard);
}

TEST(Event, ObserversHearBeforeNameOrAliasChange) {
    Event e(Uuid::random(), Instant{}, "Old", std::nullopt, Schedule::none, CountMethod::standard);
    std::vector<std::string> seen;
    auto token =
        e.observeWillChange([&] { seen.push_back(e.name() + "|" + e.alias().value_or("-")); });
    e.setName("New");
    e.setAlias(std::string("A"));
    e.setDate(Instant{} + days(1)); // not observed
    e.disconnect(token);
    e.setName("Gone");
    EXPECT_EQ(seen, (std::vector<std::string>{"Old|-", "New|-"}));
}

TEST(Event, DateOnlyIsMidnightOfTheLocalDayAndFollowsTheZone) {
    Instant date =
        sys_days(year(2024) / 3 / 1).time_since_epoch() + hours(23) + minutes(59) + Instant{};
    Event e(Uuid::random(), date, "E", std::nullopt, Schedule::none, CountMethod::standard);
    auto london = CivilCalendar::forZone("Europe/London");
    auto tokyo = CivilCalendar::forZone("Asia/Tokyo");
    EXPECT_EQ(e.dateOnly(*london), Instant(sys_days(year(2024) / 3 / 1).time_since_epoch()));
    // 23:59 UTC is already 2 March in Tokyo.
    EXPECT_EQ(e.dateOnly(*tokyo),
              Instant(sys_days(year(2024) / 3 / 2).time_since_epoch()) - hours(9));
}

#include "model/Event.h"

#include <gtest/gtest.h>

using namespace almanor;

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

#include "shell/DisplayedEventSelection.h"

#include "LogCapture.h"
#include "TempDir.h"
#include "model/CivilCalendar.h"
#include "model/Utility.h"
#include "platform/SettingsFile.h"

#include <gtest/gtest.h>

using namespace almanor;
using namespace std::chrono;

namespace {

constexpr const char* zone = "Europe/Prague";

class SelectionTest : public testing::Test {
  protected:
    SelectionTest()
        : defaults(dir / "settings.ini"), settings(defaults),
          clock(at(2024, 3, 6, 10)), // a Wednesday, 10:00
          selection([this] { return events; }, settings, clock,
                    [] { return DayCalendar::forZone(zone); },
                    [this](std::size_t count) {
                        counts.push_back(count);
                        return draw < count ? draw : count - 1;
                    }) {
        settings.registerDefaults();
        selection.setStatusItem(&item);
    }

    static Instant at(int y, unsigned m, unsigned d, int h = 0) {
        auto cal = CivilCalendar::forZone(zone);
        return cal->instant(LocalTime(local_days(year(y) / m / d).time_since_epoch() + hours(h)));
    }
    EventPtr add(std::string name, Instant date, Schedule s = Schedule::none) {
        auto e = makeEvent(Uuid::random(), date, std::move(name), std::nullopt, s,
                           CountMethod::standard);
        events.push_back(e);
        return e;
    }
    std::string stored() const { return defaults.string(Settings::selectedEvent).value(); }

    test::TempDir dir;
    SettingsFile defaults;
    Settings settings;
    FixedClock clock;
    std::vector<EventPtr> events;
    std::size_t draw = 0;
    std::vector<std::size_t> counts;
    RecordedStatusItem item;
    DisplayedEventSelection selection;
};

TEST_F(SelectionTest, TheTitleIsOneLineAndTheEventKeepsItsName) {
    auto e = add("Mum's\r\nbirthday", at(2024, 3, 9));
    selection.resolveDisplayedEvent(e->id());
    EXPECT_EQ(item.title(), "Mum's  birthday 3 days");
    e->setAlias(std::string("Mum\n\xE2\x80\xA8"));
    selection.resolveDisplayedEvent(DisplayedEventSelection::nextEventId);
    EXPECT_EQ(item.title(), "Mum   3 days");
    EXPECT_EQ(selection.displayedEvent()->name(), "Mum's\r\nbirthday");
    EXPECT_EQ(selection.displayedEvent()->alias(), "Mum\n\xE2\x80\xA8");
}

TEST_F(SelectionTest, NextUpcomingSkipsTodayAndKeepsTheEarlierOfATie) {
    add("Midnight today", at(2024, 3, 6)); // occurs at today's start: not upcoming
    auto first = add("First", at(2024, 3, 9));
    add("Second", at(2024, 3, 9));
    add("Past", at(2024, 2, 1));
    EXPECT_EQ(selection.resolveDisplayedEvent(DisplayedEventSelection::nextEventId),
              DisplayedEventSelection::nextEventId);
    EXPECT_EQ(item.title(), "First 3 days");
    EXPECT_EQ(selection.displayedEvent(), first);
    EXPECT_EQ(stored(), DisplayedEventSelection::nextEventId.uuidString());
    EXPECT_EQ(selection.lastCalculated(), at(2024, 3, 6));
}

TEST_F(SelectionTest, NextUpcomingWithNothingAheadFallsBackToTheFirstEventForGood) {
    auto first = add("Birthday", at(2024, 3, 6)); // at today's start: not upcoming
    add("Old", at(2020, 1, 1));
    EXPECT_EQ(selection.resolveDisplayedEvent(DisplayedEventSelection::nextEventId), first->id());
    EXPECT_EQ(item.title(), "Birthday today!");
    EXPECT_EQ(stored(), first->id().uuidString());
}

TEST_F(SelectionTest, RandomDrawsEveryTimeAndKeepsItsMode) {
    auto only = add("Only", at(2024, 3, 7));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(selection.resolveDisplayedEvent(DisplayedEventSelection::randomEventId),
                  DisplayedEventSelection::randomEventId);
    }
    EXPECT_EQ(counts, (std::vector<std::size_t>{1, 1, 1}));
    EXPECT_EQ(item.title(), "Only 1 day");
    EXPECT_EQ(stored(), DisplayedEventSelection::randomEventId.uuidString());
    EXPECT_EQ(selection.displayedEvent(), only);
}

TEST_F(SelectionTest, RotationPrefersTheNinetyDayWindowWhoseEdgeIsOutside) {
    add("Past", at(2024, 1, 1));
    add("Edge", at(2024, 3, 6) + seconds(7'776'000)); // exactly 90 days: outside
    auto soon = add("Soon", at(2024, 4, 1));
    auto sooner = add("Sooner", at(2024, 3, 20));
    draw = 0; // the nearest after sorting by distance
    EXPECT_EQ(selection.resolveDisplayedEvent(DisplayedEventSelection::cycleUpcomingEventId),
              DisplayedEventSelection::cycleUpcomingEventId);
    EXPECT_EQ(counts.back(), 2u);
    EXPECT_EQ(selection.displayedEvent(), sooner);
    draw = 1;
    selection.resolveDisplayedEvent(DisplayedEventSelection::cycleUpcomingEventId);
    EXPECT_EQ(selection.displayedEvent(), soon);
    EXPECT_DOUBLE_EQ(selection.lastCycled(), secondsSinceReferenceDate(clock.now()));
    EXPECT_EQ(stored(), DisplayedEventSelection::cycleUpcomingEventId.uuidString());
}

TEST_F(SelectionTest, RotationBeyondTheWindowStillDraws) {
    auto far = add("Far", at(2025, 1, 1));
    selection.resolveDisplayedEvent(DisplayedEventSelection::cycleUpcomingEventId);
    EXPECT_EQ(selection.displayedEvent(), far);
    EXPECT_EQ(counts, (std::vector<std::size_t>{1}));
}

TEST_F(SelectionTest, RotationWithNothingUpcomingLogsAndBecomesFixed) {
    test::LogCapture log;
    auto first = add("Gone", at(2023, 5, 5));
    EXPECT_EQ(selection.resolveDisplayedEvent(DisplayedEventSelection::cycleUpcomingEventId),
              first->id());
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"No upcoming events to choose from"}));
    EXPECT_EQ(item.title(), "Gone 307 days ago");
    EXPECT_EQ(selection.lastCycled(), 0.0);
}

TEST_F(SelectionTest, FixedSelectionFindsItsEventOrTakesTheFirst) {
    auto first = add("A", at(2024, 3, 10));
    auto second = add("B", at(2024, 3, 12), Schedule::monthly);
    EXPECT_EQ(selection.resolveDisplayedEvent(second->id()), second->id());
    EXPECT_EQ(item.title(), "B 6 days");
    // The registered default, a deleted event and a corrupt stored value all land on the first.
    defaults.remove(Settings::selectedEvent);
    EXPECT_EQ(settings.selectedEventId(), Uuid());
    EXPECT_EQ(selection.resolveDisplayedEvent(settings.selectedEventId()), first->id());
    EXPECT_EQ(stored(), first->id().uuidString());
    events.erase(events.begin());
    EXPECT_EQ(selection.resolveDisplayedEvent(first->id()), second->id());
    EXPECT_EQ(stored(), second->id().uuidString());
    events.insert(events.begin(), first);
    defaults.setString(Settings::selectedEvent, "not a uuid");
    EXPECT_EQ(selection.resolveDisplayedEvent(settings.selectedEventId()), first->id());
    EXPECT_EQ(stored(), first->id().uuidString());
}

TEST_F(SelectionTest, NoEventsShowsTheCelebrationAndLeavesTheSelection) {
    test::LogCapture log;
    for (const Uuid& mode :
         {DisplayedEventSelection::nextEventId, DisplayedEventSelection::randomEventId,
          DisplayedEventSelection::cycleUpcomingEventId, Uuid::random()}) {
        defaults.setString(Settings::selectedEvent, mode.uuidString());
        item.setTitle("stale");
        EXPECT_EQ(selection.resolveDisplayedEvent(mode), mode);
        EXPECT_EQ(item.title(), "Almanor  \xF0\x9F\x8E\x89");
        EXPECT_EQ(stored(), mode.uuidString());
        EXPECT_EQ(selection.displayedEvent(), nullptr);
    }
    EXPECT_EQ(log.lines().size(), 2u); // random and rotate say there was nothing to choose from
    EXPECT_EQ(selection.lastCalculated(), Instant{});
}

TEST_F(SelectionTest, TheZoneIsReadForEachResolution) {
    // 23:30 UTC on 6 March is already 7 March in Prague, still 6 March in New York.
    clock.set(Instant(sys_days(year(2024) / 3 / 6).time_since_epoch()) + hours(23) + minutes(30));
    std::string zoneNow = "Europe/Prague";
    DisplayedEventSelection s([this] { return events; }, settings, clock,
                              [&zoneNow] { return DayCalendar::forZone(zoneNow); });
    s.setStatusItem(&item);
    add("Target", Instant(sys_days(year(2024) / 3 / 8).time_since_epoch()) + hours(12));
    s.resolveDisplayedEvent(Uuid());
    EXPECT_EQ(item.title(), "Target 1 day");
    zoneNow = "America/New_York";
    s.resolveDisplayedEvent(Uuid());
    EXPECT_EQ(item.title(), "Target 2 days");
}

} // namespace

// What a panel icon draws must be the number the title says, for every way of counting.
TEST_F(SelectionTest, TheItemIsToldTheCountBehindEachTitle) {
    struct CountingItem final : StatusItem {
        void setTitle(const std::string& t) override { titles.push_back(t); }
        void setDayCount(std::optional<int> d) override { days.push_back(d); }
        std::vector<std::string> titles;
        std::vector<std::optional<int>> days;
    } counting;
    selection.setStatusItem(&counting);
    selection.resolveDisplayedEvent(Uuid::random());
    EXPECT_EQ(counting.days, (std::vector<std::optional<int>>{std::nullopt}));

    auto weekly = add("Gym", at(2024, 1, 1), Schedule::weekly); // Mondays
    auto weekdays = makeEvent(Uuid::random(), at(2024, 3, 18), "Work", std::nullopt, Schedule::none,
                              CountMethod::excludeWeekends);
    events.push_back(weekdays);
    auto today = add("Today", at(2024, 3, 6, 18));
    auto past = add("Past", at(2024, 3, 3));
    for (const auto& [event, days] : std::vector<std::pair<EventPtr, int>>{
             {weekly, 4}, {weekdays, 8}, {today, 0}, {past, -4}}) {
        selection.resolveDisplayedEvent(event->id());
        ASSERT_EQ(counting.days.size(), counting.titles.size());
        EXPECT_EQ(counting.days.back(), days) << counting.titles.back();
        EXPECT_EQ(counting.titles.back(), Utility::statusText(event->displayName(), days));
    }
}

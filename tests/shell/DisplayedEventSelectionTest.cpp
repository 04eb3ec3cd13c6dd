#include "shell/DisplayedEventSelection.h"

#include "LocalInstants.h"
#include "TempDir.h"
#include "platform/SettingsFile.h"
#include "shell/PanelIcon.h"

#include <gtest/gtest.h>

using namespace almanor;
using namespace almanor::test;
using namespace std::chrono;

namespace {

const Uuid& nextMode = DisplayedEventSelection::nextEventId;
const Uuid& randomMode = DisplayedEventSelection::randomEventId;
const Uuid& rotateMode = DisplayedEventSelection::cycleUpcomingEventId;

struct CountingItem final : StatusItem {
    void setTitle(const std::string& t) override { title = t; }
    void setDayCount(std::optional<int> d) override { days = d; }
    std::string title;
    std::optional<int> days;
};

class SelectionTest : public testing::Test {
  protected:
    SelectionTest() {
        settings.registerDefaults();
        selection.setStatusItem(&item);
    }
    EventPtr add(std::string name, Instant date, Schedule s = Schedule::none,
                 CountMethod method = CountMethod::standard) {
        auto e = makeEvent(Uuid::random(), date, std::move(name), std::nullopt, s, method);
        events.push_back(e);
        return e;
    }
    // Resolves `selected`; returns what is kept in the settings.
    Uuid resolve(const Uuid& selected) {
        Uuid kept = selection.resolveDisplayedEvent(selected);
        EXPECT_EQ(defaults.string(Settings::selectedEvent), kept.uuidString());
        return kept;
    }

    test::TempDir dir;
    SettingsFile defaults{dir / "settings.ini"};
    Settings settings{defaults};
    FixedClock clock{at(2024, 3, 6, 10)}; // a Wednesday, 10:00
    std::vector<EventPtr> events;
    std::size_t draw = 0;
    std::vector<std::size_t> counts;
    CountingItem item;
    std::string zoneNow = zone; // read for each resolution
    DisplayedEventSelection selection{[this] { return events; }, settings, clock,
                                      [this] { return DayCalendar::forZone(zoneNow); },
                                      [this](std::size_t count) {
                                          counts.push_back(count);
                                          return std::min(draw, count - 1);
                                      }};
};

TEST_F(SelectionTest, NextSkipsTodaysStartAndKeepsTheEarlierOfATieElseTheFirstForGood) {
    auto midnight = add("Midnight today", at(2024, 3, 6));
    add("First", at(2024, 3, 9));
    add("Second", at(2024, 3, 9));
    add("Past", at(2024, 2, 1));
    EXPECT_EQ(resolve(nextMode), nextMode);
    EXPECT_EQ(item.title, "First 3 days");
    EXPECT_EQ(selection.lastCalculated(), at(2024, 3, 6));
    zoneNow = "Asia/Tokyo"; // where today began fourteen hours earlier
    resolve(nextMode);
    EXPECT_EQ(item.title, "First 2 days");
    zoneNow = zone;
    events.erase(events.begin() + 1, events.begin() + 3);
    EXPECT_EQ(resolve(nextMode), midnight->id());
    EXPECT_EQ(item.title, "Midnight today today!");
}

TEST_F(SelectionTest, RandomAndRotationDrawEachTimeAndKeepTheirMode) {
    add("Past", at(2024, 1, 1));
    add("Edge", at(2024, 3, 6) + seconds(7'776'000)); // exactly 90 days: outside the window
    add("Soon", at(2024, 4, 1));
    add("Sooner", at(2024, 3, 20));
    draw = 1;
    EXPECT_EQ(resolve(randomMode), randomMode);
    EXPECT_EQ(item.title, "Edge 90 days");
    EXPECT_EQ(resolve(rotateMode), rotateMode);
    EXPECT_EQ(item.title, "Soon 26 days"); // the window's two, nearest first
    EXPECT_DOUBLE_EQ(selection.lastCycled(), secondsSinceReferenceDate(clock.now()));
    events = {events[1]};
    EXPECT_EQ(resolve(rotateMode), rotateMode); // beyond it
    EXPECT_EQ(counts, (std::vector<std::size_t>{4, 2, 1}));
    events = {add("Gone", at(2023, 5, 5))};
    EXPECT_EQ(resolve(rotateMode), events[0]->id());
    EXPECT_EQ(item.title, "Gone 307 days ago");
}

TEST_F(SelectionTest, AFixedSelectionFindsItsEventElseTheFirstForGood) {
    auto a = add("A", at(2024, 3, 10));
    auto b = add("B", at(2024, 1, 12), Schedule::monthly, CountMethod::excludeWeekends);
    EXPECT_EQ(resolve(b->id()), b->id());
    EXPECT_EQ(item.title, "B 4 days");
    EXPECT_EQ(item.days, 4);
    EXPECT_EQ(resolve(Uuid::random()), a->id()); // a deleted event, a corrupt or nil selection
    EXPECT_EQ(item.title, "A 4 days");
}

TEST_F(SelectionTest, NoEventsShowsTheCelebrationAndLeavesTheSelection) {
    for (const Uuid& mode : {nextMode, randomMode, rotateMode, Uuid::random()}) {
        defaults.setString(Settings::selectedEvent, mode.uuidString());
        item.days = 1;
        EXPECT_EQ(selection.resolveDisplayedEvent(mode), mode);
        EXPECT_EQ(item.title, DisplayedEventSelection::noEventsTitle);
        EXPECT_EQ(item.days, std::nullopt);
        EXPECT_EQ(selection.displayedEvent(), nullptr);
    }
}

TEST_F(SelectionTest, ThePanelIconShowsTheCountUnlessTheSettingSaysFalse) {
    EXPECT_TRUE(panelIcon::showsCount(defaults));
    for (auto [text, shown] : {std::pair{"false", false}, {"0", false}, {"yes please", true}}) {
        defaults.setString(panelIcon::showsCountKey, text);
        EXPECT_EQ(panelIcon::showsCount(defaults), shown) << text;
    }
    // The number before the day, a mark on it, negative after.
    EXPECT_EQ(panelIcon::countText(12) + panelIcon::countText(0) + panelIcon::countText(-3),
              "12!-3");
}

} // namespace

#include "LocalInstants.h"
#include "TempDir.h"
#include "TrayFakes.h"
#include "dates/DateText.h"
#include "model/CivilCalendar.h"
#include "storage/LocalRepository.h"
#include "storage/Repository.h"
#include "ui/window/EventEditor.h"
#include "ui/window/EventsModel.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <thread>

using namespace almanor;
using namespace almanor::test;

namespace {

class WindowTest : public InNewYork {
  protected:
    EventPtr add(std::string name, Instant date, Schedule s = Schedule::none,
                 std::optional<std::string> alias = std::nullopt) {
        auto e = makeEvent(Uuid::random(), date, std::move(name), std::move(alias), s,
                           CountMethod::standard);
        EXPECT_TRUE(repository.insert(*e));
        return e;
    }
    EventPtr stored(const Uuid& id) {
        auto events = repository.fetchAll();
        auto it = std::ranges::find(events, id, [](auto& e) { return e->id(); });
        return it == events.end() ? nullptr : *it;
    }

    test::TempDir dir;
    Signals center;
    FixedClock clock{at(2030, 1, 9, 15, 45)};
    Repository repository{
        std::make_unique<LocalRepository>(dir.path(), "EventsV1.db", center, clock)};
    test::QueueMainThread mainThread;
};

TEST_F(WindowTest, FourSectionsInTheListsOrderAndAliasesOnlyWithText) {
    add("B monthly", at(2030, 2, 1), Schedule::monthly);
    add("A monthly", at(2030, 2, 1), Schedule::monthly, "");
    add("Early", at(2029, 1, 1), Schedule::monthly, "Short");
    add("Once", at(2031, 1, 1));
    auto sections = eventSections(repository.fetchAll());
    std::vector<std::string> seen;
    for (const auto& section : sections) {
        seen.emplace_back(section.header);
        for (const auto& e : section.events) {
            seen.push_back(e->name() + " " + eventRowText(*e).alias.value_or("-"));
        }
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"One Off Events", "Once -", "Weekly Events",
                                              "Monthly Events", "Early Short", "A monthly -",
                                              "B monthly -", "Annual Events"}));
}

TEST_F(WindowTest, SearchFindsNameOrAliasWhateverTheCaseAccentsAndCompatibilityForms) {
    const auto once = Schedule::none;
    std::vector<EventPtr> events{
        add("Café Zürich", at(2030, 1, 1)), add("Straße", at(2030, 1, 1), once, "\uFB01x"),
        add("Dentist", at(2030, 1, 1), once, "Teeth"), add("Cafe\u0301 noir", at(2030, 1, 1))};
    EventSearch search;
    search.index(events);
    for (const auto& [query, shown] : std::initializer_list<std::pair<const char*, std::string>>{
             {"", "0123"},
             {" \tCAFÉ ", "03"}, // precomposed against decomposed, trimmed
             {"zurich", "0"},
             {"STRASSE", "1"}, // ß folds to ss
             {"fix", "1"},     // the alias's ligature
             {"teeth", "2"},
             {"tistte", ""}, // name and alias do not run into each other
         }) {
        search.setQuery(query);
        std::string found;
        for (std::size_t i = 0; i < events.size(); ++i) {
            found += search.shows(i) ? std::to_string(i) : "";
        }
        EXPECT_EQ(found, shown) << query;
    }
}

TEST_F(WindowTest, TheModelReloadsOnTheMainThreadAndSelectionSurvivesAsAnId) {
    Model model(repository, center, mainThread);
    ManageEventsState state(model);
    state.pressDelete();
    EXPECT_FALSE(state.showDelete()); // nothing selected
    int willChange = 0;
    model.setWillChange([&] { ++willChange; });
    auto e = makeEvent(Uuid::random(), at(2030, 5, 5), "From a worker", std::nullopt,
                       Schedule::none, CountMethod::standard);
    std::thread([&] { repository.insert(*e); }).join();
    EXPECT_TRUE(model.events().empty());
    EXPECT_EQ(mainThread.drain(), 1u);
    ASSERT_EQ(model.events().size(), 1u);
    EXPECT_EQ(willChange, 1);
    state.select(e->id());
    state.pressDelete();
    EXPECT_TRUE(state.showDelete());
    repository.deleteEvent(*e);
    mainThread.drain();
    EXPECT_EQ(state.selectedEvent(), nullptr); // "Nothing Selected", the stale id kept
    EXPECT_EQ(state.selection(), e->id());
    state.pressAdd();
    EXPECT_TRUE(state.showAdd());
    EXPECT_EQ(state.selection(), std::nullopt);
}

TEST_F(WindowTest, ConfirmDismissesBeforeDeletingAndCancelNeverDeletes) {
    auto e = add("Say \"hi\"", at(2030, 5, 5));
    std::vector<std::string> order;
    ConfirmDelete sheet(
        e, [&] { order.push_back(stored(e->id()) ? "dismiss" : "dismiss after delete"); },
        [&](const Event& event) { repository.deleteEvent(event); });
    EXPECT_EQ(sheet.question(), "Are you sure you want to remove \"Say \"hi\"\"?");
    sheet.cancel();
    EXPECT_NE(stored(e->id()), nullptr);
    sheet.confirm();
    EXPECT_EQ(order, (std::vector<std::string>{"dismiss", "dismiss"}));
    EXPECT_EQ(stored(e->id()), nullptr);
}

TEST_F(WindowTest, AddSavesTrimmedTextAndStartsNow) {
    EventEditor editor(repository, clock);
    EXPECT_EQ(editor.title(), "Add Event");
    editor.setName("   ");
    EXPECT_FALSE(editor.canSave());
    editor.setName("  Holiday \n");
    editor.setAlias("   ");
    bool closed = false;
    ASSERT_TRUE(editor.save([&] { closed = true; }));
    EXPECT_TRUE(closed);
    auto events = repository.fetchAll();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->name(), "Holiday");
    EXPECT_EQ(events[0]->alias(), std::nullopt); // spaces only: no alias
    EXPECT_EQ(events[0]->date(), clock.now());
    EXPECT_EQ(editor.title(), "Holiday - Jan 9, 2030");
}

TEST_F(WindowTest, EditingIsDirtyOnlyForUsefulDifferences) {
    auto e = add("Holiday", at(2025, 12, 24, 18, 30));
    EventEditor editor(repository, e);
    EXPECT_EQ(editor.title(), "Holiday - Dec 24, 2025");
    editor.setAlias("   "); // empty and absent are the same
    editor.setName(" Holiday ");
    EXPECT_FALSE(editor.dirty());
    editor.setAlias(" Hol ");
    EXPECT_TRUE(editor.dirty());
    editor.setName("  "); // a blank name is never savable
    EXPECT_FALSE(editor.dirty());
    editor.setName("Holiday");
    ASSERT_TRUE(editor.save());
    EXPECT_FALSE(editor.dirty());
    EXPECT_EQ(stored(e->id())->alias(), "Hol");
    EXPECT_EQ(e->alias(), "Hol"); // the shared event itself, so lists redraw
}

TEST_F(WindowTest, ADayChosenOrTypedKeepsTheStoredTimeOfDay) {
    auto e = add("Flight", at(2030, 3, 1, 18, 30));
    EventEditor editor(repository, e);
    auto calendar = DayCalendar::forZone(zone);
    DateText dates("en_US", zone);
    editor.setDay(*calendar, 2030, 3, 20); // summer time by then
    EXPECT_EQ(editor.date(), at(2030, 3, 20, 18, 30));
    editor.setDateText(dates, *calendar, "2030-03-01");
    EXPECT_FALSE(editor.dirty());
    editor.setName("Flight out");
    editor.setDateText(dates, *calendar, "3/32/30");
    EXPECT_FALSE(editor.canSave());
    EXPECT_FALSE(editor.save());
    EXPECT_EQ(stored(e->id())->name(), "Flight");
    editor.setDateText(dates, *calendar, "4/2/30");
    EXPECT_EQ(editor.date(), at(2030, 4, 2, 18, 30));
}

} // namespace

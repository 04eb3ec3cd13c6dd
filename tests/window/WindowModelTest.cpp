#include "LocalInstants.h"
#include "TempDir.h"
#include "TrayFakes.h"
#include "dates/DateText.h"
#include "model/CivilCalendar.h"
#include "platform/SettingsFile.h"
#include "storage/LocalRepository.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"
#include "ui/window/EventEditor.h"
#include "ui/window/EventsModel.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>

using namespace almanor;
using namespace std::chrono;

namespace {

constexpr const char* zone = "America/New_York";

Instant at(int y, unsigned m, unsigned d, int h = 0, int min = 0) {
    return test::localAt(zone, y, m, d, h, min);
}

class WindowTest : public testing::Test {
  protected:
    WindowTest()
        : set(([] {
              ::setenv("TZ", zone, 1);
              ::setenv("LC_ALL", "en_US.UTF-8", 1);
              return true;
          })()),
          defaults(dir / "settings.ini"), clock(at(2030, 1, 9, 15, 45)),
          repository(std::make_unique<LocalRepository>(dir.path(), "EventsV1.db", center, clock)) {
        MigrationManager::migrate(repository, defaults);
    }
    EventPtr add(std::string name, Instant date, Schedule s = Schedule::none,
                 std::optional<std::string> alias = std::nullopt) {
        auto e = makeEvent(Uuid::random(), date, std::move(name), std::move(alias), s,
                           CountMethod::standard);
        EXPECT_TRUE(repository.insert(*e));
        return e;
    }
    EventPtr stored(const Uuid& id) {
        for (auto& e : repository.fetchAll()) {
            if (e->id() == id) {
                return e;
            }
        }
        return nullptr;
    }

    bool set;
    test::TempDir dir;
    Signals center;
    SettingsFile defaults;
    FixedClock clock;
    Repository repository;
    test::QueueMainThread mainThread;
};

TEST_F(WindowTest, SectionsAreAlwaysFourAndKeepTheListOrder) {
    auto empty = eventSections({});
    ASSERT_EQ(empty.size(), 4u);
    EXPECT_EQ(empty[0].header, "One Off Events");
    EXPECT_EQ(empty[1].header, "Weekly Events");
    EXPECT_EQ(empty[2].header, "Monthly Events");
    EXPECT_EQ(empty[3].header, "Annual Events");
    add("B monthly", at(2030, 2, 1), Schedule::monthly);
    add("A monthly", at(2030, 2, 1), Schedule::monthly);
    add("Early", at(2029, 1, 1), Schedule::monthly);
    add("Once", at(2031, 1, 1));
    auto sections = eventSections(repository.fetchAll());
    ASSERT_EQ(sections[2].events.size(), 3u);
    EXPECT_EQ(sections[2].events[0]->name(), "Early");
    EXPECT_EQ(sections[2].events[1]->name(), "A monthly"); // same date: by name
    EXPECT_EQ(sections[0].events.size(), 1u);
    EXPECT_TRUE(sections[1].events.empty());
    EXPECT_TRUE(sections[3].events.empty());
}

TEST_F(WindowTest, RowsShowTheAliasOnlyWhenItHasText) {
    auto with = add("Name", at(2030, 2, 1), Schedule::none, "Short");
    auto blank = add("Other", at(2030, 2, 1), Schedule::none, "");
    EXPECT_EQ(eventRowText(*with).alias, "Short");
    EXPECT_EQ(eventRowText(*blank).alias, std::nullopt);
    EXPECT_EQ(versionText("1.2.3"), "v1.2.3");
    EXPECT_EQ(versionText(""), "");
}

TEST(EventSearchTest, FindsNameOrAliasWhateverTheCaseAccentsAndCompatibilityForms) {
    std::vector<EventPtr> events;
    for (auto [name, alias] :
         std::initializer_list<std::pair<const char*, const char*>>{{"Café Zürich", nullptr},
                                                                    {"Straße", "\uFB01x"},
                                                                    {"Dentist", "Teeth"},
                                                                    {"Cafe\u0301 noir", nullptr}}) {
        events.push_back(makeEvent(Uuid::random(), at(2030, 1, 1), name,
                                   alias ? std::optional<std::string>(alias) : std::nullopt,
                                   Schedule::none, CountMethod::standard));
    }
    EventSearch search;
    search.index(events);
    for (const auto& [query, shown] : std::initializer_list<std::pair<const char*, std::string>>{
             {"", "0123"},
             {" \t ", "0123"},
             {"  CAFÉ ", "03"}, // precomposed against decomposed, trimmed
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
    int willChange = 0;
    model.setWillChange([&] { ++willChange; });
    auto e = makeEvent(Uuid::random(), at(2030, 5, 5), "From a worker", std::nullopt,
                       Schedule::none, CountMethod::standard);
    std::thread([&] { repository.insert(*e); }).join();
    EXPECT_TRUE(model.events().empty()); // not yet: the list changes on the main thread only
    EXPECT_EQ(mainThread.drain(), 1u);
    ASSERT_EQ(model.events().size(), 1u);
    EXPECT_EQ(willChange, 1);

    state.select(e->id());
    ASSERT_NE(state.selectedEvent(), nullptr);
    EXPECT_EQ(state.selectedEvent()->name(), "From a worker");
    repository.deleteEvent(*e);
    mainThread.drain();
    EXPECT_EQ(state.selectedEvent(), nullptr); // "Nothing Selected"
    EXPECT_EQ(state.selection(), e->id());     // the stale id is kept
}

TEST_F(WindowTest, AddClearsTheSelectionAndDeleteNeedsAnEvent) {
    Model model(repository, center, mainThread);
    ManageEventsState state(model);
    state.pressDelete();
    EXPECT_FALSE(state.showDelete());
    auto e = add("Kept", at(2030, 5, 5));
    mainThread.drain();
    state.select(e->id());
    state.pressDelete();
    EXPECT_TRUE(state.showDelete());
    state.dismissDelete();
    state.pressAdd();
    EXPECT_TRUE(state.showAdd());
    EXPECT_EQ(state.selection(), std::nullopt);
}

TEST_F(WindowTest, ConfirmDismissesBeforeDeletingAndCancelNeverDeletes) {
    auto e = add("Say \"hi\"", at(2030, 5, 5));
    std::vector<std::string> order;
    ConfirmDelete sheet(
        e, [&] { order.push_back("dismiss"); },
        [&](const Event& event) {
            order.push_back("delete");
            repository.deleteEvent(event);
        });
    EXPECT_EQ(sheet.question(), "Are you sure you want to remove \"Say \"hi\"\"?");
    sheet.cancel();
    EXPECT_EQ(order, std::vector<std::string>{"dismiss"});
    EXPECT_NE(stored(e->id()), nullptr);
    sheet.confirm();
    EXPECT_EQ(order, (std::vector<std::string>{"dismiss", "dismiss", "delete"}));
    EXPECT_EQ(stored(e->id()), nullptr);
    auto unnamed = makeEvent(Uuid::random(), at(2030, 5, 5), "", std::nullopt, Schedule::none,
                             CountMethod::standard);
    EXPECT_EQ(ConfirmDelete(
                  unnamed, [] {}, [](const Event&) {})
                  .question(),
              "Are you sure you want to remove \"\"?");
}

TEST_F(WindowTest, AddModeSavesTrimmedTextAndStartsNow) {
    EventEditor editor(repository, clock);
    EXPECT_TRUE(editor.addModal());
    EXPECT_EQ(editor.title(), "Add Event");
    EXPECT_EQ(editor.date(), clock.now());
    editor.setName("   ");
    EXPECT_FALSE(editor.canSave());
    editor.setName("  Holiday \n");
    editor.setAlias("   ");
    EXPECT_TRUE(editor.canSave());
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

TEST_F(WindowTest, EditModeIsDirtyOnlyForUsefulDifferences) {
    auto e = add("Holiday", at(2025, 12, 24, 18, 30), Schedule::none, std::nullopt);
    EventEditor editor(repository, e);
    EXPECT_EQ(editor.title(), "Holiday - Dec 24, 2025");
    EXPECT_FALSE(editor.dirty());
    editor.setAlias("   "); // empty and absent are the same
    EXPECT_FALSE(editor.dirty());
    editor.setName(" Holiday ");
    EXPECT_FALSE(editor.dirty());
    editor.setAlias(" Hol ");
    EXPECT_TRUE(editor.dirty());
    editor.setName("  "); // a blank name is never savable, whatever else changed
    EXPECT_FALSE(editor.dirty());
    editor.setName("Holiday");
    editor.setCountMethod(CountMethod::weekendUsesMondayAfter);
    ASSERT_TRUE(editor.save());
    EXPECT_FALSE(editor.dirty()); // saved: nothing differs any more
    auto saved = stored(e->id());
    EXPECT_EQ(saved->alias(), "Hol");
    EXPECT_EQ(saved->countMethod(), CountMethod::weekendUsesMondayAfter);
    EXPECT_EQ(e->alias(), "Hol"); // the shared event itself was written, so lists redraw
}

TEST_F(WindowTest, ADayChosenOrTypedKeepsTheStoredTimeOfDay) {
    auto e = add("Flight", at(2030, 3, 1, 18, 30));
    EventEditor editor(repository, e);
    auto calendar = DayCalendar::forZone(zone);
    DateText dates("en_US", zone);
    // Across the change to summer time the wall-clock time stays 18:30.
    editor.setDay(*calendar, 2030, 3, 20);
    EXPECT_EQ(editor.date(), at(2030, 3, 20, 18, 30));
    EXPECT_TRUE(editor.dirty());
    editor.setDateText(dates, *calendar, "2030-03-01");
    EXPECT_EQ(editor.date(), at(2030, 3, 1, 18, 30));
    EXPECT_FALSE(editor.dirty());
    editor.setName("Flight out");
    editor.setDateText(dates, *calendar, "3/32/30");
    EXPECT_FALSE(editor.dateValid());
    EXPECT_FALSE(editor.canSave());
    EXPECT_FALSE(editor.save());
    EXPECT_EQ(stored(e->id())->name(), "Flight");
    editor.setDateText(dates, *calendar, "4/2/30");
    EXPECT_TRUE(editor.canSave());
    EXPECT_EQ(editor.date(), at(2030, 4, 2, 18, 30));
}

} // namespace

#include "shell/TrayApplication.h"

#include "FakeCloudService.h"
#include "Language.h"
#include "LocalInstants.h"
#include "LogCapture.h"
#include "TempDir.h"
#include "TrayFakes.h"
#include "cloud/RecordMapping.h"
#include "dates/DateText.h"
#include "login/LaunchAtLogin.h"
#include "model/CivilCalendar.h"
#include "platform/SettingsFile.h"
#include "storage/LocalRepository.h"
#include "storage/LocalSyncLedger.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"
#include "sync/CloudSync.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <thread>

using namespace almanor;
using namespace std::chrono;

namespace {

constexpr const char* zone = "America/New_York";

Instant at(int y, unsigned m, unsigned d, int h = 0, int min = 0) {
    return test::localAt(zone, y, m, d, h, min);
}

// Dates and zone of the menus come from the environment, as in the tray.
struct Environment {
    Environment() {
        ::setenv("TZ", zone, 1);
        ::setenv("LC_ALL", "en_US.UTF-8", 1);
    }
};

class TrayApplicationTest : public testing::Test {
  protected:
    TrayApplicationTest()
        : defaults(dir / "config/settings.ini"), clock(at(2030, 1, 9, 12)), // a Wednesday, noon
          repository(std::make_unique<LocalRepository>(dir / "data", "EventsV1.db", center, clock)),
          ledger(repository.local()),
          cloudSync(
              ledger, [this] { return std::static_pointer_cast<CloudService>(cloud); }, defaults,
              clock, dir / "data/EventsV1.db.sync-lock"),
          launchAtLogin(loginItems, defaults), presenter(journal), statusBar(journal),
          scheduler(journal) {}

    TrayApplication& start() {
        delegate = std::make_unique<TrayApplication>(TrayApplication::Services{
            *store, cloudSync, defaults, launchAtLogin, center, mainThread, clock, presenter,
            statusBar, scheduler,
            [this]() -> std::unique_ptr<ManageEventsWindow> {
                if (refuseWindow) {
                    return nullptr;
                }
                auto w = std::make_unique<test::FakeWindow>();
                window = w.get();
                ++windowsMade;
                return w;
            },
            [this] { ++presentations; }, [this] { ++quits; },
            [] { return DayCalendar::forZone(zone); },
            [this](std::size_t count) {
                ++draws;
                return std::size_t(draws) % count;
            },
            eventsMenuOnDemand, [] { return std::make_unique<DateText>(); }});
        delegate->startup();
        return *delegate;
    }
    EventPtr add(std::string name, Instant date, Schedule s = Schedule::none) {
        MigrationManager::migrateIfNeeded(repository,
                                          defaults); // the table, as a first start makes it
        auto e = makeEvent(Uuid::random(), date, std::move(name), std::nullopt, s,
                           CountMethod::standard);
        EXPECT_TRUE(repository.insert(*e));
        return e;
    }
    std::string title() const {
        return statusBar.item.titles.empty() ? "" : statusBar.item.titles.back();
    }
    std::size_t indexOf(const std::string& rowTitle) const {
        const auto& rows = delegate->eventsMenu();
        for (std::size_t i = 0; i < rows.size(); ++i) {
            if (rows[i].title == rowTitle) {
                return i;
            }
        }
        ADD_FAILURE() << "no row " << rowTitle;
        return 0;
    }
    std::vector<std::string> marked() const {
        std::vector<std::string> on;
        for (const auto& r : presenter.rows()) {
            if (r.state) {
                on.push_back(r.title);
            }
        }
        return on;
    }

    Environment environment;
    test::TempDir dir;
    Signals center;
    SettingsFile defaults;
    FixedClock clock;
    std::shared_ptr<test::FakeCloudService> cloud; // none: no account
    Repository repository;
    Repository* store = &repository; // what the delegate is given
    LocalSyncLedger ledger;
    CloudSync cloudSync;
    test::MemoryLoginItems loginItems;
    LaunchAtLogin launchAtLogin;
    test::Journal journal;
    test::RecordingMenuPresenter presenter;
    test::RecordingStatusBar statusBar;
    test::ManualScheduler scheduler;
    test::QueueMainThread mainThread;
    test::FakeWindow* window = nullptr;
    int windowsMade = 0, presentations = 0, quits = 0, draws = 0;
    bool refuseWindow = false; // as when GTK cannot start
    bool eventsMenuOnDemand = false;
    std::unique_ptr<TrayApplication> delegate;
};

TEST_F(TrayApplicationTest, AStoreThatCannotBeReadShowsTheNoEventsTitleAndSaysSoOnce) {
    std::filesystem::create_directories(dir / "damaged");
    const std::string garbage(4096, 'x');
    { std::ofstream(dir / "damaged/EventsV1.db") << garbage; }
    Repository damaged(
        std::make_unique<LocalRepository>(dir / "damaged", "EventsV1.db", center, clock));
    store = &damaged;
    test::LogCapture log;
    start();
    EXPECT_EQ(title(), DisplayedEventSelection::noEventsTitle);
    auto lines = log.lines();
    auto told = std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find((dir / "damaged/EventsV1.db").string()) != std::string::npos;
    });
    EXPECT_EQ(told, 1);
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        "The event store " + (dir / "damaged/EventsV1.db").string() +
                            " could not be read: file is not a database (code: 26); restore it "
                            "from a backup, or move it away to start afresh"),
              lines.end());
    // Nothing recorded as done, and the file left as it was.
    EXPECT_EQ(defaults.integer(Settings::buildVersion), 0);
    std::ifstream in(dir / "damaged/EventsV1.db", std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    EXPECT_EQ(bytes.str(), garbage);
    delegate.reset();
}

TEST_F(TrayApplicationTest, StartUpSetsTheFirstTitleBeforeAnyChangeIsHandledAndTheTimerExists) {
    test::LogCapture log;
    loginItems.legacy = true; // an older helper that launched at login
    int rebuildsAtFirstTitle = -1;
    statusBar.item.onTitle = [&] {
        if (rebuildsAtFirstTitle < 0) {
            // A change now waits until start-up is done, and is not lost.
            center.emit(eventChangeNotification);
            rebuildsAtFirstTitle = presenter.rebuilds;
        }
    };
    start();
    EXPECT_EQ(journal,
              (test::Journal{"buildMenu", "createStatusItem", "title Almanor  \xF0\x9F\x8E\x89",
                             "rebuildEventsMenu", "schedule"}));
    EXPECT_EQ(presenter.rebuilds, 1);
    EXPECT_EQ(mainThread.drain(), 1u);
    EXPECT_EQ(presenter.rebuilds, 2);
    EXPECT_EQ(scheduler.interval, 300.0);
    EXPECT_EQ(scheduler.tolerance, 30.0);
    // Migrations ran first: the helper moved over, the table exists, the flags are set.
    EXPECT_TRUE(loginItems.registered);
    EXPECT_FALSE(loginItems.legacy);
    EXPECT_TRUE(defaults.boolean(Settings::launchAtLoginHasMigrated));
    EXPECT_EQ(defaults.integer(Settings::buildVersion), 1);
    auto lines = log.lines();
    auto selected =
        std::find(lines.begin(), lines.end(), "selectedEvent 00000000-0000-0000-0000-000000000000");
    EXPECT_NE(selected, lines.end());
    // The menu as built, with launch at login marked because it is on, and registered again.
    std::vector<std::string> menu;
    for (const auto& item : presenter.menu()) {
        menu.push_back(item.separator ? "-" : item.title + (item.state ? " [x]" : ""));
    }
    EXPECT_EQ(menu, (std::vector<std::string>{"Events", "Manage Events", "-",
                                              "Launch Almanor at Login [x]", "-", "Quit"}));
    EXPECT_EQ(loginItems.registrations, 2);
    // Start-up done: an add reaches the delegate at once.
    add("Trip", at(2030, 1, 19));
    EXPECT_EQ(presenter.rebuilds, 3);
    EXPECT_EQ(title(), "Trip 10 days");
}

TEST_F(TrayApplicationTest, TheEventsMenuHasItsSectionsDatesAndMarks) {
    auto trip = add("Trip", at(2031, 1, 5, 9));
    add("Gym", at(2030, 1, 7, 18), Schedule::weekly); // a Monday
    add("Rent", at(2029, 12, 22, 0, 30), Schedule::monthly);
    add("Birthday", at(1990, 3, 5), Schedule::annually);
    add("snake_case & more", at(2031, 2, 1));
    defaults.setString(Settings::selectedEvent, trip->id().uuidString());
    start();
    EXPECT_EQ(presenter.titles(),
              (std::vector<std::string>{
                  "Automatic selection", "Next upcoming event", "Rotate upcoming events (hourly)",
                  "Random event selection", "One off events", "Trip - Jan 5, 2031",
                  "snake_case & more - Feb 1, 2031", "Weekly events", "Gym - Mon", "Monthly events",
                  "Rent - 22nd", "Annual events", "Birthday - Mar 5th"}));
    EXPECT_EQ(marked(), (std::vector<std::string>{"Trip - Jan 5, 2031"}));
    for (const auto& r : presenter.rows()) {
        bool header = r.title == "Automatic selection" || r.title == "One off events" ||
                      r.title == "Weekly events" || r.title == "Monthly events" ||
                      r.title == "Annual events";
        EXPECT_EQ(r.action == MenuItem::Action::none, header) << r.title;
        EXPECT_EQ(r.data.has_value(), !header) << r.title;
    }
    EXPECT_EQ(title(), "Trip 361 days");
}

TEST_F(TrayApplicationTest, WithoutEventsTheMenuHoldsOnlyTheAutomaticRows) {
    start();
    EXPECT_EQ(
        presenter.titles(),
        (std::vector<std::string>{"Automatic selection", "Next upcoming event",
                                  "Rotate upcoming events (hourly)", "Random event selection"}));
    EXPECT_EQ(marked(), std::vector<std::string>{});
    // The selection is left alone.
    EXPECT_EQ(SettingsFile(defaults.file()).string(Settings::selectedEvent), std::nullopt);
}

TEST_F(TrayApplicationTest, TheMenuSpeaksTheUsersLanguage) {
    for (auto [locale, quit, next] :
         {std::tuple{"de_DE.UTF-8", "Beenden", "Nächstes anstehendes Ereignis"},
          std::tuple{"cs_CZ.UTF-8", "Ukončit", "Nejbližší nadcházející událost"}}) {
        test::Language speaking(locale);
        start();
        EXPECT_EQ(presenter.menu().back().title, quit);
        EXPECT_EQ(presenter.titles().at(1), next);
    }
}

TEST_F(TrayApplicationTest, ChoosingARowMarksItEvenWhenAnotherEventEndsUpShown) {
    add("Past", at(2029, 1, 1));
    add("Older", at(2028, 1, 1));
    start();
    delegate->updateSelectedEvent(indexOf("Next upcoming event"));
    // Nothing is upcoming: the first event is shown and stored, the mode's row stays marked.
    EXPECT_EQ(marked(), (std::vector<std::string>{"Next upcoming event"}));
    EXPECT_EQ(title(), "Older 740 days ago");
    EXPECT_NE(defaults.string(Settings::selectedEvent),
              DisplayedEventSelection::nextEventId.uuidString());
    // A header chooses a fresh id: every mark goes, and the fallback is shown.
    delegate->updateSelectedEvent(indexOf("One off events"));
    EXPECT_EQ(marked(), std::vector<std::string>{});
    // The next rebuild corrects the marks.
    center.emit(eventChangeNotification);
    EXPECT_EQ(marked().size(), 1u);
}

TEST_F(TrayApplicationTest, OnDemandTheEventsRowsWaitForAPanelAndThenFollowEveryChange) {
    auto trip = add("Trip", at(2031, 1, 5, 9));
    auto gym = add("Gym", at(2030, 1, 7, 18), Schedule::weekly);
    defaults.setString(Settings::selectedEvent, trip->id().uuidString());
    eventsMenuOnDemand = true;
    start();
    EXPECT_EQ(title(), "Trip 361 days");
    EXPECT_EQ(presenter.rebuilds, 0);
    // Chosen before any panel showed the menu: the rows made later mark the last choice.
    defaults.setString(Settings::selectedEvent, gym->id().uuidString());
    center.emit(eventChangeNotification);
    EXPECT_EQ(title(), "Gym 4 days");
    EXPECT_EQ(presenter.rebuilds, 0);
    delegate->eventsMenuAboutToShow();
    EXPECT_EQ(presenter.rebuilds, 1);
    EXPECT_EQ(marked(), (std::vector<std::string>{"Gym - Mon"}));
    // Shown again: nothing to make. A change now reaches the rows at once, as they may be shown.
    delegate->eventsMenuAboutToShow();
    EXPECT_EQ(presenter.rebuilds, 1);
    add("Dentist", at(2030, 3, 3, 10));
    EXPECT_EQ(presenter.rebuilds, 2);
    auto titles = presenter.titles();
    EXPECT_EQ(std::count(titles.begin(), titles.end(), "Dentist - Mar 3, 2030"), 1);
    delegate->updateSelectedEvent(indexOf("Dentist - Mar 3, 2030"));
    EXPECT_EQ(marked(), (std::vector<std::string>{"Dentist - Mar 3, 2030"}));
}

TEST_F(TrayApplicationTest, TicksRecomputeOnceADayAfterMidnight) {
    add("Trip", at(2030, 1, 19));
    clock.set(at(2030, 1, 9, 23, 54));
    start();
    EXPECT_EQ(title(), "Trip 10 days");
    auto titles = statusBar.item.titles.size();
    clock.set(at(2030, 1, 9, 23, 59));
    scheduler.fire();
    EXPECT_EQ(statusBar.item.titles.size(), titles);
    clock.set(at(2030, 1, 10, 0, 4));
    scheduler.fire();
    EXPECT_EQ(statusBar.item.titles.size(), titles + 1);
    EXPECT_EQ(title(), "Trip 9 days");
    clock.set(at(2030, 1, 10, 0, 9));
    scheduler.fire();
    clock.set(at(2030, 1, 10, 18, 0));
    scheduler.fire();
    EXPECT_EQ(statusBar.item.titles.size(), titles + 1);
}

TEST_F(TrayApplicationTest, RotationRedrawsOnlyAfterMoreThanAnHour) {
    add("A", at(2030, 1, 19));
    add("B", at(2030, 1, 20));
    defaults.setString(Settings::selectedEvent,
                       DisplayedEventSelection::cycleUpcomingEventId.uuidString());
    test::LogCapture log;
    start();
    int drawn = draws;
    ASSERT_GT(drawn, 0);
    clock.advance(milliseconds(3'600'000)); // exactly 3,600.0 s
    scheduler.fire();
    EXPECT_EQ(draws, drawn);
    clock.advance(milliseconds(1));
    scheduler.fire();
    EXPECT_EQ(draws, drawn + 1);
    auto lines = log.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "Recalculating event"), 1);
}

TEST_F(TrayApplicationTest, APostFromAnotherThreadIsHandledOnTheMainThread) {
    start();
    auto e = makeEvent(Uuid::random(), at(2030, 1, 12), "From a worker", std::nullopt,
                       Schedule::none, CountMethod::standard);
    std::thread worker([&] { repository.insert(*e); });
    worker.join();
    EXPECT_EQ(presenter.rebuilds, 1); // nothing touched off the main thread
    EXPECT_EQ(mainThread.drain(), 1u);
    EXPECT_EQ(presenter.rebuilds, 2);
    EXPECT_EQ(title(), "From a worker 3 days");
}

TEST_F(TrayApplicationTest, ChangesFromOtherProcessesAreFollowedAndOwnOnesHandledOnce) {
    start();
    // Another process: its own connection to the file and its own settings object.
    Signals otherCenter;
    Repository other(
        std::make_unique<LocalRepository>(dir / "data", "EventsV1.db", otherCenter, clock));
    SettingsFile otherDefaults(dir / "config/settings.ini");
    auto e = makeEvent(Uuid::random(), at(2030, 1, 14), "Elsewhere", std::nullopt, Schedule::none,
                       CountMethod::standard);
    other.insert(*e);
    // The window listens to the same notification, so the change must be posted, not just drawn.
    int heard = 0;
    auto listener = center.connect(std::string(eventChangeNotification), [&] { ++heard; });
    delegate->storeChangedOnDisk();
    mainThread.drain();
    EXPECT_EQ(heard, 1);
    EXPECT_EQ(presenter.rebuilds, 2);
    EXPECT_EQ(title(), "Elsewhere 5 days");
    delegate->storeChangedOnDisk(); // a second event of the same watch
    mainThread.drain();
    EXPECT_EQ(heard, 1);
    EXPECT_EQ(presenter.rebuilds, 2);
    center.disconnect(listener);

    // Own change: handled through the notification, never again through the watch.
    auto mine = add("Mine", at(2030, 1, 11));
    EXPECT_EQ(presenter.rebuilds, 3);
    delegate->storeChangedOnDisk();
    delegate->settingsChangedOnDisk();
    EXPECT_EQ(presenter.rebuilds, 3);

    EXPECT_EQ(title(), "Elsewhere 5 days"); // the first event shown at start-up stays chosen
    Settings(otherDefaults).setSelectedEventId(mine->id());
    delegate->settingsChangedOnDisk();
    EXPECT_EQ(presenter.rebuilds, 4);
    EXPECT_EQ(title(), "Mine 2 days");
    EXPECT_EQ(marked(), (std::vector<std::string>{"Mine - Jan 11, 2030"}));
}

TEST_F(TrayApplicationTest, TheCloudIsPulledBeforeTheFirstTitleAndSyncedOnChangesTicksAndAsking) {
    cloud = std::make_shared<test::FakeCloudService>();
    const std::string appZone{appZoneName};
    cloud->saveZone(appZone);
    auto pulled = makeEvent(Uuid::random(), at(2030, 1, 11), "From the cloud", std::nullopt,
                            Schedule::none, CountMethod::standard);
    cloud->seed(recordFromEvent(CloudEvent{RecordId{"rec-1", appZone}, pulled}));
    add("Made offline", at(2031, 1, 1));
    auto inCloud = [&](const std::string& name) {
        cloudSync.waitForSync();
        for (const auto& [resource, remote] : cloud->stored(appZone))
            if (eventFromRecord(remote.record, clock).event->name() == name)
                return true;
        return false;
    };

    start();
    EXPECT_EQ(title(), "From the cloud 2 days");
    EXPECT_TRUE(inCloud("Made offline"));

    add("Changed here", at(2031, 2, 2));
    mainThread.drain();
    EXPECT_TRUE(inCloud("Changed here"));

    // A row that another process wrote, with no notice here, goes with the next tick.
    Signals otherCenter;
    Repository other(
        std::make_unique<LocalRepository>(dir / "data", "EventsV1.db", otherCenter, clock));
    other.insert(*makeEvent(Uuid::random(), at(2031, 3, 3), "Elsewhere", std::nullopt,
                            Schedule::none, CountMethod::standard));
    EXPECT_FALSE(inCloud("Elsewhere"));
    scheduler.fire();
    EXPECT_TRUE(inCloud("Elsewhere"));

    // Another machine's event and deletion reach the menu with a tick, and again when asked.
    auto soon = makeEvent(Uuid::random(), at(2030, 1, 10), "Another machine's", std::nullopt,
                          Schedule::none, CountMethod::standard);
    cloud->seed(recordFromEvent(CloudEvent{RecordId{"rec-2", appZone}, soon}));
    // Until the passes that the pulled changes' notices start have run too.
    auto settle = [&] {
        do
            cloudSync.waitForSync();
        while (mainThread.drain() > 0);
    };
    scheduler.fire();
    settle();
    EXPECT_NO_FATAL_FAILURE(indexOf("Another machine's - Jan 10, 2030"));
    cloud->unseed(appZone, "rec-2.ics");
    delegate->syncRequested();
    settle();
    for (const auto& row : delegate->eventsMenu())
        EXPECT_NE(row.title, "Another machine's - Jan 10, 2030");
}

TEST_F(TrayApplicationTest, RandomModeNeverFeedsOnItsOwnWrites) {
    add("A", at(2030, 1, 19));
    add("B", at(2030, 1, 20));
    start();
    delegate->updateSelectedEvent(indexOf("Random event selection"));
    struct stat before {};
    ASSERT_EQ(::stat(defaults.file().c_str(), &before), 0);
    int drawn = draws;
    for (int i = 0; i < 3; ++i) {
        delegate->settingsChangedOnDisk();
        delegate->storeChangedOnDisk();
        scheduler.fire();
    }
    EXPECT_EQ(draws, drawn);
    struct stat after {};
    ASSERT_EQ(::stat(defaults.file().c_str(), &after), 0);
    // An idle tray never rewrites the settings file.
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
}

TEST_F(TrayApplicationTest, TheWindowIsMadeOnceAndCentredWhenBroughtBack) {
    start();
    delegate->manageEvents();
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(window->visible);
    int centred = window->centred;
    delegate->manageEvents(); // visible: left where it is
    EXPECT_EQ(window->centred, centred);
    EXPECT_EQ(window->fronted, 1);
    window->visible = false; // closed: hidden, kept
    delegate->manageEvents();
    EXPECT_EQ(windowsMade, 1);
    EXPECT_EQ(window->centred, centred + 1);
    EXPECT_EQ(window->fronted, 2);
    EXPECT_EQ(presentations, 3);
}

TEST_F(TrayApplicationTest, AWindowThatCannotBeMadeIsAskedForAgainNextTime) {
    start();
    refuseWindow = true;
    delegate->manageEvents();
    delegate->manageEvents();
    EXPECT_EQ(presentations, 0);
    refuseWindow = false;
    delegate->manageEvents();
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(window->visible);
    EXPECT_EQ(windowsMade, 1);
    EXPECT_EQ(presentations, 1);
}

TEST_F(TrayApplicationTest, TheLoginRowFollowsTheRequestEvenWhenRefused) {
    start();
    EXPECT_FALSE(presenter.menu()[3].state);
    delegate->toggleLaunchAtLogin(3);
    EXPECT_TRUE(loginItems.registered);
    EXPECT_TRUE(presenter.menu()[3].state);
    delegate->toggleLaunchAtLogin(3);
    EXPECT_FALSE(loginItems.registered);
    loginItems.refuse = true;
    delegate->toggleLaunchAtLogin(3);
    EXPECT_FALSE(loginItems.registered);
    EXPECT_TRUE(presenter.menu()[3].state);
    delegate->quit();
    EXPECT_EQ(quits, 1);
}

} // namespace

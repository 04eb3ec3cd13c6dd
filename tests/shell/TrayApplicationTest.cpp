#include "shell/TrayApplication.h"

#include "HookedCalDav.h"
#include "Language.h"
#include "LocalInstants.h"
#include "LogCapture.h"
#include "TempDir.h"
#include "TrayFakes.h"
#include "cloud/RecordMapping.h"
#include "dates/DateText.h"
#include "login/LaunchAtLogin.h"
#include "login/XdgAutostartService.h"
#include "platform/SettingsFile.h"
#include "storage/LocalRepository.h"
#include "storage/LocalSyncLedger.h"
#include "storage/Repository.h"
#include "sync/CloudSync.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <utility>

using namespace almanor;
using namespace std::chrono;
using namespace almanor::test;

namespace {

class TrayApplicationTest : public InNewYork {
  protected:
    void start() {
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
            [this](std::size_t count) { return std::size_t(++draws) % count; }, eventsMenuOnDemand,
            [] { return std::make_unique<DateText>(); }});
        delegate->startup();
    }
    EventPtr add(std::string name, Instant date, Schedule s = Schedule::none,
                 Repository* into = nullptr) {
        auto e = makeEvent(Uuid::random(), date, std::move(name), std::nullopt, s,
                           CountMethod::standard);
        EXPECT_TRUE((into ? into : &repository)->insert(*e));
        return e;
    }
    std::string title() const { return statusBar.titles.empty() ? "" : statusBar.titles.back(); }
    std::size_t indexOf(const std::string& rowTitle) const {
        const auto& rows = delegate->eventsMenu();
        auto it = std::ranges::find(rows, rowTitle, &MenuItem::title);
        EXPECT_NE(it, rows.end()) << rowTitle;
        return std::size_t(it - rows.begin());
    }
    std::vector<std::string> marked() const { return presenter.titles(true); }

    test::TempDir dir;
    Signals center;
    SettingsFile defaults{dir / "config/settings.ini"};
    FixedClock clock{at(2030, 1, 9, 12)};      // a Wednesday, noon
    std::shared_ptr<test::HookedCalDav> cloud; // none: no account
    Repository repository{
        std::make_unique<LocalRepository>(dir / "data", "EventsV1.db", center, clock)};
    Repository* store = &repository; // what the delegate is given
    Signals otherCenter;             // another process: its own connection and its own notices
    Repository other{
        std::make_unique<LocalRepository>(dir / "data", "EventsV1.db", otherCenter, clock)};
    LocalSyncLedger ledger{repository.local()};
    CloudSync cloudSync{ledger, [this] { return std::static_pointer_cast<CloudService>(cloud); },
                        defaults, clock, dir / "data/EventsV1.db.sync-lock"};
    XdgAutostartService loginItems{dir.path(), dir / "bin/almanor"};
    LaunchAtLogin launchAtLogin{loginItems, defaults};
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
    std::ofstream(dir / "damaged/EventsV1.db") << std::string(4096, 'x');
    Repository damaged(
        std::make_unique<LocalRepository>(dir / "damaged", "EventsV1.db", center, clock));
    store = &damaged;
    test::LogCapture log;
    start();
    EXPECT_EQ(title(), DisplayedEventSelection::noEventsTitle);
    const auto said = "The event store " + (dir / "damaged/EventsV1.db").string() +
                      " could not be read: file is not a database (code: 26); restore it "
                      "from a backup, or move it away to start afresh";
    EXPECT_EQ(std::ranges::count(log.lines(), said), 1);
    EXPECT_EQ(defaults.integer(Settings::buildVersion), 0); // nothing recorded as done
    delegate.reset();
}

TEST_F(TrayApplicationTest, StartUpSetsTheFirstTitleBeforeAnyChangeIsHandledAndTheTimerExists) {
    // Launched at login from where the program was before.
    auto entry = dir / "autostart/com.vostrel.Almanor.desktop";
    test::writeFile(entry, "[Desktop Entry]\nType=Application\nName=A\nExec=/moved/almanor\n");
    bool first = true;
    statusBar.onTitle = [&] {
        if (std::exchange(first, false)) {
            // The menu is built before the first title, the rows and the timer after it.
            EXPECT_EQ(presenter.menu.size(), 7u);
            EXPECT_EQ(presenter.rebuilds, 0);
            EXPECT_FALSE(scheduler.action);
            center.emit(eventChangeNotification); // waits until start-up is done, not lost
        }
    };
    start();
    EXPECT_EQ(statusBar.titles, std::vector<std::string>{"Almanor  \xF0\x9F\x8E\x89"});
    EXPECT_EQ(mainThread.drain(), 1u);
    EXPECT_EQ(presenter.rebuilds, 2);
    EXPECT_EQ(scheduler.interval, 300.0);
    EXPECT_EQ(scheduler.tolerance, 30.0);
    // Migrations ran first, the flags set; the entry follows the program.
    EXPECT_TRUE(defaults.boolean(Settings::launchAtLoginHasMigrated));
    EXPECT_NE(test::readFile(entry).find(loginItems.execLine()), std::string::npos);
    EXPECT_EQ(defaults.integer(Settings::buildVersion), 1);
    EXPECT_EQ(SettingsFile(defaults.file()).string(Settings::selectedEvent), std::nullopt);
    EXPECT_TRUE(presenter.menu[3].state); // launches at login, as the entry said
    EXPECT_TRUE(presenter.menu[4].state); // notifies on the day by default
}

TEST_F(TrayApplicationTest, TheMenuSpeaksTheUsersLanguage) {
    for (auto [locale, quit, next] :
         {std::tuple{"de_DE.UTF-8", "Beenden", "Nächstes anstehendes Ereignis"},
          std::tuple{"cs_CZ.UTF-8", "Ukončit", "Nejbližší nadcházející událost"}}) {
        test::Language speaking(locale);
        start();
        EXPECT_EQ(presenter.menu.back().title, quit);
        EXPECT_EQ(presenter.titles().at(1), next);
    }
}

TEST_F(TrayApplicationTest, OnDemandTheEventsRowsWaitForAPanelAndThenFollowEveryChange) {
    auto trip = add("Trip", at(2031, 1, 5, 9));
    auto gym = add("Gym", at(2030, 1, 7, 18), Schedule::weekly);
    defaults.setString(Settings::selectedEvent, trip->id().uuidString());
    eventsMenuOnDemand = true;
    start();
    // Chosen before any panel showed the menu: the rows made later mark the last choice.
    defaults.setString(Settings::selectedEvent, gym->id().uuidString());
    center.emit(eventChangeNotification);
    EXPECT_EQ(title(), "Gym 4 days");
    EXPECT_EQ(presenter.rebuilds, 0);
    // Another process adds an event and deletes it again, and the rows are made in between,
    // before the watch tells of either commit: when it does, the rows lose the event again.
    auto passing = add("Passing", at(2030, 2, 2), Schedule::none, &other);
    delegate->eventsMenuAboutToShow();
    delegate->eventsMenuAboutToShow();
    EXPECT_EQ(presenter.rebuilds, 1);
    EXPECT_EQ(marked(), (std::vector<std::string>{"Gym - Mon"}));
    other.deleteEvent(*passing);
    delegate->storeChangedOnDisk();
    EXPECT_EQ(presenter.rebuilds, 2);
    add("Dentist", at(2030, 3, 3, 10)); // may be shown now: made at once
    EXPECT_EQ(presenter.rebuilds, 3);
}

TEST_F(TrayApplicationTest, TicksRecomputeOnceADayTheRotationAfterMoreThanAnHourAndRandomNever) {
    add("Trip", at(2030, 1, 19));
    add("Later", at(2030, 1, 20));
    clock.set(at(2030, 1, 9, 23, 54));
    start();
    EXPECT_EQ(title(), "Trip 10 days");
    auto titles = statusBar.titles.size();
    scheduler.fire();
    clock.set(at(2030, 1, 10, 0, 4));
    scheduler.fire();
    scheduler.fire();
    EXPECT_EQ(statusBar.titles.size(), titles + 1);
    EXPECT_EQ(title(), "Trip 9 days");
    delegate->updateSelectedEvent(indexOf("Rotate upcoming events (hourly)"));
    int drawn = draws;
    clock.advance(milliseconds(3'600'000)); // exactly 3,600.0 s
    scheduler.fire();
    EXPECT_EQ(draws, drawn);
    clock.advance(milliseconds(1));
    scheduler.fire();
    EXPECT_EQ(draws, drawn + 1);
    // Random mode never feeds on its own writes.
    delegate->updateSelectedEvent(indexOf("Random event selection"));
    struct stat before {};
    ASSERT_EQ(::stat(defaults.file().c_str(), &before), 0);
    drawn = draws;
    for (int i = 0; i < 3; ++i) {
        delegate->settingsChangedOnDisk();
        delegate->storeChangedOnDisk();
        scheduler.fire();
    }
    EXPECT_EQ(draws, drawn);
    struct stat after {};
    ASSERT_EQ(::stat(defaults.file().c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino); // an idle tray never rewrites the settings file
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
}

TEST_F(TrayApplicationTest, ChangesOfAnyThreadOrProcessAreHandledOnTheMainThreadOnce) {
    start();
    std::thread([&] { add("From a worker", at(2030, 1, 12)); }).join();
    EXPECT_EQ(presenter.rebuilds, 1); // nothing touched off the main thread
    EXPECT_EQ(mainThread.drain(), 1u);
    EXPECT_EQ(title(), "From a worker 3 days");
    // The window hears the same notice, so another process's change is posted, not just drawn.
    auto elsewhere = add("Elsewhere", at(2030, 1, 11), Schedule::none, &other);
    int heard = 0;
    center.connect(std::string(eventChangeNotification), [&] { ++heard; });
    delegate->storeChangedOnDisk();
    delegate->storeChangedOnDisk(); // a second event of the same watch
    // A commit that leaves the events as they were (another process's sync bookkeeping).
    LocalSyncLedger(other.local()).setSyncToken("zone", "token");
    delegate->storeChangedOnDisk();
    mainThread.drain();
    delegate->settingsChangedOnDisk();
    EXPECT_EQ(heard, 1);
    EXPECT_EQ(presenter.rebuilds, 3);
    add("Mine", at(2030, 1, 13)); // handled through the notice, never again through the watch
    delegate->storeChangedOnDisk();
    EXPECT_EQ(presenter.rebuilds, 4);
    SettingsFile otherDefaults(defaults.file());
    Settings(otherDefaults).setSelectedEventId(elsewhere->id());
    delegate->settingsChangedOnDisk();
    EXPECT_EQ(title(), "Elsewhere 2 days");
    EXPECT_EQ(marked(), (std::vector<std::string>{"Elsewhere - Jan 11, 2030"}));
}

TEST_F(TrayApplicationTest, TheCloudIsPulledBeforeTheFirstTitleAndSyncedOnChangesTicksAndAsking) {
    cloud = std::make_shared<test::HookedCalDav>();
    const std::string appZone{appZoneName};
    auto seed = [&](const char* record, const char* name, Instant date) {
        cloud->seed(recordFromEvent(CloudEvent{RecordId{record, appZone},
                                               makeEvent(Uuid::random(), date, name, std::nullopt,
                                                         Schedule::none, CountMethod::standard)}));
    };
    auto inCloud = [&](const std::string& name) {
        cloudSync.waitForSync();
        return std::ranges::count(cloud->names(), name) > 0;
    };
    seed("rec-1", "From the cloud", at(2030, 1, 11));
    // Until the passes that the pulled changes' notices start have run too.
    auto settle = [&] {
        do
            cloudSync.waitForSync();
        while (mainThread.drain() > 0);
    };
    start();
    EXPECT_EQ(title(), "From the cloud 2 days");
    add("Changed here", at(2031, 2, 2));
    mainThread.drain();
    EXPECT_TRUE(inCloud("Changed here"));
    // A row that another process wrote, with no notice here, goes with the next tick.
    add("Elsewhere", at(2031, 3, 3), Schedule::none, &other);
    EXPECT_FALSE(inCloud("Elsewhere"));
    scheduler.fire();
    EXPECT_TRUE(inCloud("Elsewhere"));
    // Another machine's event and deletion reach the menu with a tick, and again when asked.
    seed("rec-2", "Another machine's", at(2030, 1, 10));
    scheduler.fire();
    settle();
    EXPECT_NO_FATAL_FAILURE(indexOf("Another machine's - Jan 10, 2030"));
    cloud->other.deleteRecord(appZone, "rec-2.ics", {});
    delegate->syncRequested();
    settle();
    EXPECT_EQ(std::ranges::count(presenter.titles(), "Another machine's - Jan 10, 2030"), 0);
}

TEST_F(TrayApplicationTest, TheWindowIsMadeOnceTheLoginRowFollowsTheRequestAndQuitQuits) {
    start();
    refuseWindow = true; // as when GTK cannot start: asked for again next time
    delegate->manageEvents();
    EXPECT_EQ(presentations, 0);
    refuseWindow = false;
    delegate->manageEvents();
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(window->visible);
    delegate->manageEvents(); // visible: left where it is
    EXPECT_EQ(window->centred, 2);
    window->visible = false; // closed: hidden, kept
    delegate->manageEvents();
    EXPECT_EQ(windowsMade, 1);
    EXPECT_EQ(window->centred, 3);
    EXPECT_EQ(window->fronted, 2);
    EXPECT_EQ(presentations, 3);
    delegate->toggleLaunchAtLogin(3);
    EXPECT_TRUE(launchAtLogin.isEnabled());
    EXPECT_TRUE(presenter.menu[3].state);
    delegate->toggleLaunchAtLogin(3);
    EXPECT_FALSE(launchAtLogin.isEnabled());
    std::filesystem::create_directories(dir / "autostart/com.vostrel.Almanor.desktop"); // refused
    delegate->toggleLaunchAtLogin(3);
    EXPECT_FALSE(launchAtLogin.isEnabled());
    EXPECT_TRUE(presenter.menu[3].state);
    delegate->quit();
    EXPECT_EQ(quits, 1);
}

} // namespace

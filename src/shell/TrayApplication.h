#pragma once

#include "model/DateWriter.h"
#include "platform/Clock.h"
#include "platform/Export.h"
#include "platform/Instant.h"
#include "platform/MainThread.h"
#include "platform/Settings.h"
#include "platform/Signals.h"
#include "platform/Uuid.h"
#include "shell/DisplayedEventSelection.h"
#include "shell/Reminders.h"
#include "shell/StatusItem.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace almanor {

class CloudSync;
class LaunchAtLogin;
class Repository;
class SettingsFile;

// One row of the status menu or of its events submenu, as the tray draws it.
struct ALMANOR_EXPORT MenuItem {
    enum class Action {
        none,
        updateSelectedEvent,
        manageEvents,
        toggleLaunchAtLogin,
        toggleNotifyOnTheDay,
        quit
    };

    std::string title;            // shown as it is: no mnemonics
    Action action = Action::none; // none: drawn insensitive
    std::optional<Uuid> data;     // events submenu: the id the row selects
    bool state = false;           // on: a check mark
    bool separator = false;
    bool hasSubmenu = false; // "Events": the events submenu hangs here

    friend bool operator==(const MenuItem&, const MenuItem&) = default;
};

// What draws the menus (the menu protocol in the tray, a recorder in tests).
class ALMANOR_EXPORT MenuPresenter {
  public:
    virtual ~MenuPresenter() = default;
    // Start-up: the top-level menu, once.
    virtual void buildMenu(const std::vector<MenuItem>& menu) = 0;
    // Replaces every row of the events submenu.
    virtual void rebuildEventsMenu(const std::vector<MenuItem>& rows) = 0;
    // Sets the check mark of one row of the events submenu (an index into the last rows given).
    virtual void setEventsMenuState(std::size_t index, bool on) = 0;
    // Sets the check mark of one item of the top-level menu.
    virtual void setMenuState(std::size_t index, bool on) = 0;
};

// Creates the status item once the menu exists; the item shows the menu.
class ALMANOR_EXPORT StatusBar {
  public:
    virtual ~StatusBar() = default;
    virtual StatusItem& createStatusItem() = 0;
};

// The management window as the delegate sees it: created once, then kept.
class ALMANOR_EXPORT ManageEventsWindow {
  public:
    virtual ~ManageEventsWindow() = default;
    virtual bool isVisible() const = 0;
    virtual void center() = 0;
    virtual void present() = 0;
    // Selects the event and shows it in the editor.
    virtual void showEvent(const Uuid& id) = 0;
};

// One desktop notification: an event's day has come.
struct Notification {
    Uuid event; // what clicking it opens
    std::string title;
    std::string body;
};

// The repeating refresh timer.
class ALMANOR_EXPORT Scheduler {
  public:
    virtual ~Scheduler() = default;
    virtual void scheduleRepeating(double intervalSeconds, double toleranceSeconds,
                                   std::function<void()> action) = 0;
};

// The tray's behaviour, as plain C++: start-up, the refresh timer and its gating, the change
// notification, the menus and their actions. The tray draws what it is told and forwards clicks.
class ALMANOR_EXPORT TrayApplication {
  public:
    struct Services {
        Repository& repository;
        CloudSync& cloudSync;
        SettingsFile& defaults;
        LaunchAtLogin& launchAtLogin;
        Signals& center;
        MainThread& mainThread;
        const Clock& clock;
        MenuPresenter& menuPresenter;
        StatusBar& statusBar;
        Scheduler& scheduler;
        // Makes the management window on first use; null when it cannot be made.
        std::function<std::unique_ptr<ManageEventsWindow>()> makeManageEventsWindow;
        // Presents the application's visible windows.
        std::function<void()> presentWindows;
        // Ends the main loop.
        std::function<void()> quit;
        DisplayedEventSelection::CalendarSource calendar = &DayCalendar::current;
        DisplayedEventSelection::RandomIndex random = DisplayedEventSelection::uniformRandomIndex();
        // The events submenu's rows are made only once a panel is about to show them (see
        // eventsMenuAboutToShow): its dates cost start-up time and memory that the title does not
        // need. From then on they follow every change, as the panel may be showing them.
        bool eventsMenuOnDemand = false;
        // Makes the submenu's dates in the locale and time zone of the moment (the tray's
        // speak the user's language through ICU, which the rest of this layer does without).
        std::function<std::unique_ptr<DateWriter>()> menuDates = nullptr;
        // Shows a desktop notification; none: the day's notifications are left out.
        std::function<void(const Notification&)> notify = nullptr;
    };

    static constexpr double refreshInterval = 300.0;
    static constexpr double refreshTolerance = 30.0;
    static constexpr double rotationSeconds = 3600.0;

    explicit TrayApplication(Services services);
    ~TrayApplication();
    TrayApplication(const TrayApplication&) = delete;
    TrayApplication& operator=(const TrayApplication&) = delete;

    // Start-up, in its fixed order; the first title is set before the observer and the timer.
    void startup();

    // The timer's action.
    void recalculateEvents();
    // The change notification, on the main thread (a post from another thread is carried here).
    void eventChangeNotification();
    // A change that another process wrote to the store or the settings: handled as the change
    // notification, unless the change is this process's own.
    void storeChangedOnDisk();
    void settingsChangedOnDisk();
    // Resume from suspend: a tick at once.
    void resumed() { recalculateEvents(); }
    // The application action "sync", asked for by another program over D-Bus: a pull, then a
    // push.
    void syncRequested();

    // Menu actions; the row is given by its index in its menu.
    void manageEvents();
    void updateSelectedEvent(std::size_t eventsMenuIndex);
    void toggleLaunchAtLogin(std::size_t menuIndex);
    void toggleNotifyOnTheDay(std::size_t menuIndex);
    // A notification was clicked: the window, on its event.
    void openEvent(const Uuid& id);
    void quit();

    // The rows of the events submenu for the id to mark, built from the repository's events.
    std::vector<MenuItem> eventsMenuRows(const Uuid& marked) const;
    void rebuildEventsMenu(const Uuid& marked);
    // A panel is about to show the menu or the events submenu: rows not yet made are made now.
    void eventsMenuAboutToShow();

    const std::vector<MenuItem>& menu() const { return menu_; }
    const std::vector<MenuItem>& eventsMenu() const { return eventsMenu_; }
    StatusItem* statusBarItem() const { return statusBarItem_; }
    DisplayedEventSelection& selection() { return selection_; }

  private:
    // The repository's events, or those of the reading in progress.
    std::vector<EventPtr> events() const;
    // The top-level menu, built once at start.
    void buildMenu();
    // On the first look at a new day (start-up, the midnight tick, a resume): the notifications
    // of the events whose day it is, each occurrence once.
    void notifyTodaysEvents();

    struct Impl;
    Services s_;
    Settings settings_;
    DisplayedEventSelection selection_;
    StatusItem* statusBarItem_ = nullptr;
    std::unique_ptr<ManageEventsWindow> manageEventsWindow_;
    std::vector<MenuItem> menu_;
    std::vector<MenuItem> eventsMenu_;
    std::optional<Uuid> eventsMenuWanted_; // on demand: the mark of rows not made yet
    bool eventsMenuMade_ = false;
    std::optional<Signals::Token> observer_;
    bool started_ = false; // start-up done: changes on the main thread are handled at once
    Reminders reminders_;
    Instant notifiedDay_{}; // the day whose notifications were last looked at
    std::unique_ptr<Impl> impl_;
};

} // namespace almanor

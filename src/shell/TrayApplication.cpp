#include "shell/TrayApplication.h"

#include "login/LaunchAtLogin.h"
#include "model/Utility.h"
#include "platform/Log.h"
#include "platform/SettingsFile.h"
#include "platform/Translation.h"
#include "storage/LocalRepository.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"
#include "sync/CloudSync.h"

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

namespace almanor {

namespace {

struct Section {
    Schedule schedule;
    const char* header;
    const char* pattern;
    bool ordinal;
};

constexpr std::array<Section, 4> sections{{
    {Schedule::none, N_("One off events"), "MMM d, yyyy", false},
    {Schedule::weekly, N_("Weekly events"), "E", false},
    {Schedule::monthly, N_("Monthly events"), "", true},
    {Schedule::annually, N_("Annual events"), "MMM ", true},
}};

MenuItem row(std::string title, MenuItem::Action action = MenuItem::Action::none) {
    MenuItem item;
    item.title = std::move(title);
    item.action = action;
    return item;
}

MenuItem separator() {
    MenuItem item;
    item.separator = true;
    return item;
}

// The id a row selects; a row without one stands for a fresh id that matches nothing.
Uuid selectedId(const MenuItem& item) {
    return item.data.value_or(Uuid::random());
}

// What the events are, as far as the title and the menus go: tells another process's commit that
// changed them from one that left them as they were (FNV-1a over every field).
std::uint64_t digestOf(const std::vector<EventPtr>& events) {
    std::uint64_t digest = 14695981039346656037ULL;
    auto mix = [&](std::uint64_t value) {
        for (int byte = 0; byte < 8; ++byte, value >>= 8) {
            digest = (digest ^ (value & 0xff)) * 1099511628211ULL;
        }
    };
    auto mixText = [&](std::string_view text) {
        mix(text.size());
        for (unsigned char c : text) {
            digest = (digest ^ c) * 1099511628211ULL;
        }
    };
    for (const auto& e : events) {
        mixText(e->id().uuidString());
        mixText(e->name());
        mix(e->alias() ? 1 : 0);
        mixText(e->alias().value_or(""));
        mix(std::uint64_t(e->date().time_since_epoch().count()));
        mix(std::uint64_t(rawValue(e->schedule())));
        mix(std::uint64_t(rawValue(e->countMethod())));
    }
    return digest;
}

} // namespace

struct TrayApplication::Impl {
    std::optional<std::int64_t> dataVersion;
    std::optional<std::uint64_t> digest; // of the events as last read
    // The store as read once for a title and the submenu that follows it (see OneReading).
    std::optional<std::vector<EventPtr>> reading;

    // The title and the submenu of one pass show the same list, and a large store is read once.
    struct OneReading {
        OneReading(Impl& impl, Repository& repository) : impl_(impl) {
            impl_.reading = repository.fetchAll();
            impl_.digest = digestOf(*impl_.reading);
        }
        ~OneReading() { impl_.reading.reset(); }
        OneReading(const OneReading&) = delete;
        OneReading& operator=(const OneReading&) = delete;

      private:
        Impl& impl_;
    };

    static std::optional<std::int64_t> versionOf(Repository& repository) {
        try {
            return repository.local().dataVersion();
        } catch (const StoreError& e) {
            Log::error(std::string("Failed to read the store's version: ") + e.what());
            return std::nullopt;
        }
    }

    // What the store holds now counts as seen.
    void seen(Repository& repository) { dataVersion = versionOf(repository); }

    // Whether another process changed the events since the last look. A commit that left them as
    // they were (the bookkeeping of a sync pass that another process ran: its tokens and marks)
    // is none: following it would start another pass. A store that cannot be asked counts as
    // changed, so a change is never missed.
    bool storeChangedElsewhere(Repository& repository) {
        std::optional<std::int64_t> now = versionOf(repository);
        if (now && now == dataVersion) {
            return false;
        }
        dataVersion = now;
        auto events = now ? repository.tryFetchAll() : std::nullopt;
        std::optional<std::uint64_t> read;
        if (events) {
            read = digestOf(*events);
        }
        bool changed = !read || read != digest;
        digest = read;
        return changed;
    }
};

TrayApplication::TrayApplication(Services services)
    : s_(std::move(services)), settings_(s_.defaults),
      selection_([this] { return events(); }, settings_, s_.clock, s_.calendar, s_.random),
      reminders_(s_.defaults.file().parent_path() / Reminders::fileName),
      impl_(std::make_unique<Impl>()) {}

TrayApplication::~TrayApplication() {
    if (observer_) {
        s_.center.disconnect(*observer_);
    }
}

void TrayApplication::startup() {
    // 1. The one-time move off the older login helper.
    s_.launchAtLogin.migrateIfNeeded();
    // 2.
    settings_.registerDefaults();
    // 3. The table on first start, then the pull (waited for by a store that never pulled);
    // 4. the push follows it in the same pass, in the background. A store that cannot be read
    // leaves the no-events title; the user is told once, here.
    if (auto problem = s_.repository.local().unusable()) {
        Log::error(*problem);
    }
    MigrationManager::migrateIfNeeded(s_.repository, s_.defaults);
    // 9, early: posts come from any thread (the store posts where it writes); the item, the menus
    // and the window are touched only on the main thread. Until start-up is done every post waits
    // in the main loop: the pull's changes are not lost, and none interrupts the first title.
    observer_ = s_.center.connect(std::string(almanor::eventChangeNotification), [this] {
        if (started_) {
            s_.mainThread.run([this] { eventChangeNotification(); });
        } else {
            s_.mainThread.post([this] { eventChangeNotification(); });
        }
    });
    s_.cloudSync.populateFromCloud();

    // 5.
    buildMenu();

    // 6.
    statusBarItem_ = &s_.statusBar.createStatusItem();
    selection_.setStatusItem(statusBarItem_);

    // 7.
    Uuid stored = settings_.selectedEventId();
    Log::debug("selectedEvent " + stored.uuidString());

    // 8. The first title, before anything can change it. What it shows counts as this process's
    // own; the store's version is taken first, so that a commit made meanwhile is looked at again.
    impl_->seen(s_.repository);
    {
        Impl::OneReading reading(*impl_, s_.repository);
        rebuildEventsMenu(selection_.resolveDisplayedEvent(stored));
        notifyTodaysEvents();
    }
    s_.defaults.changedElsewhere();

    // 10.
    s_.scheduler.scheduleRepeating(refreshInterval, refreshTolerance,
                                   [this] { recalculateEvents(); });
    started_ = true;
}

void TrayApplication::buildMenu() {
    bool launchesAtLogin = s_.launchAtLogin.isEnabled();
    menu_.clear();
    MenuItem events = row(_("Events"));
    events.hasSubmenu = true;
    menu_.push_back(events);
    menu_.push_back(row(_("Manage Events"), MenuItem::Action::manageEvents));
    menu_.push_back(separator());
    MenuItem launch = row(_("Launch Almanor at Login"), MenuItem::Action::toggleLaunchAtLogin);
    launch.state = launchesAtLogin;
    menu_.push_back(launch);
    MenuItem notify = row(_("Notify on the Day"), MenuItem::Action::toggleNotifyOnTheDay);
    notify.state = settings_.notifiesOnTheDay();
    menu_.push_back(notify);
    menu_.push_back(separator());
    menu_.push_back(row(_("Quit"), MenuItem::Action::quit));
    if (launchesAtLogin) {
        s_.launchAtLogin.setEnabled(true); // registers again, so a moved binary is followed
    }
    s_.menuPresenter.buildMenu(menu_);
}

void TrayApplication::notifyTodaysEvents() {
    Instant today = selection_.startOfToday();
    if (!s_.notify || today == notifiedDay_) {
        return;
    }
    notifiedDay_ = today;
    if (!settings_.notifiesOnTheDay()) {
        return;
    }
    auto calendar = s_.calendar();
    auto dueNow = reminders_.due(events(), *calendar, today, settings_.daysAhead());
    if (dueNow.empty()) {
        return; // most days: the dates' library (ICU) stays unloaded
    }
    const std::unique_ptr<DateWriter> dates = s_.menuDates ? s_.menuDates() : nullptr;
    for (const auto& due : dueNow) {
        // Remembered first: a notification lost to a crash in between is better than one shown
        // at every start. One that cannot be remembered is shown all the same.
        reminders_.remember(due);
        Notification notification{due.event->id(),
                                  Utility::statusText(*calendar, *due.event, today), ""};
        if (dates != nullptr) {
            // TRANSLATORS: a date pattern of ICU (the day's notification): EEEE the weekday,
            // MMMM the month's name, d the day, yyyy the year; reorder as your language writes
            // dates.
            notification.body = dates->format(due.occurrence, _("EEEE, MMMM d, yyyy"));
        }
        s_.notify(notification);
    }
}

void TrayApplication::recalculateEvents() {
    s_.cloudSync.sync();
    notifyTodaysEvents();
    Uuid selected = settings_.selectedEventId();
    if (selected == DisplayedEventSelection::cycleUpcomingEventId) {
        double now = secondsSinceReferenceDate(s_.clock.now());
        if (now - selection_.lastCycled() > rotationSeconds) {
            Log::debug("Recalculating event");
            selection_.resolveDisplayedEvent(selected);
            return;
        }
    }
    if (selection_.startOfToday() == selection_.lastCalculated()) {
        return;
    }
    selection_.resolveDisplayedEvent(selected);
}

void TrayApplication::eventChangeNotification() {
    Uuid selected = settings_.selectedEventId();
    {
        Impl::OneReading reading(*impl_, s_.repository);
        rebuildEventsMenu(selection_.resolveDisplayedEvent(selected));
    }
    s_.cloudSync.sync();
}

void TrayApplication::syncRequested() {
    s_.cloudSync.sync();
}

void TrayApplication::storeChangedOnDisk() {
    // Posted rather than handled here, so that the window's list follows too.
    if (impl_->storeChangedElsewhere(s_.repository)) {
        s_.center.emit(almanor::eventChangeNotification);
    }
}

void TrayApplication::settingsChangedOnDisk() {
    if (s_.defaults.changedElsewhere()) {
        eventChangeNotification();
        // The toggle as another process left it.
        bool on = settings_.notifiesOnTheDay();
        for (std::size_t i = 0; i < menu_.size(); ++i) {
            if (menu_[i].action == MenuItem::Action::toggleNotifyOnTheDay && menu_[i].state != on) {
                menu_[i].state = on;
                s_.menuPresenter.setMenuState(i, on);
            }
        }
    }
}

void TrayApplication::manageEvents() {
    if (!manageEventsWindow_) {
        manageEventsWindow_ = s_.makeManageEventsWindow();
        if (!manageEventsWindow_) {
            return; // it said why it cannot be made (no display); asked again next time
        }
        manageEventsWindow_->center();
    }
    s_.presentWindows();
    if (!manageEventsWindow_->isVisible()) {
        manageEventsWindow_->center();
        manageEventsWindow_->present();
    }
}

void TrayApplication::updateSelectedEvent(std::size_t eventsMenuIndex) {
    if (eventsMenuIndex >= eventsMenu_.size()) {
        return;
    }
    Uuid id = selectedId(eventsMenu_[eventsMenuIndex]);
    // A choice that cannot be kept is not shown as made: the marks stay on the kept one.
    if (!settings_.setSelectedEventId(id)) {
        return;
    }
    for (std::size_t i = 0; i < eventsMenu_.size(); ++i) {
        bool on = selectedId(eventsMenu_[i]) == id;
        if (eventsMenu_[i].state != on) {
            eventsMenu_[i].state = on;
            s_.menuPresenter.setEventsMenuState(i, on);
        }
    }
    // The marks set above stay until the next rebuild, even when another event is shown.
    selection_.resolveDisplayedEvent(id);
}

void TrayApplication::toggleLaunchAtLogin(std::size_t menuIndex) {
    if (menuIndex >= menu_.size()) {
        return;
    }
    bool enable = !menu_[menuIndex].state;
    s_.launchAtLogin.setEnabled(enable);
    menu_[menuIndex].state = enable;
    s_.menuPresenter.setMenuState(menuIndex, enable);
}

void TrayApplication::toggleNotifyOnTheDay(std::size_t menuIndex) {
    if (menuIndex >= menu_.size()) {
        return;
    }
    bool enable = !menu_[menuIndex].state;
    // A choice that cannot be saved is not shown as made.
    if (settings_.setNotifiesOnTheDay(enable)) {
        menu_[menuIndex].state = enable;
        s_.menuPresenter.setMenuState(menuIndex, enable);
    }
}

void TrayApplication::openEvent(const Uuid& id) {
    manageEvents();
    if (manageEventsWindow_) {
        manageEventsWindow_->showEvent(id);
    }
}

void TrayApplication::quit() {
    s_.quit();
}

std::vector<MenuItem> TrayApplication::eventsMenuRows(const Uuid& marked) const {
    std::vector<MenuItem> rows;
    rows.push_back(row(_("Automatic selection")));
    auto mode = [&](const char* title, const Uuid& id) {
        MenuItem item = row(_(title), MenuItem::Action::updateSelectedEvent);
        item.data = id;
        item.state = id == marked;
        rows.push_back(item);
    };
    mode(N_("Next upcoming event"), DisplayedEventSelection::nextEventId);
    mode(N_("Rotate upcoming events (hourly)"), DisplayedEventSelection::cycleUpcomingEventId);
    mode(N_("Random event selection"), DisplayedEventSelection::randomEventId);

    auto events = this->events();
    // Made afresh: the locale and the time zone are the ones of this moment.
    // Without one (its library could not be loaded) the rows name the events alone.
    const std::unique_ptr<DateWriter> dates = s_.menuDates ? s_.menuDates() : nullptr;
    // A day's ordinal is the same text for every event on that day, and costly to make.
    std::array<std::string, 32> ordinals;
    auto ordinal = [&](int day) -> const std::string& {
        auto& text = ordinals[std::size_t(day) % ordinals.size()];
        if (text.empty()) {
            text = dates->ordinal(day);
        }
        return text;
    };
    for (const auto& section : sections) {
        bool headed = false;
        for (const auto& event : events) {
            if (event->schedule() != section.schedule) {
                continue;
            }
            if (!headed) {
                rows.push_back(row(_(section.header)));
                headed = true;
            }
            std::string title = event->name();
            if (dates != nullptr) {
                title += " - " + dates->format(event->date(), section.pattern);
                if (section.ordinal) {
                    title += ordinal(int(dates->dayOfMonth(event->date())));
                }
            }
            MenuItem item = row(title, MenuItem::Action::updateSelectedEvent);
            item.data = event->id();
            item.state = event->id() == marked;
            rows.push_back(item);
        }
    }
    return rows;
}

std::vector<EventPtr> TrayApplication::events() const {
    if (impl_->reading) {
        return *impl_->reading;
    }
    std::vector<EventPtr> events = s_.repository.fetchAll();
    // Rows or a title made from a newer list than the rest (a commit whose notice is still on its
    // way): when it comes, everything is made again, even if the list is back as it was.
    if (digestOf(events) != impl_->digest) {
        impl_->digest.reset();
    }
    return events;
}

void TrayApplication::rebuildEventsMenu(const Uuid& marked) {
    if (s_.eventsMenuOnDemand && !eventsMenuMade_) {
        eventsMenuWanted_ = marked;
        return;
    }
    eventsMenu_ = eventsMenuRows(marked);
    s_.menuPresenter.rebuildEventsMenu(eventsMenu_);
    eventsMenuMade_ = true;
}

void TrayApplication::eventsMenuAboutToShow() {
    if (auto marked = std::exchange(eventsMenuWanted_, std::nullopt)) {
        eventsMenuMade_ = true;
        rebuildEventsMenu(*marked);
    }
}

} // namespace almanor

// almanor-tray: the tray application that `almanor` with no command starts. The panel item and
// its menu need GLib and GIO only; GTK comes with the window, loaded the first time it is opened.

#include "cloud/CloudAccount.h"
#include "login/LaunchAtLogin.h"
#include "login/XdgAutostartService.h"
#include "model/DateWriter.h"
#include "platform/Clock.h"
#include "platform/GlibOwners.h"
#include "platform/Log.h"
#include "platform/Module.h"
#include "platform/Paths.h"
#include "platform/SettingsFile.h"
#include "platform/Signals.h"
#include "platform/Translation.h"
#include "shell/PanelIcon.h"
#include "shell/TrayApplication.h"
#include "storage/LocalRepository.h"
#include "storage/LocalSyncLedger.h"
#include "storage/Repository.h"
#include "sync/ChildProcessPasses.h"
#include "sync/CloudSync.h"
#include "ui/tray/DbusMenuPresenter.h"
#include "ui/tray/GlibServices.h"
#include "ui/tray/NetworkMonitor.h"
#include "ui/tray/StatusNotifierItem.h"
#include "ui/window/WindowModule.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gio/gio.h>
#include <glib-unix.h>
#include <malloc.h>
#include <memory>
#include <optional>
#include <unistd.h>

using namespace almanor;

#ifndef ALMANOR_MODULES_RELATIVE
#error "ALMANOR_MODULES_RELATIVE must be defined by the build"
#endif

namespace {

// Where an install puts the window's and the CalDAV adapter's modules, from this program's folder
// (a build tree has them beside it).
constexpr const char* modulesFolder = ALMANOR_MODULES_RELATIVE;

// The events menu's dates, from libalmanor-dates (ICU), loaded the first time they are needed and
// kept; found beside libalmanor by path, not by name: a loader in between (a sanitizer's) would not
// see this program's RUNPATH. Null, after one line, when it cannot be loaded: the menu then names
// the events without their dates.
std::unique_ptr<DateWriter> menuDates() {
    using Make = DateWriter* (*)();
    static const Make make = []() -> Make {
        try {
            return reinterpret_cast<Make>(module::load(
                module::besideThisLibrary(ALMANOR_DATES_LIBRARY), "almanor_dates_make_writer"));
        } catch (const ModuleError& e) {
            Log::error(std::string("Failed to load the menu's dates: ") + e.what());
            return nullptr;
        }
    }();
    return std::unique_ptr<DateWriter>(make != nullptr ? make() : nullptr);
}

constexpr const char* applicationId = "com.vostrel.Almanor";
// Where panels have always found the item and its menu.
constexpr const char* itemPath = "/org/ayatana/NotificationItem/com_vostrel_Almanor";

// The folder with hicolor/ icons when the tray runs from the build tree; empty when installed.
std::filesystem::path iconThemePath(const std::filesystem::path& self) {
    auto beside = self.parent_path() / "data/icons";
    std::error_code ec;
    return std::filesystem::exists(beside / "hicolor", ec) ? beside : std::filesystem::path();
}

// The almanor that login should start: the one that started this tray, else the one beside it.
std::filesystem::path almanorProgram(const std::filesystem::path& self) {
    if (const char* launcher = std::getenv("ALMANOR_LAUNCHER");
        launcher != nullptr && *launcher != '\0') {
        return launcher;
    }
    return self.parent_path() / "almanor";
}

// The almanor that runs the sync passes (`almanor sync`, as a child): the one beside this program
// (a build tree), else where an install puts it; never one found on PATH. One that is missing is a
// line when the first pass tries to start it.
std::filesystem::path syncProgram(const std::filesystem::path& self) {
    try {
        return module::locate("almanor", ALMANOR_BIN_RELATIVE);
    } catch (const ModuleError&) {
        return (self.parent_path() / ALMANOR_BIN_RELATIVE / "almanor").lexically_normal();
    }
}

// Which account the settings name, to notice a login or logout made while the tray runs.
std::string accountName(const SettingsFile& defaults) {
    auto account = CloudAccount::load(defaults);
    return account ? account->server + "\n" + account->user : std::string();
}

// The process's services, built once here and handed down.
struct Tray {
    Tray(GApplication* app, const std::filesystem::path& self)
        : application(app), defaults(paths::settingsFile()),
          repository(std::make_unique<LocalRepository>(paths::databaseDirectory(),
                                                       paths::databaseFileName, center, clock)),
          ledger(repository.local()),
          // The user's calendar server, when `almanor cloud login` has named one: each pass is
          // a child `almanor sync`, so that the network stack and the keyring stay out of this
          // long-lived process.
          cloudSync(ledger, std::make_unique<ChildProcessPasses>(syncProgram(self), defaults)),
          account(accountName(defaults)), loginItems(paths::configHome(), almanorProgram(self)),
          launchAtLogin(loginItems, defaults),
          presenter(std::string(itemPath) + "/Menu",
                    DbusMenuPresenter::Actions{
                        [this] { delegate->manageEvents(); },
                        [this](std::size_t i) { delegate->updateSelectedEvent(i); },
                        [this](std::size_t i) { delegate->toggleLaunchAtLogin(i); },
                        [this](std::size_t i) { delegate->toggleNotifyOnTheDay(i); },
                        [this] { delegate->quit(); },
                        [this] { delegate->eventsMenuAboutToShow(); },
                    }),
          item(g_application_get_dbus_connection(app),
               StatusNotifierItem::Options{
                   applicationId, itemPath, iconThemePath(self),
                   [this] { return panelIcon::showsCount(defaults); },
                   [app](const std::string& title, const std::string& body) {
                       glib::Object<GNotification> note(g_notification_new(title.c_str()));
                       g_notification_set_body(note.get(), body.c_str());
                       g_application_send_notification(app, "no-panel", note.get());
                   }}) {
        TrayApplication::Services services{
            repository,
            cloudSync,
            defaults,
            launchAtLogin,
            center,
            mainThread,
            clock,
            presenter,
            item,
            scheduler,
            [this]() -> std::unique_ptr<ManageEventsWindow> {
                const WindowModule* module = windowModule();
                return module != nullptr
                           ? module->makeManageEventsWindow(repository, center, mainThread, clock)
                           : nullptr;
            },
            [this] {
                if (window != nullptr) {
                    window->presentWindows();
                }
            },
            [this] { g_application_quit(application); },
        };
        services.eventsMenuOnDemand = true;
        services.menuDates = [] { return menuDates(); };
        services.notify = [this](const Notification& n) { notify(n); };
        delegate.emplace(std::move(services));
    }

    void start() {
        delegate->startup();
        // The watches wait until the first title is out: they cost start-up time (the network
        // monitor loads GIO's modules) and nothing can change before the main loop runs anyway.
        g_idle_add_full(
            G_PRIORITY_LOW,
            [](gpointer data) -> gboolean {
                static_cast<Tray*>(data)->watch();
                return G_SOURCE_REMOVE;
            },
            this, nullptr);
    }

    void watch() {
        // Changes that other processes write (the command line, a script) are followed through
        // the files themselves; the delegate tells them from this process's own.
        storeWatch.emplace(paths::databaseDirectory() / paths::databaseFileName,
                           [this] { delegate->storeChangedOnDisk(); });
        settingsWatch.emplace(defaults.file(), [this] {
            delegate->settingsChangedOnDisk();
            // An account named (or changed) since start-up is used from the next pass on.
            if (std::string now = accountName(defaults); now != account) {
                account = now;
                cloudSync.accountChanged();
            }
            watchNetworkIfNeeded();
        });
        wakeWatch.emplace([this] { delegate->resumed(); });
        watchNetworkIfNeeded();
        // A change written between the first title and now is not missed.
        delegate->storeChangedOnDisk();
        delegate->settingsChangedOnDisk();
        // What start-up read and dropped (the store's rows) goes back to the system rather than
        // waiting in the heap for a reuse that may never come.
        malloc_trim(0);
    }

    // A cloud that could not be reached is asked again once the network is back; without an
    // account there is nothing to ask, and nothing to watch.
    void watchNetworkIfNeeded() {
        if (!network && CloudAccount::load(defaults)) {
            network.emplace([this] { cloudSync.networkCameBack(); });
        }
    }

    // Through the desktop's notification service; a click comes back as "app.open-event".
    void notify(const Notification& n) const {
        glib::Object<GNotification> notification(g_notification_new(n.title.c_str()));
        if (!n.body.empty()) {
            g_notification_set_body(notification.get(), n.body.c_str());
        }
        glib::Object<GIcon> icon(g_themed_icon_new(applicationId));
        g_notification_set_icon(notification.get(), icon.get());
        std::string id = n.event.uuidString();
        g_notification_set_default_action_and_target(notification.get(), "app.open-event", "s",
                                                     id.c_str());
        // One per event: a later one of the same event replaces it.
        g_application_send_notification(application, ("event-" + id).c_str(), notification.get());
    }

    // The window's module, loaded on first use; null after one line saying why it cannot be.
    const WindowModule* windowModule() {
        if (window == nullptr) {
            try {
                auto entry = reinterpret_cast<const WindowModule* (*)()>(
                    module::load(module::locate(WindowModule::fileName, modulesFolder),
                                 WindowModule::entryPoint));
                const WindowModule* loaded = entry();
                if (loaded->version != WindowModule::currentVersion) {
                    throw ModuleError(std::string(WindowModule::fileName) +
                                      " belongs to another version of almanor");
                }
                window = loaded;
            } catch (const ModuleError& e) {
                Log::error(std::string("Failed to open the window: ") + e.what());
            }
        }
        return window;
    }

    GApplication* application;
    SettingsFile defaults;
    Signals center;
    SystemClock clock;
    Repository repository;
    LocalSyncLedger ledger;
    CloudSync cloudSync;
    std::string account; // the account's server and user as last seen
    GlibMainThread mainThread;
    GlibScheduler scheduler;
    XdgAutostartService loginItems;
    LaunchAtLogin launchAtLogin;
    DbusMenuPresenter presenter;
    StatusNotifierItem item;
    const WindowModule* window = nullptr;
    std::optional<TrayApplication> delegate;
    std::optional<FileWatch> storeWatch;
    std::optional<FileWatch> settingsWatch;
    std::optional<WakeWatch> wakeWatch;
    std::optional<NetworkMonitor> network;
};

struct Run {
    GApplication* application = nullptr;
    std::filesystem::path self;
    std::unique_ptr<Tray> tray;
    bool launched = false;
};

// The application's life: startup builds the tray, activate opens the window (all but the first),
// shutdown ends the tray.
void connectApplication(Run& run) {
    g_signal_connect(run.application, "startup", G_CALLBACK(+[](GApplication* app, gpointer data) {
                         auto& r = *static_cast<Run*>(data);
                         g_application_hold(app); // a tray has no window to keep it alive
                         r.tray = std::make_unique<Tray>(app, r.self);
                         r.tray->start();
                     }),
                     &run);
    // The first activation is this start; later ones come from `almanor` started again while this
    // tray runs, and open the window as "Manage Events" does.
    g_signal_connect(run.application, "activate", G_CALLBACK(+[](GApplication*, gpointer data) {
                         auto& r = *static_cast<Run*>(data);
                         if (r.launched && r.tray) {
                             r.tray->delegate->manageEvents();
                         }
                         r.launched = true;
                     }),
                     &run);
    // Updates still on their way are waited for; those that never arrive are pushed next time.
    g_signal_connect(run.application, "shutdown", G_CALLBACK(+[](GApplication*, gpointer data) {
                         auto& r = *static_cast<Run*>(data);
                         // Quitting never waits on the network: a pass under way is cut off, and
                         // what the server did not acknowledge stays pending for the next start.
                         if (r.tray) {
                             r.tray->cloudSync.stop();
                             r.tray.reset();
                         }
                     }),
                     &run);
}

// Another program asks for a sync: `gdbus call ... org.gtk.Actions.Activate sync [] {}`.
void addSyncAction(Run& run) {
    glib::Object<GSimpleAction> sync(g_simple_action_new("sync", nullptr));
    g_signal_connect(sync.get(), "activate",
                     G_CALLBACK(+[](GSimpleAction*, GVariant*, gpointer data) {
                         auto& r = *static_cast<Run*>(data);
                         if (r.tray) {
                             r.tray->delegate->syncRequested();
                         }
                     }),
                     &run);
    g_action_map_add_action(G_ACTION_MAP(run.application), G_ACTION(sync.get()));
}

// A notification clicked: the window opens on its event.
void addOpenEventAction(Run& run) {
    glib::Object<GSimpleAction> open(g_simple_action_new("open-event", G_VARIANT_TYPE_STRING));
    g_signal_connect(open.get(), "activate",
                     G_CALLBACK(+[](GSimpleAction*, GVariant* target, gpointer data) {
                         auto& r = *static_cast<Run*>(data);
                         auto id = Uuid::parse(g_variant_get_string(target, nullptr));
                         if (r.tray && id) {
                             r.tray->delegate->openEvent(*id);
                         }
                     }),
                     &run);
    g_action_map_add_action(G_ACTION_MAP(run.application), G_ACTION(open.get()));
}

// A session that ends sends SIGTERM: leave as "Quit" does.
void quitOnSignals(GApplication* application) {
    for (int signal : {SIGTERM, SIGINT}) {
        g_unix_signal_add(
            signal,
            [](gpointer app) -> gboolean {
                g_application_quit(static_cast<GApplication*>(app));
                return G_SOURCE_CONTINUE;
            },
            application);
    }
}

// The item lives on the session bus; without one there is nothing to show it (and GIO would run
// the application as if it were alone). One tray per session: the name on the bus says whether one
// runs already. False after one line on standard error.
bool registerOnSessionBus(GApplication* application) {
    glib::Error error;
    glib::Object<GDBusConnection> bus(
        g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, glib::out(error)));
    if (!bus || !g_application_register(application, nullptr, glib::out(error))) {
        std::fprintf(stderr, "almanor: %s\n",
                     formatText(_("the tray needs a session bus: %s"),
                                {error ? error->message : _("unknown error")})
                         .c_str());
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    useTheUsersLanguage(ALMANOR_LOCALE_RELATIVE);
    Log::toStandardOutput();
    Run run;
    std::error_code ec;
    run.self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) {
        run.self = argv[0];
    }
    // Named as the program itself, before anything asks (GTK, the accessibility bus).
    g_set_prgname(run.self.filename().c_str());
    glib::Object<GApplication> application(
        g_application_new(applicationId, G_APPLICATION_DEFAULT_FLAGS));
    run.application = application.get();
    connectApplication(run);
    addSyncAction(run);
    addOpenEventAction(run);
    quitOnSignals(application.get());
    if (!registerOnSessionBus(application.get())) {
        return 1;
    }
    // Arguments are the command line's business; the tray takes none.
    (void)argc;
    char* args[] = {argv[0], nullptr};
    return g_application_run(application.get(), 1, args);
}

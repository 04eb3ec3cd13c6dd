// almanor-tray: the tray application that `almanor` with no command starts.

#include "cloud/caldav/CloudAccount.h"
#include "login/LaunchAtLogin.h"
#include "login/XdgAutostartService.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/NetworkMonitor.h"
#include "platform/NotificationCenter.h"
#include "platform/Paths.h"
#include "platform/UserDefaults.h"
#include "shell/AppDelegate.h"
#include "storage/LocalSyncLedger.h"
#include "storage/Repository.h"
#include "sync/CloudSync.h"
#include "ui/tray/GlibServices.h"
#include "ui/tray/Indicator.h"
#include "ui/window/ManageEventsWindowGtk.h"

#include <csignal>
#include <cstdlib>
#include <glib-unix.h>
#include <glibmm/main.h>
#include <gtkmm/application.h>
#include <gtkmm/window.h>
#include <memory>
#include <optional>
#include <unistd.h>

using namespace almanor;

namespace {

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

// The file every process syncing the store locks for the length of a pass.
std::filesystem::path syncLockFile() {
    std::filesystem::path file = Repository::shared().local().file();
    file += ".sync-lock";
    return file;
}

struct Tray {
    explicit Tray(Glib::RefPtr<Gtk::Application> app, const std::filesystem::path& self)
        : application(std::move(app)), loginItems(paths::configHome(), almanorProgram(self)),
          launchAtLogin(loginItems, UserDefaults::standard()),
          presenter(GtkMenuPresenter::Actions{
              [this] { delegate->manageEventsWithSender(); },
              [this](std::size_t i) { delegate->updateSelectedEventWithSender(i); },
              [this](std::size_t i) { delegate->toggleLaunchAtLoginWithSender(i); },
              [this] { delegate->quit(); },
              [this]() -> const std::vector<MenuItem>& { return delegate->eventsMenu(); },
              [this]() -> const std::vector<MenuItem>& { return delegate->menu(); },
          }),
          indicator(presenter.menu(), iconThemePath(self)), ledger(Repository::shared().local()),
          cloudSync(
              ledger, [] { return makeAccountCloudService(UserDefaults::standard()); },
              UserDefaults::standard(), SystemClock::shared(), syncLockFile()) {
        delegate.emplace(AppDelegate::Services{
            Repository::shared(),
            cloudSync,
            UserDefaults::standard(),
            launchAtLogin,
            NotificationCenter::defaultCenter(),
            mainThread,
            SystemClock::shared(),
            presenter,
            indicator,
            scheduler,
            [this]() -> std::unique_ptr<ManageEventsWindow> {
                auto window = std::make_unique<ManageEventsWindowGtk>(
                    Repository::shared(), NotificationCenter::defaultCenter(), mainThread,
                    SystemClock::shared());
                application->add_window(window->window());
                return window;
            },
            [this] {
                for (auto* w : application->get_windows()) {
                    if (w->get_visible()) {
                        w->present();
                    }
                }
            },
            [this] { application->quit(); },
        });
    }

    void start() {
        delegate->applicationDidFinishLaunching();
        // The watches wait until the first title is out: they cost start-up time (the network
        // monitor loads GIO's modules) and nothing can change before the main loop runs anyway.
        Glib::signal_idle().connect_once(
            [this] {
                // Changes that other processes write (the command line, a script) are followed
                // through the files themselves; the delegate tells them from this process's own.
                storeWatch.emplace(paths::databaseDirectory() / paths::databaseFileName,
                                   [this] { delegate->storeChangedOnDisk(); });
                settingsWatch.emplace(UserDefaults::standard().file(),
                                      [this] { delegate->settingsChangedOnDisk(); });
                wakeWatch.emplace([this] { delegate->systemDidWake(); });
                // A cloud that could not be reached is asked again once the network is back.
                network.emplace([this] { cloudSync.networkCameBack(); });
                // A change written between the first title and now is not missed.
                delegate->storeChangedOnDisk();
                delegate->settingsChangedOnDisk();
            },
            Glib::PRIORITY_LOW);
    }

    Glib::RefPtr<Gtk::Application> application;
    GlibMainThread mainThread;
    GlibScheduler scheduler;
    XdgAutostartService loginItems;
    LaunchAtLogin launchAtLogin;
    GtkMenuPresenter presenter;
    Indicator indicator;
    LocalSyncLedger ledger;
    CloudSync cloudSync;
    std::optional<AppDelegate> delegate;
    std::optional<FileWatch> storeWatch;
    std::optional<FileWatch> settingsWatch;
    std::optional<WakeWatch> wakeWatch;
    std::optional<NetworkMonitor> network;
};

} // namespace

int main(int argc, char** argv) {
    Log::toStandardOutput();
    std::error_code ec;
    auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) {
        self = argv[0];
    }
    // Neither the panel item nor the window draws with OpenGL, but GTK's X11 backend probes GLX
    // for its visuals at start, which loads the graphics driver (and with Mesa, LLVM): some
    // 50 MB and tens of milliseconds for nothing. A value the user set is left alone.
    const bool glSettingIsOurs = g_getenv("GDK_GL") == nullptr;
    if (glSettingIsOurs) {
        g_setenv("GDK_GL", "disable", TRUE);
    }
    auto application = Gtk::Application::create("com.vostrel.Almanor");
    std::unique_ptr<Tray> tray;
    bool launched = false;
    application->signal_startup().connect([&] {
        if (glSettingIsOurs) {
            g_unsetenv("GDK_GL"); // read by now; programs started from here see the user's own
        }
        application->hold(); // a tray has no window to keep it alive
        tray = std::make_unique<Tray>(application, self);
        // `gdbus call ... org.gtk.Actions.Activate sync [] {}` asks for a pull and a push.
        application->add_action("sync", [&] { tray->delegate->syncRequested(); });
        tray->start();
    });
    // The first activation is this start; later ones come from `almanor` started again while this
    // tray runs, and open the window as "Manage Events" does.
    application->signal_activate().connect([&] {
        if (launched) {
            tray->delegate->manageEventsWithSender();
        }
        launched = true;
    });
    // Quitting never waits on the network: a pass under way is cut off, and what the server did
    // not acknowledge stays pending for the next start.
    application->signal_shutdown().connect([&] {
        tray->cloudSync.stop();
        tray.reset();
    });
    // A session that ends sends SIGTERM: leave as "Quit" does.
    for (int signal : {SIGTERM, SIGINT}) {
        g_unix_signal_add(
            signal,
            [](gpointer app) -> gboolean {
                static_cast<Gtk::Application*>(app)->quit();
                return G_SOURCE_CONTINUE;
            },
            application.get());
    }
    // Arguments are the command line's business; the tray takes none.
    (void)argc;
    char* args[] = {argv[0], nullptr};
    return application->run(1, args);
}

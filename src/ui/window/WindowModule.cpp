// The management window as a module loaded by the tray on first use.

#include "ui/window/WindowModule.h"

#include "platform/GlibOwners.h"
#include "platform/Log.h"
#include "ui/window/ManageEventsWindowGtk.h"

#include <glib.h>
#include <gtk/gtk.h>
#include <gtkmm/main.h>
#include <gtkmm/window.h>

namespace almanor {

namespace {

bool startGtk() {
    static const bool started = [] {
        // Neither the window nor anything else here draws with OpenGL, but GTK's X11 backend
        // probes GLX for its visuals at start, which loads the graphics driver (and with Mesa,
        // LLVM): some 50 MB and tens of milliseconds for nothing. A value the user set is left
        // alone.
        const bool glSettingIsOurs = g_getenv("GDK_GL") == nullptr;
        if (glSettingIsOurs) {
            g_setenv("GDK_GL", "disable", TRUE);
        }
        bool ok = gtk_init_check(nullptr, nullptr) != FALSE;
        if (glSettingIsOurs) {
            g_unsetenv("GDK_GL"); // read by now; programs started from here see the user's own
        }
        if (ok) {
            Gtk::Main::init_gtkmm_internals();
        }
        return ok;
    }();
    return started;
}

std::unique_ptr<ManageEventsWindow> makeManageEventsWindow(Repository& repository, Signals& center,
                                                           MainThread& mainThread,
                                                           const Clock& clock) {
    if (!startGtk()) {
        Log::error("Failed to open the window: cannot open display");
        return nullptr;
    }
    return std::make_unique<ManageEventsWindowGtk>(repository, center, mainThread, clock);
}

// The application's own windows: not its dialogs (they follow their window) nor tooltips.
void presentWindows() {
    glib::Owner<GList, g_list_free> windows(gtk_window_list_toplevels());
    for (GList* w = windows.get(); w != nullptr; w = w->next) {
        auto* window = GTK_WINDOW(w->data);
        if (gtk_window_get_window_type(window) == GTK_WINDOW_TOPLEVEL &&
            gtk_window_get_transient_for(window) == nullptr &&
            gtk_widget_get_visible(GTK_WIDGET(window))) {
            gtk_window_present(window);
        }
    }
}

constexpr WindowModule table{WindowModule::currentVersion, &makeManageEventsWindow,
                             &presentWindows};

} // namespace

} // namespace almanor

extern "C" __attribute__((visibility("default"))) const almanor::WindowModule*
almanor_window_module() {
    return &almanor::table;
}

#include "ui/tray/GlibServices.h"

#include <gio/gio.h>

namespace almanor {

GlibMainThread::GlibMainThread() : owner_(std::this_thread::get_id()) {}

bool GlibMainThread::isCurrent() const {
    return std::this_thread::get_id() == owner_;
}

// An idle source rather than g_main_context_invoke(), which runs the work at once on a thread that
// owns or can take the context: posts must wait for the loop, in order, whoever posts them.
void GlibMainThread::post(Work work) {
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
            (*static_cast<Work*>(data))();
            return G_SOURCE_REMOVE;
        },
        new Work(std::move(work)), [](gpointer data) { delete static_cast<Work*>(data); });
    g_source_attach(source, nullptr);
    g_source_unref(source);
}

GlibScheduler::~GlibScheduler() {
    if (source_ != 0) {
        g_source_remove(source_);
    }
}

void GlibScheduler::scheduleRepeating(double intervalSeconds, double,
                                      std::function<void()> action) {
    action_ = std::move(action);
    source_ = g_timeout_add_seconds(
        static_cast<guint>(intervalSeconds),
        [](gpointer data) -> gboolean {
            static_cast<GlibScheduler*>(data)->action_();
            return G_SOURCE_CONTINUE;
        },
        this);
}

FileWatch::FileWatch(const std::filesystem::path& file, std::function<void()> changed)
    : changed_(std::move(changed)) {
    glib::Object<GFile> f(g_file_new_for_path(file.c_str()));
    // WATCH_MOVES: an atomic replace (write aside, rename over) arrives as one event.
    monitor_.reset(g_file_monitor_file(f.get(), G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr));
    if (!monitor_) {
        return;
    }
    g_file_monitor_set_rate_limit(monitor_.get(), 200);
    g_signal_connect(
        monitor_.get(), "changed",
        G_CALLBACK(+[](GFileMonitor*, GFile*, GFile*, GFileMonitorEvent event, gpointer data) {
            switch (event) {
            case G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT:
            case G_FILE_MONITOR_EVENT_CREATED:
            case G_FILE_MONITOR_EVENT_DELETED:
            case G_FILE_MONITOR_EVENT_RENAMED:
            case G_FILE_MONITOR_EVENT_MOVED_IN:
            case G_FILE_MONITOR_EVENT_CHANGED:
                static_cast<FileWatch*>(data)->changed_();
                break;
            default:
                break;
            }
        }),
        this);
}

FileWatch::~FileWatch() {
    if (monitor_) {
        g_file_monitor_cancel(monitor_.get());
        g_signal_handlers_disconnect_by_data(monitor_.get(), this);
    }
}

WakeWatch::WakeWatch(std::function<void()> woke) : woke_(std::move(woke)) {
    bus_.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (!bus_) {
        return;
    }
    subscription_ = g_dbus_connection_signal_subscribe(
        bus_.get(), "org.freedesktop.login1", "org.freedesktop.login1.Manager", "PrepareForSleep",
        "/org/freedesktop/login1", nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
           GVariant* parameters, gpointer data) {
            gboolean sleeping = TRUE;
            if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(b)"))) {
                g_variant_get(parameters, "(b)", &sleeping);
            }
            if (!sleeping) {
                static_cast<WakeWatch*>(data)->woke_();
            }
        },
        this, nullptr);
}

WakeWatch::~WakeWatch() {
    if (bus_ && subscription_ != 0) {
        g_dbus_connection_signal_unsubscribe(bus_.get(), subscription_);
    }
}

} // namespace almanor

#include "ui/tray/NetworkMonitor.h"

#include <gio/gio.h>

namespace almanor {

namespace {

void onNetworkChanged(GNetworkMonitor*, gboolean available, gpointer self) {
    static_cast<NetworkMonitor*>(self)->networkChanged(available != FALSE);
}

} // namespace

NetworkMonitor::NetworkMonitor(Callback onAvailable) : onAvailable_(std::move(onAvailable)) {
    // The default monitor is GIO's; this holds a reference of its own.
    monitor_ = glib::ref(g_network_monitor_get_default());
    handler_ =
        g_signal_connect(monitor_.get(), "network-changed", G_CALLBACK(onNetworkChanged), this);
}

NetworkMonitor::~NetworkMonitor() {
    g_signal_handler_disconnect(monitor_.get(), handler_);
}

void NetworkMonitor::networkChanged(bool available) {
    if (available && onAvailable_)
        onAvailable_();
}

} // namespace almanor

#include "platform/NetworkMonitor.h"

#include <gio/gio.h>

namespace almanor {

namespace {

void onNetworkChanged(GNetworkMonitor*, gboolean available, gpointer self) {
    static_cast<NetworkMonitor*>(self)->networkChanged(available != FALSE);
}

} // namespace

NetworkMonitor::NetworkMonitor(Callback onAvailable) : onAvailable_(std::move(onAvailable)) {
    GNetworkMonitor* monitor = g_network_monitor_get_default(); // owned by GIO, not us
    monitor_ = g_object_ref(monitor);
    handler_ = g_signal_connect(monitor, "network-changed", G_CALLBACK(onNetworkChanged), this);
}

NetworkMonitor::~NetworkMonitor() {
    g_signal_handler_disconnect(monitor_, handler_);
    g_object_unref(monitor_);
}

void NetworkMonitor::networkChanged(bool available) {
    if (available && onAvailable_)
        onAvailable_();
}

} // namespace almanor

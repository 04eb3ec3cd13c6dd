#pragma once

#include "platform/GlibOwners.h"

#include <functional>

// NOLINTNEXTLINE(bugprone-reserved-identifier): GLib's own struct name, as its headers declare it.
typedef struct _GNetworkMonitor GNetworkMonitor;

namespace almanor {

// Tells when the network is (back) up, from the system's network monitor. Signals arrive on the
// main context of the thread that created it (the tray's main loop).
class NetworkMonitor {
  public:
    using Callback = std::function<void()>;

    explicit NetworkMonitor(Callback onAvailable);
    ~NetworkMonitor();
    NetworkMonitor(const NetworkMonitor&) = delete;
    NetworkMonitor& operator=(const NetworkMonitor&) = delete;

    // What the monitor calls on every change; public so that tests can drive it. The callback
    // runs on every change that leaves the network available: a change while up (another
    // interface, a new route) may be what makes the server reachable again.
    void networkChanged(bool available);

  private:
    Callback onAvailable_;
    glib::Object<GNetworkMonitor> monitor_;
    unsigned long handler_ = 0;
};

} // namespace almanor

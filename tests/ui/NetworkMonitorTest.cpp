#include "ui/tray/NetworkMonitor.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

namespace almanor {
namespace {

// The system's monitor itself emits the signal here, so the connection is what is tested.
TEST(NetworkMonitor, CallsBackOnlyWhileConnectedAndOnlyWhileItLives) {
    GNetworkMonitor* system = g_network_monitor_get_default();
    int calls = 0;
    {
        NetworkMonitor monitor([&] { ++calls; });
        g_signal_emit_by_name(system, "network-changed", FALSE);
        EXPECT_EQ(calls, 0);
        g_signal_emit_by_name(system, "network-changed", TRUE);
        g_signal_emit_by_name(system, "network-changed", TRUE);
        EXPECT_EQ(calls, 2);
        NetworkMonitor second([&] { calls += 10; });
        g_signal_emit_by_name(system, "network-changed", TRUE);
        EXPECT_EQ(calls, 13);
    }
    g_signal_emit_by_name(system, "network-changed", TRUE); // both gone: nothing may run
    EXPECT_EQ(calls, 13);
}

} // namespace
} // namespace almanor

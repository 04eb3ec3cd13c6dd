#include "ui/tray/CountIcons.h"
#include "ui/tray/GlibServices.h"
#include "ui/tray/NetworkMonitor.h"

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <thread>

using namespace almanor;

namespace {

using Pixel = std::array<int, 4>; // A, R, G, B

Pixel at(const std::vector<std::uint8_t>& pixels, int size, int x, int y) {
    auto i = std::size_t(y * size + x) * 4;
    return {pixels[i], pixels[i + 1], pixels[i + 2], pixels[i + 3]};
}

std::pair<int, int> textColumns(const std::vector<std::uint8_t>& pixels, int size) {
    std::pair<int, int> span{size, -1};
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x)
            if (at(pixels, size, x, y) == Pixel{255, 255, 255, 255})
                span = {std::min(span.first, x), std::max(span.second, x)};
    return span;
}

TEST(CountIconTest, ArgbInNetworkOrderOnARoundedSquareWithTheTextCentred) {
    for (int size : countIcon::sizes) {
        auto seven = countIcon::pixels("7", size);
        ASSERT_EQ(seven.size(), std::size_t(size * size * 4));
        EXPECT_EQ(at(seven, size, 0, 0)[0], 0) << size; // the corner is rounded off
        EXPECT_EQ(at(seven, size, 1, size / 2), (Pixel{255, 0xe0, 0x1b, 0x24})) << size;
        auto [first, last] = textColumns(seven, size);
        EXPECT_LE(std::abs(first - (size - 1 - last)), 1) << size;
        EXPECT_NE(countIcon::pixels("12", size), countIcon::pixels("21", size));
        EXPECT_NE(countIcon::pixels("!", size), countIcon::pixels("1", size));
    }
    // Long numbers shrink to fit; what cannot be drawn is left out, not drawn as something else.
    EXPECT_GT(textColumns(countIcon::pixels("-10000", 48), 48).second, 40);
    EXPECT_EQ(countIcon::pixels("x", 22), countIcon::pixels(" ", 22));
}

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

// Nothing runs the loop here, so whoever posts could take the context and run the work at once.
TEST(GlibMainThread, PostsWaitForTheLoopAndRunInOrder) {
    GlibMainThread main;
    std::string ran;
    std::thread([&] { main.post([&] { ran += "a"; }); }).join();
    main.post([&] { ran += "b"; });
    EXPECT_EQ(ran, "");
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    EXPECT_EQ(ran, "ab");
}

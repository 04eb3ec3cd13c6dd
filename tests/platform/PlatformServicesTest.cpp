#include "platform/Paths.h"
#include "platform/Signals.h"
#include "platform/Uuid.h"

#include <gtest/gtest.h>
#include <thread>
#include <unordered_set>

using namespace almanor;

TEST(Uuid, TextFormIsUpperCaseAndParsingIsStrict) {
    auto u = Uuid::parse("c72773f5-d96e-478b-92fe-5bb5ddd62102");
    ASSERT_TRUE(u);
    EXPECT_EQ(u->uuidString(), "C72773F5-D96E-478B-92FE-5BB5DDD62102");
    EXPECT_EQ(Uuid::parse(u->uuidString()), u);
    for (const char* bad :
         {"", "c72773f5d96e478b92fe5bb5ddd62102", "c72773f5-d96e-478b-92fe-5bb5ddd6210",
          "c72773f5-d96e-478b-92fe-5bb5ddd621020", "g72773f5-d96e-478b-92fe-5bb5ddd62102",
          " c72773f5-d96e-478b-92fe-5bb5ddd6210"}) {
        EXPECT_FALSE(Uuid::parse(bad)) << bad;
    }
    EXPECT_EQ(Uuid().uuidString(), "00000000-0000-0000-0000-000000000000");
    std::unordered_set<Uuid> seen;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(seen.insert(Uuid::random()).second);
    }
}

TEST(Signals, DeliversSynchronouslyOnThePostingThreadToMatchingObservers) {
    Signals center;
    std::vector<std::string> calls;
    std::thread::id deliveredOn;
    center.connect("a", [&] {
        calls.push_back("first");
        deliveredOn = std::this_thread::get_id();
    });
    auto second = center.connect("a", [&] { calls.push_back("second"); });
    center.connect("b", [&] { calls.push_back("other"); });
    std::thread poster([&] { center.emit("a"); });
    poster.join();
    EXPECT_EQ(calls, (std::vector<std::string>{"first", "second"}));
    EXPECT_NE(deliveredOn, std::this_thread::get_id());
    center.disconnect(second);
    calls.clear();
    center.emit("a");
    EXPECT_EQ(calls, (std::vector<std::string>{"first"}));
}

TEST(Signals, ObserversMayChangeTheCenterWhileBeingCalled) {
    Signals center;
    int calls = 0;
    Signals::Token self = 0;
    self = center.connect("n", [&] {
        ++calls;
        center.disconnect(self);
        center.connect("n", [&] { ++calls; });
    });
    center.emit("n");
    EXPECT_EQ(calls, 1);
    center.emit("n");
    EXPECT_EQ(calls, 2);
}

TEST(Paths, FollowTheXdgVariablesAndIgnoreRelativeOnes) {
    setenv("HOME", "/home/someone", 1);
    setenv("XDG_DATA_HOME", "/data", 1);
    setenv("XDG_CONFIG_HOME", "relative/config", 1);
    EXPECT_EQ(paths::databaseDirectory(), "/data/Almanor");
    EXPECT_EQ(paths::settingsFile(), "/home/someone/.config/Almanor/settings.ini");
    unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(paths::databaseDirectory(), "/home/someone/.local/share/Almanor");
}

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
    for (const char* bad :
         {"c72773f5d96e478b92fe5bb5ddd62102", "c72773f5-d96e-478b-92fe-5bb5ddd6210",
          "g72773f5-d96e-478b-92fe-5bb5ddd62102", " c72773f5-d96e-478b-92fe-5bb5ddd6210"}) {
        EXPECT_FALSE(Uuid::parse(bad)) << bad;
    }
    std::unordered_set<Uuid> seen;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(seen.insert(Uuid::random()).second);
    }
}

// On the posting thread, to matching observers; an observer may change the list while called.
TEST(Signals, DeliversOnThePostingThreadToTheObserversOfTheMoment) {
    Signals center;
    std::vector<std::string> calls;
    std::thread::id deliveredOn;
    Signals::Token self = 0;
    self = center.connect("a", [&] {
        calls.push_back("first");
        deliveredOn = std::this_thread::get_id();
        center.disconnect(self);
        center.connect("a", [&] { calls.push_back("added"); });
    });
    center.connect("a", [&] { calls.push_back("second"); });
    center.connect("b", [&] { calls.push_back("other"); });
    std::thread([&] { center.emit("a"); }).join();
    EXPECT_NE(deliveredOn, std::this_thread::get_id());
    center.emit("a");
    EXPECT_EQ(calls, (std::vector<std::string>{"first", "second", "second", "added"}));
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

#include "ui/tray/CountIcons.h"

#include "TempDir.h"
#include "ui/tray/DbusMenuPresenter.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>

using namespace almanor;

namespace {

std::string read(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string drawnText(const std::string& svg) {
    auto start = svg.find('>', svg.find("<text")) + 1;
    return svg.substr(start, svg.find("</text>") - start);
}

int fontSize(const std::string& svg) {
    auto at = svg.find("font-size=\"") + 11;
    return std::stoi(svg.substr(at));
}

TEST(CountIconsTest, EachTextGetsItsOwnNameAndFolderAndIsWrittenOnce) {
    test::TempDir dir;
    auto folder = dir.path() / "icons";
    std::filesystem::create_directories(folder / "left-over");
    CountIcons icons(folder);
    EXPECT_FALSE(std::filesystem::exists(folder / "left-over")); // an earlier run's

    auto twelve = icons.iconFor("12");
    auto file = twelve.themePath / "hicolor/scalable/apps" / (twelve.name + ".svg");
    ASSERT_TRUE(std::filesystem::exists(file));
    EXPECT_EQ(drawnText(read(file)), "12");
    struct stat first {};
    ASSERT_EQ(::stat(file.c_str(), &first), 0);

    // Panels cache by folder and by name: a new number never reuses either.
    auto seven = icons.iconFor("7");
    EXPECT_NE(seven.name, twelve.name);
    EXPECT_NE(seven.themePath, twelve.themePath);
    auto today = icons.iconFor("!");
    auto past = icons.iconFor("-7");
    EXPECT_NE(past.name, seven.name);
    for (const auto& icon : {today, past}) {
        EXPECT_EQ(icon.name.find('/'), std::string::npos);
        EXPECT_EQ(icon.name.find('!'), std::string::npos);
        EXPECT_EQ(icon.themePath.parent_path(), folder);
    }
    EXPECT_EQ(drawnText(read(today.themePath / "hicolor/scalable/apps" / (today.name + ".svg"))),
              "!");

    // The same number again is the same file, untouched: a panel may be reading it.
    auto again = icons.iconFor("12");
    EXPECT_EQ(again.name, twelve.name);
    EXPECT_EQ(again.themePath, twelve.themePath);
    struct stat second {};
    ASSERT_EQ(::stat(file.c_str(), &second), 0);
    EXPECT_EQ(first.st_ino, second.st_ino);
    EXPECT_EQ(first.st_mtim.tv_nsec, second.st_mtim.tv_nsec);
}

TEST(CountIconsTest, TheFolderGoesWithTheTray) {
    test::TempDir dir;
    auto folder = dir.path() / "icons";
    {
        CountIcons icons(folder);
        icons.iconFor("3");
        EXPECT_TRUE(std::filesystem::exists(folder));
    }
    EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST(CountIconsTest, AnIconThatCannotBeWrittenIsAnErrorNotAHalfIcon) {
    test::TempDir dir;
    auto folder = dir.path() / "icons";
    CountIcons icons(folder);
    auto one = icons.iconFor("1");
    // Something in the way of the folder that "2" needs (root ignores permissions; this not).
    std::ofstream(one.themePath.parent_path() / "2") << "in the way";
    EXPECT_THROW(icons.iconFor("2"), std::filesystem::filesystem_error);
    EXPECT_NO_THROW(icons.iconFor("1")); // written before: still there
    std::filesystem::remove(one.themePath.parent_path() / "2");
    auto two = icons.iconFor("2");
    auto apps = two.themePath / "hicolor/scalable/apps";
    EXPECT_EQ(drawnText(read(apps / (two.name + ".svg"))), "2");
    for (const auto& entry : std::filesystem::directory_iterator(apps)) {
        EXPECT_EQ(entry.path().extension(), ".svg") << entry.path(); // no temporary left
    }
}

TEST(CountIconsTest, LongerNumbersAreDrawnSmallerAndTextIsEscaped) {
    EXPECT_GE(fontSize(CountIcons::svg("7")), fontSize(CountIcons::svg("12")));
    EXPECT_GT(fontSize(CountIcons::svg("12")), fontSize(CountIcons::svg("365")));
    EXPECT_GT(fontSize(CountIcons::svg("365")), fontSize(CountIcons::svg("-1234")));
    // Bold digits are about 0.6 em wide: even six of them stay inside the 64-unit square.
    EXPECT_LE(6 * 0.6 * fontSize(CountIcons::svg("-10000")), 60.0);
    EXPECT_EQ(drawnText(CountIcons::svg("<&>")), "&lt;&amp;&gt;");
}

TEST(DbusMenuLabelTest, UnderscoresAreShownNotTakenForMnemonics) {
    EXPECT_EQ(DbusMenuPresenter::label("my_gym - Mon"), "my__gym - Mon");
    EXPECT_EQ(DbusMenuPresenter::label("__init__"), "____init____");
    EXPECT_EQ(DbusMenuPresenter::label("Trip - Jan 5, 2031"), "Trip - Jan 5, 2031");
}

} // namespace

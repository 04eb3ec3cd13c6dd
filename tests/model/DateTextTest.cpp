#include "dates/DateText.h"

#include "Instants.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace almanor {
namespace {

using test::utc;

TEST(DateTextTest, MenuDatesAndOrdinalsFollowTheZoneAndTheLanguage) {
    DateText en("en_US", "America/New_York");
    // 5 Jan 2031 04:00 UTC is still the 4th in New York; the one formatter keeps no pattern.
    EXPECT_EQ(en.format(utc(2031, 1, 5, 4), "MMM d, yyyy"), "Jan 4, 2031");
    EXPECT_EQ(en.format(utc(2031, 1, 6, 12), "E"), "Mon");
    EXPECT_EQ(en.format(utc(2031, 1, 6, 12), "MMM d, yyyy"), "Jan 6, 2031");
    EXPECT_EQ(en.format(utc(2031, 3, 5, 12), ""), "");
    EXPECT_EQ(en.dayOfMonth(utc(2031, 3, 1, 3)), 28);
    std::string ordinals;
    for (int n : {1, 2, 3, 11, 12, 13, 21, 22, 31}) {
        ordinals += en.ordinal(n) + " ";
    }
    EXPECT_EQ(ordinals, "1st 2nd 3rd 11th 12th 13th 21st 22nd 31st ");
    DateText de("de_DE", "UTC");
    EXPECT_EQ(de.ordinal(22), "22.");
    EXPECT_EQ(de.format(utc(2031, 3, 5, 12), "MMM "), "März ");
}

TEST(DateTextTest, TypedDatesAreWholeDatesOrNothing) {
    DateText en("en_US", "Europe/Berlin");
    DateText de("de_DE", "Europe/Berlin");
    int y = 0, m = 0, d = 0;
    auto parsed = [&](const DateText& text, const char* typed) {
        return text.parseDay(typed, y, m, d)
                   ? std::to_string(y) + "-" + std::to_string(m) + "-" + std::to_string(d)
                   : "refused";
    };
    EXPECT_EQ(parsed(en, " 2032-02-29 "), "2032-2-29");
    EXPECT_EQ(en.shortDate(utc(2031, 7, 4, 12)), "7/4/31");
    EXPECT_EQ(parsed(en, "7/4/31"), "2031-7-4");
    EXPECT_EQ(parsed(de, de.shortDate(utc(2031, 12, 24, 12)).c_str()), "2031-12-24");
    for (const char* bad : {"2031-02-29", "2031-13-01", "2031-00-10", "2031-01-01x", "", "tomorrow",
                            "1/5/31 and more"}) {
        EXPECT_EQ(parsed(en, bad), "refused") << bad;
    }
    EXPECT_EQ(parsed(de, "31.02.31"), "refused");
}

TEST(DateTextTest, UserLocaleFollowsThePosixPrecedence) {
    ::setenv("LC_ALL", "", 1);
    ::setenv("LC_TIME", "de_DE.UTF-8@euro", 1);
    ::setenv("LANG", "fr_FR.UTF-8", 1);
    EXPECT_EQ(DateText::userLocale(), "de_DE");
    ::setenv("LC_ALL", "C", 1);
    EXPECT_EQ(DateText::userLocale(), "en_US_POSIX");
    ::unsetenv("LC_ALL");
    ::unsetenv("LC_TIME");
    EXPECT_EQ(DateText::userLocale(), "fr_FR");
    ::unsetenv("LANG");
    EXPECT_EQ(DateText::userLocale(), "en_US_POSIX");
}

} // namespace
} // namespace almanor

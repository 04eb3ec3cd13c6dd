#include "dates/DateText.h"

#include "Instants.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace almanor {
namespace {

using test::utc;

TEST(DateTextTest, MenuPatternsInEnglish) {
    DateText text("en_US", "America/New_York");
    // 5 Jan 2031 04:00 UTC is still the 4th in New York: the zone decides the day.
    EXPECT_EQ(text.format(utc(2031, 1, 5, 4), "MMM d, yyyy"), "Jan 4, 2031");
    EXPECT_EQ(text.format(utc(2031, 1, 5, 12), "MMM d, yyyy"), "Jan 5, 2031");
    EXPECT_EQ(text.format(utc(2031, 1, 6, 12), "E"), "Mon");
    EXPECT_EQ(text.format(utc(2031, 3, 5, 12), "MMM "), "Mar ");
    EXPECT_EQ(text.format(utc(2031, 3, 5, 12), ""), "");
    EXPECT_EQ(text.dayOfMonth(utc(2031, 3, 1, 3)), 28); // still February in New York
    // The formatter is shared: a pattern never leaks into the next call.
    EXPECT_EQ(text.format(utc(2031, 1, 6, 12), "E"), "Mon");
    EXPECT_EQ(text.format(utc(2031, 1, 6, 12), "MMM d, yyyy"), "Jan 6, 2031");
}

TEST(DateTextTest, OrdinalsFollowTheLanguageNotASuffixTable) {
    DateText en("en_US", "UTC");
    EXPECT_EQ(en.ordinal(1), "1st");
    EXPECT_EQ(en.ordinal(2), "2nd");
    EXPECT_EQ(en.ordinal(3), "3rd");
    EXPECT_EQ(en.ordinal(11), "11th");
    EXPECT_EQ(en.ordinal(12), "12th");
    EXPECT_EQ(en.ordinal(13), "13th");
    EXPECT_EQ(en.ordinal(21), "21st");
    EXPECT_EQ(en.ordinal(22), "22nd");
    EXPECT_EQ(en.ordinal(31), "31st");
    DateText de("de_DE", "UTC");
    EXPECT_EQ(de.ordinal(22), "22.");
    EXPECT_EQ(de.format(utc(2031, 3, 5, 12), "MMM "), "März ");
}

TEST(DateTextTest, TypedDatesAreWholeDatesOrNothing) {
    DateText text("en_US", "Europe/Berlin");
    int y = 0, m = 0, d = 0;
    ASSERT_TRUE(text.parseDay("2031-02-28", y, m, d));
    EXPECT_EQ(std::tie(y, m, d), std::make_tuple(2031, 2, 28));
    ASSERT_TRUE(text.parseDay(" 2032-02-29 ", y, m, d));
    EXPECT_EQ(std::tie(y, m, d), std::make_tuple(2032, 2, 29));
    EXPECT_FALSE(text.parseDay("2031-02-29", y, m, d)); // not a leap year
    EXPECT_FALSE(text.parseDay("2031-13-01", y, m, d));
    EXPECT_FALSE(text.parseDay("2031-00-10", y, m, d));
    EXPECT_FALSE(text.parseDay("2031-01-01x", y, m, d));
    EXPECT_FALSE(text.parseDay("", y, m, d));
    EXPECT_FALSE(text.parseDay("tomorrow", y, m, d));
    EXPECT_FALSE(text.parseDay("1/5/31 and more", y, m, d));
    // The locale's short form reads back what it writes.
    std::string shown = text.shortDate(utc(2031, 7, 4, 12));
    EXPECT_EQ(shown, "7/4/31");
    ASSERT_TRUE(text.parseDay(shown, y, m, d));
    EXPECT_EQ(std::tie(y, m, d), std::make_tuple(2031, 7, 4));

    DateText de("de_DE", "Europe/Berlin");
    ASSERT_TRUE(de.parseDay(de.shortDate(utc(2031, 12, 24, 12)), y, m, d));
    EXPECT_EQ(std::tie(y, m, d), std::make_tuple(2031, 12, 24));
    EXPECT_FALSE(de.parseDay("31.02.31", y, m, d));
}

TEST(DateTextTest, UserLocaleFollowsThePosixPrecedence) {
    struct Saved {
        const char* name;
        std::string value;
        bool set;
    };
    std::vector<Saved> saved;
    for (const char* n : {"LC_ALL", "LC_TIME", "LANG"}) {
        const char* v = std::getenv(n);
        saved.push_back({n, v ? v : "", v != nullptr});
    }
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
    for (const auto& s : saved) {
        if (s.set) {
            ::setenv(s.name, s.value.c_str(), 1);
        } else {
            ::unsetenv(s.name);
        }
    }
}

} // namespace
} // namespace almanor

#include "storage/sql/Date.h"

#include "StorageTesting.h"
#include "storage/sql/Error.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>

using namespace almanor;
using namespace std::chrono;
using almanor::test::at;

TEST(Date, FormatsUtcWithFixedWidthFields) {
    // The zone of the process must not leak in.
    const char* old = std::getenv("TZ");
    std::string saved = old != nullptr ? old : "";
    setenv("TZ", "Asia/Tokyo", 1);
    tzset();

    auto microseconds = sys_days{2024y / March / 5} + 10h + 20min + 30s + 123456us;
    EXPECT_EQ(sql::formatDate(floor<milliseconds>(microseconds)), "2024-03-05T10:20:30.123");
    EXPECT_EQ(sql::formatDate(at(2024y / February / 29, 23h + 59min + 59s + 999ms)),
              "2024-02-29T23:59:59.999");
    // Before 1970 the day must be floored, not truncated towards the epoch.
    EXPECT_EQ(sql::formatDate(Instant{} - 1ms), "1969-12-31T23:59:59.999");
    EXPECT_EQ(sql::formatDate(at(1899y / December / 31, 12h)), "1899-12-31T12:00:00.000");
    EXPECT_EQ(sql::formatDate(at(year{5} / January / 2, 3h + 4min + 5s + 6ms)),
              "0005-01-02T03:04:05.006");
    EXPECT_EQ(sql::formatDate(at(year{12345} / June / 7)), "12345-06-07T00:00:00.000");

    if (old != nullptr) {
        setenv("TZ", saved.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

TEST(Date, ParsesWhatItFormatsAndAcceptsAMissingFraction) {
    for (Instant t : {Instant{}, Instant{} - 1ms, at(2024y / February / 29, 13h + 1ms),
                      at(year{0} / January / 1), at(year::max() / December / 31, 24h - 1ms),
                      at(1583y / October / 15, 7h)}) {
        EXPECT_EQ(sql::parseDate(sql::formatDate(t)), t) << sql::formatDate(t);
    }
    EXPECT_EQ(sql::parseDate("2024-03-05T10:20:30"), at(2024y / March / 5, 10h + 20min + 30s));
    EXPECT_EQ(sql::parseDate("12345-06-07T00:00:00.000"), at(year{12345} / June / 7));
}

TEST(Date, ParseRejectsEverythingElse) {
    for (const char* text : {
             "",
             "2024-03-05",
             "2023-02-29T00:00:00.000", // not a leap year
             "2024-04-31T00:00:00.000",
             "2024-13-01T00:00:00.000",
             "2024-00-10T00:00:00.000",
             "2024-03-05T24:00:00.000",
             "2024-03-05T23:59:60.000",
             "2024-03-05 10:20:30.123",
             "2024-03-05T10:20:30.123Z",
             "2024-03-05T10:20:30.12",
             "2024-03-05T10:20:30.1234",
             "2024-3-05T10:20:30.123",
             "024-03-05T10:20:30.123",
             "123456-03-05T10:20:30.123",
             "-2024-03-05T10:20:30.123",
             " 2024-03-05T10:20:30.123",
             "2024-03-05T10:2a:30.123",
             "40000-01-01T00:00:00.000", // beyond the civil calendar's years
         }) {
        EXPECT_EQ(sql::parseDate(text), std::nullopt) << text;
    }
}

TEST(Date, FormatRefusesYearsItCouldNotReadBack) {
    EXPECT_THROW(sql::formatDate(at(year{-1} / December / 31, 23h)), sql::Error);
    EXPECT_THROW(sql::formatDate(Instant{milliseconds::max()}), sql::Error);
    EXPECT_THROW(sql::formatDate(Instant{milliseconds::min()}), sql::Error);
}

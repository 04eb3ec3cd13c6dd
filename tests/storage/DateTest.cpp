#include "storage/sql/Date.h"

#include "StorageTesting.h"
#include "storage/sql/Error.h"

#include <gtest/gtest.h>

using namespace almanor;
using namespace std::chrono;
using almanor::test::at;

// In UTC whatever the process's zone, fixed-width, the day floored before 1970; read back.
TEST(Date, FormatsAndReadsBackUtcWithFixedWidthFields) {
    setenv("TZ", "Asia/Tokyo", 1);
    tzset();
    const std::pair<Instant, const char*> cases[] = {
        {at(2024y / February / 29, 23h + 59min + 59s + 999ms), "2024-02-29T23:59:59.999"},
        {Instant{} - 1ms, "1969-12-31T23:59:59.999"},
        {at(year{5} / January / 2, 3h + 4min + 5s + 6ms), "0005-01-02T03:04:05.006"},
        {at(year{12345} / June / 7), "12345-06-07T00:00:00.000"},
        {at(year{0} / January / 1), "0000-01-01T00:00:00.000"},
        {at(year::max() / December / 31, 24h - 1ms), "32767-12-31T23:59:59.999"},
    };
    for (auto [instant, text] : cases) {
        EXPECT_EQ(sql::formatDate(instant), text);
        EXPECT_EQ(sql::parseDate(text), instant);
    }
    unsetenv("TZ");
    tzset();
    EXPECT_EQ(sql::parseDate("2024-03-05T10:20:30"), at(2024y / March / 5, 10h + 20min + 30s));
    EXPECT_THROW(sql::formatDate(at(year{-1} / December / 31, 23h)), sql::Error);
    EXPECT_THROW(sql::formatDate(Instant{milliseconds::max()}), sql::Error);
}

TEST(Date, ParseRejectsEverythingElse) {
    for (const char* text : {"",
                             "2024-03-05",
                             "2023-02-29T00:00:00.000",
                             "2024-04-31T00:00:00.000",
                             "2024-13-01T00:00:00.000",
                             "2024-00-10T00:00:00.000",
                             "2024-03-05T24:00:00.000",
                             "2024-03-05T23:60:00.000",
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
                             "40000-01-01T00:00:00.000"}) {
        EXPECT_EQ(sql::parseDate(text), std::nullopt) << text;
    }
}

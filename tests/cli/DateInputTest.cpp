#include "cli/DateInput.h"

#include "Instants.h"
#include "model/CivilCalendar.h"

#include <gtest/gtest.h>

using namespace almanor;
using namespace std::chrono;
using almanor::test::utc;

namespace {

TEST(DateInput, LocalFormsAreWallTimesInTheZone) {
    auto ny = CivilCalendar::forZone("America/New_York");
    EXPECT_EQ(cli::parseDateInput("2024-12-25", *ny), utc(2024, 12, 25, 5));
    EXPECT_EQ(cli::parseDateInput("2024-07-04T09:30", *ny), utc(2024, 7, 4, 13, 30));
    EXPECT_EQ(cli::parseDateInput("2024-07-04T09:30:15", *ny), utc(2024, 7, 4, 13, 30, 15));
    EXPECT_EQ(cli::parseDateInput("2024-07-04T09:30:15.5", *ny), utc(2024, 7, 4, 13, 30, 15, 500));
    EXPECT_EQ(cli::parseDateInput("2024-07-04T09:30:15.123", *ny),
              utc(2024, 7, 4, 13, 30, 15, 123));
    // Skipped hour moves past the gap; repeated hour takes its later occurrence.
    EXPECT_EQ(cli::parseDateInput("2024-03-10T02:30", *ny), utc(2024, 3, 10, 7, 30));
    EXPECT_EQ(cli::parseDateInput("2024-11-03T01:30", *ny), utc(2024, 11, 3, 6, 30));
    EXPECT_EQ(cli::parseDateInput("2024-02-29", *ny), utc(2024, 2, 29, 5));
}

TEST(DateInput, ZoneSuffixesOverrideTheLocalZone) {
    auto tokyo = CivilCalendar::forZone("Asia/Tokyo");
    EXPECT_EQ(cli::parseDateInput("2024-12-25Z", *tokyo), utc(2024, 12, 25));
    EXPECT_EQ(cli::parseDateInput("2024-12-25T10:00Z", *tokyo), utc(2024, 12, 25, 10));
    EXPECT_EQ(cli::parseDateInput("2024-12-25T10:00+05:30", *tokyo), utc(2024, 12, 25, 4, 30));
    EXPECT_EQ(cli::parseDateInput("2024-12-25T22:00-03:00", *tokyo), utc(2024, 12, 26, 1));
}

TEST(DateInput, EverythingElseIsRefused) {
    auto cal = CivilCalendar::forZone("UTC");
    for (const char* bad : {"",
                            "2024",
                            "2024-1-05",
                            "2024-13-01",
                            "2023-02-29",
                            "2024-04-31",
                            "24-12-25",
                            "2024-12-25T",
                            "2024-12-25T24:00",
                            "2024-12-25T10:60",
                            "2024-12-25T10:00:60",
                            "2024-12-25T10:00:00.",
                            "2024-12-25T10:00:00.1234",
                            "2024-12-25 10:00",
                            "2024-12-25T10:00+5:30",
                            "2024-12-25T10:00+05:30x",
                            "2024-12-25X",
                            "1582-10-15",
                            "tomorrow",
                            "2024-12-25T10:00+19:00"}) {
        EXPECT_FALSE(cli::parseDateInput(bad, *cal)) << bad;
    }
}

} // namespace

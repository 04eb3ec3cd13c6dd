#include "Instants.h"
#include "cli/DateInput.h"
#include "cli/TextEscapes.h"
#include "model/CivilCalendar.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace almanor;
using almanor::test::utc;

namespace {

// Wall times in New York (a skipped hour moves past the gap, a repeated one
// takes its later occurrence) unless a suffix names the offset.
TEST(DateInput, LocalWallTimesUnlessAnOffsetIsGiven) {
    auto ny = CivilCalendar::forZone("America/New_York");
    const std::pair<const char*, Instant> cases[] = {
        {"2024-02-29", utc(2024, 2, 29, 5)},
        {"2024-07-04T09:30", utc(2024, 7, 4, 13, 30)},
        {"2024-07-04T09:30:15.5", utc(2024, 7, 4, 13, 30, 15, 500)},
        {"2024-07-04T09:30:15.123", utc(2024, 7, 4, 13, 30, 15, 123)},
        {"2024-03-10T02:30", utc(2024, 3, 10, 7, 30)},
        {"2024-11-03T01:30", utc(2024, 11, 3, 6, 30)},
        {"2024-12-25Z", utc(2024, 12, 25)},
        {"2024-12-25T10:00+05:30", utc(2024, 12, 25, 4, 30)},
        {"2024-12-25T22:00-03:00", utc(2024, 12, 26, 1)},
    };
    for (auto [text, instant] : cases) {
        EXPECT_EQ(cli::parseDateInput(text, *ny), instant) << text;
    }
    for (const char* bad : {"", "2024", "2024-1-05", "2024-13-01", "2023-02-29", "2024-04-31",
                            "24-12-25", "2024-12-25T", "2024-12-25T24:00", "2024-12-25T10:60",
                            "2024-12-25T10:00:60", "2024-12-25T10:00:00.",
                            "2024-12-25T10:00:00.1234", "2024-12-25 10:00", "2024-12-25T10:00+5:30",
                            "2024-12-25T10:00+05:30x", "1582-10-15", "2024-12-25T10:00+19:00"}) {
        EXPECT_FALSE(cli::parseDateInput(bad, *ny)) << bad;
    }
}

// Listings escape what would break the line or drive the terminal (escapes that
// cannot be typed: a typed backslash is doubled); JSON escapes what its grammar
// needs. Bytes that are no UTF-8 become one replacement character each.
TEST(TextEscapes, ListingsAndJsonStringsKeepOneLineAndParse) {
    const std::string r = "\xEF\xBF\xBD";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"a\nb\r\nc\td", "a\\nb\\r\\nc\\td", "a\nb\r\nc\td"},
        {"\x1b[31mred\x7f\x01", "\\x1b[31mred\\x7f\\x01", "\x1b[31mred\x7f\x01"},
        {"a\\nb say \"hi\"", "a\\\\nb say \"hi\"", "a\\nb say \"hi\""},
        {std::string("nul\0end", 7), "nul\\x00end", std::string("nul\0end", 7)},
        {"x\u2028y\u2029z\u0085w", "x\\u2028y\\u2029z\\u0085w", "x\u2028y\u2029z\u0085w"},
        {"\u00a0\u2027\u202a Ünïcødé 🎂", "\u00a0\u2027\u202a Ünïcødé 🎂",
         "\u00a0\u2027\u202a Ünïcødé 🎂"},
        {"a\x80"
         "b\xE2\x82"
         "c\xC0\xAF"
         "d\xED\xA0\x80",
         "a" + r + "b" + r + r + "c" + r + r + "d" + r + r + r,
         "a" + r + "b" + r + r + "c" + r + r + "d" + r + r + r},
    };
    for (const auto& [text, listed, parsed] : cases) {
        std::string listing;
        cli::appendListingText(listing, text);
        EXPECT_EQ(listing, listed);
        std::string json;
        cli::appendJsonString(json, text);
        EXPECT_EQ(nlohmann::json::parse(json).get<std::string>(), parsed) << json;
    }
}

} // namespace

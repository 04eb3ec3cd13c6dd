#include "cli/TextEscapes.h"

#include "model/Text.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace almanor;

namespace {

// Listings escape what would break the line or drive the terminal (escapes that cannot be typed:
// a typed backslash is doubled); JSON escapes what its grammar needs. Bytes that are no UTF-8
// become one replacement character each.
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

TEST(TextEscapes, TrimmingTakesWhiteSpaceAndLineBreaksAtBothEndsOnly) {
    EXPECT_EQ(trimmed("\t\u00A0\u3000Trip  to Prague\u2028 "), "Trip  to Prague");
    EXPECT_EQ(trimmed(" \n\t "), "");
    EXPECT_EQ(trimmed("\xFF x \xFF"), "\xFF x \xFF"); // not UTF-8: left alone
    // A stray continuation byte is no part of the space before it; a cut sequence no space.
    EXPECT_EQ(trimmed("x \xA0"), "x \xA0");
    EXPECT_EQ(trimmed("\xE2\x80 x \xE2\x80\x80"), "\xE2\x80 x");
}

} // namespace

#include "cli/TextEscapes.h"

#include "model/Text.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace almanor;

namespace {

std::string json(std::string_view s) {
    std::string out;
    cli::appendJsonString(out, s);
    return out;
}

TEST(JsonText, EveryNameSurvivesAStrictParser) {
    for (std::string_view s : {"plain", "Mum's \"big\" day", "back\\slash", "tab\tnew\nline\r",
                               "\x01\x1f\x7f", "čeština 日本 🎉", ""}) {
        EXPECT_EQ(nlohmann::json::parse(json(s)).get<std::string>(), s) << s;
    }
}

TEST(JsonText, BrokenUtf8BecomesReplacementCharacters) {
    // A lone continuation byte, a truncated sequence, an overlong slash and a surrogate.
    std::string broken = "a\x80"
                         "b\xE2\x82"
                         "c\xC0\xAF"
                         "d\xED\xA0\x80";
    const std::string r = "\xEF\xBF\xBD";
    EXPECT_EQ(nlohmann::json::parse(json(broken)).get<std::string>(),
              "a" + r + "b" + r + r + "c" + r + r + "d" + r + r + r);
}

std::string listed(std::string_view text) {
    std::string out;
    cli::appendListingText(out, text);
    return out;
}

TEST(ListingText, LineBreaksAndControlsBecomeEscapesThatCannotBeTyped) {
    EXPECT_EQ(listed("a\nb\r\nc\td"), "a\\nb\\r\\nc\\td");
    // An escape sequence of the terminal is shown, not obeyed.
    EXPECT_EQ(listed("\x1b[31mred\x7f\x01"), "\\x1b[31mred\\x7f\\x01");
    // A typed backslash-n stays distinguishable from a line break.
    EXPECT_EQ(listed("a\\nb"), "a\\\\nb");
    // Quotes need no escape in a listing, only in JSON.
    EXPECT_EQ(listed("say \"hi\""), "say \"hi\"");
    EXPECT_EQ(json("say \"hi\""), "\"say \\\"hi\\\"\"");
    EXPECT_EQ(listed(std::string_view("nul\0end", 7)), "nul\\x00end");
}

TEST(ListingText, UnicodeLineBreaksAndC1ControlsAreEscapedButTextIsKept) {
    EXPECT_EQ(listed("x\u2028y\u2029z\u0085w"), "x\\u2028y\\u2029z\\u0085w");
    // Neighbours of the escaped code points pass untouched.
    EXPECT_EQ(listed("\u00a0\u2027\u202a"), "\u00a0\u2027\u202a");
    EXPECT_EQ(listed("Ünïcødé 🎂 日本"), "Ünïcødé 🎂 日本");
}

TEST(ListingText, BrokenUtf8BecomesReplacementCharacters) {
    EXPECT_EQ(listed("a\xC3"), "a\xEF\xBF\xBD");
    EXPECT_EQ(listed("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD");                 // overlong
    EXPECT_EQ(listed("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"); // surrogate
    EXPECT_EQ(listed("\xE2\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD"); // cut short before a separator
}

TEST(Trimmed, RemovesUnicodeWhiteSpaceAndLineBreaksAtBothEndsOnly) {
    EXPECT_EQ(trimmed("  Holiday \n"), "Holiday");
    EXPECT_EQ(trimmed("\t\u00A0\u3000Trip to Prague\u2028 "), "Trip to Prague");
    EXPECT_EQ(trimmed("inner  spaces stay"), "inner  spaces stay");
    EXPECT_EQ(trimmed(" \n\t "), "");
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed("\xFF x \xFF"), "\xFF x \xFF"); // not UTF-8: left alone
    // A stray continuation byte is no part of the space before it; a cut sequence no space.
    EXPECT_EQ(trimmed("x \xA0"), "x \xA0");
    EXPECT_EQ(trimmed("\xE2\x80 x \xE2\x80\x80"), "\xE2\x80 x");
}

} // namespace

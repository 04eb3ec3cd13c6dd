#include "cli/PlainText.h"

#include <gtest/gtest.h>

namespace almanor::cli {
namespace {

std::string listed(std::string_view text) {
    std::string out;
    appendListingText(out, text);
    return out;
}

TEST(PlainTextTest, LineBreaksAndControlsBecomeEscapesThatCannotBeTyped) {
    EXPECT_EQ(listed("a\nb\r\nc\td"), "a\\nb\\r\\nc\\td");
    // An escape sequence of the terminal is shown, not obeyed.
    EXPECT_EQ(listed("\x1b[31mred\x7f\x01"), "\\x1b[31mred\\x7f\\x01");
    // A typed backslash-n stays distinguishable from a line break.
    EXPECT_EQ(listed("a\\nb"), "a\\\\nb");
    EXPECT_EQ(listed(std::string_view("nul\0end", 7)), "nul\\x00end");
}

TEST(PlainTextTest, UnicodeLineBreaksAndC1ControlsAreEscapedButTextIsKept) {
    EXPECT_EQ(listed("x\u2028y\u2029z\u0085w"), "x\\u2028y\\u2029z\\u0085w");
    // Neighbours of the escaped code points pass untouched.
    EXPECT_EQ(listed("\u00a0\u2027\u202a"), "\u00a0\u2027\u202a");
    EXPECT_EQ(listed("Ünïcødé 🎂 日本"), "Ünïcødé 🎂 日本");
}

TEST(PlainTextTest, BrokenUtf8BecomesReplacementCharacters) {
    EXPECT_EQ(listed("a\xC3"), "a\xEF\xBF\xBD");
    EXPECT_EQ(listed("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD");                 // overlong
    EXPECT_EQ(listed("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"); // surrogate
    EXPECT_EQ(listed("\xE2\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD"); // cut short before a separator
}

} // namespace
} // namespace almanor::cli

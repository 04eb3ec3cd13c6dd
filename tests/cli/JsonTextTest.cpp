#include "cli/JsonText.h"

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

TEST(Trimmed, RemovesUnicodeWhiteSpaceAndLineBreaksAtBothEndsOnly) {
    EXPECT_EQ(trimmed("  Holiday \n"), "Holiday");
    EXPECT_EQ(trimmed("\t\u00A0\u3000Trip to Prague\u2028 "), "Trip to Prague");
    EXPECT_EQ(trimmed("inner  spaces stay"), "inner  spaces stay");
    EXPECT_EQ(trimmed(" \n\t "), "");
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed("\xFF x \xFF"), "\xFF x \xFF"); // not UTF-8: left alone
}

} // namespace

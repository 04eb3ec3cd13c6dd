#include "platform/Utf8.h"

#include <gtest/gtest.h>

using namespace almanor;

namespace {

std::size_t length(std::string_view s) {
    return utf8::decodeFirst(s).length;
}

TEST(Utf8, DecodesEveryLengthAtItsBounds) {
    struct Case {
        std::string_view bytes;
        char32_t codePoint;
    };
    for (auto [bytes, codePoint] :
         {Case{"\x7F", 0x7F}, Case{"\xC2\x80", 0x80}, Case{"\xDF\xBF", 0x7FF},
          Case{"\xE0\xA0\x80", 0x800}, Case{"\xED\x9F\xBF", 0xD7FF}, Case{"\xEE\x80\x80", 0xE000},
          Case{"\xEF\xBF\xBF", 0xFFFF}, Case{"\xF0\x90\x80\x80", 0x10000},
          Case{"\xF4\x8F\xBF\xBF", 0x10FFFF}}) {
        auto c = utf8::decodeFirst(bytes);
        EXPECT_EQ(c.length, bytes.size()) << bytes;
        EXPECT_EQ(c.codePoint, codePoint) << bytes;
        // The same character read from the end, after other text.
        auto last = utf8::decodeLast("ab" + std::string(bytes));
        EXPECT_EQ(last.length, bytes.size()) << bytes;
        EXPECT_EQ(last.codePoint, codePoint) << bytes;
    }
    EXPECT_EQ(utf8::decodeFirst(std::string_view("\0x", 2)).length, 1u);
}

TEST(Utf8, RefusesOverlongFormsSurrogatesAndCodePointsPastTheLast) {
    for (std::string_view s : {"\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF", "\xE0\x9F\xBF",
                               "\xF0\x80\x80\xAF", "\xF0\x8F\xBF\xBF"}) {
        EXPECT_EQ(length(s), 0u) << "overlong";
        EXPECT_FALSE(utf8::isValid(s));
    }
    for (std::string_view s : {"\xED\xA0\x80", "\xED\xBF\xBF"}) {
        EXPECT_EQ(length(s), 0u) << "surrogate";
        EXPECT_EQ(utf8::decodeLast(s).length, 0u);
    }
    for (std::string_view s : {"\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF"}) {
        EXPECT_EQ(length(s), 0u) << "past U+10FFFF";
    }
}

TEST(Utf8, RefusesTruncatedAndBrokenSequences) {
    for (std::string_view s : {"\xC3", "\xE2\x82", "\xF0\x9F\x8E", "\xE2x\xAC", "\x80", "\xBF"}) {
        EXPECT_EQ(length(s), 0u);
        EXPECT_FALSE(utf8::isValid(std::string("ok") + std::string(s)));
    }
    // From the end: a run of continuation bytes longer than any sequence, a lead with too few.
    EXPECT_EQ(utf8::decodeLast("\x80\x80\x80\x80").length, 0u);
    EXPECT_EQ(utf8::decodeLast("\xF0\x9F\x8E").length, 0u);
    EXPECT_EQ(utf8::decodeLast("\xE2\x82\xAC\xAC").length, 0u);
    EXPECT_EQ(utf8::decodeLast("").length, 0u);
    EXPECT_TRUE(utf8::isValid(""));
    EXPECT_TRUE(utf8::isValid("čeština 日本 🎉"));
}

} // namespace

#include "platform/Utf8.h"

#include <gtest/gtest.h>

using namespace almanor;

namespace {

// Each read from the start, and from the end after other text.
TEST(Utf8, DecodesEveryLengthAtItsBoundsFromEitherEnd) {
    const std::pair<std::string_view, char32_t> cases[] = {
        {"\x7F", 0x7F},
        {"\xC2\x80", 0x80},
        {"\xDF\xBF", 0x7FF},
        {"\xE0\xA0\x80", 0x800},
        {"\xED\x9F\xBF", 0xD7FF},
        {"\xEE\x80\x80", 0xE000},
        {"\xEF\xBF\xBF", 0xFFFF},
        {"\xF0\x90\x80\x80", 0x10000},
        {"\xF4\x8F\xBF\xBF", 0x10FFFF},
    };
    for (auto [bytes, codePoint] : cases) {
        SCOPED_TRACE(int(codePoint));
        auto first = utf8::decodeFirst(bytes);
        auto last = utf8::decodeLast("ab" + std::string(bytes));
        EXPECT_EQ(first.length, bytes.size());
        EXPECT_EQ(last.length, bytes.size());
        EXPECT_EQ(first.codePoint, codePoint);
        EXPECT_EQ(last.codePoint, codePoint);
    }
    EXPECT_EQ(utf8::decodeFirst(std::string_view("\0x", 2)).length, 1u);
    EXPECT_TRUE(utf8::isValid("čeština 日本 🎉"));
}

// Overlong forms, surrogates, code points past U+10FFFF, cut and broken sequences.
TEST(Utf8, RefusesWhatIsNoUtf8) {
    for (std::string_view s :
         {"\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80", "\xED\xBF\xBF",
          "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xC3", "\xE2x\xAC", "\x80\x80\x80\x80"}) {
        SCOPED_TRACE(testing::PrintToString(std::string(s)));
        EXPECT_EQ(utf8::decodeFirst(s).length, 0u);
        EXPECT_EQ(utf8::decodeLast(s).length, 0u);
        EXPECT_FALSE(utf8::isValid("ok" + std::string(s)));
    }
    // A whole character and a stray continuation byte: no last character.
    EXPECT_EQ(utf8::decodeLast("\xE2\x82\xAC\xAC").length, 0u);
}

} // namespace

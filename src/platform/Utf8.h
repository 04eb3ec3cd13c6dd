#pragma once

#include "platform/Export.h"

#include <cstddef>
#include <string_view>

namespace almanor::utf8 {

// The character at the start of `s`. `length` is 0 when the bytes there are no well-formed UTF-8
// sequence: a stray continuation byte, a truncated sequence, an overlong form, a surrogate or a
// code point past U+10FFFF. The one decoder of the program; everything that reads UTF-8 goes
// through it.
struct ALMANOR_EXPORT Character {
    char32_t codePoint = 0;
    std::size_t length = 0;
};
ALMANOR_EXPORT Character decodeFirst(std::string_view s);

// The character that ends `s` (the sequence whose last byte is the last byte of `s`), as strict
// as decodeFirst.
ALMANOR_EXPORT Character decodeLast(std::string_view s);

// Whether the whole of `s` is well-formed UTF-8.
ALMANOR_EXPORT bool isValid(std::string_view s);

} // namespace almanor::utf8

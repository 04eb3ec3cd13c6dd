#pragma once

#include <cstddef>
#include <string_view>

namespace almanor::cli {

// Length of the well-formed UTF-8 sequence at the start of `s`, or 0 when it is not one (overlong
// forms, surrogates and code points past U+10FFFF included).
std::size_t utf8SequenceLength(std::string_view s);

} // namespace almanor::cli

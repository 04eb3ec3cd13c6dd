#include "cli/Utf8.h"

namespace almanor::cli {

std::size_t utf8SequenceLength(std::string_view s) {
    if (s.empty()) {
        return 0;
    }
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    unsigned char c = byte(0);
    std::size_t n = c < 0x80                 ? 1
                    : c >= 0xC2 && c <= 0xDF ? 2
                    : c >= 0xE0 && c <= 0xEF ? 3
                    : c >= 0xF0 && c <= 0xF4 ? 4
                                             : 0;
    if (n == 0 || n > s.size()) {
        return 0;
    }
    for (std::size_t i = 1; i < n; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    if ((c == 0xE0 && byte(1) < 0xA0) || (c == 0xED && byte(1) > 0x9F) ||
        (c == 0xF0 && byte(1) < 0x90) || (c == 0xF4 && byte(1) > 0x8F)) {
        return 0;
    }
    return n;
}

} // namespace almanor::cli

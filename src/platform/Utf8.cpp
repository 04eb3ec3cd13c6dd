#include "platform/Utf8.h"

namespace almanor::utf8 {

Character decodeFirst(std::string_view s) {
    if (s.empty()) {
        return {};
    }
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    unsigned char lead = byte(0);
    if (lead < 0x80) {
        return {lead, 1};
    }
    // C0 and C1 could only start overlong forms; F5 and above, code points past U+10FFFF.
    std::size_t n = lead >= 0xC2 && lead <= 0xDF   ? 2
                    : lead >= 0xE0 && lead <= 0xEF ? 3
                    : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                   : 0;
    if (n == 0 || n > s.size()) {
        return {};
    }
    char32_t c = lead & (0x7F >> n);
    for (std::size_t i = 1; i < n; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return {};
        }
        c = (c << 6) | (byte(i) & 0x3F);
    }
    bool overlong = (n == 3 && c < 0x800) || (n == 4 && c < 0x10000);
    bool surrogate = c >= 0xD800 && c <= 0xDFFF;
    if (overlong || surrogate || c > 0x10FFFF) {
        return {};
    }
    return {c, n};
}

Character decodeLast(std::string_view s) {
    // Back over at most three continuation bytes to the lead, then forward again.
    std::size_t start = s.size();
    for (std::size_t back = 0; back < 4 && start > 0; ++back) {
        --start;
        if ((static_cast<unsigned char>(s[start]) & 0xC0) != 0x80) {
            break;
        }
    }
    Character c = decodeFirst(s.substr(start));
    return c.length == s.size() - start ? c : Character{};
}

bool isValid(std::string_view s) {
    while (!s.empty()) {
        std::size_t n = decodeFirst(s).length;
        if (n == 0) {
            return false;
        }
        s.remove_prefix(n);
    }
    return true;
}

} // namespace almanor::utf8

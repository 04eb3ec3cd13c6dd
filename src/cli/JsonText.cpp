#include "cli/JsonText.h"

namespace almanor::cli {

namespace {

// Length of the well-formed UTF-8 sequence at the start of `s`, or 0.
std::size_t sequenceLength(std::string_view s) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    unsigned char c = byte(0);
    std::size_t n = c < 0x80 ? 1 : c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3
                  : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    if (n == 0 || n > s.size()) {
        return 0;
    }
    for (std::size_t i = 1; i < n; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    // No overlong forms, surrogates or code points past U+10FFFF.
    if ((c == 0xE0 && byte(1) < 0xA0) || (c == 0xED && byte(1) > 0x9F) ||
        (c == 0xF0 && byte(1) < 0x90) || (c == 0xF4 && byte(1) > 0x8F)) {
        return 0;
    }
    return n;
}

} // namespace

void appendJsonString(std::string& out, std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    out += '"';
    while (!text.empty()) {
        auto c = static_cast<unsigned char>(text.front());
        if (c >= 0x80) {
            std::size_t n = sequenceLength(text);
            if (n == 0) {
                out += "\xEF\xBF\xBD";
                n = 1;
            } else {
                out.append(text.substr(0, n));
            }
            text.remove_prefix(n);
            continue;
        }
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\r':
            out += "\\r";
            break;
        default:
            if (c < 0x20 || c == 0x7F) {
                out += "\\u00";
                out += hex[c >> 4];
                out += hex[c & 0xF];
            } else {
                out += char(c);
            }
        }
        text.remove_prefix(1);
    }
    out += '"';
}

} // namespace almanor::cli

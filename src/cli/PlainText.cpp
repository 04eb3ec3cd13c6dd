#include "cli/PlainText.h"

#include "cli/Utf8.h"

namespace almanor::cli {

namespace {

constexpr char hex[] = "0123456789abcdef";

void appendHex(std::string& out, unsigned value, int digits) {
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) {
        out += hex[(value >> shift) & 0xF];
    }
}

} // namespace

void appendListingText(std::string& out, std::string_view text) {
    while (!text.empty()) {
        auto c = static_cast<unsigned char>(text.front());
        if (c >= 0x80) {
            std::size_t n = utf8SequenceLength(text);
            if (n == 0) {
                out += "\xEF\xBF\xBD";
                text.remove_prefix(1);
                continue;
            }
            auto b1 = static_cast<unsigned char>(text[1]);
            bool c1 = n == 2 && c == 0xC2 && b1 < 0xA0;
            bool separator = n == 3 && c == 0xE2 && b1 == 0x80 &&
                             (static_cast<unsigned char>(text[2]) == 0xA8 ||
                              static_cast<unsigned char>(text[2]) == 0xA9);
            if (c1) {
                out += "\\u";
                appendHex(out, b1, 4);
            } else if (separator) {
                out += static_cast<unsigned char>(text[2]) == 0xA8 ? "\\u2028" : "\\u2029";
            } else {
                out.append(text.substr(0, n));
            }
            text.remove_prefix(n);
            continue;
        }
        switch (c) {
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
                out += "\\x";
                appendHex(out, c, 2);
            } else {
                out += char(c);
            }
        }
        text.remove_prefix(1);
    }
}

} // namespace almanor::cli

#include "model/Text.h"

#include "platform/Utf8.h"

namespace almanor {

namespace {

// Unicode's White_Space property, spelt out: the space classes of GLib and the C library each
// differ from it (U+000B, U+0085, U+001C..U+001F, no-break spaces).
bool isWhiteSpace(utf8::Character c) {
    if (c.length == 0) {
        return false;
    }
    char32_t u = c.codePoint;
    return (u >= 0x09 && u <= 0x0D) || u == 0x20 || u == 0x85 || u == 0xA0 || u == 0x1680 ||
           (u >= 0x2000 && u <= 0x200A) || u == 0x2028 || u == 0x2029 || u == 0x202F ||
           u == 0x205F || u == 0x3000;
}

// General categories Cc (a set Unicode has fixed for good), Zl and Zp.
bool breaksTheLine(char32_t u) {
    return u < 0x20 || (u >= 0x7F && u <= 0x9F) || u == 0x2028 || u == 0x2029;
}

} // namespace

std::string trimmed(std::string_view text) {
    while (true) {
        auto c = utf8::decodeFirst(text);
        if (!isWhiteSpace(c)) {
            break;
        }
        text.remove_prefix(c.length);
    }
    while (true) {
        auto c = utf8::decodeLast(text);
        if (!isWhiteSpace(c)) {
            break;
        }
        text.remove_suffix(c.length);
    }
    return std::string(text);
}

std::string controlsAsSpaces(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        auto c = utf8::decodeFirst(text);
        std::size_t n = c.length == 0 ? 1 : c.length;
        if (c.length != 0 && breaksTheLine(c.codePoint)) {
            out += ' ';
        } else {
            out.append(text.substr(0, n));
        }
        text.remove_prefix(n);
    }
    return out;
}

} // namespace almanor

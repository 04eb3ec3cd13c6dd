#include "model/Text.h"

#include "platform/Utf8.h"

#include <unicode/uchar.h>

namespace almanor {

namespace {

bool isWhiteSpace(utf8::Character c) {
    return c.length != 0 && u_isUWhiteSpace(UChar32(c.codePoint));
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
        int8_t type = c.length == 0 ? int8_t(U_UNASSIGNED) : u_charType(UChar32(c.codePoint));
        if (type == U_CONTROL_CHAR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR) {
            out += ' ';
        } else {
            out.append(text.substr(0, n));
        }
        text.remove_prefix(n);
    }
    return out;
}

} // namespace almanor

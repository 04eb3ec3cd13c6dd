#include "model/Text.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

// ICU's UTF-8 macros cast in the C style.
#pragma GCC diagnostic ignored "-Wold-style-cast"

namespace almanor {

std::string trimmed(std::string_view text) {
    const auto* s = reinterpret_cast<const uint8_t*>(text.data());
    auto length = static_cast<int32_t>(text.size());
    int32_t begin = 0;
    while (begin < length) {
        int32_t next = begin;
        UChar32 c = 0;
        U8_NEXT(s, next, length, c);
        if (c < 0 || !u_isUWhiteSpace(c)) {
            break;
        }
        begin = next;
    }
    int32_t end = length;
    while (end > begin) {
        int32_t previous = end;
        UChar32 c = 0;
        U8_PREV(s, begin, previous, c);
        if (c < 0 || !u_isUWhiteSpace(c)) {
            break;
        }
        end = previous;
    }
    return std::string(text.substr(std::size_t(begin), std::size_t(end - begin)));
}

std::string controlsAsSpaces(std::string_view text) {
    const auto* s = reinterpret_cast<const uint8_t*>(text.data());
    auto length = static_cast<int32_t>(text.size());
    std::string out;
    out.reserve(text.size());
    int32_t i = 0;
    while (i < length) {
        int32_t start = i;
        UChar32 c = 0;
        U8_NEXT(s, i, length, c);
        int8_t type = c < 0 ? int8_t(U_UNASSIGNED) : u_charType(c);
        if (type == U_CONTROL_CHAR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR) {
            out += ' ';
        } else {
            out.append(text.substr(std::size_t(start), std::size_t(i - start)));
        }
    }
    return out;
}

} // namespace almanor

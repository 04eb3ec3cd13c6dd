#include "cli/TextEscapes.h"

#include "platform/Utf8.h"

namespace almanor::cli {

namespace {

enum class Style { json, listing };

void appendHex(std::string& out, char32_t value, int digits) {
    static constexpr char hex[] = "0123456789abcdef";
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) {
        out += hex[(value >> shift) & 0xF];
    }
}

// One well-formed character, given as its code point and its bytes.
void appendCharacter(std::string& out, char32_t c, std::string_view bytes, Style style) {
    switch (c) {
    case '\\':
        out += "\\\\";
        return;
    case '\n':
        out += "\\n";
        return;
    case '\t':
        out += "\\t";
        return;
    case '\r':
        out += "\\r";
        return;
    case '"':
        out += style == Style::json ? "\\\"" : "\"";
        return;
    default:
        break;
    }
    if (c < 0x20 || c == 0x7F) {
        out += style == Style::json ? "\\u00" : "\\x";
        appendHex(out, c, 2);
    } else if (style == Style::listing && ((c >= 0x80 && c < 0xA0) || c == 0x2028 || c == 0x2029)) {
        out += "\\u";
        appendHex(out, c, 4);
    } else {
        out.append(bytes);
    }
}

void appendEscaped(std::string& out, std::string_view text, Style style) {
    while (!text.empty()) {
        auto c = utf8::decodeFirst(text);
        if (c.length == 0) {
            out += "\xEF\xBF\xBD"; // one replacement character per byte that is not UTF-8
            text.remove_prefix(1);
            continue;
        }
        appendCharacter(out, c.codePoint, text.substr(0, c.length), style);
        text.remove_prefix(c.length);
    }
}

} // namespace

void appendJsonString(std::string& out, std::string_view text) {
    out += '"';
    appendEscaped(out, text, Style::json);
    out += '"';
}

void appendListingText(std::string& out, std::string_view text) {
    appendEscaped(out, text, Style::listing);
}

} // namespace almanor::cli

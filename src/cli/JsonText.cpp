#include "cli/JsonText.h"

#include "cli/Utf8.h"

namespace almanor::cli {

void appendJsonString(std::string& out, std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    out += '"';
    while (!text.empty()) {
        auto c = static_cast<unsigned char>(text.front());
        if (c >= 0x80) {
            std::size_t n = utf8SequenceLength(text);
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

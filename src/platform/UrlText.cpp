#include "platform/UrlText.h"

#include <algorithm>
#include <glib.h>

namespace almanor {

namespace {

bool allDigits(std::string_view s) {
    return std::all_of(s.begin(), s.end(), [](char c) { return g_ascii_isdigit(c); });
}

bool isSchemeCharacter(char c) {
    return g_ascii_isalnum(c) || c == '+' || c == '-' || c == '.';
}

// Where the authority begins: after "scheme:" and its slashes, or at the start when the text has
// no scheme followed by a slash ("user:pw@host" is all authority).
std::size_t authorityStart(std::string_view url) {
    std::size_t i = 0;
    while (i < url.size() && isSchemeCharacter(url[i]))
        ++i;
    if (i == 0 || i >= url.size() || url[i] != ':' || !g_ascii_isalpha(url[0]))
        return 0;
    std::size_t slashes = i + 1;
    while (slashes < url.size() && (url[slashes] == '/' || url[slashes] == '\\'))
        ++slashes;
    return slashes == i + 1 ? 0 : slashes;
}

} // namespace

std::string redactUrl(std::string_view url) {
    const std::size_t start = authorityStart(url);
    const std::size_t end = std::min(url.find_first_of("/?#\\", start), url.size());
    const std::string_view authority = url.substr(start, end - start);
    std::size_t cut = std::string_view::npos; // the last character of the user information
    if (auto at = authority.rfind('@'); at != std::string_view::npos) {
        cut = start + at;
    } else if (auto later = url.find('@', end); later != std::string_view::npos) {
        // A password holding '/', '?' or '#' ends the authority early ("me:pa/ss@host"): what
        // follows the last colon is then no port number.
        auto bracket = authority.rfind(']');
        auto colon = authority.rfind(':');
        if (colon != std::string_view::npos &&
            (bracket == std::string_view::npos || colon > bracket) &&
            (colon + 1 == authority.size() || !allDigits(authority.substr(colon + 1))))
            cut = later;
    }
    if (cut == std::string_view::npos)
        return std::string(url);
    return std::string(url.substr(0, start)) + std::string(url.substr(cut + 1));
}

std::string redactUrls(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t done = 0;
    for (std::size_t mark = text.find("://"); mark != std::string_view::npos;
         mark = text.find("://", mark + 3)) {
        if (mark < done)
            continue;
        std::size_t begin = mark;
        while (begin > done && isSchemeCharacter(text[begin - 1]))
            --begin;
        std::size_t end = mark;
        while (end < text.size() && !g_ascii_isspace(text[end]))
            ++end;
        out += text.substr(done, begin - done);
        out += redactUrl(text.substr(begin, end - begin));
        done = end;
    }
    out += text.substr(std::min(done, text.size()));
    return out;
}

} // namespace almanor

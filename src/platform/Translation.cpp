#include "platform/Translation.h"

#include <clocale>
#include <cstring>
#include <filesystem>

namespace almanor {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// The catalogues of a build tree are beside its programs; an installed program finds them from
// its own folder, so that a package unpacked under another prefix still speaks.
std::filesystem::path catalogueFolder(std::string_view installedRelative) {
    std::error_code ec;
    auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) {
        return {};
    }
    auto folder = self.parent_path();
    if (std::filesystem::is_directory(folder / "locale", ec)) {
        return folder / "locale";
    }
    return (folder / installedRelative).lexically_normal();
}

} // namespace

std::string formatText(std::string_view pattern, std::initializer_list<std::string_view> values) {
    std::string out;
    out.reserve(pattern.size() + 32);
    std::size_t next = 0;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '%' || i + 1 == pattern.size()) {
            out += pattern[i];
            continue;
        }
        if (pattern[i + 1] == '%') {
            out += '%';
            ++i;
            continue;
        }
        // %N$ names the value; otherwise the conversions take the values in order.
        std::size_t j = i + 1;
        std::size_t position = 0;
        while (j < pattern.size() && isDigit(pattern[j]) && position < 100) {
            position = position * 10 + std::size_t(pattern[j] - '0');
            ++j;
        }
        bool positional = j > i + 1 && j < pattern.size() && pattern[j] == '$' && position > 0;
        j = positional ? j + 1 : i + 1;
        while (j < pattern.size() && (pattern[j] == 'z' || pattern[j] == 'l')) {
            ++j;
        }
        if (j == pattern.size() || std::strchr("sdiu", pattern[j]) == nullptr) {
            out += '%'; // not a conversion: written as it is
            continue;
        }
        std::size_t index = positional ? position - 1 : next++;
        if (index < values.size()) {
            out += values.begin()[index];
        }
        i = j;
    }
    return out;
}

void useTheUsersLanguage(std::string_view installedRelative) {
    // Not LC_ALL: LC_NUMERIC, LC_COLLATE and LC_TIME would change how numbers are written and
    // read, how text sorts and how dates parse. The character set (LC_CTYPE) makes the C
    // library's own messages (strerror) come out in the user's language rather than as '?'.
    std::setlocale(LC_CTYPE, "");
    std::setlocale(LC_MESSAGES, "");
    if (auto folder = catalogueFolder(installedRelative); !folder.empty()) {
        ::bindtextdomain(textDomain, folder.c_str());
    }
    ::bind_textdomain_codeset(textDomain, "UTF-8");
}

} // namespace almanor

#include "platform/Fatal.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace almanor {

void fatalError(std::string_view site, int line, std::string_view message) {
    std::fflush(stdout);
    std::string text(site);
    text += ':';
    text += std::to_string(line);
    text += ": Fatal error: ";
    text += message;
    text += '\n';
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
    std::_Exit(fatalExitStatus);
}

} // namespace almanor

#include "platform/WriteAll.h"

#include <cerrno>
#include <unistd.h>

namespace almanor {

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        bytes.remove_prefix(std::size_t(n));
    }
    return true;
}

} // namespace almanor

#include "platform/FileLock.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

namespace almanor {

FileLock::FileLock(const std::filesystem::path& file, const std::function<bool()>& keepWaiting,
                   std::chrono::milliseconds poll) {
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT)
        fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        error_ = std::strerror(errno);
        return;
    }
    for (;;) {
        // Without a way to give up, the kernel's own wait; else a poll, so that it can be left.
        int rc = ::flock(fd, keepWaiting ? LOCK_EX | LOCK_NB : LOCK_EX);
        if (rc == 0) {
            fd_ = fd;
            return;
        }
        if (errno == EINTR)
            continue;
        if (errno != EWOULDBLOCK) {
            error_ = std::strerror(errno);
            break;
        }
        if (!keepWaiting()) {
            error_ = "given up";
            break;
        }
        std::this_thread::sleep_for(poll);
    }
    ::close(fd);
}

FileLock::~FileLock() {
    if (fd_ >= 0)
        ::close(fd_); // closing lets go of the lock
}

} // namespace almanor

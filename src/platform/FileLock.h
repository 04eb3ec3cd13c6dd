#pragma once

#include "platform/Export.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

namespace almanor {

// An exclusive lock on a file (or a folder) shared by every process of the user, held while the
// object lives. Waiting for another holder can be given up: `keepWaiting` is asked every
// `poll`, so that a quitting process never waits behind another one.
class ALMANOR_EXPORT FileLock {
  public:
    // Blocks until the lock is held, `keepWaiting` answers false, or the file cannot be opened
    // (created with mode 0600 when missing); held() tells which.
    explicit FileLock(const std::filesystem::path& file,
                      const std::function<bool()>& keepWaiting = {},
                      std::chrono::milliseconds poll = std::chrono::milliseconds(100));
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    bool held() const { return fd_ >= 0; }
    // Why it is not held: the system's reason, or "given up" after `keepWaiting` said so.
    const std::string& error() const { return error_; }

  private:
    int fd_ = -1;
    std::string error_;
};

} // namespace almanor

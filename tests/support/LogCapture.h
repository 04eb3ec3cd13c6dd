#pragma once

#include "platform/Log.h"

#include <mutex>
#include <string>
#include <vector>

namespace almanor::test {

class LogCapture {
  public:
    LogCapture() {
        Log::setSink([this](std::string_view line) {
            std::lock_guard lock(mutex_);
            lines_.emplace_back(line);
        });
    }
    ~LogCapture() { Log::setSink({}); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

} // namespace almanor::test

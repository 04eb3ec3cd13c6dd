#pragma once

#include "platform/Export.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace almanor {

// Named notifications within the process. Observers are called synchronously, on the thread
// that posts, in the order they were added. No sender object and no payload: the system's only
// notification carries neither.
class ALMANOR_EXPORT NotificationCenter {
  public:
    using Observer = std::function<void()>;
    using Token = std::uint64_t;

    Token addObserver(std::string name, Observer observer);
    void removeObserver(Token token);
    void post(std::string_view name);

  private:
    struct Entry {
        Token token;
        std::string name;
        Observer observer;
    };
    std::mutex mutex_;
    std::vector<Entry> entries_;
    Token next_ = 1;
};

} // namespace almanor

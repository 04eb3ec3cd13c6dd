#pragma once

#include "platform/Export.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace almanor {

// Named signals within the process, GLib's way: handlers are connected to a signal's name and
// called synchronously, on the thread that emits, in the order they were connected. No sender
// object and no payload: the system's only notification carries neither.
class ALMANOR_EXPORT Signals {
  public:
    using Handler = std::function<void()>;
    using Token = std::uint64_t;

    Token connect(std::string name, Handler handler);
    void disconnect(Token token);
    void emit(std::string_view name);

  private:
    struct Entry {
        Token token;
        std::string name;
        Handler handler;
    };
    std::mutex mutex_;
    std::vector<Entry> entries_;
    Token next_ = 1;
};

} // namespace almanor

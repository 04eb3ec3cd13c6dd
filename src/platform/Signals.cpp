#include "platform/Signals.h"

#include <algorithm>

namespace almanor {

Signals::Token Signals::connect(std::string name, Handler handler) {
    std::lock_guard lock(mutex_);
    Token token = next_++;
    entries_.push_back({token, std::move(name), std::move(handler)});
    return token;
}

void Signals::disconnect(Token token) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [token](const Entry& e) { return e.token == token; });
}

void Signals::emit(std::string_view name) {
    // Copy the matching handlers first: a handler may connect or disconnect, or emit again.
    std::vector<Handler> matching;
    {
        std::lock_guard lock(mutex_);
        for (const auto& e : entries_) {
            if (e.name == name) {
                matching.push_back(e.handler);
            }
        }
    }
    for (const auto& handler : matching) {
        handler();
    }
}

} // namespace almanor

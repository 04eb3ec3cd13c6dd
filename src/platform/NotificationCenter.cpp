#include "platform/NotificationCenter.h"

#include <algorithm>

namespace almanor {

NotificationCenter::Token NotificationCenter::addObserver(std::string name, Observer observer) {
    std::lock_guard lock(mutex_);
    Token token = next_++;
    entries_.push_back({token, std::move(name), std::move(observer)});
    return token;
}

void NotificationCenter::removeObserver(Token token) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [token](const Entry& e) { return e.token == token; });
}

void NotificationCenter::post(std::string_view name) {
    // Copy the matching observers first: an observer may add or remove observers, or post again.
    std::vector<Observer> matching;
    {
        std::lock_guard lock(mutex_);
        for (const auto& e : entries_) {
            if (e.name == name) {
                matching.push_back(e.observer);
            }
        }
    }
    for (const auto& observer : matching) {
        observer();
    }
}

} // namespace almanor

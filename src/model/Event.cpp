#include "model/Event.h"

#include "model/DayCalendar.h"

#include <algorithm>

namespace almanor {

Schedule scheduleFromRawValue(std::int64_t raw) {
    return raw >= 0 && raw <= 3 ? static_cast<Schedule>(raw) : Schedule::none;
}

CountMethod countMethodFromRawValue(std::int64_t raw) {
    return raw >= 0 && raw <= 3 ? static_cast<CountMethod>(raw) : CountMethod::standard;
}

Event::Event(Uuid id, Instant date, std::string name, std::optional<std::string> alias,
             Schedule schedule, CountMethod countMethod)
    : id_(id), date_(date), name_(std::move(name)), alias_(std::move(alias)), schedule_(schedule),
      countMethod_(countMethod) {}

void Event::setName(std::string name) {
    willChange();
    name_ = std::move(name);
}

void Event::setAlias(std::optional<std::string> alias) {
    willChange();
    alias_ = std::move(alias);
}

Event::Token Event::observeWillChange(Observer observer) {
    Token token = nextToken_++;
    observers_.emplace_back(token, std::move(observer));
    return token;
}

void Event::disconnect(Token token) {
    std::erase_if(observers_, [token](const auto& o) { return o.first == token; });
}

void Event::willChange() {
    auto observers = observers_; // an observer may unsubscribe itself
    for (const auto& [token, observer] : observers) {
        observer();
    }
}

std::string_view Event::displayName() const {
    if (alias_ && !alias_->empty()) {
        return *alias_;
    }
    return name_;
}

Instant Event::dateOnly(const DayCalendar& calendar) const {
    return calendar.startOfDay(date_);
}

} // namespace almanor

#pragma once

#include "platform/Export.h"
#include "platform/Instant.h"
#include "platform/Uuid.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace almanor {

class DayCalendar;

// Whether and how an event recurs. The raw value is what the stores write.
enum class Schedule : int { none = 0, weekly = 1, monthly = 2, annually = 3 };

// How days are counted to or from an event.
enum class CountMethod : int {
    standard = 0,
    excludeWeekends = 1,
    weekendUsesFridayBefore = 2,
    weekendUsesMondayAfter = 3,
};

// Total conversions from stored integers: anything out of range is the first case, so a bad
// stored value never fails a load.
ALMANOR_EXPORT Schedule scheduleFromRawValue(std::int64_t raw);
ALMANOR_EXPORT CountMethod countMethodFromRawValue(std::int64_t raw);
inline int rawValue(Schedule s) {
    return static_cast<int>(s);
}
inline int rawValue(CountMethod m) {
    return static_cast<int>(m);
}

// The one record of the system: a named date to count towards or from. Shared by reference
// (EventPtr): the list, the window and the editor hold the same object. Two events are equal
// exactly when their ids are.
class ALMANOR_EXPORT Event {
  public:
    using Observer = std::function<void()>;
    using Token = std::uint64_t;

    Event(Uuid id, Instant date, std::string name, std::optional<std::string> alias,
          Schedule schedule, CountMethod countMethod);

    const Uuid& id() const { return id_; }
    Instant date() const { return date_; }
    const std::string& name() const { return name_; }
    const std::optional<std::string>& alias() const { return alias_; }
    Schedule schedule() const { return schedule_; }
    CountMethod countMethod() const { return countMethod_; }

    // name and alias are observable: observers are told before either changes.
    void setName(std::string name);
    void setAlias(std::optional<std::string> alias);
    void setDate(Instant date) { date_ = date; }
    void setSchedule(Schedule schedule) { schedule_ = schedule; }
    void setCountMethod(CountMethod method) { countMethod_ = method; }

    Token observeWillChange(Observer observer);
    void disconnect(Token token);

    // The label of the status text: the alias when present and not empty, else the name.
    std::string_view displayName() const;

    // The start of the calendar day of `date` in the calendar's zone.
    Instant dateOnly(const DayCalendar& calendar) const;

    friend bool operator==(const Event& a, const Event& b) { return a.id_ == b.id_; }

  private:
    void willChange();

    Uuid id_;
    Instant date_;
    std::string name_;
    std::optional<std::string> alias_;
    Schedule schedule_;
    CountMethod countMethod_;
    std::vector<std::pair<Token, Observer>> observers_;
    Token nextToken_ = 1;
};

using EventPtr = std::shared_ptr<Event>;

template <typename... Args> EventPtr makeEvent(Args&&... args) {
    return std::make_shared<Event>(std::forward<Args>(args)...);
}

} // namespace almanor

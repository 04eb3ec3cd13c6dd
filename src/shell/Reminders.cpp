#include "shell/Reminders.h"

#include "model/Utility.h"

#include <string>

namespace almanor {

namespace {

// The event's count on `day`, and the occurrence it counts to.
int countOn(const DayCalendar& calendar, const Event& event, Instant day, Instant& occurrence) {
    occurrence = Utility::occurrenceDate(calendar, day, event.date(), event.schedule());
    return Utility::dayCount(calendar, day, occurrence, event.countMethod());
}

// Milliseconds on the UTC time line: one occurrence, whatever the zone it is seen in later.
std::string value(const Instant occurrence) {
    return std::to_string(occurrence.time_since_epoch().count());
}

// The day itself under the event's id, the reminder ahead of it under a key of its own.
std::string key(const Reminders::Due& due) {
    return due.event->id().uuidString() + (due.days == 0 ? "" : ".ahead");
}

} // namespace

std::vector<Reminders::Due> Reminders::due(const std::vector<EventPtr>& events,
                                           const DayCalendar& calendar, Instant today,
                                           int daysAhead) const {
    std::vector<Due> due;
    Instant yesterday = calendar.addDays(today, -1);
    for (const auto& event : events) {
        Instant occurrence;
        Instant before;
        int count = countOn(calendar, *event, today, occurrence);
        bool wanted = count == 0 || (daysAhead > 0 && count == daysAhead);
        // Only the first day with that count: it stays 0 the day after an event with a time of
        // day (whole days are truncated), and over a weekend when weekends are not counted; a
        // later day is one the machine may have been off on.
        if (!wanted || countOn(calendar, *event, yesterday, before) == count) {
            continue;
        }
        Due candidate{event, occurrence, count};
        if (file_.string(key(candidate)) != value(occurrence)) {
            due.push_back(candidate);
        }
    }
    return due;
}

bool Reminders::remember(const Due& due) {
    return file_.setString(key(due), value(due.occurrence));
}

} // namespace almanor

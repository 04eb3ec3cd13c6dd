#include "shell/Reminders.h"

#include "model/Utility.h"

#include <string>

namespace almanor {

namespace {

bool countsToday(const DayCalendar& calendar, const Event& event, Instant day,
                 Instant& occurrence) {
    occurrence = Utility::occurrenceDate(calendar, day, event.date(), event.schedule());
    return Utility::dayCount(calendar, day, occurrence, event.countMethod()) == 0;
}

// Milliseconds on the UTC time line: one occurrence, whatever the zone it is seen in later.
std::string key(const Instant occurrence) {
    return std::to_string(occurrence.time_since_epoch().count());
}

} // namespace

std::vector<Reminders::Due> Reminders::due(const std::vector<EventPtr>& events,
                                           const DayCalendar& calendar, Instant today) const {
    std::vector<Due> due;
    Instant yesterday = calendar.addDays(today, -1);
    for (const auto& event : events) {
        // Only the first such day: the count stays 0 the day after an event with a time of day
        // (whole days are truncated), and that day is one the machine may have been off on.
        Instant occurrence;
        Instant before;
        if (!countsToday(calendar, *event, today, occurrence) ||
            countsToday(calendar, *event, yesterday, before)) {
            continue;
        }
        if (file_.string(event->id().uuidString()) != key(occurrence)) {
            due.push_back({event, occurrence});
        }
    }
    return due;
}

bool Reminders::remember(const Due& due) {
    return file_.setString(due.event->id().uuidString(), key(due.occurrence));
}

} // namespace almanor

#pragma once

#include "model/DayCalendar.h"
#include "model/Event.h"

#include <string>

namespace almanor::cli {

// One event as the command line reports it, in either output format: its next occurrence from
// today, the days to it (negative after it) and the panel's title for it.
struct EventDescription {
    const Event& event;
    Instant occurrence;
    int days;
    std::string title;
};

EventDescription describe(const Event& event, const DayCalendar& calendar, Instant today);

// The listing's line: id, local date, recurrence, counting, name (alias): title.
void appendListingLine(std::string& out, const EventDescription& d, const DayCalendar& calendar);
// The JSON object of `almanor events list --json`.
void appendJsonObject(std::string& out, const EventDescription& d);
// The "class" of `almanor status --json`: today, upcoming or past.
const char* dayClass(const EventDescription& d);

// A date as the user would have typed it: local, the time only when there is one.
std::string localText(const DayCalendar& calendar, Instant t);
// An instant in UTC with milliseconds, for scripts: 2030-01-01T09:30:15.000Z.
std::string utcText(Instant t);

} // namespace almanor::cli

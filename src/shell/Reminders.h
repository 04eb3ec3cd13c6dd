#pragma once

#include "model/DayCalendar.h"
#include "model/Event.h"
#include "platform/Export.h"
#include "platform/Instant.h"
#include "platform/SettingsFile.h"

#include <filesystem>
#include <vector>

namespace almanor {

// The notifications on an event's day, and the occurrences already notified on this machine: one
// key per event in a small file beside the settings, so that neither a restart nor a second look
// the same day notifies again. The file is the settings file's kind (atomic replacement, writers
// serialised, a damaged file read for what it still holds), so a lost or broken one costs at most
// a repeated notification.
class ALMANOR_EXPORT Reminders {
  public:
    static constexpr const char* fileName = "notified.ini";

    explicit Reminders(std::filesystem::path file) : file_(std::move(file)) {}

    struct Due {
        EventPtr event;
        Instant occurrence; // the date counted to
        int days;           // 0: the day itself; else the reminder that many days ahead
    };

    // The events whose title turned to "today!" today (it said otherwise yesterday), or to
    // `daysAhead` days when that is above 0, and whose occurrence has not been notified yet for
    // that count. A day that passed unseen (the machine off) is not caught up.
    std::vector<Due> due(const std::vector<EventPtr>& events, const DayCalendar& calendar,
                         Instant today, int daysAhead = 0) const;

    // Marks the occurrence as notified; false, after one line, when it could not be saved.
    bool remember(const Due& due);

  private:
    SettingsFile file_;
};

} // namespace almanor

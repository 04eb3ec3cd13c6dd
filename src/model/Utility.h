#pragma once

#include "model/DayCalendar.h"
#include "model/Event.h"
#include "platform/Export.h"

#include <string>
#include <string_view>

namespace almanor {

// The day counting: from an event and today to one signed number of days, and from that number
// to the text of the status item. All calendar work goes through the calendar handed in.
class ALMANOR_EXPORT Utility {
  public:
    // 00:00 of the local day that holds `now`.
    static Instant startOfToday(const DayCalendar& calendar, Instant now);

    // The date to count to or from: the event's own date until it has passed, then the next
    // occurrence after today for recurring events.
    static Instant occurrenceDate(const DayCalendar& calendar, Instant today, Instant date,
                                  Schedule schedule);

    // Signed days from today to the target; past targets count both their day and today.
    static int dayCount(const DayCalendar& calendar, Instant today, Instant target,
                        CountMethod countMethod);

    // Signed number of weekdays between two dates, by whole weeks plus the partial weeks at
    // both ends.
    static int weekdaysBetween(const DayCalendar& calendar, Instant a, Instant b);

    // Days from start to end after moving end off a weekend by `step` days (-1 or +1).
    static int weekendAdjustedCount(const DayCalendar& calendar, Instant start, Instant end,
                                    int step);

    // "Holiday 12 days", "Holiday today!", "Holiday 3 days ago"; one line whatever the label
    // holds, its control characters written as spaces.
    static std::string statusText(std::string_view label, int count);
    static std::string statusText(const DayCalendar& calendar, std::string_view label,
                                  Instant today, Instant target, CountMethod countMethod);

    // The whole chain for one event: occurrence from today, count, text.
    static std::string statusText(const DayCalendar& calendar, const Event& event, Instant today);
};

} // namespace almanor

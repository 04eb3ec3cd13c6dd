#include "model/Utility.h"

#include "model/Text.h"
#include "platform/Fatal.h"
#include "platform/Translation.h"

namespace almanor {

namespace {

constexpr int sunday = 1;
constexpr int monday = 2;
constexpr int saturday = 7;

bool isWeekend(int weekday) {
    return weekday == saturday || weekday == sunday;
}

// Overflow in the day sums is a programming error, never a wrapped count.
int add(int a, int b) {
    int r = 0;
    if (__builtin_add_overflow(a, b, &r)) {
        fatalError("Almanor/Utility", __LINE__, "Day count overflow");
    }
    return r;
}
int sub(int a, int b) {
    int r = 0;
    if (__builtin_sub_overflow(a, b, &r)) {
        fatalError("Almanor/Utility", __LINE__, "Day count overflow");
    }
    return r;
}
int mul(int a, int b) {
    int r = 0;
    if (__builtin_mul_overflow(a, b, &r)) {
        fatalError("Almanor/Utility", __LINE__, "Day count overflow");
    }
    return r;
}

// The past counts one day more than the difference: both the event's day and today.
int pastAdjusted(int d) {
    return d < 0 ? sub(d, 1) : d;
}

} // namespace

Instant Utility::startOfToday(const DayCalendar& calendar, Instant now) {
    return calendar.startOfDay(now);
}

Instant Utility::occurrenceDate(const DayCalendar& calendar, Instant today, Instant date,
                                Schedule schedule) {
    if (schedule == Schedule::none || date > today) {
        return date;
    }
    switch (schedule) {
    case Schedule::weekly: {
        int e = calendar.weekday(date);
        int t = calendar.weekday(today);
        if (t < e) {
            return calendar.addDays(today, e - t);
        }
        if (t == e) {
            return calendar.addDays(today, 7);
        }
        // Lands on the coming Sunday whatever the event's weekday: kept as designed.
        return calendar.addDays(today, 8 - t);
    }
    case Schedule::monthly:
        // Added to the event's own date in one step, so the 31st comes back after short months.
        return calendar.addMonths(date, add(calendar.monthsBetween(date, today), 1));
    case Schedule::annually:
        return calendar.addYears(date, add(calendar.yearsBetween(date, today), 1));
    case Schedule::none:
        break;
    }
    return date;
}

int Utility::dayCount(const DayCalendar& calendar, Instant today, Instant target,
                      CountMethod countMethod) {
    switch (countMethod) {
    case CountMethod::excludeWeekends:
        return weekdaysBetween(calendar, today, target);
    case CountMethod::weekendUsesFridayBefore:
        return weekendAdjustedCount(calendar, today, target, -1);
    case CountMethod::weekendUsesMondayAfter:
        return weekendAdjustedCount(calendar, today, target, +1);
    case CountMethod::standard:
        break;
    }
    return pastAdjusted(calendar.daysBetween(today, target));
}

int Utility::weekendAdjustedCount(const DayCalendar& calendar, Instant start, Instant end,
                                  int step) {
    Instant c = end;
    while (isWeekend(calendar.weekday(c))) {
        c = calendar.addDays(c, step);
    }
    return pastAdjusted(calendar.daysBetween(start, c));
}

int Utility::weekdaysBetween(const DayCalendar& calendar, Instant a, Instant b) {
    int sign = 1;
    Instant lo = a;
    Instant hi = b;
    bool swapped = false;
    if (a > b) {
        lo = b;
        hi = a;
        sign = -1;
        swapped = true;
    }

    // Head: from lo up to the first Monday on or after it; the count starts at 1 by design.
    Instant cur = lo;
    int n = 1;
    for (int wd = calendar.weekday(cur); wd != monday; wd = calendar.weekday(cur)) {
        if (!isWeekend(wd)) {
            n = add(n, 1);
        }
        cur = calendar.addDays(cur, 1);
    }

    // Tail: weekdays from hi (included) up to the first Sunday on or after it.
    Instant end = hi;
    int t = 0;
    for (int wd = calendar.weekday(end); wd != sunday; wd = calendar.weekday(end)) {
        if (wd != saturday) {
            t = add(t, 1);
        }
        end = calendar.addDays(end, 1);
    }

    int w = calendar.daysBetween(cur, end);
    int r = sub(add(mul(add(w, 1) / 7, 5), n), t);
    if (isWeekend(calendar.weekday(hi))) {
        r = sub(r, 1);
    }
    // Only going forward: the past thus counts today as well, like the standard method.
    if (!swapped && !isWeekend(calendar.weekday(lo))) {
        r = sub(r, 1);
    }
    return mul(r, sign);
}

std::string Utility::statusText(std::string_view label, int count) {
    bool past = count < 0;
    if (past) {
        count = sub(0, count);
    }
    // Status bars read the first line only: a name pasted with a line break stays on one.
    std::string text = controlsAsSpaces(label);
    text += ' ';
    if (count == 0) {
        text += _("today!");
        return text;
    }
    // One message per direction: languages decline the count differently after "ago" (vor 3
    // Tagen, před 3 dny).
    const char* days = past ? P_("%d day ago", "%d days ago", static_cast<unsigned long>(count))
                            : P_("%d day", "%d days", static_cast<unsigned long>(count));
    text += formatText(days, {std::to_string(count)});
    return text;
}

std::string Utility::statusText(const DayCalendar& calendar, std::string_view label, Instant today,
                                Instant target, CountMethod countMethod) {
    return statusText(label, dayCount(calendar, today, target, countMethod));
}

std::string Utility::statusText(const DayCalendar& calendar, const Event& event, Instant today) {
    Instant target = occurrenceDate(calendar, today, event.date(), event.schedule());
    return statusText(calendar, event.displayName(), today, target, event.countMethod());
}

} // namespace almanor

#include "cli/EventDescription.h"

#include "cli/TextEscapes.h"
#include "model/EventNames.h"
#include "model/Utility.h"

#include <cstdio>

namespace almanor::cli {

using namespace std::chrono;

EventDescription describe(const Event& event, const DayCalendar& calendar, Instant today) {
    Instant occurrence = Utility::occurrenceDate(calendar, today, event.date(), event.schedule());
    int days = Utility::dayCount(calendar, today, occurrence, event.countMethod());
    return {event, occurrence, days, Utility::statusText(event.displayName(), days)};
}

void appendListingLine(std::string& out, const EventDescription& d, const DayCalendar& calendar) {
    const Event& e = d.event;
    char columns[160];
    std::snprintf(columns, sizeof columns, "%s  %-16s  %-8s  %-16s  ", e.id().uuidString().c_str(),
                  localText(calendar, e.date()).c_str(), spelling(e.schedule()).data(),
                  spelling(e.countMethod()).data());
    out += columns;
    appendListingText(out, e.name());
    if (e.alias() && !e.alias()->empty()) {
        out += " (";
        appendListingText(out, *e.alias());
        out += ')';
    }
    out += ": ";
    appendListingText(out, d.title);
    out += '\n';
}

void appendJsonObject(std::string& out, const EventDescription& d) {
    const Event& e = d.event;
    out += "{\"id\":\"" + e.id().uuidString() + "\",\"name\":";
    appendJsonString(out, e.name());
    out += ",\"alias\":";
    if (e.alias()) {
        appendJsonString(out, *e.alias());
    } else {
        out += "null";
    }
    out += ",\"date\":\"" + utcText(e.date()) + "\",\"occurrence\":\"" + utcText(d.occurrence) +
           "\",\"schedule\":\"";
    out += spelling(e.schedule());
    out += "\",\"count\":\"";
    out += spelling(e.countMethod());
    out += "\",\"days\":" + std::to_string(d.days) + ",\"title\":";
    appendJsonString(out, d.title);
    out += '}';
}

const char* dayClass(const EventDescription& d) {
    return d.days == 0 ? "today" : d.days > 0 ? "upcoming" : "past";
}

std::string localText(const DayCalendar& calendar, Instant t) {
    LocalTime wall = calendar.localTime(t);
    auto day = floor<days>(wall);
    year_month_day ymd{day};
    hh_mm_ss<milliseconds> time{wall - day};
    char buffer[48];
    int n = std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02u", int(ymd.year()),
                          unsigned(ymd.month()), unsigned(ymd.day()));
    if (time.to_duration().count() != 0) {
        n += std::snprintf(buffer + n, sizeof buffer - std::size_t(n), " %02d:%02d",
                           int(time.hours().count()), int(time.minutes().count()));
        if (time.seconds().count() != 0 || time.subseconds().count() != 0) {
            std::snprintf(buffer + n, sizeof buffer - std::size_t(n), ":%02d",
                          int(time.seconds().count()));
        }
    }
    return buffer;
}

std::string utcText(Instant t) {
    auto day = floor<days>(t);
    year_month_day ymd{day};
    hh_mm_ss<milliseconds> time{t - day};
    char buffer[48];
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", int(ymd.year()),
                  unsigned(ymd.month()), unsigned(ymd.day()), int(time.hours().count()),
                  int(time.minutes().count()), int(time.seconds().count()),
                  int(time.subseconds().count()));
    return buffer;
}

} // namespace almanor::cli

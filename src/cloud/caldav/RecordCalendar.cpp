#include "cloud/caldav/RecordCalendar.h"

#include "cloud/CloudService.h"
#include "model/Text.h"
#include "platform/Translation.h"
#include "platform/Utf8.h"

#include <array>
#include <charconv>
#include <ctime>
#include <glib.h>
#include <libical/ical.h>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <vector>

namespace almanor::caldav {

namespace {

constexpr std::string_view recordTypeProperty = "X-CD-RECORD-TYPE";
// What this program last wrote into the properties a calendar app edits, and LAST-MODIFIED to the
// millisecond: a SUMMARY or DTSTART that differs from its copy was edited by an app.
constexpr std::string_view summaryCopyProperty = "X-CD-SHOWN-SUMMARY";
constexpr std::string_view dateCopyProperty = "X-CD-SHOWN-DATE";
constexpr std::string_view modifiedCopyProperty = "X-CD-MODIFIED-MS";
constexpr const char* keyParameter = "X-CD-KEY";
constexpr const char* typeParameter = "X-CD-TYPE";

struct ComponentDeleter {
    void operator()(icalcomponent* c) const { icalcomponent_free(c); }
};
using ComponentPtr = std::unique_ptr<icalcomponent, ComponentDeleter>;
struct BufferDeleter {
    void operator()(char* s) const { icalmemory_free_buffer(s); }
};
using BufferPtr = std::unique_ptr<char, BufferDeleter>;
struct TimeZoneDeleter {
    void operator()(GTimeZone* z) const { g_time_zone_unref(z); }
};
using TimeZonePtr = std::unique_ptr<GTimeZone, TimeZoneDeleter>;
struct DateTimeDeleter {
    void operator()(GDateTime* t) const { g_date_time_unref(t); }
};
using DateTimePtr = std::unique_ptr<GDateTime, DateTimeDeleter>;

// The one place that turns libical's failure into an error.
[[noreturn]] void failIcal(const char* what) {
    std::string message = std::string("unreadable event from the server: ") + what;
    if (icalerrno != ICAL_NO_ERROR)
        message += std::string(" (") + icalerror_strerror(icalerrno) + ")";
    icalerror_clear_errno();
    throw CloudError(message);
}

void quietOnce() {
    static std::once_flag once;
    std::call_once(once, [] { icalerror_set_errors_are_fatal(0); });
}

// TEXT can carry line feeds and tabs but no other control character; such values travel in base64.
// A backslash before an n also goes in base64: one server's re-serialisation turns the escaped
// pair back into a line break.
bool fitsText(std::string_view s) {
    for (std::size_t i = 0; i + 1 < s.size(); ++i)
        if (s[i] == '\\' && (s[i + 1] == 'n' || s[i + 1] == 'N'))
            return false;
    for (unsigned char c : s)
        if ((c < 0x20 && c != '\n' && c != '\t') || c == 0x7F)
            return false;
    return utf8::isValid(s);
}

constexpr std::string_view base64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

unsigned byte(char c) {
    return static_cast<unsigned char>(c);
}

std::string base64(std::string_view in) {
    std::string out;
    std::size_t i = 0;
    for (; i + 2 < in.size(); i += 3) {
        unsigned v = byte(in[i]) << 16 | byte(in[i + 1]) << 8 | byte(in[i + 2]);
        for (int s = 18; s >= 0; s -= 6)
            out += base64Alphabet[(v >> s) & 63];
    }
    if (i < in.size()) {
        unsigned v = byte(in[i]) << 16 | (i + 1 < in.size() ? byte(in[i + 1]) << 8 : 0u);
        out += base64Alphabet[(v >> 18) & 63];
        out += base64Alphabet[(v >> 12) & 63];
        out += i + 1 < in.size() ? base64Alphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::optional<std::string> unbase64(std::string_view in) {
    if (in.size() % 4 != 0)
        return std::nullopt;
    std::string out;
    unsigned v = 0;
    int bits = 0;
    std::size_t pad = 0;
    for (std::size_t i = 0; i < in.size(); ++i) {
        char c = in[i];
        if (c == '=') {
            if (i < in.size() - 2)
                return std::nullopt;
            ++pad;
            continue;
        }
        if (pad != 0)
            return std::nullopt;
        auto pos = base64Alphabet.find(c);
        if (pos == std::string_view::npos)
            return std::nullopt;
        v = (v << 6) | unsigned(pos);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += char((v >> bits) & 0xFF);
        }
    }
    return out;
}

std::string propertyName(std::string_view key) {
    std::string name = "X-CD-";
    std::string_view rest = key.substr(0, 3) == "CD_" ? key.substr(3) : key;
    for (unsigned char c : rest)
        name += g_ascii_isalnum(char(c)) ? g_ascii_toupper(char(c)) : '-';
    return name;
}

// Field names travel in a parameter value, which cannot carry these.
void checkKey(std::string_view key) {
    for (unsigned char c : key)
        if (c < 0x20 || c == '"' || c == 0x7F)
            throw CloudError("a field name that iCalendar cannot carry");
}

constexpr std::array<const char*, 7> weekdays = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};

template <typename T> const T* field(const CloudRecord& record, const char* key) {
    auto it = record.fields.find(key);
    return it == record.fields.end() ? nullptr : std::get_if<T>(&it->second);
}

// The rule that puts a recurring event on the days its count goes to: the last day of a shorter
// month for days past the 28th (BYMONTHDAY=31 alone would skip those months), and 28 February in
// common years for 29 February.
std::string recurrenceRule(std::int64_t schedule, std::chrono::year_month_day day) {
    const unsigned mday = unsigned(day.day());
    const unsigned month = unsigned(day.month());
    switch (schedule) {
    case 1:
        return std::string("FREQ=WEEKLY;BYDAY=") +
               weekdays[std::chrono::weekday(std::chrono::sys_days(day)).c_encoding()];
    case 2:
        if (mday <= 28)
            return "FREQ=MONTHLY;BYMONTHDAY=" + std::to_string(mday);
        return "FREQ=MONTHLY;BYMONTHDAY=" + std::to_string(mday) + ",-1;BYSETPOS=1";
    case 3:
        if (month == 2 && mday == 29)
            return "FREQ=YEARLY;BYMONTH=2;BYMONTHDAY=29,-1;BYSETPOS=1";
        return "FREQ=YEARLY;BYMONTH=" + std::to_string(month) +
               ";BYMONTHDAY=" + std::to_string(mday);
    default:
        return {};
    }
}

// A rule as libical writes it, whatever order its parts came in; the week's start matters to
// none of the rules read as a schedule.
std::string ruleText(icalrecurrencetype rule) {
    rule.week_start = ICAL_MONDAY_WEEKDAY;
    BufferPtr text(icalrecurrencetype_as_string_r(&rule));
    return text ? std::string(text.get()) : std::string();
}

// The schedule a calendar app's rule stands for: FREQ=WEEKLY, MONTHLY or YEARLY alone, or with
// only the parts that restate the start's own day as ours do; nullopt for any other rule (an
// interval, a count, an end, other days).
std::optional<std::int64_t> scheduleOfRule(const icalrecurrencetype& rule,
                                           std::chrono::year_month_day start) {
    std::int64_t schedule = 0;
    std::string bare;
    switch (rule.freq) {
    case ICAL_WEEKLY_RECURRENCE:
        schedule = 1, bare = "FREQ=WEEKLY";
        break;
    case ICAL_MONTHLY_RECURRENCE:
        schedule = 2, bare = "FREQ=MONTHLY";
        break;
    case ICAL_YEARLY_RECURRENCE:
        schedule = 3, bare = "FREQ=YEARLY";
        break;
    default:
        return std::nullopt;
    }
    const std::string text = ruleText(rule);
    if (text == bare ||
        text == ruleText(icalrecurrencetype_from_string(recurrenceRule(schedule, start).c_str())) ||
        (schedule == 3 && text == bare + ";BYMONTH=" + std::to_string(unsigned(start.month()))))
        return schedule;
    return std::nullopt;
}

template <typename T> std::optional<T> number(std::string_view s) {
    T value{};
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
    if (ec != std::errc() || end != s.data() + s.size() || s.empty())
        return std::nullopt;
    return value;
}

std::optional<FieldValue> readValue(std::string_view type, std::string_view value) {
    if (type == "TEXT")
        return FieldValue(std::string(value));
    if (type == "EMPTY")
        return FieldValue(std::string());
    if (type == "BASE64") {
        if (auto decoded = unbase64(value))
            return FieldValue(std::move(*decoded));
        return std::nullopt;
    }
    if (type == "INTEGER") {
        if (auto n = number<std::int64_t>(value))
            return FieldValue(*n);
        return std::nullopt;
    }
    if (type == "FLOAT") {
        if (auto d = number<double>(value))
            return FieldValue(*d);
        return std::nullopt;
    }
    if (type == "TIMESTAMP") {
        if (auto ms = number<std::int64_t>(value))
            return FieldValue(Instant(std::chrono::milliseconds(*ms)));
        return std::nullopt;
    }
    return std::nullopt;
}

std::string_view parameterOf(icalproperty* property, const char* name) {
    for (icalparameter* p = icalproperty_get_first_parameter(property, ICAL_X_PARAMETER);
         p != nullptr; p = icalproperty_get_next_parameter(property, ICAL_X_PARAMETER)) {
        const char* xname = icalparameter_get_xname(p);
        const char* xvalue = icalparameter_get_xvalue(p);
        if (xname != nullptr && xvalue != nullptr && g_ascii_strcasecmp(xname, name) == 0)
            return xvalue;
    }
    return {};
}

} // namespace

std::string escapeText(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (char c : value) {
        switch (c) {
        case '\\':
            out += "\\\\";
            break;
        case ';':
            out += "\\;";
            break;
        case ',':
            out += "\\,";
            break;
        case '\n':
            out += "\\n";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::string foldLine(std::string_view line) {
    std::string out;
    std::size_t width = 0; // octets on the current physical line
    std::size_t i = 0;
    while (i < line.size()) {
        auto c = static_cast<unsigned char>(line[i]);
        std::size_t n = c < 0x80           ? 1
                        : (c >> 5) == 0x6  ? 2
                        : (c >> 4) == 0xE  ? 3
                        : (c >> 3) == 0x1E ? 4
                                           : 1;
        n = std::min(n, line.size() - i);
        if (width + n > 75) {
            out += "\r\n ";
            width = 1;
        }
        out.append(line.substr(i, n));
        width += n;
        i += n;
    }
    return out;
}

namespace {

// A zone of the system's time-zone database (TZDIR honoured); null for a name that is none of
// its zones, a path or an offset.
TimeZonePtr systemZone(std::string_view name) {
    if (name.empty() || name.front() == '/' || name.find("..") != std::string_view::npos)
        return nullptr;
    for (unsigned char c : name)
        if (!g_ascii_isalnum(char(c)) && c != '/' && c != '_' && c != '-' && c != '+')
            return nullptr;
    return TimeZonePtr(g_time_zone_new_identifier(std::string(name).c_str()));
}

// When a time happens: in UTC; with a TZID, in the zone that the resource's VTIMEZONE of that
// name describes, else in the system's zone of that name; a day, a floating time or a zone known
// nowhere, in the user's own zone.
std::optional<Instant> instantOf(const icaltimetype& t, const std::string& tzid = {},
                                 icalcomponent* root = nullptr) {
    if (icaltime_is_null_time(t) || !icaltime_is_valid_time(t))
        return std::nullopt;
    if (!t.is_date && t.zone != nullptr)
        return Instant(std::chrono::seconds(icaltime_as_timet_with_zone(t, t.zone)));
    if (!t.is_date && !tzid.empty()) {
        if (icaltimezone* zone = root ? icalcomponent_get_timezone(root, tzid.c_str()) : nullptr)
            return Instant(std::chrono::seconds(icaltime_as_timet_with_zone(t, zone)));
        if (TimeZonePtr zone = systemZone(tzid)) {
            DateTimePtr at(
                g_date_time_new(zone.get(), t.year, t.month, t.day, t.hour, t.minute, t.second));
            if (at)
                return Instant(std::chrono::seconds(g_date_time_to_unix(at.get())));
        }
    }
    std::tm tm{};
    tm.tm_year = t.year - 1900;
    tm.tm_mon = t.month - 1;
    tm.tm_mday = t.day;
    tm.tm_hour = t.is_date ? 0 : t.hour;
    tm.tm_min = t.is_date ? 0 : t.minute;
    tm.tm_sec = t.is_date ? 0 : t.second;
    tm.tm_isdst = -1;
    return Instant(std::chrono::seconds(std::mktime(&tm)));
}

std::optional<std::chrono::year_month_day> dateOf(const icaltimetype& t) {
    std::chrono::year_month_day day{std::chrono::year{t.year},
                                    std::chrono::month{unsigned(t.month)},
                                    std::chrono::day{unsigned(t.day)}};
    if (icaltime_is_null_time(t) || !day.ok())
        return std::nullopt;
    return day;
}

std::optional<std::chrono::sys_days> dayOf(std::string_view yyyymmdd) {
    // What a server sends is checked before it is cut up.
    if (yyyymmdd.size() != 8)
        return std::nullopt;
    auto y = number<int>(yyyymmdd.substr(0, 4));
    auto m = number<unsigned>(yyyymmdd.substr(4, 2));
    auto d = number<unsigned>(yyyymmdd.substr(6, 2));
    if (!y || !m || !d)
        return std::nullopt;
    std::chrono::year_month_day day{std::chrono::year{*y}, std::chrono::month{*m},
                                    std::chrono::day{*d}};
    if (!day.ok())
        return std::nullopt;
    return std::chrono::sys_days(day);
}

// The user's calendar day at `at`.
std::chrono::year_month_day localDay(Instant at) {
    std::time_t secs = std::chrono::floor<std::chrono::seconds>(at).time_since_epoch().count();
    std::tm tm{};
    localtime_r(&secs, &tm);
    return {std::chrono::year{tm.tm_year + 1900}, std::chrono::month{unsigned(tm.tm_mon + 1)},
            std::chrono::day{unsigned(tm.tm_mday)}};
}

// The same local time of day, `days` calendar days later (DST changes keep the wall time).
Instant movedByDays(Instant at, long days) {
    auto secs = std::chrono::floor<std::chrono::seconds>(at);
    auto rest = at - secs;
    std::time_t t = secs.time_since_epoch().count();
    std::tm tm{};
    localtime_r(&t, &tm);
    tm.tm_mday += int(days);
    tm.tm_isdst = -1;
    return Instant(std::chrono::seconds(std::mktime(&tm))) + rest;
}

struct ReadEvent {
    std::optional<CloudRecord> record; // nullopt: no VEVENT, or one of another type
    bool foreign = false;              // a VEVENT without the record's fields
    std::string unkept; // why no event stands for a foreign one: its date or its recurrence
};

// What a VEVENT's properties say, before it becomes a record.
struct EventProperties {
    CloudRecord record; // its id, type and fields
    bool typed = false; // it carries the record type: one of ours
    std::optional<std::string> summary;
    std::optional<icaltimetype> start;
    std::string startZone; // DTSTART's TZID
    int rules = 0;
    std::optional<icalrecurrencetype> rule;
    std::optional<Instant> stamp;
    std::optional<Instant> lastModified;
    std::optional<std::string> summaryCopy;
    std::optional<std::string> dateCopy;
    std::optional<std::int64_t> modifiedCopy;
};

// One X- property: the record type, a copy of what calendar apps show, or a field. Returns false
// for a record of another type.
bool readRecordProperty(icalproperty* p, const std::string& recordType, EventProperties& read) {
    const char* name = icalproperty_get_x_name(p);
    const char* value = icalproperty_get_x(p);
    if (name == nullptr || value == nullptr)
        return true;
    if (g_ascii_strcasecmp(name, recordTypeProperty.data()) == 0) {
        if (value != recordType)
            return false;
        read.record.recordType = value;
        read.typed = true;
    } else if (g_ascii_strcasecmp(name, summaryCopyProperty.data()) == 0) {
        read.summaryCopy = unbase64(value);
    } else if (g_ascii_strcasecmp(name, dateCopyProperty.data()) == 0) {
        read.dateCopy = value;
    } else if (g_ascii_strcasecmp(name, modifiedCopyProperty.data()) == 0) {
        read.modifiedCopy = number<std::int64_t>(value);
    } else if (std::string_view key = parameterOf(p, keyParameter); !key.empty()) {
        if (auto v = readValue(parameterOf(p, typeParameter), value))
            read.record.fields[std::string(key)] = std::move(*v);
    }
    return true;
}

// The event's properties; nullopt when it is a record of another type.
std::optional<EventProperties> readProperties(icalcomponent* event, const std::string& recordType) {
    EventProperties read;
    for (icalproperty* p = icalcomponent_get_first_property(event, ICAL_ANY_PROPERTY); p != nullptr;
         p = icalcomponent_get_next_property(event, ICAL_ANY_PROPERTY)) {
        switch (icalproperty_isa(p)) {
        case ICAL_UID_PROPERTY:
            if (const char* uid = icalproperty_get_uid(p))
                read.record.recordId.recordName = uid;
            break;
        case ICAL_SUMMARY_PROPERTY:
            if (const char* value = icalproperty_get_summary(p))
                read.summary = value;
            break;
        case ICAL_DTSTART_PROPERTY:
            read.start = icalproperty_get_dtstart(p);
            if (icalparameter* zone = icalproperty_get_first_parameter(p, ICAL_TZID_PARAMETER))
                if (const char* tzid = icalparameter_get_tzid(zone))
                    read.startZone = tzid;
            break;
        case ICAL_RRULE_PROPERTY:
            ++read.rules;
            read.rule = icalproperty_get_rrule(p);
            break;
        case ICAL_DTSTAMP_PROPERTY:
            read.stamp = instantOf(icalproperty_get_dtstamp(p));
            break;
        case ICAL_LASTMODIFIED_PROPERTY:
            read.lastModified = instantOf(icalproperty_get_lastmodified(p));
            break;
        case ICAL_X_PROPERTY:
            if (!readRecordProperty(p, recordType, read))
                return std::nullopt;
            break;
        default:
            break;
        }
    }
    return read;
}

// A calendar app's edits of what it shows, into our own record. What servers do to a value is no
// edit: some drop the blanks at either end, one turns a backslash before an n into a line break.
void takeCalendarEdits(EventProperties& read) {
    auto plain = [](std::string v) {
        for (auto at = v.find('\\'); at != std::string::npos; at = v.find('\\', at))
            if (at + 1 < v.size() && (v[at + 1] == 'n' || v[at + 1] == 'N'))
                v.replace(at, 2, "\n");
            else
                ++at;
        return trimmed(v);
    };
    CloudRecord& record = read.record;
    if (read.summary && read.summaryCopy && plain(*read.summary) != plain(*read.summaryCopy))
        record.fields["CD_name"] = *read.summary;
    auto field = record.fields.find("CD_date");
    auto* date = field == record.fields.end() ? nullptr : std::get_if<Instant>(&field->second);
    const std::optional<icaltimetype>& start = read.start;
    if (date != nullptr && start && read.dateCopy) {
        auto now = dateOf(*start);
        auto before = dayOf(*read.dateCopy);
        if (now && before && std::chrono::sys_days(*now) != *before)
            *date = movedByDays(*date, (std::chrono::sys_days(*now) - *before).count());
    }
}

// The event a resource is about: the first that overrides no single occurrence (RECURRENCE-ID).
icalcomponent* mainEvent(icalcomponent* root) {
    if (icalcomponent_isa(root) == ICAL_VEVENT_COMPONENT)
        return root;
    icalcomponent* first = nullptr;
    for (icalcomponent* c = icalcomponent_get_first_component(root, ICAL_VEVENT_COMPONENT);
         c != nullptr; c = icalcomponent_get_next_component(root, ICAL_VEVENT_COMPONENT)) {
        if (icalcomponent_get_first_property(c, ICAL_RECURRENCEID_PROPERTY) == nullptr)
            return c;
        if (first == nullptr)
            first = c;
    }
    return first;
}

ComponentPtr parse(std::string_view text) {
    quietOnce();
    icalerror_clear_errno();
    std::string copy(text); // the parser wants a terminated string
    ComponentPtr root(icalparser_parse_string(copy.c_str()));
    if (!root)
        failIcal("not iCalendar");
    return root;
}

// Why a calendar app's recurrence is none of the schedules; empty when it is one.
std::string unkeptRecurrence(const EventProperties& read, std::chrono::year_month_day start) {
    if (read.rules == 0)
        return {};
    if (read.rules > 1)
        return formatText(P_("it repeats by %d rule at once", "it repeats by %d rules at once",
                             static_cast<unsigned long>(read.rules)),
                          {std::to_string(read.rules)});
    const icalrecurrencetype& rule = *read.rule;
    const auto interval = static_cast<unsigned long>(std::max<short>(rule.interval, 1));
    // TRANSLATORS: a calendar file's event repeats every few weeks, months or years.
    const char* every =
        rule.freq == ICAL_WEEKLY_RECURRENCE
            ? P_("it repeats every %d week", "it repeats every %d weeks", interval)
        : rule.freq == ICAL_MONTHLY_RECURRENCE
            ? P_("it repeats every %d month", "it repeats every %d months", interval)
        : rule.freq == ICAL_YEARLY_RECURRENCE
            ? P_("it repeats every %d year", "it repeats every %d years", interval)
            : nullptr;
    if (every == nullptr) {
        std::string freq =
            icalrecur_freq_to_string(rule.freq) ? icalrecur_freq_to_string(rule.freq) : "?";
        for (char& c : freq)
            c = g_ascii_tolower(c);
        // TRANSLATORS: %s is the file's own word for it (daily, hourly, ...), kept as it is.
        return formatText(_("it repeats %s; only weekly, monthly and yearly ones are kept"),
                          {freq});
    }
    if (rule.interval > 1)
        return formatText(every, {std::to_string(rule.interval)});
    if (rule.count > 0 || !icaltime_is_null_time(rule.until))
        return _("its repetition ends; Almanor's go on for ever");
    if (!scheduleOfRule(rule, start))
        return formatText(_("it repeats on days of its own (RRULE:%s)"), {ruleText(rule)});
    return {};
}

ReadEvent readEvent(icalcomponent* root, icalcomponent* event, const std::string& recordType,
                    const std::string& zoneName) {
    std::optional<EventProperties> read = readProperties(event, recordType);
    if (!read)
        return {};

    CloudRecord& record = read->record;
    record.recordId.zoneName = zoneName;
    std::string unkept;
    // LAST-MODIFIED has whole seconds: the copy with milliseconds stands for it while they agree.
    const std::optional<Instant>& lastModified = read->lastModified;
    const std::optional<std::int64_t>& modifiedCopy = read->modifiedCopy;
    if (lastModified && modifiedCopy &&
        std::chrono::floor<std::chrono::seconds>(
            Instant(std::chrono::milliseconds(*modifiedCopy))) == *lastModified)
        record.modified = Instant(std::chrono::milliseconds(*modifiedCopy));
    else
        record.modified = lastModified ? lastModified : read->stamp;
    if (read->typed) {
        takeCalendarEdits(*read);
    } else {
        record.recordType = recordType;
        if (read->summary)
            record.fields["CD_name"] = *read->summary;
        if (read->start) {
            if (auto at = instantOf(*read->start, read->startZone, root))
                record.fields["CD_date"] = *at;
            if (auto day = dateOf(*read->start)) {
                if (read->rules == 1)
                    if (auto schedule = scheduleOfRule(*read->rule, *day))
                        record.fields["CD_recurring"] = *schedule;
                unkept = unkeptRecurrence(*read, *day);
            } else {
                unkept = _("its date does not exist"); // 29 February of a common year, say
            }
        }
    }
    return {std::move(record), !read->typed, std::move(unkept)};
}

// The event a resource is about (mainEvent).
ReadEvent readEvent(icalcomponent* root, const std::string& recordType,
                    const std::string& zoneName) {
    icalcomponent* event = mainEvent(root);
    if (event == nullptr)
        return {};
    return readEvent(root, event, recordType, zoneName);
}

ReadEvent readEvent(std::string_view text, const std::string& recordType,
                    const std::string& zoneName) {
    ComponentPtr root = parse(text);
    return readEvent(root.get(), recordType, zoneName);
}

icalproperty* xProperty(std::string_view name, const std::string& value) {
    icalproperty* p = icalproperty_new_x(value.c_str());
    icalproperty_set_x_name(p, std::string(name).c_str());
    return p;
}

void addParameter(icalproperty* p, const char* name, const std::string& value) {
    icalparameter* parameter = icalparameter_new_x(value.c_str());
    icalparameter_set_xname(parameter, name);
    icalproperty_add_parameter(p, parameter);
}

// A field of the record as a private property whose parameters carry its key and its type; the
// value as it reads back, escaped when written.
icalproperty* fieldProperty(const std::string& key, const FieldValue& value) {
    checkKey(key);
    std::string type;
    std::string text;
    if (const auto* s = std::get_if<std::string>(&value)) {
        // An empty X- value does not survive a parser, so emptiness is said by the type.
        if (s->empty())
            type = "EMPTY", text = "-";
        else if (fitsText(*s))
            type = "TEXT", text = *s;
        else
            type = "BASE64", text = base64(*s);
    } else if (const auto* n = std::get_if<std::int64_t>(&value)) {
        type = "INTEGER", text = std::to_string(*n);
    } else if (const auto* d = std::get_if<double>(&value)) {
        std::array<char, 64> buf{};
        auto [end, ec] = std::to_chars(buf.data(), buf.data() + buf.size(), *d);
        type = "FLOAT", text.assign(buf.data(), end);
    } else if (const auto* t = std::get_if<Instant>(&value)) {
        type = "TIMESTAMP", text = std::to_string(t->time_since_epoch().count());
    }
    icalproperty* p = xProperty(propertyName(key), text);
    addParameter(p, keyParameter, key);
    addParameter(p, typeParameter, type);
    return p;
}

// The calendar as text. libical writes each property but X- ones of text, whose commas and
// semicolons it leaves bare (servers cut values there): those are escaped here.
void serialize(icalcomponent* c, std::string& out) {
    const std::string kind = icalcomponent_kind_to_string(icalcomponent_isa(c));
    out.append("BEGIN:").append(kind).append("\r\n");
    for (icalproperty* p = icalcomponent_get_first_property(c, ICAL_ANY_PROPERTY); p != nullptr;
         p = icalcomponent_get_next_property(c, ICAL_ANY_PROPERTY)) {
        icalvalue* value = icalproperty_get_value(p);
        const icalvalue_kind type = value ? icalvalue_isa(value) : ICAL_NO_VALUE;
        if (icalproperty_isa(p) == ICAL_X_PROPERTY &&
            (type == ICAL_X_VALUE || type == ICAL_TEXT_VALUE)) {
            std::string line = icalproperty_get_x_name(p);
            for (icalparameter* q = icalproperty_get_first_parameter(p, ICAL_ANY_PARAMETER);
                 q != nullptr; q = icalproperty_get_next_parameter(p, ICAL_ANY_PARAMETER)) {
                BufferPtr text(icalparameter_as_ical_string_r(q));
                if (text)
                    line.append(";").append(text.get());
            }
            const char* x =
                type == ICAL_X_VALUE ? icalvalue_get_x(value) : icalvalue_get_text(value);
            line.append(":").append(escapeText(x ? x : ""));
            out.append(foldLine(line)).append("\r\n");
        } else if (BufferPtr text{icalproperty_as_ical_string_r(p)}) {
            out.append(text.get());
        }
    }
    for (icalcomponent* child = icalcomponent_get_first_component(c, ICAL_ANY_COMPONENT);
         child != nullptr; child = icalcomponent_get_next_component(c, ICAL_ANY_COMPONENT))
        serialize(child, out);
    out.append("END:").append(kind).append("\r\n");
}

// Whether libical holds all that the resource had: it turns what it cannot read (a property of a
// name it does not know, an X- property without a value) into X-LIC-ERROR, and cannot write
// components of kinds it does not know.
bool heldWhole(icalcomponent* c) {
    const icalcomponent_kind kind = icalcomponent_isa(c);
    if (kind == ICAL_X_COMPONENT || kind == ICAL_XLICINVALID_COMPONENT ||
        kind == ICAL_NO_COMPONENT ||
        icalcomponent_get_first_property(c, ICAL_XLICERROR_PROPERTY) != nullptr)
        return false;
    for (icalcomponent* child = icalcomponent_get_first_component(c, ICAL_ANY_COMPONENT);
         child != nullptr; child = icalcomponent_get_next_component(c, ICAL_ANY_COMPONENT))
        if (!heldWhole(child))
            return false;
    return true;
}

std::optional<std::string> summaryOf(icalcomponent* event) {
    icalproperty* p = icalcomponent_get_first_property(event, ICAL_SUMMARY_PROPERTY);
    const char* text = p ? icalproperty_get_summary(p) : nullptr;
    return text ? std::optional<std::string>(text) : std::nullopt;
}

void setSummary(icalcomponent* event, const std::string& text) {
    if (icalproperty* p = icalcomponent_get_first_property(event, ICAL_SUMMARY_PROPERTY))
        icalproperty_set_summary(p, text.c_str());
    else
        icalcomponent_add_property(event, icalproperty_new_summary(text.c_str()));
}

void removeAll(icalcomponent* c, icalproperty_kind kind, bool (*which)(icalproperty*) = nullptr) {
    std::vector<icalproperty*> doomed;
    for (icalproperty* p = icalcomponent_get_first_property(c, kind); p != nullptr;
         p = icalcomponent_get_next_property(c, kind))
        if (which == nullptr || which(p))
            doomed.push_back(p);
    for (icalproperty* p : doomed) {
        icalcomponent_remove_property(c, p);
        icalproperty_free(p);
    }
}

bool ownProperty(icalproperty* p) {
    const char* name = icalproperty_get_x_name(p);
    return name != nullptr && g_ascii_strncasecmp(name, "X-CD-", 5) == 0;
}

icaltimetype utcTime(Instant t) {
    return icaltime_from_timet_with_zone(
        std::chrono::floor<std::chrono::seconds>(t).time_since_epoch().count(), 0,
        icaltimezone_get_utc_timezone());
}

std::int64_t scheduleOf(const CloudRecord& record) {
    const auto* schedule = field<std::int64_t>(record, "CD_recurring");
    return schedule && *schedule >= 0 && *schedule <= 3 ? *schedule : 0;
}

// The one RRULE's schedule when it reads as one, else 0.
std::int64_t ruleSchedule(icalcomponent* event, std::chrono::year_month_day start) {
    icalproperty* p = icalcomponent_get_first_property(event, ICAL_RRULE_PROPERTY);
    if (p == nullptr || icalcomponent_get_next_property(event, ICAL_RRULE_PROPERTY) != nullptr)
        return 0;
    return scheduleOfRule(icalproperty_get_rrule(p), start).value_or(0);
}

std::string shownName(const std::string& name) {
    std::string shown;
    for (char c : name)
        shown += (static_cast<unsigned char>(c) < 0x20 && c != '\n') ? ' ' : c;
    if (!utf8::isValid(shown))
        shown = "?";
    return shown;
}

// Moves the time of `kind` by whole days, keeping its time of day and its zone.
void moveByDays(icalcomponent* event, icalproperty_kind kind, int days) {
    icalproperty* p = icalcomponent_get_first_property(event, kind);
    if (p == nullptr)
        return;
    icaltimetype t =
        kind == ICAL_DTSTART_PROPERTY ? icalproperty_get_dtstart(p) : icalproperty_get_dtend(p);
    icaltime_adjust(&t, days, 0, 0, 0);
    if (kind == ICAL_DTSTART_PROPERTY)
        icalproperty_set_dtstart(p, t);
    else
        icalproperty_set_dtend(p, t);
}

// The SUMMARY, when the name differs from `before`'s.
void writeName(icalcomponent* root, icalcomponent* event, const CloudRecord& before,
               const CloudRecord& record) {
    const auto* name = field<std::string>(record, "CD_name");
    const auto* oldName = field<std::string>(before, "CD_name");
    if (!name || (oldName && *oldName == *name))
        return;
    const std::string shown = shownName(*name);
    const std::optional<std::string> old = summaryOf(event);
    setSummary(event, shown);
    // An occurrence that showed the event's name (one an app moved, say) takes the new one; one
    // renamed on its own keeps its name.
    for (icalcomponent* c = icalcomponent_get_first_component(root, ICAL_VEVENT_COMPONENT);
         c != nullptr; c = icalcomponent_get_next_component(root, ICAL_VEVENT_COMPONENT))
        if (c != event && old && summaryOf(c) == old)
            setSummary(c, shown);
}

// The DTSTART and DTEND, moved by the days the date moved (an event without one gets an all-day
// DTSTART on the local day), and the RRULE when the schedule differs from `before`'s.
void writeDateAndSchedule(icalcomponent* event, const CloudRecord& before,
                          const CloudRecord& record) {
    const auto* date = field<Instant>(record, "CD_date");
    const auto* oldDate = field<Instant>(before, "CD_date");
    icalproperty* start = icalcomponent_get_first_property(event, ICAL_DTSTART_PROPERTY);
    const auto oldDay = start ? dateOf(icalproperty_get_dtstart(start)) : std::nullopt;
    int days = 0;
    if (date && start == nullptr) {
        icaltimetype day = icaltime_null_date();
        const std::chrono::year_month_day local = localDay(*date);
        day.year = int(local.year());
        day.month = int(unsigned(local.month()));
        day.day = int(unsigned(local.day()));
        start = icalproperty_new_dtstart(day);
        icalcomponent_add_property(event, start);
    } else if (date && oldDate) {
        days =
            int((std::chrono::sys_days(localDay(*date)) - std::chrono::sys_days(localDay(*oldDate)))
                    .count());
        if (days != 0) {
            moveByDays(event, ICAL_DTSTART_PROPERTY, days);
            moveByDays(event, ICAL_DTEND_PROPERTY, days);
        }
    }
    const auto day = start ? dateOf(icalproperty_get_dtstart(start)) : std::nullopt;

    // A rule that reads as the schedule follows the day it moved to; any other stays as it is.
    const std::int64_t schedule = scheduleOf(record);
    const std::int64_t oldSchedule = scheduleOf(before);
    const bool follows =
        days != 0 && oldDay && oldSchedule != 0 && ruleSchedule(event, *oldDay) == oldSchedule;
    if (schedule != oldSchedule || follows) {
        removeAll(event, ICAL_RRULE_PROPERTY);
        if (std::string rule = day ? recurrenceRule(schedule, *day) : ""; !rule.empty())
            icalcomponent_add_property(
                event, icalproperty_new_rrule(icalrecurrencetype_from_string(rule.c_str())));
    }
}

// The record's own properties, with the copies of the SUMMARY and DTSTART's day as they are now,
// DTSTAMP and LAST-MODIFIED, all written anew.
void writeOwn(icalcomponent* event, const CloudRecord& record, Instant now) {
    removeAll(event, ICAL_X_PROPERTY, ownProperty);
    if (record.modified) {
        // LAST-MODIFIED has whole seconds; the private copy keeps the milliseconds.
        icalcomponent_add_property(
            event, xProperty(modifiedCopyProperty,
                             std::to_string(record.modified->time_since_epoch().count())));
    }
    icalproperty* start = icalcomponent_get_first_property(event, ICAL_DTSTART_PROPERTY);
    const auto day = start ? dateOf(icalproperty_get_dtstart(start)) : std::nullopt;
    if (field<Instant>(record, "CD_date") && day) {
        std::array<char, 16> text{};
        std::snprintf(text.data(), text.size(), "%04d%02u%02u", int(day->year()),
                      unsigned(day->month()), unsigned(day->day()));
        icalcomponent_add_property(event, xProperty(dateCopyProperty, text.data()));
    }
    if (auto summary = summaryOf(event))
        icalcomponent_add_property(event, xProperty(summaryCopyProperty, base64(*summary)));
    icalcomponent_add_property(event, xProperty(recordTypeProperty, record.recordType));
    for (const auto& [key, value] : record.fields)
        icalcomponent_add_property(event, fieldProperty(key, value));

    if (icalproperty* p = icalcomponent_get_first_property(event, ICAL_DTSTAMP_PROPERTY))
        icalproperty_set_dtstamp(p, utcTime(now));
    else
        icalcomponent_add_property(event, icalproperty_new_dtstamp(utcTime(now)));
    removeAll(event, ICAL_LASTMODIFIED_PROPERTY);
    if (record.modified)
        icalcomponent_add_property(event, icalproperty_new_lastmodified(utcTime(*record.modified)));
}

// Writes the record into `event` of `root`, changing of what calendar apps show only what differs
// between the record and `before` (what the event reads as now); everything else stays.
void writeInto(icalcomponent* root, icalcomponent* event, const CloudRecord& before,
               const CloudRecord& record, Instant now) {
    writeName(root, event, before, record);
    writeDateAndSchedule(event, before, record);
    writeOwn(event, record, now);
}

} // namespace

std::string writeRecordCalendar(const CloudRecord& record, Instant now) {
    return writeCalendar(std::span(&record, 1), now);
}

std::string writeCalendar(std::span<const CloudRecord> records, Instant now) {
    quietOnce();
    ComponentPtr root(icalcomponent_new(ICAL_VCALENDAR_COMPONENT));
    icalcomponent_add_property(root.get(), icalproperty_new_version("2.0"));
    icalcomponent_add_property(root.get(),
                               icalproperty_new_prodid("-//Almanor//Almanor for Linux//EN"));
    for (const CloudRecord& record : records) {
        icalcomponent* event = icalcomponent_new(ICAL_VEVENT_COMPONENT);
        icalcomponent_add_property(event, icalproperty_new_uid(record.recordId.recordName.c_str()));
        icalcomponent_add_component(root.get(), event);
        writeInto(root.get(), event, CloudRecord{}, record, now);
    }
    std::string out;
    serialize(root.get(), out);
    return out;
}

std::string mergeRecordCalendar(std::string_view current, const CloudRecord& record, Instant now) {
    ComponentPtr root = parse(current);
    icalcomponent* event =
        icalcomponent_isa(root.get()) == ICAL_VCALENDAR_COMPONENT ? mainEvent(root.get()) : nullptr;
    if (event == nullptr)
        throw CloudError("unreadable event from the server: no calendar with an event");
    ReadEvent read = readEvent(root.get(), record.recordType, record.recordId.zoneName);
    if (!read.record)
        throw CloudError("unreadable event from the server: no event of this zone's kind");
    if (!heldWhole(root.get()))
        throw CloudError("the event on the server holds parts that could not be written back "
                         "whole; it is left as it is");
    writeInto(root.get(), event, *read.record, record, now);
    std::string out;
    serialize(root.get(), out);
    return out;
}

std::optional<CloudRecord> readRecordCalendar(std::string_view text, const std::string& recordType,
                                              const std::string& zoneName) {
    ReadEvent read = readEvent(text, recordType, zoneName);
    if (!read.record || read.foreign || read.record->recordId.recordName.empty())
        return std::nullopt;
    return read.record;
}

CloudRecord readZoneResource(std::string_view text, const std::string& recordType,
                             const std::string& zoneName) {
    ReadEvent read = readEvent(text, recordType, zoneName);
    if (!read.record)
        throw CloudError("unreadable event from the server: no event of this zone's kind");
    if (read.record->recordId.recordName.empty())
        throw CloudError("unreadable event from the server: an event without a UID");
    return std::move(*read.record);
}

namespace {

// The calendar's last content line, unfolded and without blanks at either end.
std::string lastLine(std::string_view text) {
    std::string line;
    std::size_t end = text.size();
    while (end > 0) {
        std::size_t start = text.rfind('\n', end - 1);
        start = start == std::string_view::npos ? 0 : start + 1;
        std::string_view piece = text.substr(start, end - start);
        end = start == 0 ? 0 : start - 1;
        if (!piece.empty() && piece.back() == '\r')
            piece.remove_suffix(1);
        if (!piece.empty() && (piece.front() == ' ' || piece.front() == '\t')) {
            line.insert(0, piece.substr(1)); // a continuation of the line before it
            continue;
        }
        line.insert(0, piece);
        if (!trimmed(line).empty())
            return trimmed(line);
        line.clear();
    }
    return line;
}

std::string displayName(icalcomponent* event, const std::string& uid) {
    if (auto summary = summaryOf(event); summary && !trimmed(*summary).empty())
        return *summary;
    return uid.empty() ? std::string(_("(an event without a name or UID)"))
                       : formatText(_("UID %s"), {uid});
}

} // namespace

CalendarFile readCalendarFile(std::string_view text, const std::string& recordType,
                              const std::string& zoneName) {
    std::string_view body = text.substr(text.substr(0, 3) == "\xEF\xBB\xBF" ? 3 : 0);
    body.remove_prefix(std::min(body.find_first_not_of(" \t\r\n"), body.size()));
    if (g_ascii_strncasecmp(std::string(body.substr(0, 15)).c_str(), "BEGIN:VCALENDAR", 15) != 0 ||
        text.find('\0') != std::string_view::npos)
        throw CloudError(_("not an iCalendar file"));
    if (g_ascii_strcasecmp(lastLine(body).c_str(), "END:VCALENDAR") != 0)
        throw CloudError(_("the calendar is cut short: it does not end with END:VCALENDAR"));
    ComponentPtr root;
    try {
        root = parse(body);
    } catch (const CloudError&) {
        throw CloudError(_("not an iCalendar file: its lines could not be read"));
    }
    // Calendars one after another come inside one root.
    std::vector<icalcomponent*> calendars;
    if (icalcomponent_isa(root.get()) == ICAL_VCALENDAR_COMPONENT)
        calendars.push_back(root.get());
    for (icalcomponent* c = icalcomponent_get_first_component(root.get(), ICAL_VCALENDAR_COMPONENT);
         c != nullptr; c = icalcomponent_get_next_component(root.get(), ICAL_VCALENDAR_COMPONENT))
        calendars.push_back(c);
    if (calendars.empty())
        throw CloudError(_("not an iCalendar file"));

    CalendarFile file;
    std::unordered_set<std::string> uids;
    for (icalcomponent* calendar : calendars) {
        for (icalcomponent* event =
                 icalcomponent_get_first_component(calendar, ICAL_VEVENT_COMPONENT);
             event != nullptr;
             event = icalcomponent_get_next_component(calendar, ICAL_VEVENT_COMPONENT)) {
            // An occurrence moved or changed by an app belongs to its event's series.
            if (icalcomponent_get_first_property(event, ICAL_RECURRENCEID_PROPERTY) != nullptr)
                continue;
            const char* uid = icalcomponent_get_uid(event);
            const std::string id = uid != nullptr ? uid : "";
            auto skip = [&](std::string reason) {
                file.skipped.push_back({displayName(event, id), std::move(reason)});
            };
            ReadEvent read = readEvent(calendar, event, recordType, zoneName);
            if (!read.record)
                skip(_("it is a record of another kind"));
            else if (id.empty())
                skip(_("it has no UID"));
            else if (!uids.insert(id).second)
                skip(_("its UID is that of an event before it in the file"));
            else if (!field<Instant>(*read.record, "CD_date"))
                skip(_("it has no date"));
            else if (!read.unkept.empty())
                skip(std::move(read.unkept));
            else
                file.records.push_back(std::move(*read.record));
        }
    }
    return file;
}

} // namespace almanor::caldav

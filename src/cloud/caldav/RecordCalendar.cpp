#include "cloud/caldav/RecordCalendar.h"

#include "cloud/CloudService.h"
#include "model/Text.h"
#include "platform/Utf8.h"

#include <array>
#include <charconv>
#include <ctime>
#include <libical/ical.h>
#include <memory>
#include <mutex>
#include <strings.h>

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
        name += std::isalnum(c) ? char(std::toupper(c)) : '-';
    return name;
}

std::string parameterValue(std::string_view key) {
    for (unsigned char c : key)
        if (c < 0x20 || c == '"' || c == 0x7F)
            throw CloudError("a field name that iCalendar cannot carry");
    for (unsigned char c : key) {
        if (c == ';' || c == ':' || c == ',') {
            // Appended rather than "\"" + key: GCC 12 warns falsely (-Wrestrict) on that at -O3.
            return std::string(1, '"').append(key).append(1, '"');
        }
    }
    return std::string(key);
}

std::string utcStamp(Instant t) {
    std::time_t secs =
        std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
    std::tm tm{};
    gmtime_r(&secs, &tm);
    std::array<char, 32> buf{};
    std::strftime(buf.data(), buf.size(), "%Y%m%dT%H%M%SZ", &tm);
    return buf.data();
}

constexpr std::array<const char*, 7> weekdays = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};

void addLine(std::string& out, std::string_view line) {
    out += foldLine(line);
    out += "\r\n";
}

template <typename T> const T* field(const CloudRecord& record, const char* key) {
    auto it = record.fields.find(key);
    return it == record.fields.end() ? nullptr : std::get_if<T>(&it->second);
}

// The rule that puts a recurring event on the days its count goes to: the last day of a shorter
// month for days past the 28th (BYMONTHDAY=31 alone would skip those months), and 28 February in
// common years for 29 February.
std::string recurrenceRule(std::int64_t schedule, const std::tm& day) {
    const int mday = day.tm_mday;
    switch (schedule) {
    case 1:
        return std::string("FREQ=WEEKLY;BYDAY=") + weekdays[std::size_t(day.tm_wday)];
    case 2:
        if (mday <= 28)
            return "FREQ=MONTHLY;BYMONTHDAY=" + std::to_string(mday);
        return "FREQ=MONTHLY;BYMONTHDAY=" + std::to_string(mday) + ",-1;BYSETPOS=1";
    case 3:
        if (day.tm_mon == 1 && mday == 29)
            return "FREQ=YEARLY;BYMONTH=2;BYMONTHDAY=29,-1;BYSETPOS=1";
        return "FREQ=YEARLY;BYMONTH=" + std::to_string(day.tm_mon + 1) +
               ";BYMONTHDAY=" + std::to_string(mday);
    default:
        return {};
    }
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
        if (xname != nullptr && xvalue != nullptr && strcasecmp(xname, name) == 0)
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

// A field of the record as a private property whose parameters carry its key and its type.
std::string fieldLine(const std::string& key, const FieldValue& value) {
    std::string type;
    std::string text;
    if (const auto* s = std::get_if<std::string>(&value)) {
        // An empty X- value does not survive a parser, so emptiness is said by the type.
        if (s->empty())
            type = "EMPTY", text = "-";
        else if (fitsText(*s))
            type = "TEXT", text = escapeText(*s);
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
    return propertyName(key) + ";" + keyParameter + "=" + parameterValue(key) + ";" +
           typeParameter + "=" + type + ":" + text;
}

} // namespace

std::string writeRecordCalendar(const CloudRecord& record, Instant now) {
    std::string out;
    addLine(out, "BEGIN:VCALENDAR");
    addLine(out, "VERSION:2.0");
    addLine(out, "PRODID:-//Almanor//Almanor for Linux//EN");
    addLine(out, "BEGIN:VEVENT");
    addLine(out, "UID:" + escapeText(record.recordId.recordName));
    addLine(out, "DTSTAMP:" + utcStamp(now));
    if (record.modified) {
        // LAST-MODIFIED has whole seconds; the private copy keeps the milliseconds.
        addLine(out, "LAST-MODIFIED:" + utcStamp(*record.modified));
        addLine(out, std::string(modifiedCopyProperty) + ":" +
                         std::to_string(record.modified->time_since_epoch().count()));
    }
    if (const auto* date = field<Instant>(record, "CD_date")) {
        std::time_t secs =
            std::chrono::floor<std::chrono::seconds>(*date).time_since_epoch().count();
        std::tm day{};
        localtime_r(&secs, &day);
        std::array<char, 16> buf{};
        std::strftime(buf.data(), buf.size(), "%Y%m%d", &day);
        addLine(out, std::string("DTSTART;VALUE=DATE:") + buf.data());
        addLine(out, std::string(dateCopyProperty) + ":" + buf.data());
        if (const auto* schedule = field<std::int64_t>(record, "CD_recurring")) {
            if (std::string rule = recurrenceRule(*schedule, day); !rule.empty())
                addLine(out, "RRULE:" + rule);
        }
    }
    if (const auto* name = field<std::string>(record, "CD_name")) {
        std::string shown;
        for (char c : *name)
            shown += (static_cast<unsigned char>(c) < 0x20 && c != '\n') ? ' ' : c;
        if (!utf8::isValid(shown))
            shown = "?";
        addLine(out, "SUMMARY:" + escapeText(shown));
        addLine(out, std::string(summaryCopyProperty) + ":" + base64(shown));
    }
    addLine(out, std::string(recordTypeProperty) + ":" + escapeText(record.recordType));
    for (const auto& [key, value] : record.fields)
        addLine(out, fieldLine(key, value));
    addLine(out, "END:VEVENT");
    addLine(out, "END:VCALENDAR");
    return out;
}

namespace {

std::optional<Instant> instantOf(const icaltimetype& t) {
    if (icaltime_is_null_time(t) || !icaltime_is_valid_time(t))
        return std::nullopt;
    std::time_t secs = 0;
    if (!t.is_date && icaltime_is_utc(t)) {
        secs = icaltime_as_timet_with_zone(t, icaltimezone_get_utc_timezone());
    } else if (!t.is_date && t.zone != nullptr) {
        secs = icaltime_as_timet_with_zone(t, t.zone);
    } else {
        // A day, or a floating time: this machine's local time.
        std::tm tm{};
        tm.tm_year = t.year - 1900;
        tm.tm_mon = t.month - 1;
        tm.tm_mday = t.day;
        tm.tm_hour = t.is_date ? 0 : t.hour;
        tm.tm_min = t.is_date ? 0 : t.minute;
        tm.tm_sec = t.is_date ? 0 : t.second;
        tm.tm_isdst = -1;
        secs = std::mktime(&tm);
    }
    return Instant(std::chrono::seconds(secs));
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
};

// What a VEVENT's properties say, before it becomes a record.
struct EventProperties {
    CloudRecord record; // its id, type and fields
    bool typed = false; // it carries the record type: one of ours
    std::optional<std::string> summary;
    std::optional<icaltimetype> start;
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
    if (strcasecmp(name, recordTypeProperty.data()) == 0) {
        if (value != recordType)
            return false;
        read.record.recordType = value;
        read.typed = true;
    } else if (strcasecmp(name, summaryCopyProperty.data()) == 0) {
        read.summaryCopy = unbase64(value);
    } else if (strcasecmp(name, dateCopyProperty.data()) == 0) {
        read.dateCopy = value;
    } else if (strcasecmp(name, modifiedCopyProperty.data()) == 0) {
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
    if (date != nullptr && start && !icaltime_is_null_time(*start) && read.dateCopy) {
        std::chrono::year_month_day now{std::chrono::year{start->year},
                                        std::chrono::month{unsigned(start->month)},
                                        std::chrono::day{unsigned(start->day)}};
        auto before = dayOf(*read.dateCopy);
        if (now.ok() && before && std::chrono::sys_days(now) != *before)
            *date = movedByDays(*date, (std::chrono::sys_days(now) - *before).count());
    }
}

ReadEvent readEvent(std::string_view text, const std::string& recordType,
                    const std::string& zoneName) {
    quietOnce();
    icalerror_clear_errno();
    std::string copy(text); // the parser wants a terminated string
    ComponentPtr root(icalparser_parse_string(copy.c_str()));
    if (!root)
        failIcal("not iCalendar");
    icalcomponent* event =
        icalcomponent_isa(root.get()) == ICAL_VEVENT_COMPONENT
            ? root.get()
            : icalcomponent_get_first_component(root.get(), ICAL_VEVENT_COMPONENT);
    if (event == nullptr)
        return {};
    std::optional<EventProperties> read = readProperties(event, recordType);
    if (!read)
        return {};

    CloudRecord& record = read->record;
    record.recordId.zoneName = zoneName;
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
        if (read->start)
            if (auto at = instantOf(*read->start))
                record.fields["CD_date"] = *at;
    }
    return {std::move(record), !read->typed};
}

} // namespace

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

} // namespace almanor::caldav

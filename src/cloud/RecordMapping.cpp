#include "cloud/RecordMapping.h"

#include <cstdint>

namespace almanor {

namespace {

template <class T> const T* field(const CloudRecord& record, const char* key) {
    auto it = record.fields.find(key);
    if (it == record.fields.end())
        return nullptr;
    return std::get_if<T>(&it->second);
}

// A number as the older generation stored booleans: integer or floating-point, non-zero is true.
bool truthy(const CloudRecord& record, const char* key) {
    if (const auto* i = field<std::int64_t>(record, key))
        return *i != 0;
    if (const auto* d = field<double>(record, key))
        return *d != 0.0;
    return false;
}

CountMethod countMethodOf(const CloudRecord& record) {
    const auto* version = field<std::int64_t>(record, "CD_version");
    // Compared unsigned: a negative version counts as a new one.
    if (version && static_cast<std::uint64_t>(*version) >= 2) {
        const auto* code = field<std::int64_t>(record, "CD_countMethod");
        if (code && static_cast<std::uint64_t>(*code) <= 3)
            return static_cast<CountMethod>(*code);
        return CountMethod::standard;
    }
    return truthy(record, "CD_excludeWeekends") ? CountMethod::excludeWeekends
                                                : CountMethod::standard;
}

Schedule scheduleOf(const CloudRecord& record) {
    const auto* code = field<std::int64_t>(record, "CD_recurring");
    if (code && static_cast<std::uint64_t>(*code) <= 3)
        return static_cast<Schedule>(*code);
    return Schedule::none;
}

} // namespace

CloudRecord recordFromEvent(const CloudEvent& cloudEvent) {
    const Event& event = *cloudEvent.event;
    CloudRecord record;
    record.recordType = std::string(eventRecordType);
    record.recordId = cloudEvent.recordId.value_or(
        RecordId{Uuid::random().uuidString(), std::string(appZoneName)});
    auto& f = record.fields;
    f["CD_entityName"] = std::string("Event");
    f["CD_eventId"] = event.id().uuidString();
    f["CD_name"] = event.name();
    if (event.alias())
        f["CD_alias"] = *event.alias();
    f["CD_date"] = event.date();
    f["CD_recurring"] = std::int64_t{rawValue(event.schedule())};
    f["CD_excludeWeekends"] =
        std::int64_t{event.countMethod() == CountMethod::excludeWeekends ? 1 : 0};
    f["CD_countMethod"] = std::int64_t{rawValue(event.countMethod())};
    f["CD_version"] = std::int64_t{2};
    record.modified = cloudEvent.updated;
    return record;
}

CloudEvent eventFromRecord(const CloudRecord& record, const Clock& clock) {
    std::optional<Uuid> id;
    if (const auto* text = field<std::string>(record, "CD_eventId"))
        id = Uuid::parse(*text);
    const auto* name = field<std::string>(record, "CD_name");
    const auto* alias = field<std::string>(record, "CD_alias");
    const auto* date = field<Instant>(record, "CD_date");
    // A record without a usable id (a calendar app made it, or its id is garbled) maps to the same
    // event on every read: its id is derived from the record's name.
    Uuid eventId = id ? *id : Uuid::fromName(record.recordId.recordName);
    return CloudEvent{
        record.recordId,
        makeEvent(eventId, date ? *date : clock.now(), name ? *name : std::string("Empty"),
                  alias ? std::optional<std::string>(*alias) : std::nullopt, scheduleOf(record),
                  countMethodOf(record)),
        record.modified,
    };
}

bool sameContent(const Event& a, const Event& b) {
    return a.id() == b.id() && a.date() == b.date() && a.name() == b.name() &&
           a.alias() == b.alias() && a.schedule() == b.schedule() &&
           a.countMethod() == b.countMethod();
}

} // namespace almanor

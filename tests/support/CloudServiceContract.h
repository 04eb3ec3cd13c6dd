#pragma once

#include "cloud/CloudService.h"
#include "platform/Uuid.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>

namespace almanor::test {

// A record as this program writes one.
inline CloudRecord eventRecord(const std::string& zone, const std::string& name,
                               std::string title) {
    using namespace std::chrono;
    CloudRecord r{"CD_Event", RecordId{name, zone}, {}};
    r.fields = {{"CD_entityName", std::string("Event")},
                {"CD_eventId", Uuid::random().uuidString()},
                {"CD_name", std::move(title)},
                {"CD_date", Instant{sys_days{year{2027} / 3 / 14} + hours{9} + minutes{26}}},
                {"CD_recurring", std::int64_t{3}},
                {"CD_excludeWeekends", std::int64_t{0}},
                {"CD_countMethod", std::int64_t{2}},
                {"CD_version", std::int64_t{2}}};
    // Milliseconds: conflicts are decided on this.
    r.modified = Instant{sys_days{year{2026} / 11 / 20} + hours{10} + milliseconds{123}};
    return r;
}

// What the cloud logic relies on from any CloudService, given over an empty account with how many
// requests it has sent and how many event bodies it has read: a machine lists a new zone whole,
// then another edits, deletes and adds records; conditional writes naming another version fail.
inline void holdsToTheCloudContract(CloudService& service, const std::function<int()>& requests,
                                    const std::function<int()>& bodies) {
    const std::string zone = "contract";
    std::map<std::string, CloudRecord> records; // resource -> what was written last
    std::map<std::string, std::string> tags;    // resource -> the tag its creation gave
    auto record = [&](const std::string& name, std::string title) {
        return eventRecord(zone, name, std::move(title));
    };
    auto add = [&](const CloudRecord& r) {
        const std::string resource = r.recordId.recordName + ".ics";
        records[resource] = r;
        tags[resource] = service.createRecord(r, resource);
    };
    // resource -> etag of what a listing handed out, as a machine would remember it.
    auto remember = [](std::map<std::string, std::string>& known, const ZoneChanges& changes) {
        for (const auto& r : changes.changed)
            known[r.resource] = r.etag;
        for (const auto& gone : changes.deleted)
            known.erase(gone);
    };
    auto changed = [](const ZoneChanges& changes) {
        std::set<std::string> out;
        for (const auto& r : changes.changed)
            out.insert(r.resource);
        return out;
    };

    EXPECT_THROW(service.fetchChanges(zone, {}, {}), ZoneMissing);
    EXPECT_THROW(service.performQuery("CD_Event", zone), ZoneMissing);
    EXPECT_THROW(add(record("a", "a")), ZoneMissing);
    service.saveZone(zone);
    EXPECT_NO_THROW(service.saveZone(zone));
    auto zones = service.fetchAllZones();
    auto it = std::ranges::find(zones, zone, &RecordZone::name);
    ASSERT_NE(it, zones.end());
    EXPECT_FALSE(it->url.empty());
    EXPECT_EQ(std::ranges::count(it + 1, zones.end(), zone, &RecordZone::name), 0);

    // A full listing gives every record with its tag, fields unchanged: texts that break naive
    // escaping, and records without "CD_alias".
    add(record("plain", "Trip, part 1; \\ \"quoted\"\nnext line 🎉 Ünïcödé"));
    CloudRecord aliased = record("aliased", std::string(120, 'x') + "é\r\x01");
    aliased.fields["CD_alias"] = std::string("a,b;c");
    aliased.fields["CD_version"] = std::int64_t{-1};
    add(aliased);
    for (int i = 0; i < 40; ++i)
        add(record("r" + std::to_string(i), "x"));
    std::map<std::string, std::string> known;
    ZoneChanges first = service.fetchChanges(zone, {}, known);
    EXPECT_TRUE(first.complete);
    EXPECT_FALSE(first.token.empty());
    EXPECT_TRUE(first.deleted.empty() && first.unreadable.empty());
    for (const auto& r : first.changed) {
        EXPECT_EQ(r.record, records[r.resource]);
        EXPECT_TRUE(tags[r.resource].empty() || r.etag == tags[r.resource]) << r.etag;
    }
    remember(known, first);
    ASSERT_EQ(known.size(), 42u);
    // The zone of an older layout is read the same way, whole.
    auto query = service.performQuery("CD_Event", zone);
    ASSERT_EQ(query.size(), 42u);
    EXPECT_EQ(query[0], records[query[0].recordId.recordName + ".ics"]);
    EXPECT_TRUE(service.performQuery("CD_Other", zone).empty());

    // Another machine edits ten, deletes one and adds one: exactly those bodies are read.
    std::set<std::string> edited = {"new.ics"};
    for (int i = 0; i < 40; i += 4) {
        const std::string resource = "r" + std::to_string(i) + ".ics";
        records[resource] = record("r" + std::to_string(i), "changed");
        service.replaceRecord(records[resource], resource, known.at(resource));
        edited.insert(resource);
    }
    service.deleteRecord(zone, "r1.ics", known.at("r1.ics"));
    add(record("new", "changed"));
    int read = bodies();
    ZoneChanges next = service.fetchChanges(zone, first.token, known);
    EXPECT_EQ(changed(next), edited);
    EXPECT_EQ(next.deleted, std::vector<std::string>{"r1.ics"});
    EXPECT_EQ(bodies() - read, 11);
    for (const auto& r : next.changed)
        EXPECT_EQ(r.record, records[r.resource]);
    remember(known, next);

    // Nothing changed costs one request.
    int before = requests();
    read = bodies();
    ZoneChanges quiet = service.fetchChanges(zone, next.token, known);
    EXPECT_EQ(requests() - before, 1);
    EXPECT_EQ(bodies(), read);
    EXPECT_TRUE(quiet.changed.empty() && quiet.deleted.empty());

    // A token the server never gave falls back to one full listing, whose token works as any.
    service.deleteRecord(zone, "r3.ics", known.at("r3.ics"));
    add(record("later", "later"));
    ZoneChanges listing =
        service.fetchChanges(zone, "sync:http://example.invalid/sync/never-issued", known);
    EXPECT_TRUE(listing.complete);
    EXPECT_EQ(changed(listing), std::set<std::string>{"later.ics"});
    EXPECT_EQ(listing.deleted, std::vector<std::string>{"r3.ics"});
    remember(known, listing);
    read = bodies();
    quiet = service.fetchChanges(zone, listing.token, known);
    EXPECT_TRUE(quiet.changed.empty() && quiet.deleted.empty());

    // What this machine wrote itself, with the tag it got back, is not read again.
    std::string tag = service.replaceRecord(record("r2", "mine"), "r2.ics", known.at("r2.ics"));
    if (!tag.empty()) {
        known["r2.ics"] = tag;
        EXPECT_TRUE(service.fetchChanges(zone, quiet.token, known).changed.empty());
        EXPECT_EQ(bodies(), read);
    }

    // Writes naming another version are refused; what is gone counts as deleted.
    add(record("a", "first"));
    EXPECT_THROW(add(record("a", "again")), PreconditionFailed);
    tag = service.fetchRecord(zone, "a.ics")->etag;
    ASSERT_FALSE(tag.empty());
    EXPECT_THROW(service.replaceRecord(record("a", "stale"), "a.ics", "\"stale\""),
                 PreconditionFailed);
    CloudRecord second = record("a", "second");
    const std::string secondTag = service.replaceRecord(second, "a.ics", tag);
    EXPECT_THROW(service.replaceRecord(record("a", "late"), "a.ics", tag), PreconditionFailed);
    EXPECT_THROW(service.deleteRecord(zone, "a.ics", tag), PreconditionFailed);
    auto held = service.fetchRecord(zone, "a.ics");
    ASSERT_TRUE(held);
    EXPECT_EQ(held->record, second);
    EXPECT_EQ(held->resource, "a.ics");
    EXPECT_TRUE(secondTag.empty() || held->etag == secondTag) << held->etag;
    EXPECT_TRUE(tags["a.ics"].empty() || held->etag != tags["a.ics"]) << held->etag;
    tag = held->etag;
    service.deleteRecord(zone, "a.ics", tag);
    EXPECT_FALSE(service.fetchRecord(zone, "a.ics"));
    EXPECT_NO_THROW(service.deleteRecord(zone, "a.ics", tag));
    EXPECT_NO_THROW(service.deleteRecord(zone, "never-there.ics", "\"x\""));
    // Replacing what is gone is another version too; creating it again is fine.
    EXPECT_THROW(service.replaceRecord(record("a", "b"), "a.ics", tag), PreconditionFailed);
    EXPECT_NO_THROW(add(record("a", "again")));
}

} // namespace almanor::test

#pragma once

// What the cloud logic relies on from any CloudService. An implementation instantiates it with a
// factory that gives a service over an empty account, and tells how many requests it has sent
// and how many event bodies it has read:
//
//   INSTANTIATE_TEST_SUITE_P(Fake, CloudServiceContract,
//                            testing::Values(CloudServiceFactory{"fake", make, requests, bodies}),
//                            CloudServiceFactory::name);

#include "cloud/CloudService.h"
#include "platform/Uuid.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <variant>

namespace almanor {

// Records in failure messages: type, identity, each field, the change time.
inline void PrintTo(const CloudRecord& r, std::ostream* out) {
    *out << r.recordType << " " << r.recordId.recordName << "@" << r.recordId.zoneName << " {";
    for (const auto& [key, value] : r.fields) {
        *out << " " << key << "=";
        std::visit(
            [&](const auto& v) {
                using T = std::decay_t<decltype(v)>;
                if constexpr (std::is_same_v<T, Instant>)
                    *out << v.time_since_epoch().count() << "ms";
                else if constexpr (std::is_same_v<T, std::string>)
                    *out << testing::PrintToString(v);
                else
                    *out << v;
            },
            value);
    }
    *out << " } modified="
         << (r.modified ? std::to_string(r.modified->time_since_epoch().count()) : "none");
}

} // namespace almanor

namespace almanor::test {

struct CloudServiceFactory {
    std::string label;
    std::function<std::shared_ptr<CloudService>()> make;
    std::function<int(CloudService&)> requests; // sent so far
    std::function<int(CloudService&)> bodies;   // event bodies read so far

    static std::string name(const testing::TestParamInfo<CloudServiceFactory>& info) {
        return info.param.label;
    }
    // Names the parameter in test listings instead of dumping its bytes.
    friend void PrintTo(const CloudServiceFactory& factory, std::ostream* out) {
        *out << factory.label;
    }
};

class CloudServiceContract : public testing::TestWithParam<CloudServiceFactory> {
  protected:
    void SetUp() override { service = GetParam().make(); }

    int requests() { return GetParam().requests(*service); }
    int bodies() { return GetParam().bodies(*service); }

    // A zone of its own per test, so a shared server's other contents never interfere.
    static std::string freshZone() {
        std::string id = Uuid::random().uuidString();
        std::transform(id.begin(), id.end(), id.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        return "contract-" + id;
    }

    static CloudRecord record(const std::string& zone, const std::string& name, std::string title) {
        using namespace std::chrono;
        CloudRecord r;
        r.recordType = "CD_Event";
        r.recordId = RecordId{name, zone};
        r.fields["CD_entityName"] = std::string("Event");
        r.fields["CD_eventId"] = Uuid::random().uuidString();
        r.fields["CD_name"] = std::move(title);
        r.fields["CD_date"] = Instant{sys_days{year{2027} / 3 / 14} + hours{9} + minutes{26}};
        r.fields["CD_recurring"] = std::int64_t{3};
        r.fields["CD_excludeWeekends"] = std::int64_t{0};
        r.fields["CD_countMethod"] = std::int64_t{2};
        r.fields["CD_version"] = std::int64_t{2};
        // Milliseconds: conflicts are decided on this.
        r.modified = Instant{sys_days{year{2026} / 11 / 20} + hours{10} + milliseconds{123}};
        return r;
    }
    static std::string resource(const std::string& name) { return name + ".ics"; }

    // resource -> etag of what a listing handed out, as a machine would remember it.
    static void remember(std::map<std::string, std::string>& known, const ZoneChanges& changes) {
        for (const auto& r : changes.changed)
            known[r.resource] = r.etag;
        for (const auto& gone : changes.deleted)
            known.erase(gone);
    }
    static std::set<std::string> changedResources(const ZoneChanges& changes) {
        std::set<std::string> out;
        for (const auto& r : changes.changed)
            out.insert(r.resource);
        return out;
    }
    static std::set<std::string> deletedResources(const ZoneChanges& changes) {
        return {changes.deleted.begin(), changes.deleted.end()};
    }
    static const RemoteRecord* find(const ZoneChanges& changes, const std::string& res) {
        for (const auto& r : changes.changed)
            if (r.resource == res)
                return &r;
        return nullptr;
    }

    std::shared_ptr<CloudService> service;
};

TEST_P(CloudServiceContract, ZoneSaveIsIdempotentAndListedWithAnAddress) {
    const std::string zone = freshZone();
    service->saveZone(zone);
    EXPECT_NO_THROW(service->saveZone(zone));
    auto zones = service->fetchAllZones();
    auto found = std::count_if(zones.begin(), zones.end(),
                               [&](const RecordZone& z) { return z.name == zone; });
    EXPECT_EQ(found, 1);
    for (const auto& z : zones)
        if (z.name == zone) {
            EXPECT_FALSE(z.url.empty());
        }
}

TEST_P(CloudServiceContract, AFullListingGivesEveryRecordWithItsTagAndFieldsUnchanged) {
    const std::string zone = freshZone();
    service->saveZone(zone);
    // Texts that break naive escaping, and a record without "CD_alias".
    CloudRecord plain = record(zone, "plain", "Trip, part 1; \\ \"quoted\"\nnext line 🎉 Ünïcödé");
    CloudRecord withAlias = record(zone, "aliased", std::string(120, 'x') + "é\r\x01");
    withAlias.fields["CD_alias"] = std::string("a,b;c");
    withAlias.fields["CD_version"] = std::int64_t{-1};
    const std::string plainTag = service->createRecord(plain, resource("plain"));
    const std::string aliasTag = service->createRecord(withAlias, resource("aliased"));

    ZoneChanges all = service->fetchChanges(zone, {}, {});
    EXPECT_TRUE(all.complete);
    EXPECT_FALSE(all.token.empty());
    EXPECT_TRUE(all.deleted.empty());
    EXPECT_TRUE(all.unreadable.empty());
    ASSERT_EQ(all.changed.size(), 2u);
    const RemoteRecord* a = find(all, resource("plain"));
    const RemoteRecord* b = find(all, resource("aliased"));
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->record, plain);
    EXPECT_EQ(a->record.fields.count("CD_alias"), 0u);
    EXPECT_EQ(b->record, withAlias);
    if (!plainTag.empty()) {
        EXPECT_EQ(a->etag, plainTag);
    }
    if (!aliasTag.empty()) {
        EXPECT_EQ(b->etag, aliasTag);
    }
    // The zone of an older layout is read the same way, whole.
    auto query = service->performQuery("CD_Event", zone);
    ASSERT_EQ(query.size(), 2u);
    EXPECT_TRUE(query[0] == plain || query[0] == withAlias);
    EXPECT_TRUE(service->performQuery("CD_Other", zone).empty());
}

TEST_P(CloudServiceContract, IncrementalPullsSeeExactlyTheChangedAndDeleted) {
    const std::string zone = freshZone();
    service->saveZone(zone);
    for (const char* name : {"a", "b", "c", "d"})
        service->createRecord(record(zone, name, name), resource(name));
    std::map<std::string, std::string> known;
    ZoneChanges first = service->fetchChanges(zone, {}, known);
    remember(known, first);
    ASSERT_EQ(known.size(), 4u);

    // Another machine edits b, deletes c and adds e.
    CloudRecord edited = record(zone, "b", "b, edited");
    service->replaceRecord(edited, resource("b"), known.at(resource("b")));
    service->deleteRecord(zone, resource("c"), known.at(resource("c")));
    service->createRecord(record(zone, "e", "e"), resource("e"));

    ZoneChanges next = service->fetchChanges(zone, first.token, known);
    EXPECT_EQ(changedResources(next), (std::set<std::string>{resource("b"), resource("e")}));
    EXPECT_EQ(deletedResources(next), std::set<std::string>{resource("c")});
    ASSERT_NE(find(next, resource("b")), nullptr);
    EXPECT_EQ(find(next, resource("b"))->record, edited);
    remember(known, next);

    ZoneChanges quiet = service->fetchChanges(zone, next.token, known);
    EXPECT_TRUE(quiet.changed.empty());
    EXPECT_TRUE(quiet.deleted.empty());
}

TEST_P(CloudServiceContract, NothingChangedCostsOneRequestAndOwnWritesNoBody) {
    const std::string zone = freshZone();
    service->saveZone(zone);
    for (const char* name : {"a", "b", "c"})
        service->createRecord(record(zone, name, name), resource(name));
    std::map<std::string, std::string> known;
    ZoneChanges first = service->fetchChanges(zone, {}, known);
    remember(known, first);

    int before = requests();
    int read = bodies();
    ZoneChanges quiet = service->fetchChanges(zone, first.token, known);
    EXPECT_EQ(requests() - before, 1);
    EXPECT_EQ(bodies(), read);
    EXPECT_TRUE(quiet.changed.empty());
    EXPECT_TRUE(quiet.deleted.empty());

    // What this machine wrote itself, with the tag it got back, is not read again.
    std::string tag =
        service->replaceRecord(record(zone, "a", "mine"), resource("a"), known.at(resource("a")));
    if (!tag.empty()) {
        known[resource("a")] = tag;
        ZoneChanges own = service->fetchChanges(zone, quiet.token, known);
        EXPECT_EQ(bodies(), read);
        EXPECT_TRUE(own.changed.empty());
    }
}

TEST_P(CloudServiceContract, TenChangesAmongManyFetchTenBodies) {
    const std::string zone = freshZone();
    service->saveZone(zone);
    for (int i = 0; i < 40; ++i)
        service->createRecord(record(zone, "r" + std::to_string(i), "x"),
                              resource("r" + std::to_string(i)));
    std::map<std::string, std::string> known;
    ZoneChanges first = service->fetchChanges(zone, {}, known);
    remember(known, first);
    ASSERT_EQ(known.size(), 40u);
    // Written as another machine would: this one still knows the old tags.
    for (int i = 0; i < 40; i += 4)
        service->replaceRecord(record(zone, "r" + std::to_string(i), "changed"),
                               resource("r" + std::to_string(i)),
                               known.at(resource("r" + std::to_string(i))));
    const int read = bodies();
    ZoneChanges next = service->fetchChanges(zone, first.token, known);
    EXPECT_EQ(next.changed.size(), 10u);
    EXPECT_EQ(bodies() - read, 10);
    for (const auto& r : next.changed)
        EXPECT_EQ(std::get<std::string>(r.record.fields.at("CD_name")), "changed");
}

TEST_P(CloudServiceContract, ATokenTheServerNeverGaveFallsBackToOneFullListing) {
    const std::string zone = freshZone();
    service->saveZone(zone);
    for (const char* name : {"a", "b", "c"})
        service->createRecord(record(zone, name, name), resource(name));
    std::map<std::string, std::string> known;
    remember(known, service->fetchChanges(zone, {}, known));
    service->deleteRecord(zone, resource("b"), known.at(resource("b")));
    service->createRecord(record(zone, "d", "d"), resource("d"));

    ZoneChanges listing =
        service->fetchChanges(zone, "sync:http://example.invalid/sync/never-issued", known);
    EXPECT_TRUE(listing.complete);
    EXPECT_EQ(changedResources(listing), std::set<std::string>{resource("d")});
    EXPECT_EQ(deletedResources(listing), std::set<std::string>{resource("b")});
    remember(known, listing);
    // Its token works as any other.
    ZoneChanges quiet = service->fetchChanges(zone, listing.token, known);
    EXPECT_TRUE(quiet.changed.empty());
    EXPECT_TRUE(quiet.deleted.empty());
}

TEST_P(CloudServiceContract, WritesNamingAnotherVersionAreRefused) {
    const std::string zone = freshZone();
    service->saveZone(zone);
    const std::string first = service->createRecord(record(zone, "a", "first"), resource("a"));
    EXPECT_THROW(service->createRecord(record(zone, "a", "again"), resource("a")),
                 PreconditionFailed);
    std::string tag = service->fetchRecord(zone, resource("a"))->etag;
    ASSERT_FALSE(tag.empty());
    EXPECT_THROW(service->replaceRecord(record(zone, "a", "stale"), resource("a"), "\"stale\""),
                 PreconditionFailed);
    CloudRecord second = record(zone, "a", "second");
    const std::string secondTag = service->replaceRecord(second, resource("a"), tag);
    EXPECT_THROW(service->replaceRecord(record(zone, "a", "late"), resource("a"), tag),
                 PreconditionFailed);
    EXPECT_THROW(service->deleteRecord(zone, resource("a"), tag), PreconditionFailed);

    auto held = service->fetchRecord(zone, resource("a"));
    ASSERT_TRUE(held);
    EXPECT_EQ(held->record, second);
    EXPECT_EQ(held->resource, resource("a"));
    if (!secondTag.empty()) {
        EXPECT_EQ(held->etag, secondTag);
    }
    if (!first.empty()) {
        EXPECT_NE(held->etag, first);
    }
}

TEST_P(CloudServiceContract, AResourceAlreadyGoneCountsAsDeleted) {
    const std::string zone = freshZone();
    service->saveZone(zone);
    service->createRecord(record(zone, "a", "a"), resource("a"));
    const std::string tag = service->fetchRecord(zone, resource("a"))->etag;
    service->deleteRecord(zone, resource("a"), tag);
    EXPECT_FALSE(service->fetchRecord(zone, resource("a")));
    EXPECT_NO_THROW(service->deleteRecord(zone, resource("a"), tag));
    EXPECT_NO_THROW(service->deleteRecord(zone, resource("never-there"), "\"x\""));
    // Replacing what is gone is another version too; creating it again is fine.
    EXPECT_THROW(service->replaceRecord(record(zone, "a", "b"), resource("a"), tag),
                 PreconditionFailed);
    EXPECT_NO_THROW(service->createRecord(record(zone, "a", "again"), resource("a")));
}

TEST_P(CloudServiceContract, AMissingZoneIsZoneMissing) {
    const std::string zone = freshZone();
    EXPECT_THROW(service->fetchChanges(zone, {}, {}), ZoneMissing);
    EXPECT_THROW(service->performQuery("CD_Event", zone), ZoneMissing);
    EXPECT_THROW(service->createRecord(record(zone, "a", "a"), resource("a")), ZoneMissing);
}

} // namespace almanor::test

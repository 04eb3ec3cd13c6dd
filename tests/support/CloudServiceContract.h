#pragma once

// What the cloud logic relies on from any CloudService. An implementation instantiates it with a
// factory that gives a service over an empty account:
//
//   INSTANTIATE_TEST_SUITE_P(Fake, CloudServiceContract,
//                            testing::Values(CloudServiceFactory{"fake", [] { return ...; }}),
//                            CloudServiceFactory::name);

#include "cloud/CloudService.h"
#include "platform/Uuid.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace almanor::test {

struct CloudServiceFactory {
    std::string label;
    std::function<std::shared_ptr<CloudService>()> make;

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
    void TearDown() override {
        if (service)
            service->waitForBackgroundWork();
    }

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
        return r;
    }

    static const CloudRecord* find(const std::vector<CloudRecord>& records,
                                   const std::string& name) {
        for (const auto& r : records)
            if (r.recordId.recordName == name)
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

TEST_P(CloudServiceContract, SavedFieldsComeBackFromTheQueryUnchanged) {
    const std::string zone = freshZone();
    service->saveZone(zone);
    // Texts that break naive escaping, and a record without "CD_alias".
    CloudRecord plain = record(zone, "plain", "Trip, part 1; \\ \"quoted\"\nnext line 🎉 Ünïcödé");
    CloudRecord withAlias = record(zone, "aliased", std::string(120, 'x') + "é");
    withAlias.fields["CD_alias"] = std::string("a,b;c");
    withAlias.fields["CD_version"] = std::int64_t{-1};

    CloudRecord saved = service->saveRecord(plain);
    EXPECT_EQ(saved.recordId, plain.recordId);
    service->saveRecord(withAlias);

    auto all = service->performQuery("CD_Event", zone);
    ASSERT_EQ(all.size(), 2u);
    const CloudRecord* a = find(all, "plain");
    const CloudRecord* b = find(all, "aliased");
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->recordType, "CD_Event");
    EXPECT_EQ(a->fields, plain.fields);
    EXPECT_EQ(a->fields.count("CD_alias"), 0u);
    EXPECT_EQ(b->fields, withAlias.fields);
}

TEST_P(CloudServiceContract, SavingANewRecordOverAnExistingNameFails) {
    const std::string zone = freshZone();
    service->saveZone(zone);
    service->saveRecord(record(zone, "one", "first"));
    EXPECT_THROW(service->saveRecord(record(zone, "one", "second")), CloudError);
    auto all = service->performQuery("CD_Event", zone);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(std::get<std::string>(all[0].fields.at("CD_name")), "first");
}

TEST_P(CloudServiceContract, ZonesKeepTheirRecordsApart) {
    const std::string zoneA = freshZone();
    const std::string zoneB = freshZone();
    service->saveZone(zoneA);
    service->saveZone(zoneB);
    service->saveRecord(record(zoneA, "same", "in A"));
    service->saveRecord(record(zoneB, "same", "in B"));
    auto a = service->performQuery("CD_Event", zoneA);
    auto b = service->performQuery("CD_Event", zoneB);
    ASSERT_EQ(a.size(), 1u);
    ASSERT_EQ(b.size(), 1u);
    EXPECT_EQ(std::get<std::string>(a[0].fields.at("CD_name")), "in A");
    EXPECT_EQ(b[0].recordId.zoneName, zoneB);
}

TEST_P(CloudServiceContract, DeletingRemovesAndAMissingRecordCountsAsDeleted) {
    const std::string zone = freshZone();
    service->saveZone(zone);
    service->saveRecord(record(zone, "gone", "x"));
    service->saveRecord(record(zone, "kept", "y"));
    service->deleteRecord(RecordId{"gone", zone});
    EXPECT_NO_THROW(service->deleteRecord(RecordId{"gone", zone}));
    EXPECT_NO_THROW(service->deleteRecord(RecordId{"never-there", zone}));
    auto all = service->performQuery("CD_Event", zone);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].recordId.recordName, "kept");
    // The name is free again for a new save.
    EXPECT_NO_THROW(service->saveRecord(record(zone, "gone", "again")));
}

TEST_P(CloudServiceContract, BatchedSaveCreatesAndReplacesInTheBackground) {
    const std::string zone = freshZone();
    service->saveZone(zone);
    service->saveRecord(record(zone, "old", "before"));
    CloudRecord replaced = record(zone, "old", "after");
    replaced.fields["CD_alias"] = std::string("alias");
    CloudRecord created = record(zone, "new", "created");
    service->modifyRecords({replaced, created}, ModifyOptions{});
    service->waitForBackgroundWork();

    EXPECT_TRUE(service->unsentRecords().empty());
    auto all = service->performQuery("CD_Event", zone);
    ASSERT_EQ(all.size(), 2u);
    ASSERT_NE(find(all, "old"), nullptr);
    EXPECT_EQ(find(all, "old")->fields, replaced.fields);
    ASSERT_NE(find(all, "new"), nullptr);
    EXPECT_EQ(find(all, "new")->fields, created.fields);

    // A replacement without the alias removes it.
    service->modifyRecords({record(zone, "old", "third")}, ModifyOptions{});
    service->waitForBackgroundWork();
    all = service->performQuery("CD_Event", zone);
    ASSERT_NE(find(all, "old"), nullptr);
    EXPECT_EQ(find(all, "old")->fields.count("CD_alias"), 0u);
}

TEST_P(CloudServiceContract, QueryOfAMissingZoneFailsWithAnError) {
    EXPECT_THROW(service->performQuery("CD_Event", freshZone()), CloudError);
}

} // namespace almanor::test

#include "cloud/RecordMapping.h"

#include "Instants.h"

#include <gtest/gtest.h>

namespace almanor {
namespace {

using test::utc;

CloudRecord legacyRecord(std::map<std::string, FieldValue> fields) {
    return CloudRecord{"CD_Event", RecordId{"r1", std::string(legacyZoneName)}, std::move(fields)};
}

TEST(RecordMapping, EveryFieldRoundTripsThroughARecord) {
    for (auto method :
         {CountMethod::standard, CountMethod::excludeWeekends, CountMethod::weekendUsesFridayBefore,
          CountMethod::weekendUsesMondayAfter}) {
        for (auto alias : {std::optional<std::string>{}, std::optional<std::string>{""},
                           std::optional<std::string>{"Trip; part, 2"}}) {
            auto event = makeEvent(Uuid::random(), utc(2031, 2, 28, 23, 59, 59, 999), "Name", alias,
                                   Schedule::annually, method);
            RecordId id{"rec", "zone"};
            CloudEvent back =
                eventFromRecord(recordFromEvent(CloudEvent{id, event}), SystemClock());
            ASSERT_TRUE(back.recordId);
            EXPECT_EQ(*back.recordId, id);
            EXPECT_TRUE(sameContent(*back.event, *event)) << rawValue(method);
            EXPECT_EQ(back.event->alias(), alias);
        }
    }
}

TEST(RecordMapping, WrittenFieldsCarryTheOlderGenerationsShape) {
    auto event =
        makeEvent(Uuid::fromLiteral("0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d"), utc(2030, 1, 1), "N",
                  std::nullopt, Schedule::weekly, CountMethod::weekendUsesFridayBefore);
    CloudRecord r = recordFromEvent(CloudEvent{std::nullopt, event});
    EXPECT_EQ(r.recordType, "CD_Event");
    EXPECT_EQ(r.recordId.zoneName, appZoneName);
    EXPECT_EQ(r.fields.count("CD_alias"), 0u);
    EXPECT_EQ(std::get<std::string>(r.fields.at("CD_entityName")), "Event");
    EXPECT_EQ(std::get<std::string>(r.fields.at("CD_eventId")),
              "0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D");
    EXPECT_EQ(std::get<std::int64_t>(r.fields.at("CD_excludeWeekends")), 0);
    EXPECT_EQ(std::get<std::int64_t>(r.fields.at("CD_countMethod")), 2);
    EXPECT_EQ(std::get<std::int64_t>(r.fields.at("CD_version")), 2);
    EXPECT_EQ(std::get<std::int64_t>(r.fields.at("CD_recurring")), 1);
    // A minted name is never the event's id, and a second save mints another.
    CloudRecord again = recordFromEvent(CloudEvent{std::nullopt, event});
    EXPECT_NE(r.recordId.recordName, again.recordId.recordName);
    EXPECT_NE(r.recordId.recordName, event->id().uuidString());
}

TEST(RecordMapping, VersionDecidesWhichFieldGivesTheCountMethod) {
    struct Case {
        const char* what;
        std::map<std::string, FieldValue> fields;
        CountMethod expected;
    };
    const std::vector<Case> cases = {
        {"legacy flag only",
         {{"CD_excludeWeekends", std::int64_t{1}}},
         CountMethod::excludeWeekends},
        {"legacy flag as a floating number",
         {{"CD_excludeWeekends", 1.0}},
         CountMethod::excludeWeekends},
        {"legacy flag as text", {{"CD_excludeWeekends", std::string("1")}}, CountMethod::standard},
        {"version 2, code out of range",
         {{"CD_version", std::int64_t{2}},
          {"CD_countMethod", std::int64_t{7}},
          {"CD_excludeWeekends", std::int64_t{1}}},
         CountMethod::standard},
        {"version 2, code 3 whatever the flag",
         {{"CD_version", std::int64_t{2}},
          {"CD_countMethod", std::int64_t{3}},
          {"CD_excludeWeekends", std::int64_t{1}}},
         CountMethod::weekendUsesMondayAfter},
        {"version 2, negative code",
         {{"CD_version", std::int64_t{2}}, {"CD_countMethod", std::int64_t{-1}}},
         CountMethod::standard},
        {"version 1 ignores the code",
         {{"CD_version", std::int64_t{1}}, {"CD_countMethod", std::int64_t{2}}},
         CountMethod::standard},
        {"negative version counts as new",
         {{"CD_version", std::int64_t{-5}},
          {"CD_countMethod", std::int64_t{2}},
          {"CD_excludeWeekends", std::int64_t{1}}},
         CountMethod::weekendUsesFridayBefore},
        {"version as text is no version",
         {{"CD_version", std::string("2")},
          {"CD_countMethod", std::int64_t{2}},
          {"CD_excludeWeekends", std::int64_t{1}}},
         CountMethod::excludeWeekends},
        {"version 2 without a code",
         {{"CD_version", std::int64_t{2}}, {"CD_excludeWeekends", std::int64_t{1}}},
         CountMethod::standard},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(eventFromRecord(legacyRecord(c.fields), SystemClock()).event->countMethod(),
                  c.expected)
            << c.what;
    }
}

TEST(RecordMapping, MissingOrIllTypedFieldsTakeTheirDefaults) {
    FixedClock clock(utc(2026, 11, 22, 12));
    CloudEvent e = eventFromRecord(legacyRecord({
                                       {"CD_eventId", std::string("not-a-uuid")},
                                       {"CD_name", std::int64_t{5}},
                                       {"CD_alias", std::int64_t{1}},
                                       {"CD_date", std::string("2020-01-01")},
                                       {"CD_recurring", std::int64_t{-1}},
                                   }),
                                   clock);
    EXPECT_EQ(e.event->name(), "Empty");
    EXPECT_EQ(e.event->alias(), std::nullopt);
    EXPECT_EQ(e.event->date(), clock.now());
    EXPECT_EQ(e.event->schedule(), Schedule::none);
    EXPECT_EQ(e.event->countMethod(), CountMethod::standard);
    // Without a usable id, every read of one record gives the same event (a calendar app's
    // record must not become a new event on every pull), and other records other events.
    CloudRecord garbled = legacyRecord({{"CD_eventId", std::string("not-a-uuid")}});
    EXPECT_EQ(eventFromRecord(garbled, clock).event->id(), e.event->id());
    garbled.fields.erase("CD_eventId");
    EXPECT_EQ(eventFromRecord(garbled, clock).event->id(), e.event->id());
    garbled.recordId.recordName += "-other";
    EXPECT_NE(eventFromRecord(garbled, clock).event->id(), e.event->id());
    EXPECT_EQ(
        eventFromRecord(legacyRecord({{"CD_recurring", std::int64_t{4}}}), clock).event->schedule(),
        Schedule::none);
    EXPECT_EQ(
        eventFromRecord(legacyRecord({{"CD_recurring", std::int64_t{2}}}), clock).event->schedule(),
        Schedule::monthly);
    // A lower-case id is still the same event.
    auto id = Uuid::random();
    std::string lower = id.uuidString();
    for (auto& ch : lower)
        ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    EXPECT_EQ(eventFromRecord(legacyRecord({{"CD_eventId", lower}}), clock).event->id(), id);
}

TEST(RecordMapping, SameContentComparesEveryCarriedField) {
    auto base = makeEvent(Uuid::random(), utc(2030, 5, 5), "A", std::optional<std::string>("x"),
                          Schedule::none, CountMethod::standard);
    auto copy = [&] {
        return makeEvent(base->id(), base->date(), base->name(), base->alias(), base->schedule(),
                         base->countMethod());
    };
    EXPECT_TRUE(sameContent(*base, *copy()));
    auto e = copy();
    e->setAlias(std::nullopt);
    EXPECT_FALSE(sameContent(*base, *e)) << "absent alias differs from a present one";
    e = copy();
    e->setAlias(std::string(""));
    EXPECT_FALSE(sameContent(*base, *e));
    e = copy();
    e->setDate(base->date() + std::chrono::milliseconds(1));
    EXPECT_FALSE(sameContent(*base, *e));
    e = copy();
    e->setCountMethod(CountMethod::excludeWeekends);
    EXPECT_FALSE(sameContent(*base, *e));
}

} // namespace
} // namespace almanor

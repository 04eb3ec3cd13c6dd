#include "cloud/RecordMapping.h"

#include "Instants.h"

#include <gtest/gtest.h>

namespace almanor {
namespace {

using test::utc;
using Fields = std::map<std::string, FieldValue>;

const FixedClock clock(utc(2026, 11, 22, 12));
constexpr const char* lowerId = "0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d";
constexpr const char* upperId = "0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D";

Event read(Fields fields, std::string name = "r1") {
    return *eventFromRecord(CloudRecord{"CD_Event", RecordId{name, std::string(legacyZoneName)},
                                        std::move(fields)},
                            clock)
                .event;
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
                eventFromRecord(recordFromEvent(CloudEvent{id, event, utc(2026, 1, 1)}), clock);
            EXPECT_EQ(back.recordId, id);
            EXPECT_EQ(back.updated, utc(2026, 1, 1));
            EXPECT_TRUE(sameContent(*back.event, *event)) << rawValue(method);
        }
    }
}

TEST(RecordMapping, WrittenFieldsCarryTheOlderGenerationsShape) {
    auto event = makeEvent(Uuid::fromLiteral(lowerId), utc(2030, 1, 1), "N", std::nullopt,
                           Schedule::weekly, CountMethod::excludeWeekends);
    CloudRecord r = recordFromEvent(CloudEvent{std::nullopt, event});
    EXPECT_EQ(r.recordType, "CD_Event");
    EXPECT_EQ(r.recordId.zoneName, appZoneName);
    EXPECT_EQ(r.fields, (Fields{{"CD_entityName", std::string("Event")},
                                {"CD_eventId", std::string(upperId)},
                                {"CD_name", std::string("N")},
                                {"CD_date", utc(2030, 1, 1)},
                                {"CD_recurring", std::int64_t{1}},
                                {"CD_excludeWeekends", std::int64_t{1}},
                                {"CD_countMethod", std::int64_t{1}},
                                {"CD_version", std::int64_t{2}}}));
    // A minted name is never the event's id, and a second save mints another.
    CloudRecord again = recordFromEvent(CloudEvent{std::nullopt, event});
    EXPECT_NE(r.recordId.recordName, again.recordId.recordName);
    EXPECT_NE(r.recordId.recordName, event->id().uuidString());
}

TEST(RecordMapping, VersionDecidesWhichFieldGivesTheCountMethod) {
    struct Case {
        std::optional<FieldValue> version, code, flag;
        CountMethod expected;
    };
    auto n = [](std::int64_t v) { return std::optional<FieldValue>(v); };
    const std::vector<Case> cases = {
        {{}, {}, n(1), CountMethod::excludeWeekends},
        {{}, {}, 1.0, CountMethod::excludeWeekends},
        {{}, {}, std::string("1"), CountMethod::standard},
        // From version 2 the code decides, whatever the flag; a code out of range is standard.
        {n(2), n(3), n(1), CountMethod::weekendUsesMondayAfter},
        {n(2), n(7), n(1), CountMethod::standard},
        {n(2), n(-1), {}, CountMethod::standard},
        {n(2), {}, n(1), CountMethod::standard},
        {n(1), n(2), {}, CountMethod::standard},
        // A negative version counts as a new one; one written as text is none.
        {n(-5), n(2), n(1), CountMethod::weekendUsesFridayBefore},
        {std::string("2"), n(2), n(1), CountMethod::excludeWeekends},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        Fields fields;
        for (auto [key, value] :
             {std::pair{"CD_version", cases[i].version}, std::pair{"CD_countMethod", cases[i].code},
              std::pair{"CD_excludeWeekends", cases[i].flag}})
            if (value)
                fields[key] = *value;
        EXPECT_EQ(read(fields).countMethod(), cases[i].expected) << "case " << i;
    }
}

TEST(RecordMapping, MissingOrIllTypedFieldsTakeTheirDefaults) {
    Event e = read({{"CD_eventId", std::string("not-a-uuid")},
                    {"CD_name", std::int64_t{5}},
                    {"CD_alias", std::int64_t{1}},
                    {"CD_date", std::string("2020-01-01")},
                    {"CD_recurring", std::int64_t{-1}}});
    EXPECT_EQ(e.name(), "Empty");
    EXPECT_EQ(e.alias(), std::nullopt);
    EXPECT_EQ(e.date(), clock.now());
    EXPECT_EQ(e.schedule(), Schedule::none);
    EXPECT_EQ(e.countMethod(), CountMethod::standard);
    EXPECT_EQ(read({{"CD_recurring", std::int64_t{4}}}).schedule(), Schedule::none);
    EXPECT_EQ(read({{"CD_recurring", std::int64_t{2}}}).schedule(), Schedule::monthly);
    // Without a usable id, every read of one record gives the same event (a calendar app's
    // record must not become a new event on every pull), and other records other events.
    EXPECT_EQ(read({}).id(), e.id());
    EXPECT_NE(read({}, "r2").id(), e.id());
    // A lower-case id is still the same event.
    EXPECT_EQ(read({{"CD_eventId", std::string(lowerId)}}).id().uuidString(), upperId);
}

TEST(RecordMapping, SameContentComparesEveryCarriedField) {
    auto base = makeEvent(Uuid::random(), utc(2030, 5, 5), "A", std::optional<std::string>("x"),
                          Schedule::none, CountMethod::standard);
    auto with = [&](std::optional<std::string> alias, Instant date, CountMethod method) {
        return sameContent(*base, *makeEvent(base->id(), date, "A", alias, Schedule::none, method));
    };
    EXPECT_TRUE(with("x", base->date(), CountMethod::standard));
    EXPECT_FALSE(with(std::nullopt, base->date(), CountMethod::standard));
    EXPECT_FALSE(with("", base->date(), CountMethod::standard));
    EXPECT_FALSE(with("x", base->date() + std::chrono::milliseconds(1), CountMethod::standard));
    EXPECT_FALSE(with("x", base->date(), CountMethod::excludeWeekends));
}

} // namespace
} // namespace almanor

#include "storage/sql/Connection.h"

#include "StorageTesting.h"
#include "TempDir.h"
#include "storage/sql/Date.h"
#include "storage/sql/Error.h"
#include "storage/sql/Table.h"

#include <gtest/gtest.h>
#include <thread>

using namespace almanor;
using namespace almanor::sql;
using namespace std::chrono;
using almanor::test::at;
using almanor::test::scalar;

namespace {

template <class F> std::string errorOf(F&& f) {
    try {
        f();
    } catch (const Error& e) {
        return e.what();
    }
    return "<no error>";
}

struct ConnectionTest : ::testing::Test {
    test::TempDir dir;
    std::string path = (dir / "test.db").string();
    Table table{"sample"};
    Column<Uuid> id{"id"};
    Column<std::string> text{"text"};
    Column<std::int64_t> number{"number"};
    Column<bool> flag{"flag"};
    Column<Instant> when{"when"};
    Column<std::optional<std::string>> maybeText{"maybe_text"};
    Column<std::optional<std::int64_t>> maybeNumber{"maybe_number"};
    Column<std::optional<Instant>> maybeWhen{"maybe_when"};
    Statement create() const {
        return table.create({id.definition(primaryKey), text.definition(), number.definition(),
                             flag.definition(Default{false}), when.definition(),
                             maybeText.definition(), maybeNumber.definition(),
                             maybeWhen.definition()});
    }
    Statement insert(std::int64_t n) const {
        return table.insert(
            {id.set(Uuid::random()), text.set("t"), number.set(n), when.set(Instant{})});
    }
};

} // namespace

TEST_F(ConnectionTest, ValuesRoundTripThroughTheFileInTheirEncodings) {
    Uuid u = Uuid::random();
    Instant moon = at(1969y / July / 20, 20h + 17min + 40s + 5ms);
    {
        Connection c(path);
        c.run(create());
        c.run(table.insert({id.set(u), text.set(std::string("z\0ß\xE2\x82\xAC", 6)),
                            number.set(-(std::int64_t{1} << 40)), flag.set(true), when.set(moon),
                            maybeText.set(std::nullopt), maybeNumber.set(0)}));
    }
    Connection c(path); // a fresh connection: the values come from the file
    EXPECT_EQ(
        scalar(c,
               R"(SELECT quote("id") || quote("flag") || quote("when") AS "value" FROM "sample")"),
        "'" + u.uuidString() + "'1'1969-07-20T20:17:40.005'");
    auto rows = c.prepare(table.select(flag));
    ASSERT_TRUE(rows.next());
    const Row& row = rows.row();
    EXPECT_EQ(row.get(id), u);
    EXPECT_EQ(row.get(text), std::string("z\0ß\xE2\x82\xAC", 6)); // bound with its length
    EXPECT_EQ(row.get(number), -(std::int64_t{1} << 40));
    EXPECT_EQ(row.get(when), moon);
    EXPECT_EQ(row.get(maybeText), std::nullopt);
    EXPECT_EQ(row.get(maybeNumber), std::optional<std::int64_t>(0)); // 0, not none
    EXPECT_EQ(row.get(maybeWhen), std::nullopt);
    EXPECT_FALSE(rows.next());
}

TEST_F(ConnectionTest, ErrorsNameTheColumnOrCarrySqlitesMessageAndCode) {
    Connection c(path);
    EXPECT_EQ(errorOf([&] { c.prepare(table.select(flag)); }), "no such table: sample (code: 1)");
    c.run(create());
    c.run(
        R"(INSERT INTO "sample" VALUES ('not a uuid', 'x', 'seven', 2, '2023-02-29T00:00:00.000', NULL, NULL, NULL))");
    auto rows = c.prepare(table.select(flag));
    ASSERT_TRUE(rows.next());
    const Row& row = rows.row();
    EXPECT_EQ(errorOf([&] { row.get(Column<std::string>{"maybe_text"}); }),
              "Unexpected null value for column `\"maybe_text\"`");
    EXPECT_EQ(errorOf([&] { row.get(Column<std::string>{"missing"}); }),
              "No such column `\"missing\"`");
    EXPECT_THROW(row.get(when), Error);   // an impossible date
    EXPECT_THROW(row.get(id), Error);     // not a UUID
    EXPECT_THROW(row.get(number), Error); // text where an integer belongs
    EXPECT_TRUE(row.get(flag));           // any non-zero integer is true
    auto twice = c.prepare({R"(SELECT 1 AS "a", 2 AS "a")", {}});
    ASSERT_TRUE(twice.next());
    EXPECT_EQ(errorOf([&] { twice.row().get(Column<std::int64_t>{"a"}); }),
              "Ambiguous column `\"a\"`");
    EXPECT_THROW(c.run(Statement{"SELECT ?, ?", {std::int64_t{1}}}), Error); // a value short
    EXPECT_EQ(errorOf([&] { Connection((dir / "missing/test.db").string()); }),
              "unable to open database file (code: 14)");
}

TEST_F(ConnectionTest, WaitsForAnotherWriterInsteadOfFailing) {
    Connection c(path);
    c.run(create());
    Connection other(path);
    other.run("BEGIN IMMEDIATE");
    other.run(insert(1));
    std::thread release([&] {
        std::this_thread::sleep_for(300ms);
        other.run("COMMIT");
    });
    EXPECT_NO_THROW(c.run(insert(2)));
    release.join();
    EXPECT_EQ(scalar(c, R"(SELECT count(*) AS "value" FROM "sample")"), "2");
}

// In UTC whatever the process's zone, fixed-width, the day floored before 1970; read back.
TEST(Date, FormatsAndReadsBackUtcWithFixedWidthFields) {
    setenv("TZ", "Asia/Tokyo", 1);
    tzset();
    const std::pair<Instant, const char*> cases[] = {
        {at(2024y / February / 29, 23h + 59min + 59s + 999ms), "2024-02-29T23:59:59.999"},
        {Instant{} - 1ms, "1969-12-31T23:59:59.999"},
        {at(year{5} / January / 2, 3h + 4min + 5s + 6ms), "0005-01-02T03:04:05.006"},
        {at(year{12345} / June / 7), "12345-06-07T00:00:00.000"},
        {at(year{0} / January / 1), "0000-01-01T00:00:00.000"},
        {at(year::max() / December / 31, 24h - 1ms), "32767-12-31T23:59:59.999"},
    };
    for (auto [instant, text] : cases) {
        EXPECT_EQ(formatDate(instant), text);
        EXPECT_EQ(parseDate(text), instant);
    }
    unsetenv("TZ");
    tzset();
    EXPECT_EQ(parseDate("2024-03-05T10:20:30"), at(2024y / March / 5, 10h + 20min + 30s));
    EXPECT_THROW(formatDate(at(year{-1} / December / 31, 23h)), Error);
    EXPECT_THROW(formatDate(Instant{milliseconds::max()}), Error);
}

TEST(Date, ParseRejectsEverythingElse) {
    for (const char* text : {"",
                             "2024-03-05",
                             "2023-02-29T00:00:00.000",
                             "2024-04-31T00:00:00.000",
                             "2024-13-01T00:00:00.000",
                             "2024-00-10T00:00:00.000",
                             "2024-03-05T24:00:00.000",
                             "2024-03-05T23:60:00.000",
                             "2024-03-05T23:59:60.000",
                             "2024-03-05 10:20:30.123",
                             "2024-03-05T10:20:30.123Z",
                             "2024-03-05T10:20:30.12",
                             "2024-03-05T10:20:30.1234",
                             "2024-3-05T10:20:30.123",
                             "024-03-05T10:20:30.123",
                             "123456-03-05T10:20:30.123",
                             "-2024-03-05T10:20:30.123",
                             " 2024-03-05T10:20:30.123",
                             "2024-03-05T10:2a:30.123",
                             "40000-01-01T00:00:00.000"}) {
        EXPECT_EQ(parseDate(text), std::nullopt) << text;
    }
}

TEST(Table, QuotesNamesAndBindsValuesInTheOrderOfTheirPlaceholders) {
    Table table{R"(we"ird)"};
    Column<std::string> odd{R"(co"l)"};
    EXPECT_EQ(table.create({odd.definition(Default{std::string("it's")})}).text,
              R"(CREATE TABLE IF NOT EXISTS "we""ird" ("co""l" TEXT NOT NULL DEFAULT 'it''s'))");

    Column<std::int64_t> number{"number"};
    Column<std::optional<std::string>> label{"label"};
    Column<bool> flag{"flag"};
    Column<Instant> when{"when"};
    auto update =
        table.update({label.set(std::nullopt), flag.setLiteral(true), when.set(Instant{} + 1500ms)},
                     label == std::nullopt && number == 7 && !flag);
    EXPECT_EQ(update.text, R"(UPDATE "we""ird" SET "label" = ?, "flag" = 1, "when" = ? )"
                           R"(WHERE ((("label" IS ?) AND ("number" = ?)) AND NOT ("flag")))");
    EXPECT_EQ(update.bindings,
              (std::vector<Binding>{nullptr, std::string("1970-01-01T00:00:01.500"), nullptr,
                                    std::int64_t{7}}));
}

#include "storage/sql/Connection.h"

#include "StorageTesting.h"
#include "TempDir.h"
#include "storage/sql/Error.h"

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

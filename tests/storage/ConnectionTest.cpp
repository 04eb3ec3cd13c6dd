#include "storage/sql/Connection.h"

#include "StorageTesting.h"
#include "TempDir.h"
#include "storage/sql/Error.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace almanor;
using namespace almanor::sql;
using namespace std::chrono;
using almanor::test::at;
using almanor::test::scalar;

namespace {

struct Sample {
    Table table{"sample"};
    Column<Uuid> id{"id"};
    Column<std::string> text{"text"};
    Column<std::int64_t> number{"number"};
    Column<bool> flag{"flag"};
    Column<Instant> when{"when"};
    Column<std::optional<std::string>> maybeText{"maybe_text"};
    Column<std::optional<std::int64_t>> maybeNumber{"maybe_number"};
    Column<std::optional<bool>> maybeFlag{"maybe_flag"};
    Column<std::optional<Instant>> maybeWhen{"maybe_when"};
    Column<std::optional<Uuid>> maybeId{"maybe_id"};

    Statement create() const {
        return table.create({id.definition(primaryKey), text.definition(), number.definition(),
                             flag.definition(Default{false}), when.definition(),
                             maybeText.definition(), maybeNumber.definition(),
                             maybeFlag.definition(), maybeWhen.definition(), maybeId.definition()});
    }
};

template <class F> std::string errorOf(F&& f) {
    try {
        f();
    } catch (const Error& e) {
        return e.what();
    }
    return "<no error>";
}

class ConnectionTest : public ::testing::Test {
  protected:
    test::TempDir dir;
    std::string path = (dir / "test.db").string();
    Sample s;
};

} // namespace

TEST_F(ConnectionTest, ValuesRoundTripThroughTheFileInTheirEncodings) {
    Uuid id = Uuid::random();
    Instant when = at(1969y / July / 20, 20h + 17min + 40s + 5ms);
    {
        Connection c(path);
        c.run(s.create());
        c.run(s.table.insert({s.id.set(id), s.text.set("zß\xE2\x82\xAC"),
                              s.number.set(-(std::int64_t{1} << 40)), s.flag.set(true),
                              s.when.set(when), s.maybeText.set(std::nullopt), s.maybeNumber.set(0),
                              s.maybeFlag.set(false), s.maybeWhen.set(std::nullopt),
                              s.maybeId.set(id)}));
    }
    Connection c(path); // a fresh connection: the values come from the file
    EXPECT_EQ(
        scalar(
            c,
            R"(SELECT quote("id") || quote("flag") || quote("when") || quote("maybe_text") AS "value" FROM "sample")"),
        "'" + id.uuidString() + "'1'1969-07-20T20:17:40.005'NULL");

    auto rows = c.prepare(s.table.select(s.flag));
    ASSERT_TRUE(rows.next());
    const Row& row = rows.row();
    EXPECT_EQ(row.get(s.id), id);
    EXPECT_EQ(row.get(s.text), "zß\xE2\x82\xAC");
    EXPECT_EQ(row.get(s.number), -(std::int64_t{1} << 40));
    EXPECT_TRUE(row.get(s.flag));
    EXPECT_EQ(row.get(s.when), when);
    EXPECT_EQ(row.get(s.maybeText), std::nullopt);
    EXPECT_EQ(row.get(s.maybeNumber), std::optional<std::int64_t>(0)); // 0, not none
    EXPECT_EQ(row.get(s.maybeFlag), std::optional<bool>(false));
    EXPECT_EQ(row.get(s.maybeWhen), std::nullopt);
    EXPECT_EQ(row.get(s.maybeId), id);
    EXPECT_FALSE(rows.next());
}

TEST_F(ConnectionTest, TypedReadsNameTheColumnWhenTheyFail) {
    Connection c(path);
    c.run(s.create());
    c.run(
        R"(INSERT INTO "sample" VALUES ('not a uuid', 'x', 'seven', 2, '2023-02-29T00:00:00.000', NULL, NULL, NULL, NULL, NULL))");

    Column<std::string> maybeTextAsText{"maybe_text"};
    Column<std::string> missing{"missing"};
    Column<std::int64_t> duplicate{"a"};
    auto rows = c.prepare(s.table.select(s.flag));
    ASSERT_TRUE(rows.next());
    const Row& row = rows.row();
    EXPECT_EQ(errorOf([&] { row.get(maybeTextAsText); }),
              "Unexpected null value for column `\"maybe_text\"`");
    EXPECT_EQ(errorOf([&] { row.get(missing); }), "No such column `\"missing\"`");
    EXPECT_EQ(errorOf([&] { rows.resolve(missing); }), "No such column `\"missing\"`");
    EXPECT_THROW(row.get(s.when), Error);   // an impossible date
    EXPECT_THROW(row.get(s.id), Error);     // not a UUID
    EXPECT_THROW(row.get(s.number), Error); // text where an integer belongs
    EXPECT_TRUE(row.get(s.flag));           // any non-zero integer is true

    auto twice = c.prepare({R"(SELECT 1 AS "a", 2 AS "a", 3 AS "b")", {}});
    ASSERT_TRUE(twice.next());
    EXPECT_EQ(errorOf([&] { twice.row().get(duplicate); }), "Ambiguous column `\"a\"`");
}

TEST_F(ConnectionTest, SqliteErrorsCarryMessageCodeAndStatement) {
    Connection c(path);
    Statement select = s.table.select(s.flag);
    try {
        c.prepare(select);
        FAIL() << "no error";
    } catch (const Error& e) {
        EXPECT_STREQ(e.what(), "no such table: sample (code: 1)");
        EXPECT_EQ(e.message(), "no such table: sample");
        EXPECT_EQ(e.code(), 1);
        EXPECT_EQ(e.statement(), select.text);
    }

    c.run(s.create());
    Uuid id = Uuid::random();
    auto insert = [&] {
        c.run(
            s.table.insert({s.id.set(id), s.text.set(""), s.number.set(1), s.when.set(Instant{})}));
    };
    insert();
    EXPECT_EQ(errorOf(insert), "UNIQUE constraint failed: sample.id (code: 19)");
    // A failed step leaves the connection usable.
    EXPECT_EQ(scalar(c, R"(SELECT count(*) AS "value" FROM "sample")"), "1");

    EXPECT_THROW(c.run(Statement{R"(SELECT ?, ?)", {std::int64_t{1}}}), Error);
}

TEST_F(ConnectionTest, OpenFailureIsAnError) {
    EXPECT_EQ(errorOf([&] { Connection((dir / "missing/test.db").string()); }),
              "unable to open database file (code: 14)");
    EXPECT_THROW(Connection(path, true), Error); // read-only does not create
}

TEST_F(ConnectionTest, BindsEveryStorageClass) {
    Connection c(path);
    auto rows = c.prepare(
        {R"(SELECT typeof(?) || typeof(?) || typeof(?) || typeof(?) || typeof(?) AS "value", ? AS "text")",
         {nullptr, std::int64_t{1}, 1.5, std::string("t"), Blob{std::byte{0}, std::byte{1}},
          std::string("a\0b", 3)}});
    ASSERT_TRUE(rows.next());
    EXPECT_EQ(rows.row().get(Column<std::string>{"value"}), "nullintegerrealtextblob");
    // Text is bound with its length, so an embedded NUL survives.
    EXPECT_EQ(rows.row().get(Column<std::string>{"text"}), std::string("a\0b", 3));
}

TEST_F(ConnectionTest, WaitsForAnotherWriterInsteadOfFailing) {
    Connection c(path);
    c.run(s.create());
    Connection other(path);
    other.run("BEGIN IMMEDIATE");
    other.run(s.table.insert(
        {s.id.set(Uuid::random()), s.text.set("other"), s.number.set(1), s.when.set(Instant{})}));
    std::thread release([&] {
        std::this_thread::sleep_for(300ms);
        other.run("COMMIT");
    });
    EXPECT_NO_THROW(c.run(s.table.insert(
        {s.id.set(Uuid::random()), s.text.set("mine"), s.number.set(2), s.when.set(Instant{})})));
    release.join();
    EXPECT_EQ(scalar(c, R"(SELECT count(*) AS "value" FROM "sample")"), "2");
}

TEST_F(ConnectionTest, NestedAndConcurrentUseOfOneConnection) {
    Connection c(path);
    c.run(s.create());
    // Nested on the queue from the same thread: a write while a read is open on the connection.
    c.sync([&] {
        c.run(s.table.insert({s.id.set(Uuid::random()), s.text.set("seed"), s.number.set(-1),
                              s.when.set(Instant{})}));
        for (const Row& row : c.prepare(s.table.select(!s.flag))) {
            c.run(s.table.update({s.flag.set(true)}, s.id == row.get(s.id)));
        }
    });
    EXPECT_EQ(scalar(c, R"(SELECT sum("flag") AS "value" FROM "sample")"), "1");

    constexpr int threads = 4;
    constexpr int perThread = 50;
    std::atomic<int> failures = 0;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&] {
            for (int i = 0; i < perThread; ++i) {
                try {
                    c.run(s.table.insert({s.id.set(Uuid::random()), s.text.set("w"),
                                          s.number.set(i), s.when.set(Instant{})}));
                } catch (const Error& e) {
                    ADD_FAILURE() << e.what();
                    ++failures;
                }
            }
        });
    }
    for (auto& w : workers) {
        w.join();
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(scalar(c, R"(SELECT count(*) AS "value" FROM "sample")"),
              std::to_string(threads * perThread + 1));
}

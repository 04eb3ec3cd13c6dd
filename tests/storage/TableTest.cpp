#include "storage/sql/Table.h"

#include <gtest/gtest.h>

using namespace almanor;
using namespace almanor::sql;
using namespace std::chrono;

namespace {

struct Things {
    Table table{"things"};
    Column<std::int64_t> number{"number"};
    Column<std::optional<std::string>> label{"label"};
    Column<bool> flag{"flag"};
    Column<bool> other{"other"};
    Column<Instant> when{"when"};
};

} // namespace

TEST(Table, QuotesIdentifiersAndTextLiteralsByDoublingTheQuote) {
    Table table{R"(we"ird)"};
    Column<std::string> column{R"(co"l)"};
    EXPECT_EQ(table.create({column.definition(Default{std::string("it's")})}).text,
              R"(CREATE TABLE IF NOT EXISTS "we""ird" ("co""l" TEXT NOT NULL DEFAULT 'it''s'))");
    EXPECT_EQ((column == std::string("x")).text, R"(("co""l" = ?))");
}

TEST(Table, ValuesAreBoundInTheOrderOfTheirPlaceholders) {
    Things t;
    auto where = t.label == std::nullopt && t.number == 7 && t.flag && !t.other;
    EXPECT_EQ(where.text,
              R"((((("label" IS ?) AND ("number" = ?)) AND "flag") AND NOT ("other")))");
    EXPECT_EQ(where.bindings, (std::vector<Binding>{nullptr, std::int64_t{7}}));

    auto update = t.table.update(
        {t.label.set(std::nullopt), t.flag.setLiteral(true), t.when.set(Instant{} + 1500ms)},
        t.label == std::string("a"));
    EXPECT_EQ(update.text,
              R"(UPDATE "things" SET "label" = ?, "flag" = 1, "when" = ? WHERE ("label" = ?))");
    EXPECT_EQ(
        update.bindings,
        (std::vector<Binding>{nullptr, std::string("1970-01-01T00:00:01.500"), std::string("a")}));

    auto insert = t.table.insert({t.number.set(1), t.flag.set(false), t.label.set("x")});
    EXPECT_EQ(insert.bindings,
              (std::vector<Binding>{std::int64_t{1}, std::int64_t{0}, std::string("x")}));
    EXPECT_EQ(t.table.select(t.flag).text, R"(SELECT * FROM "things" WHERE "flag")");
}

#include "storage/sql/Table.h"

#include <gtest/gtest.h>

using namespace almanor;
using namespace almanor::sql;
using namespace std::chrono;

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

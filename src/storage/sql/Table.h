#pragma once

#include "platform/Export.h"
#include "storage/sql/Column.h"
#include "storage/sql/Expression.h"

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace almanor::sql {

// A statement ready to run: its text with "?" placeholders and the values bound to them, in order.
struct ALMANOR_EXPORT Statement {
    std::string text;
    std::vector<Binding> bindings;
};

// A table by name; builds the statements the store runs against it.
class ALMANOR_EXPORT Table {
  public:
    explicit Table(std::string name) : name_(std::move(name)), text_(quoteIdentifier(name_)) {}

    const std::string& name() const { return name_; }
    const std::string& text() const { return text_; }

    // CREATE TABLE IF NOT EXISTS "t" (definition, definition, ...): a permanent table with row
    // ids, left as it is when it exists already.
    Statement create(const std::vector<ColumnDefinition>& columns) const;

    // SELECT * FROM "t" WHERE condition [ORDER BY "a", "b"] (each key ascending).
    Statement
    select(const Expression& where,
           std::initializer_list<std::reference_wrapper<const ColumnBase>> orderBy = {}) const;

    // INSERT INTO "t" ("c1", "c2") VALUES (?, ?)
    Statement insert(const std::vector<Setter>& values) const;

    // UPDATE "t" SET "c1" = ?, "c2" = ? WHERE condition
    Statement update(const std::vector<Setter>& values, const Expression& where) const;

  private:
    std::string name_;
    std::string text_;
};

} // namespace almanor::sql

#pragma once

#include "platform/Export.h"
#include "storage/sql/Value.h"

#include <optional>
#include <string>
#include <utility>

namespace almanor::sql {

// What a column is without its value type: its name and its SQL text (the quoted name).
class ALMANOR_EXPORT ColumnBase {
  public:
    explicit ColumnBase(std::string name) : name_(std::move(name)), text_(quoteIdentifier(name_)) {}

    const std::string& name() const { return name_; }
    // The column as it is written in statements and in error messages: "name".
    const std::string& text() const { return text_; }

  private:
    std::string name_;
    std::string text_;
};

// One "column" definition of a CREATE TABLE statement.
struct ALMANOR_EXPORT ColumnDefinition {
    std::string text;
};

// One assignment of an INSERT or UPDATE: the column and either "?" with its binding or a literal.
struct ALMANOR_EXPORT Setter {
    std::string column;
    std::string value;
    std::optional<Binding> binding;
};

// Asks a column definition for PRIMARY KEY.
struct PrimaryKey {};
inline constexpr PrimaryKey primaryKey{};

// Asks a column definition for DEFAULT and the value as a literal.
template <class T> struct Default { T value; };
template <class T> Default(T) -> Default<T>;

// A column of a table with the value type that fixes its SQL type and encoding.
template <class T> class Column : public ColumnBase {
  public:
    using Traits = ValueTraits<T>;
    using Value = T;

    using ColumnBase::ColumnBase;

    // "name" TYPE [PRIMARY KEY] [NOT NULL] [DEFAULT literal]; nullability follows the value type.
    ColumnDefinition definition() const { return define(false, nullptr); }
    ColumnDefinition definition(PrimaryKey) const { return define(true, nullptr); }
    ColumnDefinition definition(const Default<typename Traits::Base>& value) const {
        return define(false, &value.value);
    }

    // "name" = ? with the value bound.
    Setter set(const T& value) const { return {text(), "?", Traits::bind(value)}; }
    // "name" = literal, for constants that are part of the statement's text.
    Setter setLiteral(const T& value) const {
        return {text(), Traits::literal(value), std::nullopt};
    }

  private:
    ColumnDefinition define(bool isPrimaryKey, const typename Traits::Base* defaultValue) const {
        std::string out = text();
        out += ' ';
        out += Traits::declaredType;
        if (isPrimaryKey) {
            out += " PRIMARY KEY";
        }
        if (!Traits::optional) {
            out += " NOT NULL";
        }
        if (defaultValue != nullptr) {
            out += " DEFAULT ";
            out += ValueTraits<typename Traits::Base>::literal(*defaultValue);
        }
        return {std::move(out)};
    }
};

} // namespace almanor::sql

#pragma once

#include "platform/Export.h"
#include "storage/sql/Column.h"

#include <optional>
#include <string>
#include <vector>

namespace almanor::sql {

// A condition: its SQL text with "?" placeholders and the values bound to them, in order.
struct ALMANOR_EXPORT Expression {
    std::string text;
    std::vector<Binding> bindings;

    explicit Expression(std::string sqlText, std::vector<Binding> values = {})
        : text(std::move(sqlText)), bindings(std::move(values)) {}
    // A boolean column is a condition by itself.
    Expression(const Column<bool>& column) : text(column.text()) {}
};

// ("c" = ?)
template <class T>
Expression operator==(const Column<T>& column, const typename ValueTraits<T>::Base& value) {
    return Expression("(" + column.text() + " = ?)",
                      {ValueTraits<typename ValueTraits<T>::Base>::bind(value)});
}

// ("c" IS ?) with NULL bound.
template <class T> Expression operator==(const Column<std::optional<T>>& column, std::nullopt_t) {
    return Expression("(" + column.text() + " IS ?)", {nullptr});
}

// ("c" IS NOT ?) with NULL bound.
template <class T> Expression operator!=(const Column<std::optional<T>>& column, std::nullopt_t) {
    return Expression("(" + column.text() + " IS NOT ?)", {nullptr});
}

// NOT (x)
Expression operator!(const Expression& operand);

// (l AND r); a chain nests from the left, as the language's && does.
Expression operator&&(const Expression& left, const Expression& right);

} // namespace almanor::sql

#pragma once

#include "platform/Export.h"
#include "platform/Instant.h"
#include "platform/Uuid.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace almanor::sql {

class Row;
class ColumnBase;

using Blob = std::vector<std::byte>;

// A value bound to one "?" of a statement, in SQLite's own storage classes.
using Binding = std::variant<std::nullptr_t, std::int64_t, double, std::string, Blob>;

// The value types a column can hold, with their declared SQL type, their bound form, their form
// as an SQL literal (for DEFAULT and constant assignments) and how a read turns back into them.
// Dates and UUIDs travel as text; booleans as 0 and 1.
template <class T> struct ValueTraits;

#define ALMANOR_SQL_VALUE(Type, Declared)                                                          \
    template <> struct ValueTraits<Type> {                                                         \
        using Base = Type;                                                                         \
        static constexpr std::string_view declaredType = Declared;                                 \
        static constexpr bool optional = false;                                                    \
        static Binding bind(const Type& value);                                                    \
        static std::string literal(const Type& value);                                             \
        static Type read(const Row& row, int index, const ColumnBase& column);                     \
    }

ALMANOR_SQL_VALUE(std::string, "TEXT");
ALMANOR_SQL_VALUE(std::int64_t, "INTEGER");
ALMANOR_SQL_VALUE(bool, "INTEGER");
ALMANOR_SQL_VALUE(Instant, "TEXT");
ALMANOR_SQL_VALUE(Uuid, "TEXT");

#undef ALMANOR_SQL_VALUE

// An optional value is the same type, nullable, with NULL for none.
template <class T> struct ValueTraits<std::optional<T>> {
    using Base = T;
    static constexpr std::string_view declaredType = ValueTraits<T>::declaredType;
    static constexpr bool optional = true;
    static Binding bind(const std::optional<T>& value) {
        return value ? ValueTraits<T>::bind(*value) : Binding{nullptr};
    }
    static std::string literal(const std::optional<T>& value) {
        return value ? ValueTraits<T>::literal(*value) : std::string("NULL");
    }
    static std::optional<T> read(const Row& row, int index, const ColumnBase& column);
};

// An identifier in double quotes, any double quote inside doubled.
ALMANOR_EXPORT std::string quoteIdentifier(std::string_view name);
// A text literal in single quotes, any single quote inside doubled.
ALMANOR_EXPORT std::string quoteText(std::string_view text);

} // namespace almanor::sql

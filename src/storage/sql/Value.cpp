#include "storage/sql/Value.h"

#include "storage/sql/Column.h"
#include "storage/sql/Connection.h"
#include "storage/sql/Date.h"
#include "storage/sql/Error.h"

namespace almanor::sql {

namespace {

const char* storageName(Row::Storage storage) {
    switch (storage) {
    case Row::Storage::integer:
        return "INTEGER";
    case Row::Storage::real:
        return "REAL";
    case Row::Storage::text:
        return "TEXT";
    case Row::Storage::blob:
        return "BLOB";
    case Row::Storage::null:
        break;
    }
    return "NULL";
}

// The raw value of a non-optional column, which must be stored as `expected`.
void expectStorage(const Row& row, int index, const ColumnBase& column, Row::Storage expected) {
    auto storage = row.storage(index);
    if (storage == expected) {
        return;
    }
    if (storage == Row::Storage::null) {
        throw Error("Unexpected null value for column `" + column.text() + "`");
    }
    throw Error("Cannot read column `" + column.text() + "` as " + storageName(expected) +
                ": found " + storageName(storage));
}

std::string_view readText(const Row& row, int index, const ColumnBase& column) {
    expectStorage(row, index, column, Row::Storage::text);
    return row.text(index);
}

std::int64_t readInteger(const Row& row, int index, const ColumnBase& column) {
    expectStorage(row, index, column, Row::Storage::integer);
    return row.integer(index);
}

} // namespace

std::string quoteIdentifier(std::string_view name) {
    std::string out = "\"";
    for (char c : name) {
        out += c;
        if (c == '"') {
            out += '"';
        }
    }
    out += '"';
    return out;
}

std::string quoteText(std::string_view text) {
    std::string out = "'";
    for (char c : text) {
        out += c;
        if (c == '\'') {
            out += '\'';
        }
    }
    out += '\'';
    return out;
}

Binding ValueTraits<std::string>::bind(const std::string& value) {
    return value;
}
std::string ValueTraits<std::string>::literal(const std::string& value) {
    return quoteText(value);
}
std::string ValueTraits<std::string>::read(const Row& row, int index, const ColumnBase& column) {
    return std::string(readText(row, index, column));
}

Binding ValueTraits<std::int64_t>::bind(const std::int64_t& value) {
    return value;
}
std::string ValueTraits<std::int64_t>::literal(const std::int64_t& value) {
    return std::to_string(value);
}
std::int64_t ValueTraits<std::int64_t>::read(const Row& row, int index, const ColumnBase& column) {
    return readInteger(row, index, column);
}

Binding ValueTraits<bool>::bind(const bool& value) {
    return std::int64_t{value ? 1 : 0};
}
std::string ValueTraits<bool>::literal(const bool& value) {
    return value ? "1" : "0";
}
bool ValueTraits<bool>::read(const Row& row, int index, const ColumnBase& column) {
    return readInteger(row, index, column) != 0;
}

Binding ValueTraits<Instant>::bind(const Instant& value) {
    return formatDate(value);
}
std::string ValueTraits<Instant>::literal(const Instant& value) {
    return quoteText(formatDate(value));
}
Instant ValueTraits<Instant>::read(const Row& row, int index, const ColumnBase& column) {
    auto text = readText(row, index, column);
    auto date = parseDate(text);
    if (!date) {
        throw Error("Cannot read column `" + column.text() + "` as a date: " + std::string(text));
    }
    return *date;
}

Binding ValueTraits<Uuid>::bind(const Uuid& value) {
    return value.uuidString();
}
std::string ValueTraits<Uuid>::literal(const Uuid& value) {
    return quoteText(value.uuidString());
}
Uuid ValueTraits<Uuid>::read(const Row& row, int index, const ColumnBase& column) {
    auto text = readText(row, index, column);
    auto id = Uuid::parse(text);
    if (!id) {
        throw Error("Cannot read column `" + column.text() + "` as a UUID: " + std::string(text));
    }
    return *id;
}

} // namespace almanor::sql

#include "storage/sql/Table.h"

namespace almanor::sql {

namespace {

void appendBindings(std::vector<Binding>& to, const std::vector<Binding>& from) {
    to.insert(to.end(), from.begin(), from.end());
}

} // namespace

Statement Table::create(const std::vector<ColumnDefinition>& columns) const {
    std::string text = "CREATE TABLE IF NOT EXISTS " + text_ + " (";
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (i > 0) {
            text += ", ";
        }
        text += columns[i].text;
    }
    text += ')';
    return {std::move(text), {}};
}

Statement
Table::select(const Expression& where,
              std::initializer_list<std::reference_wrapper<const ColumnBase>> orderBy) const {
    std::string text = "SELECT * FROM " + text_ + " WHERE " + where.text;
    const char* separator = " ORDER BY ";
    for (const ColumnBase& column : orderBy) {
        text += separator;
        text += column.text();
        separator = ", ";
    }
    return {std::move(text), where.bindings};
}

Statement Table::insert(const std::vector<Setter>& values) const {
    std::string columns;
    std::string placeholders;
    std::vector<Binding> bindings;
    for (const auto& setter : values) {
        if (!columns.empty()) {
            columns += ", ";
            placeholders += ", ";
        }
        columns += setter.column;
        placeholders += setter.value;
        if (setter.binding) {
            bindings.push_back(*setter.binding);
        }
    }
    return {"INSERT INTO " + text_ + " (" + columns + ") VALUES (" + placeholders + ")",
            std::move(bindings)};
}

Statement Table::update(const std::vector<Setter>& values, const Expression& where) const {
    std::string text = "UPDATE " + text_ + " SET ";
    std::vector<Binding> bindings;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) {
            text += ", ";
        }
        text += values[i].column + " = " + values[i].value;
        if (values[i].binding) {
            bindings.push_back(*values[i].binding);
        }
    }
    text += " WHERE " + where.text;
    appendBindings(bindings, where.bindings);
    return {std::move(text), std::move(bindings)};
}

} // namespace almanor::sql

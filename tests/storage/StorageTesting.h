#pragma once

#include "model/Event.h"
#include "storage/sql/Connection.h"

#include <chrono>
#include <sqlite3.h>
#include <string>
#include <vector>

namespace almanor::test {

inline Instant at(std::chrono::year_month_day day, std::chrono::milliseconds time = {}) {
    return Instant{std::chrono::sys_days{day}} + time;
}

inline EventPtr event(std::string name, Instant date, std::optional<std::string> alias = {},
                      Schedule schedule = Schedule::none,
                      CountMethod method = CountMethod::standard) {
    return makeEvent(Uuid::random(), date, std::move(name), std::move(alias), schedule, method);
}

// The column "value" of a one-row query as text, "NULL" for NULL: for looking at the file as it is.
inline std::string scalar(sql::Connection& connection, const std::string& query) {
    auto rows =
        connection.prepare({R"(SELECT CAST("value" AS TEXT) AS "value" FROM ()" + query + ")", {}});
    if (!rows.next()) {
        return "<no row>";
    }
    sql::Column<std::optional<std::string>> value{"value"};
    return rows.row().get(value).value_or("NULL");
}

} // namespace almanor::test

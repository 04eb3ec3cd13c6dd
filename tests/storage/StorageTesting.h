#pragma once

#include "model/Event.h"
#include "storage/sql/Connection.h"

#include <chrono>
#include <sqlite3.h>
#include <string>
#include <vector>

namespace almanor::test {

// The texts of the statements a connection runs, as SQLite saw them (before binding).
class StatementTrace {
  public:
    explicit StatementTrace(sql::Connection& connection) : db_(connection.handle()) {
        sqlite3_trace_v2(db_, SQLITE_TRACE_STMT, &StatementTrace::record, this);
    }
    ~StatementTrace() { sqlite3_trace_v2(db_, 0, nullptr, nullptr); }
    StatementTrace(const StatementTrace&) = delete;
    StatementTrace& operator=(const StatementTrace&) = delete;

    // The texts since the last call.
    std::vector<std::string> take() { return std::exchange(texts_, {}); }

  private:
    static int record(unsigned, void* context, void* statement, void*) {
        static_cast<StatementTrace*>(context)->texts_.emplace_back(
            sqlite3_sql(static_cast<sqlite3_stmt*>(statement)));
        return 0;
    }
    sqlite3* db_;
    std::vector<std::string> texts_;
};

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

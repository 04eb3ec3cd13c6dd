#include "storage/StoreSchema.h"

#include "storage/EventsTable.h"
#include "storage/sql/Connection.h"
#include "storage/sql/Error.h"

#include <string>

namespace almanor {

namespace {

std::int64_t fileVersion(sql::Connection& connection) {
    auto rows = connection.prepare(sql::Statement{"PRAGMA user_version", {}});
    rows.next();
    return rows.row().integer(0);
}

} // namespace

std::vector<SchemaVersion> schemaVersions(const EventsTable& events) {
    return {
        {1, {events.table.create(events.definitions())}},
    };
}

void prepareSchema(sql::Connection& connection, const EventsTable& events) {
    const auto versions = schemaVersions(events);
    const std::int64_t newest = versions.back().version;
    connection.sync([&] {
        // Reading the schema as well as the header finds a file that is damaged past its first
        // hundred bytes before anything is written.
        connection.run("SELECT count(*) FROM sqlite_master");
        if (fileVersion(connection) >= newest) {
            return; // up to date, or written by a newer build: left as it is
        }
        connection.run("BEGIN IMMEDIATE");
        try {
            // Asked again under the write lock: another process may have just done the same.
            std::int64_t version = fileVersion(connection);
            for (const auto& step : versions) {
                if (step.version > version) {
                    for (const auto& statement : step.statements) {
                        connection.run(statement);
                    }
                }
            }
            if (version < newest) {
                // A pragma takes no bound values; the number is ours.
                connection.run("PRAGMA user_version = " + std::to_string(newest));
            }
            connection.run("COMMIT");
        } catch (const sql::Error&) {
            try {
                connection.run("ROLLBACK");
            } catch (const sql::Error&) {
                // SQLite has rolled back already.
            }
            throw;
        }
    });
}

} // namespace almanor

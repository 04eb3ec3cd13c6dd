#pragma once

#include "platform/Export.h"
#include "storage/sql/Table.h"

#include <cstdint>
#include <vector>

namespace almanor {

namespace sql {
class Connection;
}
struct EventsTable;

// One step of the store's schema: the statements that bring a file from the version before it to
// `version`.
struct ALMANOR_EXPORT SchemaVersion {
    std::int64_t version;
    std::vector<sql::Statement> statements;
};

// Every step, oldest first. A file keeps the version it has reached in PRAGMA user_version (0: a
// new file, or one made before the version was kept). A later table joins as a new step at the
// end; a step that has shipped never changes, since files out there have run it.
ALMANOR_EXPORT std::vector<SchemaVersion> schemaVersions(const EventsTable& events);

// Brings the file to the newest version: the steps past its own run in one transaction, with
// the version. A file that is already there is only read, so a damaged one is reported and never
// written to. Throws sql::Error.
ALMANOR_EXPORT void prepareSchema(sql::Connection& connection, const EventsTable& events);

} // namespace almanor

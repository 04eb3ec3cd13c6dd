#pragma once

#include "storage/sql/Table.h"

namespace almanor {

class Repository;
class UserDefaults;
struct EventsTable;

// Prepares the database the first time this storage format is used: creates the "events" table
// and records that in the defaults store (buildVersion = 1). There is no later step; a changed
// format goes into a new file.
class MigrationManager {
  public:
    // CREATE TABLE IF NOT EXISTS "events" (...), built from the table's columns.
    static sql::Statement createTableStatement(const EventsTable& events);

    // Creates the table (harmless over an existing one) and sets buildVersion to 1. A table that
    // cannot be created stops the process, leaving buildVersion as it was for the next start.
    static void migrate(Repository& repository, UserDefaults& defaults);

    // migrate() when buildVersion is still 0.
    static void migrateIfNeeded(Repository& repository, UserDefaults& defaults);
};

} // namespace almanor

#pragma once

#include "platform/Export.h"
#include "storage/sql/Table.h"

namespace almanor {

class Repository;
class SettingsFile;
struct EventsTable;

// Records in the defaults store (buildVersion = 1) that the store has been prepared for this
// storage format. The store itself makes its tables whenever it opens a file that lacks them, so
// a database file lost after this ran starts empty instead of failing.
class ALMANOR_EXPORT MigrationManager {
  public:
    // CREATE TABLE IF NOT EXISTS "events" (...), built from the table's columns.
    static sql::Statement createTableStatement(const EventsTable& events);

    // Makes sure the store has its table and sets buildVersion to 1. A store that cannot be read
    // leaves buildVersion as it was for the next start and returns false; the store's unusable()
    // says why.
    static bool migrate(Repository& repository, SettingsFile& defaults);

    // migrate() when buildVersion is still 0; false only when it ran and failed.
    static bool migrateIfNeeded(Repository& repository, SettingsFile& defaults);
};

} // namespace almanor

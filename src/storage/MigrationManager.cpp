#include "storage/MigrationManager.h"

#include "platform/Fatal.h"
#include "platform/Settings.h"
#include "platform/UserDefaults.h"
#include "storage/EventsTable.h"
#include "storage/Repository.h"
#include "storage/sql/Error.h"

#include <string>

namespace almanor {

sql::Statement MigrationManager::createTableStatement(const EventsTable& events) {
    return events.table.create(events.definitions());
}

void MigrationManager::migrate(Repository& repository, UserDefaults& defaults) {
    auto& local = repository.local();
    try {
        local.connection().run(createTableStatement(local.events()));
    } catch (const sql::Error& e) {
        fatalError("Almanor/MigrationManager", 36,
                   std::string("Failed to create local database: ") + e.what());
    }
    defaults.setInteger(Settings::buildVersion, 1);
}

void MigrationManager::migrateIfNeeded(Repository& repository, UserDefaults& defaults) {
    if (defaults.integer(Settings::buildVersion) == 0) {
        migrate(repository, defaults);
    }
}

} // namespace almanor

#include "storage/MigrationManager.h"

#include "platform/Settings.h"
#include "platform/SettingsFile.h"
#include "storage/EventsTable.h"
#include "storage/Repository.h"
#include "storage/StoreSchema.h"

namespace almanor {

sql::Statement MigrationManager::createTableStatement(const EventsTable& events) {
    return schemaVersions(events).front().statements.front();
}

bool MigrationManager::migrate(Repository& repository, SettingsFile& defaults) {
    if (repository.local().unusable()) {
        return false;
    }
    defaults.setInteger(Settings::buildVersion, 1);
    return true;
}

bool MigrationManager::migrateIfNeeded(Repository& repository, SettingsFile& defaults) {
    if (defaults.integer(Settings::buildVersion) == 0) {
        return migrate(repository, defaults);
    }
    return true;
}

} // namespace almanor

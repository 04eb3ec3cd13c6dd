#include "cloud/MigrationHelper.h"

#include "cloud/RecordMapping.h"
#include "platform/Log.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"

namespace almanor {

std::string describe(const RecordZone& zone) {
    return "Zone " + zone.name + " at " + zone.url;
}

std::vector<CloudEvent> MigrationHelper::fetchRecords(const Clock& clock) {
    std::vector<CloudRecord> records;
    try {
        records = service_->performQuery(std::string(eventRecordType), zoneName_);
    } catch (const CloudError& e) {
        Log::error(std::string("Failed to fetch records: ") + e.what());
        return {};
    }
    std::vector<CloudEvent> events;
    events.reserve(records.size());
    for (const auto& record : records)
        events.push_back(eventFromRecord(record, clock));
    return events;
}

bool MigrationHelper::hasRecords(CloudService& service, const std::string& zoneName) {
    try {
        return !service.performQuery(std::string(eventRecordType), zoneName).empty();
    } catch (const CloudError& e) {
        Log::error(std::string("Failed to check for records: ") + e.what());
        return false;
    }
}

std::optional<std::string> MigrationHelper::zoneInUse(SettingsFile& defaults) {
    if (defaults.boolean(Settings::appZoneUsed)) {
        return std::string(appZoneName);
    }
    return defaults.string(Settings::recordZone);
}

std::optional<MigrationHelper>
MigrationHelper::findExistingRecords(std::shared_ptr<CloudService> service,
                                     SettingsFile& defaults) {
    if (!defaults.boolean(Settings::appZoneUsed)) {
        Log::debug("Finding existing cloud records");
        try {
            bool appZone = false;
            bool legacyZone = false;
            for (const auto& zone : service->fetchAllZones()) {
                Log::debug(describe(zone));
                if (zone.name == appZoneName)
                    appZone = true;
                if (zone.name == legacyZoneName)
                    legacyZone = true;
            }
            if (appZone) {
                defaults.setString(Settings::recordZone, appZoneName);
                defaults.setBoolean(Settings::appZoneUsed, true);
            } else if (legacyZone && hasRecords(*service, std::string(legacyZoneName))) {
                defaults.setString(Settings::recordZone, legacyZoneName);
            }
        } catch (const CloudError& e) {
            Log::error(std::string("Failed to fetch zone: ") + e.what());
        }
    }
    std::optional<std::string> zone = zoneInUse(defaults);
    if (!zone) {
        Log::debug("No zone found in the cloud, no need to migrate");
        return std::nullopt;
    }
    return MigrationHelper(std::move(service), *zone);
}

} // namespace almanor

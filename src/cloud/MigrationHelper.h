#pragma once

#include "cloud/CloudEvent.h"
#include "cloud/CloudService.h"
#include "platform/Export.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace almanor {

class Clock;
class SettingsFile;

// How a zone is printed while the zones are walked: its name and where it lives.
ALMANOR_EXPORT std::string describe(const RecordZone& zone);

// Reads every event record of one zone, once, for the start-up pull.
class ALMANOR_EXPORT MigrationHelper {
  public:
    MigrationHelper(std::shared_ptr<CloudService> service, std::string zoneName)
        : service_(std::move(service)), zoneName_(std::move(zoneName)) {}

    const std::string& zoneName() const { return zoneName_; }

    // The zone's events in the order the service lists them; empty on failure (logged). A record
    // without a date is dated `clock`'s now.
    std::vector<CloudEvent> fetchRecords(const Clock& clock);

    // Whether the zone holds at least one event record; false on failure (logged).
    static bool hasRecords(CloudService& service, const std::string& zoneName);

    // Finds the zone that holds the user's records, remembering it in the defaults
    // (`appZoneUsed`, `recordZone`). None when there is nothing to read. The legacy zone counts
    // only when it holds records; the app's zone as soon as it exists.
    static std::optional<MigrationHelper> findExistingRecords(std::shared_ptr<CloudService> service,
                                                              SettingsFile& defaults);

    // The zone in use as the defaults remember it: the app's own zone once it has been seen,
    // else the stored name.
    static std::optional<std::string> zoneInUse(SettingsFile& defaults);

  private:
    std::shared_ptr<CloudService> service_;
    std::string zoneName_; // "_default" reads the database's default zone
};

} // namespace almanor

#pragma once

#include "cloud/CloudRecord.h"

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace almanor {

// The account's state as the cloud reports it. Only noAccount stops the cloud repository's
// creation.
enum class AccountStatus {
    couldNotDetermine = 0,
    available = 1,
    restricted = 2,
    noAccount = 3,
    temporarilyUnavailable = 4,
};

// A failed request of the cloud; what() is the description that the log lines carry.
class CloudError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A zone of the user's cloud database. The description printed for it names both.
struct RecordZone {
    std::string name; // "com.vostrel.almanor.zone"
    std::string url;  // where the adapter finds it
};

// The settings of a batched save.
struct ModifyOptions {
    int savePolicy = 1;        // save only the changed keys
    int qualityOfService = 25; // user-initiated
    bool atomic = true;
};

// The operations of the user's private cloud database that the cloud logic uses. An adapter
// (CalDAV) implements them over the network, a fake in memory. Every call may be made from any
// thread; each request ends within the adapter's bounded waits.
class CloudService {
  public:
    // The name that stands for the database's default zone.
    static constexpr std::string_view defaultZoneName = "_default";

    virtual ~CloudService() = default;

    // Needs no network request. Throws CloudError when the status cannot be had (for example
    // the password cannot be read).
    virtual AccountStatus accountStatus() = 0;

    // Creates the zone; a zone that exists already counts as saved. Throws CloudError.
    virtual void saveZone(const std::string& zoneName) = 0;
    // Every zone of the database, in the order the server lists them. Throws CloudError.
    virtual std::vector<RecordZone> fetchAllZones() = 0;

    // Saves a new record: fails when one of that name exists. Returns the record as saved.
    // Throws CloudError.
    virtual CloudRecord saveRecord(const CloudRecord& record) = 0;
    // Deletes a record; one that is already gone counts as deleted. Throws CloudError.
    virtual void deleteRecord(const RecordId& recordId) = 0;
    // Starts a batched save (creating or replacing each record) in the background and returns
    // at once; its outcome is not reported. What the server refuses or never answers is kept and
    // sent again by flushUnsent().
    virtual void modifyRecords(std::vector<CloudRecord> records, const ModifyOptions& options) = 0;
    // Every record of the type in the zone ("_default": the default zone). Throws CloudError.
    virtual std::vector<CloudRecord> performQuery(const std::string& recordType,
                                                  const std::string& zoneName) = 0;

    // Sends again what earlier batched saves left unsent; called before each push's own work,
    // which it lets try a server that could not be reached before.
    virtual void flushUnsent() = 0;
    // Waits until every batched save started so far has been answered or has timed out.
    virtual void waitForBackgroundWork() = 0;
    // The records of batched saves that have not gone through, for marking their rows dirty
    // again before the process ends.
    virtual std::vector<CloudRecord> unsentRecords() = 0;
};

} // namespace almanor

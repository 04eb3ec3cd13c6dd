#pragma once

#include "cloud/CloudRecord.h"
#include "platform/Export.h"

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
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

// A failed request of the cloud; what() is the description that the log lines carry, one line,
// never a password or a URL's user information.
class ALMANOR_EXPORT CloudError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A conditional write met another version than the one it named (HTTP 412): a record exists
// where a new one was to be created, or the record changed (or went) since its tag was seen.
class ALMANOR_EXPORT PreconditionFailed : public CloudError {
  public:
    using CloudError::CloudError;
};

// The zone's collection does not exist (any more), even after looking for it afresh.
class ALMANOR_EXPORT ZoneMissing : public CloudError {
  public:
    using CloudError::CloudError;
};

// A zone of the user's cloud database. The description printed for it names both.
struct ALMANOR_EXPORT RecordZone {
    std::string name; // "com.vostrel.almanor.zone"
    std::string url;  // where the adapter finds it
};

// A record as the server holds it now.
//  - `resource`: the record's name inside its zone's collection as the server spells it (the last
//    path segment, percent-decoded): "<recordName>.ics" for records this program created, anything
//    for those that calendar apps created. Writes and deletions name it.
//  - `etag`: the version tag that conditional writes name; empty when the server gave none.
// `record.recordId.recordName` is the event resource's UID.
struct ALMANOR_EXPORT RemoteRecord {
    CloudRecord record;
    std::string resource;
    std::string etag;

    friend bool operator==(const RemoteRecord&, const RemoteRecord&) = default;
};

// What changed in a zone since a sync token, measured against the resources a machine knows.
struct ALMANOR_EXPORT ZoneChanges {
    // Resources that are new, or whose tag differs from the known one, with their fields.
    std::vector<RemoteRecord> changed;
    // Known resources that the server no longer holds.
    std::vector<std::string> deleted;
    // Resources listed as changed whose body could not be read as an event: resource, reason.
    std::vector<std::pair<std::string, std::string>> unreadable;
    // The token to give to the next call; opaque.
    std::string token;
    // Whether the server listed the whole zone (no usable token): known resources that are
    // neither changed nor deleted are then confirmed unchanged.
    bool complete = false;
};

// The operations of the user's private cloud database that the cloud logic uses, implemented over
// the network by an adapter (CalDAV). Every call may be made from any thread; each request ends
// within the adapter's bounded waits, or at once after cancel().
class ALMANOR_EXPORT CloudService {
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
    // Every record of the type in the zone ("_default": the default zone), for reading a zone of
    // an older layout once; resources of other types (the user's other events) are left out.
    // Throws CloudError (ZoneMissing when the zone does not exist).
    virtual std::vector<CloudRecord> performQuery(const std::string& recordType,
                                                  const std::string& zoneName) = 0;

    // What changed in the app's zone since `token` (empty: list everything), given the resources
    // this machine knows and their tags (`known`: resource -> etag). Only changed resources'
    // bodies are fetched. Every event resource of the zone is a record: one that carries none of
    // the record's fields (a calendar app made it) reads from its SUMMARY and DTSTART. A token the
    // server no longer accepts falls back, within the call, to one full listing (complete).
    // Throws CloudError (ZoneMissing when the zone does not exist).
    virtual ZoneChanges fetchChanges(const std::string& zoneName, const std::string& token,
                                     const std::map<std::string, std::string>& known) = 0;

    // Creates `resource` in the record's zone only when no resource of that name exists
    // (If-None-Match: *). Returns the new tag (empty when the server gave none). Throws
    // PreconditionFailed when it exists, CloudError otherwise.
    virtual std::string createRecord(const CloudRecord& record, const std::string& resource) = 0;
    // Replaces `resource` only when its tag is still `etag` (If-Match). Returns the new tag.
    // Throws PreconditionFailed when the server's copy is another (or gone), CloudError otherwise.
    virtual std::string replaceRecord(const CloudRecord& record, const std::string& resource,
                                      const std::string& etag) = 0;
    // Deletes `resource` only when its tag is still `etag` (If-Match). One already gone counts as
    // deleted. Throws PreconditionFailed when the server holds another version, CloudError
    // otherwise.
    virtual void deleteRecord(const std::string& zoneName, const std::string& resource,
                              const std::string& etag) = 0;
    // The resource as the server holds it now, or nullopt when it is gone. Throws CloudError.
    virtual std::optional<RemoteRecord> fetchRecord(const std::string& zoneName,
                                                    const std::string& resource) = 0;

    // A new pass begins: a server found unreachable by an earlier pass is asked again.
    virtual void startPass() = 0;
    // Ends every request in flight and refuses new ones (CloudError) from now on, promptly
    // (well within a second), for a process that is quitting. Callable from any thread.
    virtual void cancel() = 0;
};

} // namespace almanor

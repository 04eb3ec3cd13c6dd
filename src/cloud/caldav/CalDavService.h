#pragma once

#include "cloud/CloudService.h"
#include "cloud/caldav/Http.h"
#include "cloud/caldav/Multistatus.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

namespace almanor::caldav {

// The user's cloud database over a CalDAV server: zones are calendar collections in the user's
// calendar home, records are event resources. Changes are listed with sync-collection (RFC 6578)
// where the server offers it, else by comparing getctag and getetag; bodies come through
// calendar-multiget, only for what changed. Writes are conditional (If-None-Match, If-Match); a
// replace edits the server's current copy of the event. A resource name that names no event
// (empty, ".ics" alone, with "/" or control characters, not UTF-8) is refused before any request.
class CalDavService : public CloudService {
  public:
    using PasswordSource = HttpClient::PasswordSource;
    // Told whenever discovery finds the calendar home, with the origins besides the server's own
    // that get the credentials; the account keeps both, so that later processes skip discovery.
    using HomeListener =
        std::function<void(const std::string& home, const std::vector<std::string>& origins)>;

    // An empty server stands for "no account": its status is noAccount, every request fails.
    // `password` throws CloudError with the reason when the password cannot be had.
    CalDavService(std::string server, std::string user, PasswordSource password,
                  Limits limits = {});
    ~CalDavService() override;
    CalDavService(const CalDavService&) = delete;
    CalDavService& operator=(const CalDavService&) = delete;

    // Finds the calendar home from the server URL with authenticated requests (or gives the one
    // known already); a refused password, an unreachable server or a server without CalDAV
    // throws CloudError with one clear line. Returns the calendar home's URL.
    std::string discoverHome();
    // The home remembered with the account: requests go there without discovery, until a
    // collection under it is missing.
    void rememberHome(const std::string& home);
    void setHomeListener(HomeListener listener);
    // Origins besides the server's own that get the credentials: those remembered with the
    // account, and those the server names in discovery (trustedOrigins()).
    void trustOrigins(const std::vector<std::string>& origins);
    std::vector<std::string> trustedOrigins() const;

    // What went over the network, for tests and benchmarks: requests sent, event bodies read
    // (a replace's read of the event it edits is a request, not a body read).
    int requestsSent() const { return requests_; }
    int bodiesRead() const { return bodies_; }
    // How many resources one calendar-multiget asks for.
    static constexpr std::size_t multigetChunk = 100;

    AccountStatus accountStatus() override;
    void saveZone(const std::string& zoneName) override;
    std::vector<RecordZone> fetchAllZones() override;
    std::vector<CloudRecord> performQuery(const std::string& recordType,
                                          const std::string& zoneName) override;
    ZoneChanges fetchChanges(const std::string& zoneName, const std::string& token,
                             const std::map<std::string, std::string>& known) override;
    std::string createRecord(const CloudRecord& record, const std::string& resource) override;
    std::string replaceRecord(const CloudRecord& record, const std::string& resource,
                              const std::string& etag) override;
    void deleteRecord(const std::string& zoneName, const std::string& resource,
                      const std::string& etag) override;
    std::optional<RemoteRecord> fetchRecord(const std::string& zoneName,
                                            const std::string& resource) override;
    void startPass() override;
    void cancel() override;
    // Called by cancel(), from any thread: what the password source waits on ends too.
    void setCancelListener(std::function<void()> listener) {
        cancelListener_ = std::move(listener);
    }
    // Called, from the requesting thread, whenever the server refuses the credentials (401).
    void setRefusedListener(std::function<void()> listener) {
        refusedListener_ = std::move(listener);
    }

  private:
    struct Listing;

    const HttpClient& client() const;
    HttpResponse send(const HttpRequest& request) const;
    // A request whose 207 answer is read as it arrives, each response handed to `each`.
    HttpResponse sendReading(HttpRequest request, const std::function<void(DavResponse&&)>& each,
                             std::string* syncToken = nullptr) const;
    HttpResponse propfind(const std::string& url, int depth, const std::string& props,
                          const std::function<void(DavResponse&&)>& each,
                          bool slowToStart = false) const;
    // Discovery's steps: the principal, from the address given or the well-known one, one
    // PROPFIND (a probe) at a time; then the addresses the principal names.
    struct Probe;
    struct PrincipalAddresses;
    std::string findPrincipal(const HttpClient& http);
    Probe probe(const HttpClient& http, const std::string& candidate, const std::string& shown);
    PrincipalAddresses principalAddresses(const HttpClient& http, const std::string& principal);
    std::string home();
    std::string zoneUrl(const std::string& zoneName);
    std::string defaultCalendarUrl();
    // Runs `attempt` on the zone's collection; when it finds the collection missing (404, or
    // moved: 301), discovery runs once more and, if the home moved, `attempt` again. Throws
    // ZoneMissing when the collection is still missing.
    template <typename Result, typename Attempt>
    Result onCollection(const std::string& zoneName, Attempt attempt);
    bool rediscover();
    // Whether the server holds something at `url`.
    bool exists(const std::string& url);
    std::optional<ZoneChanges> syncCollection(const std::string& url, const std::string& zoneName,
                                              const std::string& token,
                                              const std::map<std::string, std::string>& known,
                                              long& status);
    std::optional<ZoneChanges> listByTags(const std::string& url, const std::string& zoneName,
                                          const std::string& ctag,
                                          const std::map<std::string, std::string>& known);
    void fetchBodies(const std::string& url, const std::string& zoneName,
                     const std::map<std::string, std::string>& wanted,
                     const std::map<std::string, std::string>& known, ZoneChanges& changes);
    // A PUT of `body` to `target` in `collection`; nullopt when the collection is missing.
    std::optional<std::string> put(const std::string& collection, const std::string& target,
                                   const std::string& body, const std::string& condition,
                                   const std::string& what);

    std::string server_;
    std::optional<HttpClient> client_;
    std::string setupError_;
    PasswordSource password_;
    std::function<void()> cancelListener_;
    std::function<void()> refusedListener_;

    mutable std::mutex mutex_; // guards the discovered addresses and the listener
    std::string home_;
    std::string principal_;
    std::string defaultCalendar_;
    bool rediscovered_ = false;
    bool discovered_ = false; // by this service, not remembered
    bool noSyncCollection_ = false;
    HomeListener listener_;

    mutable std::atomic<int> requests_ = 0;
    std::atomic<int> bodies_ = 0;
};

} // namespace almanor::caldav

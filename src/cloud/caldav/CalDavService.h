#pragma once

#include "cloud/CloudService.h"
#include "cloud/caldav/Http.h"
#include "cloud/caldav/Multistatus.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace almanor::caldav {

// The user's cloud database over a CalDAV server: zones are calendar collections in the user's
// calendar home, records are event resources "<recordName>.ics".
class CalDavService : public CloudService {
  public:
    using PasswordSource = HttpClient::PasswordSource;

    // An empty server stands for "no account": its status is noAccount, every request fails.
    // `password` throws CloudError with the reason when the password cannot be had.
    CalDavService(std::string server, std::string user, PasswordSource password,
                  Limits limits = {});
    ~CalDavService() override;
    CalDavService(const CalDavService&) = delete;
    CalDavService& operator=(const CalDavService&) = delete;

    // Finds the calendar home from the server URL with authenticated requests; a refused
    // password, an unreachable server or a server without CalDAV throws CloudError with one
    // clear line. Returns the calendar home's URL.
    std::string discoverHome();
    // Origins besides the server's own that get the credentials: those remembered with the
    // account, and those the server names in discovery (trustedOrigins()).
    void trustOrigins(const std::vector<std::string>& origins);
    std::vector<std::string> trustedOrigins() const;

    AccountStatus accountStatus() override;
    void saveZone(const std::string& zoneName) override;
    std::vector<RecordZone> fetchAllZones() override;
    CloudRecord saveRecord(const CloudRecord& record) override;
    void deleteRecord(const RecordId& recordId) override;
    void modifyRecords(std::vector<CloudRecord> records, const ModifyOptions& options) override;
    std::vector<CloudRecord> performQuery(const std::string& recordType,
                                          const std::string& zoneName) override;
    void flushUnsent() override;
    void waitForBackgroundWork() override;
    std::vector<CloudRecord> unsentRecords() override;

  private:
    const HttpClient& client() const;
    HttpResponse send(HttpRequest request) const;
    // A request whose 207 answer is read as it arrives, each response handed to `each`.
    HttpResponse sendReading(HttpRequest request,
                             const std::function<void(DavResponse&&)>& each) const;
    HttpResponse propfind(const std::string& url, int depth, const std::string& props,
                          const std::function<void(DavResponse&&)>& each) const;
    std::string home();
    std::string zoneUrl(const std::string& zoneName);
    std::string defaultCalendarUrl();
    std::string recordUrl(const RecordId& id);
    void put(const CloudRecord& record, bool onlyIfNew);
    void worker();

    std::string server_;
    std::optional<HttpClient> client_;
    std::string setupError_;
    PasswordSource password_;

    std::mutex mutex_; // guards the discovered addresses
    std::string home_;
    std::string principal_;
    std::string defaultCalendar_;

    // Batched saves: a queue worked off by one thread; what fails is kept in `unsent_`.
    std::mutex queueMutex_;
    std::condition_variable queueChanged_;
    std::deque<CloudRecord> queue_;
    std::vector<CloudRecord> unsent_;
    bool busy_ = false;
    bool stopping_ = false;
    std::thread worker_;
};

} // namespace almanor::caldav

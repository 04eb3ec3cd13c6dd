#pragma once

#include "CalDavServers.h"
#include "cloud/RecordMapping.h"
#include "cloud/caldav/CalDavService.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <mutex>
#include <numeric>

namespace almanor::test {

// The CalDAV adapter over the scripted server, listing by tags (that server's sync-collection
// ignores tokens). Each call is counted and runs the hook first, which may act as another client
// and fails the call before or after it takes effect (a server that applies a write and drops the
// answer). `other`, names(), seed() and send() are another client of the same server.
class HookedCalDav : public CloudService {
  public:
    enum class Op { status, saveZone, zones, query, changes, create, replace, remove, fetch };
    enum class Failure { none, before, after };

    explicit HookedCalDav(std::shared_ptr<ScriptedDavServer> dav =
                              std::make_shared<ScriptedDavServer>(std::vector<std::string>{
                                  "--no-sync-collection"}))
        : server(std::move(dav)) {}

    void setAccountStatus(AccountStatus status) { status_ = status; }
    void setHook(std::function<Failure(Op)> hook) {
        std::lock_guard lock(mutex_);
        hook_ = std::move(hook);
    }
    // A hook that fails no call.
    void onCall(std::function<void(Op)> act) {
        setHook([act](Op op) {
            act(op);
            return Failure::none;
        });
    }
    void failAll(Op failing) {
        setHook([failing](Op op) { return op == failing ? Failure::before : Failure::none; });
    }
    int calls(Op op) const { return calls_.at(std::size_t(op)); }
    // Calls that reach the server: all but accountStatus.
    int requests() const { return std::accumulate(calls_.begin() + 1, calls_.end(), 0); }
    void resetCounts() { std::fill(calls_.begin(), calls_.end(), 0); }
    bool cancelled() const { return cancelled_; }

    // The names of the events the zone holds, sorted.
    std::vector<std::string> names(const std::string& zone = std::string(appZoneName)) {
        std::vector<std::string> out;
        for (const auto& remote : other.fetchChanges(zone, {}, {}).changed)
            out.push_back(std::get<std::string>(remote.record.fields.at("CD_name")));
        std::sort(out.begin(), out.end());
        return out;
    }
    // Writes over whatever the server holds, creating the zone.
    void seed(const CloudRecord& record, std::string resource = {}) {
        if (resource.empty())
            resource = record.recordId.recordName + ".ics";
        other.saveZone(record.recordId.zoneName);
        other.deleteRecord(record.recordId.zoneName, resource, {}); // names no version
        other.createRecord(record, resource);
    }
    // `method` on the zone's collection, or on `resource` in it.
    void send(const std::string& method, const std::string& zone, const std::string& resource = {},
              const std::string& body = {}) {
        caldav::HttpClient(server->url(), "alice", [] {
            return std::string("s3cret");
        }).perform({method, other.discoverHome() + zone + "/" + resource, {}, body});
    }

    AccountStatus accountStatus() override {
        return act(Op::status, [&] { return status_.load(); }); // asks no server
    }
    void saveZone(const std::string& zone) override {
        act(Op::saveZone, [&] {
            service_.saveZone(zone);
            return true;
        });
    }
    std::vector<RecordZone> fetchAllZones() override {
        return act(Op::zones, [&] { return service_.fetchAllZones(); });
    }
    std::vector<CloudRecord> performQuery(const std::string& type,
                                          const std::string& zone) override {
        return act(Op::query, [&] { return service_.performQuery(type, zone); });
    }
    ZoneChanges fetchChanges(const std::string& zone, const std::string& token,
                             const std::map<std::string, std::string>& known) override {
        return act(Op::changes, [&] { return service_.fetchChanges(zone, token, known); });
    }
    std::string createRecord(const CloudRecord& record, const std::string& resource) override {
        return act(Op::create, [&] { return service_.createRecord(record, resource); });
    }
    std::string replaceRecord(const CloudRecord& record, const std::string& resource,
                              const std::string& etag) override {
        return act(Op::replace, [&] { return service_.replaceRecord(record, resource, etag); });
    }
    void deleteRecord(const std::string& zone, const std::string& resource,
                      const std::string& etag) override {
        act(Op::remove, [&] {
            service_.deleteRecord(zone, resource, etag);
            return true;
        });
    }
    std::optional<RemoteRecord> fetchRecord(const std::string& zone,
                                            const std::string& resource) override {
        return act(Op::fetch, [&] { return service_.fetchRecord(zone, resource); });
    }
    void startPass() override { service_.startPass(); }
    void cancel() override {
        cancelled_ = true;
        service_.cancel();
    }

    const std::shared_ptr<ScriptedDavServer> server;
    caldav::CalDavService other{server->url(), "alice", [] { return std::string("s3cret"); }};

  private:
    template <class Work> auto act(Op op, Work work) -> decltype(work()) {
        ++calls_.at(std::size_t(op));
        std::unique_lock lock(mutex_);
        const auto hook = hook_;
        lock.unlock();
        const Failure failure = hook ? hook(op) : Failure::none;
        if (failure == Failure::before)
            throw CloudError("injected failure");
        auto result = work();
        if (failure == Failure::after)
            throw CloudError("the answer was lost");
        return result;
    }

    std::mutex mutex_; // guards the hook
    std::function<Failure(Op)> hook_;
    std::array<std::atomic<int>, 9> calls_{}; // by Op
    std::atomic<AccountStatus> status_{AccountStatus::available};
    std::atomic<bool> cancelled_{false};
    caldav::CalDavService service_{server->url(), "alice", [] { return std::string("s3cret"); }};
};

} // namespace almanor::test

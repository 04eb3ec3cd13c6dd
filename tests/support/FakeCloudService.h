#pragma once

#include "cloud/CloudService.h"

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace almanor::test {

// The cloud database in memory, behaving as the adapter does over a server that lists whole zones
// by version tags (CloudServiceContract holds it to that): conditional writes, deletions of what
// is gone that succeed. Failures are injected per call, before the call takes effect or after it
// (a server that applies a write and drops the connection). Thread-safe.
class FakeCloudService : public CloudService {
  public:
    enum class Op { status, saveZone, zones, query, changes, create, replace, remove, fetch };
    struct Call {
        Op op;
        std::string zone;
        std::string resource; // create, replace, remove, fetch
    };
    enum class Failure { none, before, after };

    FakeCloudService() { zones_[std::string(defaultZoneName)]; }

    void setAccountStatus(AccountStatus status) { status_ = status; }
    // The calls `failing` picks fail with `message`, before or after taking effect; {}: none.
    void setFailureHook(std::function<Failure(const Call&)> failing,
                        std::string message = "injected failure") {
        std::lock_guard lock(mutex_);
        failing_ = std::move(failing);
        message_ = std::move(message);
    }
    void failAll(Op op, std::string message = "injected failure") {
        setFailureHook([op](const Call& c) { return c.op == op ? Failure::before : Failure::none; },
                       std::move(message));
    }
    void clearFailures() { setFailureHook({}); }
    // Runs inside every call, unlocked, before it takes effect: it may act as another client.
    void setOnCall(std::function<void(const Call&)> hook) {
        locked([&] { onCall_ = std::move(hook); });
    }

    int calls(Op op) const {
        return locked([&] { return calls_.count(op) ? calls_.at(op) : 0; });
    }
    // Requests that reach the server: every call but accountStatus.
    int requests() const {
        return locked([&] { return requests_; });
    }
    // Event bodies handed out, by listings and fetches.
    int bodiesFetched() const {
        return locked([&] { return bodies_; });
    }
    void resetCounts() {
        std::lock_guard lock(mutex_);
        calls_.clear();
        requests_ = 0;
        bodies_ = 0;
    }

    std::map<std::string, RemoteRecord> stored(const std::string& zone) const {
        return locked([&] { return zones_.count(zone) ? zones_.at(zone) : Resources{}; });
    }
    // Writes or removes a resource as another client would: unconditionally. Creates the zone.
    std::string seed(const CloudRecord& record, std::string resource = {}) {
        return locked([&] {
            return put(record, resource.empty() ? record.recordId.recordName + ".ics" : resource);
        });
    }
    void unseed(const std::string& zone, const std::string& resource) {
        locked([&] { zones_[zone].erase(resource); });
    }
    void seedZone(const std::string& zone) {
        locked([&] { zones_[zone]; });
    }
    void dropZone(const std::string& zone) {
        locked([&] { zones_.erase(zone); });
    }
    // A new process's service to the same server: cancel() no longer holds.
    void resume() { cancelled_ = false; }
    bool cancelled() const { return cancelled_; }

    AccountStatus accountStatus() override {
        return act({Op::status, {}, {}}, [&] { return status_.load(); });
    }
    void saveZone(const std::string& zone) override {
        act({Op::saveZone, zone, {}}, [&] { return zones_.try_emplace(zone).second; });
    }
    std::vector<RecordZone> fetchAllZones() override {
        return act({Op::zones, {}, {}}, [&] {
            std::vector<RecordZone> out;
            for (const auto& [name, resources] : zones_)
                if (name != defaultZoneName)
                    out.push_back(RecordZone{name, "memory:/" + name + "/"});
            return out;
        });
    }
    std::vector<CloudRecord> performQuery(const std::string& type,
                                          const std::string& zone) override {
        return act({Op::query, zone, {}}, [&] {
            std::vector<CloudRecord> out;
            for (const auto& [resource, remote] : in(zone))
                if (remote.record.recordType == type)
                    out.push_back(remote.record);
            return out;
        });
    }
    // Every listing is whole: only what differs from `known` is handed out.
    ZoneChanges fetchChanges(const std::string& zone, const std::string&,
                             const std::map<std::string, std::string>& known) override {
        return act({Op::changes, zone, {}}, [&] {
            ZoneChanges changes{{}, {}, {}, "whole", true};
            for (const auto& [resource, remote] : in(zone))
                if (!known.count(resource) || known.at(resource) != remote.etag) {
                    changes.changed.push_back(remote);
                    ++bodies_;
                }
            for (const auto& [resource, etag] : known)
                if (!in(zone).count(resource))
                    changes.deleted.push_back(resource);
            return changes;
        });
    }
    std::string createRecord(const CloudRecord& record, const std::string& resource) override {
        return act({Op::create, record.recordId.zoneName, resource}, [&] {
            if (in(record.recordId.zoneName).count(resource))
                throw PreconditionFailed("PUT " + resource + ": the server answered 412");
            return put(record, resource);
        });
    }
    std::string replaceRecord(const CloudRecord& record, const std::string& resource,
                              const std::string& etag) override {
        return act({Op::replace, record.recordId.zoneName, resource}, [&] {
            if (etagOf(record.recordId.zoneName, resource) != etag)
                throw PreconditionFailed("PUT " + resource + ": the server answered 412");
            return put(record, resource);
        });
    }
    void deleteRecord(const std::string& zone, const std::string& resource,
                      const std::string& etag) override {
        act({Op::remove, zone, resource}, [&] {
            if (etagOf(zone, resource) && etagOf(zone, resource) != etag)
                throw PreconditionFailed("DELETE " + resource + ": the server answered 412");
            return in(zone).erase(resource);
        });
    }
    std::optional<RemoteRecord> fetchRecord(const std::string& zone,
                                            const std::string& resource) override {
        return act({Op::fetch, zone, resource}, [&]() -> std::optional<RemoteRecord> {
            if (!in(zone).count(resource))
                return std::nullopt;
            ++bodies_;
            return in(zone).at(resource);
        });
    }
    void startPass() override {}
    void cancel() override { cancelled_ = true; }

  private:
    using Resources = std::map<std::string, RemoteRecord>;

    template <class Work> auto locked(Work work) const -> decltype(work()) {
        std::lock_guard lock(mutex_);
        return work();
    }
    // One call: counted, the hook run, failures injected around `work`.
    template <class Work> auto act(const Call& call, Work work) -> decltype(work()) {
        std::unique_lock lock(mutex_);
        ++calls_[call.op];
        requests_ += call.op != Op::status;
        if (auto hook = onCall_) {
            lock.unlock();
            hook(call);
            lock.lock();
        }
        if (cancelled_)
            throw CloudError("cancelled");
        if (failing_ && failing_(call) == Failure::before)
            throw CloudError(message_);
        auto result = work();
        if (failing_ && failing_(call) == Failure::after)
            throw CloudError("the answer was lost");
        return result;
    }
    Resources& in(const std::string& zone) {
        if (!zones_.count(zone))
            throw ZoneMissing("zone " + zone + " does not exist");
        return zones_.at(zone);
    }
    std::optional<std::string> etagOf(const std::string& zone, const std::string& resource) {
        return in(zone).count(resource) ? std::optional(in(zone).at(resource).etag) : std::nullopt;
    }
    std::string put(const CloudRecord& record, const std::string& resource) {
        std::string etag = "\"e" + std::to_string(++versions_) + "\"";
        zones_[record.recordId.zoneName][resource] = RemoteRecord{record, resource, etag};
        return etag;
    }

    mutable std::mutex mutex_;
    std::atomic<AccountStatus> status_{AccountStatus::available};
    std::function<Failure(const Call&)> failing_;
    std::string message_;
    std::function<void(const Call&)> onCall_;
    std::map<std::string, Resources> zones_;
    std::map<Op, int> calls_;
    int requests_ = 0;
    int bodies_ = 0;
    long versions_ = 0;
    std::atomic<bool> cancelled_{false};
};

} // namespace almanor::test

#pragma once

#include "cloud/CloudService.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace almanor::test {

// The cloud database in memory, behaving as the adapter does over a server: zones, resources with
// version tags, a change log behind sync tokens, conditional writes (412 as PreconditionFailed),
// deletions of missing resources that succeed. Failures are injected per call, before the call
// takes effect or after it (a server that applies a write and drops the connection).
class FakeCloudService : public CloudService {
  public:
    enum class Op {
        accountStatus,
        saveZone,
        fetchAllZones,
        query,
        fetchChanges,
        create,
        replace,
        remove,
        fetch
    };

    struct Call {
        Op op;
        std::string zone;
        std::string resource; // create, replace, remove, fetch
    };
    // What an injected failure does: nothing, fail before the call has any effect, or fail after
    // it took effect (the answer is lost).
    enum class Failure { none, before, after };
    using FailureHook = std::function<Failure(const Call&)>;

    FakeCloudService() { makeZone(std::string(defaultZoneName)); }

    // ---- test controls ----
    void setAccountStatus(AccountStatus status) {
        std::lock_guard lock(mutex_);
        status_ = status;
    }
    void setFailureHook(FailureHook hook) {
        std::lock_guard lock(mutex_);
        hook_ = std::move(hook);
    }
    // Every call of `op` fails before taking effect with `message` (until cleared).
    void failAll(Op op, std::string message = "injected failure before the call") {
        setFailureHook(
            [op](const Call& c) { return c.op == op ? Failure::before : Failure::none; });
        std::lock_guard lock(mutex_);
        message_ = std::move(message);
    }
    void clearFailures() {
        setFailureHook({});
        std::lock_guard lock(mutex_);
        message_ = "injected failure before the call";
    }
    // Called inside every call, before it takes effect (for cancelling or editing mid-pass).
    void setOnCall(std::function<void(const Call&)> hook) {
        std::lock_guard lock(mutex_);
        onCall_ = std::move(hook);
    }
    // Tokens issued so far stop being accepted (the server forgot them).
    void expireTokens() {
        std::lock_guard lock(mutex_);
        oldestToken_ = sequence_;
    }
    // Whether the server supports sync tokens at all; without them every listing is complete.
    void setTokensSupported(bool supported) {
        std::lock_guard lock(mutex_);
        tokens_ = supported;
    }

    int calls(Op op) const {
        std::lock_guard lock(mutex_);
        auto it = calls_.find(op);
        return it == calls_.end() ? 0 : it->second;
    }
    // Requests that reach the server: everything but accountStatus.
    int requests() const {
        std::lock_guard lock(mutex_);
        int n = 0;
        for (const auto& [op, count] : calls_)
            if (op != Op::accountStatus)
                n += count;
        return n;
    }
    // Bodies handed out: one per changed record of a listing, one per fetch.
    int bodiesFetched() const {
        std::lock_guard lock(mutex_);
        return bodies_;
    }
    void resetCounts() {
        std::lock_guard lock(mutex_);
        calls_.clear();
        bodies_ = 0;
    }

    // What a zone holds, by resource.
    std::map<std::string, RemoteRecord> stored(const std::string& zoneName) const {
        std::lock_guard lock(mutex_);
        std::map<std::string, RemoteRecord> out;
        if (auto z = zones_.find(zoneName); z != zones_.end())
            for (const auto& [resource, entry] : z->second)
                out.emplace(resource, entry.remote);
        return out;
    }
    std::optional<RemoteRecord> stored(const std::string& zoneName,
                                       const std::string& resource) const {
        std::lock_guard lock(mutex_);
        auto z = zones_.find(zoneName);
        if (z == zones_.end())
            return std::nullopt;
        auto it = z->second.find(resource);
        if (it == z->second.end())
            return std::nullopt;
        return it->second.remote;
    }
    // Writes a resource as another client would (a calendar app, another machine): unconditionally,
    // with a new tag. Creates the zone.
    std::string seed(const CloudRecord& record, std::string resource = {}) {
        std::lock_guard lock(mutex_);
        if (resource.empty())
            resource = record.recordId.recordName + ".ics";
        return put(record.recordId.zoneName, resource, record);
    }
    // Removes a resource as another client would.
    void unseed(const std::string& zoneName, const std::string& resource) {
        std::lock_guard lock(mutex_);
        erase(zoneName, resource);
    }
    void seedZone(const std::string& name) {
        std::lock_guard lock(mutex_);
        makeZone(name);
    }
    void dropZone(const std::string& name) {
        std::lock_guard lock(mutex_);
        zones_.erase(name);
    }

    // ---- CloudService ----
    AccountStatus accountStatus() override {
        std::lock_guard lock(mutex_);
        enter({Op::accountStatus, {}, {}});
        leave({Op::accountStatus, {}, {}});
        return status_;
    }

    void saveZone(const std::string& zoneName) override {
        Call call{Op::saveZone, zoneName, {}};
        std::lock_guard lock(mutex_);
        enter(call);
        makeZone(zoneName);
        leave(call);
    }

    std::vector<RecordZone> fetchAllZones() override {
        std::lock_guard lock(mutex_);
        enter({Op::fetchAllZones, {}, {}});
        std::vector<RecordZone> out;
        for (const auto& name : zoneOrder())
            if (name != defaultZoneName)
                out.push_back(RecordZone{name, "memory:/" + name + "/"});
        leave({Op::fetchAllZones, {}, {}});
        return out;
    }

    std::vector<CloudRecord> performQuery(const std::string& recordType,
                                          const std::string& zoneName) override {
        Call call{Op::query, zoneName, {}};
        std::lock_guard lock(mutex_);
        enter(call);
        std::vector<CloudRecord> out;
        for (const auto& [resource, entry] : zone(zoneName))
            if (entry.remote.record.recordType == recordType)
                out.push_back(entry.remote.record);
        leave(call);
        return out;
    }

    ZoneChanges fetchChanges(const std::string& zoneName, const std::string& token,
                             const std::map<std::string, std::string>& known) override {
        Call call{Op::fetchChanges, zoneName, {}};
        std::lock_guard lock(mutex_);
        enter(call);
        const auto& resources = zone(zoneName);
        ZoneChanges changes;
        std::optional<long> since;
        if (tokens_ && token.rfind("t", 0) == 0) {
            long n = std::stol(token.substr(1));
            if (n >= oldestToken_ && n <= sequence_)
                since = n;
        }
        changes.complete = !since;
        for (const auto& [resource, entry] : resources) {
            if (since && entry.sequence <= *since)
                continue;
            auto k = known.find(resource);
            if (k != known.end() && k->second == entry.remote.etag)
                continue;
            changes.changed.push_back(entry.remote);
            ++bodies_;
        }
        for (const auto& [resource, etag] : known) {
            if (resources.count(resource))
                continue;
            auto gone = deletedAt_.find({zoneName, resource});
            if (!since || (gone != deletedAt_.end() && gone->second > *since))
                changes.deleted.push_back(resource);
        }
        changes.token = tokens_ ? "t" + std::to_string(sequence_) : std::string();
        leave(call);
        return changes;
    }

    std::string createRecord(const CloudRecord& record, const std::string& resource) override {
        Call call{Op::create, record.recordId.zoneName, resource};
        std::lock_guard lock(mutex_);
        enter(call);
        if (zone(record.recordId.zoneName).count(resource))
            throw PreconditionFailed("PUT " + resource + ": the server answered 412");
        std::string etag = put(record.recordId.zoneName, resource, record);
        leave(call);
        return etag;
    }

    std::string replaceRecord(const CloudRecord& record, const std::string& resource,
                              const std::string& etag) override {
        Call call{Op::replace, record.recordId.zoneName, resource};
        std::lock_guard lock(mutex_);
        enter(call);
        auto& resources = zone(record.recordId.zoneName);
        auto it = resources.find(resource);
        if (it == resources.end() || it->second.remote.etag != etag)
            throw PreconditionFailed("PUT " + resource + ": the server answered 412");
        std::string fresh = put(record.recordId.zoneName, resource, record);
        leave(call);
        return fresh;
    }

    void deleteRecord(const std::string& zoneName, const std::string& resource,
                      const std::string& etag) override {
        Call call{Op::remove, zoneName, resource};
        std::lock_guard lock(mutex_);
        enter(call);
        auto& resources = zone(zoneName);
        auto it = resources.find(resource);
        if (it != resources.end()) {
            if (it->second.remote.etag != etag)
                throw PreconditionFailed("DELETE " + resource + ": the server answered 412");
            erase(zoneName, resource);
        }
        leave(call);
    }

    std::optional<RemoteRecord> fetchRecord(const std::string& zoneName,
                                            const std::string& resource) override {
        Call call{Op::fetch, zoneName, resource};
        std::lock_guard lock(mutex_);
        enter(call);
        const auto& resources = zone(zoneName);
        auto it = resources.find(resource);
        std::optional<RemoteRecord> out;
        if (it != resources.end()) {
            out = it->second.remote;
            ++bodies_;
        }
        leave(call);
        return out;
    }

    void startPass() override {}
    // A new process's service to the same server: cancel() no longer holds.
    void resume() { cancelled_ = false; }
    bool cancelled() const { return cancelled_; }

    void cancel() override { cancelled_ = true; }

  private:
    struct Entry {
        RemoteRecord remote;
        long sequence = 0;
    };
    using Resources = std::map<std::string, Entry>;

    void enter(const Call& call) {
        ++calls_[call.op];
        if (onCall_) {
            // Called without the lock: the hook may act as another client.
            auto hook = onCall_;
            mutex_.unlock();
            try {
                hook(call);
            } catch (...) {
                mutex_.lock();
                throw;
            }
            mutex_.lock();
        }
        if (cancelled_)
            throw CloudError("cancelled");
        if (hook_ && hook_(call) == Failure::before)
            throw CloudError(message_);
    }
    void leave(const Call& call) {
        if (hook_ && hook_(call) == Failure::after)
            throw CloudError("injected failure: the answer was lost");
    }
    Resources& zone(const std::string& name) {
        auto it = zones_.find(name);
        if (it == zones_.end())
            throw ZoneMissing("zone " + name + " does not exist");
        return it->second;
    }
    std::vector<std::string> zoneOrder() const {
        std::vector<std::string> names;
        for (const auto& name : created_)
            if (zones_.count(name))
                names.push_back(name);
        return names;
    }
    Resources& makeZone(const std::string& name) {
        if (std::find(created_.begin(), created_.end(), name) == created_.end())
            created_.push_back(name);
        return zones_[name];
    }
    std::string put(const std::string& zoneName, const std::string& resource,
                    const CloudRecord& record) {
        auto& entry = makeZone(zoneName)[resource];
        entry.remote.record = record;
        entry.remote.resource = resource;
        entry.remote.etag = "\"e" + std::to_string(++etags_) + "\"";
        entry.sequence = ++sequence_;
        deletedAt_.erase({zoneName, resource});
        return entry.remote.etag;
    }
    void erase(const std::string& zoneName, const std::string& resource) {
        auto z = zones_.find(zoneName);
        if (z == zones_.end() || z->second.erase(resource) == 0)
            return;
        deletedAt_[{zoneName, resource}] = ++sequence_;
    }

    mutable std::mutex mutex_;
    AccountStatus status_ = AccountStatus::available;
    FailureHook hook_;
    std::string message_ = "injected failure before the call";
    std::function<void(const Call&)> onCall_;
    std::map<std::string, Resources> zones_;
    std::vector<std::string> created_; // zones in the order they were made
    std::map<std::pair<std::string, std::string>, long> deletedAt_;
    std::map<Op, int> calls_;
    int bodies_ = 0;
    long etags_ = 0;
    long sequence_ = 0;
    long oldestToken_ = 0;
    bool tokens_ = true;
    std::atomic<bool> cancelled_{false};
};

} // namespace almanor::test

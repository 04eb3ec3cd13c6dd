#pragma once

#include "cloud/CloudService.h"

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace almanor::test {

// The cloud database in memory, behaving as the adapter does over a server: zones, conditional
// saves, deletes of missing records that succeed, batched saves in the background whose refused
// records are kept for flushUnsent(). Failures are injected per operation.
class FakeCloudService : public CloudService {
  public:
    enum class Op {
        accountStatus,
        saveZone,
        fetchAllZones,
        saveRecord,
        deleteRecord,
        modify,
        query
    };

    // Returns an error description to make the call fail, nullopt to let it through. `record` is
    // set for saveRecord and modify (once per record), `recordId` for deleteRecord; `zone` is
    // set for saveZone and query.
    struct Call {
        Op op;
        const CloudRecord* record = nullptr;
        const RecordId* recordId = nullptr;
        const std::string* zone = nullptr;
    };
    using FailureHook = std::function<std::optional<std::string>(const Call&)>;

    FakeCloudService() { zones_.push_back(std::string(defaultZoneName)); }
    ~FakeCloudService() override { waitForBackgroundWork(); }

    // ---- test controls ----
    void setAccountStatus(AccountStatus status) {
        std::lock_guard lock(mutex_);
        status_ = status;
    }
    void setFailureHook(FailureHook hook) {
        std::lock_guard lock(mutex_);
        hook_ = std::move(hook);
    }
    // Every call of `op` fails with `message` (until cleared with an empty hook).
    void failAll(Op op, std::string message) {
        setFailureHook([op, message](const Call& c) -> std::optional<std::string> {
            if (c.op == op)
                return message;
            return std::nullopt;
        });
    }
    void clearFailures() { setFailureHook({}); }
    // While held, batched saves started from now wait before they are answered.
    void holdBackground(bool hold) {
        {
            std::lock_guard lock(mutex_);
            held_ = hold;
        }
        changed_.notify_all();
    }
    // The number of calls of each operation so far, failed ones included.
    int calls(Op op) const {
        std::lock_guard lock(mutex_);
        auto it = calls_.find(op);
        return it == calls_.end() ? 0 : it->second;
    }
    int totalCalls() const {
        std::lock_guard lock(mutex_);
        int n = 0;
        for (const auto& [op, count] : calls_)
            n += count;
        return n;
    }
    // The records stored in a zone, by record name.
    std::vector<CloudRecord> stored(const std::string& zoneName) const {
        std::lock_guard lock(mutex_);
        std::vector<CloudRecord> out;
        for (const auto& [key, record] : records_)
            if (key.first == zoneName)
                out.push_back(record);
        return out;
    }
    std::optional<CloudRecord> stored(const RecordId& id) const {
        std::lock_guard lock(mutex_);
        auto it = records_.find({id.zoneName, id.recordName});
        if (it == records_.end())
            return std::nullopt;
        return it->second;
    }
    // Puts a record straight into the store, creating its zone.
    void seed(const CloudRecord& record) {
        std::lock_guard lock(mutex_);
        addZone(record.recordId.zoneName);
        records_[{record.recordId.zoneName, record.recordId.recordName}] = record;
    }
    void seedZone(const std::string& name) {
        std::lock_guard lock(mutex_);
        addZone(name);
    }
    // Batched saves that ran so far, each with the settings it was given.
    std::vector<std::pair<std::vector<CloudRecord>, ModifyOptions>> batches() const {
        std::lock_guard lock(mutex_);
        return batches_;
    }

    // ---- CloudService ----
    AccountStatus accountStatus() override {
        std::lock_guard lock(mutex_);
        enter(Call{Op::accountStatus});
        return status_;
    }

    void saveZone(const std::string& zoneName) override {
        std::lock_guard lock(mutex_);
        enter(Call{Op::saveZone, nullptr, nullptr, &zoneName});
        addZone(zoneName);
    }

    std::vector<RecordZone> fetchAllZones() override {
        std::lock_guard lock(mutex_);
        enter(Call{Op::fetchAllZones});
        std::vector<RecordZone> out;
        for (const auto& z : zones_)
            if (z != defaultZoneName)
                out.push_back(RecordZone{z, "memory:/" + z + "/"});
        return out;
    }

    CloudRecord saveRecord(const CloudRecord& record) override {
        std::lock_guard lock(mutex_);
        enter(Call{Op::saveRecord, &record});
        requireZone(record.recordId.zoneName);
        auto key = std::pair{record.recordId.zoneName, record.recordId.recordName};
        if (records_.count(key))
            throw CloudError("record " + record.recordId.recordName + " exists");
        records_[key] = record;
        return record;
    }

    void deleteRecord(const RecordId& recordId) override {
        std::lock_guard lock(mutex_);
        enter(Call{Op::deleteRecord, nullptr, &recordId});
        requireZone(recordId.zoneName);
        records_.erase({recordId.zoneName, recordId.recordName});
    }

    void modifyRecords(std::vector<CloudRecord> records, const ModifyOptions& options) override {
        std::lock_guard lock(mutex_);
        ++calls_[Op::modify];
        ++pending_;
        workers_.emplace_back([this, records = std::move(records), options] {
            std::unique_lock guard(mutex_);
            changed_.wait(guard, [this] { return !held_; });
            batches_.emplace_back(records, options);
            applyBatch(records);
            --pending_;
            changed_.notify_all();
        });
    }

    std::vector<CloudRecord> performQuery(const std::string& recordType,
                                          const std::string& zoneName) override {
        std::lock_guard lock(mutex_);
        enter(Call{Op::query, nullptr, nullptr, &zoneName});
        requireZone(zoneName);
        std::vector<CloudRecord> out;
        for (const auto& [key, record] : records_)
            if (key.first == zoneName && record.recordType == recordType)
                out.push_back(record);
        return out;
    }

    void flushUnsent() override {
        std::lock_guard lock(mutex_);
        auto again = std::move(unsent_);
        unsent_.clear();
        if (!again.empty())
            applyBatch(again);
    }

    void waitForBackgroundWork() override {
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return pending_ == 0 || held_; });
            if (pending_ != 0) {
                // Held: a real adapter's requests time out; here the batch is given up as unsent.
                held_ = false;
                abandon_ = true;
                changed_.notify_all();
                changed_.wait(lock, [this] { return pending_ == 0; });
                abandon_ = false;
            }
        }
        std::vector<std::thread> done;
        {
            std::lock_guard lock(mutex_);
            done.swap(workers_);
        }
        for (auto& t : done)
            t.join();
    }

    std::vector<CloudRecord> unsentRecords() override {
        std::lock_guard lock(mutex_);
        return unsent_;
    }

  private:
    void enter(const Call& call) {
        ++calls_[call.op];
        if (hook_) {
            if (auto message = hook_(call))
                throw CloudError(*message);
        }
    }
    void addZone(const std::string& name) {
        if (std::find(zones_.begin(), zones_.end(), name) == zones_.end())
            zones_.push_back(name);
    }
    void requireZone(const std::string& name) const {
        if (std::find(zones_.begin(), zones_.end(), name) == zones_.end())
            throw CloudError("zone " + name + " does not exist");
    }
    // Saves each record unless refused; refused ones (and all, when given up) stay unsent, the
    // newest version of a record replacing an older unsent one.
    void applyBatch(const std::vector<CloudRecord>& records) {
        for (const auto& record : records) {
            bool refused = abandon_;
            if (!refused && hook_)
                refused = hook_(Call{Op::modify, &record}).has_value();
            if (!refused &&
                std::find(zones_.begin(), zones_.end(), record.recordId.zoneName) == zones_.end())
                refused = true;
            if (refused) {
                auto same = [&](const CloudRecord& r) { return r.recordId == record.recordId; };
                unsent_.erase(std::remove_if(unsent_.begin(), unsent_.end(), same), unsent_.end());
                unsent_.push_back(record);
            } else {
                records_[{record.recordId.zoneName, record.recordId.recordName}] = record;
            }
        }
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    AccountStatus status_ = AccountStatus::available;
    FailureHook hook_;
    std::vector<std::string> zones_;
    std::map<std::pair<std::string, std::string>, CloudRecord> records_;
    std::vector<CloudRecord> unsent_;
    std::map<Op, int> calls_;
    std::vector<std::pair<std::vector<CloudRecord>, ModifyOptions>> batches_;
    std::vector<std::thread> workers_;
    int pending_ = 0;
    bool held_ = false;
    bool abandon_ = false;
};

} // namespace almanor::test

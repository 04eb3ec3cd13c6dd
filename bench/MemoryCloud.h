#pragma once

#include "cloud/CloudService.h"

#include <map>
#include <mutex>
#include <string>

namespace almanor::bench {

// The cloud database in memory, listing whole zones by version tags, so that a benchmark measures
// the cloud logic and the store rather than a network and a server.
class MemoryCloud : public CloudService {
  public:
    void seed(const CloudRecord& record) {
        std::lock_guard lock(mutex_);
        put(record, record.recordId.recordName + ".ics");
    }

    AccountStatus accountStatus() override { return AccountStatus::available; }
    void saveZone(const std::string& zone) override {
        std::lock_guard lock(mutex_);
        zones_[zone];
    }
    std::vector<RecordZone> fetchAllZones() override {
        std::lock_guard lock(mutex_);
        std::vector<RecordZone> out;
        for (const auto& [name, resources] : zones_)
            out.push_back(RecordZone{name, "memory:/" + name + "/"});
        return out;
    }
    std::vector<CloudRecord> performQuery(const std::string& type,
                                          const std::string& zone) override {
        std::lock_guard lock(mutex_);
        std::vector<CloudRecord> out;
        for (const auto& [resource, remote] : in(zone))
            if (remote.record.recordType == type)
                out.push_back(remote.record);
        return out;
    }
    ZoneChanges fetchChanges(const std::string& zone, const std::string&,
                             const std::map<std::string, std::string>& known) override {
        std::lock_guard lock(mutex_);
        ZoneChanges changes{{}, {}, {}, "whole", true};
        for (const auto& [resource, remote] : in(zone))
            if (!known.count(resource) || known.at(resource) != remote.etag)
                changes.changed.push_back(remote);
        for (const auto& [resource, etag] : known)
            if (!in(zone).count(resource))
                changes.deleted.push_back(resource);
        return changes;
    }
    std::string createRecord(const CloudRecord& record, const std::string& resource) override {
        std::lock_guard lock(mutex_);
        if (in(record.recordId.zoneName).count(resource))
            throw PreconditionFailed("PUT " + resource + ": the server answered 412");
        return put(record, resource);
    }
    std::string replaceRecord(const CloudRecord& record, const std::string& resource,
                              const std::string& etag) override {
        std::lock_guard lock(mutex_);
        auto& zone = in(record.recordId.zoneName);
        if (!zone.count(resource) || zone.at(resource).etag != etag)
            throw PreconditionFailed("PUT " + resource + ": the server answered 412");
        return put(record, resource);
    }
    void deleteRecord(const std::string& zone, const std::string& resource,
                      const std::string&) override {
        std::lock_guard lock(mutex_);
        in(zone).erase(resource);
    }
    std::optional<RemoteRecord> fetchRecord(const std::string& zone,
                                            const std::string& resource) override {
        std::lock_guard lock(mutex_);
        auto& records = in(zone);
        if (!records.count(resource))
            return std::nullopt;
        return records.at(resource);
    }
    void startPass() override {}
    void cancel() override {}

  private:
    std::map<std::string, RemoteRecord>& in(const std::string& zone) {
        if (!zones_.count(zone))
            throw ZoneMissing("zone " + zone + " does not exist");
        return zones_.at(zone);
    }
    std::string put(const CloudRecord& record, const std::string& resource) {
        std::string etag = "\"e" + std::to_string(++versions_) + "\"";
        zones_[record.recordId.zoneName][resource] = RemoteRecord{record, resource, etag};
        return etag;
    }

    std::mutex mutex_;
    std::map<std::string, std::map<std::string, RemoteRecord>> zones_;
    long versions_ = 0;
};

} // namespace almanor::bench

#include "cloud/CloudRepository.h"

#include "cloud/RecordMapping.h"
#include "platform/Fatal.h"
#include "platform/Log.h"

#include <string>

namespace almanor {

namespace {

void unableToInsert(const Uuid& id, const CloudError& e) {
    Log::line("Unable to insert record " + id.uuidString() + ": " + e.what());
}

} // namespace

std::vector<CloudId> CloudRepository::insert(const std::vector<CloudEvent>& events) {
    std::vector<CloudId> saved;
    for (const auto& cloudEvent : events) {
        try {
            CloudRecord record = service_->saveRecord(recordFromEvent(cloudEvent));
            CloudEvent back = eventFromRecord(record);
            saved.push_back(CloudId{back.event->id(), record.recordId});
        } catch (const CloudError& e) {
            unableToInsert(cloudEvent.event->id(), e);
        }
    }
    return saved;
}

std::vector<CloudId> CloudRepository::update(const std::vector<CloudEvent>& events) {
    if (events.empty())
        return {};
    std::vector<CloudRecord> records;
    std::vector<CloudId> ids;
    records.reserve(events.size());
    for (const auto& cloudEvent : events) {
        records.push_back(recordFromEvent(cloudEvent));
        ids.push_back(CloudId{cloudEvent.event->id(), cloudEvent.recordId});
    }
    service_->modifyRecords(std::move(records), ModifyOptions{1, 25, true});
    return ids;
}

std::vector<CloudId> CloudRepository::deleteRecords(const std::vector<CloudId>& ids) {
    std::vector<CloudId> deleted;
    for (const auto& id : ids) {
        if (!id.recordId) {
            fatalError("Almanor/CloudRepository", 0, "A deleted event without its cloud record");
        }
        try {
            service_->deleteRecord(*id.recordId);
            deleted.push_back(id);
        } catch (const CloudError& e) {
            unableToInsert(id.eventId, e);
        }
    }
    return deleted;
}

std::shared_ptr<CloudRepository> CloudRepositoryFactory::get() {
    std::lock_guard lock(mutex_);
    if (repository_)
        return repository_;
    if (gaveUp_)
        return nullptr;
    repository_ = create();
    gaveUp_ = repository_ == nullptr;
    return repository_;
}

std::shared_ptr<CloudRepository> CloudRepositoryFactory::existing() {
    std::lock_guard lock(mutex_);
    return repository_;
}

void CloudRepositoryFactory::networkCameBack() {
    std::lock_guard lock(mutex_);
    gaveUp_ = false;
}

std::shared_ptr<CloudRepository> CloudRepositoryFactory::create() {
    std::shared_ptr<CloudService> service = provider_ ? provider_() : nullptr;
    if (!service) {
        Log::line("No cloudkit account available");
        return nullptr;
    }
    try {
        if (service->accountStatus() == AccountStatus::noAccount) {
            Log::line("No cloudkit account available");
            return nullptr;
        }
    } catch (const CloudError& e) {
        Log::line(std::string("Failed to check status of cloud: ") + e.what());
        return nullptr;
    }
    try {
        service->saveZone(std::string(appZoneName));
    } catch (const CloudError& e) {
        Log::line(std::string("Failed to create zone: ") + e.what());
        return nullptr;
    }
    return std::make_shared<CloudRepository>(std::move(service));
}

} // namespace almanor

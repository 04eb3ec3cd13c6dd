#include "cloud/CloudRepository.h"

#include "cloud/RecordMapping.h"
#include "platform/Log.h"

namespace almanor {

bool CloudRepository::saveZone() {
    try {
        service_->saveZone(std::string(appZoneName));
        return true;
    } catch (const CloudError& e) {
        Log::error(std::string("Failed to create zone: ") + e.what());
        return false;
    }
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

void CloudRepositoryFactory::giveUp() {
    std::lock_guard lock(mutex_);
    repository_.reset();
    gaveUp_ = true;
}

void CloudRepositoryFactory::reset() {
    std::lock_guard lock(mutex_);
    repository_.reset();
    gaveUp_ = false;
}

void CloudRepositoryFactory::networkCameBack() {
    std::lock_guard lock(mutex_);
    gaveUp_ = false;
}

void CloudRepositoryFactory::cancelCreation() {
    std::lock_guard lock(creatingMutex_);
    cancelled_ = true;
    if (creating_)
        creating_->cancel();
}

std::shared_ptr<CloudRepository> CloudRepositoryFactory::create() {
    std::shared_ptr<CloudService> service = provider_ ? provider_() : nullptr;
    if (!service) {
        Log::debug("No CalDAV account configured");
        return nullptr;
    }
    {
        std::lock_guard lock(creatingMutex_);
        if (cancelled_)
            return nullptr;
        creating_ = service;
    }
    struct Made {
        CloudRepositoryFactory& factory;
        ~Made() {
            std::lock_guard lock(factory.creatingMutex_);
            factory.creating_.reset();
        }
    } made{*this};
    try {
        if (service->accountStatus() == AccountStatus::noAccount) {
            Log::debug("No CalDAV account configured");
            return nullptr;
        }
    } catch (const CloudError& e) {
        Log::error(std::string("Failed to check status of cloud: ") + e.what());
        return nullptr;
    }
    return std::make_shared<CloudRepository>(std::move(service));
}

} // namespace almanor

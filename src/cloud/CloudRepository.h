#pragma once

#include "cloud/CloudEvent.h"
#include "cloud/CloudId.h"
#include "cloud/CloudService.h"
#include "cloud/CloudServiceProvider.h"

#include <memory>
#include <mutex>
#include <vector>

namespace almanor {

// The event store in the user's cloud database. Never raises an error: each failure is one log
// line and the event concerned is left out of the result.
class CloudRepository {
  public:
    explicit CloudRepository(std::shared_ptr<CloudService> service)
        : service_(std::move(service)) {}

    CloudService& service() { return *service_; }

    // Saves each event as a new record, one after another; returns the saved ones' links.
    std::vector<CloudId> insert(const std::vector<CloudEvent>& events);
    // Starts one batched save and returns a link for every event at once; its outcome is not
    // observed here (the service keeps what did not go through).
    std::vector<CloudId> update(const std::vector<CloudEvent>& events);
    // Deletes each linked record, one after another; returns the ids whose records are gone.
    // An id without a record identity stops the process.
    std::vector<CloudId> deleteRecords(const std::vector<CloudId>& ids);

  private:
    std::shared_ptr<CloudService> service_;
};

// The accessor with memory: the first success is kept for good; a failure is not retried until
// the network comes back (networkCameBack()), so an offline machine asks the cloud only once.
class CloudRepositoryFactory {
  public:
    explicit CloudRepositoryFactory(CloudServiceProvider provider)
        : provider_(std::move(provider)) {}

    // The repository, or null when the cloud cannot be used. Thread-safe; concurrent first
    // callers wait for one creation.
    std::shared_ptr<CloudRepository> get();
    // The repository if one was created, without asking the cloud.
    std::shared_ptr<CloudRepository> existing();
    // Clears the gave-up flag, so the next get() asks the cloud again.
    void networkCameBack();

  private:
    std::shared_ptr<CloudRepository> create();

    CloudServiceProvider provider_;
    std::mutex mutex_;
    std::shared_ptr<CloudRepository> repository_;
    bool gaveUp_ = false;
};

} // namespace almanor

#pragma once

#include "cloud/CloudService.h"
#include "cloud/CloudServiceProvider.h"
#include "platform/Export.h"

#include <memory>
#include <mutex>

namespace almanor {

// The user's cloud database once it is known to be usable: the service, and the app's zone.
class ALMANOR_EXPORT CloudRepository {
  public:
    explicit CloudRepository(std::shared_ptr<CloudService> service)
        : service_(std::move(service)) {}

    CloudService& service() { return *service_; }
    const std::shared_ptr<CloudService>& sharedService() const { return service_; }

    // Creates the app's zone (one that exists counts as created). Logs "Failed to create zone: "
    // with the reason and returns false when it cannot.
    bool saveZone();

  private:
    std::shared_ptr<CloudService> service_;
};

// The accessor with memory: the first success is kept for good; a failure is not retried until
// the network comes back (networkCameBack()), so an offline machine asks the cloud only once.
class ALMANOR_EXPORT CloudRepositoryFactory {
  public:
    explicit CloudRepositoryFactory(CloudServiceProvider provider)
        : provider_(std::move(provider)) {}

    // The repository, or null when the cloud cannot be used (no account, or the account's status
    // cannot be had). Thread-safe; concurrent first callers wait for one creation.
    std::shared_ptr<CloudRepository> get();
    // The repository if one was created, without asking the cloud.
    std::shared_ptr<CloudRepository> existing();
    // Gives up on a repository that turned out unusable (its zone cannot be created): get()
    // answers null until the network comes back.
    void giveUp();
    // Clears the gave-up flag, so the next get() asks the cloud again.
    void networkCameBack();
    // Forgets the repository and the gave-up flag: the next get() makes one afresh (another
    // account). A pass under way keeps the one it has.
    void reset();
    // For a process that is quitting: a service being made (asking for its password, say) is
    // cut off; get() waits for no more than that.
    void cancelCreation();

  private:
    std::shared_ptr<CloudRepository> create();

    CloudServiceProvider provider_;
    std::mutex mutex_;
    std::shared_ptr<CloudRepository> repository_;
    bool gaveUp_ = false;
    // The service that create() is asking, reachable by cancelCreation() while get() holds mutex_.
    std::mutex creatingMutex_;
    std::shared_ptr<CloudService> creating_;
    bool cancelled_ = false;
};

} // namespace almanor

#pragma once

#include "cloud/CloudRepository.h"
#include "cloud/CloudServiceProvider.h"
#include "model/Event.h"
#include "storage/LocalRepository.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace almanor {

class UserDefaults;

// The one entry point through which the rest of the system reads and changes events. Failures of
// the store are logged as one line each and swallowed; callers see an empty list or false.
class Repository {
  public:
    // Without a provider (or one that gives no service) the cloud is treated as having no
    // account. `defaults` holds the remembered zone; null means the user's own store.
    explicit Repository(std::unique_ptr<LocalRepository> local, CloudServiceProvider provider = {},
                        UserDefaults* defaults = nullptr);
    ~Repository();
    Repository(const Repository&) = delete;
    Repository& operator=(const Repository&) = delete;

    // The process's repository over the user's database file, created on first use.
    static Repository& shared();
    // The provider that shared() hands its repository; set before the first call of shared().
    static void setCloudServiceProvider(CloudServiceProvider provider);

    LocalRepository& local() { return *local_; }

    // Live events by date, then name; empty when the store cannot be read.
    std::vector<EventPtr> fetchAll();
    // The same, but nullopt when the store cannot be read, for callers that must tell an empty
    // list from a failure.
    std::optional<std::vector<EventPtr>> tryFetchAll();

    // Each returns whether the change was written.
    bool insert(const Event& event);
    bool update(const Event& event);
    bool deleteEvent(const Event& event);

    // The start-up pull of the cloud's records into the store; blocks until it has ended.
    void populateFromCloud();
    // A push of the local changes to the cloud; returns at once. Pushes run one after another on
    // one worker, and a push asked for while one runs is run once after it. Two processes on one
    // store take turns through a lock file beside it.
    void sync();
    // Blocks until no push is running or asked for.
    void waitForSync();
    // Before the process ends: waits for the pushes and the service's background saves, then
    // marks dirty again the rows whose updates never reached the cloud.
    void finishCloudWork();
    // Lets the cloud be asked again after an earlier attempt gave up (the network is back).
    void networkCameBack();

  private:
    void pushPass();
    void syncWorker();
    UserDefaults& defaults();

    std::unique_ptr<LocalRepository> local_;
    CloudServiceProvider provider_;
    UserDefaults* defaults_;
    CloudRepositoryFactory cloud_;

    std::mutex syncMutex_;
    std::condition_variable syncChanged_;
    bool syncRequested_ = false;
    bool syncRunning_ = false;
    bool stopping_ = false;
    std::thread worker_;
};

} // namespace almanor

#pragma once

#include "cloud/CloudRepository.h"
#include "cloud/CloudServiceProvider.h"
#include "platform/Clock.h"
#include "platform/Export.h"
#include "storage/SyncLedger.h"
#include "sync/PassRunner.h"

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>

namespace almanor {

class SettingsFile;

// Passes in this process, over the service that `provider` gives for the account. Two processes
// on one store take turns through a lock file beside it.
class ALMANOR_EXPORT InProcessPasses final : public PassRunner {
  public:
    // `lockFile`: the file every process syncing this store locks for the length of a pass.
    InProcessPasses(SyncLedger& ledger, CloudServiceProvider provider, SettingsFile& defaults,
                    const Clock& clock, std::filesystem::path lockFile);

    PassResult run(const std::function<void()>& pulled) override;
    void stop() override;
    void networkCameBack() override { cloud_.networkCameBack(); }
    void accountChanged() override { cloud_.reset(); }

  private:
    SyncLedger& ledger_;
    SettingsFile& defaults_;
    const Clock& clock_;
    std::filesystem::path lockFile_;
    CloudRepositoryFactory cloud_;

    std::mutex mutex_;
    std::shared_ptr<CloudRepository> inFlight_; // the cloud of the pass under way
    std::atomic<bool> stopping_{false};
};

} // namespace almanor

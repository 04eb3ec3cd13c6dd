#include "sync/InProcessPasses.h"

#include "platform/FileLock.h"
#include "platform/Log.h"
#include "platform/Translation.h"

namespace almanor {

InProcessPasses::InProcessPasses(SyncLedger& ledger, CloudServiceProvider provider,
                                 SettingsFile& defaults, const Clock& clock,
                                 std::filesystem::path lockFile)
    : ledger_(ledger), defaults_(defaults), clock_(clock), lockFile_(std::move(lockFile)),
      cloud_(std::move(provider)) {}

void InProcessPasses::stop() {
    stopping_ = true;
    {
        std::lock_guard lock(mutex_);
        if (inFlight_)
            inFlight_->service().cancel();
    }
    cloud_.cancelCreation();
}

PassResult InProcessPasses::run(const std::function<void()>& pulled) {
    PassResult result;
    std::shared_ptr<CloudRepository> cloud = cloud_.get();
    if (!cloud) {
        Log::debug("Cloud not available for syncing");
        result.problem = _("the cloud is not available");
        result.unavailable = true;
        return result;
    }
    // Known to stop(), which cuts its requests off.
    {
        std::lock_guard lock(mutex_);
        inFlight_ = cloud;
    }
    struct Landed {
        InProcessPasses& passes;
        ~Landed() {
            std::lock_guard lock(passes.mutex_);
            passes.inFlight_.reset();
        }
    } landed{*this};
    FileLock lock(lockFile_, [this] { return !stopping_; });
    if (!lock.held()) {
        if (!stopping_)
            Log::error("Failed to lock the store for syncing: " + lock.error());
        result.problem = "the store could not be locked for syncing: " + lock.error();
        return result;
    }
    // A stop that came while this pass started must still reach its service.
    if (stopping_)
        return result;
    cloud->service().startPass();
    SyncPass syncPass(*cloud, ledger_, defaults_, clock_, stopping_);
    result.pulled = syncPass.pull();
    pulled();
    if (!stopping_)
        result.pushed = syncPass.push();
    result.problem = syncPass.problem();
    result.received = syncPass.received();
    result.sent = syncPass.sent();
    // What failed has said so in its own line.
    if (result.pulled && result.pushed)
        Log::info("Synced: " + std::to_string(result.received) + " received, " +
                  std::to_string(result.sent) + " sent");
    return result;
}

} // namespace almanor

#include "sync/CloudSync.h"

#include "cloud/RecordMapping.h"
#include "platform/FileLock.h"
#include "platform/Log.h"
#include "platform/Translation.h"

namespace almanor {

CloudSync::CloudSync(SyncLedger& ledger, CloudServiceProvider provider, SettingsFile& defaults,
                     const Clock& clock, std::filesystem::path lockFile)
    : ledger_(ledger), defaults_(defaults), clock_(clock), lockFile_(std::move(lockFile)),
      cloud_(std::move(provider)) {}

CloudSync::~CloudSync() {
    stop();
}

void CloudSync::populateFromCloud() {
    // Read before the worker starts: a store in step with the server keeps its token.
    bool pulledBefore = false;
    try {
        pulledBefore = !ledger_.syncToken(std::string(appZoneName)).empty();
    } catch (const StoreError&) {
        // Unreadable: the pass below finds out and says so.
    }
    std::unique_lock lock(mutex_);
    if (stopping_)
        return;
    std::uint64_t mine = ++asked_;
    if (!worker_.joinable())
        worker_ = std::thread([this] { worker(); });
    changed_.notify_all();
    if (!pulledBefore)
        changed_.wait_for(lock, firstPullWait, [&] { return pulled_ >= mine || stopping_; });
}

void CloudSync::sync() {
    std::lock_guard lock(mutex_);
    if (stopping_)
        return;
    ++asked_;
    if (!worker_.joinable())
        worker_ = std::thread([this] { worker(); });
    changed_.notify_all();
}

PassResult CloudSync::waitForSync() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return done_ >= asked_ || !worker_.joinable(); });
    return last_;
}

void CloudSync::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    {
        std::lock_guard lock(mutex_);
        if (inFlight_)
            inFlight_->service().cancel();
    }
    cloud_.cancelCreation();
    if (worker_.joinable())
        worker_.join();
    std::lock_guard lock(mutex_);
    pulled_ = done_ = asked_;
    changed_.notify_all();
}

void CloudSync::networkCameBack() {
    cloud_.networkCameBack();
    sync();
}

void CloudSync::accountChanged() {
    cloud_.reset();
    sync();
}

void CloudSync::worker() {
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return asked_ > done_ || stopping_; });
        if (stopping_)
            return;
        std::uint64_t pass = asked_;
        lock.unlock();
        PassResult result = runPass(pass);
        lock.lock();
        last_ = result;
        pulled_ = std::max(pulled_, pass);
        done_ = pass;
        changed_.notify_all();
    }
}

PassResult CloudSync::runPass(std::uint64_t pass) {
    PassResult result;
    auto pulled = [&] {
        std::lock_guard lock(mutex_);
        pulled_ = pass;
        changed_.notify_all();
    };
    std::shared_ptr<CloudRepository> cloud = cloud_.get();
    if (!cloud) {
        Log::line("Cloud not available for syncing");
        result.problem = _("the cloud is not available");
        return result;
    }
    // Known to stop(), which cuts its requests off.
    {
        std::lock_guard lock(mutex_);
        inFlight_ = cloud;
    }
    struct Landed {
        CloudSync& sync;
        ~Landed() {
            std::lock_guard lock(sync.mutex_);
            sync.inFlight_.reset();
        }
    } landed{*this};
    FileLock lock(lockFile_, [this] { return !stopping_; });
    if (!lock.held()) {
        if (!stopping_)
            Log::line("Failed to lock the store for syncing: " + lock.error());
        result.problem =
            formatText(_("the store could not be locked for syncing: %s"), {lock.error()});
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
        Log::line("Synced: " + std::to_string(result.received) + " received, " +
                  std::to_string(result.sent) + " sent");
    return result;
}

} // namespace almanor

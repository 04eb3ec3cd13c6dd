#include "sync/CloudSync.h"

#include "cloud/RecordMapping.h"
#include "sync/InProcessPasses.h"

namespace almanor {

CloudSync::CloudSync(SyncLedger& ledger, std::unique_ptr<PassRunner> runner)
    : ledger_(ledger), runner_(std::move(runner)) {}

CloudSync::CloudSync(SyncLedger& ledger, CloudServiceProvider provider, SettingsFile& defaults,
                     const Clock& clock, std::filesystem::path lockFile)
    : CloudSync(ledger, std::make_unique<InProcessPasses>(ledger, std::move(provider), defaults,
                                                          clock, std::move(lockFile))) {}

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
    runner_->stop();
    if (worker_.joinable())
        worker_.join();
    std::lock_guard lock(mutex_);
    pulled_ = done_ = asked_;
    changed_.notify_all();
}

void CloudSync::networkCameBack() {
    runner_->networkCameBack();
    sync();
}

void CloudSync::accountChanged() {
    runner_->accountChanged();
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
        PassResult result = runner_->run([this, pass] {
            std::lock_guard pulledLock(mutex_);
            pulled_ = pass;
            changed_.notify_all();
        });
        lock.lock();
        last_ = result;
        pulled_ = std::max(pulled_, pass);
        done_ = pass;
        changed_.notify_all();
    }
}

} // namespace almanor

#pragma once

#include "cloud/CloudServiceProvider.h"
#include "platform/Clock.h"
#include "platform/Export.h"
#include "storage/SyncLedger.h"
#include "sync/PassRunner.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>

namespace almanor {

class SettingsFile;

// Keeps the store and the user's cloud in step: passes of a pull followed by a push, run one at a
// time on a worker of their own. A pass asked for while one runs is run once after it.
class ALMANOR_EXPORT CloudSync {
  public:
    // Passes by `runner`; `ledger` tells whether the store has ever pulled.
    CloudSync(SyncLedger& ledger, std::unique_ptr<PassRunner> runner);
    // Passes in this process (InProcessPasses).
    CloudSync(SyncLedger& ledger, CloudServiceProvider provider, SettingsFile& defaults,
              const Clock& clock, std::filesystem::path lockFile);
    // Stops as stop() does.
    ~CloudSync();
    CloudSync(const CloudSync&) = delete;
    CloudSync& operator=(const CloudSync&) = delete;

    // Start-up: a pass. A store that has never pulled waits for that pull to end (its push goes
    // on in the background), at most `firstPullWait`, so that a new machine's first title is
    // drawn from what the server holds; a store that has pulled before returns at once, its title
    // drawn from the store while the pull runs: what the pull changes is posted like any change.
    void populateFromCloud();
    static constexpr std::chrono::seconds firstPullWait{5};
    // A pass in the background; returns at once.
    void sync();
    // Blocks until no pass runs or is asked for; the result of the last pass.
    PassResult waitForSync();
    // For a process that is quitting: the pass under way ends at once (its requests are cut
    // off; what was not acknowledged stays pending), and no other starts. Returns when the
    // worker has ended.
    void stop();
    // The cloud may be asked again after an earlier attempt gave up; a pass follows.
    void networkCameBack();
    // Another account was named (or none): the next pass asks for its service afresh.
    void accountChanged();

  private:
    void worker();

    SyncLedger& ledger_;
    std::unique_ptr<PassRunner> runner_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t asked_ = 0;  // passes asked for so far
    std::uint64_t pulled_ = 0; // asks covered by a pass whose pull has ended
    std::uint64_t done_ = 0;   // asks covered by a pass that has ended
    PassResult last_;
    std::atomic<bool> stopping_{false};
    std::thread worker_;
};

} // namespace almanor

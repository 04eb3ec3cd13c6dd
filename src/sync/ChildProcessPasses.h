#pragma once

#include "platform/Export.h"
#include "sync/PassRunner.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>

namespace almanor {

class PassReport;
class SettingsFile;
struct ChildEnding;

// Passes run by a child `almanor sync` each, so that the network stack, the keyring and their
// memory stay out of this process: the child's log lines become this process's own, its report
// (PassReport) tells when its pull has ended and how the pass went. The password that a child
// had is kept here, in memory only, and handed to the next child over a pipe, so that a password
// command or a keyring prompt is not asked every pass; it is dropped when the account changes or
// the server refuses it. A child that does not end within `passLimit`, or that runs while this
// process quits, is stopped (SIGTERM, then SIGKILL): the store is safe against either, and the
// next pass finishes the work.
class ALMANOR_EXPORT ChildProcessPasses final : public PassRunner {
  public:
    static constexpr std::chrono::seconds defaultPassLimit{15 * 60};

    // `program`: the almanor to run; `defaults`: the settings that name the account.
    ChildProcessPasses(std::filesystem::path program, const SettingsFile& defaults,
                       std::chrono::seconds passLimit = defaultPassLimit);
    ~ChildProcessPasses() override;
    ChildProcessPasses(const ChildProcessPasses&) = delete;
    ChildProcessPasses& operator=(const ChildProcessPasses&) = delete;

    PassResult run(const std::function<void()>& pulled) override;
    void stop() override;
    void networkCameBack() override;
    void accountChanged() override;

  private:
    ChildEnding runChild(const std::string& password, PassReport& report);

    std::filesystem::path program_;
    const SettingsFile& defaults_;
    std::chrono::seconds passLimit_;

    std::mutex mutex_;
    std::string password_;      // what the last child handed on
    std::uint64_t account_ = 0; // raised when the account changes
    bool gaveUp_ = false;       // no cloud until the network comes back or the account changes
    std::atomic<bool> stopping_{false};
    int wake_[2] = {-1, -1}; // stop() writes here to end a pass under way
};

} // namespace almanor

#pragma once

#include "cloud/CloudAccount.h"
#include "cloud/CloudService.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace almanor {

class PasswordHandover;
class SettingsFile;

// The desktop keyring's item of an account (schema "com.vostrel.Almanor.CloudAccount"). Each
// throws CloudError with the keyring's reason.
namespace keyring {
void storePassword(const std::string& server, const std::string& user, const std::string& password);
std::optional<std::string> lookupPassword(const std::string& server, const std::string& user);
void removePassword(const std::string& server, const std::string& user);
} // namespace keyring

// Runs `command` through /bin/sh and returns the first line it prints. Throws CloudError when it
// fails, prints nothing, runs longer than the time limit or prints more than the output limit (its
// process group is then killed).
struct PasswordCommandLimits {
    std::chrono::seconds time{30};
    std::size_t output = std::size_t{64} * 1024;
};
// It is also given up, the same way, as soon as `cancelled` is set (a process that is quitting).
std::string passwordFromCommand(const std::string& command, PasswordCommandLimits limits = {},
                                const std::atomic<bool>* cancelled = nullptr);

// The CalDAV service of the account in `defaults`; one that reports noAccount when there is none.
// Its password comes through `handover` when one is given, which is told when the server refuses
// it.
std::shared_ptr<CloudService>
makeAccountCloudService(SettingsFile& defaults,
                        const std::shared_ptr<PasswordHandover>& handover = nullptr);

} // namespace almanor

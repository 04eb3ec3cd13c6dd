#pragma once

#include "cloud/CloudService.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace almanor {

class UserDefaults;

// The configured cloud account: where, who, and how the password is had (the keyring, or a
// command whose first line of output is the password). The password itself is never kept here.
struct CloudAccount {
    static constexpr const char* serverKey = "cloudServer";
    static constexpr const char* userKey = "cloudUser";
    static constexpr const char* passwordCommandKey = "cloudPasswordCommand";
    // Learnt from the server at login: the calendar home, and the origins besides the server's
    // own that the server named in its discovery answers (space-separated), which get the
    // credentials too.
    static constexpr const char* homeKey = "cloudHome";
    static constexpr const char* originsKey = "cloudOrigins";

    std::string server;
    std::string user;
    std::string passwordCommand; // empty: the keyring
    std::string home;
    std::vector<std::string> origins;

    static std::optional<CloudAccount> load(const UserDefaults& defaults);
    void store(UserDefaults& defaults) const;
    static void forget(UserDefaults& defaults);
    // What discovery found (the calendar home, the origins the server named), kept with the
    // account in `defaults` when there is one.
    static void rememberDiscovery(UserDefaults& defaults, const std::string& home,
                                  const std::vector<std::string>& origins);

    // The password, from the command or the keyring. Throws CloudError with the reason.
    std::string password() const;
};

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
    std::size_t output = 64 * 1024;
};
std::string passwordFromCommand(const std::string& command, PasswordCommandLimits limits = {});

// The CalDAV service of the account in `defaults`; one that reports noAccount when there is none.
std::shared_ptr<CloudService> makeAccountCloudService(UserDefaults& defaults);

} // namespace almanor

#pragma once

#include "platform/Export.h"

#include <atomic>
#include <optional>
#include <string>
#include <vector>

namespace almanor {

class SettingsFile;

// The configured cloud account: where, who, and how the password is had (the keyring, or a
// command whose first line of output is the password). The password itself is never kept here.
// Reading and writing the account needs only the settings; the password needs the CalDAV
// adapter's module, which defines password().
struct ALMANOR_EXPORT CloudAccount {
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

    static std::optional<CloudAccount> load(const SettingsFile& defaults);
    // Both in one write of the settings file; false when it could not be saved (logged).
    bool store(SettingsFile& defaults) const;
    static bool forget(SettingsFile& defaults);
    // What discovery found (the calendar home, the origins the server named), kept with the
    // account in `defaults` when there is one.
    static void rememberDiscovery(SettingsFile& defaults, const std::string& home,
                                  const std::vector<std::string>& origins);

    // The password, from the command or the keyring. Throws CloudError with the reason; a
    // password command is cut off as soon as `cancelled` is set.
    std::string password(const std::atomic<bool>* cancelled = nullptr) const;
};

} // namespace almanor

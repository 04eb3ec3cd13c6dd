#include "cloud/CloudAccount.h"

#include "platform/SettingsFile.h"

#include <sstream>

namespace almanor {

std::optional<CloudAccount> CloudAccount::load(const SettingsFile& defaults) {
    auto server = defaults.string(serverKey);
    if (!server || server->empty())
        return std::nullopt;
    CloudAccount account;
    account.server = *server;
    account.user = defaults.string(userKey).value_or("");
    account.passwordCommand = defaults.string(passwordCommandKey).value_or("");
    account.home = defaults.string(homeKey).value_or("");
    std::istringstream origins(defaults.string(originsKey).value_or(""));
    for (std::string origin; origins >> origin;)
        account.origins.push_back(origin);
    return account;
}

void CloudAccount::store(SettingsFile& defaults) const {
    defaults.setString(serverKey, server);
    defaults.setString(userKey, user);
    if (passwordCommand.empty())
        defaults.remove(passwordCommandKey);
    else
        defaults.setString(passwordCommandKey, passwordCommand);
    if (home.empty())
        defaults.remove(homeKey);
    else
        defaults.setString(homeKey, home);
    std::string joined;
    for (const auto& origin : origins)
        joined += (joined.empty() ? "" : " ") + origin;
    if (joined.empty())
        defaults.remove(originsKey);
    else
        defaults.setString(originsKey, joined);
}

void CloudAccount::rememberDiscovery(SettingsFile& defaults, const std::string& home,
                                     const std::vector<std::string>& origins) {
    auto account = load(defaults);
    if (!account)
        return; // logged out meanwhile
    account->home = home;
    account->origins = origins;
    account->store(defaults);
}

void CloudAccount::forget(SettingsFile& defaults) {
    defaults.remove(serverKey);
    defaults.remove(userKey);
    defaults.remove(passwordCommandKey);
    defaults.remove(homeKey);
    defaults.remove(originsKey);
}

} // namespace almanor

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

bool CloudAccount::store(SettingsFile& defaults) const {
    auto unlessEmpty = [](const std::string& value) {
        return value.empty() ? std::nullopt : std::optional<std::string>(value);
    };
    std::string joined;
    for (const auto& origin : origins)
        joined += (joined.empty() ? "" : " ") + origin;
    return defaults.setStrings({{serverKey, server},
                                {userKey, user},
                                {passwordCommandKey, unlessEmpty(passwordCommand)},
                                {homeKey, unlessEmpty(home)},
                                {originsKey, unlessEmpty(joined)}});
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

bool CloudAccount::forget(SettingsFile& defaults) {
    return defaults.setStrings({{serverKey, std::nullopt},
                                {userKey, std::nullopt},
                                {passwordCommandKey, std::nullopt},
                                {homeKey, std::nullopt},
                                {originsKey, std::nullopt}});
}

} // namespace almanor

#include "cloud/CloudAccount.h"

#include "platform/UserDefaults.h"

namespace almanor {

std::optional<CloudAccount> CloudAccount::load(const UserDefaults& defaults) {
    auto server = defaults.string(serverKey);
    if (!server || server->empty())
        return std::nullopt;
    CloudAccount account;
    account.server = *server;
    account.user = defaults.string(userKey).value_or("");
    account.passwordCommand = defaults.string(passwordCommandKey).value_or("");
    return account;
}

void CloudAccount::store(UserDefaults& defaults) const {
    defaults.setString(serverKey, server);
    defaults.setString(userKey, user);
    if (passwordCommand.empty())
        defaults.remove(passwordCommandKey);
    else
        defaults.setString(passwordCommandKey, passwordCommand);
}

void CloudAccount::forget(UserDefaults& defaults) {
    defaults.remove(serverKey);
    defaults.remove(userKey);
    defaults.remove(passwordCommandKey);
}

} // namespace almanor

#pragma once

#include "cloud/CloudAccount.h"
#include "cloud/CloudService.h"

#include <memory>
#include <optional>
#include <string>

namespace almanor {

class UserDefaults;

// The desktop keyring's item of an account (schema "com.vostrel.Almanor.CloudAccount"). Each
// throws CloudError with the keyring's reason.
namespace keyring {
void storePassword(const std::string& server, const std::string& user, const std::string& password);
std::optional<std::string> lookupPassword(const std::string& server, const std::string& user);
void removePassword(const std::string& server, const std::string& user);
} // namespace keyring

// Runs `command` through /bin/sh and returns the first line it prints. Throws CloudError when it
// fails or prints nothing.
std::string passwordFromCommand(const std::string& command);

// The CalDAV service of the account in `defaults`; one that reports noAccount when there is none.
std::shared_ptr<CloudService> makeAccountCloudService(UserDefaults& defaults);

} // namespace almanor

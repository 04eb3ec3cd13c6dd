#pragma once

#include <string>

namespace almanor::cli {

struct Services;

// The cloud account and the sync, from the command line. Each returns the exit status.
int cloudLogin(const Services& services, const std::string& url, const std::string& user,
               const std::string& passwordCommand);
int cloudLogout(const Services& services);
int cloudStatus(const Services& services, bool json);
int syncNow(const Services& services);

} // namespace almanor::cli

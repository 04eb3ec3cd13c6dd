#pragma once

#include <string>

namespace almanor::cli {

// The cloud account and the sync, from the command line. Each returns the exit status.
int cloudLogin(const std::string& url, const std::string& user, const std::string& passwordCommand);
int cloudLogout();
int cloudStatus(bool json);
int syncNow();

} // namespace almanor::cli

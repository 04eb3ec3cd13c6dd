#pragma once

#include "cloud/CloudService.h"

#include <functional>
#include <memory>

namespace almanor {

// Gives the cloud service of the configured account (the CalDAV adapter; in tests, one wrapped to
// count calls and inject failures). Asked each time the cloud repository is created; a service
// without an account reports AccountStatus::noAccount.
using CloudServiceProvider = std::function<std::shared_ptr<CloudService>()>;

} // namespace almanor

#pragma once

#include "platform/Export.h"

#include <stdexcept>

namespace almanor {

// A refused registration; what() is the reason logged.
class ALMANOR_EXPORT LoginItemError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The desktop's login items: the application itself, and the older helper that earlier versions
// registered instead. On Linux, XDG autostart entries.
class ALMANOR_EXPORT LoginItemService {
  public:
    enum class Status { notRegistered, enabled, requiresApproval, notFound };

    virtual ~LoginItemService() = default;

    virtual Status status() const = 0;
    // Each throws LoginItemError.
    virtual void registerItem() = 0;
    virtual void unregisterItem() = 0;

    // Whether the older helper is registered and switched on.
    virtual bool legacyIsEnabled() const = 0;
    // Switches the older helper on or off; errors are dropped.
    virtual void legacySetEnabled(bool enabled) = 0;
    // Removes the older helper's registration. Throws LoginItemError.
    virtual void unregisterLegacyHelper() = 0;
};

} // namespace almanor

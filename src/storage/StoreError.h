#pragma once

#include "platform/Export.h"

#include <stdexcept>
#include <string>

namespace almanor {

// The store could not do what was asked; what() is one line. The SQL layer's own errors end
// inside the store: everything above it sees this one.
class ALMANOR_EXPORT StoreError : public std::runtime_error {
  public:
    explicit StoreError(const std::string& what, int code = 0)
        : std::runtime_error(what), code_(code) {}

    // The database's result code behind it, 0 when there is none; the store picks the remedy it
    // tells the user by it.
    int code() const { return code_; }

  private:
    int code_;
};

} // namespace almanor

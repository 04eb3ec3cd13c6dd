#pragma once

#include "platform/Export.h"
#include "platform/Instant.h"

namespace almanor {

// The current moment, handed in so that tests can fix it.
class ALMANOR_EXPORT Clock {
  public:
    virtual ~Clock() = default;
    virtual Instant now() const = 0;
};

class ALMANOR_EXPORT SystemClock final : public Clock {
  public:
    Instant now() const override {
        return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
    }
};

// A clock that says what it is told.
class ALMANOR_EXPORT FixedClock final : public Clock {
  public:
    explicit FixedClock(Instant t) : t_(t) {}
    Instant now() const override { return t_; }
    void set(Instant t) { t_ = t; }
    void advance(std::chrono::milliseconds d) { t_ += d; }

  private:
    Instant t_;
};

} // namespace almanor

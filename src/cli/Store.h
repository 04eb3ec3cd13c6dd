#pragma once

#include "model/Event.h"
#include "platform/Settings.h"
#include "platform/Uuid.h"

#include <vector>

namespace almanor {
class Repository;
}

namespace almanor::cli {

class Services;

// The store as the tray opens it: defaults registered, table created on first use. One that
// cannot be read ends the command (exit 3) before anything is written.
class Store {
  public:
    explicit Store(Services& services);

    Repository& repository() { return repository_; }
    const Settings& settings() const { return settings_; }

    // Live events by date, then name; throws Failed after one line on standard error.
    std::vector<EventPtr> events();
    // The live event with that id; throws NotFound when there is none.
    EventPtr event(const Uuid& id);

    struct Failed {};
    struct NotFound {
        Uuid id;
    };

  private:
    Settings settings_;
    Repository& repository_;
};

} // namespace almanor::cli

#pragma once

#include "model/Event.h"
#include "platform/Settings.h"
#include "platform/Uuid.h"
#include "storage/LocalRepository.h"

#include <string>
#include <string_view>
#include <vector>

namespace almanor {
class Repository;
}

namespace almanor::cli {

class Services;

// What the user typed for an event: its whole id or its first characters, at least `shortest`
// of them, in either case (as events list prints it, up to any length). Kept upper-case, as the
// store keeps ids.
struct IdPrefix {
    static constexpr std::size_t shortest = 4;
    std::string text;

    // Throws UsageError saying what is wrong: too short, or not an id; `expected` says what the
    // command takes ("an event id" when empty).
    static IdPrefix parse(std::string_view typed, std::string_view expected = {});
};

// The store as the tray opens it: defaults registered, table created on first use. One that
// cannot be read ends the command (exit 3) before anything is written.
class Store {
  public:
    explicit Store(Services& services);

    Repository& repository() { return repository_; }
    const Settings& settings() const { return settings_; }

    // Live events by date, then name; throws Failed after one line on standard error.
    std::vector<EventPtr> events();
    // The one live event whose id starts with the prefix: every command that takes an id finds
    // its event here. Throws NotFound when there is none, Ambiguous when there are several.
    EventPtr event(const IdPrefix& id);
    // Inserts the events whose ids the store has never held, in one transaction; see
    // LocalRepository::insertNew. Throws Failed after one line on standard error.
    std::vector<LocalRepository::Held> insertNew(const std::vector<EventPtr>& events);

    struct Failed {};
    struct NotFound {
        std::string id;
    };
    struct Ambiguous {
        std::string id;
        std::vector<EventPtr> candidates; // by id
    };

  private:
    Settings settings_;
    Repository& repository_;
};

} // namespace almanor::cli

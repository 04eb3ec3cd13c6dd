#pragma once

#include "platform/Export.h"
#include "platform/Uuid.h"

#include <optional>
#include <string>
#include <string_view>

namespace almanor {

class SettingsFile;

// The keys of the defaults store and the typed accessors of the selection.
class ALMANOR_EXPORT Settings {
  public:
    static constexpr std::string_view selectedEvent = "selectedEvent";
    static constexpr std::string_view buildVersion = "buildVersion";
    static constexpr std::string_view appZoneUsed = "appZoneUsed";
    static constexpr std::string_view recordZone = "recordZone";
    static constexpr std::string_view launchAtLoginHasMigrated = "LaunchAtLogin__hasMigrated";
    static constexpr std::string_view notifyOnTheDay = "notifyOnTheDay";
    static constexpr std::string_view notifyDaysAhead = "notifyDaysAhead";

    // Registered at every start: the selection defaults to the nil UUID, which names no event.
    static constexpr std::string_view selectedEventDefault = "00000000-0000-0000-0000-000000000000";

    explicit Settings(SettingsFile& defaults) : defaults_(defaults) {}

    SettingsFile& defaults() const { return defaults_; }

    void registerDefaults() const;

    // The stored selection. Text that is not a UUID reads as a fresh random UUID each time (it
    // then matches no event); a store with no string at all is a fatal error.
    Uuid selectedEventId() const;
    // Stores the upper-case text form; false when it could not be saved (logged).
    bool setSelectedEventId(const Uuid& id) const;

    // Whether an event's day brings a desktop notification: on unless set to false.
    bool notifiesOnTheDay() const;
    bool setNotifiesOnTheDay(bool on) const;
    // Days before an event for a reminder of its own, ten years at most; 0 (the default, or text
    // that is no such number) for none.
    int daysAhead() const;

  private:
    SettingsFile& defaults_;
};

} // namespace almanor

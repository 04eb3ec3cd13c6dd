#include "platform/Settings.h"

#include "platform/Fatal.h"
#include "platform/SettingsFile.h"

#include <cstdint>

namespace almanor {

void Settings::registerDefaults() const {
    defaults_.registerDefaults({{std::string(selectedEvent), std::string(selectedEventDefault)}});
}

Uuid Settings::selectedEventId() const {
    auto text = defaults_.string(selectedEvent);
    if (!text) {
        fatalError("Almanor/Settings", __LINE__, "No selected event in the defaults store");
    }
    if (auto id = Uuid::parse(*text)) {
        return *id;
    }
    return Uuid::random();
}

bool Settings::setSelectedEventId(const Uuid& id) const {
    return defaults_.setString(selectedEvent, id.uuidString());
}

bool Settings::notifiesOnTheDay() const {
    return defaults_.string(notifyOnTheDay) != "false";
}

bool Settings::setNotifiesOnTheDay(bool on) const {
    return defaults_.setBoolean(notifyOnTheDay, on);
}

int Settings::daysAhead() const {
    std::int64_t days = defaults_.integer(notifyDaysAhead);
    return days > 0 && days <= 3660 ? int(days) : 0;
}

} // namespace almanor

#pragma once

#include "cloud/CloudRecord.h"
#include "platform/Export.h"

#include <string>
#include <vector>

namespace almanor {

// A VEVENT of a calendar file that no event can stand for: its SUMMARY (else its UID) and why.
struct ALMANOR_EXPORT SkippedEvent {
    std::string name;
    std::string reason;
};

// What a calendar file holds for Almanor: a record for each VEVENT an event can stand for, read
// as the cloud reads the resources of its zone, and the VEVENTs skipped.
struct ALMANOR_EXPORT CalendarFile {
    std::vector<CloudRecord> records;
    std::vector<SkippedEvent> skipped;
};

} // namespace almanor

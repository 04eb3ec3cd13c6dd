#pragma once

#include "platform/Export.h"

#include <string>

namespace almanor {

// The cloud identity of one record: its name within its zone, and the zone's name.
struct ALMANOR_EXPORT RecordId {
    std::string recordName;
    std::string zoneName;

    friend bool operator==(const RecordId&, const RecordId&) = default;
};

} // namespace almanor

#pragma once

#include "cloud/RecordId.h"
#include "platform/Uuid.h"

#include <optional>

namespace almanor {

// The link between a local event and its cloud record.
struct CloudId {
    Uuid eventId;
    std::optional<RecordId> recordId;

    friend bool operator==(const CloudId&, const CloudId&) = default;
};

} // namespace almanor

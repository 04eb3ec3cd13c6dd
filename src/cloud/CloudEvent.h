#pragma once

#include "cloud/RecordId.h"
#include "model/Event.h"
#include "platform/Export.h"
#include "platform/Instant.h"

#include <memory>
#include <optional>

namespace almanor {

// One event as it lives in the cloud; `recordId` is absent until it has been saved there.
// `updated` is when the event last changed (the row's `updated`, or the record's `modified`).
struct ALMANOR_EXPORT CloudEvent {
    std::optional<RecordId> recordId;
    EventPtr event;
    std::optional<Instant> updated = std::nullopt;
};

using CloudEventPtr = std::shared_ptr<CloudEvent>;

} // namespace almanor

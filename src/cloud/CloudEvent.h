#pragma once

#include "cloud/RecordId.h"
#include "model/Event.h"

#include <memory>
#include <optional>

namespace almanor {

// One event as it lives in the cloud; `recordId` is absent until it has been saved there.
struct CloudEvent {
    std::optional<RecordId> recordId;
    EventPtr event;
};

using CloudEventPtr = std::shared_ptr<CloudEvent>;

} // namespace almanor

#pragma once

#include "cloud/CloudEvent.h"
#include "cloud/CloudRecord.h"
#include "platform/Clock.h"
#include "platform/Export.h"

#include <string_view>

namespace almanor {

// The application's own zone, and the one the older storage generation mirrored into.
inline constexpr std::string_view appZoneName = "com.vostrel.almanor.zone";
inline constexpr std::string_view legacyZoneName = "com.apple.coredata.cloudkit.zone";
inline constexpr std::string_view eventRecordType = "CD_Event";

// The record of an event. Without a record identity a fresh record name is minted in the app's
// zone (never the event's id), so two saves of one unlinked event make two records.
ALMANOR_EXPORT CloudRecord recordFromEvent(const CloudEvent& cloudEvent);

// The event of a record. Never fails: every missing or ill-typed field takes its default, the
// date defaulting to `clock`'s now.
ALMANOR_EXPORT CloudEvent eventFromRecord(const CloudRecord& record, const Clock& clock);

// Whether two events hold the same values in every field the record carries.
ALMANOR_EXPORT bool sameContent(const Event& a, const Event& b);

} // namespace almanor

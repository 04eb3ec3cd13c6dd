#pragma once

#include "platform/Export.h"
#include "platform/Instant.h"

#include <optional>
#include <string>
#include <string_view>

namespace almanor::sql {

// The store's date text: "yyyy-MM-dd'T'HH:mm:ss.SSS" in UTC, e.g. 2024-03-05T10:20:30.123.
// Years 0 to 32767 (the range of the civil calendar types) can be written; an instant outside
// them throws sql::Error rather than producing text that could not be read back.
ALMANOR_EXPORT std::string formatDate(Instant instant);

// Accepts exactly that shape, with a 4- or 5-digit year and the ".SSS" part optional, naming a
// real day and time; anything else (2023-02-29, a zone suffix, blanks) is nullopt.
ALMANOR_EXPORT std::optional<Instant> parseDate(std::string_view text);

} // namespace almanor::sql

#pragma once

#include "cloud/RecordId.h"
#include "platform/Export.h"
#include "platform/Instant.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>

namespace almanor {

// One value of a record's field: text, an integer number (booleans are the numbers 0 and 1),
// a floating-point number or a date-time.
using FieldValue = std::variant<std::string, std::int64_t, double, Instant>;

// A record of the cloud database as the adapter stores it: a type, an identity and named fields.
// A key that is absent has no value. `modified` is when the record's event last changed: written
// as the resource's LAST-MODIFIED, read from it (else from DTSTAMP); conflicts compare it.
struct ALMANOR_EXPORT CloudRecord {
    std::string recordType;
    RecordId recordId;
    std::map<std::string, FieldValue> fields;
    std::optional<Instant> modified = std::nullopt;

    friend bool operator==(const CloudRecord&, const CloudRecord&) = default;
};

} // namespace almanor

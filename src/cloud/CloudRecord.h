#pragma once

#include "cloud/RecordId.h"
#include "platform/Instant.h"

#include <cstdint>
#include <map>
#include <string>
#include <variant>

namespace almanor {

// One value of a record's field: text, an integer number (booleans are the numbers 0 and 1),
// a floating-point number or a date-time.
using FieldValue = std::variant<std::string, std::int64_t, double, Instant>;

// A record of the cloud database as the adapter stores it: a type, an identity and named fields.
// A key that is absent has no value.
struct CloudRecord {
    std::string recordType;
    RecordId recordId;
    std::map<std::string, FieldValue> fields;

    friend bool operator==(const CloudRecord&, const CloudRecord&) = default;
};

} // namespace almanor

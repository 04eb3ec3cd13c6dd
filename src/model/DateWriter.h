#pragma once

#include "platform/Export.h"
#include "platform/Instant.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace almanor {

// Dates as the user's language writes them. The one that knows every language (DateText) needs
// ICU, which the counting and the command line do without: code that shows such dates is handed
// one.
class ALMANOR_EXPORT DateWriter {
  public:
    virtual ~DateWriter() = default;
    // `t` written with the pattern ("MMM d, yyyy", "E"); the empty pattern gives the empty text.
    virtual std::string format(Instant t, std::string_view pattern) const = 0;
    // The number as an ordinal ("1st", "2nd", "23rd").
    virtual std::string ordinal(std::int64_t n) const = 0;
    // The day of the month of `t` in the zone.
    virtual int dayOfMonth(Instant t) const = 0;
};

} // namespace almanor

#pragma once

#include "model/DayCalendar.h"

#include <optional>
#include <string_view>

namespace almanor::cli {

// A date given on the command line: YYYY-MM-DD (local midnight) or
// YYYY-MM-DDTHH:MM[:SS[.fff]] (local wall time), either optionally followed by Z or +HH:MM /
// -HH:MM. Wall times are placed in the calendar's zone as the calendar places them (a skipped
// time moves past the gap, a repeated one is its later occurrence). nullopt for anything else,
// impossible dates included; years run from 1583 to 9999.
std::optional<Instant> parseDateInput(std::string_view text, const DayCalendar& calendar);

} // namespace almanor::cli

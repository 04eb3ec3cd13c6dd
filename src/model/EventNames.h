#pragma once

#include "model/Event.h"

#include <array>
#include <optional>
#include <string_view>

namespace almanor {

// The schedules and counting methods as the command line and its output spell them, in the order
// of their raw values.
inline constexpr std::array<std::string_view, 4> scheduleSpellings = {"none", "weekly", "monthly",
                                                                      "annually"};
inline constexpr std::array<std::string_view, 4> countMethodSpellings = {
    "standard", "exclude-weekends", "friday-before", "monday-after"};

inline std::string_view spelling(Schedule s) {
    return scheduleSpellings[std::size_t(rawValue(s))];
}
inline std::string_view spelling(CountMethod m) {
    return countMethodSpellings[std::size_t(rawValue(m))];
}

// The value a spelling names; nullopt for anything else.
inline std::optional<Schedule> scheduleNamed(std::string_view text) {
    for (std::size_t i = 0; i < scheduleSpellings.size(); ++i) {
        if (text == scheduleSpellings[i]) {
            return scheduleFromRawValue(std::int64_t(i));
        }
    }
    return std::nullopt;
}
inline std::optional<CountMethod> countMethodNamed(std::string_view text) {
    for (std::size_t i = 0; i < countMethodSpellings.size(); ++i) {
        if (text == countMethodSpellings[i]) {
            return countMethodFromRawValue(std::int64_t(i));
        }
    }
    return std::nullopt;
}

} // namespace almanor

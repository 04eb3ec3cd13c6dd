#pragma once
// Internal to the model library: a zone's UTC offsets from the system's time-zone database.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace almanor {

// The offsets of one zone as a TZif file gives them: its table of transitions, then the POSIX TZ
// rule of its footer for every later instant (the table of a "slim" file ends decades early).
class ZoneRules {
  public:
    // A stretch [start, end) of UTC milliseconds with one offset (milliseconds east of UTC).
    struct Span {
        std::int64_t start;
        std::int64_t end;
        std::int64_t offset;
    };

    // nullopt unless `data` is a whole TZif file.
    static std::optional<ZoneRules> parse(std::string_view data);
    static ZoneRules fixed(std::int64_t offsetMs);

    // The stretch that holds `utc`.
    Span spanAt(std::int64_t utc) const;

    // One transition date of a TZ rule: Jn, n or Mm.w.d, at a local time of day.
    struct RuleDate {
        char kind =
            'M'; // 'J': day 1..365 without 29 February, 'D': day 0..365, 'M': month.week.day
        int day = 0;
        int month = 0;
        int week = 0;
        int weekday = 0;
        std::int64_t time = 7200; // seconds after local midnight, -167h..167h
    };
    struct Rule {
        std::int64_t standard = 0; // seconds east of UTC
        std::int64_t daylight = 0;
        bool hasDaylight = false;
        RuleDate start;
        RuleDate end;
    };
    // nullopt for a TZ string this reader does not take (it takes what zic writes).
    static std::optional<Rule> parseRule(std::string_view text);

  private:
    Span ruleSpanAt(std::int64_t utc) const;

    std::vector<std::int64_t> times_;   // transitions, UTC milliseconds, increasing
    std::vector<std::int64_t> offsets_; // the offset from each transition on
    std::int64_t initial_ = 0;          // before the first transition
    std::optional<Rule> rule_;          // after the last transition
};

// A zone with the name it was asked for by.
struct Zone {
    std::string id;
    ZoneRules rules;
};

// The zone of a database name ("Europe/Prague"); nullopt for a name the database lacks.
std::optional<Zone> namedZone(std::string_view id);

// The user's zone as it is now, read afresh: TZ, else /etc/localtime. A TZ value that names no
// zone keeps its name with the C library's standard offset; one in the POSIX rule form (with
// more than two digits or a comma, "CET-1CEST") is passed over for the system's zone.
Zone hostZone();

} // namespace almanor

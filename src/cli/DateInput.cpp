#include "cli/DateInput.h"

namespace almanor::cli {

using namespace std::chrono;

namespace {

// Reads exactly `count` ASCII digits.
bool digits(std::string_view& s, int count, int& out) {
    if (s.size() < std::size_t(count)) {
        return false;
    }
    int value = 0;
    for (int i = 0; i < count; ++i) {
        char c = s[std::size_t(i)];
        if (c < '0' || c > '9') {
            return false;
        }
        value = value * 10 + (c - '0');
    }
    out = value;
    s.remove_prefix(std::size_t(count));
    return true;
}

bool literal(std::string_view& s, char c) {
    if (s.empty() || s.front() != c) {
        return false;
    }
    s.remove_prefix(1);
    return true;
}

} // namespace

std::optional<Instant> parseDateInput(std::string_view s, const DayCalendar& calendar) {
    int y = 0, m = 0, d = 0, hh = 0, mm = 0, ss = 0, ms = 0;
    if (!digits(s, 4, y) || !literal(s, '-') || !digits(s, 2, m) || !literal(s, '-') ||
        !digits(s, 2, d)) {
        return std::nullopt;
    }
    year_month_day date{year(y), month(unsigned(m)), day(unsigned(d))};
    if (!date.ok() || y < 1583) {
        return std::nullopt;
    }
    if (literal(s, 'T')) {
        if (!digits(s, 2, hh) || !literal(s, ':') || !digits(s, 2, mm) || hh > 23 || mm > 59) {
            return std::nullopt;
        }
        if (literal(s, ':')) {
            if (!digits(s, 2, ss) || ss > 59) {
                return std::nullopt;
            }
            if (literal(s, '.')) {
                int places = 0;
                while (places < 3 && !s.empty() && s.front() >= '0' && s.front() <= '9') {
                    ms = ms * 10 + (s.front() - '0');
                    s.remove_prefix(1);
                    ++places;
                }
                if (places == 0) {
                    return std::nullopt;
                }
                for (; places < 3; ++places) {
                    ms *= 10;
                }
            }
        }
    }
    auto wall = local_days(date).time_since_epoch() + hours(hh) + minutes(mm) + seconds(ss) +
                milliseconds(ms);
    if (s.empty()) {
        return calendar.instant(LocalTime(wall));
    }
    if (s == "Z") {
        return Instant(wall);
    }
    char sign = s.front();
    s.remove_prefix(1);
    int oh = 0, om = 0;
    if ((sign != '+' && sign != '-') || !digits(s, 2, oh) || !literal(s, ':') ||
        !digits(s, 2, om) || !s.empty() || oh > 18 || om > 59) {
        return std::nullopt;
    }
    auto offset = hours(oh) + minutes(om);
    return Instant(sign == '+' ? wall - offset : wall + offset);
}

} // namespace almanor::cli

#include "model/ZoneRules.h"

#include "model/CivilDays.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <limits>
#include <unistd.h>

namespace almanor {

namespace {

constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t always = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t dayMs = 86'400'000;

// Far enough that no calendar reaches it, near enough that milliseconds do not overflow (zic
// writes a "big bang" transition at -2^59 seconds).
constexpr std::int64_t farSeconds = 1'000'000'000'000'000;

constexpr std::size_t header = 44;

std::int64_t bigEndian(std::string_view data, std::size_t at, std::size_t size) {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < size; ++i) {
        v = (v << 8) | static_cast<unsigned char>(data[at + i]);
    }
    if (size == 4) {
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(v));
    }
    return static_cast<std::int64_t>(v);
}

// The counts of a TZif header, and the size of the data they announce.
struct Counts {
    std::size_t isut, isstd, leap, time, type, chars;

    static Counts at(std::string_view data, std::size_t start) {
        auto n = [&](std::size_t i) {
            return std::size_t(std::uint32_t(bigEndian(data, start + 20 + 4 * i, 4)));
        };
        return {n(0), n(1), n(2), n(3), n(4), n(5)};
    }
    std::size_t blockSize(std::size_t timeSize) const {
        return time * (timeSize + 1) + type * 6 + chars + leap * (timeSize + 4) + isstd + isut;
    }
};

// Reads the pieces of a TZ rule; each returns false where the text does not follow.
struct RuleReader {
    std::string_view s;
    std::size_t at = 0;

    bool more() const { return at < s.size(); }
    char peek() const { return more() ? s[at] : '\0'; }
    bool skip(char c) {
        if (peek() != c) {
            return false;
        }
        ++at;
        return true;
    }
    bool name() {
        if (skip('<')) {
            std::size_t close = s.find('>', at);
            if (close == std::string_view::npos) {
                return false;
            }
            at = close + 1;
            return true;
        }
        std::size_t from = at;
        while (more() && ((peek() >= 'A' && peek() <= 'Z') || (peek() >= 'a' && peek() <= 'z'))) {
            ++at;
        }
        return at - from >= 3;
    }
    bool number(std::int64_t& n, int maxDigits) {
        std::size_t from = at;
        n = 0;
        while (more() && peek() >= '0' && peek() <= '9' && int(at - from) < maxDigits) {
            n = n * 10 + (peek() - '0');
            ++at;
        }
        return at > from;
    }
    // [+-]hh[:mm[:ss]] in seconds, the sign kept.
    bool time(std::int64_t& seconds) {
        std::int64_t sign = 1;
        if (skip('-')) {
            sign = -1;
        } else {
            skip('+');
        }
        std::int64_t h = 0;
        std::int64_t m = 0;
        std::int64_t sec = 0;
        if (!number(h, 3) || h > 167) {
            return false;
        }
        if (skip(':') &&
            (!number(m, 2) || m > 59 || (skip(':') && (!number(sec, 2) || sec > 59)))) {
            return false;
        }
        seconds = sign * (h * 3600 + m * 60 + sec);
        return true;
    }
    bool date(ZoneRules::RuleDate& d) {
        std::int64_t a = 0;
        std::int64_t b = 0;
        std::int64_t c = 0;
        if (skip('M')) {
            if (!number(a, 2) || !skip('.') || !number(b, 1) || !skip('.') || !number(c, 1) ||
                a < 1 || a > 12 || b < 1 || b > 5 || c > 6) {
                return false;
            }
            d = {'M', 0, int(a), int(b), int(c), 7200};
        } else if (skip('J')) {
            if (!number(a, 3) || a < 1 || a > 365) {
                return false;
            }
            d = {'J', int(a), 0, 0, 0, 7200};
        } else {
            if (!number(a, 3) || a > 365) {
                return false;
            }
            d = {'D', int(a), 0, 0, 0, 7200};
        }
        return !skip('/') || time(d.time);
    }
};

// The day number of a rule's date in a year.
std::int64_t ruleDay(const ZoneRules::RuleDate& d, std::int64_t year) {
    std::int64_t jan1 = civil::gregorianDays(year, 1, 1);
    switch (d.kind) {
    case 'J':
        return jan1 + d.day - 1 + (civil::isGregorianLeap(year) && d.day >= 60 ? 1 : 0);
    case 'D':
        return jan1 + d.day;
    default: {
        std::int64_t first = civil::gregorianDays(year, d.month, 1);
        std::int64_t next = d.month == 12 ? civil::gregorianDays(year + 1, 1, 1)
                                          : civil::gregorianDays(year, d.month + 1, 1);
        std::int64_t day = first + civil::floorMod(d.weekday - civil::weekdayOf(first), 7) +
                           std::int64_t(d.week - 1) * 7;
        while (day >= next) {
            day -= 7;
        }
        return day;
    }
    }
}

std::optional<std::string> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::string data;
    std::array<char, 4096> buffer{};
    while (in.read(buffer.data(), buffer.size()) || in.gcount() > 0) {
        data.append(buffer.data(), std::size_t(in.gcount()));
        if (data.size() > (1U << 20)) {
            return std::nullopt; // no zone is this large
        }
    }
    return data;
}

std::string zoneDirectory() {
    const char* dir = std::getenv("TZDIR");
    return dir != nullptr && *dir != '\0' ? dir : "/usr/share/zoneinfo";
}

std::optional<ZoneRules> rulesOfFile(const std::string& path) {
    auto data = readFile(path);
    return data ? ZoneRules::parse(*data) : std::nullopt;
}

// A TZ value taken for a zone name rather than a POSIX rule: no digits but at most two at the
// end ("Etc/GMT-3"), no comma, or one of the old US names.
bool nameLike(std::string_view id) {
    std::size_t i = 0;
    auto digit = [&id](std::size_t k) { return id[k] >= '0' && id[k] <= '9'; };
    while (i < id.size() && !digit(i) && id[i] != ',') {
        ++i;
    }
    for (std::size_t end = i + 2; i < id.size() && i < end && digit(i);) {
        ++i;
    }
    return i == id.size() || id == "PST8PDT" || id == "MST7MDT" || id == "CST6CDT" ||
           id == "EST5EDT";
}

// The standard offset the C library gives TZ, for a value that names no zone ("GMT+5" is five
// hours west, an unknown name is UTC).
std::int64_t libcStandardOffset() {
    ::tzset();
    return -std::int64_t(::timezone) * 1000;
}

} // namespace

std::optional<ZoneRules> ZoneRules::parse(std::string_view data) {
    if (data.size() < header || data.substr(0, 4) != "TZif") {
        return std::nullopt;
    }
    Counts c = Counts::at(data, 0);
    std::size_t at = header;
    std::size_t timeSize = 4;
    if (data[4] != '\0') { // version 2 or later: skip the 32-bit data for the 64-bit data
        at += c.blockSize(4);
        if (data.size() < at + header || data.substr(at, 4) != "TZif") {
            return std::nullopt;
        }
        c = Counts::at(data, at);
        at += header;
        timeSize = 8;
    }
    if (c.type == 0 || c.type > 256 || c.time > 100000 ||
        data.size() < at + c.blockSize(timeSize)) {
        return std::nullopt;
    }
    std::size_t indices = at + c.time * timeSize;
    std::size_t types = indices + c.time;
    auto offsetOfType = [&](std::size_t type) {
        return bigEndian(data, types + type * 6, 4) * 1000;
    };

    ZoneRules rules;
    rules.initial_ = offsetOfType(0);
    for (std::size_t i = 0; i < c.time; ++i) {
        std::int64_t t =
            std::clamp(bigEndian(data, at + i * timeSize, timeSize), -farSeconds, farSeconds);
        auto type = static_cast<unsigned char>(data[indices + i]);
        if (type >= c.type || (!rules.times_.empty() && t * 1000 < rules.times_.back())) {
            return std::nullopt;
        }
        if (!rules.times_.empty() && t * 1000 == rules.times_.back()) { // met at the clamp
            rules.offsets_.back() = offsetOfType(type);
            continue;
        }
        rules.times_.push_back(t * 1000);
        rules.offsets_.push_back(offsetOfType(type));
    }
    if (timeSize == 8) {
        std::string_view footer = data.substr(at + c.blockSize(timeSize));
        if (footer.size() > 2 && footer.front() == '\n' && footer.find('\n', 1) != footer.npos) {
            rules.rule_ = parseRule(footer.substr(1, footer.find('\n', 1) - 1));
        }
    }
    return rules;
}

ZoneRules ZoneRules::fixed(std::int64_t offsetMs) {
    ZoneRules rules;
    rules.initial_ = offsetMs;
    return rules;
}

std::optional<ZoneRules::Rule> ZoneRules::parseRule(std::string_view text) {
    RuleReader r{text};
    Rule rule;
    if (!r.name() || !r.time(rule.standard)) {
        return std::nullopt;
    }
    rule.standard = -rule.standard; // POSIX counts west
    if (!r.more()) {
        return rule;
    }
    if (!r.name()) {
        return std::nullopt;
    }
    rule.hasDaylight = true;
    rule.daylight = rule.standard + 3600;
    if (r.peek() != ',') {
        if (!r.time(rule.daylight)) {
            return std::nullopt;
        }
        rule.daylight = -rule.daylight;
    }
    // Without dates the C library falls back on files of its own; zic always writes them.
    if (!r.skip(',') || !r.date(rule.start) || !r.skip(',') || !r.date(rule.end) || r.more()) {
        return std::nullopt;
    }
    return rule;
}

ZoneRules::Span ZoneRules::ruleSpanAt(std::int64_t utc) const {
    const Rule& rule = *rule_;
    if (!rule.hasDaylight) {
        return {always, never, rule.standard * 1000};
    }
    // The transitions of the years around utc's, in the order the rule makes them: where two
    // fall on one instant (daylight time all year) the later one holds.
    struct Transition {
        std::int64_t time;
        std::int64_t offset;
    };
    std::array<Transition, 10> ts{};
    std::int64_t year = civil::gregorianDate(civil::floorDiv(utc, dayMs)).year;
    std::size_t n = 0;
    for (std::int64_t y = year - 2; y <= year + 2; ++y) {
        ts[n++] = {(ruleDay(rule.start, y) * 86400 + rule.start.time - rule.standard) * 1000,
                   rule.daylight * 1000};
        ts[n++] = {(ruleDay(rule.end, y) * 86400 + rule.end.time - rule.daylight) * 1000,
                   rule.standard * 1000};
    }
    std::stable_sort(ts.begin(), ts.end(),
                     [](const Transition& a, const Transition& b) { return a.time < b.time; });
    auto after = std::upper_bound(ts.begin(), ts.end(), utc,
                                  [](std::int64_t t, const Transition& x) { return t < x.time; });
    Span span{always, after == ts.end() ? never : after->time, ts.front().offset};
    if (after != ts.begin()) {
        span.start = std::prev(after)->time;
        span.offset = std::prev(after)->offset;
    }
    return span;
}

ZoneRules::Span ZoneRules::spanAt(std::int64_t utc) const {
    auto after = std::upper_bound(times_.begin(), times_.end(), utc);
    if (rule_ && after == times_.end()) {
        Span span = ruleSpanAt(utc);
        if (!times_.empty()) {
            span.start = std::max(span.start, times_.back());
        }
        return span;
    }
    Span span{always, after == times_.end() ? never : *after, initial_};
    if (after != times_.begin()) {
        auto i = std::size_t(std::prev(after) - times_.begin());
        span.start = times_[i];
        span.offset = offsets_[i];
    }
    return span;
}

std::optional<Zone> namedZone(std::string_view id) {
    // A name, not a way out of the database.
    if (id.empty() || id.front() == '/' || id.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    for (std::size_t from = 0; from <= id.size();) {
        std::size_t slash = std::min(id.find('/', from), id.size());
        if (id.substr(from, slash - from) == ".." || id.substr(from, slash - from) == ".") {
            return std::nullopt;
        }
        from = slash + 1;
    }
    auto rules = rulesOfFile(zoneDirectory() + "/" + std::string(id));
    if (!rules) {
        return std::nullopt;
    }
    return Zone{std::string(id), std::move(*rules)};
}

Zone hostZone() {
    const char* tz = std::getenv("TZ");
    if (tz != nullptr && nameLike(tz)) {
        std::string_view id = tz;
        if (!id.empty() && id.front() == ':') {
            id.remove_prefix(1);
        }
        for (std::string_view prefix : {"posix/", "right/"}) {
            if (id.substr(0, prefix.size()) == prefix) {
                id.remove_prefix(prefix.size());
                break;
            }
        }
        if (id.empty()) {
            return {"Etc/Unknown", ZoneRules::fixed(0)};
        }
        if (id.front() == '/') {
            if (auto rules = rulesOfFile(std::string(id))) {
                return {std::string(id), std::move(*rules)};
            }
        } else if (auto zone = namedZone(id)) {
            return std::move(*zone);
        }
        return {std::string(id), ZoneRules::fixed(libcStandardOffset())};
    }

    constexpr const char* localtime = "/etc/localtime";
    std::string id;
    std::array<char, 4096> link{};
    ssize_t n = ::readlink(localtime, link.data(), link.size() - 1);
    if (n > 0) {
        std::string_view target(link.data(), std::size_t(n));
        constexpr std::string_view marker = "/zoneinfo/";
        std::size_t at = target.find(marker);
        if (at != std::string_view::npos && nameLike(target.substr(at + marker.size()))) {
            id = target.substr(at + marker.size());
        }
    }
    auto rules = rulesOfFile(localtime);
    if (!rules) {
        return {"UTC", ZoneRules::fixed(0)}; // as the C library takes a missing file
    }
    if (id.empty()) {
        // Not a link into the database: Debian names the zone beside it.
        std::string name = readFile("/etc/timezone").value_or("");
        name = name.substr(0, name.find('\n'));
        id = name.empty() ? "localtime" : name;
    }
    return {id, std::move(*rules)};
}

} // namespace almanor

#include "storage/sql/Date.h"

#include "storage/sql/Error.h"

namespace almanor::sql {

using namespace std::chrono;

namespace {

void appendDigits(std::string& out, unsigned value, int width) {
    char buffer[10];
    int n = 0;
    do {
        buffer[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    for (int i = n; i < width; ++i) {
        out += '0';
    }
    while (n > 0) {
        out += buffer[--n];
    }
}

// The digits of `text` as a number, or -1 when it holds anything else.
int digits(std::string_view text) {
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return -1;
        }
        value = value * 10 + (c - '0');
    }
    return value;
}

constexpr sys_days firstDay{year{0} / January / 1};
constexpr sys_days lastDay{year::max() / December / 31};

} // namespace

std::string formatDate(Instant instant) {
    // Range-check on the time line first: year_month_day is unspecified outside its years.
    auto day = floor<days>(instant);
    if (day < firstDay || day > lastDay) {
        throw Error(
            "Date out of range: " +
            std::to_string(duration_cast<milliseconds>(instant.time_since_epoch()).count()) +
            " ms from 1970");
    }
    year_month_day ymd{day};
    hh_mm_ss time{instant - day};
    std::string out;
    out.reserve(24);
    appendDigits(out, static_cast<unsigned>(static_cast<int>(ymd.year())), 4);
    out += '-';
    appendDigits(out, static_cast<unsigned>(ymd.month()), 2);
    out += '-';
    appendDigits(out, static_cast<unsigned>(ymd.day()), 2);
    out += 'T';
    appendDigits(out, static_cast<unsigned>(time.hours().count()), 2);
    out += ':';
    appendDigits(out, static_cast<unsigned>(time.minutes().count()), 2);
    out += ':';
    appendDigits(out, static_cast<unsigned>(time.seconds().count()), 2);
    out += '.';
    appendDigits(out, static_cast<unsigned>(time.subseconds().count()), 3);
    return out;
}

std::optional<Instant> parseDate(std::string_view text) {
    // yyyy[y]-MM-ddTHH:mm:ss[.SSS]
    auto yearDigits = text.find('-');
    if (yearDigits != 4 && yearDigits != 5) {
        return std::nullopt;
    }
    std::string_view rest = text.substr(yearDigits);
    if (rest.size() != 15 && rest.size() != 19) {
        return std::nullopt;
    }
    if (rest[0] != '-' || rest[3] != '-' || rest[6] != 'T' || rest[9] != ':' || rest[12] != ':' ||
        (rest.size() == 19 && rest[15] != '.')) {
        return std::nullopt;
    }
    int y = digits(text.substr(0, yearDigits));
    int mo = digits(rest.substr(1, 2));
    int d = digits(rest.substr(4, 2));
    int h = digits(rest.substr(7, 2));
    int mi = digits(rest.substr(10, 2));
    int s = digits(rest.substr(13, 2));
    int ms = rest.size() == 19 ? digits(rest.substr(16, 3)) : 0;
    if (y < 0 || mo < 0 || d < 0 || h < 0 || mi < 0 || s < 0 || ms < 0) {
        return std::nullopt;
    }
    if (y > static_cast<int>(year::max())) {
        return std::nullopt;
    }
    year_month_day ymd{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
    if (!ymd.ok() || h > 23 || mi > 59 || s > 59) {
        return std::nullopt;
    }
    return Instant{sys_days{ymd}} + hours{h} + minutes{mi} + seconds{s} + milliseconds{ms};
}

} // namespace almanor::sql

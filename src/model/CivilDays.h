#pragma once
// Internal to the model library: day numbers (days since 1970-01-01) and dates of the Gregorian
// and the Julian calendar, for any year a 64-bit day number holds.

#include <cstdint>

namespace almanor::civil {

constexpr std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
    std::int64_t q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}
constexpr std::int64_t floorMod(std::int64_t a, std::int64_t b) {
    return a - floorDiv(a, b) * b;
}

struct Date {
    std::int64_t year; // astronomical: 0 is 1 BC
    int month;         // 1..12
    int day;           // 1..31
};

// Years counted from March, so that the leap day ends them.
constexpr std::int64_t dayOfMarchYear(int month, int day) {
    return (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
}
constexpr void fromDayOfMarchYear(std::int64_t doy, std::int64_t& year, Date& out) {
    std::int64_t mp = (5 * doy + 2) / 153;
    out.day = int(doy - (153 * mp + 2) / 5 + 1);
    out.month = int(mp < 10 ? mp + 3 : mp - 9);
    out.year = year + (out.month <= 2 ? 1 : 0);
}

constexpr std::int64_t gregorianDays(std::int64_t y, int m, int d) {
    y -= m <= 2 ? 1 : 0;
    std::int64_t era = floorDiv(y, 400);
    std::int64_t yoe = y - era * 400;
    std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + dayOfMarchYear(m, d);
    return era * 146097 + doe - 719468;
}
constexpr Date gregorianDate(std::int64_t days) {
    days += 719468;
    std::int64_t era = floorDiv(days, 146097);
    std::int64_t doe = days - era * 146097;
    std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    std::int64_t y = yoe + era * 400;
    Date out{};
    fromDayOfMarchYear(doe - (365 * yoe + yoe / 4 - yoe / 100), y, out);
    return out;
}

constexpr std::int64_t julianDays(std::int64_t y, int m, int d) {
    y -= m <= 2 ? 1 : 0;
    std::int64_t era = floorDiv(y, 4);
    std::int64_t yoe = y - era * 4;
    return era * 1461 + yoe * 365 + dayOfMarchYear(m, d) - 719470;
}
constexpr Date julianDate(std::int64_t days) {
    days += 719470;
    std::int64_t era = floorDiv(days, 1461);
    std::int64_t doe = days - era * 1461;
    std::int64_t yoe = (doe - doe / 1460) / 365;
    std::int64_t y = yoe + era * 4;
    Date out{};
    fromDayOfMarchYear(doe - 365 * yoe, y, out);
    return out;
}

constexpr bool isGregorianLeap(std::int64_t y) {
    return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0);
}

// 0 Sunday .. 6 Saturday.
constexpr int weekdayOf(std::int64_t days) {
    return int(floorMod(days + 4, 7));
}

static_assert(gregorianDays(1970, 1, 1) == 0 && gregorianDays(2000, 3, 1) == 11017);
static_assert(gregorianDate(-719468).year == 0 && gregorianDate(-719468).month == 3);
// The Gregorian reform: Julian 4 October 1582 was followed by Gregorian 15 October.
static_assert(julianDays(1582, 10, 4) + 1 == gregorianDays(1582, 10, 15));
static_assert(julianDate(gregorianDays(1582, 10, 14)).day == 4);
static_assert(julianDate(julianDays(-4, 2, 29)).day == 29);
static_assert(weekdayOf(gregorianDays(2024, 3, 10)) == 0);

} // namespace almanor::civil

// Civil dates of the proleptic Gregorian calendar, counted in days since 1970-01-01.
//
// Internal to the zone code (zone, POSIX rule, TZif reader): nothing outside
// inc/zq/webutil/ includes this header. The functions are inline and constexpr because a
// zone's conversions run them on the logging hot path, and a call across translation units
// for a handful of divisions would cost more than the arithmetic.
//
// Days are counted in a calendar whose years start on 1 March, so that the leap day is the
// last day of its year and every month but the last has a fixed place; the Gregorian calendar
// repeats every 400 years (146097 days), which turns the conversion into a handful of
// divisions.
#pragma once

#include <algorithm>
#include <cstdint>

namespace kiv::zoneinternal {

constexpr std::int64_t kSecondsPerDay = 86400;
constexpr std::int64_t kSecondsPerHour = 3600;

constexpr std::int64_t kDaysPer400Years = 146097;
constexpr std::int64_t kDaysPer100Years = 36524;
constexpr std::int64_t kDaysPer4Years = 1461;
// Days from 0000-03-01 to 1970-01-01.
constexpr std::int64_t kDaysFromMarchZeroToEpoch = 719468;
// First day of each month in the March-based year: March, April, ..., January, February.
constexpr int kMonthStartInMarchYear[12] = {0, 31, 61, 92, 122, 153, 184, 214, 245, 275, 306, 337};
// Month lengths of a common year, January first.
constexpr int kDaysInMonth[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

constexpr std::int64_t floorDiv(std::int64_t a, std::int64_t b) noexcept {
    std::int64_t q = a / b;
    if ((a % b != 0) && ((a < 0) != (b < 0))) {
        --q;
    }
    return q;
}

struct CivilDate {
    std::int64_t nYear;
    int nMonth;  // 1-12
    int nDay;    // 1-31
};

constexpr CivilDate civilFromDays(std::int64_t nDaysSinceEpoch) noexcept {
    const std::int64_t nDays = nDaysSinceEpoch + kDaysFromMarchZeroToEpoch;
    const std::int64_t nCycle = floorDiv(nDays, kDaysPer400Years);
    std::int64_t nRest = nDays - nCycle * kDaysPer400Years;  // 0..146096
    // The last century and the last year of a group are one day longer; capping the quotient
    // keeps that day in them.
    const std::int64_t nCentury = std::min<std::int64_t>(nRest / kDaysPer100Years, 3);
    nRest -= nCentury * kDaysPer100Years;
    const std::int64_t nQuad = nRest / kDaysPer4Years;
    nRest -= nQuad * kDaysPer4Years;
    const std::int64_t nYearOfQuad = std::min<std::int64_t>(nRest / 365, 3);
    const int nDayOfYear = static_cast<int>(nRest - nYearOfQuad * 365);  // 0..365
    int nMonthIndex = 11;
    while (kMonthStartInMarchYear[nMonthIndex] > nDayOfYear) {
        --nMonthIndex;
    }
    CivilDate date{};
    date.nYear = nCycle * 400 + nCentury * 100 + nQuad * 4 + nYearOfQuad;
    date.nDay = nDayOfYear - kMonthStartInMarchYear[nMonthIndex] + 1;
    // Index 10 and 11 are January and February of the following calendar year.
    date.nMonth = nMonthIndex < 10 ? nMonthIndex + 3 : nMonthIndex - 9;
    if (nMonthIndex >= 10) {
        ++date.nYear;
    }
    return date;
}

// nMonth 1-12, nDay 1-31; the day is not checked against the month's length, so day 0 or
// day 32 count on into the neighbouring month.
constexpr std::int64_t daysFromCivil(std::int64_t nYear, int nMonth, int nDay) noexcept {
    const std::int64_t nMarchYear = nMonth <= 2 ? nYear - 1 : nYear;
    const int nMonthIndex = nMonth <= 2 ? nMonth + 9 : nMonth - 3;
    const std::int64_t nCycle = floorDiv(nMarchYear, 400);
    const std::int64_t nYearOfCycle = nMarchYear - nCycle * 400;
    const std::int64_t nDayOfCycle = nYearOfCycle * 365 + nYearOfCycle / 4 - nYearOfCycle / 100 +
                                     kMonthStartInMarchYear[nMonthIndex] + nDay - 1;
    return nCycle * kDaysPer400Years + nDayOfCycle - kDaysFromMarchZeroToEpoch;
}

constexpr bool isLeapYear(std::int64_t nYear) noexcept {
    return nYear % 4 == 0 && (nYear % 100 != 0 || nYear % 400 == 0);
}

constexpr int daysInMonth(std::int64_t nYear, int nMonth) noexcept {
    return nMonth == 2 && isLeapYear(nYear) ? 29 : kDaysInMonth[nMonth - 1];
}

// 0 = Sunday; 1970-01-01 was a Thursday.
constexpr int weekdayFromDays(std::int64_t nDaysSinceEpoch) noexcept {
    const std::int64_t nShifted = nDaysSinceEpoch + 4;
    return static_cast<int>(nShifted - floorDiv(nShifted, 7) * 7);
}

}  // namespace kiv::zoneinternal

// The calendar arithmetic is all constexpr and lives in the header, where the zone code
// inlines it. What stays here pins it to dates everybody knows, so a slip in the constants
// fails the foundation's build rather than a test run.
#include "zq/webutil/civildate.h"

namespace kiv::zoneinternal {
namespace {

constexpr bool sameDate(const CivilDate& date, std::int64_t nYear, int nMonth, int nDay) {
    return date.nYear == nYear && date.nMonth == nMonth && date.nDay == nDay;
}

static_assert(daysFromCivil(1970, 1, 1) == 0);
static_assert(sameDate(civilFromDays(0), 1970, 1, 1));
static_assert(weekdayFromDays(0) == 4);  // a Thursday
static_assert(sameDate(civilFromDays(-1), 1969, 12, 31));
static_assert(daysFromCivil(2000, 2, 29) == 11016);
static_assert(sameDate(civilFromDays(11016), 2000, 2, 29));
static_assert(sameDate(civilFromDays(11017), 2000, 3, 1));
static_assert(daysFromCivil(1, 1, 1) == -719162);
static_assert(weekdayFromDays(-719162) == 1);  // 0001-01-01 was a Monday
static_assert(isLeapYear(2000) && !isLeapYear(2100) && isLeapYear(2024) && !isLeapYear(2026));
static_assert(daysInMonth(2024, 2) == 29 && daysInMonth(2100, 2) == 28 &&
              daysInMonth(2026, 12) == 31);
static_assert(floorDiv(-1, 7) == -1 && floorDiv(-7, 7) == -1 && floorDiv(6, 7) == 0);

}  // namespace
}  // namespace kiv::zoneinternal

// The calendar behind every conversion, seen through the UTC zone, where the local time is the
// civil date and time of the instant itself.
#include "zq/webutil/civildate.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <string>

#include "zq/zone_test_support.h"

namespace kiv {
namespace {

using namespace zonetest;

class CivilDateTest : public ZoneTestFixture {};

TEST_F(CivilDateTest, UtcConvertsKnownInstants) {
    const TimeZone utc = TimeZone::utc();
    EXPECT_EQ(localText(utc, 0), "1970-01-01 00:00:00 wd4 +0");
    EXPECT_EQ(localText(utc, 951782400), "2000-02-29 00:00:00 wd2 +0");
    EXPECT_EQ(localText(utc, 951782400 + 86400), "2000-03-01 00:00:00 wd3 +0");
    EXPECT_EQ(localText(utc, 4102444799), "2099-12-31 23:59:59 wd4 +0");
    EXPECT_EQ(localText(utc, 1795284563), "2026-11-21 18:09:23 wd6 +0");
    EXPECT_EQ(utc.getName(), L"UTC");
}

TEST_F(CivilDateTest, UtcConvertsNegativeTimes) {
    const TimeZone utc = TimeZone::utc();
    EXPECT_EQ(localText(utc, -1), "1969-12-31 23:59:59 wd3 +0");
    EXPECT_EQ(localText(utc, -86400), "1969-12-31 00:00:00 wd3 +0");
    EXPECT_EQ(localText(utc, -2208988800), "1900-01-01 00:00:00 wd1 +0");
    EXPECT_EQ(localText(utc, -62135596800), "0001-01-01 00:00:00 wd1 +0");
    EXPECT_EQ(plainText(utc, -62135596800 - 366 * 86400), L"0000-01-01 00:00:00");
    EXPECT_EQ(plainText(utc, -62135596800 - 366 * 86400 - 1), L"-0001-12-31 23:59:59");
}

TEST_F(CivilDateTest, EveryDayOfFourCenturiesRoundTrips) {
    const TimeZone utc = TimeZone::utc();
    // 1600-01-01 to 2400-01-01: the days must follow one another without gap or repetition.
    LocalTime previous{};
    utc.toLocal(-11676096000 - 86400, previous);
    for (std::int64_t nDay = -11676096000 / 86400; nDay < 13569465600 / 86400; ++nDay) {
        LocalTime lt{};
        utc.toLocal(static_cast<std::time_t>(nDay * 86400 + 43200), lt);
        ASSERT_EQ(lt.nWeekday, (previous.nWeekday + 1) % 7) << nDay;
        if (lt.nDay == 1) {
            ASSERT_TRUE(lt.nMonth == previous.nMonth + 1 ||
                        (lt.nMonth == 1 && previous.nMonth == 12 && lt.nYear == previous.nYear + 1))
                << nDay;
            const bool bLeap =
                (previous.nYear % 4 == 0 && previous.nYear % 100 != 0) || previous.nYear % 400 == 0;
            static constexpr int kLengths[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
            const int nLength = previous.nMonth == 2 && bLeap ? 29 : kLengths[previous.nMonth - 1];
            ASSERT_EQ(previous.nDay, nLength) << nDay;
        } else {
            ASSERT_EQ(lt.nDay, previous.nDay + 1) << nDay;
            ASSERT_EQ(lt.nMonth, previous.nMonth) << nDay;
        }
        ASSERT_EQ(lt.nHour, 12);
        previous = lt;
    }
    EXPECT_EQ(localText(previous), "2399-12-31 12:00:00 wd5 +0");
}

// --- The arithmetic itself ----------------------------------------------------------------------

TEST_F(CivilDateTest, DaysAndDatesRoundTripAroundTheEpoch) {
    using namespace zoneinternal;
    // Two full cycles of 400 years on either side of 1970.
    CivilDate previous = civilFromDays(-2 * kDaysPer400Years - 1);
    for (std::int64_t nDays = -2 * kDaysPer400Years; nDays < 2 * kDaysPer400Years; ++nDays) {
        const CivilDate date = civilFromDays(nDays);
        ASSERT_EQ(daysFromCivil(date.nYear, date.nMonth, date.nDay), nDays) << nDays;
        ASSERT_GE(date.nDay, 1) << nDays;
        ASSERT_LE(date.nDay, daysInMonth(date.nYear, date.nMonth)) << nDays;
        if (date.nDay == 1) {
            ASSERT_EQ(previous.nDay, daysInMonth(previous.nYear, previous.nMonth)) << nDays;
        }
        ASSERT_EQ(weekdayFromDays(nDays), (weekdayFromDays(nDays - 1) + 1) % 7) << nDays;
        previous = date;
    }
}

TEST_F(CivilDateTest, LeapYearsFollowTheGregorianRule) {
    using namespace zoneinternal;
    EXPECT_TRUE(isLeapYear(1600));
    EXPECT_FALSE(isLeapYear(1700));
    EXPECT_FALSE(isLeapYear(1900));
    EXPECT_TRUE(isLeapYear(2000));
    EXPECT_TRUE(isLeapYear(2024));
    EXPECT_FALSE(isLeapYear(2026));
    EXPECT_TRUE(isLeapYear(-4));
    EXPECT_TRUE(isLeapYear(0));
    EXPECT_EQ(daysInMonth(2024, 2), 29);
    EXPECT_EQ(daysInMonth(2100, 2), 28);
    EXPECT_EQ(daysInMonth(2026, 4), 30);
}

TEST_F(CivilDateTest, FloorDivisionRoundsTowardsMinusInfinity) {
    using namespace zoneinternal;
    EXPECT_EQ(floorDiv(7, 7), 1);
    EXPECT_EQ(floorDiv(6, 7), 0);
    EXPECT_EQ(floorDiv(-1, 7), -1);
    EXPECT_EQ(floorDiv(-7, 7), -1);
    EXPECT_EQ(floorDiv(-8, 7), -2);
    EXPECT_EQ(floorDiv(-86401, kSecondsPerDay), -2);
}

}  // namespace
}  // namespace kiv

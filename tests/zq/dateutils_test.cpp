// The date texts of log records: their layout, buffers too small for them, and no allocation
// on the way from an instant to its text.
#include "zq/webutil/dateutils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <iterator>
#include <string>

#include "support/alloc_counter.h"
#include "zq/zone_test_support.h"

namespace kiv {
namespace {

using namespace zonetest;

class DateUtilsTest : public ZoneTestFixture {};

TEST_F(DateUtilsTest, UtcIsoTextShowsZeroOffset) {
    EXPECT_EQ(isoText(TimeZone::utc(), 1795284563), L"2026-11-21T18:09:23+00:00");
    EXPECT_EQ(isoText(zoneNamed(L"Etc/UTC"), 0), L"1970-01-01T00:00:00+00:00");
}

TEST_F(DateUtilsTest, BufferTooSmallGivesEmptyText) {
    const TimeZone berlin = zoneNamed(L"Europe/Berlin");
    wchar_t arr[32];
    std::fill(std::begin(arr), std::end(arr), L'#');
    EXPECT_EQ(DateUtils::crtToWCharBuf(1795300763, berlin, arr, 19), 0u);
    EXPECT_EQ(arr[0], L'\0');
    EXPECT_EQ(arr[1], L'#');
    EXPECT_EQ(DateUtils::crtToWCharBuf(1795300763, berlin, arr, 20), 19u);
    EXPECT_EQ(std::wstring(arr), L"2026-11-21 23:39:23");

    std::fill(std::begin(arr), std::end(arr), L'#');
    EXPECT_EQ(DateUtils::crtToISO8601WCharBuf(1795300763, berlin, arr, 25), 0u);
    EXPECT_EQ(arr[0], L'\0');
    EXPECT_EQ(arr[1], L'#');
    EXPECT_EQ(DateUtils::crtToISO8601WCharBuf(1795300763, berlin, arr, 26), 25u);
    EXPECT_EQ(std::wstring(arr), L"2026-11-21T23:39:23+01:00");
    EXPECT_EQ(arr[26], L'#');

    arr[0] = L'#';
    EXPECT_EQ(DateUtils::crtToWCharBuf(0, berlin, arr, 0), 0u);
    EXPECT_EQ(arr[0], L'#');
    EXPECT_EQ(DateUtils::crtToISO8601WCharBuf(0, berlin, nullptr, 64), 0u);
}

TEST_F(DateUtilsTest, ConversionAndFormattingAllocateNothing) {
    const TimeZone berlin = zoneNamed(L"Europe/Berlin");
    const TimeZone rule = posixZone(L"AEST-10AEDT,M10.1.0,M4.1.0/3");
    const TimeZone utc = TimeZone::utc();
    wchar_t arr[64];
    std::size_t nTotal = 0;
    test::AllocationScope scope;
    for (std::time_t t :
         {kMidJanuary2026, kMidJuly2026, kMidJuly2100, std::time_t{-1}, kBerlinSpringForward2026}) {
        for (const TimeZone* pZone : {&berlin, &rule, &utc}) {
            LocalTime lt;
            pZone->toLocal(t, lt);
            nTotal += static_cast<std::size_t>(lt.nSecond);
            nTotal += DateUtils::crtToWCharBuf(t, *pZone, arr, 64);
            nTotal += DateUtils::crtToISO8601WCharBuf(t, *pZone, arr, 64);
            nTotal += pZone->isDst(t) ? 1 : 0;
            nTotal += static_cast<std::size_t>(pZone->getUtcOffset(t) != 0);
        }
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_GT(nTotal, 0u);
}

}  // namespace
}  // namespace kiv

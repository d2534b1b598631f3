// Zones from the system's database, their short names, the registry and its directory, the
// server's own zone from TZ or /etc/localtime, and sharing zones between threads.
#include "zq/webutil/zone.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <limits>
#include <string>
#include <system_error>
#include <thread>

#include "support/temp_dir.h"
#include "zq/webkeel/clock.h"
#include "zq/webkeel/transcode.h"
#include "zq/zone_test_support.h"

namespace kiv {
namespace {

using namespace zonetest;

class TimeZoneTest : public ZoneTestFixture {};

TEST_F(TimeZoneTest, ExtremeTimesAreClampedAndStayInRange) {
    const TimeZone berlin = zoneNamed(L"Europe/Berlin");
    for (std::time_t t :
         {std::numeric_limits<std::time_t>::max(), std::numeric_limits<std::time_t>::min(),
          std::time_t{1} << 55, -(std::time_t{1} << 55)}) {
        LocalTime lt{};
        berlin.toLocal(t, lt);
        EXPECT_GE(lt.nMonth, 1);
        EXPECT_LE(lt.nMonth, 12);
        EXPECT_GE(lt.nDay, 1);
        EXPECT_LE(lt.nDay, 31);
        EXPECT_GE(lt.nWeekday, 0);
        EXPECT_LE(lt.nWeekday, 6);
        EXPECT_EQ(t > 0, lt.nYear > 0);
        EXPECT_GT(plainText(berlin, t).size(), 19u);
        EXPECT_GT(isoText(berlin, t).size(), 25u);
    }
}

TEST_F(TimeZoneTest, BerlinSpringForward2026) {
    const TimeZone berlin = zoneNamed(L"Europe/Berlin");
    EXPECT_EQ(berlin.getName(), L"Europe/Berlin");
    EXPECT_EQ(localText(berlin, kBerlinSpringForward2026 - 1), "2026-03-29 01:59:59 wd0 +3600");
    EXPECT_EQ(localText(berlin, kBerlinSpringForward2026), "2026-03-29 03:00:00 wd0 +7200 dst");
    EXPECT_FALSE(berlin.isDst(kBerlinSpringForward2026 - 1));
    EXPECT_TRUE(berlin.isDst(kBerlinSpringForward2026));
    EXPECT_EQ(berlin.getUtcOffset(kBerlinSpringForward2026 - 1), 3600);
    EXPECT_EQ(berlin.getUtcOffset(kBerlinSpringForward2026), 7200);
    EXPECT_EQ(isoText(berlin, kBerlinSpringForward2026), L"2026-03-29T03:00:00+02:00");
}

TEST_F(TimeZoneTest, BerlinFallBack2026) {
    const TimeZone berlin = zoneNamed(L"Europe/Berlin");
    EXPECT_EQ(localText(berlin, kBerlinFallBack2026 - 1), "2026-10-25 02:59:59 wd0 +7200 dst");
    EXPECT_EQ(localText(berlin, kBerlinFallBack2026), "2026-10-25 02:00:00 wd0 +3600");
    EXPECT_TRUE(berlin.isDst(kBerlinFallBack2026 - 1));
    EXPECT_FALSE(berlin.isDst(kBerlinFallBack2026));
    EXPECT_EQ(isoText(berlin, kBerlinFallBack2026 - 1), L"2026-10-25T02:59:59+02:00");
    EXPECT_EQ(isoText(berlin, kBerlinFallBack2026), L"2026-10-25T02:00:00+01:00");
}

TEST_F(TimeZoneTest, BerlinBeforeStandardTimeUsesLocalMeanTime) {
    const TimeZone berlin = zoneNamed(L"Europe/Berlin");
    EXPECT_EQ(berlin.getUtcOffset(-2840140800), 3208);  // 1880: +00:53:28
    EXPECT_EQ(isoText(berlin, -2840140800), L"1880-01-01T00:53:28+00:53:28");
    EXPECT_EQ(berlin.getUtcOffset(-2208988800), 3600);  // 1900: CET
}

TEST_F(TimeZoneTest, NewYork2026) {
    const TimeZone newYork = zoneNamed(L"America/New_York");
    EXPECT_EQ(localText(newYork, kNewYorkSpringForward2026 - 1), "2026-03-08 01:59:59 wd0 -18000");
    EXPECT_EQ(localText(newYork, kNewYorkSpringForward2026), "2026-03-08 03:00:00 wd0 -14400 dst");
    EXPECT_EQ(localText(newYork, kNewYorkFallBack2026 - 1), "2026-11-01 01:59:59 wd0 -14400 dst");
    EXPECT_EQ(localText(newYork, kNewYorkFallBack2026), "2026-11-01 01:00:00 wd0 -18000");
    EXPECT_EQ(isoText(newYork, kMidJanuary2026), L"2026-01-15T07:00:00-05:00");
}

TEST_F(TimeZoneTest, FooterRuleDecidesFarInTheFuture) {
    const TimeZone berlin = zoneNamed(L"Europe/Berlin");
    EXPECT_EQ(localText(berlin, kMidJanuary2100), "2100-01-15 13:00:00 wd5 +3600");
    EXPECT_EQ(localText(berlin, kMidJuly2100), "2100-07-15 14:00:00 wd4 +7200 dst");
    EXPECT_EQ(shortName(berlin, berlin.isDst(kMidJuly2100)), L"CEST");
    // 2100-03-28 01:00:00 UTC, the last Sunday of March, and the second before it.
    EXPECT_FALSE(berlin.isDst(4109878800 - 1));
    EXPECT_TRUE(berlin.isDst(4109878800));
}

TEST_F(TimeZoneTest, KolkataHalfHourOffsetInIsoText) {
    const TimeZone kolkata = zoneNamed(L"Asia/Kolkata");
    EXPECT_EQ(isoText(kolkata, 1795284563), L"2026-11-21T23:39:23+05:30");
    EXPECT_EQ(plainText(kolkata, 1795284563), L"2026-11-21 23:39:23");
    EXPECT_EQ(kolkata.getUtcOffset(1795284563), 19800);
    EXPECT_EQ(shortName(kolkata, false), L"IST");
    EXPECT_EQ(shortName(kolkata, true), L"IST");
}

TEST_F(TimeZoneTest, StJohnsNegativeOffsetWithMinutes) {
    const TimeZone stJohns = zoneNamed(L"America/St_Johns");
    EXPECT_EQ(isoText(stJohns, kMidJanuary2026), L"2026-01-15T08:30:00-03:30");
    EXPECT_EQ(isoText(stJohns, kMidJuly2026), L"2026-07-15T09:30:00-02:30");
    EXPECT_EQ(stJohns.getUtcOffset(kMidJanuary2026), -12600);
    EXPECT_EQ(stJohns.getUtcOffset(kMidJuly2026), -9000);
}

TEST_F(TimeZoneTest, SydneySouthernHemisphereDst) {
    const TimeZone sydney = zoneNamed(L"Australia/Sydney");
    EXPECT_TRUE(sydney.isDst(kMidJanuary2026));
    EXPECT_FALSE(sydney.isDst(kMidJuly2026));
    EXPECT_EQ(localText(sydney, kSydneyDstEnd2026 - 1), "2026-04-05 02:59:59 wd0 +39600 dst");
    EXPECT_EQ(localText(sydney, kSydneyDstEnd2026), "2026-04-05 02:00:00 wd0 +36000");
    EXPECT_EQ(localText(sydney, kSydneyDstStart2026 - 1), "2026-10-04 01:59:59 wd0 +36000");
    EXPECT_EQ(localText(sydney, kSydneyDstStart2026), "2026-10-04 03:00:00 wd0 +39600 dst");
    EXPECT_TRUE(sydney.isDst(kMidJanuary2100));
    EXPECT_FALSE(sydney.isDst(kMidJuly2100));
    EXPECT_EQ(isoText(sydney, kMidJanuary2026), L"2026-01-15T23:00:00+11:00");
}

TEST_F(TimeZoneTest, ShortNamesAreStrings) {
    const TimeZone berlin = zoneNamed(L"Europe/Berlin");
    EXPECT_EQ(shortName(berlin, false), L"CET");
    EXPECT_EQ(shortName(berlin, true), L"CEST");
    const TimeZone newYork = zoneNamed(L"America/New_York");
    EXPECT_EQ(shortName(newYork, false), L"EST");
    EXPECT_EQ(shortName(newYork, true), L"EDT");
    EXPECT_EQ(shortName(TimeZone::utc(), false), L"UTC");
    EXPECT_EQ(shortName(TimeZone::utc(), true), L"UTC");
    EXPECT_EQ(shortName(zoneNamed(L"GMT"), true), L"GMT");
}

TEST_F(TimeZoneTest, ShortNamesAreTheSameInEveryLanguage) {
    const TimeZone berlin = zoneNamed(L"Europe/Berlin");
    for (const wchar_t* pszLanguage : {L"de", L"fr", L"ja", L"", L"xx-unknown"}) {
        EXPECT_EQ(shortName(berlin, false, pszLanguage), shortName(berlin, false, L"en"));
        EXPECT_EQ(shortName(berlin, true, pszLanguage), shortName(berlin, true, L"en"));
    }
}

TEST_F(TimeZoneTest, IsNowDstReadsTheReplaceableClock) {
    static std::atomic<std::time_t> s_now{kMidJuly2026};
    const clock::ScopedWallClock scoped([]() noexcept { return s_now.load(); });
    const TimeZone berlin = zoneNamed(L"Europe/Berlin");
    EXPECT_TRUE(berlin.isNowDst());
    s_now = kMidJanuary2026;
    EXPECT_FALSE(berlin.isNowDst());
    EXPECT_FALSE(TimeZone::utc().isNowDst());
}

TEST_F(TimeZoneTest, UnknownZoneIsNotFoundAndLeavesTheZoneAlone) {
    TimeZone zone = zoneNamed(L"Europe/Berlin");
    TimeZoneRegistry& registry = TimeZoneRegistry::getInstance();
    EXPECT_FALSE(registry.findTimeZone(String(L"Nowhere/Nothing"), zone));
    EXPECT_FALSE(registry.findTimeZone(String(L""), zone));
    EXPECT_FALSE(registry.findTimeZone(String(L"Europe"), zone));    // a directory
    EXPECT_FALSE(registry.findTimeZone(String(L"zone.tab"), zone));  // not TZif
    EXPECT_EQ(zone.getName(), L"Europe/Berlin");
    EXPECT_EQ(zone.getUtcOffset(kMidJuly2026), 7200);
}

TEST_F(TimeZoneTest, NamesLeavingTheDirectoryAreRejected) {
    TimeZone zone = TimeZone::utc();
    TimeZoneRegistry& registry = TimeZoneRegistry::getInstance();
    for (const wchar_t* pszName :
         {L"../etc/passwd", L"/etc/localtime", L"/usr/share/zoneinfo/Europe/Berlin",
          L"Europe/../Europe/Berlin", L"..", L"Europe/..", L"Europe\\Berlin", L"Europe//Berlin",
          L"./Europe/Berlin", L"Europe/./Berlin", L"Europe/Berlin/", L"Europe/Berlin/."}) {
        EXPECT_FALSE(registry.findTimeZone(String(pszName), zone)) << pszName;
    }
    EXPECT_FALSE(registry.findTimeZone(String(L"Europe/Berlin\0x", 15), zone));
    EXPECT_EQ(zone.getName(), L"UTC");
}

TEST_F(TimeZoneTest, UtcAndGmtAreFoundWithoutFiles) {
    test::TempDir dir;
    TimeZoneRegistry& registry = TimeZoneRegistry::getInstance();
    registry.setZoneInfoDirectory(NString(dir.path().c_str()));
    EXPECT_EQ(registry.getZoneInfoDirectory(), NString(dir.path().c_str()));
    for (const wchar_t* pszName : {L"UTC", L"GMT", L"Etc/UTC"}) {
        TimeZone zone = TimeZone::utc();
        ASSERT_TRUE(registry.findTimeZone(String(pszName), zone)) << pszName;
        EXPECT_EQ(zone.getName(), pszName);
        EXPECT_EQ(zone.getUtcOffset(kMidJuly2026), 0);
        EXPECT_FALSE(zone.isDst(kMidJuly2026));
    }
    TimeZone zone = TimeZone::utc();
    EXPECT_FALSE(registry.findTimeZone(String(L"Europe/Berlin"), zone));
}

TEST_F(TimeZoneTest, ChangingTheDirectoryForgetsCachedZones) {
    TimeZoneRegistry& registry = TimeZoneRegistry::getInstance();
    TimeZone zone = TimeZone::utc();
    ASSERT_TRUE(registry.findTimeZone(String(L"Europe/Berlin"), zone));
    test::TempDir dir;
    TZifContent content = sampleContent();
    std::filesystem::create_directories(dir.file("Europe"));
    dir.write("Europe/Berlin", buildTZif(content));
    registry.setZoneInfoDirectory(NString(dir.path().c_str()));
    ASSERT_TRUE(registry.findTimeZone(String(L"Europe/Berlin"), zone));
    EXPECT_EQ(shortName(zone, false), L"AAA");
    // A zone already handed out keeps its data.
    const TimeZone copy = zone;
    registry.setZoneInfoDirectory(m_strSavedDirectory);
    ASSERT_TRUE(registry.findTimeZone(String(L"Europe/Berlin"), zone));
    EXPECT_EQ(shortName(zone, false), L"CET");
    EXPECT_EQ(shortName(copy, false), L"AAA");
}

TEST_F(TimeZoneTest, ServerZoneFollowsTzWithColon) {
    ::setenv("TZ", ":Europe/Berlin", 1);
    const TimeZone zone(TimeZone::kServerOS);
    EXPECT_EQ(zone.getName(), L"Europe/Berlin");
    EXPECT_EQ(zone.getUtcOffset(kMidJuly2026), 7200);
}

TEST_F(TimeZoneTest, ServerZoneFollowsTzName) {
    ::setenv("TZ", "America/New_York", 1);
    const TimeZone zone;
    EXPECT_EQ(zone.getName(), L"America/New_York");
    EXPECT_EQ(zone.getUtcOffset(kMidJanuary2026), -18000);
}

TEST_F(TimeZoneTest, ServerZoneFollowsTzPath) {
    ::setenv("TZ", "/usr/share/zoneinfo/Asia/Kolkata", 1);
    const TimeZone inTree;
    EXPECT_EQ(inTree.getName(), L"Asia/Kolkata");
    EXPECT_EQ(inTree.getUtcOffset(kMidJanuary2026), 19800);

    test::TempDir dir;
    const std::string path =
        dir.write("berlin.tzif", readBytes("/usr/share/zoneinfo/Europe/Berlin"));
    ::setenv("TZ", path.c_str(), 1);
    const TimeZone outside;
    EXPECT_EQ(outside.getName(), fromUtf8(path));
    EXPECT_EQ(outside.getUtcOffset(kMidJuly2026), 7200);
}

TEST_F(TimeZoneTest, ServerZoneFollowsTzPosixString) {
    ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    const TimeZone zone;
    EXPECT_EQ(zone.getName(), L"CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_TRUE(zone.isDst(kMidJuly2026));
    EXPECT_EQ(localText(zone, kBerlinFallBack2026), "2026-10-25 02:00:00 wd0 +3600");

    ::setenv("TZ", "UTC0", 1);
    const TimeZone utc0;
    EXPECT_EQ(utc0.getName(), L"UTC0");
    EXPECT_EQ(utc0.getUtcOffset(kMidJuly2026), 0);
    EXPECT_EQ(shortName(utc0, true), L"UTC");
}

TEST_F(TimeZoneTest, ServerZoneFallsBackToUtc) {
    for (const char* pszTz : {"", ":", "Nowhere/Nothing", ":CET-1CEST,M3.5.0,M10.5.0/3",
                              "/nonexistent/zone", "../etc/passwd", ":/etc/passwd"}) {
        ::setenv("TZ", pszTz, 1);
        const TimeZone zone;
        EXPECT_EQ(zone.getName(), L"UTC") << pszTz;
        EXPECT_EQ(zone.getUtcOffset(kMidJuly2026), 0) << pszTz;
    }
}

TEST_F(TimeZoneTest, ServerZoneWithoutTzReadsEtcLocaltime) {
    ::unsetenv("TZ");
    const TimeZone zone;
    std::error_code ec;
    const std::filesystem::path target = std::filesystem::read_symlink("/etc/localtime", ec);
    if (!std::filesystem::exists("/etc/localtime")) {
        EXPECT_EQ(zone.getName(), L"UTC");
        return;
    }
    const std::string prefix = "/usr/share/zoneinfo/";
    if (!ec && target.string().rfind(prefix, 0) == 0) {
        const std::string name = target.string().substr(prefix.size());
        EXPECT_EQ(zone.getName(), fromUtf8(name));
        const TimeZone named = zoneNamed(fromUtf8(name).c_str());
        EXPECT_EQ(zone.getUtcOffset(kMidJuly2026), named.getUtcOffset(kMidJuly2026));
        EXPECT_EQ(zone.getUtcOffset(kMidJanuary2026), named.getUtcOffset(kMidJanuary2026));
    } else if (ec) {
        EXPECT_EQ(zone.getName(), L"localtime");
    }
}

TEST_F(TimeZoneTest, CopiesOutliveTheOriginal) {
    std::optional<TimeZone> original(zoneNamed(L"Europe/Berlin"));
    const TimeZone copy = *original;
    TimeZone assigned = TimeZone::utc();
    assigned = copy;
    original.reset();
    EXPECT_EQ(copy.getName(), L"Europe/Berlin");
    EXPECT_EQ(assigned.getUtcOffset(kMidJuly2026), 7200);
}

TEST_F(TimeZoneTest, ManyThreadsFindAndConvert) {
    std::vector<std::thread> vecThreads;
    std::atomic<int> nFailures{0};
    const wchar_t* const arrNames[] = {L"Europe/Berlin", L"America/New_York", L"Asia/Kolkata",
                                       L"Australia/Sydney"};
    for (int i = 0; i < 4; ++i) {
        vecThreads.emplace_back([&, i] {
            for (int n = 0; n < 200; ++n) {
                TimeZone zone = TimeZone::utc();
                if (!TimeZoneRegistry::getInstance().findTimeZone(String(arrNames[(i + n) % 4]),
                                                                  zone)) {
                    ++nFailures;
                    continue;
                }
                wchar_t arr[64];
                if (DateUtils::crtToISO8601WCharBuf(kMidJuly2026 + n, zone, arr, 64) != 25) {
                    ++nFailures;
                }
            }
        });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    EXPECT_EQ(nFailures.load(), 0);
}

}  // namespace
}  // namespace kiv

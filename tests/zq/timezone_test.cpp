#include "zq/webutil/timezone.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/alloc_counter.h"
#include "support/temp_dir.h"
#include "zq/webkeel/clock.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

// Instants used below, as seconds since the epoch.
constexpr std::time_t kBerlinSpringForward2026 = 1774746000;   // 2026-03-29 01:00:00 UTC
constexpr std::time_t kBerlinFallBack2026 = 1792890000;        // 2026-10-25 01:00:00 UTC
constexpr std::time_t kNewYorkSpringForward2026 = 1772953200;  // 2026-03-08 07:00:00 UTC
constexpr std::time_t kNewYorkFallBack2026 = 1793512800;       // 2026-11-01 06:00:00 UTC
constexpr std::time_t kSydneyDstEnd2026 = 1775318400;          // 2026-04-04 16:00:00 UTC
constexpr std::time_t kSydneyDstStart2026 = 1791043200;        // 2026-10-03 16:00:00 UTC
constexpr std::time_t kMidJanuary2026 = 1768478400;            // 2026-01-15 12:00:00 UTC
constexpr std::time_t kMidJuly2026 = 1784116800;               // 2026-07-15 12:00:00 UTC
constexpr std::time_t kMidJanuary2100 = 4103697600;            // 2100-01-15 12:00:00 UTC
constexpr std::time_t kMidJuly2100 = 4119336000;               // 2100-07-15 12:00:00 UTC

std::string localText(const LocalTime& lt) {
    char arr[96];
    std::snprintf(arr, sizeof(arr), "%04d-%02d-%02d %02d:%02d:%02d wd%d %+ld%s", lt.nYear,
                  lt.nMonth, lt.nDay, lt.nHour, lt.nMinute, lt.nSecond, lt.nWeekday, lt.nUtcOffset,
                  lt.bDst ? " dst" : "");
    return arr;
}

std::string localText(const TimeZone& zone, std::time_t t) {
    LocalTime lt{};
    zone.toLocal(t, lt);
    return localText(lt);
}

std::wstring plainText(const TimeZone& zone, std::time_t t) {
    wchar_t arr[64];
    const std::size_t n = DateUtils::crtToWCharBuf(t, zone, arr, 64);
    return std::wstring(arr, n);
}

std::wstring isoText(const TimeZone& zone, std::time_t t) {
    wchar_t arr[64];
    const std::size_t n = DateUtils::crtToISO8601WCharBuf(t, zone, arr, 64);
    return std::wstring(arr, n);
}

TimeZone zoneNamed(const wchar_t* pszName) {
    TimeZone zone = TimeZone::utc();
    EXPECT_TRUE(TimeZoneRegistry::getInstance().findTimeZone(String(pszName), zone)) << pszName;
    return zone;
}

TimeZone posixZone(const wchar_t* pszRule) {
    TimeZone zone = TimeZone::utc();
    EXPECT_TRUE(TimeZone::fromPosixString(String(pszRule), zone)) << pszRule;
    return zone;
}

String shortName(const TimeZone& zone, bool bDst, const wchar_t* pszLanguage = L"en") {
    const GDVariant value = zone.getShortName(String(pszLanguage), bDst);
    EXPECT_FALSE(value.empty());
    EXPECT_TRUE(value->isString());
    return value->toString();
}

// Builds TZif files, well formed or broken on purpose.
struct TZifType {
    std::int32_t nOffset;
    bool bDst;
    std::uint8_t nAbbreviationIndex;
};

struct TZifContent {
    char cVersion = '2';
    std::vector<std::int64_t> vecTimes;
    std::vector<std::uint8_t> vecTimeTypes;
    std::vector<TZifType> vecTypes;
    std::string strChars;
    std::string strFooter;  // without the surrounding newlines
};

void appendBigEndian(std::string& out, std::uint64_t n, unsigned nBytes) {
    for (unsigned i = nBytes; i-- > 0;) {
        out.push_back(static_cast<char>((n >> (8 * i)) & 0xFF));
    }
}

void appendHeader(std::string& out, char cVersion, std::uint32_t nIsUt, std::uint32_t nIsStd,
                  std::uint32_t nLeap, std::uint32_t nTime, std::uint32_t nType,
                  std::uint32_t nChar) {
    out += "TZif";
    out.push_back(cVersion);
    out.append(15, '\0');
    for (std::uint32_t n : {nIsUt, nIsStd, nLeap, nTime, nType, nChar}) {
        appendBigEndian(out, n, 4);
    }
}

void appendBlock(std::string& out, const TZifContent& content, unsigned nTimeSize) {
    const auto nTypes = static_cast<std::uint32_t>(content.vecTypes.size());
    appendHeader(out, content.cVersion, nTypes, nTypes, 0,
                 static_cast<std::uint32_t>(content.vecTimes.size()), nTypes,
                 static_cast<std::uint32_t>(content.strChars.size()));
    for (std::int64_t t : content.vecTimes) {
        appendBigEndian(out, static_cast<std::uint64_t>(t), nTimeSize);
    }
    for (std::uint8_t n : content.vecTimeTypes) {
        out.push_back(static_cast<char>(n));
    }
    for (const TZifType& type : content.vecTypes) {
        appendBigEndian(out, static_cast<std::uint32_t>(type.nOffset), 4);
        out.push_back(type.bDst ? 1 : 0);
        out.push_back(static_cast<char>(type.nAbbreviationIndex));
    }
    out += content.strChars;
    out.append(2 * content.vecTypes.size(), '\0');  // standard/wall and UT/local indicators
}

std::string buildTZif(const TZifContent& content) {
    std::string out;
    appendBlock(out, content, 4);
    if (content.cVersion != '\0') {
        appendBlock(out, content, 8);
        out += '\n';
        out += content.strFooter;
        out += '\n';
    }
    return out;
}

// A small zone: +01:00 "AAA" standard, +02:00 "BBB" daylight between two instants of 2026,
// then the footer's rule.
TZifContent sampleContent() {
    TZifContent content;
    content.vecTimes = {kBerlinSpringForward2026, kBerlinFallBack2026};
    content.vecTimeTypes = {1, 0};
    content.vecTypes = {{3600, false, 0}, {7200, true, 4}};
    content.strChars = std::string("AAA\0BBB\0", 8);
    content.strFooter = "AAA-1BBB,M3.5.0,M10.5.0/3";
    return content;
}

std::string readBytes(const std::string& path) {
    return test::readFile(path);
}

class TimeZoneTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_strSavedDirectory = TimeZoneRegistry::getInstance().getZoneInfoDirectory();
        const char* pszTz = std::getenv("TZ");
        if (pszTz != nullptr) {
            m_optSavedTz = pszTz;
        }
    }
    void TearDown() override {
        TimeZoneRegistry::getInstance().setZoneInfoDirectory(m_strSavedDirectory);
        if (m_optSavedTz) {
            ::setenv("TZ", m_optSavedTz->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
    }

    NString m_strSavedDirectory;
    std::optional<std::string> m_optSavedTz;
};

// --- UTC and the calendar ---------------------------------------------------------------------

TEST_F(TimeZoneTest, UtcConvertsKnownInstants) {
    const TimeZone utc = TimeZone::utc();
    EXPECT_EQ(localText(utc, 0), "1970-01-01 00:00:00 wd4 +0");
    EXPECT_EQ(localText(utc, 951782400), "2000-02-29 00:00:00 wd2 +0");
    EXPECT_EQ(localText(utc, 951782400 + 86400), "2000-03-01 00:00:00 wd3 +0");
    EXPECT_EQ(localText(utc, 4102444799), "2099-12-31 23:59:59 wd4 +0");
    EXPECT_EQ(localText(utc, 1795284563), "2026-11-21 18:09:23 wd6 +0");
    EXPECT_EQ(utc.getName(), L"UTC");
}

TEST_F(TimeZoneTest, UtcConvertsNegativeTimes) {
    const TimeZone utc = TimeZone::utc();
    EXPECT_EQ(localText(utc, -1), "1969-12-31 23:59:59 wd3 +0");
    EXPECT_EQ(localText(utc, -86400), "1969-12-31 00:00:00 wd3 +0");
    EXPECT_EQ(localText(utc, -2208988800), "1900-01-01 00:00:00 wd1 +0");
    EXPECT_EQ(localText(utc, -62135596800), "0001-01-01 00:00:00 wd1 +0");
    EXPECT_EQ(plainText(utc, -62135596800 - 366 * 86400), L"0000-01-01 00:00:00");
    EXPECT_EQ(plainText(utc, -62135596800 - 366 * 86400 - 1), L"-0001-12-31 23:59:59");
}

TEST_F(TimeZoneTest, EveryDayOfFourCenturiesRoundTrips) {
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

// --- Zones from the system's database ---------------------------------------------------------

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

TEST_F(TimeZoneTest, TransitionsAndFooterRuleAgreeEveryHour) {
    // The database's transitions end in 2037 (or earlier in slim files) and the footer takes
    // over; both must describe the same clock, including around the hand-over.
    const TimeZone berlin = zoneNamed(L"Europe/Berlin");
    const TimeZone rule = posixZone(L"CET-1CEST,M3.5.0,M10.5.0/3");
    const TimeZone sydney = zoneNamed(L"Australia/Sydney");
    const TimeZone sydneyRule = posixZone(L"AEST-10AEDT,M10.1.0,M4.1.0/3");
    for (std::time_t t = 978307200; t < 2240524800; t += 1800) {  // 2001 to 2041
        ASSERT_EQ(berlin.getUtcOffset(t), rule.getUtcOffset(t)) << t;
        ASSERT_EQ(berlin.isDst(t), rule.isDst(t)) << t;
    }
    // Sydney's present rule holds since 2008.
    for (std::time_t t = 1230768000; t < 2240524800; t += 1800) {  // 2009 to 2041
        ASSERT_EQ(sydney.getUtcOffset(t), sydneyRule.getUtcOffset(t)) << t;
        ASSERT_EQ(sydney.isDst(t), sydneyRule.isDst(t)) << t;
    }
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

TEST_F(TimeZoneTest, UtcIsoTextShowsZeroOffset) {
    EXPECT_EQ(isoText(TimeZone::utc(), 1795284563), L"2026-11-21T18:09:23+00:00");
    EXPECT_EQ(isoText(zoneNamed(L"Etc/UTC"), 0), L"1970-01-01T00:00:00+00:00");
}

// --- Short names ------------------------------------------------------------------------------

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

TEST_F(TimeZoneTest, ShortNamesOfAFileWithoutFooterComeFromTheLatestTypes) {
    TZifContent content = sampleContent();
    content.cVersion = '\0';
    TimeZone zone = TimeZone::utc();
    ASSERT_TRUE(TimeZone::fromTZifBytes(buildTZif(content), String(L"Sample"), zone));
    EXPECT_EQ(shortName(zone, false), L"AAA");
    EXPECT_EQ(shortName(zone, true), L"BBB");
    // Without a rule, the last transition's type holds for ever.
    EXPECT_EQ(zone.getUtcOffset(kMidJuly2100), 3600);
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

// --- The registry -----------------------------------------------------------------------------

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

TEST_F(TimeZoneTest, MalformedFilesAreNotFound) {
    test::TempDir dir;
    const std::string valid = buildTZif(sampleContent());
    std::vector<std::pair<std::string, std::string>> vecFiles;
    vecFiles.emplace_back("empty", "");
    vecFiles.emplace_back("bad_magic", "TZiX" + valid.substr(4));
    vecFiles.emplace_back("truncated_header", valid.substr(0, 30));
    vecFiles.emplace_back("bad_version", valid.substr(0, 4) + "9" + valid.substr(5));
    {
        std::string bytes;
        appendHeader(bytes, '\0', 0, 0, 0, 100, 1, 4);  // 100 transitions that are not there
        bytes += std::string(20, '\0');
        vecFiles.emplace_back("counts_past_the_end", bytes);
    }
    {
        std::string bytes;
        appendHeader(bytes, '2', 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF,
                     0xFFFFFFFF);
        vecFiles.emplace_back("huge_counts", bytes);
        bytes.clear();
        appendHeader(bytes, '\0', 0, 0, 0, 0x40000000, 1, 4);  // size would overflow 32 bits
        bytes += std::string(64, '\0');
        vecFiles.emplace_back("huge_time_count", bytes);
        bytes.clear();
        appendHeader(bytes, '\0', 0, 0, 0, 0, 0, 4);  // no types at all
        vecFiles.emplace_back("no_types", bytes);
    }
    {
        // The 32-bit part is whole, the 64-bit part stops half-way.
        std::string bytes = valid;
        const std::size_t nFooter = bytes.rfind("\nAAA");
        bytes.resize(nFooter - 10);
        vecFiles.emplace_back("v2_truncated_64bit", bytes);
        // The second header claims more than follows.
        std::string secondHeader = valid;
        const std::size_t nSecond = secondHeader.find("TZif", 4);
        secondHeader[nSecond + 20 + 12] = '\x7F';  // the transition count's high byte
        vecFiles.emplace_back("v2_second_header_overflows", secondHeader);
    }
    {
        TZifContent content = sampleContent();
        content.vecTimeTypes = {1, 7};
        vecFiles.emplace_back("type_index_out_of_range", buildTZif(content));
        content = sampleContent();
        content.vecTimes = {kBerlinFallBack2026, kBerlinSpringForward2026};
        vecFiles.emplace_back("times_not_ascending", buildTZif(content));
        content = sampleContent();
        content.vecTypes[1].nAbbreviationIndex = 8;
        vecFiles.emplace_back("abbreviation_past_the_end", buildTZif(content));
        content = sampleContent();
        content.strChars = std::string("AAA\0BBBB", 8);
        vecFiles.emplace_back("abbreviation_without_terminator", buildTZif(content));
        content = sampleContent();
        content.vecTypes[0].nOffset = std::numeric_limits<std::int32_t>::min();
        vecFiles.emplace_back("offset_out_of_range", buildTZif(content));
        content = sampleContent();
        content.strFooter = "AAA-1BBB,M3.5.0,M13.5.0/3";
        vecFiles.emplace_back("bad_footer", buildTZif(content));
    }
    vecFiles.emplace_back("footer_without_newline", valid.substr(0, valid.size() - 1));
    vecFiles.emplace_back("trailing_garbage", valid + "x");
    {
        std::string bytes = valid;
        bytes[bytes.find("TZif", 4) + 4] = '3';  // the two headers disagree on the version
        vecFiles.emplace_back("versions_disagree", bytes);
    }
    vecFiles.emplace_back("oversized", valid + std::string(TimeZone::kMaxTZifBytes, '\n'));

    for (const auto& [name, bytes] : vecFiles) {
        dir.write(name, bytes);
    }
    dir.write("valid", valid);
    TimeZoneRegistry& registry = TimeZoneRegistry::getInstance();
    registry.setZoneInfoDirectory(NString(dir.path().c_str()));
    for (const auto& [name, bytes] : vecFiles) {
        TimeZone zone = TimeZone::utc();
        EXPECT_FALSE(registry.findTimeZone(fromUtf8(name), zone)) << name;
        EXPECT_EQ(zone.getName(), L"UTC") << name;
        EXPECT_FALSE(TimeZone::fromTZifBytes(bytes, fromUtf8(name), zone)) << name;
    }
    TimeZone zone = TimeZone::utc();
    ASSERT_TRUE(registry.findTimeZone(String(L"valid"), zone));
    EXPECT_EQ(zone.getName(), L"valid");
    EXPECT_EQ(localText(zone, kBerlinSpringForward2026), "2026-03-29 03:00:00 wd0 +7200 dst");
    EXPECT_EQ(shortName(zone, true), L"BBB");
}

TEST_F(TimeZoneTest, EveryTruncationOfARealFileIsRejected) {
    const std::string bytes = readBytes("/usr/share/zoneinfo/Europe/Berlin");
    ASSERT_GT(bytes.size(), 100u);
    TimeZone zone = TimeZone::utc();
    for (std::size_t n = 0; n < bytes.size(); ++n) {
        ASSERT_FALSE(TimeZone::fromTZifBytes(std::string_view(bytes.data(), n), String(L"x"), zone))
            << n;
    }
    ASSERT_TRUE(TimeZone::fromTZifBytes(bytes, String(L"Berlin"), zone));
    EXPECT_EQ(zone.getUtcOffset(kMidJuly2026), 7200);
}

TEST_F(TimeZoneTest, VersionOneFileUsesThe32BitData) {
    TZifContent content = sampleContent();
    content.cVersion = '\0';
    TimeZone zone = TimeZone::utc();
    ASSERT_TRUE(TimeZone::fromTZifBytes(buildTZif(content), String(L"v1"), zone));
    EXPECT_EQ(localText(zone, kBerlinSpringForward2026 - 1), "2026-03-29 01:59:59 wd0 +3600");
    EXPECT_EQ(localText(zone, kBerlinSpringForward2026), "2026-03-29 03:00:00 wd0 +7200 dst");
    EXPECT_EQ(localText(zone, kBerlinFallBack2026), "2026-10-25 02:00:00 wd0 +3600");
}

TEST_F(TimeZoneTest, TypeZeroRulesBeforeTheFirstTransition) {
    TZifContent content = sampleContent();
    content.cVersion = '3';
    TimeZone zone = TimeZone::utc();
    ASSERT_TRUE(TimeZone::fromTZifBytes(buildTZif(content), String(L"v3"), zone));
    EXPECT_EQ(zone.getUtcOffset(0), 3600);
    EXPECT_FALSE(zone.isDst(0));
    // Past the last transition the footer takes over.
    EXPECT_TRUE(zone.isDst(kMidJuly2100));
}

TEST_F(TimeZoneTest, FileWithoutTransitionsFollowsItsFooter) {
    TZifContent content;
    content.vecTypes = {{-18000, false, 0}};
    content.strChars = std::string("EST\0", 4);
    content.strFooter = "EST5EDT,M3.2.0,M11.1.0";
    TimeZone zone = TimeZone::utc();
    ASSERT_TRUE(TimeZone::fromTZifBytes(buildTZif(content), String(L"NY"), zone));
    EXPECT_TRUE(zone.isDst(kMidJuly2026));
    EXPECT_EQ(zone.getUtcOffset(kMidJanuary2026), -18000);
    EXPECT_EQ(localText(zone, kNewYorkSpringForward2026), "2026-03-08 03:00:00 wd0 -14400 dst");
    // An empty footer: type 0 everywhere.
    content.strFooter.clear();
    ASSERT_TRUE(TimeZone::fromTZifBytes(buildTZif(content), String(L"EST"), zone));
    EXPECT_FALSE(zone.isDst(kMidJuly2026));
    EXPECT_EQ(shortName(zone, true), L"EST");
}

// --- The server's own zone ---------------------------------------------------------------------

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

// --- POSIX TZ strings --------------------------------------------------------------------------

TEST_F(TimeZoneTest, PosixMonthWeekDayRuleMatchesTheDatabase) {
    const TimeZone rule = posixZone(L"EST5EDT,M3.2.0,M11.1.0");
    EXPECT_EQ(rule.getName(), L"EST5EDT,M3.2.0,M11.1.0");
    EXPECT_FALSE(rule.isDst(kNewYorkSpringForward2026 - 1));
    EXPECT_TRUE(rule.isDst(kNewYorkSpringForward2026));
    EXPECT_TRUE(rule.isDst(kNewYorkFallBack2026 - 1));
    EXPECT_FALSE(rule.isDst(kNewYorkFallBack2026));
    EXPECT_EQ(shortName(rule, false), L"EST");
    EXPECT_EQ(shortName(rule, true), L"EDT");
    // Without dates a DST name takes the US rule.
    const TimeZone withoutDates = posixZone(L"EST5EDT");
    EXPECT_TRUE(withoutDates.isDst(kNewYorkSpringForward2026));
    EXPECT_FALSE(withoutDates.isDst(kNewYorkSpringForward2026 - 1));
}

TEST_F(TimeZoneTest, PosixJulianDayNeverCountsTheLeapDay) {
    // J60 is 1 March in every year.
    const TimeZone zone = posixZone(L"AAA0BBB-1,J60/0,J300/0");
    constexpr std::time_t k20240229Noon = 1709208000;
    constexpr std::time_t k20240301 = 1709251200;
    EXPECT_FALSE(zone.isDst(k20240229Noon));
    EXPECT_FALSE(zone.isDst(k20240301 - 1));
    EXPECT_TRUE(zone.isDst(k20240301));
    constexpr std::time_t k20250301 = 1740787200;
    EXPECT_FALSE(zone.isDst(k20250301 - 1));
    EXPECT_TRUE(zone.isDst(k20250301));
    EXPECT_EQ(zone.getUtcOffset(k20250301), 3600);
}

TEST_F(TimeZoneTest, PosixZeroBasedDayCountsTheLeapDay) {
    // Day 59 is 29 February in a leap year, 1 March otherwise.
    const TimeZone zone = posixZone(L"AAA0BBB-1,59/0,299/0");
    constexpr std::time_t k20240229 = 1709164800;
    EXPECT_FALSE(zone.isDst(k20240229 - 1));
    EXPECT_TRUE(zone.isDst(k20240229));
    constexpr std::time_t k20250301 = 1740787200;
    EXPECT_FALSE(zone.isDst(k20250301 - 1));
    EXPECT_TRUE(zone.isDst(k20250301));
}

TEST_F(TimeZoneTest, PosixNegativeAndLongTransitionTimes) {
    // DST from 23:00 on the Saturday before the last Sunday of March until 01:00 on the Monday
    // after the last Sunday of October (25:00 on the Sunday, on the DST clock).
    const TimeZone zone = posixZone(L"AAA0BBB-1,M3.5.0/-1,M10.5.0/25");
    constexpr std::time_t k20260328At2300 = 1774738800;
    EXPECT_FALSE(zone.isDst(k20260328At2300 - 1));
    EXPECT_TRUE(zone.isDst(k20260328At2300));
    constexpr std::time_t k20261026Midnight = 1792972800;  // 01:00 BBB
    EXPECT_TRUE(zone.isDst(k20261026Midnight - 1));
    EXPECT_FALSE(zone.isDst(k20261026Midnight));
    // 167 hours after midnight of the first Sunday of March 2026 (1 March): 7 March 23:00.
    const TimeZone week = posixZone(L"AAA0BBB-1,M3.1.0/167,M10.5.0");
    constexpr std::time_t k20260307At2300 = 1772924400;
    EXPECT_FALSE(week.isDst(k20260307At2300 - 1));
    EXPECT_TRUE(week.isDst(k20260307At2300));
    EXPECT_EQ(localText(week, k20260307At2300), "2026-03-08 00:00:00 wd0 +3600 dst");
}

TEST_F(TimeZoneTest, PosixDstAllYear) {
    // RFC 8536's example: DST starts on 1 January at 00:00 and ends after 31 December 24:00
    // plus the DST shift, so it never ends.
    const TimeZone zone = posixZone(L"EST5EDT,0/0,J365/25");
    for (std::time_t t : {kMidJanuary2026, kMidJuly2026, std::time_t{1767243600},
                          std::time_t{1767243600 - 1}, std::time_t{1798779600 - 1}}) {
        EXPECT_TRUE(zone.isDst(t)) << t;
        EXPECT_EQ(zone.getUtcOffset(t), -14400) << t;
    }
}

TEST_F(TimeZoneTest, PosixSouthernHemisphereRule) {
    const TimeZone zone = posixZone(L"AEST-10AEDT,M10.1.0,M4.1.0/3");
    EXPECT_TRUE(zone.isDst(kMidJanuary2026));
    EXPECT_FALSE(zone.isDst(kMidJuly2026));
    EXPECT_TRUE(zone.isDst(kSydneyDstEnd2026 - 1));
    EXPECT_FALSE(zone.isDst(kSydneyDstEnd2026));
    EXPECT_FALSE(zone.isDst(kSydneyDstStart2026 - 1));
    EXPECT_TRUE(zone.isDst(kSydneyDstStart2026));
    // New Year's Eve, in DST on both sides of midnight.
    EXPECT_TRUE(zone.isDst(1798722000 - 1));
    EXPECT_TRUE(zone.isDst(1798722000));
}

TEST_F(TimeZoneTest, PosixAngleBracketNamesAndOffsets) {
    const TimeZone tehranLike = posixZone(L"<+0330>-3:30");
    EXPECT_EQ(tehranLike.getUtcOffset(kMidJuly2026), 12600);
    EXPECT_EQ(shortName(tehranLike, false), L"+0330");
    EXPECT_EQ(shortName(tehranLike, true), L"+0330");
    EXPECT_EQ(isoText(tehranLike, kMidJanuary2026), L"2026-01-15T15:30:00+03:30");

    const TimeZone west = posixZone(L"<-03>3");
    EXPECT_EQ(west.getUtcOffset(kMidJuly2026), -10800);
    EXPECT_EQ(shortName(west, false), L"-03");

    const TimeZone chatham = posixZone(L"<+1245>-12:45<+1345>,M9.5.0/2:45,M4.1.0/3:45");
    EXPECT_EQ(chatham.getUtcOffset(kMidJuly2026), 45900);
    EXPECT_EQ(chatham.getUtcOffset(kMidJanuary2026), 49500);
    EXPECT_EQ(shortName(chatham, true), L"+1345");

    const TimeZone explicitDst = posixZone(L"AAA+1:30:15BBB+0:30:15,M3.5.0,M10.5.0");
    EXPECT_EQ(explicitDst.getUtcOffset(kMidJanuary2026), -5415);
    EXPECT_EQ(explicitDst.getUtcOffset(kMidJuly2026), -1815);
    EXPECT_EQ(isoText(explicitDst, kMidJuly2026), L"2026-07-15T11:29:45-00:30:15");
}

TEST_F(TimeZoneTest, MalformedPosixStringsAreRejected) {
    TimeZone zone = zoneNamed(L"Europe/Berlin");
    for (const wchar_t* pszRule : {L"",
                                   L"C",
                                   L"CET",
                                   L"CE-1",
                                   L"CET-1CEST,M3.5.0",
                                   L"CET-1CEST,M13.5.0,M10.5.0",
                                   L"CET-1CEST,M3.6.0,M10.5.0",
                                   L"CET-1CEST,M3.5.7,M10.5.0",
                                   L"CET-1CEST,J0,J100",
                                   L"CET-1CEST,366,J100",
                                   L"CET-25",
                                   L"CET-1:60",
                                   L"CET-1 ",
                                   L"<AB>1",
                                   L"<A/B>1",
                                   L"<ABC1",
                                   L"CET-1CEST,M3.5.0/168,M10.5.0",
                                   L"CET-1CEST,M3.5.0,M10.5.0,",
                                   L"CET-1CEST,M3.5.0/,M10.5.0",
                                   L"CET-123",
                                   L"CET\u00e91"}) {
        EXPECT_FALSE(TimeZone::fromPosixString(String(pszRule), zone)) << pszRule;
    }
    EXPECT_EQ(zone.getName(), L"Europe/Berlin");
}

// --- Formatting -------------------------------------------------------------------------------

TEST_F(TimeZoneTest, BufferTooSmallGivesEmptyText) {
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

TEST_F(TimeZoneTest, ConversionAndFormattingAllocateNothing) {
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

// --- Sharing ----------------------------------------------------------------------------------

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

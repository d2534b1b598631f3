// What the tests of the zone code share: instants whose local times are known, short ways to
// convert and format them, a builder of TZif files (well formed or broken on purpose) and a
// fixture that puts back the TZ variable and the registry's directory after each test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "zq/webutil/timezone.h"

namespace kiv::zonetest {

// Instants the tests use, as seconds since the epoch.
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

inline std::string localText(const LocalTime& lt) {
    char arr[96];
    std::snprintf(arr, sizeof(arr), "%04d-%02d-%02d %02d:%02d:%02d wd%d %+ld%s", lt.nYear,
                  lt.nMonth, lt.nDay, lt.nHour, lt.nMinute, lt.nSecond, lt.nWeekday, lt.nUtcOffset,
                  lt.bDst ? " dst" : "");
    return arr;
}

inline std::string localText(const TimeZone& zone, std::time_t t) {
    LocalTime lt{};
    zone.toLocal(t, lt);
    return localText(lt);
}

inline std::wstring plainText(const TimeZone& zone, std::time_t t) {
    wchar_t arr[64];
    const std::size_t n = DateUtils::crtToWCharBuf(t, zone, arr, 64);
    return std::wstring(arr, n);
}

inline std::wstring isoText(const TimeZone& zone, std::time_t t) {
    wchar_t arr[64];
    const std::size_t n = DateUtils::crtToISO8601WCharBuf(t, zone, arr, 64);
    return std::wstring(arr, n);
}

inline TimeZone zoneNamed(const wchar_t* pszName) {
    TimeZone zone = TimeZone::utc();
    EXPECT_TRUE(TimeZoneRegistry::getInstance().findTimeZone(String(pszName), zone)) << pszName;
    return zone;
}

inline TimeZone posixZone(const wchar_t* pszRule) {
    TimeZone zone = TimeZone::utc();
    EXPECT_TRUE(TimeZone::fromPosixString(String(pszRule), zone)) << pszRule;
    return zone;
}

inline String shortName(const TimeZone& zone, bool bDst, const wchar_t* pszLanguage = L"en") {
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

inline void appendBigEndian(std::string& out, std::uint64_t n, unsigned nBytes) {
    for (unsigned i = nBytes; i-- > 0;) {
        out.push_back(static_cast<char>((n >> (8 * i)) & 0xFF));
    }
}

inline void appendHeader(std::string& out, char cVersion, std::uint32_t nIsUt, std::uint32_t nIsStd,
                         std::uint32_t nLeap, std::uint32_t nTime, std::uint32_t nType,
                         std::uint32_t nChar) {
    out += "TZif";
    out.push_back(cVersion);
    out.append(15, '\0');
    for (std::uint32_t n : {nIsUt, nIsStd, nLeap, nTime, nType, nChar}) {
        appendBigEndian(out, n, 4);
    }
}

inline void appendBlock(std::string& out, const TZifContent& content, unsigned nTimeSize) {
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

inline std::string buildTZif(const TZifContent& content) {
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
inline TZifContent sampleContent() {
    TZifContent content;
    content.vecTimes = {kBerlinSpringForward2026, kBerlinFallBack2026};
    content.vecTimeTypes = {1, 0};
    content.vecTypes = {{3600, false, 0}, {7200, true, 4}};
    content.strChars = std::string("AAA\0BBB\0", 8);
    content.strFooter = "AAA-1BBB,M3.5.0,M10.5.0/3";
    return content;
}

inline std::string readBytes(const std::string& path) {
    return test::readFile(path);
}

class ZoneTestFixture : public ::testing::Test {
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

}  // namespace kiv::zonetest

// TZif files: versions 1 to 4, files without transitions or without a footer, and input that
// is malformed, truncated or oversized on purpose, read from bytes and through the registry.
#include "zq/webutil/tzifreader.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <deque>
#include <filesystem>
#include <limits>
#include <string>
#include <utility>

#include "support/temp_dir.h"
#include "zq/webkeel/transcode.h"
#include "zq/zone_test_support.h"

namespace kiv {
namespace {

using namespace zonetest;

class TZifReaderTest : public ZoneTestFixture {};

TEST_F(TZifReaderTest, ShortNamesOfAFileWithoutFooterComeFromTheLatestTypes) {
    TZifContent content = sampleContent();
    content.cVersion = '\0';
    TimeZone zone = TimeZone::utc();
    ASSERT_TRUE(TimeZone::fromTZifBytes(buildTZif(content), String(L"Sample"), zone));
    EXPECT_EQ(shortName(zone, false), L"AAA");
    EXPECT_EQ(shortName(zone, true), L"BBB");
    // Without a rule, the last transition's type holds for ever.
    EXPECT_EQ(zone.getUtcOffset(kMidJuly2100), 3600);
}

TEST_F(TZifReaderTest, MalformedFilesAreNotFound) {
    test::TempDir dir;
    const std::string valid = buildTZif(sampleContent());
    // A deque, not a vector: GCC 12 at -O3 inlines the vector's growth path here and then
    // warns (-Warray-bounds) about a zero-sized array on a path that is never taken.
    std::deque<std::pair<std::string, std::string>> vecFiles;
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

TEST_F(TZifReaderTest, EveryTruncationOfARealFileIsRejected) {
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

TEST_F(TZifReaderTest, VersionOneFileUsesThe32BitData) {
    TZifContent content = sampleContent();
    content.cVersion = '\0';
    TimeZone zone = TimeZone::utc();
    ASSERT_TRUE(TimeZone::fromTZifBytes(buildTZif(content), String(L"v1"), zone));
    EXPECT_EQ(localText(zone, kBerlinSpringForward2026 - 1), "2026-03-29 01:59:59 wd0 +3600");
    EXPECT_EQ(localText(zone, kBerlinSpringForward2026), "2026-03-29 03:00:00 wd0 +7200 dst");
    EXPECT_EQ(localText(zone, kBerlinFallBack2026), "2026-10-25 02:00:00 wd0 +3600");
}

TEST_F(TZifReaderTest, TypeZeroRulesBeforeTheFirstTransition) {
    TZifContent content = sampleContent();
    content.cVersion = '3';
    TimeZone zone = TimeZone::utc();
    ASSERT_TRUE(TimeZone::fromTZifBytes(buildTZif(content), String(L"v3"), zone));
    EXPECT_EQ(zone.getUtcOffset(0), 3600);
    EXPECT_FALSE(zone.isDst(0));
    // Past the last transition the footer takes over.
    EXPECT_TRUE(zone.isDst(kMidJuly2100));
}

TEST_F(TZifReaderTest, FileWithoutTransitionsFollowsItsFooter) {
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

// --- The reader on its own --------------------------------------------------------------------

constexpr zoneinternal::TZifLimits kLimits = {TimeZone::kMaxTZifBytes, TimeZone::kMaxTransitions,
                                              TimeZone::kMaxLeapSeconds,
                                              TimeZone::kMaxAbbreviationBytes};

TEST_F(TZifReaderTest, ReaderKeepsWhatTheFileSays) {
    zoneinternal::TZifZone tzif;
    ASSERT_TRUE(zoneinternal::readTZif(buildTZif(sampleContent()), kLimits, tzif));
    EXPECT_EQ(tzif.vecTransitionTimes,
              (std::vector<std::int64_t>{kBerlinSpringForward2026, kBerlinFallBack2026}));
    EXPECT_EQ(tzif.vecTransitionTypes, (std::vector<std::uint8_t>{1, 0}));
    ASSERT_EQ(tzif.vecTypes.size(), 2u);
    EXPECT_EQ(tzif.vecTypes[0].nUtcOffset, 3600);
    EXPECT_FALSE(tzif.vecTypes[0].bDst);
    EXPECT_EQ(tzif.vecTypes[1].nUtcOffset, 7200);
    EXPECT_TRUE(tzif.vecTypes[1].bDst);
    ASSERT_EQ(tzif.vecTypeAbbreviations.size(), 2u);
    EXPECT_EQ(tzif.vecTypeAbbreviations[0], L"AAA");
    EXPECT_EQ(tzif.vecTypeAbbreviations[1], L"BBB");
    EXPECT_TRUE(tzif.bHasRule);
    EXPECT_EQ(tzif.rule.strDstName, "BBB");

    TZifContent content = sampleContent();
    content.cVersion = '\0';
    zoneinternal::TZifZone v1;
    ASSERT_TRUE(zoneinternal::readTZif(buildTZif(content), kLimits, v1));
    EXPECT_FALSE(v1.bHasRule);
    EXPECT_EQ(v1.vecTransitionTimes.size(), 2u);
}

TEST_F(TZifReaderTest, LimitsComeFromTheCaller) {
    const std::string bytes = buildTZif(sampleContent());
    zoneinternal::TZifZone tzif;
    zoneinternal::TZifLimits limits = kLimits;
    limits.nMaxBytes = bytes.size() - 1;
    EXPECT_FALSE(zoneinternal::readTZif(bytes, limits, tzif));
    limits = kLimits;
    limits.nMaxTransitions = 1;
    EXPECT_FALSE(zoneinternal::readTZif(bytes, limits, tzif));
    limits = kLimits;
    limits.nMaxAbbreviationBytes = 7;
    EXPECT_FALSE(zoneinternal::readTZif(bytes, limits, tzif));
    limits.nMaxAbbreviationBytes = 8;
    limits.nMaxTransitions = 2;
    limits.nMaxBytes = bytes.size();
    limits.nMaxLeapSeconds = 0;
    EXPECT_TRUE(zoneinternal::readTZif(bytes, limits, tzif));
}

}  // namespace
}  // namespace kiv

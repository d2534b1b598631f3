// POSIX TZ rules: the grammar, the three kinds of dates, times of day past midnight or before
// it, rules that span the new year, and agreement with the transitions of the database.
#include "zq/webutil/posixtzrule.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <string>

#include "zq/zone_test_support.h"

namespace kiv {
namespace {

using namespace zonetest;

class PosixTzRuleTest : public ZoneTestFixture {};

TEST_F(PosixTzRuleTest, TransitionsAndFooterRuleAgreeEveryHour) {
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

TEST_F(PosixTzRuleTest, PosixMonthWeekDayRuleMatchesTheDatabase) {
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

TEST_F(PosixTzRuleTest, PosixJulianDayNeverCountsTheLeapDay) {
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

TEST_F(PosixTzRuleTest, PosixZeroBasedDayCountsTheLeapDay) {
    // Day 59 is 29 February in a leap year, 1 March otherwise.
    const TimeZone zone = posixZone(L"AAA0BBB-1,59/0,299/0");
    constexpr std::time_t k20240229 = 1709164800;
    EXPECT_FALSE(zone.isDst(k20240229 - 1));
    EXPECT_TRUE(zone.isDst(k20240229));
    constexpr std::time_t k20250301 = 1740787200;
    EXPECT_FALSE(zone.isDst(k20250301 - 1));
    EXPECT_TRUE(zone.isDst(k20250301));
}

TEST_F(PosixTzRuleTest, PosixNegativeAndLongTransitionTimes) {
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

TEST_F(PosixTzRuleTest, PosixDstAllYear) {
    // RFC 8536's example: DST starts on 1 January at 00:00 and ends after 31 December 24:00
    // plus the DST shift, so it never ends.
    const TimeZone zone = posixZone(L"EST5EDT,0/0,J365/25");
    for (std::time_t t : {kMidJanuary2026, kMidJuly2026, std::time_t{1767243600},
                          std::time_t{1767243600 - 1}, std::time_t{1798779600 - 1}}) {
        EXPECT_TRUE(zone.isDst(t)) << t;
        EXPECT_EQ(zone.getUtcOffset(t), -14400) << t;
    }
}

TEST_F(PosixTzRuleTest, PosixSouthernHemisphereRule) {
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

TEST_F(PosixTzRuleTest, PosixAngleBracketNamesAndOffsets) {
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

TEST_F(PosixTzRuleTest, MalformedPosixStringsAreRejected) {
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

// --- The parser and the evaluation on their own ----------------------------------------------

TEST_F(PosixTzRuleTest, ParsedRuleHoldsEveryPart) {
    zoneinternal::PosixRule rule;
    ASSERT_TRUE(zoneinternal::parsePosixRule("CET-1CEST,M3.5.0,M10.5.0/3", rule));
    EXPECT_EQ(rule.strStdName, "CET");
    EXPECT_EQ(rule.strDstName, "CEST");
    EXPECT_EQ(rule.nStdOffset, 3600);
    EXPECT_EQ(rule.nDstOffset, 7200);
    EXPECT_TRUE(rule.bHasDst);
    EXPECT_EQ(rule.start.nKind, zoneinternal::RuleDate::kMonthWeekDay);
    EXPECT_EQ(rule.start.nMonth, 3);
    EXPECT_EQ(rule.start.nWeek, 5);
    EXPECT_EQ(rule.start.nDay, 0);
    EXPECT_EQ(rule.start.nTime, 7200);
    EXPECT_EQ(rule.end.nMonth, 10);
    EXPECT_EQ(rule.end.nTime, 10800);

    zoneinternal::PosixRule julian;
    ASSERT_TRUE(zoneinternal::parsePosixRule("AAA0BBB-1,J60/0,300/-1:30", julian));
    EXPECT_EQ(julian.start.nKind, zoneinternal::RuleDate::kJulianNoLeap);
    EXPECT_EQ(julian.start.nDay, 60);
    EXPECT_EQ(julian.start.nTime, 0);
    EXPECT_EQ(julian.end.nKind, zoneinternal::RuleDate::kZeroBasedDay);
    EXPECT_EQ(julian.end.nDay, 300);
    EXPECT_EQ(julian.end.nTime, -5400);
}

TEST_F(PosixTzRuleTest, TextPastTheLengthLimitIsRefusedUnread) {
    zoneinternal::PosixRule rule;
    const std::string longest = "<" + std::string(62, 'A') + ">0";
    EXPECT_FALSE(zoneinternal::parsePosixRule(
        std::string(zoneinternal::kMaxPosixStringLength + 1, 'A'), rule));
    EXPECT_TRUE(rule.strStdName.empty());
    EXPECT_TRUE(zoneinternal::parsePosixRule(longest, rule));
    EXPECT_EQ(rule.strStdName.size(), 62u);
}

TEST_F(PosixTzRuleTest, ResolvedOffsetsAroundTheChanges) {
    zoneinternal::PosixRule rule;
    ASSERT_TRUE(zoneinternal::parsePosixRule("CET-1CEST,M3.5.0,M10.5.0/3", rule));
    const zoneinternal::ResolvedOffset before =
        zoneinternal::resolveRule(rule, kBerlinSpringForward2026 - 1);
    EXPECT_EQ(before.nOffset, 3600);
    EXPECT_FALSE(before.bDst);
    const zoneinternal::ResolvedOffset after =
        zoneinternal::resolveRule(rule, kBerlinSpringForward2026);
    EXPECT_EQ(after.nOffset, 7200);
    EXPECT_TRUE(after.bDst);
    EXPECT_FALSE(zoneinternal::resolveRule(rule, kBerlinFallBack2026).bDst);
    EXPECT_TRUE(zoneinternal::resolveRule(rule, kBerlinFallBack2026 - 1).bDst);

    zoneinternal::PosixRule fixed;
    ASSERT_TRUE(zoneinternal::parsePosixRule("<+0530>-5:30", fixed));
    EXPECT_FALSE(fixed.bHasDst);
    EXPECT_EQ(zoneinternal::resolveRule(fixed, kMidJuly2026).nOffset, 19800);
}

}  // namespace
}  // namespace kiv

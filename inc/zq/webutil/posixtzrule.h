// POSIX TZ rules: "std offset [dst [offset] [,start[/time],end[/time]]]", as the TZ variable
// and the footer of a TZif file write them, and the offset such a rule puts in force.
//
// Internal to the zone code: a TimeZone built from a TZ string holds one rule, and a TZif
// zone holds its footer's rule for the instants past its last transition. Nothing outside
// inc/zq/webutil/ includes this header; the public face of it is TimeZone::fromPosixString.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "zq/webutil/civildate.h"

namespace kiv::zoneinternal {

// A TZ string longer than this is refused unread.
constexpr std::size_t kMaxPosixStringLength = 256;

struct RuleDate {
    enum Kind { kJulianNoLeap, kZeroBasedDay, kMonthWeekDay };
    Kind nKind = kMonthWeekDay;
    int nDay = 0;                              // Jn: 1..365; n: 0..365; Mm.w.d: the weekday d
    int nMonth = 0;                            // Mm.w.d only
    int nWeek = 0;                             // Mm.w.d only; 5 means the last
    std::int32_t nTime = 2 * kSecondsPerHour;  // local time of day, may be negative or past 24 h
};

struct PosixRule {
    std::string strStdName;
    std::string strDstName;
    std::int32_t nStdOffset = 0;  // seconds east of UTC
    std::int32_t nDstOffset = 0;
    bool bHasDst = false;
    RuleDate start;
    RuleDate end;
};

// The offset in force at an instant and whether it is daylight time.
struct ResolvedOffset {
    std::int32_t nOffset;
    bool bDst;
};

// On success overwrites rule; on failure rule holds whatever was parsed so far. Empty text,
// text longer than kMaxPosixStringLength and anything not a complete rule give false.
bool parsePosixRule(std::string_view text, PosixRule& rule);

// The offset rule puts in force at t (seconds since the epoch). t must lie within a few
// hundred million years of the epoch, which the zone's clamping guarantees.
ResolvedOffset resolveRule(const PosixRule& rule, std::int64_t t) noexcept;

}  // namespace kiv::zoneinternal

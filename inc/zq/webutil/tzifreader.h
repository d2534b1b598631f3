// Reads TZif files (RFC 8536, versions 1 to 4), the format of the zoneinfo database.
//
// Internal to the zone code: TimeZone::fromTZifBytes and the registry hand bytes to readTZif
// and build a zone from what it returns. Nothing outside inc/zq/webutil/ includes this
// header. The reader trusts nothing in the bytes: every count is checked against the limits
// the caller gives and against what is left, before anything is allocated for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "zq/webkeel/string.h"
#include "zq/webutil/posixtzrule.h"

namespace kiv::zoneinternal {

// Input past any of these is refused. The zone publishes the values it uses (TimeZone::kMax...).
struct TZifLimits {
    std::size_t nMaxBytes;
    std::size_t nMaxTransitions;
    std::size_t nMaxLeapSeconds;
    std::size_t nMaxAbbreviationBytes;
};

struct LocalTimeType {
    std::int32_t nUtcOffset;  // seconds east of UTC
    bool bDst;
};

// What a TZif file says, checked for consistency: times ascending, every type index and
// abbreviation index in range, offsets within a day and a bit.
struct TZifZone {
    std::vector<std::int64_t> vecTransitionTimes;
    std::vector<std::uint8_t> vecTransitionTypes;  // one per transition, an index into vecTypes
    std::vector<LocalTimeType> vecTypes;           // never empty once read
    std::vector<String> vecTypeAbbreviations;      // one per type
    bool bHasRule = false;                         // the footer held a rule
    PosixRule rule;
};

// Version 1 files give their 32-bit data; later versions the 64-bit data and the footer.
// Leap-second records are checked but not kept: instants are POSIX times. On failure zone
// holds whatever was read so far.
bool readTZif(std::string_view bytes, const TZifLimits& limits, TZifZone& zone);

}  // namespace kiv::zoneinternal

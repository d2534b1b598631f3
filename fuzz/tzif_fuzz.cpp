// Fuzzes the TZif reader with arbitrary bytes. Rejected input must simply be refused; accepted
// input must give a zone whose conversions stay in range for instants near and far (including
// the clamped extremes) and whose texts fit the buffers they are written into.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string_view>

#include "zq/webutil/timezone.h"

namespace {

[[noreturn]] void fail(const char* pszWhat, std::time_t t) {
    std::fprintf(stderr, "%s at %lld\n", pszWhat, static_cast<long long>(t));
    std::abort();
}

void check(const kiv::TimeZone& zone, std::time_t t) {
    kiv::LocalTime lt{};
    zone.toLocal(t, lt);
    if (lt.nMonth < 1 || lt.nMonth > 12 || lt.nDay < 1 || lt.nDay > 31 || lt.nHour < 0 ||
        lt.nHour > 23 || lt.nMinute < 0 || lt.nMinute > 59 || lt.nSecond < 0 || lt.nSecond > 59 ||
        lt.nWeekday < 0 || lt.nWeekday > 6) {
        fail("a field of the local time is out of range", t);
    }
    if (lt.nUtcOffset != zone.getUtcOffset(t) || lt.bDst != zone.isDst(t)) {
        fail("toLocal disagrees with getUtcOffset or isDst", t);
    }
    wchar_t arrText[64];
    const std::size_t nPlain = kiv::DateUtils::crtToWCharBuf(t, zone, arrText, 64);
    if (nPlain < 19 || arrText[nPlain] != L'\0') {
        fail("the plain text is malformed", t);
    }
    const std::size_t nIso = kiv::DateUtils::crtToISO8601WCharBuf(t, zone, arrText, 64);
    if (nIso < 25 || arrText[nIso] != L'\0') {
        fail("the ISO text is malformed", t);
    }
    // One character short of the text and its terminator: nothing but an empty text.
    if (kiv::DateUtils::crtToISO8601WCharBuf(t, zone, arrText, nIso) != 0 || arrText[0] != 0) {
        fail("a short buffer was not refused", t);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kiv::TimeZone zone = kiv::TimeZone::utc();
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    if (!kiv::TimeZone::fromTZifBytes(bytes, kiv::String(L"fuzz"), zone)) {
        return 0;
    }
    for (std::time_t t :
         {std::time_t{0}, std::time_t{1} << 31, -(std::time_t{1} << 31), std::time_t{4000000000},
          std::time_t{-4000000000}, std::time_t{253402300799},
          std::numeric_limits<std::time_t>::max(), std::numeric_limits<std::time_t>::min()}) {
        check(zone, t);
    }
    const kiv::GDVariant standard = zone.getShortName(kiv::String(L"en"), false);
    const kiv::GDVariant daylight = zone.getShortName(kiv::String(L"de"), true);
    if (standard.empty() || !standard->isString() || daylight.empty() || !daylight->isString()) {
        std::abort();
    }
    return 0;
}

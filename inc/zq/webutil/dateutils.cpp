// Writes date texts digit by digit into a stack buffer of the longest possible text and
// copies them out only when they fit, so a short buffer never holds half a date.
#include "zq/webutil/dateutils.h"

#include <cstdint>
#include <cwchar>

namespace kiv {

namespace {

// Longest text: a ten-digit year with its sign, the rest fixed, and an offset with seconds.
constexpr std::size_t kMaxDateText = 48;

wchar_t* putNumber(wchar_t* p, std::uint64_t n, int nMinDigits) noexcept {
    wchar_t arrDigits[24];
    int nCount = 0;
    do {
        arrDigits[nCount++] = static_cast<wchar_t>(L'0' + n % 10);
        n /= 10;
    } while (n != 0);
    while (nCount < nMinDigits) {
        arrDigits[nCount++] = L'0';
    }
    while (nCount > 0) {
        *p++ = arrDigits[--nCount];
    }
    return p;
}

std::size_t formatLocalTime(const LocalTime& lt, bool bIso, wchar_t* pOut) noexcept {
    wchar_t* p = pOut;
    if (lt.nYear < 0) {
        *p++ = L'-';
    } else if (bIso && lt.nYear > 9999) {
        *p++ = L'+';  // ISO 8601's expanded year
    }
    p = putNumber(p, static_cast<std::uint64_t>(lt.nYear < 0 ? -std::int64_t{lt.nYear} : lt.nYear),
                  4);
    *p++ = L'-';
    p = putNumber(p, static_cast<std::uint64_t>(lt.nMonth), 2);
    *p++ = L'-';
    p = putNumber(p, static_cast<std::uint64_t>(lt.nDay), 2);
    *p++ = bIso ? L'T' : L' ';
    p = putNumber(p, static_cast<std::uint64_t>(lt.nHour), 2);
    *p++ = L':';
    p = putNumber(p, static_cast<std::uint64_t>(lt.nMinute), 2);
    *p++ = L':';
    p = putNumber(p, static_cast<std::uint64_t>(lt.nSecond), 2);
    if (bIso) {
        *p++ = lt.nUtcOffset < 0 ? L'-' : L'+';
        const long nAbs = lt.nUtcOffset < 0 ? -lt.nUtcOffset : lt.nUtcOffset;
        p = putNumber(p, static_cast<std::uint64_t>(nAbs / 3600), 2);
        *p++ = L':';
        p = putNumber(p, static_cast<std::uint64_t>(nAbs / 60 % 60), 2);
        if (nAbs % 60 != 0) {
            *p++ = L':';
            p = putNumber(p, static_cast<std::uint64_t>(nAbs % 60), 2);
        }
    }
    return static_cast<std::size_t>(p - pOut);
}

std::size_t formatInto(std::time_t t, const TimeZone& zone, bool bIso, wchar_t* pBuffer,
                       std::size_t nCapacity) noexcept {
    if (pBuffer == nullptr || nCapacity == 0) {
        return 0;
    }
    LocalTime lt;
    zone.toLocal(t, lt);
    wchar_t arrText[kMaxDateText];
    const std::size_t nLength = formatLocalTime(lt, bIso, arrText);
    if (nLength + 1 > nCapacity) {
        pBuffer[0] = L'\0';
        return 0;
    }
    std::wmemcpy(pBuffer, arrText, nLength);
    pBuffer[nLength] = L'\0';
    return nLength;
}

}  // namespace

std::size_t DateUtils::crtToWCharBuf(std::time_t t, const TimeZone& zone, wchar_t* pBuffer,
                                     std::size_t nCapacity) noexcept {
    return formatInto(t, zone, false, pBuffer, nCapacity);
}

std::size_t DateUtils::crtToISO8601WCharBuf(std::time_t t, const TimeZone& zone, wchar_t* pBuffer,
                                            std::size_t nCapacity) noexcept {
    return formatInto(t, zone, true, pBuffer, nCapacity);
}

}  // namespace kiv

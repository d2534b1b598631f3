#include "zq/webutil/timezone.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "zq/webkeel/clock.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

constexpr std::int64_t kSecondsPerDay = 86400;
constexpr std::int64_t kSecondsPerHour = 3600;
// Far enough for any real use, near enough that the year fits an int and no sum overflows.
constexpr std::int64_t kMaxAbsTime = std::int64_t{1} << 55;
// 25:59:59: beyond any offset ever in use, and what POSIX allows for a TZ string (24:59:59)
// plus the hour a DST offset may add.
constexpr std::int32_t kMaxAbsUtcOffset = 93599;
// RFC 8536 lets a rule's transition time run from -167 to 167 hours.
constexpr int kMaxRuleTimeHours = 167;
constexpr int kMaxPosixOffsetHours = 24;
constexpr std::size_t kMaxZoneNameLength = 64;
constexpr std::size_t kMaxPosixStringLength = 256;
constexpr std::size_t kMaxZonePathName = 255;
constexpr const char* kDefaultZoneInfoDirectory = "/usr/share/zoneinfo";
constexpr const char* kLocaltimePath = "/etc/localtime";

// ---------------------------------------------------------------------------------------------
// Civil dates. Days are counted in a calendar whose years start on 1 March, so that the leap
// day is the last day of its year and every month but the last has a fixed place; the Gregorian
// calendar repeats every 400 years (146097 days), which turns the conversion into a handful of
// divisions.

constexpr std::int64_t kDaysPer400Years = 146097;
constexpr std::int64_t kDaysPer100Years = 36524;
constexpr std::int64_t kDaysPer4Years = 1461;
// Days from 0000-03-01 to 1970-01-01.
constexpr std::int64_t kDaysFromMarchZeroToEpoch = 719468;
// First day of each month in the March-based year: March, April, ..., January, February.
constexpr int kMonthStartInMarchYear[12] = {0, 31, 61, 92, 122, 153, 184, 214, 245, 275, 306, 337};

std::int64_t floorDiv(std::int64_t a, std::int64_t b) noexcept {
    std::int64_t q = a / b;
    if ((a % b != 0) && ((a < 0) != (b < 0))) {
        --q;
    }
    return q;
}

struct CivilDate {
    std::int64_t nYear;
    int nMonth;
    int nDay;
};

CivilDate civilFromDays(std::int64_t nDaysSinceEpoch) noexcept {
    const std::int64_t nDays = nDaysSinceEpoch + kDaysFromMarchZeroToEpoch;
    const std::int64_t nCycle = floorDiv(nDays, kDaysPer400Years);
    std::int64_t nRest = nDays - nCycle * kDaysPer400Years;  // 0..146096
    // The last century and the last year of a group are one day longer; capping the quotient
    // keeps that day in them.
    const std::int64_t nCentury = std::min<std::int64_t>(nRest / kDaysPer100Years, 3);
    nRest -= nCentury * kDaysPer100Years;
    const std::int64_t nQuad = nRest / kDaysPer4Years;
    nRest -= nQuad * kDaysPer4Years;
    const std::int64_t nYearOfQuad = std::min<std::int64_t>(nRest / 365, 3);
    const int nDayOfYear = static_cast<int>(nRest - nYearOfQuad * 365);  // 0..365
    int nMonthIndex = 11;
    while (kMonthStartInMarchYear[nMonthIndex] > nDayOfYear) {
        --nMonthIndex;
    }
    CivilDate date;
    date.nYear = nCycle * 400 + nCentury * 100 + nQuad * 4 + nYearOfQuad;
    date.nDay = nDayOfYear - kMonthStartInMarchYear[nMonthIndex] + 1;
    // Index 10 and 11 are January and February of the following calendar year.
    date.nMonth = nMonthIndex < 10 ? nMonthIndex + 3 : nMonthIndex - 9;
    if (nMonthIndex >= 10) {
        ++date.nYear;
    }
    return date;
}

std::int64_t daysFromCivil(std::int64_t nYear, int nMonth, int nDay) noexcept {
    const std::int64_t nMarchYear = nMonth <= 2 ? nYear - 1 : nYear;
    const int nMonthIndex = nMonth <= 2 ? nMonth + 9 : nMonth - 3;
    const std::int64_t nCycle = floorDiv(nMarchYear, 400);
    const std::int64_t nYearOfCycle = nMarchYear - nCycle * 400;
    const std::int64_t nDayOfCycle = nYearOfCycle * 365 + nYearOfCycle / 4 - nYearOfCycle / 100 +
                                     kMonthStartInMarchYear[nMonthIndex] + nDay - 1;
    return nCycle * kDaysPer400Years + nDayOfCycle - kDaysFromMarchZeroToEpoch;
}

bool isLeapYear(std::int64_t nYear) noexcept {
    return nYear % 4 == 0 && (nYear % 100 != 0 || nYear % 400 == 0);
}

int daysInMonth(std::int64_t nYear, int nMonth) noexcept {
    static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return nMonth == 2 && isLeapYear(nYear) ? 29 : kDays[nMonth - 1];
}

// 0 = Sunday; 1970-01-01 was a Thursday.
int weekdayFromDays(std::int64_t nDaysSinceEpoch) noexcept {
    const std::int64_t nShifted = nDaysSinceEpoch + 4;
    return static_cast<int>(nShifted - floorDiv(nShifted, 7) * 7);
}

// ---------------------------------------------------------------------------------------------
// POSIX TZ rules: "std offset [dst [offset] [,start[/time],end[/time]]]".

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

bool isAsciiDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}
bool isAsciiAlpha(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

class PosixTzParser {
public:
    explicit PosixTzParser(std::string_view text) noexcept : m_text(text) {}

    bool parse(PosixRule& rule) {
        std::int32_t nOffset = 0;
        if (!parseName(rule.strStdName) || !parseSignedHms(kMaxPosixOffsetHours, nOffset)) {
            return false;
        }
        // POSIX offsets count west of UTC; everything else here counts east.
        rule.nStdOffset = -nOffset;
        if (atEnd()) {
            return true;
        }
        if (!parseName(rule.strDstName)) {
            return false;
        }
        rule.bHasDst = true;
        rule.nDstOffset = rule.nStdOffset + static_cast<std::int32_t>(kSecondsPerHour);
        if (!atEnd() && peek() != ',') {
            if (!parseSignedHms(kMaxPosixOffsetHours, nOffset)) {
                return false;
            }
            rule.nDstOffset = -nOffset;
        }
        if (atEnd()) {
            // What the C libraries assume for a DST name without dates: the US rule.
            rule.start.nMonth = 3;
            rule.start.nWeek = 2;
            rule.end.nMonth = 11;
            rule.end.nWeek = 1;
            return true;
        }
        if (!consume(',') || !parseDate(rule.start) || !consume(',') || !parseDate(rule.end)) {
            return false;
        }
        return atEnd();
    }

private:
    bool atEnd() const noexcept { return m_nPos >= m_text.size(); }
    char peek() const noexcept { return atEnd() ? '\0' : m_text[m_nPos]; }
    bool consume(char c) noexcept {
        if (peek() != c) {
            return false;
        }
        ++m_nPos;
        return true;
    }

    bool parseName(std::string& out) {
        out.clear();
        if (consume('<')) {
            while (!atEnd() && peek() != '>') {
                const char c = peek();
                if (!isAsciiAlpha(c) && !isAsciiDigit(c) && c != '+' && c != '-') {
                    return false;
                }
                out.push_back(c);
                ++m_nPos;
            }
            if (!consume('>')) {
                return false;
            }
        } else {
            while (isAsciiAlpha(peek())) {
                out.push_back(peek());
                ++m_nPos;
            }
        }
        return out.size() >= 3 && out.size() <= kMaxZoneNameLength;
    }

    bool parseNumber(int nMaxDigits, int nMax, int& n) noexcept {
        int nDigits = 0;
        n = 0;
        while (isAsciiDigit(peek()) && nDigits < nMaxDigits) {
            n = n * 10 + (peek() - '0');
            ++m_nPos;
            ++nDigits;
        }
        return nDigits > 0 && n <= nMax && !isAsciiDigit(peek());
    }

    // hh[:mm[:ss]] with an optional sign.
    bool parseSignedHms(int nMaxHours, std::int32_t& nSeconds) noexcept {
        bool bNegative = false;
        if (peek() == '+' || peek() == '-') {
            bNegative = peek() == '-';
            ++m_nPos;
        }
        int nHours = 0;
        int nMinutes = 0;
        int nSecs = 0;
        if (!parseNumber(nMaxHours >= 100 ? 3 : 2, nMaxHours, nHours)) {
            return false;
        }
        if (consume(':')) {
            if (!parseNumber(2, 59, nMinutes)) {
                return false;
            }
            if (consume(':') && !parseNumber(2, 59, nSecs)) {
                return false;
            }
        }
        const std::int32_t nValue = nHours * 3600 + nMinutes * 60 + nSecs;
        nSeconds = bNegative ? -nValue : nValue;
        return true;
    }

    bool parseDate(RuleDate& date) noexcept {
        if (consume('J')) {
            date.nKind = RuleDate::kJulianNoLeap;
            if (!parseNumber(3, 365, date.nDay) || date.nDay < 1) {
                return false;
            }
        } else if (consume('M')) {
            date.nKind = RuleDate::kMonthWeekDay;
            if (!parseNumber(2, 12, date.nMonth) || date.nMonth < 1 || !consume('.') ||
                !parseNumber(1, 5, date.nWeek) || date.nWeek < 1 || !consume('.') ||
                !parseNumber(1, 6, date.nDay)) {
                return false;
            }
        } else if (isAsciiDigit(peek())) {
            date.nKind = RuleDate::kZeroBasedDay;
            if (!parseNumber(3, 365, date.nDay)) {
                return false;
            }
        } else {
            return false;
        }
        date.nTime = 2 * kSecondsPerHour;
        if (consume('/')) {
            return parseSignedHms(kMaxRuleTimeHours, date.nTime);
        }
        return true;
    }

    std::string_view m_text;
    std::size_t m_nPos = 0;
};

// The day (since the epoch) on which date falls in nYear.
std::int64_t ruleDay(const RuleDate& date, std::int64_t nYear) noexcept {
    switch (date.nKind) {
        case RuleDate::kJulianNoLeap: {
            int nDayOfYear = date.nDay - 1;
            if (date.nDay >= 60 && isLeapYear(nYear)) {
                ++nDayOfYear;  // Jn never counts 29 February
            }
            return daysFromCivil(nYear, 1, 1) + nDayOfYear;
        }
        case RuleDate::kZeroBasedDay:
            return daysFromCivil(nYear, 1, 1) + date.nDay;
        case RuleDate::kMonthWeekDay:
        default: {
            const std::int64_t nFirst = daysFromCivil(nYear, date.nMonth, 1);
            std::int64_t nDay =
                nFirst + (date.nDay - weekdayFromDays(nFirst) + 7) % 7 + (date.nWeek - 1) * 7;
            if (nDay >= nFirst + daysInMonth(nYear, date.nMonth)) {
                nDay -= 7;  // week 5 means the last such weekday, which may be the fourth
            }
            return nDay;
        }
    }
}

struct Resolved {
    std::int32_t nOffset;
    bool bDst;
};

// The rule's transition times are local times on the clock in force just before them, so a
// year's changes are placed with the offset they leave. Times of day may run past midnight or
// before it, and in the southern hemisphere DST spans the new year, so the changes of the
// neighbouring years are considered too and the latest one at or before t decides; on a tie the
// later one in rule order wins, which keeps DST all year when it ends exactly as it restarts.
Resolved resolveRule(const PosixRule& rule, std::int64_t t) noexcept {
    if (!rule.bHasDst) {
        return {rule.nStdOffset, false};
    }
    const std::int64_t nYear = civilFromDays(floorDiv(t + rule.nStdOffset, kSecondsPerDay)).nYear;
    bool bFound = false;
    bool bDst = false;
    std::int64_t nBest = 0;
    for (std::int64_t nY = nYear - 1; nY <= nYear + 1; ++nY) {
        const std::int64_t nStart =
            ruleDay(rule.start, nY) * kSecondsPerDay + rule.start.nTime - rule.nStdOffset;
        const std::int64_t nEnd =
            ruleDay(rule.end, nY) * kSecondsPerDay + rule.end.nTime - rule.nDstOffset;
        if (nStart <= t && (!bFound || nStart >= nBest)) {
            bFound = true;
            nBest = nStart;
            bDst = true;
        }
        if (nEnd <= t && (!bFound || nEnd >= nBest)) {
            bFound = true;
            nBest = nEnd;
            bDst = false;
        }
    }
    return bDst ? Resolved{rule.nDstOffset, true} : Resolved{rule.nStdOffset, false};
}

bool parsePosixRule(std::string_view text, PosixRule& rule) {
    if (text.empty() || text.size() > kMaxPosixStringLength) {
        return false;
    }
    return PosixTzParser(text).parse(rule);
}

}  // namespace

// ---------------------------------------------------------------------------------------------

class TimeZoneData final : public RefCountedNonVirtualBase {
public:
    struct LocalTimeType {
        std::int32_t nUtcOffset;
        bool bDst;
    };

    Resolved resolve(std::int64_t t) const noexcept {
        const std::size_t nCount = m_vecTransitionTimes.size();
        if (nCount == 0) {
            return m_bHasRule ? resolveRule(m_rule, t) : initialResult();
        }
        // RFC 8536: time type 0 before the first transition, the footer's rule on and after
        // the last one (or, without a rule, the last transition's type).
        if (t < m_vecTransitionTimes.front()) {
            return initialResult();
        }
        if (t >= m_vecTransitionTimes.back()) {
            return m_bHasRule ? resolveRule(m_rule, t) : typeResult(m_vecTransitionTypes.back());
        }
        const auto it =
            std::upper_bound(m_vecTransitionTimes.begin(), m_vecTransitionTimes.end(), t);
        return typeResult(
            m_vecTransitionTypes[static_cast<std::size_t>(it - m_vecTransitionTimes.begin() - 1)]);
    }

    Resolved initialResult() const noexcept {
        return {m_initialType.nUtcOffset, m_initialType.bDst};
    }
    Resolved typeResult(std::size_t nType) const noexcept {
        const LocalTimeType& type = m_vecTypes[nType];
        return {type.nUtcOffset, type.bDst};
    }

    // Abbreviations for getShortName: the rule's names when there is a rule, else those of
    // the latest standard and daylight types the transitions use.
    void chooseAbbreviations(const std::vector<String>& vecTypeAbbreviations) {
        if (m_bHasRule) {
            m_strStdAbbreviation = widen(m_rule.strStdName);
            m_strDstAbbreviation = m_rule.bHasDst ? widen(m_rule.strDstName) : m_strStdAbbreviation;
            return;
        }
        std::size_t nStd = 0;
        bool bStdFound = false;
        std::size_t nDst = 0;
        bool bDstFound = false;
        for (std::size_t i = m_vecTransitionTypes.size(); i-- > 0 && !(bStdFound && bDstFound);) {
            const std::size_t nType = m_vecTransitionTypes[i];
            if (m_vecTypes[nType].bDst) {
                if (!bDstFound) {
                    nDst = nType;
                    bDstFound = true;
                }
            } else if (!bStdFound) {
                nStd = nType;
                bStdFound = true;
            }
        }
        m_strStdAbbreviation = vecTypeAbbreviations[nStd];
        m_strDstAbbreviation = bDstFound ? vecTypeAbbreviations[nDst] : m_strStdAbbreviation;
    }

    String m_strName;
    std::vector<std::int64_t> m_vecTransitionTimes;
    std::vector<std::uint8_t> m_vecTransitionTypes;
    std::vector<LocalTimeType> m_vecTypes;
    // Type 0, kept apart so that a zone without a type table (UTC, a POSIX rule) needs none.
    LocalTimeType m_initialType = {0, false};
    bool m_bHasRule = false;
    PosixRule m_rule;
    String m_strStdAbbreviation;
    String m_strDstAbbreviation;
};

namespace {

Handle<TimeZoneData> makeFixedZone(const String& name, const String& abbreviation) {
    Handle<TimeZoneData> hData(new TimeZoneData());
    hData->m_strName = name;
    hData->m_strStdAbbreviation = abbreviation;
    hData->m_strDstAbbreviation = abbreviation;
    return hData;
}

// The fallback of every zone. It lives in static storage and is built without touching the
// heap (three characters fit the strings' inline buffers), so falling back cannot fail; it is
// never destroyed, because a host may build a zone from a static destructor after this unit's
// statics are gone, and it holds a reference of its own, so no handle ever deletes it.
const TimeZoneData* utcData() noexcept {
    alignas(TimeZoneData) static unsigned char s_arrStorage[sizeof(TimeZoneData)];
    static const TimeZoneData* s_pUtc = [] {
        TimeZoneData* pData = ::new (static_cast<void*>(s_arrStorage)) TimeZoneData();
        pData->m_strName = String(L"UTC");
        pData->m_strStdAbbreviation = pData->m_strName;
        pData->m_strDstAbbreviation = pData->m_strName;
        pData->addRef();
        return pData;
    }();
    return s_pUtc;
}

// ---------------------------------------------------------------------------------------------
// TZif (RFC 8536). Every read goes through ByteReader, which refuses to move past the end.

class ByteReader {
public:
    explicit ByteReader(std::string_view bytes) noexcept : m_bytes(bytes) {}

    std::size_t remaining() const noexcept { return m_bytes.size() - m_nPos; }
    bool skip(std::uint64_t n) noexcept {
        if (n > remaining()) {
            return false;
        }
        m_nPos += static_cast<std::size_t>(n);
        return true;
    }
    bool readBytes(std::size_t n, std::string_view& out) noexcept {
        if (n > remaining()) {
            return false;
        }
        out = m_bytes.substr(m_nPos, n);
        m_nPos += n;
        return true;
    }
    bool readU8(std::uint8_t& n) noexcept {
        if (remaining() < 1) {
            return false;
        }
        n = static_cast<std::uint8_t>(m_bytes[m_nPos++]);
        return true;
    }
    bool readU32(std::uint32_t& n) noexcept {
        std::uint64_t n64 = 0;
        if (!readBigEndian(4, n64)) {
            return false;
        }
        n = static_cast<std::uint32_t>(n64);
        return true;
    }
    // Signed big-endian values of 4 or 8 bytes, two's complement.
    bool readSigned(unsigned nBytes, std::int64_t& n) noexcept {
        std::uint64_t nRaw = 0;
        if (!readBigEndian(nBytes, nRaw)) {
            return false;
        }
        if (nBytes == 4) {
            n = static_cast<std::int32_t>(static_cast<std::uint32_t>(nRaw));
        } else {
            n = static_cast<std::int64_t>(nRaw);
        }
        return true;
    }

private:
    bool readBigEndian(unsigned nBytes, std::uint64_t& n) noexcept {
        if (remaining() < nBytes) {
            return false;
        }
        n = 0;
        for (unsigned i = 0; i < nBytes; ++i) {
            n = (n << 8) | static_cast<unsigned char>(m_bytes[m_nPos++]);
        }
        return true;
    }

    std::string_view m_bytes;
    std::size_t m_nPos = 0;
};

struct TZifHeader {
    std::uint8_t nVersion;  // 1 for the NUL version byte, else the digit's value
    std::uint32_t nIsUtCount;
    std::uint32_t nIsStdCount;
    std::uint32_t nLeapCount;
    std::uint32_t nTimeCount;
    std::uint32_t nTypeCount;
    std::uint32_t nCharCount;
};

bool readHeader(ByteReader& reader, TZifHeader& header) noexcept {
    std::string_view magic;
    std::uint8_t nVersionByte = 0;
    if (!reader.readBytes(4, magic) || magic != "TZif" || !reader.readU8(nVersionByte)) {
        return false;
    }
    if (nVersionByte == 0) {
        header.nVersion = 1;
    } else if (nVersionByte >= '2' && nVersionByte <= '4') {
        header.nVersion = static_cast<std::uint8_t>(nVersionByte - '0');
    } else {
        return false;
    }
    if (!reader.skip(15) || !reader.readU32(header.nIsUtCount) ||
        !reader.readU32(header.nIsStdCount) || !reader.readU32(header.nLeapCount) ||
        !reader.readU32(header.nTimeCount) || !reader.readU32(header.nTypeCount) ||
        !reader.readU32(header.nCharCount)) {
        return false;
    }
    // The type index of a transition is one byte, hence at most 256 types.
    return header.nTypeCount >= 1 && header.nTypeCount <= 256 && header.nCharCount >= 1 &&
           header.nCharCount <= TimeZone::kMaxAbbreviationBytes &&
           header.nTimeCount <= TimeZone::kMaxTransitions &&
           header.nLeapCount <= TimeZone::kMaxLeapSeconds &&
           (header.nIsUtCount == 0 || header.nIsUtCount == header.nTypeCount) &&
           (header.nIsStdCount == 0 || header.nIsStdCount == header.nTypeCount);
}

std::uint64_t dataBlockSize(const TZifHeader& header, unsigned nTimeSize) noexcept {
    return std::uint64_t{header.nTimeCount} * (nTimeSize + 1) +
           std::uint64_t{header.nTypeCount} * 6 + header.nCharCount +
           std::uint64_t{header.nLeapCount} * (nTimeSize + 4) + header.nIsStdCount +
           header.nIsUtCount;
}

bool readDataBlock(ByteReader& reader, const TZifHeader& header, unsigned nTimeSize,
                   TimeZoneData& data, std::vector<String>& vecTypeAbbreviations) {
    if (dataBlockSize(header, nTimeSize) > reader.remaining()) {
        return false;
    }
    data.m_vecTransitionTimes.resize(header.nTimeCount);
    for (std::size_t i = 0; i < header.nTimeCount; ++i) {
        std::int64_t nTime = 0;
        if (!reader.readSigned(nTimeSize, nTime) ||
            (i > 0 && nTime <= data.m_vecTransitionTimes[i - 1])) {
            return false;
        }
        data.m_vecTransitionTimes[i] = nTime;
    }
    data.m_vecTransitionTypes.resize(header.nTimeCount);
    for (std::size_t i = 0; i < header.nTimeCount; ++i) {
        if (!reader.readU8(data.m_vecTransitionTypes[i]) ||
            data.m_vecTransitionTypes[i] >= header.nTypeCount) {
            return false;
        }
    }
    std::vector<std::uint8_t> vecAbbreviationIndex(header.nTypeCount);
    data.m_vecTypes.resize(header.nTypeCount);
    for (std::size_t i = 0; i < header.nTypeCount; ++i) {
        std::int64_t nOffset = 0;
        std::uint8_t nIsDst = 0;
        if (!reader.readSigned(4, nOffset) || !reader.readU8(nIsDst) ||
            !reader.readU8(vecAbbreviationIndex[i])) {
            return false;
        }
        if (nOffset < -kMaxAbsUtcOffset || nOffset > kMaxAbsUtcOffset || nIsDst > 1 ||
            vecAbbreviationIndex[i] >= header.nCharCount) {
            return false;
        }
        data.m_vecTypes[i] = {static_cast<std::int32_t>(nOffset), nIsDst == 1};
    }
    data.m_initialType = data.m_vecTypes[0];
    std::string_view chars;
    if (!reader.readBytes(header.nCharCount, chars)) {
        return false;
    }
    vecTypeAbbreviations.clear();
    for (std::size_t i = 0; i < header.nTypeCount; ++i) {
        const std::string_view rest = chars.substr(vecAbbreviationIndex[i]);
        const std::size_t nEnd = rest.find('\0');
        if (nEnd == std::string_view::npos) {
            return false;
        }
        vecTypeAbbreviations.push_back(fromUtf8(rest.substr(0, nEnd)));
    }
    // Leap-second records are not applied (instants are POSIX times); they only have to fit.
    if (!reader.skip(std::uint64_t{header.nLeapCount} * (nTimeSize + 4))) {
        return false;
    }
    for (std::uint32_t i = 0; i < header.nIsStdCount + header.nIsUtCount; ++i) {
        std::uint8_t nIndicator = 0;
        if (!reader.readU8(nIndicator) || nIndicator > 1) {
            return false;
        }
    }
    return true;
}

bool parseTZif(std::string_view bytes, TimeZoneData& data) {
    if (bytes.size() > TimeZone::kMaxTZifBytes) {
        return false;
    }
    ByteReader reader(bytes);
    TZifHeader header{};
    if (!readHeader(reader, header)) {
        return false;
    }
    std::vector<String> vecTypeAbbreviations;
    if (header.nVersion == 1) {
        if (!readDataBlock(reader, header, 4, data, vecTypeAbbreviations) ||
            reader.remaining() != 0) {
            return false;
        }
        data.chooseAbbreviations(vecTypeAbbreviations);
        return true;
    }
    // Version 2 and later repeat everything with 64-bit times after the 32-bit block, which
    // exists only for old readers.
    TZifHeader header64{};
    if (!reader.skip(dataBlockSize(header, 4)) || !readHeader(reader, header64) ||
        header64.nVersion != header.nVersion ||
        !readDataBlock(reader, header64, 8, data, vecTypeAbbreviations)) {
        return false;
    }
    // The footer: a POSIX TZ string between two newlines, possibly empty, ending the file.
    std::string_view footer;
    if (!reader.readBytes(reader.remaining(), footer) || footer.size() < 2 ||
        footer.front() != '\n' || footer.back() != '\n') {
        return false;
    }
    footer = footer.substr(1, footer.size() - 2);
    if (footer.find('\n') != std::string_view::npos) {
        return false;
    }
    if (!footer.empty()) {
        if (!parsePosixRule(footer, data.m_rule)) {
            return false;
        }
        data.m_bHasRule = true;
    }
    data.chooseAbbreviations(vecTypeAbbreviations);
    return true;
}

// Reads a whole regular file of at most kMaxTZifBytes.
bool readZoneFile(const NString& path, std::string& bytes) {
    // O_NONBLOCK keeps a FIFO planted in the tree from blocking us; it is refused below.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        return false;
    }
    struct stat st {};
    bool bOk = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= 0 &&
               static_cast<std::uint64_t>(st.st_size) <= TimeZone::kMaxTZifBytes;
    if (bOk) {
        bytes.clear();
        char arrChunk[4096];
        for (;;) {
            const ssize_t nRead = ::read(fd, arrChunk, sizeof(arrChunk));
            if (nRead < 0) {
                bOk = false;
                break;
            }
            if (nRead == 0) {
                break;
            }
            bytes.append(arrChunk, static_cast<std::size_t>(nRead));
            // The file may have grown since fstat.
            if (bytes.size() > TimeZone::kMaxTZifBytes) {
                bOk = false;
                break;
            }
        }
    }
    ::close(fd);
    return bOk;
}

// Besides keeping lookups inside the zoneinfo directory, this admits one spelling per file
// ("Europe//Berlin" and "./Europe/Berlin" are refused), so the cache cannot be filled with
// aliases of the same zone.
bool isAcceptableZoneName(const String& name) noexcept {
    if (name.empty() || name.size() > kMaxZonePathName || name[0] == L'/' ||
        name.find(L"..") != String::npos) {
        return false;
    }
    std::size_t nComponentStart = 0;
    for (std::size_t i = 0; i <= name.size(); ++i) {
        if (i == name.size() || name[i] == L'/') {
            const std::size_t nLength = i - nComponentStart;
            if (nLength == 0 || (nLength == 1 && name[nComponentStart] == L'.')) {
                return false;
            }
            nComponentStart = i + 1;
        } else if (name[i] < 0x20 || name[i] == 0x7F || name[i] == L'\\') {
            return false;
        }
    }
    return true;
}

// The zone name of a file in the zoneinfo tree (directly or through a symbolic link), else
// fallback.
String zoneNameOfFile(const NString& path, const NString& dir, const String& fallback) {
    namespace fs = std::filesystem;
    const auto nameInside = [&dir](const fs::path& file, String& name) {
        const fs::path relative =
            file.lexically_normal().lexically_relative(fs::path(dir.std()).lexically_normal());
        if (relative.empty() || relative.native() == "." || *relative.begin() == "..") {
            return false;
        }
        name = fromUtf8(relative.native());
        return true;
    };
    String name;
    if (nameInside(fs::path(path.std()), name)) {
        return name;
    }
    std::error_code ec;
    fs::path target = fs::read_symlink(fs::path(path.std()), ec);
    if (!ec) {
        if (target.is_relative()) {
            target = fs::path(path.std()).parent_path() / target;
        }
        if (nameInside(target, name)) {
            return name;
        }
    }
    return fallback;
}

bool loadZoneFile(const NString& path, const String& name, TimeZone& zone) {
    std::string bytes;
    return readZoneFile(path, bytes) && TimeZone::fromTZifBytes(bytes, name, zone);
}

bool isAsciiText(const String& text) noexcept {
    for (wchar_t c : text) {
        if (c < 0x20 || c > 0x7E) {
            return false;
        }
    }
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

TimeZone::TimeZone(ServerOSTag) noexcept : m_hData(utcData()) {
    try {
        TimeZoneRegistry& registry = TimeZoneRegistry::getInstance();
        const NString dir = registry.getZoneInfoDirectory();
        const char* pszTz = std::getenv("TZ");
        if (pszTz == nullptr) {
            loadZoneFile(NString(kLocaltimePath),
                         zoneNameOfFile(NString(kLocaltimePath), dir, String(L"localtime")), *this);
            return;
        }
        std::string_view tz(pszTz);
        const bool bFileOnly = !tz.empty() && tz.front() == ':';
        if (bFileOnly) {
            tz.remove_prefix(1);
        }
        if (tz.empty()) {
            return;  // an empty TZ means UTC
        }
        if (tz.front() == '/') {
            const NString path(tz);
            loadZoneFile(path, zoneNameOfFile(path, dir, fromUtf8(tz)), *this);
            return;
        }
        const String name = fromUtf8(tz);
        if (!registry.findTimeZone(name, *this) && !bFileOnly) {
            fromPosixString(name, *this);
        }
    } catch (...) {
        // Whatever went wrong (memory included), the zone stays UTC.
    }
}

TimeZone::TimeZone(const TimeZoneData* pData) noexcept : m_hData(pData) {}
TimeZone::TimeZone(const TimeZone& other) noexcept = default;
TimeZone& TimeZone::operator=(const TimeZone& other) noexcept = default;
TimeZone::~TimeZone() = default;

TimeZone TimeZone::utc() noexcept {
    return TimeZone(utcData());
}

bool TimeZone::fromPosixString(const String& tz, TimeZone& out) {
    if (!isAsciiText(tz)) {
        return false;
    }
    Handle<TimeZoneData> hData(new TimeZoneData());
    const NString narrow = toUtf8(tz.view());
    if (!parsePosixRule(narrow.view(), hData->m_rule)) {
        return false;
    }
    hData->m_bHasRule = true;
    hData->m_strName = tz;
    hData->m_initialType = {hData->m_rule.nStdOffset, false};
    hData->chooseAbbreviations({});
    out.m_hData = hData.get();
    return true;
}

bool TimeZone::fromTZifBytes(std::string_view bytes, const String& name, TimeZone& out) {
    Handle<TimeZoneData> hData(new TimeZoneData());
    if (!parseTZif(bytes, *hData)) {
        return false;
    }
    hData->m_strName = name;
    out.m_hData = hData.get();
    return true;
}

const String& TimeZone::getName() const noexcept {
    return m_hData.get()->m_strName;
}

GDVariant TimeZone::getShortName(const String& /*language*/, bool bDst) const {
    const TimeZoneData* pData = m_hData.get();
    return GDVariant(GDString(bDst ? pData->m_strDstAbbreviation : pData->m_strStdAbbreviation));
}

namespace {
std::int64_t clampTime(std::time_t t) noexcept {
    const std::int64_t n = static_cast<std::int64_t>(t);
    return std::clamp(n, -kMaxAbsTime, kMaxAbsTime);
}
}  // namespace

bool TimeZone::isDst(std::time_t t) const noexcept {
    return m_hData.get()->resolve(clampTime(t)).bDst;
}

bool TimeZone::isNowDst() const noexcept {
    return isDst(clock::wallClockSeconds());
}

long TimeZone::getUtcOffset(std::time_t t) const noexcept {
    return m_hData.get()->resolve(clampTime(t)).nOffset;
}

void TimeZone::toLocal(std::time_t t, LocalTime& out) const noexcept {
    const std::int64_t nUtc = clampTime(t);
    const Resolved resolved = m_hData.get()->resolve(nUtc);
    const std::int64_t nLocal = nUtc + resolved.nOffset;
    const std::int64_t nDays = floorDiv(nLocal, kSecondsPerDay);
    const int nSecondOfDay = static_cast<int>(nLocal - nDays * kSecondsPerDay);
    const CivilDate date = civilFromDays(nDays);
    out.nYear = static_cast<int>(date.nYear);
    out.nMonth = date.nMonth;
    out.nDay = date.nDay;
    out.nHour = nSecondOfDay / 3600;
    out.nMinute = nSecondOfDay / 60 % 60;
    out.nSecond = nSecondOfDay % 60;
    out.nWeekday = weekdayFromDays(nDays);
    out.nUtcOffset = resolved.nOffset;
    out.bDst = resolved.bDst;
}

// ---------------------------------------------------------------------------------------------

TimeZoneRegistry::TimeZoneRegistry() : m_csLock(0, "TimeZoneRegistry") {
    const char* pszDir = std::getenv("TZDIR");
    m_strZoneInfoDirectory =
        NString(pszDir != nullptr && *pszDir != '\0' ? pszDir : kDefaultZoneInfoDirectory);
}

TimeZoneRegistry& TimeZoneRegistry::getInstance() {
    // Never destroyed, for the same reason as the UTC data: zones may be looked up from the
    // host's static destructors.
    static TimeZoneRegistry* s_pInstance = new TimeZoneRegistry();
    return *s_pInstance;
}

bool TimeZoneRegistry::findTimeZone(const String& name, TimeZone& zone) const {
    try {
        if (!isAcceptableZoneName(name)) {
            return false;
        }
        NString dir;
        {
            LockGuard<CriticalSection> guard(m_csLock);
            const auto it = m_mapZones.find(name);
            if (it != m_mapZones.end()) {
                zone = it->second;
                return true;
            }
            dir = m_strZoneInfoDirectory;
        }
        // The file is read outside the lock, so a slow disk holds up no other lookup; two
        // threads may both read it, and the first to finish fills the cache.
        TimeZone found = TimeZone::utc();
        if (name.equals(L"UTC") || name.equals(L"Etc/UTC")) {
            found = TimeZone(makeFixedZone(name, String(L"UTC")).get());
        } else if (name.equals(L"GMT")) {
            found = TimeZone(makeFixedZone(name, String(L"GMT")).get());
        } else {
            NString path = dir;
            path.append('/');
            path.append(toUtf8(name.view()));
            if (!loadZoneFile(path, name, found)) {
                return false;
            }
        }
        LockGuard<CriticalSection> guard(m_csLock);
        if (m_strZoneInfoDirectory == dir) {
            zone = m_mapZones.emplace(name, found).first->second;
        } else {
            zone = found;
        }
        return true;
    } catch (...) {
        return false;
    }
}

void TimeZoneRegistry::setZoneInfoDirectory(const NString& dir) {
    LockGuard<CriticalSection> guard(m_csLock);
    m_strZoneInfoDirectory = dir;
    m_mapZones.clear();
}

NString TimeZoneRegistry::getZoneInfoDirectory() const {
    LockGuard<CriticalSection> guard(m_csLock);
    return m_strZoneInfoDirectory;
}

// ---------------------------------------------------------------------------------------------

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

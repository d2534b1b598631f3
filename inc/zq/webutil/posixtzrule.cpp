// Parses POSIX TZ rules and evaluates them for an instant. The parser walks the text once,
// writing straight into the rule; evaluation places the rule's two changes in the years around
// the instant with the calendar arithmetic of civildate.h, so it allocates nothing.
#include "zq/webutil/posixtzrule.h"

#include <cstddef>

namespace kiv::zoneinternal {
namespace {

// RFC 8536 lets a rule's transition time run from -167 to 167 hours.
constexpr int kMaxRuleTimeHours = 167;
constexpr int kMaxPosixOffsetHours = 24;
constexpr std::size_t kMaxZoneNameLength = 64;

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

}  // namespace

// The rule's transition times are local times on the clock in force just before them, so a
// year's changes are placed with the offset they leave. Times of day may run past midnight or
// before it, and in the southern hemisphere DST spans the new year, so the changes of the
// neighbouring years are considered too and the latest one at or before t decides; on a tie the
// later one in rule order wins, which keeps DST all year when it ends exactly as it restarts.
ResolvedOffset resolveRule(const PosixRule& rule, std::int64_t t) noexcept {
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
    return bDst ? ResolvedOffset{rule.nDstOffset, true} : ResolvedOffset{rule.nStdOffset, false};
}

bool parsePosixRule(std::string_view text, PosixRule& rule) {
    if (text.empty() || text.size() > kMaxPosixStringLength) {
        return false;
    }
    return PosixTzParser(text).parse(rule);
}

}  // namespace kiv::zoneinternal

// TimeZone and TimeZoneRegistry: a zone's immutable data, the ways to build it (a POSIX TZ
// string, TZif bytes, a file of the zoneinfo tree, the server's own settings) and the
// conversion of instants. The TZ grammar, the TZif format and the calendar are left to
// posixtzrule, tzifreader and civildate; what stays here is choosing the offset in force and
// keeping zones safe to share.
#include "zq/webutil/zone.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "zq/webkeel/clock.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/civildate.h"
#include "zq/webutil/posixtzrule.h"
#include "zq/webutil/tzifreader.h"

namespace kiv {

using zoneinternal::CivilDate;
using zoneinternal::civilFromDays;
using zoneinternal::floorDiv;
using zoneinternal::kSecondsPerDay;
using zoneinternal::LocalTimeType;
using zoneinternal::parsePosixRule;
using zoneinternal::PosixRule;
using zoneinternal::ResolvedOffset;
using zoneinternal::resolveRule;
using zoneinternal::weekdayFromDays;

namespace {

// Far enough for any real use, near enough that the year fits an int and no sum overflows.
constexpr std::int64_t kMaxAbsTime = std::int64_t{1} << 55;
constexpr std::size_t kMaxZonePathName = 255;
constexpr const char* kDefaultZoneInfoDirectory = "/usr/share/zoneinfo";
constexpr const char* kLocaltimePath = "/etc/localtime";

constexpr zoneinternal::TZifLimits kTZifLimits = {
    TimeZone::kMaxTZifBytes, TimeZone::kMaxTransitions, TimeZone::kMaxLeapSeconds,
    TimeZone::kMaxAbbreviationBytes};

}  // namespace

class TimeZoneData final : public RefCountedNonVirtualBase {
public:
    ResolvedOffset resolve(std::int64_t t) const noexcept {
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

    ResolvedOffset initialResult() const noexcept {
        return {m_initialType.nUtcOffset, m_initialType.bDst};
    }
    ResolvedOffset typeResult(std::size_t nType) const noexcept {
        const LocalTimeType& type = m_vecTypes[nType];
        return {type.nUtcOffset, type.bDst};
    }

    // Takes over what the TZif reader found.
    void adopt(zoneinternal::TZifZone&& tzif) {
        m_vecTransitionTimes = std::move(tzif.vecTransitionTimes);
        m_vecTransitionTypes = std::move(tzif.vecTransitionTypes);
        m_vecTypes = std::move(tzif.vecTypes);
        m_initialType = m_vecTypes[0];
        m_bHasRule = tzif.bHasRule;
        m_rule = std::move(tzif.rule);
        chooseAbbreviations(tzif.vecTypeAbbreviations);
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
    zoneinternal::TZifZone tzif;
    if (!zoneinternal::readTZif(bytes, kTZifLimits, tzif)) {
        return false;
    }
    Handle<TimeZoneData> hData(new TimeZoneData());
    hData->adopt(std::move(tzif));
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
    const ResolvedOffset resolved = m_hData.get()->resolve(nUtc);
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

}  // namespace kiv

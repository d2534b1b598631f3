#include "weblogger/internal/logtimezone.h"

#include <atomic>
#include <typeinfo>

#include "zq/webkeel/criticalsection.h"
#include "zq/webkeel/gdvalue.h"
#include "zq/webutil/timezone.h"

namespace kiv::logger_details {
namespace {

struct ZoneState {
    CriticalSection m_tCs{0, "LoggingTimeZone"};
    TimeZone g_tTimeZone{TimeZone::kServerOS};
    String g_sTimeZoneShortName;
    String g_sTimeZoneDSTShortName;
};

// Destroyed with the library's other statics, after its shutdown: from then on no log call
// renders a stamp (they are refused), and an unloaded library leaves nothing behind.
ZoneState& zoneState() {
    static ZoneState s_zone;
    return s_zone;
}

}  // namespace

void LoggingTimeZone::set(const TimeZone& zone) {
    ZoneState& state = zoneState();
    LockGuard<CriticalSection> lock(state.m_tCs);
    state.g_tTimeZone = zone;
    s_nGeneration.fetch_add(1, std::memory_order_acq_rel);
    const String strLanguage(L"en");
    const GDVariant standardName = zone.getShortName(strLanguage, false);
    if (standardName.empty() || !standardName->isString()) {
        throw std::bad_cast();
    }
    state.g_sTimeZoneShortName = standardName->toString();
    const GDVariant daylightName = zone.getShortName(strLanguage, true);
    if (daylightName.empty() || !daylightName->isString()) {
        throw std::bad_cast();
    }
    state.g_sTimeZoneDSTShortName = daylightName->toString();
}

const TimeZone& LoggingTimeZone::get() {
    return zoneState().g_tTimeZone;
}

const String& LoggingTimeZone::getShortName(bool bDst) {
    const ZoneState& state = zoneState();
    return bDst ? state.g_sTimeZoneDSTShortName : state.g_sTimeZoneShortName;
}

std::size_t LoggingTimeZone::formatTimeStamp(std::time_t t, bool bIso8601, wchar_t* pBuffer,
                                             std::size_t nCapacity) {
    ZoneState& state = zoneState();
    LockGuard<CriticalSection> lock(state.m_tCs);
    if (bIso8601) {
        return DateUtils::crtToISO8601WCharBuf(t, state.g_tTimeZone, pBuffer, nCapacity);
    }
    std::size_t nLength = DateUtils::crtToWCharBuf(t, state.g_tTimeZone, pBuffer, nCapacity);
    const String& strZone =
        state.g_tTimeZone.isDst(t) ? state.g_sTimeZoneDSTShortName : state.g_sTimeZoneShortName;
    if (nLength + 1 + strZone.size() < nCapacity) {
        pBuffer[nLength++] = L' ';
        for (wchar_t c : strZone) {
            pBuffer[nLength++] = c;
        }
        pBuffer[nLength] = 0;
    }
    return nLength;
}

}  // namespace kiv::logger_details

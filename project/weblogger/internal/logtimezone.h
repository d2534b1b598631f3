// The process-wide time zone of message time stamps, and the formatting of a stamp in it.
//
// The zone is set at start-up or by a reconfiguration while other threads may be rendering, so
// it is read and written under its own lock. Renderers take that lock only when their cached
// stamp text is stale (once a second, or when the generation changes because the zone was
// set), never per message. TmLogger::setTimeZone, getTimeZone and getTimeZoneShortName are
// the host's view of the same zone.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "zq/webkeel/string.h"

namespace kiv {
class TimeZone;
}

namespace kiv::logger_details {

class LoggingTimeZone {
public:
    // Makes zone the logging zone and caches its short names (language "en", without and with
    // daylight saving). Throws std::bad_cast when the zone does not give its names as strings
    // (the zone is replaced by then).
    static void set(const TimeZone& zone);
    // The zone itself, for start-up code; renderers use formatTimeStamp.
    static const TimeZone& get();
    // The cached short name; empty until set is first called.
    static const String& getShortName(bool bDst);
    // Changes whenever the zone is set, so renderers know when their cached text is stale.
    // Inline and without a function-local static: every rendered time stamp asks it.
    static std::uint64_t getGeneration() noexcept {
        return s_nGeneration.load(std::memory_order_acquire);
    }
    // Writes the stamp of second t into pBuffer (zero-terminated, at most nCapacity characters
    // with the terminator) and returns its length: with bIso8601 the ISO 8601 text with the
    // zone offset, otherwise the local date and time, a blank and the zone's short name.
    static std::size_t formatTimeStamp(std::time_t t, bool bIso8601, wchar_t* pBuffer,
                                       std::size_t nCapacity);

private:
    // Constant-initialised and trivially destructible: valid from load to unload.
    static inline std::atomic<std::uint64_t> s_nGeneration{1};
};

}  // namespace kiv::logger_details

// Time zones for the time stamps of log records, read from the system's zoneinfo database.
// Hosts and the library include "zq/webutil/timezone.h", which brings this header and the
// date texts of dateutils.h.
//
// We read and interpret the TZif files ourselves (RFC 8536, versions 1 to 4) instead of asking
// libc: localtime_r and friends consult the process-wide TZ state, take a global lock and may
// reread files, none of which a logging hot path can afford, and they cannot convert for any
// zone but the process's own. A TimeZone is loaded once, and converting an instant afterwards
// is a binary search over the zone's transitions (or, past the last transition, the evaluation
// of the zone's POSIX TZ rule) and pure arithmetic: no allocation, no lock, no system call.
//
// Instants are POSIX times (seconds since the epoch without leap seconds); the leap-second
// records of "right/" zones are validated but not applied. Times beyond +-2^55 s (about a
// billion years) are clamped to that bound, where every field of LocalTime still fits.
//
// Thread-safety: a TimeZone holds a handle to immutable data, so one zone (and its copies) may
// be read from any number of threads; assigning to one TimeZone object while another thread
// reads that same object is a race, as for any value. TimeZoneRegistry is safe to use from any
// thread. TimeZone(kServerOS) reads the TZ environment variable, which must not be changed by
// another thread at the same time (a rule of getenv itself).
#pragma once

#include <cstddef>
#include <ctime>
#include <string_view>
#include <unordered_map>

#include "zq/webkeel/criticalsection.h"
#include "zq/webkeel/gdvalue.h"
#include "zq/webkeel/handle.h"
#include "zq/webkeel/string.h"

namespace kiv {

class TimeZoneData;

// An instant as read on the wall clocks of one zone.
struct LocalTime {
    int nYear;
    int nMonth;  // 1-12
    int nDay;    // 1-31
    int nHour;
    int nMinute;
    int nSecond;
    int nWeekday;     // 0 = Sunday
    long nUtcOffset;  // seconds east of UTC
    bool bDst;
};

class TimeZone {
public:
    enum ServerOSTag { kServerOS };

    // The zone of the server's operating system: the zone the TZ environment variable names
    // (":Europe/Berlin", "Europe/Berlin", an absolute path to a TZif file, or a POSIX TZ
    // string such as "CET-1CEST,M3.5.0,M10.5.0/3"), else /etc/localtime, else UTC. Never
    // throws: whatever cannot be read or understood gives UTC, and so does an empty TZ. Reads
    // the environment and possibly a file on every call, so build it once and copy it.
    explicit TimeZone(ServerOSTag = kServerOS) noexcept;
    TimeZone(const TimeZone& other) noexcept;
    TimeZone& operator=(const TimeZone& other) noexcept;
    ~TimeZone();

    static TimeZone utc() noexcept;

    // A zone from a POSIX TZ string ("EST5EDT,M3.2.0,M11.1.0", "<+0330>-3:30", "UTC0").
    // A DST name without a rule takes the US rule M3.2.0,M11.1.0, as the C libraries do.
    // On success overwrites out; false leaves it as it was.
    static bool fromPosixString(const String& tz, TimeZone& out);
    // A zone from the bytes of a TZif file, named name. Malformed, truncated or oversized
    // input (more than 1 MiB, or counts past the limits below) gives false and leaves out as
    // it was.
    static bool fromTZifBytes(std::string_view bytes, const String& name, TimeZone& out);

    static constexpr std::size_t kMaxTZifBytes = 1u << 20;
    static constexpr std::size_t kMaxTransitions = 20000;
    static constexpr std::size_t kMaxLeapSeconds = 1000;
    static constexpr std::size_t kMaxAbbreviationBytes = 1024;

    // "UTC", "Europe/Berlin"; for /etc/localtime the zone it links to in the zoneinfo tree,
    // else "localtime"; for a POSIX TZ string the string itself.
    const String& getName() const noexcept;

    // The zone's abbreviation as a GDString: the standard one ("CET") when !bDst, the daylight
    // one ("CEST") when bDst; a zone without DST gives its standard one for both. Zone
    // abbreviations are not translated (they are the same in every language), so every
    // language is accepted and gives the same answer.
    GDVariant getShortName(const String& language, bool bDst) const;

    bool isDst(std::time_t t) const noexcept;
    // isDst at kiv::clock::wallClockSeconds().
    bool isNowDst() const noexcept;
    // Seconds east of UTC in force at t.
    long getUtcOffset(std::time_t t) const noexcept;
    // Allocates nothing: fit for the logging hot path.
    void toLocal(std::time_t t, LocalTime& out) const noexcept;

private:
    explicit TimeZone(const TimeZoneData* pData) noexcept;
    friend class TimeZoneRegistry;

    // Never null: every way to build a zone ends with data, UTC at worst.
    Handle<const TimeZoneData> m_hData;
};

// Finds zones by name in the zoneinfo directory and keeps every zone it has found.
class TimeZoneRegistry {
public:
    static TimeZoneRegistry& getInstance();

    // On success overwrites zone. An unknown or malformed zone, or a name that tries to leave
    // the zoneinfo directory (a leading '/', or ".."), or that is not written the one plain
    // way (empty or "." components), gives false and leaves zone as it was.
    // "UTC", "GMT" and "Etc/UTC" are built in and found even without any zone file.
    bool findTimeZone(const String& name, TimeZone& zone) const;

    // Where zone files are looked up: $TZDIR when set, else /usr/share/zoneinfo. Setting it
    // forgets the zones found so far (they came from the old directory); for tests.
    void setZoneInfoDirectory(const NString& dir);
    NString getZoneInfoDirectory() const;

    TimeZoneRegistry(const TimeZoneRegistry&) = delete;
    TimeZoneRegistry& operator=(const TimeZoneRegistry&) = delete;

private:
    TimeZoneRegistry();

    mutable CriticalSection m_csLock;
    NString m_strZoneInfoDirectory;
    mutable std::unordered_map<String, TimeZone, String::Hash> m_mapZones;
};

}  // namespace kiv

// Date texts of instants as read in a zone, written into caller buffers: the time stamps of
// log records. Built on TimeZone::toLocal, so, like it, they allocate nothing and take no
// lock. Hosts get this header through "zq/webutil/timezone.h".
#pragma once

#include <cstddef>
#include <ctime>

#include "zq/webutil/zone.h"

namespace kiv {

class DateUtils {
public:
    // Both write a zero-terminated text into pBuffer, whose capacity nCapacity counts the
    // terminator, and never more; they return the length written, or 0 with an empty text
    // when the capacity is too small. No allocation.
    //
    // Local date and time: "2026-11-21 23:39:23".
    static std::size_t crtToWCharBuf(std::time_t t, const TimeZone& zone, wchar_t* pBuffer,
                                     std::size_t nCapacity) noexcept;
    // ISO 8601 with the offset: "2026-11-21T23:39:23+01:00", UTC as "+00:00". An offset with
    // seconds (local mean time before the zones were standardised) shows them: "+00:53:28".
    static std::size_t crtToISO8601WCharBuf(std::time_t t, const TimeZone& zone, wchar_t* pBuffer,
                                            std::size_t nCapacity) noexcept;
};

}  // namespace kiv

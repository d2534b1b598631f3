// Time zones and the date texts of log records: what the library and its hosts include.
//
// The zone itself (TimeZone, TimeZoneRegistry, LocalTime) is in zone.h and the date texts
// (DateUtils) in dateutils.h; this header brings both, so code that converts and formats
// instants needs one include. The calendar, the POSIX TZ rule and the TZif reader behind them
// are internal to the zone code and not reachable from here.
#pragma once

#include "zq/webutil/dateutils.h"
#include "zq/webutil/zone.h"

// The one place the library reads the time.
//
// Everything that needs the wall clock (the time stamp of a record, whether the server's zone
// is on daylight saving time now) asks wallClockSeconds(), so a test can install a source of
// its own and reach any instant without waiting for it or touching the machine's clock. The
// source is a plain function pointer kept in an atomic: reading the clock costs one load and
// one indirect call, which is all the logging hot path can afford. monotonicMillis() measures
// intervals and is deliberately not replaceable: timeouts must keep working in tests that
// freeze the wall clock.
//
// Thread-safety: every function may be called from any thread. An installed source must be
// safe to call from every thread that logs; threads reading the clock while a source is
// installed see the new source from their next read on.
#pragma once

#include <cstdint>
#include <ctime>

namespace kiv::clock {

using WallClockSource = std::time_t (*)() noexcept;

// Seconds since the epoch from the installed source (by default time(nullptr)).
std::time_t wallClockSeconds() noexcept;

// Installs pfn as the wall clock and returns the source it replaces (never null: the default
// source is a function too, so the result can always be installed again). Null restores the
// default.
WallClockSource setWallClockSource(WallClockSource pfn) noexcept;

// CLOCK_MONOTONIC in milliseconds: never goes back, unaffected by changes of the wall clock.
std::uint64_t monotonicMillis() noexcept;

// Installs a wall clock for a scope (a test's) and puts the previous one back at its end.
// Scopes must end in the reverse order they began, as scopes do.
class ScopedWallClock {
public:
    explicit ScopedWallClock(WallClockSource pfn) noexcept
        : m_pfnPrevious(setWallClockSource(pfn)) {}
    ~ScopedWallClock() { setWallClockSource(m_pfnPrevious); }
    ScopedWallClock(const ScopedWallClock&) = delete;
    ScopedWallClock& operator=(const ScopedWallClock&) = delete;

private:
    WallClockSource m_pfnPrevious;
};

}  // namespace kiv::clock

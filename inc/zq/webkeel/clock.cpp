#include "zq/webkeel/clock.h"

#include <atomic>
#include <chrono>

namespace kiv::clock {
namespace {

std::time_t systemWallClock() noexcept {
    return std::time(nullptr);
}

// Never null, so a read is a load and a call without a test on the way.
std::atomic<WallClockSource> s_pfnWallClock{&systemWallClock};

}  // namespace

std::time_t wallClockSeconds() noexcept {
    return s_pfnWallClock.load(std::memory_order_acquire)();
}

WallClockSource setWallClockSource(WallClockSource pfn) noexcept {
    return s_pfnWallClock.exchange(pfn != nullptr ? pfn : &systemWallClock,
                                   std::memory_order_acq_rel);
}

std::uint64_t monotonicMillis() noexcept {
    // steady_clock is CLOCK_MONOTONIC on Linux, read through the vDSO without a system call.
    const auto elapsed = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
}

}  // namespace kiv::clock

#include "zq/webkeel/clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>

namespace kiv {
namespace {

std::atomic<std::time_t> s_fakeNow{1000000000};
std::time_t fakeClock() noexcept {
    return s_fakeNow.load();
}
std::time_t otherFakeClock() noexcept {
    return 42;
}

void expectFollowsSystemClock() {
    const std::time_t nBefore = std::time(nullptr);
    const std::time_t nRead = clock::wallClockSeconds();
    const std::time_t nAfter = std::time(nullptr);
    EXPECT_LE(nBefore, nRead);
    EXPECT_LE(nRead, nAfter);
}

TEST(ClockTest, DefaultFollowsTime) {
    expectFollowsSystemClock();
}

TEST(ClockTest, ScopedWallClockInstallsAndRestores) {
    {
        const clock::ScopedWallClock scoped(&fakeClock);
        EXPECT_EQ(clock::wallClockSeconds(), 1000000000);
        s_fakeNow = 2000000000;
        EXPECT_EQ(clock::wallClockSeconds(), 2000000000);
        {
            const clock::ScopedWallClock inner(&otherFakeClock);
            EXPECT_EQ(clock::wallClockSeconds(), 42);
        }
        EXPECT_EQ(clock::wallClockSeconds(), 2000000000);
    }
    expectFollowsSystemClock();
}

TEST(ClockTest, SetReturnsThePreviousSourceAndNullRestoresTheDefault) {
    const clock::WallClockSource pfnDefault = clock::setWallClockSource(&fakeClock);
    ASSERT_NE(pfnDefault, nullptr);
    EXPECT_EQ(clock::setWallClockSource(&otherFakeClock), &fakeClock);
    EXPECT_EQ(clock::wallClockSeconds(), 42);
    EXPECT_EQ(clock::setWallClockSource(nullptr), &otherFakeClock);
    expectFollowsSystemClock();
    // The default handed back earlier can be installed again like any source.
    EXPECT_EQ(clock::setWallClockSource(pfnDefault), pfnDefault);
    expectFollowsSystemClock();
}

TEST(ClockTest, ReplacedSourceIsSeenByOtherThreads) {
    const clock::ScopedWallClock scoped(&otherFakeClock);
    std::time_t nSeen = 0;
    std::thread([&nSeen] { nSeen = clock::wallClockSeconds(); }).join();
    EXPECT_EQ(nSeen, 42);
}

TEST(ClockTest, MonotonicMillisNeverDecreases) {
    std::uint64_t nPrevious = clock::monotonicMillis();
    for (int i = 0; i < 100000; ++i) {
        const std::uint64_t nNow = clock::monotonicMillis();
        ASSERT_GE(nNow, nPrevious);
        nPrevious = nNow;
    }
    const std::uint64_t nStart = clock::monotonicMillis();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    // Truncation to whole milliseconds may lose up to one.
    EXPECT_GE(clock::monotonicMillis() - nStart, 19u);
}

TEST(ClockTest, MonotonicMillisIgnoresTheWallClockSource) {
    const clock::ScopedWallClock scoped(&otherFakeClock);
    const std::uint64_t nBefore = clock::monotonicMillis();
    EXPECT_GT(nBefore, 0u);
    EXPECT_GE(clock::monotonicMillis(), nBefore);
}

}  // namespace
}  // namespace kiv

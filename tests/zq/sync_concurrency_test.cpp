#include "zq/webkeel/criticalsection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace kiv {
namespace {

constexpr int kThreads = 4;
constexpr int kIncrementsPerThread = 20000;

// Runs body on kThreads threads released together, so that they really compete.
template <class Body>
void runTogether(Body body) {
    std::atomic<int> nReady{0};
    std::vector<std::thread> vecThreads;
    for (int i = 0; i < kThreads; ++i) {
        vecThreads.emplace_back([&] {
            nReady.fetch_add(1);
            while (nReady.load() < kThreads) {
                std::this_thread::yield();
            }
            body();
        });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
}

std::atomic<int> g_nDetected{0};
std::atomic<int> g_nCleared{0};

void countingReporter(const char*, bool bContended) {
    (bContended ? g_nDetected : g_nCleared).fetch_add(1);
}

class SyncConcurrencyTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_pfnPrevious = CriticalSection::setContentionReporter(&countingReporter);
        g_nDetected = 0;
        g_nCleared = 0;
    }
    void TearDown() override {
        CriticalSection::setContentionDetection(false);
        CriticalSection::setContentionThreshold(CriticalSection::kDefaultContentionThreshold);
        CriticalSection::setContentionReporter(m_pfnPrevious);
    }

    ContentionReporter m_pfnPrevious = nullptr;
};

TEST_F(SyncConcurrencyTest, CriticalSectionMakesIncrementsExact) {
    CriticalSection section(0, "Counter");
    long nCounter = 0;
    runTogether([&] {
        for (int i = 0; i < kIncrementsPerThread; ++i) {
            section.acquire();
            ++nCounter;
            section.release();
        }
    });
    EXPECT_EQ(nCounter, long{kThreads} * kIncrementsPerThread);
}

TEST_F(SyncConcurrencyTest, LongHoldsPutWaitersToSleepAndKeepIncrementsExact) {
    // Every hundredth hold outlasts the spin, so the waiters sleep and are woken while the
    // others still take the section on the inline path.
    CriticalSection section(CriticalSection::kSpinBeforeWaiting, "sleepers");
    long nCount = 0;
    runTogether([&] {
        for (int i = 0; i < kIncrementsPerThread / 10; ++i) {
            const LockGuard<CriticalSection> guard(section);
            ++nCount;
            if (i % 100 == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        }
    });
    EXPECT_EQ(nCount, static_cast<long>(kThreads) * (kIncrementsPerThread / 10));
}

TEST_F(SyncConcurrencyTest, RecursiveSectionMakesNestedIncrementsExact) {
    CriticalSection section(CriticalSection::kAllowRecursion, "Nested");
    long nCounter = 0;
    runTogether([&] {
        for (int i = 0; i < kIncrementsPerThread; ++i) {
            LockGuard<CriticalSection> outer(section);
            LockGuard<CriticalSection> inner(section);
            ++nCounter;
        }
    });
    EXPECT_EQ(nCounter, long{kThreads} * kIncrementsPerThread);
}

TEST_F(SyncConcurrencyTest, GuardedAdaptorWithLockMakesIncrementsExact) {
    OptionalSynchroAdaptor<CriticalSection> adaptor(true, 0u, "Adapted");
    long nCounter = 0;
    runTogether([&] {
        for (int i = 0; i < kIncrementsPerThread; ++i) {
            LockGuard<OptionalSynchroAdaptor<CriticalSection>> guard(adaptor);
            ++nCounter;
        }
    });
    EXPECT_EQ(nCounter, long{kThreads} * kIncrementsPerThread);
}

TEST_F(SyncConcurrencyTest, AtomicEntityIncrementsAreExact) {
    AtomicEntity<unsigned> nCounter;
    runTogether([&] {
        for (int i = 0; i < kIncrementsPerThread; ++i) {
            nCounter.increment();
        }
    });
    EXPECT_EQ(nCounter.get(), unsigned{kThreads} * kIncrementsPerThread);
}

TEST_F(SyncConcurrencyTest, ContentionDetectionSwitchedOnMidRunKeepsCountsExact) {
    CriticalSection::setContentionThreshold(1);
    CriticalSection section(0, "Detected");
    OptionalSynchroAdaptor<CriticalSection> adaptor(true, 0u, "DetectedAdapted");
    long nCounter = 0;
    long nAdaptedCounter = 0;
    std::atomic<bool> bStarted{false};
    std::thread switcher([&] {
        while (!bStarted.load()) {
            std::this_thread::yield();
        }
        CriticalSection::setContentionDetection(true);
    });
    runTogether([&] {
        bStarted.store(true);
        for (int i = 0; i < kIncrementsPerThread; ++i) {
            section.acquire();
            ++nCounter;
            section.release();
            LockGuard<OptionalSynchroAdaptor<CriticalSection>> guard(adaptor);
            ++nAdaptedCounter;
        }
    });
    switcher.join();
    EXPECT_TRUE(CriticalSection::isContentionDetectionEnabled());
    EXPECT_EQ(nCounter, long{kThreads} * kIncrementsPerThread);
    EXPECT_EQ(nAdaptedCounter, long{kThreads} * kIncrementsPerThread);
    // Each section alternates detected, cleared, detected...: two sections can be at most one
    // report ahead each.
    const int nDetected = g_nDetected.load();
    const int nCleared = g_nCleared.load();
    EXPECT_LE(nCleared, nDetected);
    EXPECT_LE(nDetected, nCleared + 2);
}

}  // namespace
}  // namespace kiv

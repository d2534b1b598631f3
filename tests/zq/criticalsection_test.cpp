#include "zq/webkeel/criticalsection.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kiv {
namespace {

// Whether another thread could take the section right now.
bool freeForOtherThreads(CriticalSection& section) {
    bool bTaken = false;
    std::thread([&] {
        bTaken = section.tryAcquire();
        if (bTaken) {
            section.release();
        }
    }).join();
    return bTaken;
}

TEST(CriticalSectionTest, NonRecursiveSectionIsRefusedWhileHeld) {
    CriticalSection section;
    section.acquire();
    EXPECT_FALSE(freeForOtherThreads(section));
    EXPECT_FALSE(section.tryAcquire());  // not even its owner may take it twice
    section.release();
    EXPECT_TRUE(freeForOtherThreads(section));
}

TEST(CriticalSectionTest, SpinningSectionExcludesLikeAnyOther) {
    CriticalSection section(CriticalSection::kSpinBeforeWaiting, "spinning");
    section.acquire();
    EXPECT_FALSE(freeForOtherThreads(section));
    EXPECT_FALSE(section.tryAcquire());
    section.release();
    EXPECT_TRUE(freeForOtherThreads(section));
    // Short holds by two threads at once: every increment under the section survives.
    long nCount = 0;
    std::vector<std::thread> vecThreads;
    for (int nThread = 0; nThread < 2; ++nThread) {
        vecThreads.emplace_back([&] {
            for (int i = 0; i < 100000; ++i) {
                const LockGuard<CriticalSection> guard(section);
                ++nCount;
            }
        });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    EXPECT_EQ(nCount, 200000);
}

// A thread that finds the section held for longer than it spins goes to sleep; the release
// must wake it, and it then holds the section alone.
void expectSleeperIsWokenByRelease(CriticalSection& section) {
    section.acquire();
    std::atomic<bool> bTaken{false};
    std::thread waiter([&] {
        section.acquire();
        bTaken = true;
        section.release();
    });
    // Far longer than any spin: the waiter is asleep on the section by now.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(bTaken.load());
    section.release();
    waiter.join();
    EXPECT_TRUE(bTaken.load());
    // Free again after the woken thread's release, for this thread and any other.
    EXPECT_TRUE(section.tryAcquire());
    section.release();
    EXPECT_TRUE(freeForOtherThreads(section));
}

TEST(CriticalSectionTest, SleepingWaiterIsWokenByTheRelease) {
    CriticalSection section;
    expectSleeperIsWokenByRelease(section);
}

TEST(CriticalSectionTest, SpinningSectionWakesAWaiterThatOutlastedItsSpin) {
    CriticalSection section(CriticalSection::kSpinBeforeWaiting, "spinning");
    expectSleeperIsWokenByRelease(section);
}

TEST(CriticalSectionTest, EverySleeperIsWokenInTurn) {
    // Three threads asleep on one section: each release hands it to one of them, and none is
    // left sleeping.
    CriticalSection section(CriticalSection::kSpinBeforeWaiting, "spinning");
    section.acquire();
    std::atomic<int> nTaken{0};
    std::vector<std::thread> vecWaiters;
    for (int i = 0; i < 3; ++i) {
        vecWaiters.emplace_back([&] {
            const LockGuard<CriticalSection> guard(section);
            nTaken.fetch_add(1);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(nTaken.load(), 0);
    section.release();
    for (std::thread& waiter : vecWaiters) {
        waiter.join();
    }
    EXPECT_EQ(nTaken.load(), 3);
    EXPECT_TRUE(freeForOtherThreads(section));
}

TEST(CriticalSectionTest, RecursiveSectionIsTakenAgainByItsOwnerOnly) {
    CriticalSection section(CriticalSection::kAllowRecursion);
    section.acquire();
    section.acquire();
    EXPECT_TRUE(section.tryAcquire());
    EXPECT_FALSE(freeForOtherThreads(section));
    section.release();
    section.release();
    EXPECT_FALSE(freeForOtherThreads(section));
    section.release();
    EXPECT_TRUE(freeForOtherThreads(section));
}

TEST(CriticalSectionTest, TryAcquireTakesAFreeSection) {
    CriticalSection section;
    ASSERT_TRUE(section.tryAcquire());
    EXPECT_FALSE(freeForOtherThreads(section));
    section.release();
}

TEST(CriticalSectionTest, KeepsItsName) {
    EXPECT_STREQ(CriticalSection().name(), "CriticalSection");
    EXPECT_STREQ(CriticalSection(0, "WriterQueue").name(), "WriterQueue");
}

TEST(CriticalSectionTest, LockGuardHoldsForItsScope) {
    CriticalSection section;
    {
        LockGuard<CriticalSection> guard(section);
        EXPECT_FALSE(freeForOtherThreads(section));
    }
    EXPECT_TRUE(freeForOtherThreads(section));
}

TEST(OptionalSynchroAdaptorTest, WithLockGuardsLikeTheLock) {
    OptionalSynchroAdaptor<CriticalSection> adaptor(true, 0u, "Adapted");
    ASSERT_TRUE(adaptor.hasLock());
    {
        LockGuard<OptionalSynchroAdaptor<CriticalSection>> guard(adaptor);
        bool bTaken = true;
        std::thread([&] { bTaken = adaptor.tryAcquire(); }).join();
        EXPECT_FALSE(bTaken);
    }
    bool bTaken = false;
    std::thread([&] {
        bTaken = adaptor.tryAcquire();
        if (bTaken) {
            adaptor.release();
        }
    }).join();
    EXPECT_TRUE(bTaken);
}

TEST(OptionalSynchroAdaptorTest, WithoutLockEveryOperationSucceedsAndDoesNothing) {
    OptionalSynchroAdaptor<CriticalSection> adaptor(false);
    EXPECT_FALSE(adaptor.hasLock());
    LockGuard<OptionalSynchroAdaptor<CriticalSection>> guard(adaptor);
    EXPECT_TRUE(adaptor.tryAcquire());
    bool bTaken = false;
    std::thread([&] { bTaken = adaptor.tryAcquire(); }).join();
    EXPECT_TRUE(bTaken);
    adaptor.release();
}

struct CountingLock {
    static int s_nLive;
    static int s_nLastId;
    explicit CountingLock(int nId) {
        ++s_nLive;
        s_nLastId = nId;
    }
    ~CountingLock() { --s_nLive; }
    void acquire() {}
    bool tryAcquire() { return false; }
    void release() {}
};
int CountingLock::s_nLive = 0;
int CountingLock::s_nLastId = 0;

TEST(OptionalSynchroAdaptorTest, BuildsTheLockInPlaceOnlyWhenAskedAndDestroysIt) {
    {
        OptionalSynchroAdaptor<CountingLock> adaptor(true, 42);
        EXPECT_EQ(CountingLock::s_nLive, 1);
        EXPECT_EQ(CountingLock::s_nLastId, 42);
        EXPECT_FALSE(adaptor.tryAcquire());  // the call reaches the lock
    }
    EXPECT_EQ(CountingLock::s_nLive, 0);
    {
        OptionalSynchroAdaptor<CountingLock> adaptor(false, 7);
        EXPECT_EQ(CountingLock::s_nLive, 0);
        EXPECT_EQ(CountingLock::s_nLastId, 42);
    }
    EXPECT_EQ(CountingLock::s_nLive, 0);
}

TEST(AtomicEntityTest, Operations) {
    AtomicEntity<int> value;
    EXPECT_EQ(value.get(), 0);
    EXPECT_EQ(value.increment(), 1);
    EXPECT_EQ(value.increment(), 2);
    EXPECT_EQ(value.decrement(), 1);
    value.set(10);
    EXPECT_EQ(value.getRelaxed(), 10);
    EXPECT_EQ(value.exchange(20), 10);
    EXPECT_EQ(value.get(), 20);
    EXPECT_FALSE(value.compareExchange(19, 30));
    EXPECT_EQ(value.get(), 20);
    EXPECT_TRUE(value.compareExchange(20, 30));
    EXPECT_EQ(value.get(), 30);
}

TEST(AtomicEntityTest, ArithmeticWrapsAround) {
    AtomicEntity<unsigned> nUnsigned;
    EXPECT_EQ(nUnsigned.decrement(), UINT_MAX);
    EXPECT_EQ(nUnsigned.increment(), 0u);
    AtomicEntity<int> nSigned(INT_MAX);
    EXPECT_EQ(nSigned.increment(), INT_MIN);
    EXPECT_EQ(nSigned.decrement(), INT_MAX);
}

TEST(AtomicEntityTest, CopiesTakeTheCurrentValueAndCompareByValue) {
    AtomicEntity<unsigned> nVersion(5);
    AtomicEntity<unsigned> nSnapshot(nVersion);
    EXPECT_EQ(nSnapshot.get(), 5u);
    EXPECT_TRUE(nSnapshot == nVersion);
    nVersion.increment();
    EXPECT_EQ(nSnapshot.get(), 5u);
    EXPECT_FALSE(nSnapshot == nVersion);
    nSnapshot = nVersion;
    EXPECT_EQ(nSnapshot.get(), 6u);
    EXPECT_TRUE(nSnapshot == nVersion);
}

// --- contention reporting ---

struct Report {
    std::string strName;
    bool bContended;
};

std::mutex g_reportMutex;
std::vector<Report> g_vecReports;  // guarded by g_reportMutex

void recordReport(const char* pszSectionName, bool bContended) {
    std::lock_guard<std::mutex> lock(g_reportMutex);
    g_vecReports.push_back(Report{pszSectionName, bContended});
}

std::vector<Report> reports() {
    std::lock_guard<std::mutex> lock(g_reportMutex);
    return g_vecReports;
}

// The scheduler state of one thread of this process: 'S' while it sleeps, e.g. in a mutex.
char threadState(long nTid) {
    std::ifstream in("/proc/self/task/" + std::to_string(nTid) + "/stat");
    std::string strStat;
    std::getline(in, strStat);
    const std::size_t nPos = strStat.rfind(')');
    return nPos != std::string::npos && nPos + 2 < strStat.size() ? strStat[nPos + 2] : '?';
}

// Acquires the section in a way that has to wait: another thread holds it and lets it go only
// once this thread is seen asleep inside acquire(), so the first try has certainly failed.
void acquireAfterWaiting(CriticalSection& section) {
    const long nTid = syscall(SYS_gettid);
    std::atomic<bool> bHeld{false};
    std::atomic<bool> bAcquiring{false};
    // tryAcquire() is not counted as an acquisition, so the holder leaves the counts alone.
    std::thread holder([&] {
        while (!section.tryAcquire()) {
            std::this_thread::yield();
        }
        bHeld.store(true);
        while (!bAcquiring.load()) {
            std::this_thread::yield();
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (threadState(nTid) != 'S' && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        section.release();
    });
    while (!bHeld.load()) {
        std::this_thread::yield();
    }
    bAcquiring.store(true);
    section.acquire();
    holder.join();
}

class ContentionTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_pfnPrevious = CriticalSection::setContentionReporter(&recordReport);
        CriticalSection::setContentionThreshold(2);
        std::lock_guard<std::mutex> lock(g_reportMutex);
        g_vecReports.clear();
    }
    void TearDown() override {
        CriticalSection::setContentionDetection(false);
        CriticalSection::setContentionThreshold(CriticalSection::kDefaultContentionThreshold);
        CriticalSection::setContentionReporter(m_pfnPrevious);
    }

    // One acquisition that waits, released at once.
    static void waitOnce(CriticalSection& section) {
        acquireAfterWaiting(section);
        section.release();
    }
    static void passOnce(CriticalSection& section) {
        section.acquire();
        section.release();
    }

    ContentionReporter m_pfnPrevious = nullptr;
};

TEST(ContentionDefaultsTest, SwitchedOffWithThresholdSixteen) {
    EXPECT_FALSE(CriticalSection::isContentionDetectionEnabled());
    EXPECT_EQ(CriticalSection::contentionThreshold(), 16u);
}

TEST_F(ContentionTest, ReportsOnceAboveThresholdAndClearsOnceOnAFreeAcquisition) {
    CriticalSection::setContentionDetection(true);
    EXPECT_TRUE(CriticalSection::isContentionDetectionEnabled());
    CriticalSection section(0, "HotSection");
    waitOnce(section);
    waitOnce(section);
    EXPECT_TRUE(reports().empty());  // two waits are not above a threshold of two

    waitOnce(section);
    auto vecReports = reports();
    ASSERT_EQ(vecReports.size(), 1u);
    EXPECT_EQ(vecReports[0].strName, "HotSection");
    EXPECT_TRUE(vecReports[0].bContended);

    waitOnce(section);
    waitOnce(section);
    EXPECT_EQ(reports().size(), 1u);  // still contended: nothing more to say

    passOnce(section);
    vecReports = reports();
    ASSERT_EQ(vecReports.size(), 2u);
    EXPECT_EQ(vecReports[1].strName, "HotSection");
    EXPECT_FALSE(vecReports[1].bContended);

    passOnce(section);
    EXPECT_EQ(reports().size(), 2u);

    // The count started again from zero.
    waitOnce(section);
    waitOnce(section);
    EXPECT_EQ(reports().size(), 2u);
    waitOnce(section);
    vecReports = reports();
    ASSERT_EQ(vecReports.size(), 3u);
    EXPECT_TRUE(vecReports[2].bContended);
}

TEST_F(ContentionTest, OnlyConsecutiveWaitsCount) {
    CriticalSection::setContentionDetection(true);
    CriticalSection section(0, "Interleaved");
    waitOnce(section);
    waitOnce(section);
    passOnce(section);
    waitOnce(section);
    waitOnce(section);
    EXPECT_TRUE(reports().empty());
    waitOnce(section);
    ASSERT_EQ(reports().size(), 1u);
}

TEST_F(ContentionTest, TryAcquireIsNotCounted) {
    CriticalSection::setContentionDetection(true);
    CriticalSection section(0, "Tried");
    waitOnce(section);
    waitOnce(section);
    ASSERT_TRUE(section.tryAcquire());
    section.release();
    waitOnce(section);
    ASSERT_EQ(reports().size(), 1u);
}

TEST_F(ContentionTest, SwitchedOffReportsNothing) {
    CriticalSection section(0, "Quiet");
    for (int i = 0; i < 5; ++i) {
        waitOnce(section);
    }
    passOnce(section);
    EXPECT_TRUE(reports().empty());
}

TEST_F(ContentionTest, EachSectionCountsItsOwnWaits) {
    CriticalSection::setContentionDetection(true);
    CriticalSection first(0, "First");
    CriticalSection second(0, "Second");
    waitOnce(first);
    waitOnce(second);
    waitOnce(first);
    waitOnce(second);
    EXPECT_TRUE(reports().empty());
    waitOnce(second);
    const auto vecReports = reports();
    ASSERT_EQ(vecReports.size(), 1u);
    EXPECT_EQ(vecReports[0].strName, "Second");
}

CriticalSection* g_pProbedSection = nullptr;
bool g_bProbedSectionWasFree = true;

void probingReporter(const char*, bool) {
    g_bProbedSectionWasFree = freeForOtherThreads(*g_pProbedSection);
}

TEST_F(ContentionTest, ReporterRunsWithTheSectionHeld) {
    CriticalSection::setContentionThreshold(0);
    CriticalSection::setContentionReporter(&probingReporter);
    CriticalSection::setContentionDetection(true);
    CriticalSection section(0, "Probed");
    g_pProbedSection = &section;
    waitOnce(section);
    g_pProbedSection = nullptr;
    EXPECT_FALSE(g_bProbedSectionWasFree);
}

void throwingReporter(const char*, bool) {
    throw std::runtime_error("reporter failed");
}

TEST_F(ContentionTest, ThrowingReporterDoesNotDisturbTheAcquisition) {
    CriticalSection::setContentionThreshold(0);
    CriticalSection::setContentionReporter(&throwingReporter);
    CriticalSection::setContentionDetection(true);
    CriticalSection section(0, "Thrown");
    acquireAfterWaiting(section);
    EXPECT_FALSE(freeForOtherThreads(section));
    section.release();
    passOnce(section);
    EXPECT_TRUE(freeForOtherThreads(section));
}

TEST_F(ContentionTest, DefaultReporterWritesOneLineEach) {
    CriticalSection::setContentionReporter(nullptr);
    CriticalSection::setContentionThreshold(0);
    CriticalSection::setContentionDetection(true);
    CriticalSection section(0, "Logged");
    ::testing::internal::CaptureStderr();
    waitOnce(section);
    passOnce(section);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "Lock contention detected on Logged\nLock contention cleared on Logged\n");
}

TEST_F(ContentionTest, SetReporterReturnsThePreviousOne) {
    EXPECT_EQ(CriticalSection::setContentionReporter(&throwingReporter), &recordReport);
    EXPECT_EQ(CriticalSection::setContentionReporter(nullptr), &throwingReporter);
    EXPECT_EQ(CriticalSection::setContentionReporter(&recordReport), nullptr);
}

}  // namespace
}  // namespace kiv

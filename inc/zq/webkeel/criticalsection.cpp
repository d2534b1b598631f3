#include "zq/webkeel/criticalsection.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>

#include "zq/webkeel/assert.h"

namespace kiv {
namespace {

// The futex calls name the word by its address as a plain 32-bit integer.
static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t) &&
              std::atomic<std::uint32_t>::is_always_lock_free);

std::atomic<unsigned> g_nContentionThreshold{CriticalSection::kDefaultContentionThreshold};
std::atomic<ContentionReporter> g_pfnReporter{nullptr};

void defaultReporter(const char* pszSectionName, bool bContended) {
    std::fprintf(stderr, "Lock contention %s on %s\n", bContended ? "detected" : "cleared",
                 pszSectionName);
}

// A holder's work under a spinning section (a file writer's copy of one line) takes well under a
// microsecond; this many pauses cover about that, after which sleeping is cheaper than spinning.
constexpr int kSpinsBeforeSleeping = 100;

void cpuRelax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

void report(const char* pszSectionName, bool bContended) noexcept {
    const ContentionReporter pfnReporter = g_pfnReporter.load(std::memory_order_acquire);
    try {
        (pfnReporter != nullptr ? pfnReporter : defaultReporter)(pszSectionName, bContended);
    } catch (...) {
        // A report must never disturb the thread that now holds the lock.
    }
}

}  // namespace

std::atomic<bool> CriticalSection::s_bContentionDetection{false};

CriticalSection::CriticalSection(unsigned nFlags, const char* pszName)
    : m_nState(kFree),
      m_bRecursive((nFlags & kAllowRecursion) != 0),
      m_bSpinBeforeWaiting((nFlags & kSpinBeforeWaiting) != 0),
      m_pszName(pszName != nullptr ? pszName : "CriticalSection"),
      m_nWaitingAcquisitions(0),
      m_bContended(false) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, m_bRecursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_NORMAL);
    const int nResult = pthread_mutex_init(&m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    // glibc never fails here; a report is all another platform's failure can get, since a
    // constructor has no fallback to offer.
    ZQ_ASSERT(nResult == 0);
}

CriticalSection::~CriticalSection() {
    pthread_mutex_destroy(&m_mutex);
}

void CriticalSection::waitForSection() {
    if (m_bSpinBeforeWaiting) {
        for (int nSpin = 0; nSpin < kSpinsBeforeSleeping; ++nSpin) {
            cpuRelax();
            std::uint32_t nExpected = kFree;
            if (m_nState.load(std::memory_order_relaxed) == kFree &&
                m_nState.compare_exchange_weak(nExpected, kHeld, std::memory_order_acquire,
                                               std::memory_order_relaxed)) {
                return;
            }
        }
    }
    // From here on the word says that someone may sleep, so that the holder's release wakes one.
    // Taking it as "held with sleepers" even when no one else waits costs at most one needless
    // wake-up call at release.
    while (m_nState.exchange(kHeldWithSleepers, std::memory_order_acquire) != kFree) {
        // Returns at once if the word changed in between; spurious wake-ups just loop.
        syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&m_nState), FUTEX_WAIT_PRIVATE,
                kHeldWithSleepers, nullptr, nullptr, 0);
    }
}

void CriticalSection::wakeOneSleeper() noexcept {
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&m_nState), FUTEX_WAKE_PRIVATE, 1, nullptr,
            nullptr, 0);
}

void CriticalSection::acquireDetectingContention() {
    const bool bWaited = !tryAcquire();
    if (bWaited) {
        acquireWaiting();
    }
    // From here on the section is held, which is what guards the two counters.
    if (bWaited) {
        ++m_nWaitingAcquisitions;
        if (!m_bContended &&
            m_nWaitingAcquisitions > g_nContentionThreshold.load(std::memory_order_relaxed)) {
            m_bContended = true;
            report(m_pszName, true);
        }
    } else {
        m_nWaitingAcquisitions = 0;
        if (m_bContended) {
            m_bContended = false;
            report(m_pszName, false);
        }
    }
}

void CriticalSection::setContentionDetection(bool bEnabled) noexcept {
    s_bContentionDetection.store(bEnabled, std::memory_order_relaxed);
}

bool CriticalSection::isContentionDetectionEnabled() noexcept {
    return s_bContentionDetection.load(std::memory_order_relaxed);
}

void CriticalSection::setContentionThreshold(unsigned nThreshold) noexcept {
    g_nContentionThreshold.store(nThreshold, std::memory_order_relaxed);
}

unsigned CriticalSection::contentionThreshold() noexcept {
    return g_nContentionThreshold.load(std::memory_order_relaxed);
}

ContentionReporter CriticalSection::setContentionReporter(ContentionReporter pfnReporter) noexcept {
    return g_pfnReporter.exchange(pfnReporter, std::memory_order_acq_rel);
}

}  // namespace kiv

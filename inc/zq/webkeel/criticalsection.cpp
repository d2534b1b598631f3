#include "zq/webkeel/criticalsection.h"

#include <cstdio>

#include "zq/webkeel/assert.h"

namespace kiv {
namespace {

std::atomic<unsigned> g_nContentionThreshold{CriticalSection::kDefaultContentionThreshold};
std::atomic<ContentionReporter> g_pfnReporter{nullptr};

void defaultReporter(const char* pszSectionName, bool bContended) {
    std::fprintf(stderr, "Lock contention %s on %s\n", bContended ? "detected" : "cleared",
                 pszSectionName);
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
    : m_pszName(pszName != nullptr ? pszName : "CriticalSection"),
      m_nWaitingAcquisitions(0),
      m_bContended(false) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    int nType = PTHREAD_MUTEX_NORMAL;
    if ((nFlags & kAllowRecursion) != 0) {
        nType = PTHREAD_MUTEX_RECURSIVE;
    } else if ((nFlags & kSpinBeforeWaiting) != 0) {
        nType = PTHREAD_MUTEX_ADAPTIVE_NP;
    }
    pthread_mutexattr_settype(&attr, nType);
    const int nResult = pthread_mutex_init(&m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    // glibc never fails here; a report is all another platform's failure can get, since a
    // constructor has no fallback to offer.
    ZQ_ASSERT(nResult == 0);
}

CriticalSection::~CriticalSection() {
    pthread_mutex_destroy(&m_mutex);
}

void CriticalSection::acquireDetectingContention() {
    const bool bWaited = pthread_mutex_trylock(&m_mutex) != 0;
    if (bWaited) {
        pthread_mutex_lock(&m_mutex);
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

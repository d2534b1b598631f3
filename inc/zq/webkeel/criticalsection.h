// The locks of the library and the small synchronisation helpers built on them.
//
// CriticalSection is a mutex, recursive only when asked for. A recursive section is a recursive
// pthread_mutex_t. Every other one is a futex word of its own, in three states (free, held, held
// with sleepers): taking a free section is one compare-and-swap and releasing it one exchange,
// both inline, where pthread_mutex_lock and _unlock are two calls through the PLT and some fifty
// instructions of type checks around the same two atomic operations. A file writer takes its
// section once for every accepted line: one thread's buffered lines were 4% faster for it, and two
// threads sharing a writer 30% faster (measured, not explained: the wait path is not profiled).
// Only a thread that finds the section held leaves the inline path: it spins for a while if the
// section asked for it, then sleeps on the word, and a release that finds a sleeper wakes one.
// Every lock of the library can report contention: while the process-wide switch is on, a section
// that had to wait for more than a threshold of consecutive acquisitions says so once to a
// process-wide reporter, and says once more when an acquisition gets through without waiting again.
// With the switch off (the default) acquire() costs one relaxed load on top of taking the lock, so
// the check can stay compiled into production builds and be switched on when a host suspects a hot
// lock.
//
// LockGuard holds any lockable for a scope. OptionalSynchroAdaptor carries a lock only when one
// is needed, so a writer used by a single thread pays nothing for the guard around it.
// AtomicEntity is a copyable atomic integer for counters and versions that are snapshotted.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

namespace kiv {

// Called with the name of a section when it becomes contended (bContended true) and when the
// contention clears (false). Runs on the thread that just acquired the section, while holding
// it, so it must be quick and must not take that section again.
using ContentionReporter = void (*)(const char* pszSectionName, bool bContended);

class CriticalSection {
public:
    // Lets the owning thread acquire the section again; it must release it as many times.
    static constexpr unsigned kAllowRecursion = 1u;
    // A waiter spins briefly before it sleeps: for a lock held for
    // well under a microsecond at a time, such as a file writer's (which covers the copy of a
    // rendered line, not its rendering), the holder is usually done before the spin is, and
    // neither thread pays for a futex sleep and wake-up.
    static constexpr unsigned kSpinBeforeWaiting = 2u;
    static constexpr unsigned kDefaultContentionThreshold = 16u;

    // pszName is kept by pointer for the reports, so it must outlive the section (a literal).
    explicit CriticalSection(unsigned nFlags = 0, const char* pszName = "CriticalSection");
    ~CriticalSection();
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void acquire() {
        if (s_bContentionDetection.load(std::memory_order_relaxed)) [[unlikely]] {
            acquireDetectingContention();
        } else {
            acquireWaiting();
        }
    }
    // True when the section was free (or, for a recursive one, already held by this thread).
    bool tryAcquire() {
        if (m_bRecursive) [[unlikely]] {
            return pthread_mutex_trylock(&m_mutex) == 0;
        }
        std::uint32_t nExpected = kFree;
        return m_nState.compare_exchange_strong(nExpected, kHeld, std::memory_order_acquire,
                                                std::memory_order_relaxed);
    }
    void release() {
        if (m_bRecursive) [[unlikely]] {
            pthread_mutex_unlock(&m_mutex);
        } else if (m_nState.exchange(kFree, std::memory_order_release) == kHeldWithSleepers)
            [[unlikely]] {
            wakeOneSleeper();
        }
    }
    const char* name() const noexcept { return m_pszName; }

    // Process-wide, for every section; off by default.
    static void setContentionDetection(bool bEnabled) noexcept;
    static bool isContentionDetectionEnabled() noexcept;
    // The number of consecutive waiting acquisitions a section tolerates before it reports.
    // The count is kept modulo 256, so a threshold of 255 or more never reports.
    static void setContentionThreshold(unsigned nThreshold) noexcept;
    static unsigned contentionThreshold() noexcept;
    // Installs the reporter and returns the previous one; null restores the default, which
    // writes one line to stderr.
    static ContentionReporter setContentionReporter(ContentionReporter pfnReporter) noexcept;

private:
    // The states of a non-recursive section's word.
    static constexpr std::uint32_t kFree = 0;
    static constexpr std::uint32_t kHeld = 1;
    static constexpr std::uint32_t kHeldWithSleepers = 2;

    // Takes the section, waiting for it if it is held.
    void acquireWaiting() {
        if (m_bRecursive) [[unlikely]] {
            pthread_mutex_lock(&m_mutex);
            return;
        }
        std::uint32_t nExpected = kFree;
        if (!m_nState.compare_exchange_strong(nExpected, kHeld, std::memory_order_acquire,
                                              std::memory_order_relaxed)) [[unlikely]] {
            waitForSection();
        }
    }
    // The non-recursive section was held: spin (if asked to), then sleep until it is ours.
    void waitForSection();
    void wakeOneSleeper() noexcept;
    void acquireDetectingContention();

    static std::atomic<bool> s_bContentionDetection;

    // Used by a recursive section only (initialised for the others too, and never locked).
    pthread_mutex_t m_mutex;
    // The futex word of a non-recursive section.
    std::atomic<std::uint32_t> m_nState;
    const bool m_bRecursive;
    const bool m_bSpinBeforeWaiting;
    const char* m_pszName;
    // Touched only by the thread holding the section, so they need no atomics.
    unsigned char m_nWaitingAcquisitions;
    bool m_bContended;
};

// Holds a lockable (anything with acquire() and release()) for the lifetime of the guard.
template <class Lockable>
class LockGuard {
public:
    explicit LockGuard(Lockable& lock) : m_lock(lock) { m_lock.acquire(); }
    ~LockGuard() { m_lock.release(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    Lockable& m_lock;
};

// A lock that may be absent. The lock lives inside the adaptor, so choosing to have one costs no
// allocation; without it every operation is a test of one pointer.
template <class Lockable>
class OptionalSynchroAdaptor {
public:
    template <class... Args>
    explicit OptionalSynchroAdaptor(bool bWithLock, Args&&... args) : m_pLock(nullptr) {
        if (bWithLock) {
            m_pLock =
                ::new (static_cast<void*>(m_arrStorage)) Lockable(std::forward<Args>(args)...);
        }
    }
    ~OptionalSynchroAdaptor() {
        if (m_pLock != nullptr) {
            m_pLock->~Lockable();
        }
    }
    // The lock lives at an address of its own, which a copy could not keep.
    OptionalSynchroAdaptor(const OptionalSynchroAdaptor&) = delete;
    OptionalSynchroAdaptor& operator=(const OptionalSynchroAdaptor&) = delete;

    bool hasLock() const noexcept { return m_pLock != nullptr; }
    void acquire() {
        if (m_pLock != nullptr) {
            m_pLock->acquire();
        }
    }
    // Always succeeds without a lock: there is nothing to wait for.
    bool tryAcquire() { return m_pLock == nullptr || m_pLock->tryAcquire(); }
    void release() {
        if (m_pLock != nullptr) {
            m_pLock->release();
        }
    }

private:
    alignas(Lockable) unsigned char m_arrStorage[sizeof(Lockable)];
    Lockable* m_pLock;
};

// An atomic integer that can be copied: a copy takes the value current at the time, which is
// what a snapshot of versions or counters needs (std::atomic itself refuses to be copied).
// Arithmetic wraps around rather than overflowing.
template <class T>
class AtomicEntity {
    static_assert(std::is_integral_v<T> && !std::is_same_v<T, bool>, "AtomicEntity holds integers");

public:
    AtomicEntity() noexcept : m_value(T{}) {}
    explicit AtomicEntity(T value) noexcept : m_value(value) {}
    AtomicEntity(const AtomicEntity& other) noexcept : m_value(other.get()) {}
    AtomicEntity& operator=(const AtomicEntity& other) noexcept {
        set(other.get());
        return *this;
    }

    T get() const noexcept { return m_value.load(std::memory_order_acquire); }
    // For statistics that tolerate a slightly stale value.
    T getRelaxed() const noexcept { return m_value.load(std::memory_order_relaxed); }
    void set(T value) noexcept { m_value.store(value, std::memory_order_release); }
    // Both return the new value.
    T increment() noexcept { return wrapAdd(m_value.fetch_add(1, std::memory_order_acq_rel), 1); }
    T decrement() noexcept {
        return wrapAdd(m_value.fetch_sub(1, std::memory_order_acq_rel), static_cast<Unsigned>(-1));
    }
    // Returns the previous value.
    T exchange(T value) noexcept { return m_value.exchange(value, std::memory_order_acq_rel); }
    // Stores desired when the value is expected; false (and nothing stored) otherwise.
    bool compareExchange(T expected, T desired) noexcept {
        return m_value.compare_exchange_strong(expected, desired, std::memory_order_acq_rel,
                                               std::memory_order_acquire);
    }

    friend bool operator==(const AtomicEntity& a, const AtomicEntity& b) noexcept {
        return a.get() == b.get();
    }

private:
    using Unsigned = std::make_unsigned_t<T>;
    // Signed overflow is undefined, so the new value is computed in unsigned arithmetic.
    static T wrapAdd(T value, Unsigned nDelta) noexcept {
        return static_cast<T>(static_cast<Unsigned>(static_cast<Unsigned>(value) + nDelta));
    }

    std::atomic<T> m_value;
};

}  // namespace kiv

// Per-thread objects that are cleaned up when their thread ends.
//
// ThreadSpecificStatic<T> keeps one T* per thread in a pthread key. The library uses it for the
// per-thread state of its process-wide objects (formatting buffers, the current request's
// context), which has to be released when a server worker thread exits; thread_local cannot give
// a run-time chosen clean-up, nor one that runs for objects made by a library loaded with
// dlopen after the thread started.
//
// The clean-up function runs on the exiting thread, after its thread_local objects may already
// be gone, so it must not rely on them. It runs only for a thread whose value is not null.
// Destroying the ThreadSpecificStatic deletes the key: the calling thread's value is cleaned up,
// but values still held by other threads are not (POSIX gives no way to reach them), so the
// process-wide instances are meant to live until the library is unloaded.
#pragma once

#include <pthread.h>

#include "zq/webkeel/assert.h"
#include "zq/webkeel/memalloc.h"

namespace kiv {

template <class T>
class ThreadSpecificStatic {
public:
    using Cleanup = void (*)(T*);

    // Without a clean-up function the value is deleted.
    explicit ThreadSpecificStatic(Cleanup pfnCleanup = nullptr)
        : m_pfnCleanup(pfnCleanup != nullptr ? pfnCleanup : &deleteValue), m_bHasKey(false) {
        const int nResult = pthread_key_create(&m_key, &onThreadExit);
        ZQ_ASSERT(nResult == 0);
        m_bHasKey = nResult == 0;
    }
    ~ThreadSpecificStatic() {
        if (!m_bHasKey) {
            return;
        }
        if (Slot* pSlot = slot()) {
            pthread_setspecific(m_key, nullptr);
            destroySlot(pSlot);
        }
        pthread_key_delete(m_key);
    }
    ThreadSpecificStatic(const ThreadSpecificStatic&) = delete;
    ThreadSpecificStatic& operator=(const ThreadSpecificStatic&) = delete;

    // This thread's value; null when it has none.
    T* get() const noexcept {
        const Slot* pSlot = slot();
        return pSlot != nullptr ? pSlot->pValue : nullptr;
    }

    // Makes p this thread's value. The previous value is not cleaned up: it stays with whoever
    // took it with get() or release(). Throws when the slot cannot be allocated; p then stays
    // with the caller, as it does when the key could not be created.
    void set(T* p) {
        if (!m_bHasKey) {
            ZQ_ASSERT_FAILURE("thread-specific key missing");
            return;
        }
        if (Slot* pSlot = slot()) {
            pSlot->pValue = p;
            return;
        }
        if (p == nullptr) {
            return;  // a thread that never holds a value needs no slot
        }
        // The slot carries the clean-up function because the key's destructor receives only the
        // stored pointer, and a function of another type cannot be called through it.
        Slot* pSlot = new Slot{p, m_pfnCleanup};
        if (pthread_setspecific(m_key, pSlot) != 0) {
            delete pSlot;
            throw OutOfMemoryError();  // the only way a valid key can fail
        }
    }

    // Takes this thread's value out of the slot, so no clean-up runs for it.
    T* release() noexcept {
        Slot* pSlot = slot();
        if (pSlot == nullptr) {
            return nullptr;
        }
        T* p = pSlot->pValue;
        pSlot->pValue = nullptr;
        return p;
    }

    // This thread's value, made with new T on the first use in the thread.
    T& getOrCreate() {
        if (T* p = get()) {
            return *p;
        }
        if (!m_bHasKey) {
            // Without a key every call would leak a new object; this is the allocation failure
            // the library's entry points already handle.
            throw OutOfMemoryError();
        }
        T* p = new T;
        try {
            set(p);
        } catch (...) {
            m_pfnCleanup(p);
            throw;
        }
        return *p;
    }

private:
    struct Slot {
        T* pValue;
        Cleanup pfnCleanup;
    };

    static void deleteValue(T* p) { delete p; }

    static void destroySlot(Slot* pSlot) noexcept {
        T* p = pSlot->pValue;
        const Cleanup pfnCleanup = pSlot->pfnCleanup;
        delete pSlot;
        if (p != nullptr) {
            try {
                pfnCleanup(p);
            } catch (...) {
                // Nothing can catch an exception from a thread's exit; losing it is the lesser
                // harm.
            }
        }
    }

    static void onThreadExit(void* pSlot) { destroySlot(static_cast<Slot*>(pSlot)); }

    Slot* slot() const noexcept {
        return m_bHasKey ? static_cast<Slot*>(pthread_getspecific(m_key)) : nullptr;
    }

    pthread_key_t m_key;
    Cleanup m_pfnCleanup;
    bool m_bHasKey;
};

}  // namespace kiv

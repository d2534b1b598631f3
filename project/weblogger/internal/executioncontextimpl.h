// The process-wide side of execution context tracking: the context-monitoring client's
// functions, looked up by name, the enabled flag, the per-thread cache of the current ECID and
// wrapped context, and the load of "ExecutionContext/Enable".
//
// qamysLocalFree is an exported variable of the client that holds its free function: the lookup
// yields the variable's address, and the function is read from it when it is needed. Every
// function pointer may be null after a lookup (the client does not export that name, or no
// lookup happened because no client was there at the load): the operations test the pointers
// they need and fail as they do while tracking is off, rather than call through null.
//
// Threads: the cache is per thread (ThreadSpecificStatic; a thread's record is destroyed when
// the thread ends). The enabled flag and the pointers are written by the configuration load and
// by enable/disable, and read on every call; they are relaxed atomics so that a reload may race
// with logging threads without a data race, at the cost of a plain load each.
#pragma once

#include <atomic>

#include "zq/webkeel/memalloc.h"
#include "zq/webkeel/string.h"
#include "zq/webthreadstorage/threadstatic.h"

namespace kiv {

class ConfigReader;

namespace logger_details {

class ExecutionContextImpl : public MemAllocNewdel {
public:
    // The signatures of the client's functions.
    using FreeFn = void (*)(void*);
    using ContextGetFn = void* (*)(const char*);
    using ContextWrapFn = char* (*)();
    using ContextUnwrapFn = void* (*)(const char*, bool);
    using ContextGetIdFn = const char* (*)(void*);
    using ContextClearFn = int (*)();
    using ContextCreateFn = void* (*)(const char*, const char*);
    using MeasInitModelFn = int (*)();
    using ContextStashFn = int (*)(void*);
    using ContextFindFn = void* (*)(void*);
    using ReferenceExpireCheckFn = void (*)(unsigned);

    // What a thread knows of its current context.
    // Made and destroyed on its own thread only (the cache is thread-specific), which lets the
    // record publish where its ECID is to a thread_local pointer for the renderer.
    struct CachedThreadCtx : public MemAllocNewdel {
        CachedThreadCtx() noexcept;
        ~CachedThreadCtx();
        CachedThreadCtx(const CachedThreadCtx&) = delete;
        CachedThreadCtx& operator=(const CachedThreadCtx&) = delete;

        String currentECID;
        // currentECID as UTF-8, for lines written as UTF-8.
        NString currentECIDUtf8;
        NString wrappedCtx;
        bool bWrappedCtxInit = false;
    };

    // The one instance, made on first use (at library load at the latest) and destroyed with
    // the library's statics, so an unloaded library leaves no cache behind. Log calls are
    // refused by then (the library's shutdown runs before any of its statics is destroyed), so
    // no thread renders an ECID from a destroyed instance.
    static ExecutionContextImpl& instance();

    // Whether tracking is on now: the flag is set and the client reports itself initialised.
    bool isEnabled() const noexcept;
    void setEnabled(bool bEnabled) noexcept {
        m_bEnabled.store(bEnabled, std::memory_order_relaxed);
    }
    bool isFlagSet() const noexcept { return m_bEnabled.load(std::memory_order_relaxed); }

    // The calling thread's record, made on first use.
    CachedThreadCtx& threadCtx() { return m_CachedThreadCtx.getOrCreate(); }

    // Reads "ExecutionContext/Enable" under the source "kiv.ctm.init" and looks the client's
    // functions up when tracking is wanted and possible; see executioncontext.h.
    void loadConfig(const ConfigReader& reader);

    // Sets the thread's ECID from pContext (empty for a null context or while tracking is off)
    // and forgets the cached wrapped form.
    void updateThreadECID(void* pContext);
    // Releases memory the client handed out; false when there is no free function to do it.
    bool freeClientMemory(void* p) const noexcept;
    // Whether the client's free function can be reached: no operation that receives memory
    // from the client runs without it.
    bool canFree() const noexcept;

    template <class Fn>
    Fn fn(const std::atomic<Fn>& pfn) const noexcept {
        return pfn.load(std::memory_order_relaxed);
    }

    // In the order of the lookup.
    std::atomic<FreeFn*> qamysLocalFree{nullptr};
    std::atomic<ContextGetFn> qamContextGet{nullptr};
    std::atomic<ContextWrapFn> qamContextWrap{nullptr};
    std::atomic<ContextUnwrapFn> qamContextUnwrap{nullptr};
    std::atomic<ContextGetIdFn> qamContextGetECID{nullptr};
    std::atomic<ContextGetIdFn> qamContextGetRID{nullptr};
    std::atomic<ContextClearFn> qamContextClear{nullptr};
    std::atomic<ContextCreateFn> qamContextCreate{nullptr};
    std::atomic<MeasInitModelFn> qamMeasInitModel{nullptr};
    std::atomic<ContextStashFn> qamContextStashCurrent{nullptr};
    std::atomic<ContextStashFn> qamContextStash{nullptr};
    std::atomic<ContextFindFn> qamContextFind{nullptr};
    std::atomic<ReferenceExpireCheckFn> qamReferenceExpireCheck{nullptr};

private:
    ExecutionContextImpl();
    static void destroyThreadCtx(CachedThreadCtx* pCtx);
    void lookUpFunctions(void* hLib);

    ThreadSpecificStatic<CachedThreadCtx> m_CachedThreadCtx;
    std::atomic<bool> m_bEnabled{false};
};

}  // namespace logger_details
}  // namespace kiv

#include "webctm.h"

#include <sys/random.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <string_view>
#include <unordered_map>

#include "traceparent.h"

namespace {

using webctm::kSpanIdHexLength;
using webctm::kTraceIdHexLength;
using webctm::TraceParent;

constexpr char kQueryLabel[] = "QamContextQuery";
constexpr unsigned char kFlagSampled = 0x01;
constexpr char kHexDigits[] = "0123456789abcdef";

std::atomic<bool> g_bInitialized{false};

// The thread's current context; plain data, so a thread's end leaves nothing to clean up.
thread_local TraceParent t_current;
thread_local bool t_bHasCurrent = false;

struct StashEntry {
    TraceParent context;
    std::chrono::steady_clock::time_point stamp;
    bool bSingleUse;
};
std::mutex g_stashMutex;
std::unordered_map<void*, StashEntry> g_mapStash;  // guarded by g_stashMutex

bool ready() noexcept {
    return g_bInitialized.load(std::memory_order_acquire);
}

void fillRandom(unsigned char* p, std::size_t n) {
    std::size_t nDone = 0;
    while (nDone < n) {
        const ssize_t nGot = getrandom(p + nDone, n - nDone, 0);
        if (nGot <= 0) {
            break;
        }
        nDone += static_cast<std::size_t>(nGot);
    }
    if (nDone < n) {
        // The kernel's source failed (too old a kernel, a seccomp filter): the C++ one instead.
        std::random_device device;
        for (; nDone < n; ++nDone) {
            p[nDone] = static_cast<unsigned char>(device());
        }
    }
}

// n/2 random bytes as n hex digits, never all zero (an all-zero id is invalid).
void randomId(char* pOut, std::size_t n) {
    unsigned char arrBytes[kTraceIdHexLength / 2];
    bool bAllZero = true;
    while (bAllZero) {
        fillRandom(arrBytes, n / 2);
        for (std::size_t i = 0; i < n / 2; ++i) {
            bAllZero = bAllZero && arrBytes[i] == 0;
        }
    }
    for (std::size_t i = 0; i < n / 2; ++i) {
        pOut[2 * i] = kHexDigits[arrBytes[i] >> 4];
        pOut[2 * i + 1] = kHexDigits[arrBytes[i] & 0x0F];
    }
    pOut[n] = '\0';
}

void freeCallerMemory(void* p) {
    std::free(p);
}

// A copy of context for the caller, or null when memory is short.
void* handOut(const TraceParent& context) {
    void* p = std::malloc(sizeof(TraceParent));
    if (p != nullptr) {
        std::memcpy(p, &context, sizeof(TraceParent));
    }
    return p;
}

void* makeCurrent(const TraceParent& context) {
    t_current = context;
    t_bHasCurrent = true;
    return handOut(context);
}

int stash(void* pReference, bool bSingleUse) {
    if (!ready() || pReference == nullptr) {
        return 0;
    }
    const std::lock_guard<std::mutex> lock(g_stashMutex);
    if (!t_bHasCurrent) {
        // A reference is often a stack address used again later: what was stashed under it
        // before must not be found for this stash.
        g_mapStash.erase(pReference);
        return 0;
    }
    g_mapStash[pReference] = StashEntry{t_current, std::chrono::steady_clock::now(), bSingleUse};
    return 1;
}

}  // namespace

extern "C" {

void (*qamysLocalFree)(void* p) = &freeCallerMemory;

int qamMeasInitModel(void) {
    unsigned char nProbe = 0;
    fillRandom(&nProbe, 1);
    g_bInitialized.store(true, std::memory_order_release);
    return 1;
}

void* qamContextGet(const char* pszLabel) {
    if (!ready()) {
        return nullptr;
    }
    if (pszLabel == nullptr) {
        TraceParent context;
        randomId(context.szTraceId, kTraceIdHexLength);
        randomId(context.szSpanId, kSpanIdHexLength);
        context.nFlags = kFlagSampled;
        return makeCurrent(context);
    }
    if (std::strcmp(pszLabel, kQueryLabel) == 0 && t_bHasCurrent) {
        return handOut(t_current);
    }
    return nullptr;
}

char* qamContextWrap(void) {
    if (!ready() || !t_bHasCurrent) {
        return nullptr;
    }
    char* pszWrapped = static_cast<char*>(std::malloc(webctm::kTraceparentLength + 1));
    if (pszWrapped != nullptr) {
        webctm::formatTraceparent(t_current, pszWrapped);
    }
    return pszWrapped;
}

void* qamContextUnwrap(const char* pszWrapped, bool bKeepSpan) {
    if (!ready() || pszWrapped == nullptr) {
        return nullptr;
    }
    TraceParent context;
    if (!webctm::parseTraceparent(std::string_view(pszWrapped), context)) {
        return nullptr;
    }
    if (!bKeepSpan) {
        randomId(context.szSpanId, kSpanIdHexLength);
    }
    return makeCurrent(context);
}

const char* qamContextGetECID(void* pContext) {
    return pContext != nullptr ? static_cast<const TraceParent*>(pContext)->szTraceId : nullptr;
}

const char* qamContextGetRID(void* pContext) {
    return pContext != nullptr ? static_cast<const TraceParent*>(pContext)->szSpanId : nullptr;
}

int qamContextClear(void) {
    if (!ready()) {
        return 0;
    }
    t_bHasCurrent = false;
    return 1;
}

void* qamContextCreate(const char* pszTraceId, const char* pszSpanId) {
    if (!ready() || pszTraceId == nullptr || pszSpanId == nullptr ||
        !webctm::isValidId(pszTraceId, kTraceIdHexLength) ||
        !webctm::isValidId(pszSpanId, kSpanIdHexLength)) {
        return nullptr;
    }
    TraceParent context;
    std::memcpy(context.szTraceId, pszTraceId, kTraceIdHexLength + 1);
    std::memcpy(context.szSpanId, pszSpanId, kSpanIdHexLength + 1);
    context.nFlags = kFlagSampled;
    return makeCurrent(context);
}

int qamContextStashCurrent(void* pReference) {
    return stash(pReference, true);
}

int qamContextStash(void* pReference) {
    return stash(pReference, false);
}

void* qamContextFind(void* pReference) {
    if (!ready() || pReference == nullptr) {
        return nullptr;
    }
    TraceParent context;
    {
        const std::lock_guard<std::mutex> lock(g_stashMutex);
        const auto it = g_mapStash.find(pReference);
        if (it == g_mapStash.end()) {
            return nullptr;
        }
        context = it->second.context;
        if (it->second.bSingleUse) {
            g_mapStash.erase(it);
        }
    }
    return makeCurrent(context);
}

void qamReferenceExpireCheck(unsigned nMaxAgeSeconds) {
    if (!ready()) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    const std::chrono::seconds maxAge(nMaxAgeSeconds);
    const std::lock_guard<std::mutex> lock(g_stashMutex);
    std::erase_if(g_mapStash,
                  [&](const auto& entry) { return now - entry.second.stamp >= maxAge; });
}

}  // extern "C"

// A context-monitoring client that fails: it makes contexts without ids (it does not export
// qamContextGetECID, qamContextGetRID, qamContextCreate, qamContextStash or
// qamReferenceExpireCheck), refuses every wrapped text, finds nothing it was asked to stash and
// cannot clear. It counts every call by name, so that tests can show which functions the
// library called. Built as its own shared library and loaded by path like the real client.
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#define CTM_DOUBLE_API __attribute__((visibility("default")))

namespace {

std::mutex g_callsMutex;
std::map<std::string, unsigned> g_mapCalls;  // guarded by g_callsMutex

void count(const char* pszName) {
    const std::lock_guard<std::mutex> lock(g_callsMutex);
    ++g_mapCalls[pszName];
}

void freeCallerMemory(void* p) {
    count("qamysLocalFree");
    std::free(p);
}

}  // namespace

extern "C" {

CTM_DOUBLE_API void (*qamysLocalFree)(void*) = &freeCallerMemory;

CTM_DOUBLE_API int qamMeasInitModel(void) {
    count("qamMeasInitModel");
    return 1;
}

// A context made anew has no ids anyone can read; there is never a current one to query.
CTM_DOUBLE_API void* qamContextGet(const char* pszLabel) {
    count("qamContextGet");
    return pszLabel == nullptr ? std::malloc(1) : nullptr;
}

CTM_DOUBLE_API char* qamContextWrap(void) {
    count("qamContextWrap");
    return nullptr;
}

CTM_DOUBLE_API void* qamContextUnwrap(const char*, bool) {
    count("qamContextUnwrap");
    return nullptr;
}

CTM_DOUBLE_API int qamContextClear(void) {
    count("qamContextClear");
    return 0;
}

// Claims to have stashed, so that a guard later tries, and fails, to find it.
CTM_DOUBLE_API int qamContextStashCurrent(void*) {
    count("qamContextStashCurrent");
    return 1;
}

CTM_DOUBLE_API void* qamContextFind(void*) {
    count("qamContextFind");
    return nullptr;
}

// How often the named function was called; a name never called gives 0.
CTM_DOUBLE_API unsigned ctmDoubleCalls(const char* pszName) {
    const std::lock_guard<std::mutex> lock(g_callsMutex);
    const auto it = g_mapCalls.find(pszName);
    return it != g_mapCalls.end() ? it->second : 0;
}

// Forgets every count.
CTM_DOUBLE_API void ctmDoubleReset(void) {
    const std::lock_guard<std::mutex> lock(g_callsMutex);
    g_mapCalls.clear();
}

}  // extern "C"

#include "support/alloc_counter.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
thread_local std::size_t t_nAllocations = 0;
std::atomic<std::size_t> g_nLiveBytes{0};

void* countedAllocNoThrow(std::size_t nSize) noexcept {
    ++t_nAllocations;
    void* p = std::malloc(nSize == 0 ? 1 : nSize);
    if (p != nullptr) {
        g_nLiveBytes.fetch_add(malloc_usable_size(p), std::memory_order_relaxed);
    }
    return p;
}

void* countedAlloc(std::size_t nSize) {
    void* p = countedAllocNoThrow(nSize);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

void countedFree(void* p) noexcept {
    if (p != nullptr) {
        g_nLiveBytes.fetch_sub(malloc_usable_size(p), std::memory_order_relaxed);
        std::free(p);
    }
}
}  // namespace

namespace kiv::test {
std::size_t threadAllocationCount() noexcept {
    return t_nAllocations;
}
std::size_t liveHeapBytes() noexcept {
    return g_nLiveBytes.load(std::memory_order_relaxed);
}
}  // namespace kiv::test

void* operator new(std::size_t nSize) {
    return countedAlloc(nSize);
}
void* operator new[](std::size_t nSize) {
    return countedAlloc(nSize);
}
void* operator new(std::size_t nSize, const std::nothrow_t&) noexcept {
    return countedAllocNoThrow(nSize);
}
void* operator new[](std::size_t nSize, const std::nothrow_t&) noexcept {
    return countedAllocNoThrow(nSize);
}
void operator delete(void* p) noexcept {
    countedFree(p);
}
void operator delete[](void* p) noexcept {
    countedFree(p);
}
void operator delete(void* p, std::size_t) noexcept {
    countedFree(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    countedFree(p);
}

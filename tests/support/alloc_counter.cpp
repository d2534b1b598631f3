#include "support/alloc_counter.h"

#include <cstdlib>
#include <new>

namespace {
thread_local std::size_t t_nAllocations = 0;

void* countedAlloc(std::size_t nSize) {
    ++t_nAllocations;
    void* p = std::malloc(nSize == 0 ? 1 : nSize);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}
}  // namespace

namespace kiv::test {
std::size_t threadAllocationCount() noexcept {
    return t_nAllocations;
}
}  // namespace kiv::test

void* operator new(std::size_t nSize) {
    return countedAlloc(nSize);
}
void* operator new[](std::size_t nSize) {
    return countedAlloc(nSize);
}
void* operator new(std::size_t nSize, const std::nothrow_t&) noexcept {
    ++t_nAllocations;
    return std::malloc(nSize == 0 ? 1 : nSize);
}
void* operator new[](std::size_t nSize, const std::nothrow_t&) noexcept {
    ++t_nAllocations;
    return std::malloc(nSize == 0 ? 1 : nSize);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}

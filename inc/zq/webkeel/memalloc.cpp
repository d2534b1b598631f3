#include "zq/webkeel/memalloc.h"

#include <atomic>
#include <cstdlib>

namespace kiv {
namespace {

// Each block carries its size in a header so that delete can keep the byte count exact.
// The header is 16 bytes so that the payload keeps the alignment malloc gives.
struct alignas(16) BlockHeader {
    std::size_t nSize;
};

std::atomic<std::uint64_t> g_nLiveBlocks{0};
std::atomic<std::uint64_t> g_nLiveBytes{0};
std::atomic<std::uint64_t> g_nTotalAllocations{0};
thread_local const char* t_pszLastFile = nullptr;
thread_local int t_nLastLine = 0;

void* allocate(std::size_t nSize) {
    void* pRaw = std::malloc(sizeof(BlockHeader) + nSize);
    if (pRaw == nullptr) {
        throw OutOfMemoryError();
    }
    static_cast<BlockHeader*>(pRaw)->nSize = nSize;
    g_nLiveBlocks.fetch_add(1, std::memory_order_relaxed);
    g_nLiveBytes.fetch_add(nSize, std::memory_order_relaxed);
    g_nTotalAllocations.fetch_add(1, std::memory_order_relaxed);
    return static_cast<BlockHeader*>(pRaw) + 1;
}

void release(void* p) noexcept {
    if (p == nullptr) {
        return;
    }
    BlockHeader* pHeader = static_cast<BlockHeader*>(p) - 1;
    g_nLiveBlocks.fetch_sub(1, std::memory_order_relaxed);
    g_nLiveBytes.fetch_sub(pHeader->nSize, std::memory_order_relaxed);
    std::free(pHeader);
}

}  // namespace

void* MemAllocNewdel::operator new(std::size_t nSize) {
    t_pszLastFile = nullptr;
    t_nLastLine = 0;
    return allocate(nSize);
}

void* MemAllocNewdel::operator new(std::size_t nSize, const char* pszFile, int nLine) {
    t_pszLastFile = pszFile;
    t_nLastLine = nLine;
    return allocate(nSize);
}

void* MemAllocNewdel::operator new[](std::size_t nSize) {
    return allocate(nSize);
}

void MemAllocNewdel::operator delete(void* p) noexcept {
    release(p);
}

void MemAllocNewdel::operator delete(void* p, const char*, int) noexcept {
    release(p);
}

void MemAllocNewdel::operator delete[](void* p) noexcept {
    release(p);
}

MemAllocNewdel::Stats MemAllocNewdel::stats() noexcept {
    return Stats{g_nLiveBlocks.load(std::memory_order_relaxed),
                 g_nLiveBytes.load(std::memory_order_relaxed),
                 g_nTotalAllocations.load(std::memory_order_relaxed)};
}

const char* MemAllocNewdel::lastAllocationFile() noexcept {
    return t_pszLastFile;
}

int MemAllocNewdel::lastAllocationLine() noexcept {
    return t_nLastLine;
}

}  // namespace kiv

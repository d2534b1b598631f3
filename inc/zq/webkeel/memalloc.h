// The allocation base of every heap object of the library.
//
// Classes derive from MemAllocNewdel so that their heap blocks are counted process-wide and,
// when made with ZQ_NEW, tagged with the source file and line of the allocation. The counters
// let tests and benchmarks see how many bytes and blocks the library holds without an external
// tool. A failed allocation throws OutOfMemoryError, which the logger's entry points swallow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

namespace kiv {

// The in-house out-of-memory error: a std::bad_alloc, so code that knows only the standard
// library still recognises it.
class OutOfMemoryError : public std::bad_alloc {
public:
    const char* what() const noexcept override { return "out of memory"; }
};

// Room that keeps the fields around it off the cache lines of whatever the allocator puts next
// to the object. An object that its thread writes on every message (its logger, its writer set,
// its render scratch) starts and ends with one: two threads' objects made at the same moment
// can sit side by side, and without the gap each thread's writes would take the other's cache
// line away from it, message after message.
struct CacheLineGap {
    static constexpr std::size_t kBytes = 64;
    char m_arrBytes[kBytes] = {};
};

class MemAllocNewdel {
public:
    static void* operator new(std::size_t nSize);
    static void* operator new(std::size_t nSize, const char* pszFile, int nLine);
    static void* operator new[](std::size_t nSize);
    static void* operator new(std::size_t, void* pPlace) noexcept { return pPlace; }
    static void operator delete(void* p) noexcept;
    static void operator delete(void* p, const char* pszFile, int nLine) noexcept;
    static void operator delete[](void* p) noexcept;
    static void operator delete(void*, void*) noexcept {}

    struct Stats {
        std::uint64_t nLiveBlocks;
        std::uint64_t nLiveBytes;
        std::uint64_t nTotalAllocations;
    };
    // Counters over every block allocated through this base, in all threads.
    static Stats stats() noexcept;

    // The source location of the last block allocated with ZQ_NEW on this thread (for
    // diagnostics; null when the last allocation carried no tag).
    static const char* lastAllocationFile() noexcept;
    static int lastAllocationLine() noexcept;
};

}  // namespace kiv

// Allocates through MemAllocNewdel, tagging the block with the caller's file and line.
#define ZQ_NEW new (__FILE__, __LINE__)

// Counts the calls to the global operator new made by the current thread, so that a test can
// assert that a piece of code allocates nothing. The replacement operators live in
// alloc_counter.cpp and are linked into every test program.
#pragma once

#include <cstddef>

namespace kiv::test {

// Allocations made by this thread since it started.
std::size_t threadAllocationCount() noexcept;

// Bytes held by blocks from operator new in the whole process right now (usable sizes, so
// a little more than was asked for).
std::size_t liveHeapBytes() noexcept;

// Allocations made by this thread inside the scope of one object.
class AllocationScope {
public:
    AllocationScope() noexcept : m_nStart(threadAllocationCount()) {}
    std::size_t count() const noexcept { return threadAllocationCount() - m_nStart; }

private:
    std::size_t m_nStart;
};

}  // namespace kiv::test

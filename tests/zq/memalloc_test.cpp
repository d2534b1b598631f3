#include "zq/webkeel/memalloc.h"

#include <gtest/gtest.h>

#include <cstring>

namespace kiv {
namespace {

struct Tracked : MemAllocNewdel {
    char m_arrPayload[100];
};

TEST(MemAllocTest, CountsLiveBlocksAndBytes) {
    const auto before = MemAllocNewdel::stats();
    const int nLine = __LINE__ + 1;
    Tracked* p = ZQ_NEW Tracked;
    const auto during = MemAllocNewdel::stats();
    EXPECT_EQ(during.nLiveBlocks, before.nLiveBlocks + 1);
    EXPECT_EQ(during.nLiveBytes, before.nLiveBytes + sizeof(Tracked));
    EXPECT_NE(std::strstr(MemAllocNewdel::lastAllocationFile(), "memalloc_test.cpp"), nullptr);
    EXPECT_EQ(MemAllocNewdel::lastAllocationLine(), nLine);
    delete p;
    const auto after = MemAllocNewdel::stats();
    EXPECT_EQ(after.nLiveBlocks, before.nLiveBlocks);
    EXPECT_EQ(after.nLiveBytes, before.nLiveBytes);
}

TEST(MemAllocTest, UntaggedAllocationClearsTag) {
    delete ZQ_NEW Tracked;
    Tracked* p = new Tracked;
    EXPECT_EQ(MemAllocNewdel::lastAllocationFile(), nullptr);
    delete p;
}

TEST(MemAllocTest, PayloadIsAligned) {
    Tracked* p = new Tracked;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
    delete p;
}

TEST(MemAllocTest, OutOfMemoryErrorIsABadAlloc) {
    try {
        throw OutOfMemoryError();
    } catch (const std::bad_alloc& e) {
        EXPECT_STREQ(e.what(), "out of memory");
    }
}

}  // namespace
}  // namespace kiv

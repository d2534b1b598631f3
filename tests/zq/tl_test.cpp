#include "zq/tl/hashmap.h"
#include "zq/tl/stacked_vector.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/alloc_counter.h"
#include "zq/webkeel/assert.h"

namespace kiv {
namespace {

// --- hash_map ---

TEST(HashMapTest, DefaultMapHoldsTenEntriesWithoutRehash) {
    tl::hash_map<int, int> map;
    const std::size_t nBuckets = map.bucket_count();
    EXPECT_GE(nBuckets, (tl::hash_map<int, int>::kDefaultBuckets));
    for (int i = 0; i < 10; ++i) {
        map[i] = i * i;
    }
    EXPECT_EQ(map.bucket_count(), nBuckets);
    for (int i = 10; i < 200; ++i) {
        map[i] = i * i;
    }
    EXPECT_GT(map.bucket_count(), nBuckets);
    EXPECT_EQ(map.size(), 200u);
    for (int i = 0; i < 200; ++i) {
        ASSERT_NE(map.find(i), map.end());
        EXPECT_EQ(map.find(i)->second, i * i);
    }
}

TEST(HashMapTest, Operations) {
    tl::hash_map<std::string, int> map;
    EXPECT_TRUE(map.empty());
    EXPECT_TRUE(map.insert({"one", 1}).second);
    EXPECT_FALSE(map.insert({"one", 10}).second);
    EXPECT_TRUE(map.emplace("two", 2).second);
    map["three"] = 3;
    EXPECT_EQ(map.size(), 3u);
    EXPECT_EQ(map.count("one"), 1u);
    EXPECT_EQ(map.count("four"), 0u);
    EXPECT_TRUE(map.contains("two"));
    EXPECT_EQ(map["one"], 1);

    int nSum = 0;
    for (const auto& [strKey, nValue] : map) {
        nSum += nValue;
    }
    EXPECT_EQ(nSum, 6);

    EXPECT_EQ(map.erase("two"), 1u);
    EXPECT_EQ(map.erase("two"), 0u);
    map.erase(map.find("three"));
    EXPECT_EQ(map.size(), 1u);

    const auto& constMap = map;
    EXPECT_EQ(constMap.find("one")->second, 1);
    EXPECT_EQ(constMap.find("three"), constMap.end());

    map.reserve(1000);
    EXPECT_GE(map.bucket_count(), 1000u);
    map.clear();
    EXPECT_TRUE(map.empty());
}

TEST(HashMapTest, PointerHashIsTheAddress) {
    int nValue = 0;
    const tl::pointer_hash hash;
    EXPECT_EQ(hash(&nValue), reinterpret_cast<std::size_t>(&nValue));
    EXPECT_EQ(hash(static_cast<const void*>(&nValue)), reinterpret_cast<std::size_t>(&nValue));
    EXPECT_EQ(hash(static_cast<int*>(nullptr)), 0u);

    int arrObjects[3] = {};
    tl::hash_map<const int*, int, tl::pointer_hash> map;
    for (int i = 0; i < 3; ++i) {
        map[&arrObjects[i]] = i;
    }
    EXPECT_EQ(map[&arrObjects[1]], 1);
    EXPECT_EQ(map.size(), 3u);
}

TEST(HashMapTest, WideStringHashIsTheStringHash) {
    const tl::wstring_hash hash;
    EXPECT_EQ(hash(String(L"request")), String(L"request").hash());
    EXPECT_EQ(hash(std::wstring(L"request")), String(L"request").hash());
    tl::hash_map<String, int, tl::wstring_hash> map;
    map[String(L"status")] = 200;
    EXPECT_EQ(map.count(String(L"status")), 1u);
    EXPECT_EQ(map.count(String(L"Status")), 0u);
}

// --- stacked_vector ---

// Counts live objects so that a test can see every element destroyed exactly once.
struct Tracked {
    static int s_nLive;
    explicit Tracked(int n) : nValue(n) { ++s_nLive; }
    Tracked(const Tracked& other) : nValue(other.nValue) { ++s_nLive; }
    Tracked(Tracked&& other) noexcept : nValue(other.nValue) {
        other.nValue = -1;
        ++s_nLive;
    }
    Tracked& operator=(const Tracked&) = default;
    Tracked& operator=(Tracked&& other) noexcept {
        nValue = other.nValue;
        other.nValue = -1;
        return *this;
    }
    ~Tracked() { --s_nLive; }
    int nValue;
};
int Tracked::s_nLive = 0;

template <std::size_t N, class T>
std::vector<int> valuesOf(const local_heap::stacked_vector<N, T>& vec) {
    std::vector<int> vecValues;
    for (const T& item : vec) {
        vecValues.push_back(item.nValue);
    }
    return vecValues;
}

// Strings too long for the small-string buffer, so that each owns a heap block ASan watches.
std::string longText(int n) {
    return std::string(40, static_cast<char>('a' + n % 26));
}

TEST(StackedVectorTest, KeepsUpToNInlineThenMovesToTheHeap) {
    local_heap::stacked_vector<4, int> vec;
    EXPECT_EQ(vec.capacity(), 4u);
    test::AllocationScope scope;
    for (int i = 0; i < 4; ++i) {
        vec.push_back(i);
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_FALSE(vec.isOnHeap());
    EXPECT_EQ(vec.capacity(), 4u);

    vec.push_back(4);
    EXPECT_EQ(scope.count(), 1u);
    EXPECT_TRUE(vec.isOnHeap());
    EXPECT_EQ(vec.capacity(), 8u);
    ASSERT_EQ(vec.size(), 5u);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(vec[i], i);
    }
    EXPECT_EQ(vec.back(), 4);
}

TEST(StackedVectorTest, ClearKeepsStorageAndReserveGrowsOnlyWhenNeeded) {
    local_heap::stacked_vector<2, int> vec;
    vec.reserve(2);
    EXPECT_FALSE(vec.isOnHeap());
    vec.reserve(10);
    EXPECT_TRUE(vec.isOnHeap());
    EXPECT_EQ(vec.capacity(), 10u);
    vec.push_back(1);
    vec.clear();
    EXPECT_TRUE(vec.empty());
    test::AllocationScope scope;
    for (int i = 0; i < 10; ++i) {
        vec.push_back(i);
    }
    EXPECT_EQ(scope.count(), 0u);
}

TEST(StackedVectorTest, EraseKeepsOrder) {
    local_heap::stacked_vector<3, std::string> vec;
    for (int i = 0; i < 6; ++i) {
        vec.push_back(longText(i));
    }
    auto it = vec.erase(vec.begin() + 1);
    EXPECT_EQ(*it, longText(2));
    it = vec.erase(vec.begin());
    EXPECT_EQ(*it, longText(2));
    it = vec.erase(vec.end() - 1);
    EXPECT_EQ(it, vec.end());
    ASSERT_EQ(vec.size(), 3u);
    EXPECT_EQ(vec[0], longText(2));
    EXPECT_EQ(vec[1], longText(3));
    EXPECT_EQ(vec[2], longText(4));
}

TEST(StackedVectorTest, PopBackAndEmplaceBack) {
    local_heap::stacked_vector<2, std::string> vec;
    EXPECT_EQ(vec.emplace_back(5, 'x'), "xxxxx");
    vec.emplace_back(longText(1));
    vec.emplace_back(longText(2));
    vec.pop_back();
    EXPECT_EQ(vec.size(), 2u);
    EXPECT_EQ(vec.back(), longText(1));
    EXPECT_EQ(vec.front(), "xxxxx");
}

TEST(StackedVectorTest, PopBackOnEmptyIsReportedAndIgnored) {
    AssertionCapture capture;
    local_heap::stacked_vector<2, int> vec;
    vec.pop_back();
    EXPECT_TRUE(capture.contains("m_nSize != 0"));
    EXPECT_TRUE(vec.empty());
}

TEST(StackedVectorTest, PushingOwnElementWhileGrowingCopiesIt) {
    local_heap::stacked_vector<2, std::string> vec;
    vec.push_back(longText(0));
    vec.push_back(longText(1));
    vec.push_back(vec[0]);
    vec.push_back(vec[1]);
    vec.push_back(std::move(vec[2]));
    ASSERT_EQ(vec.size(), 5u);
    EXPECT_EQ(vec[3], longText(1));
    EXPECT_EQ(vec[4], longText(0));
}

TEST(StackedVectorTest, CopiesAreIndependentInlineAndOnHeap) {
    local_heap::stacked_vector<3, std::string> small;
    small.push_back(longText(0));
    local_heap::stacked_vector<3, std::string> large;
    for (int i = 0; i < 5; ++i) {
        large.push_back(longText(i));
    }

    auto smallCopy = small;
    auto largeCopy = large;
    EXPECT_FALSE(smallCopy.isOnHeap());
    EXPECT_TRUE(largeCopy.isOnHeap());
    EXPECT_TRUE(smallCopy == small);
    EXPECT_TRUE(largeCopy == large);
    largeCopy[0] = "changed";
    EXPECT_EQ(large[0], longText(0));

    smallCopy = large;
    EXPECT_TRUE(smallCopy == large);
    largeCopy = small;
    EXPECT_TRUE(largeCopy == small);
    const auto& self = largeCopy;
    largeCopy = self;
    EXPECT_TRUE(largeCopy == small);
}

TEST(StackedVectorTest, MovesStealHeapBlocksAndEmptyTheSource) {
    local_heap::stacked_vector<2, std::string> large;
    for (int i = 0; i < 4; ++i) {
        large.push_back(longText(i));
    }
    const std::string* pBlock = large.data();
    local_heap::stacked_vector<2, std::string> moved(std::move(large));
    EXPECT_EQ(moved.data(), pBlock);
    EXPECT_EQ(moved.size(), 4u);
    EXPECT_TRUE(large.empty());
    EXPECT_FALSE(large.isOnHeap());
    large.push_back(longText(9));  // a moved-from vector is usable again

    local_heap::stacked_vector<2, std::string> small;
    small.push_back(longText(5));
    local_heap::stacked_vector<2, std::string> movedSmall(std::move(small));
    EXPECT_FALSE(movedSmall.isOnHeap());
    ASSERT_EQ(movedSmall.size(), 1u);
    EXPECT_EQ(movedSmall[0], longText(5));
    EXPECT_TRUE(small.empty());

    moved = std::move(movedSmall);
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_EQ(moved[0], longText(5));
    movedSmall = std::move(large);
    ASSERT_EQ(movedSmall.size(), 1u);
    EXPECT_EQ(movedSmall[0], longText(9));
}

TEST(StackedVectorTest, SwapExchangesContentsInEveryCombination) {
    using Vec = local_heap::stacked_vector<2, std::string>;
    auto make = [](int nFirst, int nCount) {
        Vec vec;
        for (int i = 0; i < nCount; ++i) {
            vec.push_back(longText(nFirst + i));
        }
        return vec;
    };
    const std::pair<int, int> arrShapes[] = {{1, 2}, {1, 5}, {4, 6}};  // inline, mixed, heap
    for (const auto& [nLeft, nRight] : arrShapes) {
        Vec left = make(0, nLeft);
        Vec right = make(10, nRight);
        swap(left, right);
        EXPECT_TRUE(left == make(10, nRight));
        EXPECT_TRUE(right == make(0, nLeft));
        left.swap(right);
        EXPECT_TRUE(left == make(0, nLeft));
        EXPECT_TRUE(right == make(10, nRight));
    }
}

TEST(StackedVectorTest, EveryElementIsDestroyedExactlyOnce) {
    {
        local_heap::stacked_vector<3, Tracked> vec;
        for (int i = 0; i < 7; ++i) {
            vec.emplace_back(i);
        }
        vec.erase(vec.begin() + 2);
        vec.pop_back();
        EXPECT_EQ(valuesOf(vec), (std::vector<int>{0, 1, 3, 4, 5}));
        EXPECT_EQ(Tracked::s_nLive, 5);

        local_heap::stacked_vector<3, Tracked> copy(vec);
        local_heap::stacked_vector<3, Tracked> other;
        other.emplace_back(100);
        swap(copy, other);
        EXPECT_EQ(valuesOf(copy), (std::vector<int>{100}));
        other = std::move(copy);
        EXPECT_EQ(valuesOf(other), (std::vector<int>{100}));
        EXPECT_EQ(Tracked::s_nLive, 6);
        vec.clear();
        EXPECT_EQ(Tracked::s_nLive, 1);
    }
    EXPECT_EQ(Tracked::s_nLive, 0);
}

TEST(StackedVectorTest, HoldsMoveOnlyElements) {
    local_heap::stacked_vector<2, std::unique_ptr<int>> vec;
    for (int i = 0; i < 5; ++i) {
        vec.push_back(std::make_unique<int>(i));
    }
    vec.erase(vec.begin());
    auto moved = std::move(vec);
    ASSERT_EQ(moved.size(), 4u);
    EXPECT_EQ(*moved[0], 1);
    EXPECT_EQ(*moved.back(), 4);
}

// Its move may throw, so growth copies it instead; the copy fails on demand.
struct FragileCopy {
    static int s_nCopiesLeft;
    static int s_nLive;
    explicit FragileCopy(int n) : nValue(n) { ++s_nLive; }
    FragileCopy(const FragileCopy& other) : nValue(other.nValue) {
        if (s_nCopiesLeft-- == 0) {
            throw std::runtime_error("copy failed");
        }
        ++s_nLive;
    }
    FragileCopy(FragileCopy&& other) : FragileCopy(static_cast<const FragileCopy&>(other)) {}
    ~FragileCopy() { --s_nLive; }
    int nValue;
};
int FragileCopy::s_nCopiesLeft = 1000;
int FragileCopy::s_nLive = 0;

TEST(StackedVectorTest, FailedGrowthLeavesTheVectorAsItWas) {
    {
        local_heap::stacked_vector<3, FragileCopy> vec;
        for (int i = 0; i < 3; ++i) {
            vec.emplace_back(i);
        }
        FragileCopy::s_nCopiesLeft = 1;
        EXPECT_THROW(vec.emplace_back(3), std::runtime_error);
        FragileCopy::s_nCopiesLeft = 1000;
        EXPECT_FALSE(vec.isOnHeap());
        EXPECT_EQ(valuesOf(vec), (std::vector<int>{0, 1, 2}));
        EXPECT_EQ(FragileCopy::s_nLive, 3);
    }
    EXPECT_EQ(FragileCopy::s_nLive, 0);
}

}  // namespace
}  // namespace kiv

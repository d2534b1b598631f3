#include "zq/webkeel/stringbuffer.h"

#include <gtest/gtest.h>

#include <string>

#include "support/alloc_counter.h"

namespace kiv {
namespace {

TEST(StringBufferTest, InlineStorageServesSmallTextsWithoutAllocation) {
    test::AllocationScope scope;
    StringBufferTemplate<511, wchar_t> buffer;
    buffer.append(L"hello ").append(String(L"world")).append(L'!');
    EXPECT_EQ(buffer.view(), L"hello world!");
    EXPECT_FALSE(buffer.isOnHeap());
    EXPECT_EQ(scope.count(), 1u);  // only the String temporary
}

TEST(StringBufferTest, GrowsToHeapAndKeepsText) {
    StringBufferTemplate<8, wchar_t> buffer;
    for (int i = 0; i < 100; ++i) {
        buffer.append(L"0123456789");
    }
    EXPECT_TRUE(buffer.isOnHeap());
    EXPECT_EQ(buffer.size(), 1000u);
    EXPECT_EQ(buffer.c_str()[1000], L'\0');
    EXPECT_EQ(buffer[999], L'9');
}

TEST(StringBufferTest, ClearKeepsCapacitySoReuseDoesNotAllocate) {
    StringBufferBaseTemplate<wchar_t> buffer;
    buffer.append(std::wstring(300, L'x'));
    const std::size_t nCapacity = buffer.capacity();
    buffer.clear();
    EXPECT_TRUE(buffer.empty());
    EXPECT_EQ(buffer.c_str()[0], L'\0');
    test::AllocationScope scope;
    buffer.append(std::wstring_view(L"short text"));
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(buffer.capacity(), nCapacity);
}

TEST(StringBufferTest, EmptyBufferHasTerminatedText) {
    StringBufferBaseTemplate<wchar_t> buffer;
    EXPECT_EQ(buffer.size(), 0u);
    EXPECT_EQ(buffer.c_str()[0], L'\0');
    buffer.append(L"", 0);
    EXPECT_TRUE(buffer.empty());
}

TEST(StringBufferTest, HugeRequestFailsAssertionAndKeepsContent) {
    AssertionCapture capture;
    StringBufferTemplate<16, wchar_t> buffer;
    buffer.append(L"kept");
    EXPECT_FALSE(buffer.reserve(1ULL << 31));
    EXPECT_TRUE(capture.contains("nSize < (1ULL << 31)"));
    EXPECT_EQ(buffer.view(), L"kept");
}

TEST(StringBufferTest, NumbersAppendInDecimal) {
    StringBufferTemplate<64, wchar_t> buffer;
    buffer.appendUnsigned(0).append(L' ').appendUnsigned(18446744073709551615ULL).append(L' ');
    buffer.appendSigned(-9223372036854775807LL - 1);
    EXPECT_EQ(buffer.view(), L"0 18446744073709551615 -9223372036854775808");
}

TEST(StringBufferTest, NumbersOfEveryLengthAppendAcrossTheBuffersGrowth) {
    // Four characters inline: the numbers move the buffer to the heap and grow it there.
    StringBufferTemplate<4, char> buffer;
    std::string strExpected;
    unsigned long long n = 1;
    for (int nDigits = 1; nDigits <= 20; ++nDigits) {
        for (const unsigned long long value : {n - 1, n, n + 7}) {
            buffer.appendUnsigned(value).append(',');
            strExpected += std::to_string(value) + ",";
        }
        n = nDigits < 20 ? n * 10 : n;
    }
    buffer.appendSigned(-1).appendSigned(-10);
    strExpected += "-1-10";
    EXPECT_EQ(std::string(buffer.view()), strExpected);
    EXPECT_EQ(buffer.c_str()[buffer.size()], '\0');
}

TEST(StringBufferTest, TruncateShortensOnly) {
    StringBufferTemplate<16, char> buffer;
    buffer.append("abcdef");
    buffer.truncate(10);
    EXPECT_EQ(buffer.view(), "abcdef");
    buffer.truncate(2);
    EXPECT_EQ(buffer.view(), "ab");
}

}  // namespace
}  // namespace kiv

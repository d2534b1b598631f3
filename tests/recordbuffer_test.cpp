// The record buffer: bytes and wide text gathered as UTF-8, storage kept between records and
// given back after a huge one.
#include "weblogger/internal/recordbuffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/alloc_counter.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

std::string contents(const RecordBuffer& record) {
    return std::string(record.data(), record.size());
}

// Text of n characters that needs one-, two-, three- and four-byte sequences.
std::wstring mixedText(std::size_t n) {
    const wchar_t arrPattern[] = {L'a', L'\u00e9', L'\u20ac', static_cast<wchar_t>(0x1F600), L' '};
    std::wstring text;
    for (std::size_t i = 0; i < n; ++i) {
        text += arrPattern[i % std::size(arrPattern)];
    }
    return text;
}

TEST(RecordBufferTest, ANewBufferIsEmptyAndHoldsNoStorage) {
    const RecordBuffer record;
    EXPECT_EQ(record.size(), 0u);
    EXPECT_EQ(record.capacity(), 0u);
}

TEST(RecordBufferTest, ASecondStampedOnARecordLastsUntilTheNextClear) {
    RecordBuffer record;
    EXPECT_EQ(record.getSecond(), RecordBuffer::kNoSecond);
    record.setSecond(1774744205);
    record.write("x", 1);
    EXPECT_EQ(record.getSecond(), 1774744205);
    record.clear();
    EXPECT_EQ(record.getSecond(), RecordBuffer::kNoSecond);
}

TEST(RecordBufferTest, BytesAndWideTextFollowEachOtherAsUtf8) {
    RecordBuffer record;
    record.write("[", 1);
    const std::wstring text = mixedText(10);
    record.writeUtf8(text.data(), text.size());
    record.write("]\n", 2);
    EXPECT_EQ(contents(record), "[" + toUtf8(text).std() + "]\n");
}

TEST(RecordBufferTest, PiecesOfEveryShortLengthArriveWhole) {
    RecordBuffer record;
    std::string strExpected;
    for (std::size_t n = 1; n <= 40; ++n) {
        std::string piece;
        for (std::size_t i = 0; i < n; ++i) {
            piece += static_cast<char>('a' + (n + i) % 26);
        }
        record.write(piece.data(), piece.size());
        strExpected += piece;
        ASSERT_EQ(contents(record), strExpected) << "after a piece of " << n << " bytes";
    }
}

TEST(RecordBufferTest, ReservedRoomKeepsWhatIsCommittedAndNothingMore) {
    RecordBuffer record;
    char* pRoom = record.reserve(10);
    ASSERT_NE(pRoom, nullptr);
    std::memcpy(pRoom, "abcdefghij", 10);
    record.commit(4);
    EXPECT_EQ(contents(record), "abcd");
    // Room beyond the storage grows it and keeps what is there.
    const std::size_t nBeyond = record.capacity() * 2;
    pRoom = record.reserve(nBeyond);
    EXPECT_GE(record.capacity() - record.size(), nBeyond);
    std::memset(pRoom, 'x', nBeyond);
    record.commit(nBeyond);
    EXPECT_EQ(contents(record), "abcd" + std::string(nBeyond, 'x'));
    record.write("!", 1);
    EXPECT_EQ(contents(record).back(), '!');
}

TEST(RecordBufferTest, EmptyPiecesWriteNothingAndAllocateNothing) {
    RecordBuffer record;
    const test::AllocationScope scope;
    record.write("x", 0);
    record.writeUtf8(L"x", 0);
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(record.size(), 0u);
}

TEST(RecordBufferTest, ARecordLongerThanTheStorageGrowsItAndKeepsEveryByte) {
    RecordBuffer record;
    std::string strExpected;
    // Pieces short and long, so both the inline and the growing paths meet the old bytes.
    for (const std::size_t n : {5u, 300u, 1023u, 1024u, 1025u, 7000u, 3u}) {
        const std::wstring text = mixedText(n);
        record.writeUtf8(text.data(), text.size());
        strExpected += toUtf8(text).std();
        const std::string bytes(n * 3, 'b');
        record.write(bytes.data(), bytes.size());
        strExpected += bytes;
    }
    EXPECT_EQ(contents(record), strExpected);
    EXPECT_GE(record.capacity(), record.size());
}

TEST(RecordBufferTest, ClearKeepsTheStorageSoTheNextRecordAllocatesNothing) {
    RecordBuffer record;
    const std::wstring text = mixedText(3000);
    record.writeUtf8(text.data(), text.size());
    const std::size_t nCapacity = record.capacity();
    record.clear();
    EXPECT_EQ(record.size(), 0u);
    EXPECT_EQ(record.capacity(), nCapacity);
    const test::AllocationScope scope;
    record.writeUtf8(text.data(), text.size());
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(contents(record), toUtf8(text).std());
}

TEST(RecordBufferTest, ClearGivesBackTheStorageOfAHugeRecord) {
    RecordBuffer record;
    const std::string huge(RecordBuffer::kKeptBytes + 1, 'h');
    record.write(huge.data(), huge.size());
    EXPECT_GT(record.capacity(), RecordBuffer::kKeptBytes);
    record.clear();
    EXPECT_EQ(record.capacity(), 0u);
    record.write("after", 5);
    EXPECT_EQ(contents(record), "after");
    EXPECT_EQ(record.capacity(), RecordBuffer::kInitialBytes);
}

TEST(RecordBufferTest, InvalidCodeUnitsBecomeTheReplacementCharacterAsEverywhere) {
    RecordBuffer record;
    const wchar_t arrText[] = {L'a', static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000),
                               L'z'};
    record.writeUtf8(arrText, std::size(arrText));
    EXPECT_EQ(contents(record), "a\xEF\xBF\xBD\xEF\xBF\xBDz");
}

}  // namespace
}  // namespace kiv

#include "weblogger/internal/ringresume.h"

#include <gtest/gtest.h>

namespace kiv::logger_details {
namespace {

constexpr std::uint64_t kLimit = 1024;

RingFile file(std::uint32_t nIndex, std::time_t tModified, long nNanoseconds = 0,
              long long nSize = 0) {
    return RingFile{nIndex, tModified, nNanoseconds, nSize};
}

TEST(RingResumeTest, NoFileResumesNothing) {
    EXPECT_EQ(chooseRingFileToResume({}, 10, true, kLimit), -1);
}

TEST(RingResumeTest, SingleNewestFileIsResumed) {
    EXPECT_EQ(chooseRingFileToResume({file(0, 100), file(1, 300), file(2, 200)}, 5, true, kLimit),
              1);
    EXPECT_EQ(chooseRingFileToResume({file(4, 100)}, 5, false, kLimit), 4);
}

TEST(RingResumeTest, SubSecondPartTellsEqualSecondsApart) {
    EXPECT_EQ(chooseRingFileToResume({file(0, 100, 900), file(1, 100, 200), file(2, 100, 500)}, 3,
                                     false, kLimit),
              0);
}

TEST(RingResumeTest, OrderOfTheListDoesNotMatter) {
    EXPECT_EQ(chooseRingFileToResume({file(2, 100), file(0, 50), file(1, 100)}, 10, false, kLimit),
              2);
}

TEST(RingResumeTest, TiesFormingOneRunResumeTheRunsLastFile) {
    EXPECT_EQ(chooseRingFileToResume({file(3, 500), file(4, 500), file(5, 500), file(6, 400)}, 10,
                                     false, kLimit),
              5);
}

TEST(RingResumeTest, TiesFormingOneRunAcrossTheRingsEndResumeTheRunsLastFile) {
    std::vector<RingFile> vecFiles;
    for (std::uint32_t i = 2; i < 8; ++i) {
        vecFiles.push_back(file(i, 400));
    }
    for (std::uint32_t i : {8u, 9u, 0u, 1u}) {
        vecFiles.push_back(file(i, 500));
    }
    EXPECT_EQ(chooseRingFileToResume(vecFiles, 10, false, kLimit), 1);
    EXPECT_EQ(chooseRingFileToResume(vecFiles, 10, true, kLimit), 1);
}

TEST(RingResumeTest, WholeRingAtOneTimeUnderSizeRotationResumesTheOneFileBelowTheLimit) {
    EXPECT_EQ(chooseRingFileToResume(
                  {file(0, 100, 0, kLimit), file(1, 100, 0, 10), file(2, 100, 0, kLimit + 5)}, 3,
                  true, kLimit),
              1);
}

TEST(RingResumeTest, WholeRingAtOneTimeWithoutOneFileBelowTheLimitResumesTheLowestIndex) {
    // Two below the limit: nothing tells them apart.
    EXPECT_EQ(
        chooseRingFileToResume({file(0, 100, 0, kLimit), file(1, 100, 0, 10), file(2, 100, 0, 20)},
                               3, true, kLimit),
        0);
    // None below the limit.
    EXPECT_EQ(
        chooseRingFileToResume({file(0, 100, 0, kLimit), file(1, 100, 0, kLimit)}, 2, true, kLimit),
        0);
    // Time rotation leaves no size to read.
    EXPECT_EQ(chooseRingFileToResume(
                  {file(0, 100, 0, kLimit), file(1, 100, 0, 10), file(2, 100, 0, kLimit)}, 3, false,
                  kLimit),
              0);
}

TEST(RingResumeTest, TiesThatAreNotOneRunResumeTheLowestIndex) {
    EXPECT_EQ(chooseRingFileToResume({file(2, 500), file(5, 500), file(3, 100)}, 10, false, kLimit),
              2);
    EXPECT_EQ(chooseRingFileToResume({file(9, 500), file(0, 500), file(4, 500)}, 10, true, kLimit),
              0);
}

TEST(RingResumeTest, RingIndexIsReadFromTheName) {
    EXPECT_EQ(ringIndexOf("kiv0.log", "kiv", 10), 0);
    EXPECT_EQ(ringIndexOf("kiv7.log", "kiv", 10), 7);
    EXPECT_EQ(ringIndexOf("app-x-123.log", "app-x-", 1000), 123);
    EXPECT_EQ(ringIndexOf("kiv999999.log", "kiv", 1000000), 999999);
}

TEST(RingResumeTest, RingIndexRejectsLeadingZeros) {
    EXPECT_EQ(ringIndexOf("kiv01.log", "kiv", 10), -1);
    EXPECT_EQ(ringIndexOf("kiv00.log", "kiv", 10), -1);
}

TEST(RingResumeTest, RingIndexRejectsOtherPrefixesAndSuffixes) {
    EXPECT_EQ(ringIndexOf("abc1.log", "kiv", 10), -1);
    EXPECT_EQ(ringIndexOf("kiv1.log", "kiv-", 10), -1);
    EXPECT_EQ(ringIndexOf("xkiv1.log", "kiv", 10), -1);
    EXPECT_EQ(ringIndexOf("kiv1.txt", "kiv", 10), -1);
    EXPECT_EQ(ringIndexOf("kiv.log", "kiv", 10), -1);
    EXPECT_EQ(ringIndexOf("kiv1x.log", "kiv", 10), -1);
    EXPECT_EQ(ringIndexOf("kiv-1.log", "kiv", 10), -1);
}

TEST(RingResumeTest, RingIndexRejectsIndicesOutsideTheRing) {
    EXPECT_EQ(ringIndexOf("kiv10.log", "kiv", 10), -1);
    EXPECT_EQ(ringIndexOf("kiv9.log", "kiv", 10), 9);
    EXPECT_EQ(ringIndexOf("kiv1.log", "kiv", 1), -1);
    EXPECT_EQ(ringIndexOf("kiv99999999999.log", "kiv", 1000000), -1);
}

}  // namespace
}  // namespace kiv::logger_details

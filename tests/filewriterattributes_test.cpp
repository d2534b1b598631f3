#include "weblogger/internal/filewriterattributes.h"

#include <gtest/gtest.h>

namespace kiv::logger_details {
namespace {

constexpr std::uint32_t kDefault = 86400;

TEST(FileWriterAttributesTest, OnlyTheFourWordsTurnAutoFlushOffInAnyCase) {
    for (const wchar_t* pszOff : {L"no", L"NO", L"n", L"N", L"false", L"False", L"0"}) {
        EXPECT_TRUE(isAutoFlushOff(String(pszOff)));
    }
    for (const wchar_t* pszOn : {L"", L"yes", L"off", L"nope", L"00", L" no", L"1"}) {
        EXPECT_FALSE(isAutoFlushOff(String(pszOn)));
    }
}

TEST(FileWriterAttributesTest, IntervalIsHoursRoundedToSeconds) {
    EXPECT_EQ(intervalSeconds(String(L"1"), kDefault), 3600u);
    EXPECT_EQ(intervalSeconds(String(L"0.5"), kDefault), 1800u);
    EXPECT_EQ(intervalSeconds(String(L"0.0002"), kDefault), 1u);
    EXPECT_EQ(intervalSeconds(String(L"1193046"), kDefault), 4294965600u);
}

TEST(FileWriterAttributesTest, IntervalOutsideTheRangeGivesTheDefault) {
    EXPECT_EQ(intervalSeconds(String(), kDefault), kDefault);
    EXPECT_EQ(intervalSeconds(String(L"0"), kDefault), kDefault);
    EXPECT_EQ(intervalSeconds(String(L"0.0001"), kDefault), kDefault);
    EXPECT_EQ(intervalSeconds(String(L"-1"), kDefault), kDefault);
    EXPECT_EQ(intervalSeconds(String(L"text"), kDefault), kDefault);
    EXPECT_EQ(intervalSeconds(String(L"1193047"), kDefault), kDefault);
    EXPECT_EQ(intervalSeconds(String(L"1"), 7), 3600u);
    EXPECT_EQ(intervalSeconds(String(L"0"), 7), 7u);
}

TEST(FileWriterAttributesTest, FilesNIsDecimalDigitsWithOptionalBlanks) {
    EXPECT_EQ(parseFilesN(String(L"10")), 10u);
    EXPECT_EQ(parseFilesN(String(L" 7\t")), 7u);
    EXPECT_EQ(parseFilesN(String(L"4294967295")), 4294967295u);
}

TEST(FileWriterAttributesTest, FilesNOfAnyOtherShapeIsZero) {
    for (const wchar_t* pszText :
         {L"", L"  ", L"0", L"1e9", L"-1", L"+1", L"1 2", L"0x10", L"ten"}) {
        EXPECT_EQ(parseFilesN(String(pszText)), 0u);
    }
}

TEST(FileWriterAttributesTest, FilesNPastTheBoundSaturatesInsteadOfWrapping) {
    EXPECT_EQ(parseFilesN(String(L"99999999999999999999999")), 0xFFFFFFFFFFull);
    EXPECT_EQ(parseFilesN(String(L"18446744073709551617")), 0xFFFFFFFFFFull);
}

TEST(FileWriterAttributesTest, FileModeIsOctalThatLetsTheOwnerReadAndWrite) {
    EXPECT_EQ(parseFileMode(String(L"640")), 0640);
    EXPECT_EQ(parseFileMode(String(L"0600")), 0600);
    EXPECT_EQ(parseFileMode(String(L"777")), 0777);
    EXPECT_EQ(parseFileMode(String(L"0644")), 0644);
}

TEST(FileWriterAttributesTest, AnyOtherFileModeIsRefused) {
    for (const wchar_t* pszText :
         {L"", L"400", L"200", L"0000", L"1777", L"06400", L"8", L"64a", L"-640", L" 640"}) {
        EXPECT_EQ(parseFileMode(String(pszText)), -1);
    }
}

TEST(FileWriterAttributesTest, DirectoryModeAddsSearchWhereReadingIsGranted) {
    EXPECT_EQ(directoryModeFor(0640), 0750u);
    EXPECT_EQ(directoryModeFor(0600), 0700u);
    EXPECT_EQ(directoryModeFor(0644), 0755u);
    EXPECT_EQ(directoryModeFor(0666), 0777u);
    EXPECT_EQ(directoryModeFor(0620), 0720u);
}

}  // namespace
}  // namespace kiv::logger_details

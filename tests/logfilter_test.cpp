#include "weblogger/logfilter.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "support/test_writer.h"

namespace kiv {
namespace {

using test::RecordingWriter;

Handle<RecordingWriter> makeWriter(short id, Handle<const WriterFilter> filter = nullptr) {
    return Handle<RecordingWriter>(
        new RecordingWriter(String(L"w"), id, LogWriter::WT_SINGLE_THREADED, filter));
}

TEST(LogLevelsTest, FreshRecordIsAllUnset) {
    const LogLevels levels;
    for (int nType = 0; nType < LogSeverity::kMsgTypeCount; ++nType) {
        EXPECT_EQ(levels.m_arrLogLevels[nType], 65535);
    }
    const LogLevels given(1, 2, 3, 4, 5);
    EXPECT_EQ(given.get(LogSeverity::SV_INCIDENT_ERROR), 1);
    EXPECT_EQ(given.get(LogSeverity::SV_TRACE), 5);
}

TEST(LogFilterTest, FreshFilterRejectsEverything) {
    const LogFilter filter;
    for (short nId = 0; nId < 10; ++nId) {
        auto hWriter = makeWriter(nId);
        EXPECT_FALSE(filter.isLogEnabled(kSevErrorCorruption, hWriter.get()));
        EXPECT_FALSE(filter.isLogEnabled(kSevErrorFatal, hWriter.get()));
        EXPECT_FALSE(filter.isLogEnabled(kSevInfoCritical, hWriter.get()));
        EXPECT_FALSE(filter.isLogEnabled(kSevTraceFine, hWriter.get()));
    }
}

TEST(LogFilterTest, ThresholdZeroRejectsImportanceOne) {
    LogFilter filter;
    auto hWriter = makeWriter(2);
    filter.setLogLevels(LogLevels(0, 0, 0, 0, 0), hWriter.get());
    EXPECT_FALSE(filter.isLogEnabled(kSevErrorFatal, hWriter.get()));
    EXPECT_FALSE(filter.isLogEnabled(kSevTraceFine, hWriter.get()));
}

TEST(LogFilterTest, Threshold65534AcceptsEverythingUpTo65534) {
    LogFilter filter;
    auto hWriter = makeWriter(2);
    filter.setLogLevels(LogLevels(65534, 65534, 65534, 65534, 65534), hWriter.get());
    EXPECT_TRUE(filter.isLogEnabled(LogSeverity(LogSeverity::SV_ERROR, 65534), hWriter.get()));
    EXPECT_TRUE(filter.isLogEnabled(kSevTraceFinest, hWriter.get()));
    EXPECT_FALSE(filter.isLogEnabled(LogSeverity(LogSeverity::SV_ERROR, 65535), hWriter.get()));
}

TEST(LogFilterTest, ThresholdEqualToImportanceAccepts) {
    LogFilter filter;
    auto hWriter = makeWriter(0);
    filter.setLogLevels(LogLevels(1, 16, 16, 20, 16), hWriter.get());
    EXPECT_TRUE(filter.isLogEnabled(kSevError, hWriter.get()));
    EXPECT_FALSE(filter.isLogEnabled(kSevErrorUser, hWriter.get()));
    EXPECT_TRUE(filter.isLogEnabled(kSevInfo, hWriter.get()));
    EXPECT_TRUE(filter.isLogEnabled(kSevTraceFiner, hWriter.get()));
    EXPECT_FALSE(filter.isLogEnabled(kSevTraceFinest, hWriter.get()));
}

TEST(LogFilterTest, ThresholdsArePerWriterId) {
    LogFilter filter;
    auto hFirst = makeWriter(1);
    auto hSecond = makeWriter(7);
    filter.setLogLevels(LogLevels(32, 32, 32, 32, 32), hFirst.get());
    EXPECT_TRUE(filter.isLogEnabled(kSevError, hFirst.get()));
    EXPECT_FALSE(filter.isLogEnabled(kSevError, hSecond.get()));
}

TEST(LogFilterTest, SetMissingSettingsWithoutParentTurnsUnsetIntoZero) {
    LogFilter filter;
    filter.setLogLevelsForId(4, LogLevels(0, 7, 65534, 65535, 65535));
    filter.setMissingSettings(nullptr);
    EXPECT_EQ(filter.getLogLevels(4), LogLevels(0, 7, 65534, 0, 0));
    EXPECT_EQ(filter.getLogLevels(0), LogLevels(0, 0, 0, 0, 0));
}

TEST(LogFilterTest, SetMissingSettingsFromParentFillsOnlyUnsetSlots) {
    LogFilter parent;
    parent.setLogLevelsForId(3, LogLevels(1, 2, 3, 4, 5));
    LogFilter child;
    child.setLogLevelsForId(3, LogLevels(9, 65535, 0, 65535, 65534));
    child.setMissingSettings(&parent);
    EXPECT_EQ(child.getLogLevels(3), LogLevels(9, 2, 0, 4, 65534));
    // The parent's own unset values travel down as unset.
    EXPECT_EQ(child.getLogLevels(5), LogLevels());
}

TEST(LogFilterTest, ResetWithEmptyGroupChangesNothing) {
    LogFilter filter;
    filter.setLogLevelsForId(3, LogLevels(1, 2, 3, 4, 5));
    filter.resetLogLevels(LogWritersGroup());
    EXPECT_EQ(filter.getLogLevels(3), LogLevels(1, 2, 3, 4, 5));
}

TEST(LogFilterTest, ResetWithWriterThreeUnsetsExactlyItsThresholds) {
    LogFilter filter;
    for (int nId = 0; nId < 10; ++nId) {
        filter.setLogLevelsForId(nId, LogLevels(1, 2, 3, 4, 5));
    }
    LogWritersGroup group;
    group.add(3);
    filter.resetLogLevels(group);
    for (int nId = 0; nId < 10; ++nId) {
        EXPECT_EQ(filter.getLogLevels(nId), nId == 3 ? LogLevels() : LogLevels(1, 2, 3, 4, 5));
    }
}

TEST(LogFilterTest, InfoMinorIsGovernedByTheTraceThreshold) {
    LogFilter filter;
    auto hWriter = makeWriter(0);
    filter.setLogLevels(LogLevels(65534, 65534, 65534, 65534, 0), hWriter.get());
    EXPECT_FALSE(filter.isLogEnabled(kSevInfoMinor, hWriter.get()));
    filter.setLogLevels(LogLevels(0, 0, 0, 0, 1), hWriter.get());
    EXPECT_TRUE(filter.isLogEnabled(kSevInfoMinor, hWriter.get()));
}

TEST(LogFilterTest, WriterIdOutsideTheTableIsReportedAndRejected) {
    AssertionCapture capture;
    LogFilter filter;
    filter.setLogLevelsForId(0, LogLevels(32, 32, 32, 32, 32));
    auto hNegative = makeWriter(-1);
    EXPECT_FALSE(filter.isLogEnabled(kSevError, hNegative.get()));
    EXPECT_TRUE(capture.contains("nId < 10"));
}

// The summary behind the inline guard: whether any writer id's threshold could accept.
bool anyIdAccepts(const LogFilter& filter, const LogSeverity& severity) {
    for (int nId = 0; nId < kMaxWriterIds; ++nId) {
        if (filter.getLogLevels(nId).accepts(severity)) {
            return true;
        }
    }
    return false;
}

void expectSummaryExact(const LogFilter& filter) {
    for (int nType = 0; nType < LogSeverity::kMsgTypeCount; ++nType) {
        for (std::uint64_t nImportance : {0ull, 1ull, 2ull, 99ull, 100ull, 101ull, 65533ull,
                                          65534ull, 65535ull, 65536ull, 1ull << 40}) {
            const LogSeverity severity(static_cast<LogSeverity::MsgType>(nType), nImportance);
            EXPECT_EQ(filter.mayAccept(severity), anyIdAccepts(filter, severity))
                << "type " << nType << " importance " << nImportance;
        }
    }
}

TEST(LogFilterSummaryTest, FreshFilterMayAcceptNothing) {
    const LogFilter filter;
    EXPECT_FALSE(filter.mayAccept(LogSeverity(LogSeverity::SV_INCIDENT_ERROR, 0)));
    expectSummaryExact(filter);
}

TEST(LogFilterSummaryTest, ThresholdZeroMayAcceptImportanceZeroOnly) {
    LogFilter filter;
    filter.setLogLevelsForId(4, LogLevels(0, 0, 0, 0, 0));
    EXPECT_TRUE(filter.mayAccept(LogSeverity(LogSeverity::SV_TRACE, 0)));
    EXPECT_FALSE(filter.mayAccept(LogSeverity(LogSeverity::SV_TRACE, 1)));
    expectSummaryExact(filter);
}

TEST(LogFilterSummaryTest, HighestIdThresholdDecidesAndFollowsEveryChange) {
    LogFilter filter;
    filter.setLogLevelsForId(1, LogLevels(10, 20, 30, 40, 50));
    filter.setLogLevelsForId(9, LogLevels(65534, 5, LogLevels::kNotSet, 400, 0));
    EXPECT_TRUE(filter.mayAccept(LogSeverity(LogSeverity::SV_INFORMATION, 400)));
    EXPECT_FALSE(filter.mayAccept(LogSeverity(LogSeverity::SV_INFORMATION, 401)));
    expectSummaryExact(filter);

    LogWritersGroup group;
    group.add(9);
    filter.resetLogLevels(group);
    EXPECT_FALSE(filter.mayAccept(LogSeverity(LogSeverity::SV_INFORMATION, 41)));
    expectSummaryExact(filter);

    LogFilter parent;
    parent.setLogLevelsForId(9, LogLevels(1000, 1000, 1000, 1000, 1000));
    filter.setMissingSettings(&parent);
    EXPECT_TRUE(filter.mayAccept(LogSeverity(LogSeverity::SV_TRACE, 1000)));
    expectSummaryExact(filter);

    filter.setMissingSettings(nullptr);
    expectSummaryExact(filter);

    LogFilter copy(filter);
    expectSummaryExact(copy);
    copy = LogFilter();
    EXPECT_FALSE(copy.mayAccept(LogSeverity(LogSeverity::SV_INCIDENT_ERROR, 0)));
    expectSummaryExact(copy);
}

TEST(LogFilterSummaryTest, SetThroughAWriterKeepsTheSummaryExact) {
    LogFilter filter;
    const Handle<RecordingWriter> hWriter = makeWriter(7);
    filter.setLogLevels(LogLevels(3, 3, 3, 3, 3), hWriter.get());
    EXPECT_TRUE(filter.mayAccept(LogSeverity(LogSeverity::SV_WARNING, 3)));
    EXPECT_FALSE(filter.mayAccept(LogSeverity(LogSeverity::SV_WARNING, 4)));
    expectSummaryExact(filter);
}

TEST(LogWritersGroupTest, HoldsIdsZeroToNine) {
    AssertionCapture capture;
    LogWritersGroup group;
    group.add(0);
    group.add(9);
    group.add(10);
    EXPECT_TRUE(group.contains(0));
    EXPECT_TRUE(group.contains(9));
    EXPECT_FALSE(group.contains(10));
    EXPECT_FALSE(group.contains(5));
    EXPECT_TRUE(capture.contains("nId < 10"));
}

TEST(DispatchGenerationTest, EveryThresholdChangeMovesIt) {
    using logger_details::DispatchGeneration;
    LogFilter filter;
    std::uint64_t nBefore = DispatchGeneration::current();
    filter.setLogLevelsForId(3, LogLevels(1, 1, 1, 1, 1));
    EXPECT_GT(DispatchGeneration::current(), nBefore);

    nBefore = DispatchGeneration::current();
    LogWritersGroup group;
    group.add(3);
    filter.resetLogLevels(group);
    EXPECT_GT(DispatchGeneration::current(), nBefore);

    nBefore = DispatchGeneration::current();
    filter.setMissingSettings(nullptr);
    EXPECT_GT(DispatchGeneration::current(), nBefore);

    nBefore = DispatchGeneration::current();
    LogFilter copy;
    copy = filter;
    EXPECT_GT(DispatchGeneration::current(), nBefore);
}

}  // namespace
}  // namespace kiv

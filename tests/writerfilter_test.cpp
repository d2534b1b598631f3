// The writer's own filter, decided along the source tree, and its part in a writer's decision.
#include "weblogger/writerfilter.h"

#include <gtest/gtest.h>

#include "support/alloc_counter.h"
#include "support/test_writer.h"
#include "weblogger/logsource.h"

namespace kiv {
namespace {

using test::RecordingWriter;

Handle<RecordingWriter> makeWriter(short id, Handle<const WriterFilter> filter = nullptr) {
    return Handle<RecordingWriter>(
        new RecordingWriter(String(L"w"), id, LogWriter::WT_SINGLE_THREADED, filter));
}

class WriterFilterTest : public ::testing::Test {
protected:
    // wf.a, wf.a.b, wf.a.b.c: a private branch of the process-wide tree.
    LogSourceHandle m_root{String(L"wftest")};
    LogSourceHandle m_a{m_root, String(L"a")};
    LogSourceHandle m_b{m_a, String(L"b")};
    LogSourceHandle m_c{m_b, String(L"c")};
};

TEST_F(WriterFilterTest, UnsetChildEntryLetsParentDecide) {
    WriterFilter filter;
    filter.setLogLevels(*m_b, LogLevels(1, 16, 1, 1, 1));
    filter.setLogLevels(*m_c, LogLevels(1, 65535, 1, 1, 1));
    EXPECT_TRUE(filter.isLogEnabled(kSevError, *m_c));
    EXPECT_FALSE(filter.isLogEnabled(kSevErrorUser, *m_c));
}

TEST_F(WriterFilterTest, SetEntryThatFailsStopsTheSearch) {
    WriterFilter filter(true);
    filter.setLogLevels(*m_root, LogLevels(100, 100, 100, 100, 100));
    filter.setLogLevels(*m_b, LogLevels(0, 0, 0, 0, 0));
    EXPECT_FALSE(filter.isLogEnabled(kSevErrorFatal, *m_c));
    EXPECT_TRUE(filter.isLogEnabled(kSevErrorFatal, *m_a));
}

TEST_F(WriterFilterTest, DefaultFlagAnswersWhenNothingOnThePathIsSet) {
    WriterFilter rejecting(false);
    WriterFilter accepting(true);
    rejecting.setLogLevels(*m_c, LogLevels(65535, 65535, 65535, 65535, 1));
    accepting.setLogLevels(*m_c, LogLevels(65535, 65535, 65535, 65535, 1));
    EXPECT_FALSE(rejecting.isLogEnabled(kSevError, *m_c));
    EXPECT_TRUE(accepting.isLogEnabled(kSevError, *m_c));
    EXPECT_TRUE(rejecting.isLogEnabled(kSevTraceFine, *m_c));
    EXPECT_FALSE(rejecting.isLogEnabled(kSevTraceFine, *m_b));
}

TEST_F(WriterFilterTest, WriterWithoutFilterAcceptsEverySeverityAndSource) {
    auto hWriter = makeWriter(0);
    LoggerState state;
    EXPECT_TRUE(hWriter->isLogEnabled(kSevTraceFinest, state));  // even with no source
    for (const LogSourceHandle* pSource : {&m_root, &m_a, &m_c}) {
        state.pushSource(**pSource);
        EXPECT_TRUE(hWriter->isLogEnabled(kSevErrorCorruption, state));
        EXPECT_TRUE(hWriter->isLogEnabled(kSevTraceFinest, state));
    }
}

TEST_F(WriterFilterTest, WriterWithFilterUsesTheCurrentSource) {
    Handle<WriterFilter> hFilter(new WriterFilter(false));
    hFilter->setLogLevels(*m_a, LogLevels(16, 16, 16, 16, 16));
    auto hWriter = makeWriter(0, hFilter);
    LoggerState state;
    state.pushSource(*m_root);
    EXPECT_FALSE(hWriter->isLogEnabled(kSevError, state));
    state.pushSource(*m_c);
    EXPECT_TRUE(hWriter->isLogEnabled(kSevError, state));
    EXPECT_FALSE(hWriter->isLogEnabled(kSevErrorUser, state));
}

TEST_F(WriterFilterTest, WriterWithFilterAndNoSourceReportsAndUsesDefault) {
    AssertionCapture capture;
    Handle<WriterFilter> hFilter(new WriterFilter(false));
    auto hWriter = makeWriter(0, hFilter);
    const LoggerState state;
    EXPECT_FALSE(hWriter->isLogEnabled(kSevError, state));
    EXPECT_TRUE(capture.contains("rLoggerState.getCurSource() != __null"));
}

TEST_F(WriterFilterTest, SourceFilterAndWriterFilterMustBothPass) {
    // The full decision for one writer: the source's filter, then the writer's own.
    Handle<WriterFilter> hFilter(new WriterFilter(true));
    hFilter->setLogLevels(*m_c, LogLevels(1, 1, 1, 1, 1));
    auto hFiltered = makeWriter(6, hFilter);
    auto hOpen = makeWriter(6);
    LogSource& source =
        *LogSourcesMan::getLogSourcesMan().getLogSource(nullptr, String(L"wftest.a.b.c"));
    source.getLogFilter().setLogLevelsForId(6, LogLevels(16, 16, 16, 16, 16));
    LoggerState state;
    state.pushSource(source);
    const auto decide = [&](const LogWriter& writer, const LogSeverity& severity) {
        return source.getLogFilter().isLogEnabled(severity, &writer) &&
               writer.isLogEnabled(severity, state);
    };
    EXPECT_TRUE(decide(*hOpen, kSevError));
    EXPECT_FALSE(decide(*hFiltered, kSevError));
    EXPECT_TRUE(decide(*hFiltered, kSevErrorFatal));
    EXPECT_FALSE(decide(*hOpen, kSevErrorUser));
}

TEST_F(WriterFilterTest, DecisionsAllocateNothing) {
    WriterFilter writerFilter(false);
    writerFilter.setLogLevels(*m_root, LogLevels(16, 16, 16, 16, 16));
    auto hWriter = makeWriter(1);
    const LogFilter& sourceFilter = m_c->getLogFilter();
    test::AllocationScope scope;
    bool bAny = false;
    for (int i = 0; i < 1000; ++i) {
        bAny |= writerFilter.isLogEnabled(kSevError, *m_c);
        bAny |= sourceFilter.isLogEnabled(kSevError, hWriter.get());
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_TRUE(bAny);
}

}  // namespace
}  // namespace kiv

#include "weblogger/logwriters.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "support/alloc_counter.h"
#include "support/test_writer.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/tmlogger.h"

namespace kiv {
namespace {

using logger_details::GuardAnswer;
using test::RecordingWriter;

class GuardAnswerTest : public ::testing::Test {
protected:
    Handle<RecordingWriter> make(short nId) {
        return Handle<RecordingWriter>(
            new RecordingWriter(String(L"answer"), nId, LogWriter::WT_SINGLE_THREADED, nullptr));
    }
    const LogSeverity m_severity{LogSeverity::SV_WARNING, 300};
};

TEST_F(GuardAnswerTest, NothingIsAnsweredBeforeAWalkWasKept) {
    const GuardAnswer answer;
    EXPECT_FALSE(answer.answers(0, m_severity, 0));
}

TEST_F(GuardAnswerTest, AnswersOnlyTheSameSourceSeverityAndGeneration) {
    const Handle<RecordingWriter> hFirst = make(1);
    const Handle<RecordingWriter> hSecond = make(2);
    const EnabledWritersList writers{hFirst.get(), hSecond.get()};
    GuardAnswer answer;
    answer.keep(7, m_severity, 40, writers);
    EXPECT_TRUE(answer.answers(7, m_severity, 40));
    EXPECT_FALSE(answer.answers(8, m_severity, 40));
    EXPECT_FALSE(answer.answers(7, m_severity, 41));
    EXPECT_FALSE(answer.answers(7, LogSeverity(LogSeverity::SV_WARNING, 301), 40));
    EXPECT_FALSE(answer.answers(7, LogSeverity(LogSeverity::SV_ERROR, 300), 40));
    EnabledWritersList given;
    given.reserve(GuardAnswer::kMaxWriters);
    const test::AllocationScope scope;
    EXPECT_TRUE(answer.giveTo(given));
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(given, writers);
    answer.forget();
    EXPECT_FALSE(answer.answers(7, m_severity, 40));
}

TEST_F(GuardAnswerTest, AnEmptyAnswerIsKeptToo) {
    GuardAnswer answer;
    answer.keep(3, m_severity, 5, EnabledWritersList{});
    ASSERT_TRUE(answer.answers(3, m_severity, 5));
    EnabledWritersList given;
    EXPECT_TRUE(answer.giveTo(given));
    EXPECT_TRUE(given.empty());
}

// The answer is only given into room that is already there: a list that would have to grow
// is left as it was, and the guard walks instead.
TEST_F(GuardAnswerTest, AnAnswerIsNotGivenIntoAListWithoutRoom) {
    const Handle<RecordingWriter> hFirst = make(1);
    const Handle<RecordingWriter> hSecond = make(2);
    GuardAnswer answer;
    answer.keep(7, m_severity, 40, EnabledWritersList{hFirst.get(), hSecond.get()});
    EnabledWritersList given;
    given.reserve(3);
    given.push_back(hFirst.get());
    given.push_back(hFirst.get());
    ASSERT_LT(given.capacity() - given.size(), 2u);
    EXPECT_FALSE(answer.giveTo(given));
    EXPECT_EQ(given, (EnabledWritersList{hFirst.get(), hFirst.get()}));
    given.clear();
    EXPECT_TRUE(answer.giveTo(given));
    EXPECT_EQ(given, (EnabledWritersList{hFirst.get(), hSecond.get()}));
}

TEST_F(GuardAnswerTest, MoreWritersThanItHoldsAreNotKept) {
    std::vector<Handle<RecordingWriter>> vecWriters;
    EnabledWritersList writers;
    for (short nId = 0; nId <= static_cast<short>(GuardAnswer::kMaxWriters); ++nId) {
        vecWriters.push_back(make(nId));
        writers.push_back(vecWriters.back().get());
    }
    GuardAnswer answer;
    answer.keep(3, m_severity, 5, EnabledWritersList{writers.front()});
    answer.keep(3, m_severity, 5, writers);
    EXPECT_FALSE(answer.answers(3, m_severity, 5));
}

// After a walk, the same source and severity are answered from memory, until the process-wide
// count of changes moves on, the global writers change, or the question changes; a walk then
// answers again and is remembered in its turn.
TEST(LogWritersTest, RememberedAnswerIsGivenUntilSomethingItReadChanges) {
    constexpr short kId = 7;
    const LogSourceHandle source(String(L"logwriters.memory"));
    LogSource& mutableSource = const_cast<LogSource&>(*source);
    mutableSource.getLogFilter().setLogLevelsForId(kId, LogLevels(65534, 65534, 65534, 65534, 0));
    Handle<RecordingWriter> hLocal(
        new RecordingWriter(String(L"local"), kId, LogWriter::WT_SINGLE_THREADED, nullptr));
    LogWriters writers;
    writers.addLocalWriter(hLocal.get());
    TmLogger::LoggerState state;
    state.pushSource(*source);
    bool bAny = false;

    EXPECT_FALSE(writers.giveRememberedAnswer(kSevInfo, *source, bAny));
    ASSERT_TRUE(writers.calcEnabledWriters(kSevInfo, state));
    writers.clearEnabledWriters();
    ASSERT_TRUE(writers.giveRememberedAnswer(kSevInfo, *source, bAny));
    EXPECT_TRUE(bAny);
    EXPECT_EQ(writers.getEnabledWriters(), (EnabledWritersList{hLocal.get()}));
    EXPECT_FALSE(writers.giveRememberedAnswer(kSevTraceFine, *source, bAny));

    // A threshold change moves the count on: walked again, and the new answer remembered.
    mutableSource.getLogFilter().setLogLevelsForId(kId, LogLevels(65534, 65534, 65534, 0, 0));
    EXPECT_FALSE(writers.giveRememberedAnswer(kSevInfo, *source, bAny));
    EXPECT_FALSE(writers.calcEnabledWriters(kSevInfo, state));
    ASSERT_TRUE(writers.giveRememberedAnswer(kSevInfo, *source, bAny));
    EXPECT_FALSE(bAny);
    EXPECT_TRUE(writers.getEnabledWriters().empty());

    // A new version of the global writers: only a walk, which copies them, answers.
    logger_details::LogWritersMan::getLogWritersMan().versionIncrement();
    EXPECT_FALSE(writers.giveRememberedAnswer(kSevInfo, *source, bAny));
    state.popSource();
}

// A guard enables a global writer and a local one; before the write the configuration retires
// the global writer and puts its replacement in. The local writer, after the one that refuses,
// still takes the message once, and the replacement takes it for the retired writer.
TEST(LogWritersTest, WriterAfterOneThatRefusesTakesTheMessageOnceAndTheReplacementTakesItToo) {
    constexpr short kId = 7;
    const LogSourceHandle source(String(L"logwriters.refusal"));
    const_cast<LogSource&>(*source).getLogFilter().setLogLevelsForId(
        kId, LogLevels(65534, 65534, 65534, 65534, 65534));
    logger_details::LogWritersMan& registry = logger_details::LogWritersMan::getLogWritersMan();
    registry.clearWriters();
    Handle<RecordingWriter> hRetired(
        new RecordingWriter(String(L"global"), kId, LogWriter::WT_GLOBAL, nullptr));
    registry.versionIncrement();
    Handle<RecordingWriter> hLocal(
        new RecordingWriter(String(L"local"), kId, LogWriter::WT_SINGLE_THREADED, nullptr));
    TmLogger& logger = TmLogger::getLogger();
    logger.addLocalWriter(hLocal.get());
    logger.pushSource(*source);

    ASSERT_TRUE(logger.calcEnabledWriters(kSevInfo));
    const EnabledWritersList& enabled = logger.getLogWriters()->getEnabledWriters();
    ASSERT_EQ(enabled.size(), 2u);
    ASSERT_EQ(enabled[0], hRetired.get());
    Handle<RecordingWriter> hReplacement;
    {
        LockGuard<CriticalSection> lock(registry.getMonitor());
        hRetired->retire();
        registry.clearWriters();
        hReplacement = new RecordingWriter(String(L"global"), kId, LogWriter::WT_GLOBAL, nullptr);
        registry.versionIncrement();
    }
    logger.logToEnabledWriters(kSevInfo, GDString(L"raced"), nullptr);

    EXPECT_EQ(hRetired->recordCount(), 0u);
    EXPECT_EQ(hLocal->recordCount(), 1u);
    ASSERT_EQ(hReplacement->recordCount(), 1u);
    EXPECT_EQ(hReplacement->records()[0].text, String(L"raced"));
    EXPECT_TRUE(logger.getLogWriters()->getEnabledWriters().empty());

    logger.popSource();
    logger.clearLocalWriters();
    registry.clearWriters();
    registry.versionIncrement();
}

}  // namespace
}  // namespace kiv

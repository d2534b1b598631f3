#include "weblogger/logwriters.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "support/alloc_counter.h"
#include "support/test_writer.h"

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
    answer.giveTo(given);
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
    answer.giveTo(given);
    EXPECT_TRUE(given.empty());
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

}  // namespace
}  // namespace kiv

#include "weblogger/loglifetime.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/test_writer.h"

namespace kiv {
namespace {

using test::RecordingWriter;

constexpr short kWriterId = 7;

class LogLifeTimeTest : public ::testing::Test {
protected:
    void SetUp() override {
        TmLogger::getLogger().addLocalWriter(m_hWriter.get());
        allowTraceUpTo(65534);
    }
    void TearDown() override { TmLogger::getLogger().clearLocalWriters(); }

    void allowTraceUpTo(std::uint16_t nTrace) {
        const_cast<LogSource&>(*m_source).getLogFilter().setLogLevelsForId(
            kWriterId, LogLevels(65534, 65534, 65534, 65534, nTrace));
    }
    static std::size_t depth() {
        std::vector<String> names;
        TmLogger::getLogger().getCurrentLogSourceNames(names);
        return names.size();
    }

    LogSourceHandle m_source{String(L"lifetime.timed")};
    Handle<RecordingWriter> m_hWriter{
        new RecordingWriter(String(L"r"), kWriterId, LogWriter::WT_SINGLE_THREADED, nullptr)};
};

TEST_F(LogLifeTimeTest, PushSourceWithNullSourceLeavesTheStackAlone) {
    const std::size_t nBefore = depth();
    {
        const TmLoggerPushSource guard(&TmLogger::getLogger(), nullptr);
        EXPECT_EQ(depth(), nBefore);
    }
    EXPECT_EQ(depth(), nBefore);
}

TEST_F(LogLifeTimeTest, PushSourceHoldsTheSourceForTheScope) {
    {
        const TmLoggerPushSource guard(&TmLogger::getLogger(), m_source.get());
        EXPECT_EQ(TmLogger::getLogger().getLoggerState().getCurSource(), m_source.get());
    }
    EXPECT_EQ(TmLogger::getLogger().getLoggerState().getCurSource(), nullptr);
}

TEST_F(LogLifeTimeTest, ThresholdZeroLogsEveryTimeWithTheFunctionAndItsDuration) {
    for (int i = 0; i < 3; ++i) {
        const LogLifeTime timer(L"timed.cpp", 12, m_source, String(L"handleRequest"), 0);
    }
    const auto records = m_hWriter->records();
    ASSERT_EQ(records.size(), 3u);
    for (const auto& record : records) {
        const std::wstring text(record.text.view());
        EXPECT_EQ(text.rfind(L"Function handleRequest took ", 0), 0u) << text;
        EXPECT_EQ(text.substr(text.size() - 14), L" milliseconds.") << text;
        EXPECT_EQ(record.severity.m_nType, LogSeverity::SV_TRACE);
        EXPECT_EQ(record.severity.m_dwImportance, 32u);
        EXPECT_TRUE(record.source.equals(L"lifetime.timed"));
    }
    EXPECT_EQ(TmLogger::getLogger().getLoggerState().getCurSource(), nullptr);
}

TEST_F(LogLifeTimeTest, DurationBelowTheThresholdLogsNothingAndLeavesTheStack) {
    const std::size_t nBefore = depth();
    { const LogLifeTime timer(L"timed.cpp", 12, m_source, String(L"quick"), 60000); }
    EXPECT_TRUE(m_hWriter->records().empty());
    EXPECT_EQ(depth(), nBefore);
}

TEST_F(LogLifeTimeTest, MeasuredDurationIsReported) {
    {
        const LogLifeTime timer(L"timed.cpp", 12, m_source, String(L"slow"), 20);
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    const auto records = m_hWriter->records();
    ASSERT_EQ(records.size(), 1u);
    const std::wstring text(records[0].text.view());
    const std::size_t nDigits = std::wstring(L"Function slow took ").size();
    EXPECT_GE(std::stoul(text.substr(nDigits)), 20u) << text;
}

TEST_F(LogLifeTimeTest, WrittenOnlyWhereTheTraceThresholdReaches32) {
    allowTraceUpTo(31);
    { const LogLifeTime timer(L"timed.cpp", 12, m_source, String(L"f"), 0); }
    EXPECT_TRUE(m_hWriter->records().empty());
    allowTraceUpTo(32);
    { const LogLifeTime timer(L"timed.cpp", 12, m_source, String(L"f"), 0); }
    EXPECT_EQ(m_hWriter->records().size(), 1u);
}

TEST(LogLifeTimeConstantsTest, FormatAndSeverity) {
    EXPECT_TRUE(LogLifeTime::ktFormat.getString().equals(L"Function %1 took %2 milliseconds."));
    EXPECT_EQ(LogLifeTime::ktSeverity.m_nType, kSevTraceFinest.m_nType);
    EXPECT_EQ(LogLifeTime::ktSeverity.m_dwImportance, kSevTraceFinest.m_dwImportance);
}

}  // namespace
}  // namespace kiv

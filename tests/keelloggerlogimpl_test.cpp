#include "weblogger/keelloggerlogimpl.h"

#include <gtest/gtest.h>

#include "support/test_writer.h"
#include "weblogger/tmlogger.h"

namespace kiv {
namespace {

TEST(KeelLoggerLogImplTest, SeverityTranslatesToImportance) {
    EXPECT_EQ(KeelLoggerLogImpl::importanceOf(KeelLogger::kSeverityMinor), 32u);
    EXPECT_EQ(KeelLoggerLogImpl::importanceOf(KeelLogger::kSeverityNotSet), 31u);
    EXPECT_EQ(KeelLoggerLogImpl::importanceOf(KeelLogger::kSeverityNormal), 16u);
    EXPECT_EQ(KeelLoggerLogImpl::importanceOf(KeelLogger::kSeverityCritical), 10u);
    EXPECT_EQ(KeelLoggerLogImpl::importanceOf(KeelLogger::kSeverityUnknown), 5u);
    EXPECT_EQ(KeelLoggerLogImpl::importanceOf(KeelLogger::kSeverityFatal), 1u);
    EXPECT_EQ(KeelLoggerLogImpl::importanceOf(KeelLogger::kSeverityCorruption), 1u);
    EXPECT_EQ(KeelLoggerLogImpl::importanceOf(9), 31u);
    EXPECT_EQ(KeelLoggerLogImpl::importanceOf(-1), 31u);
}

TEST(KeelLoggerLogImplTest, UnknownSourceNameIsNotPushed) {
    KeelLoggerLogImpl& bridge = KeelLoggerLogImpl::getKeelLoggerLogImpl();
    EXPECT_FALSE(bridge.pushLogsource(String(L"no.such.source.anywhere")));
    EXPECT_EQ(TmLogger::getLogger().getLoggerState().getCurSource(), nullptr);
    const LogSourceHandle known(String(L"keeltest.known"));
    EXPECT_TRUE(bridge.pushLogsource(String(L"keeltest.known")));
    std::vector<String> names;
    bridge.getCurrentLogSourceNames(names);
    ASSERT_EQ(names.size(), 1u);
    EXPECT_TRUE(names[0].equals(L"keeltest.known"));
    bridge.popLogsource();
    EXPECT_EQ(TmLogger::getLogger().getLoggerState().getCurSource(), nullptr);
    EXPECT_FALSE(bridge.isInLogCall());
}

TEST(KeelLoggerLogImplTest, MessagesReachTheThreadsWriters) {
    Handle<test::RecordingWriter> hWriter(
        new test::RecordingWriter(String(L"k"), 2, LogWriter::WT_SINGLE_THREADED, nullptr));
    const_cast<LogSource&>(*lsUnspecified)
        .getLogFilter()
        .setLogLevelsForId(2, LogLevels(65534, 65534, 65534, 65534, 65534));
    TmLogger::getLogger().addLocalWriter(hWriter.get());
    KeelLoggerLogImpl& bridge = KeelLoggerLogImpl::getKeelLoggerLogImpl();
    const wchar_t arrText[] = L"from the foundation";
    bridge.log(KeelLogger::kWarning, KeelLogger::kSeverityCritical, L"keel.cpp", 5, arrText);
    bridge.logException(Exception(GDString(L"keel failure")), Exception::kSeverityFatal);
    const auto records = hWriter->records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].severity.m_nType, LogSeverity::SV_WARNING);
    EXPECT_EQ(records[0].severity.m_dwImportance, 10u);
    EXPECT_TRUE(records[0].text.equals(L"from the foundation"));
    EXPECT_EQ(records[1].severity.m_nType, LogSeverity::SV_ERROR);
    EXPECT_EQ(records[1].severity.m_dwImportance, 1u);
    EXPECT_TRUE(records[1].text.equals(L"keel failure"));
    TmLogger::getLogger().clearLocalWriters();
}

TEST(KeelLoggerLogImplTest, PluggingInRemembersThePreviousLogger) {
    KeelLogger::setKeelLogger(nullptr);
    KeelLoggerLogImpl::plugMeIn();
    EXPECT_EQ(KeelLogger::getKeelLogger(), &KeelLoggerLogImpl::getKeelLoggerLogImpl());
    EXPECT_EQ(KeelLoggerLogImpl::getKeelLoggerLogImpl().getPrevKeelLogger(), nullptr);
    KeelLogger::setKeelLogger(nullptr);
}

}  // namespace
}  // namespace kiv

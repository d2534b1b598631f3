#include "weblogger/internal/eventlogwriter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "support/alloc_counter.h"
#include "support/syslog_sink.h"
#include "support/temp_dir.h"
#include "support/writer_config.h"
#include "weblogger/loggermessages.h"
#include "zq/webkeel/assert.h"

namespace kiv {
namespace {

using test::parseSyslog;
using test::readFile;
using test::SyslogMessage;
using test::SyslogSink;
using test::TempDir;
using test::WriterConfig;

const char* const kTypeAndText =
    "<Formats><Format name='Default'><MsgType style='short'/> <MessageText/></Format></Formats>";

std::string writerXml(const std::string& socket, const std::string& extra = "") {
    return "<Writer name='syslog' writerClassId='3' implementation='EventLogWriter' socket='" +
           socket + "' " + extra + "/>";
}

// Sends the process's standard error to a file for the life of the object.
class CapturedStderr {
public:
    explicit CapturedStderr(const std::string& path) {
        std::fflush(stderr);
        m_nSaved = ::dup(2);
        const int nFd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(nFd, 2);
        ::close(nFd);
    }
    ~CapturedStderr() {
        std::fflush(stderr);
        ::dup2(m_nSaved, 2);
        ::close(m_nSaved);
    }

private:
    int m_nSaved;
};

class EventLogWriterTest : public ::testing::Test {
protected:
    EventLogWriterTest() : m_sink(m_dir.file("log.sock")) {}

    Handle<LogWriter> create(const std::string& extra = "", const char* pszFormats = kTypeAndText) {
        const WriterConfig config(writerXml(m_sink.path(), extra), pszFormats);
        return config.create(L"EventLogWriter");
    }

    SyslogMessage receive() { return parseSyslog(m_sink.receive().value_or("")); }

    TempDir m_dir;
    SyslogSink m_sink;
    const LoggerState m_state = test::stateWithSource(L"kiv.http.request");
};

TEST_F(EventLogWriterTest, TraceArrivesAsInformationAndIncidentErrorAsError) {
    Handle<LogWriter> hWriter = create();
    ASSERT_FALSE(hWriter.isNull());
    hWriter->logMessage(kSevTraceFine, GDString(L"a trace"), m_state, nullptr);
    const SyslogMessage trace = receive();
    EXPECT_EQ(trace.severity(), SystemEventLog::severityOf(SystemEventLog::kInformation));
    EXPECT_EQ(trace.severity(), 6);
    EXPECT_EQ(trace.text.substr(trace.text.find(" ")), " a trace");

    hWriter->logMessage(kSevErrorCorruption, GDString(L"an incident"), m_state, nullptr);
    const SyslogMessage incident = receive();
    EXPECT_EQ(incident.severity(), SystemEventLog::severityOf(SystemEventLog::kError));
    EXPECT_EQ(incident.severity(), 3);
    EXPECT_EQ(incident.text, "I_E an incident");
}

TEST_F(EventLogWriterTest, EveryMessageTypeHasItsEventType) {
    EXPECT_EQ(EventLogWriter::eventTypeOf(kSevErrorFatal), SystemEventLog::kError);
    EXPECT_EQ(EventLogWriter::eventTypeOf(kSevError), SystemEventLog::kError);
    EXPECT_EQ(EventLogWriter::eventTypeOf(kSevWarning), SystemEventLog::kWarning);
    EXPECT_EQ(EventLogWriter::eventTypeOf(kSevInfo), SystemEventLog::kInformation);
    EXPECT_EQ(EventLogWriter::eventTypeOf(kSevSecurity), SystemEventLog::kInformation);
    EXPECT_EQ(EventLogWriter::eventTypeOf(kSevTraceFinest), SystemEventLog::kInformation);

    Handle<LogWriter> hWriter = create();
    hWriter->logMessage(kSevWarning, GDString(L"w"), m_state, nullptr);
    EXPECT_EQ(receive().severity(), 4);
    hWriter->logMessage(kSevError, GDString(L"e"), m_state, nullptr);
    EXPECT_EQ(receive().severity(), 3);
    hWriter->logMessage(kSevInfo, GDString(L"i"), m_state, nullptr);
    EXPECT_EQ(receive().severity(), 6);
}

TEST_F(EventLogWriterTest, MessageTypeOutsideTheFiveIsReportedAndTakenAsAnError) {
    // No such message type exists; a corrupted severity could still carry one.
    const LogSeverity corrupted(static_cast<LogSeverity::MsgType>(7), 0);
    AssertionCapture capture;
    EXPECT_EQ(EventLogWriter::eventTypeOf(corrupted), SystemEventLog::kError);
    EXPECT_TRUE(capture.contains("severity.getType() <= LogSeverity::SV_TRACE"));
}

TEST_F(EventLogWriterTest, RenderedMessageLongerThan511CharactersArrivesWhole) {
    Handle<LogWriter> hWriter = create();
    String strLong;
    for (int i = 0; i < 2000; ++i) {
        strLong.append(i % 10 == 9 ? L"\u00FC" : L"x");
    }
    hWriter->logMessage(kSevError, GDString(strLong), m_state, nullptr);
    const SyslogMessage message = receive();
    EXPECT_EQ(message.text, "E " + toUtf8(strLong.view()).std());
    EXPECT_EQ(static_cast<EventLogWriter&>(*hWriter).getSystemEventLog().getTruncatedCount(), 0u);
}

TEST_F(EventLogWriterTest, SourceGoesIntoTheStructuredData) {
    Handle<LogWriter> hWriter = create();
    hWriter->logMessage(kSevError, GDString(L"x"), m_state, nullptr);
    EXPECT_EQ(receive().structuredData, "[weblogger@32473 source=\"kiv.http.request\"]");
    hWriter->logMessage(kSevError, GDString(L"y"), LoggerState(), nullptr);
    EXPECT_EQ(receive().structuredData, "-");
}

TEST_F(EventLogWriterTest, AppNameAndFacilityAreTheWritersOwn) {
    Handle<LogWriter> hLocal = create("appName='webserver' facility='local3'");
    Handle<LogWriter> hPlain = create("facility='4'");
    hLocal->logMessage(kSevWarning, GDString(L"x"), m_state, nullptr);
    const SyslogMessage local = receive();
    EXPECT_EQ(local.appName, "webserver");
    EXPECT_EQ(local.facility(), 19);
    hPlain->logMessage(kSevWarning, GDString(L"x"), m_state, nullptr);
    const SyslogMessage plain = receive();
    EXPECT_EQ(plain.facility(), 4);
    EXPECT_NE(plain.appName, "webserver");
}

TEST_F(EventLogWriterTest, UnusableAttributesAreConfigurationErrors) {
    try {
        create("facility='local9'");
        FAIL() << "no exception";
    } catch (const LogConfigurationException& e) {
        EXPECT_STREQ(e.what(),
                     "Failed to init log writer syslog. The attribute facility of its Writer "
                     "element cannot be 'local9'.");
    }
    const WriterConfig longSocket(writerXml(std::string(120, 's')), kTypeAndText);
    EXPECT_THROW(longSocket.create(L"EventLogWriter"), LogConfigurationException);
}

TEST_F(EventLogWriterTest, WithoutDaemonMessagesAreCountedAsDroppedAndReportedOnce) {
    m_sink.close();
    Handle<LogWriter> hWriter = create();
    const std::string strErr = m_dir.file("stderr.txt");
    {
        CapturedStderr capture(strErr);
        for (int i = 0; i < 5; ++i) {
            hWriter->logMessage(kSevError, GDString(L"lost"), m_state, nullptr);
        }
    }
    EXPECT_EQ(static_cast<EventLogWriter&>(*hWriter).getSystemEventLog().getDroppedCount(), 5u);
    const std::string text = readFile(strErr);
    const std::string expected = "weblogger: Log writer syslog cannot reach the system log at " +
                                 m_sink.path() +
                                 " (No such file or directory); the messages it cannot send are "
                                 "dropped and counted.\n";
    EXPECT_EQ(text, expected);
}

TEST_F(EventLogWriterTest, WithoutMessageWriterLoggingRaisesTheInvalidHandleException) {
    Handle<LogWriter> hWriter(new EventLogWriter(String(L"raw"), 3, LogWriter::WT_SHARED, nullptr));
    try {
        hWriter->logMessage(kSevError, GDString(L"x"), m_state, nullptr);
        FAIL() << "no exception";
    } catch (const InvalidHandleException& e) {
        EXPECT_NE(e.getTypeName().view().find(L"MessageWriter"), std::wstring_view::npos);
    }
}

TEST_F(EventLogWriterTest, RetiredWriterSendsNothing) {
    Handle<LogWriter> hWriter = create();
    hWriter->retire();
    hWriter->logMessage(kSevError, GDString(L"late"), m_state, nullptr);
    EXPECT_FALSE(m_sink.receive(100).has_value());
    (void)LogWriter::takeWriteRefusal();
}

TEST_F(EventLogWriterTest, SingleThreadedWriterWorksWithoutALock) {
    const WriterConfig config(writerXml(m_sink.path()), kTypeAndText);
    Handle<LogWriter> hWriter = config.create(L"EventLogWriter", LogWriter::WT_SINGLE_THREADED);
    ASSERT_FALSE(hWriter->getWriterSynchro().hasLock());
    hWriter->logMessage(kSevWarning, GDString(L"alone"), m_state, nullptr);
    EXPECT_EQ(receive().text, "W alone");
}

TEST_F(EventLogWriterTest, ShortMessageAllocatesNothingInSteadyState) {
    Handle<LogWriter> hWriter = create();
    const wchar_t arrText[] = L"request 42 served in 17 ms";
    const GDStringRef text(arrText);
    hWriter->logMessage(kSevInfo, text, m_state, nullptr);
    ASSERT_EQ(receive().text, "N request 42 served in 17 ms");
    test::AllocationScope scope;
    for (int i = 0; i < 5; ++i) {
        hWriter->logMessage(kSevInfo, text, m_state, nullptr);
    }
    EXPECT_EQ(scope.count(), 0u);
}

}  // namespace
}  // namespace kiv

// From a logconfig.xml file on disk to bytes: the loader reads the file with a variable for its
// directory, and messages logged through TmLogger end up in the ring of files and on standard
// output exactly as the formats say, filtered by patterns, exact paths and per-writer records.
// A tenant configuration with a file prefix gets its own files. The system log writer sends to a
// socket the test binds, and the crash trigger reacts to its one source line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "support/syslog_sink.h"
#include "support/temp_dir.h"
#include "weblogger/internal/crashwriter.h"
#include "weblogger/internal/eventlogwriter.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/tmlogger.h"
#include "weblogger/xmllogconfiguration.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

const char* const kLogConfig = R"(<?xml version="1.0" encoding="UTF-8"?>
<!-- The console sees errors and warnings of the app but nothing of its db part; the ring of
     files sees notifications too below app; the audit files see only the warnings of
     app.audit, by their writer's own record. -->
<Logging>
  <WriterClassGroups>
    <WriterClassGroup name="Console">1</WriterClassGroup>
    <WriterClassGroup name="Files">2</WriterClassGroup>
    <WriterClassGroup name="Everyone">1, 2;3</WriterClassGroup>
  </WriterClassGroups>
  <Filters>
    <FilterRecord writerClassGroup="Everyone" path="app" error="32" warning="32"/>
    <FilterRecord writerClassGroup="Files" path="app.*" error="32" warning="32" information="32"/>
    <FilterRecord writerClassGroup="Console" path="app.db" error="0" warning="0"/>
  </Filters>
  <Writers>
    <Writer name="console" implementation="CoutWriter" writerClassId="1" fmtName="Line"/>
    <Writer name="files" implementation="FileLogWriter" writerClassId="2" fmtName="Line"
            dir="{%logDir%}/ring" filePrefix="app"/>
    <Writer name="audit" implementation="FileLogWriter" writerClassId="3" fmtName="Line"
            dir="{%logDir%}/audit" filePrefix="audit">
      <Filters><FilterRecord path="app.audit" warning="32"/></Filters>
    </Writer>
  </Writers>
  <Formats>
    <Format name="Line"><MsgType style="short"/> <CurrentLogSource/> <MessageText/><LineBreak/></Format>
  </Formats>
</Logging>
)";

const std::string kBom = "\xEF\xBB\xBF";

// Standard output goes to a file while it lives.
class StdoutCapture {
public:
    explicit StdoutCapture(const std::string& path) {
        std::fflush(stdout);
        m_nSaved = ::dup(1);
        const int nFd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(nFd, 1);
        ::close(nFd);
    }
    ~StdoutCapture() {
        std::fflush(stdout);
        ::dup2(m_nSaved, 1);
        ::close(m_nSaved);
    }

private:
    int m_nSaved;
};

void logUnder(const LogSourceHandle& source, const LogSeverity& severity, const char* pszText) {
    TmLogger::getLogger().logMessage(severity, GDString(fromUtf8(pszText)), source.get());
}

TEST(LogConfigEndToEnd, FileToBytesInFilesAndOnStandardOutput) {
    const test::TempDir temp;
    const std::string strConfig = temp.write("logconfig.xml", kLogConfig);
    const LogSourceHandle app(String(L"app"));
    const LogSourceHandle web(String(L"app.web"));
    const LogSourceHandle db(String(L"app.db"));
    const LogSourceHandle audit(String(L"app.audit"));

    ReplacementMap map;
    map[String(L"logDir")] = fromUtf8(temp.path());
    const ConfigurationReport report = XmlLogConfiguration::reconfigure(fromUtf8(strConfig), &map);
    ASSERT_TRUE(report.m_bApplied);
    EXPECT_EQ(report.m_vecWritersAfter.size(), 3u);

    {
        const StdoutCapture capture(temp.file("stdout.txt"));
        logUnder(app, kSevError, "app error");
        logUnder(web, kSevInfo, "web notification");
        logUnder(db, kSevError, "db error");
        logUnder(audit, kSevWarning, "audit warning");
        logUnder(audit, kSevError, "audit error");
    }
    XmlLogConfiguration::configAll(
        *XmlDocument::parseString(std::string_view("<Logging/>")).getDocumentElement(), nullptr);

    // Console: the exact record of app.db closes it; notifications were never let through.
    EXPECT_EQ(test::readFile(temp.file("stdout.txt")),
              "E app app error\nW app.audit audit warning\nE app.audit audit error\n");
    // Files: everything, the pattern app.* opening notifications below app.
    EXPECT_EQ(test::readFile(temp.file("ring/app0.log")),
              kBom +
                  "E app app error\nN app.web web notification\nE app.db db error\n"
                  "W app.audit audit warning\nE app.audit audit error\n");
    // Audit: its own record lets only the warnings of app.audit through.
    EXPECT_EQ(test::readFile(temp.file("audit/audit0.log")), kBom + "W app.audit audit warning\n");
}

TEST(LogConfigEndToEnd, TenantConfigurationWritesFileWritersOnlyUnderItsPrefix) {
    const test::TempDir temp;
    const std::string strConfig = temp.write("logconfig.xml", kLogConfig);
    const LogSourceHandle app(String(L"app"));
    const LogSourceHandle web(String(L"app.web"));
    XmlLogConfiguration::configAll(
        *XmlDocument::parseString(std::string_view("<Logging/>")).getDocumentElement(), nullptr);
    const XmlDocument document = XmlDocument::loadFromFile(NString(strConfig.c_str()));
    XmlLogConfiguration::configGlobalFilters(*document.getDocumentElement());

    ReplacementMap map;
    map[String(L"logDir")] = fromUtf8(temp.path());
    LogWritersState state;
    const String prefix(L"acme");
    XmlLogConfiguration::configWriters(fromUtf8(strConfig), String(), state,
                                       XmlLogConfiguration::WT_SHARED,
                                       XmlLogConfiguration::WD_TENANT, &map, &prefix);
    // The console writer is not kept: a tenant with a prefix gets file writers only.
    ASSERT_EQ(state.m_list.size(), 2u);

    TmLogger& logger = TmLogger::getLogger();
    logger.setLocalWriters(state);
    {
        const StdoutCapture capture(temp.file("stdout.txt"));
        logUnder(app, kSevError, "tenant error");
        logUnder(web, kSevInfo, "tenant notification");
    }
    logger.clearLocalWriters();
    state.clear();

    EXPECT_EQ(test::readFile(temp.file("stdout.txt")), "");
    // Per-writer filters take paths literally: the record for app.* opens no notification of
    // app.web here, as it does in the source tree.
    EXPECT_EQ(test::readFile(temp.file("ring/app-acme-0.log")), kBom + "E app tenant error\n");
    // The audit writer's filter now comes from the global records of its id: errors of app.
    EXPECT_EQ(test::readFile(temp.file("audit/audit-acme-0.log")), kBom + "E app tenant error\n");
    EXPECT_FALSE(std::filesystem::exists(temp.file("ring/app0.log")));
}

const char* const kSystemLogConfig = R"(<?xml version="1.0" encoding="UTF-8"?>
<!-- Errors of the app go to the system log; the crash trigger watches one line of one file. -->
<Logging>
  <WriterClassGroups>
    <WriterClassGroup name="SystemLog">4</WriterClassGroup>
    <WriterClassGroup name="Crash">5</WriterClassGroup>
  </WriterClassGroups>
  <Filters>
    <FilterRecord writerClassGroup="SystemLog" path="app" incident_error="65534" error="65534"
                  warning="0" information="0" trace="0"/>
    <FilterRecord writerClassGroup="Crash" path="app" incident_error="65534" error="65534"
                  warning="65534" information="65534" trace="65534"/>
  </Filters>
  <Writers>
    <Writer name="syslog" implementation="EventLogWriter" writerClassId="4" fmtName="Line"
            socket="{%socket%}" appName="e2e" facility="local3"/>
    <Writer name="trigger" implementation="CrashWriter" writerClassId="5"
            file="{%crashFile%}" line="42"/>
  </Writers>
  <Formats>
    <Format name="Line"><CurrentLogSource/>: <MessageText/></Format>
  </Formats>
</Logging>
)";

template <class Writer>
Writer* findGlobalWriter(const wchar_t* pszName) {
    std::vector<Handle<LogWriter>> vecWriters;
    AtomicEntity<int> version;
    logger_details::LogWritersMan::getLogWritersMan().getWriters(vecWriters, version);
    for (const Handle<LogWriter>& hWriter : vecWriters) {
        if (hWriter->getName().equals(pszName)) {
            return dynamic_cast<Writer*>(hWriter.get());
        }
    }
    return nullptr;
}

TEST(LogConfigEndToEnd, FileToTheSystemLogAndTheCrashTrigger) {
    const test::TempDir temp;
    const std::string strConfig = temp.write("logconfig.xml", kSystemLogConfig);
    test::SyslogSink sink(temp.file("log.sock"));
    ASSERT_TRUE(sink.isBound());
    const LogSourceHandle app(String(L"app"));
    const LogSourceHandle web(String(L"app.web"));

    ReplacementMap map;
    map[String(L"socket")] = fromUtf8(sink.path());
    map[String(L"crashFile")] = String(L"server.cpp");
    const ConfigurationReport report = XmlLogConfiguration::reconfigure(fromUtf8(strConfig), &map);
    ASSERT_TRUE(report.m_bApplied);
    CrashWriter* pTrigger = findGlobalWriter<CrashWriter>(L"trigger");
    ASSERT_NE(pTrigger, nullptr);
    ASSERT_NE(findGlobalWriter<EventLogWriter>(L"syslog"), nullptr);

    TmLogger& logger = TmLogger::getLogger();
    const FileLocation elsewhere(L"server.cpp", 41);
    const FileLocation trigger(L"server.cpp", 42);
    logger.logMessage(kSevWarning, GDString(L"a warning stays off the system log"), web.get(),
                      &elsewhere);
    logger.logMessage(kSevError, GDString(L"the database is gone"), web.get(), &trigger);

    // Only the error travelled, as an RFC 5424 message with the writer's settings; the warning
    // was filtered out before the writer.
    const std::optional<std::string> datagram = sink.receive();
    ASSERT_TRUE(datagram.has_value());
    const test::SyslogMessage message = test::parseSyslog(*datagram);
    ASSERT_TRUE(message.bValid);
    EXPECT_EQ(message.nPriority, 19 * 8 + 3);  // local3, err
    EXPECT_EQ(message.appName, "e2e");
    EXPECT_NE(message.structuredData.find("app.web"), std::string::npos);
    EXPECT_EQ(message.text, "app.web: the database is gone");
    EXPECT_FALSE(sink.receive(200).has_value());
    // The trigger saw both messages but reacted to the one from its line only.
    EXPECT_EQ(pTrigger->getReachedCount(), 1u);

    XmlLogConfiguration::configAll(
        *XmlDocument::parseString(std::string_view("<Logging/>")).getDocumentElement(), nullptr);
}

}  // namespace
}  // namespace kiv

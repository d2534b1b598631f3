// The configuration loader: documents applied through configAll, configWriters, initialize and
// reconfigure, checked against the source tree's thresholds, the registry's global writers and
// what reaches the writers. Writers are the shared RecordingWriter, registered here under its
// own class name, and the library's file writer.
#include "weblogger/xmllogconfiguration.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/keel_logger_double.h"
#include "support/temp_dir.h"
#include "support/test_writer.h"
#include "weblogger/loggermessages.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/assert.h"
#include "zq/webkeel/keellogger.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/timezone.h"

namespace kiv {
namespace {

using logger_details::LogWritersMan;
using test::RecordingWriter;

// A writer class whose initialisation throws, as a writer that meets a broken attribute does.
class ThrowingWriter : public RecordingWriter {
public:
    using RecordingWriter::RecordingWriter;
    bool initialize(const XmlElement*, const XmlElement*) override {
        throw LogConfigurationException(GDString(L"broken on purpose"));
    }
};

std::vector<Handle<LogWriter>> globalWriters() {
    std::vector<Handle<LogWriter>> vecWriters;
    AtomicEntity<int> version(0);
    LogWritersMan::getLogWritersMan().getWriters(vecWriters, version);
    return vecWriters;
}

RecordingWriter* findRecording(const wchar_t* pszName) {
    for (const Handle<LogWriter>& hWriter : globalWriters()) {
        if (hWriter->getName().equals(String(pszName))) {
            return dynamic_cast<RecordingWriter*>(hWriter.get());
        }
    }
    return nullptr;
}

XmlDocument parse(const std::string& xml) {
    return XmlDocument::parseString(std::string_view(xml));
}

bool contains(const String& text, const std::string& part) {
    return toUtf8(text.view()).std().find(part) != std::string::npos;
}

std::string joined(const std::vector<String>& vecText) {
    std::string all;
    for (const String& text : vecText) {
        all += toUtf8(text.view()).std();
        all += "\n";
    }
    return all;
}

void logUnder(const wchar_t* pszSource, const LogSeverity& severity, const wchar_t* pszText) {
    const LogSourceHandle source{String(pszSource)};
    TmLogger::getLogger().logMessage(severity, GDString(String(pszText)), source.get());
}

class XmlLogConfigurationTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        LogWritersMan& registry = LogWritersMan::getLogWritersMan();
        registry.addLogWritersFactory(
            new logger_details::LogWritersFactoryImpl<RecordingWriter>(String(L"RecordingWriter")));
        registry.addLogWritersFactory(
            new logger_details::LogWritersFactoryImpl<ThrowingWriter>(String(L"ThrowingWriter")));
    }

    void TearDown() override {
        XmlLogConfiguration::configAll(*parse("<Logging/>").getDocumentElement(), nullptr);
    }
};

const char* const kRecordingDocument =
    "<Logging>\n"
    "  <WriterClassGroups><WriterClassGroup name='All'>1</WriterClassGroup></WriterClassGroups>\n"
    "  <Filters><FilterRecord writerClassGroup='All' path='cfg' error='20'/></Filters>\n"
    "  <Writers><Writer name='rec' implementation='RecordingWriter' writerClassId='1'/></Writers>\n"
    "</Logging>";

TEST_F(XmlLogConfigurationTest, LoggingElementWithoutGroupsFiltersOrWritersConfiguresNothing) {
    const LogSourceHandle source(String(L"cfg.empty.child"));
    XmlLogConfiguration::configAll(*parse(kRecordingDocument).getDocumentElement(), nullptr);
    ASSERT_FALSE(globalWriters().empty());

    EXPECT_NO_THROW(
        XmlLogConfiguration::configAll(*parse("<Logging/>").getDocumentElement(), nullptr));
    EXPECT_TRUE(globalWriters().empty());
    for (int nId = 0; nId < 10; ++nId) {
        EXPECT_EQ(source->getLogFilter().getLogLevels(nId), LogLevels(0, 0, 0, 0, 0)) << nId;
    }
}

TEST_F(XmlLogConfigurationTest, FilterRecordsReachTheSourceTreeAndWritersReceiveWhatPasses) {
    const LogSourceHandle child(String(L"cfg.child"));
    XmlLogConfiguration::configAll(*parse(kRecordingDocument).getDocumentElement(), nullptr);
    EXPECT_EQ(child->getLogFilter().getLogLevels(1).get(LogSeverity::SV_ERROR), 20);

    logUnder(L"cfg.child", LogSeverity(LogSeverity::SV_ERROR, 10), L"passes");
    logUnder(L"cfg.child", LogSeverity(LogSeverity::SV_ERROR, 30), L"too unimportant");
    RecordingWriter* pWriter = findRecording(L"rec");
    ASSERT_NE(pWriter, nullptr);
    ASSERT_EQ(pWriter->records().size(), 1u);
    EXPECT_TRUE(pWriter->records()[0].text.equals(String(L"passes")));
}

TEST_F(XmlLogConfigurationTest, ConfigAllRetiresThePreviousGlobalWritersAndBumpsTheVersion) {
    XmlLogConfiguration::configAll(*parse(kRecordingDocument).getDocumentElement(), nullptr);
    const std::vector<Handle<LogWriter>> vecOld = globalWriters();
    const int nVersion = LogWritersMan::getLogWritersMan().getVersion();
    XmlLogConfiguration::configAll(*parse(kRecordingDocument).getDocumentElement(), nullptr);
    EXPECT_GT(LogWritersMan::getLogWritersMan().getVersion(), nVersion);
    ASSERT_EQ(vecOld.size(), 1u);
    EXPECT_TRUE(vecOld[0]->isRetired());
    EXPECT_FALSE(vecOld[0]->isEnabled());
    ASSERT_EQ(globalWriters().size(), 1u);
    EXPECT_NE(globalWriters()[0].get(), vecOld[0].get());
}

TEST_F(XmlLogConfigurationTest, EmptyTimeZoneValueLeavesTheZoneAlone) {
    TmLogger::setTimeZone(TimeZone::utc());
    const String before = TmLogger::getTimeZoneShortName(false);
    const ConfigReader config = ConfigReader::parseString(
        "<Server><TimeZone><Logging></Logging></TimeZone><Logging/></Server>");
    XmlLogConfiguration::initialize(config, nullptr);
    EXPECT_TRUE(TmLogger::getTimeZoneShortName(false).equals(before));
}

TEST_F(XmlLogConfigurationTest, KnownTimeZoneNameBecomesTheLoggingZoneAndAnUnknownOneIsIgnored) {
    if (!std::filesystem::exists("/usr/share/zoneinfo/Asia/Tokyo")) {
        GTEST_SKIP() << "no zoneinfo database";
    }
    TmLogger::setTimeZone(TimeZone::utc());
    XmlLogConfiguration::initialize(
        ConfigReader::parseString(
            "<Server><TimeZone><Logging>Asia/Tokyo</Logging></TimeZone><Logging/></Server>"),
        nullptr);
    EXPECT_TRUE(TmLogger::getTimeZoneShortName(false).equals(String(L"JST")));
    XmlLogConfiguration::initialize(
        ConfigReader::parseString(
            "<Server><TimeZone><Logging>No/Such_Zone</Logging></TimeZone><Logging/></Server>"),
        nullptr);
    EXPECT_TRUE(TmLogger::getTimeZoneShortName(false).equals(String(L"JST")));
    TmLogger::setTimeZone(TimeZone::utc());
}

TEST_F(XmlLogConfigurationTest, InitializeReadsTheSectionPathAndSwallowsFailures) {
    const ConfigReader config = ConfigReader::parseString(
        "<Server><Log><Writers><Writer name='rec' implementation='RecordingWriter' "
        "writerClassId='1'/></Writers></Log></Server>");
    const PathFilter section(String(L"Log"));
    XmlLogConfiguration::initialize(config, &section);
    EXPECT_NE(findRecording(L"rec"), nullptr);

    // A group defined twice: the exception and "Logger initialization failed" go to the lower
    // library's logger, as critical errors, and initialize returns normally.
    const ConfigReader broken = ConfigReader::parseString(
        "<Server><Logging><WriterClassGroups><WriterClassGroup name='A'>1</WriterClassGroup>"
        "<WriterClassGroup name='A'>2</WriterClassGroup></WriterClassGroups></Logging></Server>");
    test::KeelLoggerDouble lower;
    KeelLogger* const pPrevious = KeelLogger::getKeelLogger();
    KeelLogger::setKeelLogger(&lower);
    EXPECT_NO_THROW(XmlLogConfiguration::initialize(broken, nullptr));
    // Installing a logger makes the current one its predecessor: clear the hook first, so that
    // the bridge does not keep this stack double as the logger it replaced.
    KeelLogger* const pBridgePredecessor =
        pPrevious != nullptr ? pPrevious->getPrevKeelLogger() : nullptr;
    KeelLogger::setKeelLogger(pBridgePredecessor);
    KeelLogger::setKeelLogger(pPrevious);
    ASSERT_EQ(lower.m_vecExceptions.size(), 1u);
    EXPECT_TRUE(contains(lower.m_vecExceptions[0], "Writers Class A is defined more then once"));
    ASSERT_EQ(lower.m_vecEntries.size(), 1u);
    EXPECT_TRUE(lower.m_vecEntries[0].strText.equals(String(L"Logger initialization failed")));
    EXPECT_EQ(lower.m_vecEntries[0].nType, KeelLogger::kError);
    EXPECT_EQ(lower.m_vecEntries[0].nSeverity, KeelLogger::kSeverityCritical);
    // What the first configuration installed is still in force.
    EXPECT_NE(findRecording(L"rec"), nullptr);
}

TEST_F(XmlLogConfigurationTest, MissingLoggingElementIsReportedByAssertion) {
    AssertionCapture capture;
    XmlLogConfiguration::initialize(ConfigReader::parseString("<Server/>"), nullptr);
    EXPECT_TRUE(capture.contains("pElement != NULL"));
}

TEST_F(XmlLogConfigurationTest, VariableInAnyAttributeOrTextIsReplacedBeforeAnythingIsRead) {
    const char* const kTemplate =
        "<Logging>"
        "<WriterClassGroups><WriterClassGroup name='{%group%}'>{%ids%}</WriterClassGroup>"
        "</WriterClassGroups>"
        "<Filters><FilterRecord writerClassGroup='{%group%}' path='{%root%}' error='{%level%}'/>"
        "</Filters>"
        "<Writers><Writer name='{%name%}' implementation='{%class%}' writerClassId='{%id%}'/>"
        "</Writers></Logging>";
    ReplacementMap map;
    map[String(L"group")] = String(L"Mine");
    map[String(L"ids")] = String(L"3");
    map[String(L"root")] = String(L"vars");
    map[String(L"level")] = String(L"17");
    map[String(L"name")] = String(L"replaced");
    map[String(L"class")] = String(L"RecordingWriter");
    map[String(L"id")] = String(L"3");
    const LogSourceHandle vars(String(L"vars"));
    XmlLogConfiguration::configAll(*parse(kTemplate).getDocumentElement(), &map);
    RecordingWriter* pWriter = findRecording(L"replaced");
    ASSERT_NE(pWriter, nullptr);
    EXPECT_EQ(pWriter->getClassId(), 3);
    EXPECT_EQ(vars->getLogFilter().getLogLevels(3).get(LogSeverity::SV_ERROR), 17);
}

TEST_F(XmlLogConfigurationTest, DirVariableGivesTheFileWriterItsDirectory) {
    const test::TempDir temp;
    ReplacementMap map;
    map[String(L"dir")] = fromUtf8(temp.path());
    XmlLogConfiguration::configAll(
        *parse("<Logging><Writers><Writer name='f' implementation='FileLogWriter' "
               "writerClassId='0' dir='{%dir%}/a.log' filePrefix='v'/></Writers></Logging>")
             .getDocumentElement(),
        &map);
    EXPECT_TRUE(std::filesystem::exists(temp.path() + "/a.log/v0.log"));
}

TEST_F(XmlLogConfigurationTest, MarkupInAValueReachesTheAttributeUnchanged) {
    ReplacementMap map;
    map[String(L"v")] = String(L"vars.a<b&c");
    XmlLogConfiguration::configAll(
        *parse("<Logging><Writers><Writer name='m' implementation='RecordingWriter' "
               "writerClassId='0'><Filters><FilterRecord path='{%v%}' error='5'/></Filters>"
               "</Writer></Writers></Logging>")
             .getDocumentElement(),
        &map);
    EXPECT_NE(LogSourcesMan::getLogSourcesMan().findLogSource(String(L"vars.a<b&c")), nullptr);
}

TEST_F(XmlLogConfigurationTest, UnknownEmptyAndLoneMarkersReadAsTheScannerLeavesThem) {
    ReplacementMap map;
    map[String(L"")] = String(L"E");
    map[String(L"blank")] = String();
    XmlLogConfiguration::configAll(
        *parse("<Logging><Writers><Writer name='m' implementation='RecordingWriter' "
               "writerClassId='0'><Filters>"
               "<FilterRecord path='marks.{%unknown%}gone' error='5'/>"
               "<FilterRecord path='marks.{%%}' error='5'/>"
               "<FilterRecord path='marks.{%blank%}blank' error='5'/>"
               "<FilterRecord path='marks.a{b%c{' error='5'/>"
               "</Filters></Writer></Writers></Logging>")
             .getDocumentElement(),
        &map);
    LogSourcesMan& sources = LogSourcesMan::getLogSourcesMan();
    EXPECT_NE(sources.findLogSource(String(L"marks.gone")), nullptr);
    EXPECT_NE(sources.findLogSource(String(L"marks.E")), nullptr);
    EXPECT_NE(sources.findLogSource(String(L"marks.blank")), nullptr);
    EXPECT_NE(sources.findLogSource(String(L"marks.a{b%c{")), nullptr);
}

TEST_F(XmlLogConfigurationTest, FileFormOfConfigAllNamesItsFileInWhatItReports) {
    const test::TempDir temp;
    const std::string strFile =
        temp.write("ids.xml",
                   "<Logging>\n<Writers>\n<Writer name='w' implementation='RecordingWriter' "
                   "writerClassId='12'/>\n</Writers>\n</Logging>");
    testing::internal::CaptureStderr();
    XmlLogConfiguration::configAll(fromUtf8(strFile), String(), nullptr);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find(strFile + ":3: Writer 'w': writerClassId '12'"), std::string::npos) << err;
}

TEST_F(XmlLogConfigurationTest, HandOverFlushesWhatTheReplacedWriterStillBuffered) {
    const test::TempDir temp;
    const LogSourceHandle source(String(L"buffered"));
    const std::string xml =
        "<Logging><WriterClassGroups><WriterClassGroup name='R'>0"
        "</WriterClassGroup></WriterClassGroups><Filters><FilterRecord "
        "writerClassGroup='R' path='buffered' error='100'/></Filters>"
        "<Formats><Format name='Line'><MessageText/><LineBreak/>"
        "</Format></Formats><Writers><Writer name='ring' "
        "implementation='FileLogWriter' writerClassId='0' fmtName='Line' "
        "autoFlush='no' dir='" +
        temp.path() + "' filePrefix='b'/></Writers></Logging>";
    const XmlDocument document = parse(xml);
    ASSERT_TRUE(
        XmlLogConfiguration::reconfigure(*document.getDocumentElement(), nullptr).m_bApplied);
    logUnder(L"buffered", kSevError, L"kept in the buffer");
    EXPECT_EQ(test::readFile(temp.file("b0.log")), "\xEF\xBB\xBF");
    ASSERT_TRUE(
        XmlLogConfiguration::reconfigure(*document.getDocumentElement(), nullptr).m_bApplied);
    // The old writer was flushed before its replacement took the ring over.
    EXPECT_EQ(test::readFile(temp.file("b0.log")), "\xEF\xBB\xBFkept in the buffer\n");
    logUnder(L"buffered", kSevError, L"after the hand-over");
    XmlLogConfiguration::configAll(*parse("<Logging/>").getDocumentElement(), nullptr);
    EXPECT_EQ(test::readFile(temp.file("b0.log")),
              "\xEF\xBB\xBFkept in the buffer\nafter the hand-over\n");
}

TEST_F(XmlLogConfigurationTest, FileFormsSelectTheirElementOrReportItsAbsence) {
    const test::TempDir temp;
    const String file =
        fromUtf8(temp.write("server.xml",
                            "<Server><Log><Writers><Writer name='rec' implementation="
                            "'RecordingWriter' writerClassId='1'/></Writers></Log></Server>"));
    XmlLogConfiguration::configAll(file, String(L"Log"), nullptr);
    EXPECT_NE(findRecording(L"rec"), nullptr);
    {
        AssertionCapture capture;
        XmlLogConfiguration::configAll(file, String(L"Missing"), nullptr);
        EXPECT_TRUE(capture.contains("lpConfigNode != NULL"));
    }
    {
        AssertionCapture capture;
        LogWritersState state;
        XmlLogConfiguration::configWriters(file, String(L"Missing"), state,
                                           XmlLogConfiguration::WT_SHARED,
                                           XmlLogConfiguration::WD_GLOBAL, nullptr, nullptr);
        EXPECT_TRUE(capture.contains("lpConfigNode != __null"));
        EXPECT_TRUE(state.m_list.empty());
    }
    const ConfigurationReport report =
        XmlLogConfiguration::reconfigure(file, nullptr, String(L"Missing"));
    ASSERT_EQ(report.m_vecProblems.size(), 1u);
    EXPECT_TRUE(contains(report.m_vecProblems[0], "has no element 'Missing'"));
}

TEST_F(XmlLogConfigurationTest, UnterminatedMarkerIsRefusedWithItsLineAndColumn) {
    ReplacementMap map;
    map[String(L"x")] = String(L"1");
    const XmlDocument document = parse("<Logging>\n  <Writers a='{%x'/>\n</Logging>");
    try {
        XmlLogConfiguration::configAll(*document.getDocumentElement(), &map);
        FAIL() << "no exception";
    } catch (const LogConfigurationException& e) {
        const String text = e.getMsg().toString();
        EXPECT_TRUE(contains(text, ":2:15:")) << toUtf8(text.view()).std();
        EXPECT_TRUE(contains(text, "not closed")) << toUtf8(text.view()).std();
    }
}

TEST_F(XmlLogConfigurationTest, GlobalWriterWhoseInitialisationReturnsFalseNeverWrites) {
    testing::internal::CaptureStderr();
    XmlLogConfiguration::configAll(
        *parse("<Logging><Writers>"
               "<Writer name='bad' implementation='RecordingWriter' writerClassId='1' fail='true'/>"
               "<Writer name='good' implementation='RecordingWriter' writerClassId='2'/>"
               "</Writers></Logging>")
             .getDocumentElement(),
        nullptr);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Writer 'bad' (RecordingWriter) could not be set up"), std::string::npos)
        << err;
    ASSERT_EQ(globalWriters().size(), 1u);
    EXPECT_TRUE(globalWriters()[0]->getName().equals(String(L"good")));
}

TEST_F(XmlLogConfigurationTest, GlobalWriterWhoseInitialisationThrowsIsRemovedAndDisabled) {
    EXPECT_THROW(XmlLogConfiguration::configAll(
                     *parse("<Logging><Writers><Writer name='thrower' "
                            "implementation='ThrowingWriter' writerClassId='1'/></Writers>"
                            "</Logging>")
                          .getDocumentElement(),
                     nullptr),
                 LogConfigurationException);
    EXPECT_TRUE(globalWriters().empty());
}

TEST_F(XmlLogConfigurationTest, FileWriterWithoutDirNeverCreatesAFileInTheWorkingDirectory) {
    const test::TempDir temp;
    const std::filesystem::path previous = std::filesystem::current_path();
    std::filesystem::current_path(temp.path());
    EXPECT_THROW(XmlLogConfiguration::configAll(
                     *parse("<Logging><Writers><Writer name='nodir' "
                            "implementation='FileLogWriter' writerClassId='1'/></Writers>"
                            "</Logging>")
                          .getDocumentElement(),
                     nullptr),
                 XmlException);
    logUnder(L"nodir", kSevError, L"nowhere to go");
    std::filesystem::current_path(previous);
    EXPECT_TRUE(globalWriters().empty());
    EXPECT_TRUE(std::filesystem::is_empty(temp.path()));
}

TEST_F(XmlLogConfigurationTest, WriterClassIdOutsideZeroToNineIsRefusedNamingTheWriter) {
    for (const char* pszId : {"12", "-1"}) {
        testing::internal::CaptureStderr();
        XmlLogConfiguration::configAll(
            *parse(std::string("<Logging><Writers><Writer name='w' implementation="
                               "'RecordingWriter' writerClassId='") +
                   pszId + "'/></Writers></Logging>")
                 .getDocumentElement(),
            nullptr);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find(std::string("Writer 'w': writerClassId '") + pszId + "'"),
                  std::string::npos)
            << err;
        EXPECT_TRUE(globalWriters().empty());
    }
}

TEST_F(XmlLogConfigurationTest, ConfigAllSkipsAWriterWithAnOversizedAttributeInOneShortLine) {
    const std::string huge(1000000, 'd');
    testing::internal::CaptureStderr();
    XmlLogConfiguration::configAll(
        *parse("<Logging><Writers><Writer name='f' implementation='FileLogWriter' "
               "writerClassId='0' dir='" +
               huge + "'/></Writers></Logging>")
             .getDocumentElement(),
        nullptr);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_LT(err.size(), 512u) << err.substr(0, 512);
    EXPECT_NE(err.find("Writer attribute dir is 1000000 characters long"), std::string::npos);
    EXPECT_TRUE(globalWriters().empty());
}

TEST_F(XmlLogConfigurationTest, TenantPrefixKeepsFileWritersOnlyWithFiltersFromGlobalRecords) {
    const test::TempDir temp;
    const std::string xml =
        "<Logging><WriterClassGroups><WriterClassGroup name='T'>4</WriterClassGroup>"
        "</WriterClassGroups><Filters><FilterRecord writerClassGroup='T' path='tenant' "
        "error='9'/></Filters><Writers>"
        "<Writer name='tf' implementation='FileLogWriter' writerClassId='4' dir='" +
        temp.path() +
        "' filePrefix='t'/>"
        "<Writer name='tr' implementation='RecordingWriter' writerClassId='4'/>"
        "</Writers></Logging>";
    LogWritersState state;
    const String prefix(L"acme");
    XmlLogConfiguration::configWriters(*parse(xml).getDocumentElement(), state,
                                       XmlLogConfiguration::WT_SHARED,
                                       XmlLogConfiguration::WD_TENANT, nullptr, &prefix);
    ASSERT_EQ(state.m_list.size(), 1u);
    EXPECT_TRUE(state.m_list[0]->getName().equals(String(L"tf")));
    const Handle<const WriterFilter>& hFilter = state.m_list[0]->getWriterFilter();
    ASSERT_FALSE(hFilter.isNull());
    const LogSourceHandle tenant(String(L"tenant"));
    EXPECT_TRUE(hFilter->isLogEnabled(LogSeverity(LogSeverity::SV_ERROR, 9), *tenant));
    EXPECT_FALSE(hFilter->isLogEnabled(LogSeverity(LogSeverity::SV_ERROR, 10), *tenant));
    EXPECT_TRUE(globalWriters().empty());
}

TEST_F(XmlLogConfigurationTest, BoundedInsertCutsLongValuesWithAnEllipsis) {
    const std::wstring longText(300, L'x');
    const String cut = boundedInsert(longText).toString();
    EXPECT_EQ(cut.size(), kMaxInsertLength);
    EXPECT_EQ(cut[kMaxInsertLength - 1], L'\u2026');
    EXPECT_TRUE(boundedInsert(L"short").toString().equals(String(L"short")));
}

// ---------------------------------------------------------------------------------------------
// reconfigure

TEST_F(XmlLogConfigurationTest, ReconfigureInstallsAValidDocumentAndReportsTheChange) {
    const LogSourceHandle source(String(L"cfg"));
    XmlLogConfiguration::configAll(*parse(kRecordingDocument).getDocumentElement(), nullptr);
    const std::vector<Handle<LogWriter>> vecOld = globalWriters();
    const ConfigurationReport report = XmlLogConfiguration::reconfigure(
        *parse("<Logging><Writers><Writer name='next' implementation='RecordingWriter' "
               "writerClassId='2'/></Writers></Logging>")
             .getDocumentElement(),
        nullptr);
    EXPECT_TRUE(report.m_bApplied) << joined(report.m_vecProblems);
    EXPECT_TRUE(report.m_vecProblems.empty());
    ASSERT_EQ(report.m_vecWritersBefore.size(), 1u);
    EXPECT_TRUE(contains(report.m_vecWritersBefore[0], "rec (id 1"));
    ASSERT_EQ(report.m_vecWritersAfter.size(), 1u);
    EXPECT_TRUE(contains(report.m_vecWritersAfter[0], "next (id 2"));
    EXPECT_TRUE(vecOld[0]->isRetired());
    ASSERT_NE(findRecording(L"next"), nullptr);
    // The thresholds of the new document are in force: it sets none, so nothing passes.
    EXPECT_EQ(source->getLogFilter().getLogLevels(1), LogLevels(0, 0, 0, 0, 0));
}

TEST_F(XmlLogConfigurationTest, ReconfigureWithProblemsChangesNothingAndNamesEveryProblem) {
    XmlLogConfiguration::configAll(*parse(kRecordingDocument).getDocumentElement(), nullptr);
    const std::vector<Handle<LogWriter>> vecBefore = globalWriters();
    const LogSourceHandle source(String(L"cfg.kept"));
    const LogLevels levelsBefore = source->getLogFilter().getLogLevels(1);
    const int nVersion = LogWritersMan::getLogWritersMan().getVersion();

    const ConfigurationReport report = XmlLogConfiguration::reconfigure(
        *parse("<Logging>\n"
               "<WriterClassGroups><WriterClassGroup name='G'>1</WriterClassGroup>\n"
               "<WriterClassGroup name='G'>2</WriterClassGroup></WriterClassGroups>\n"
               "<Filters><FilterRecord writerClassGroup='Nope' path='x'/></Filters>\n"
               "<Writers>\n"
               "<Writer name='a' implementation='NoSuchWriter' writerClassId='1'/>\n"
               "<Writer name='b' implementation='RecordingWriter' writerClassId='12'/>\n"
               "<Writer name='c' implementation='RecordingWriter' writerClassId='1' "
               "fmtName='Missing'/>\n"
               "<Writer name='d' implementation='RecordingWriter' writerClassId='2'/>\n"
               "</Writers></Logging>")
             .getDocumentElement(),
        nullptr, String(L"doc.xml"));
    EXPECT_FALSE(report.m_bApplied);
    const std::string all = joined(report.m_vecProblems);
    EXPECT_EQ(report.m_vecProblems.size(), 5u) << all;
    EXPECT_NE(all.find("doc.xml:3: Failed to load configuration. Writers Class G is defined"),
              std::string::npos)
        << all;
    EXPECT_NE(all.find("doc.xml:4: Failed to load configuration. Writers Class Nope is not"),
              std::string::npos)
        << all;
    EXPECT_NE(all.find("doc.xml:6: Writer 'a' names implementation 'NoSuchWriter'"),
              std::string::npos)
        << all;
    EXPECT_NE(all.find("doc.xml:7: Writer 'b': writerClassId '12'"), std::string::npos) << all;
    EXPECT_NE(all.find("doc.xml:8: Writer 'c' (RecordingWriter) could not be set up: Failed to "
                       "init log writer. The following log format is not found: Missing"),
              std::string::npos)
        << all;

    EXPECT_EQ(LogWritersMan::getLogWritersMan().getVersion(), nVersion);
    const std::vector<Handle<LogWriter>> vecAfter = globalWriters();
    ASSERT_EQ(vecAfter.size(), vecBefore.size());
    EXPECT_EQ(vecAfter[0].get(), vecBefore[0].get());
    EXPECT_TRUE(vecAfter[0]->isEnabled());
    EXPECT_EQ(source->getLogFilter().getLogLevels(1), levelsBefore);
    EXPECT_EQ(report.m_vecWritersAfter, report.m_vecWritersBefore);
}

TEST_F(XmlLogConfigurationTest, ReconfiguringTheSameFileRingHandsItOverWithoutLosingALine) {
    const test::TempDir temp;
    const LogSourceHandle source(String(L"ring"));
    const std::string xml =
        "<Logging><WriterClassGroups><WriterClassGroup name='R'>0"
        "</WriterClassGroup></WriterClassGroups><Filters><FilterRecord "
        "writerClassGroup='R' path='ring' error='100'/></Filters>"
        "<Formats><Format name='Line'><MessageText/><LineBreak/>"
        "</Format></Formats><Writers><Writer name='ring' "
        "implementation='FileLogWriter' writerClassId='0' fmtName='Line' "
        "dir='" +
        temp.path() + "' filePrefix='r'/></Writers></Logging>";
    const XmlDocument document = parse(xml);
    for (int i = 0; i < 3; ++i) {
        testing::internal::CaptureStderr();
        const ConfigurationReport report =
            XmlLogConfiguration::reconfigure(*document.getDocumentElement(), nullptr);
        const std::string err = testing::internal::GetCapturedStderr();
        ASSERT_TRUE(report.m_bApplied) << joined(report.m_vecProblems) << err;
        EXPECT_EQ(err.find("already belong"), std::string::npos) << err;
        logUnder(L"ring", kSevError, (L"line " + std::to_wstring(i)).c_str());
    }
    XmlLogConfiguration::configAll(*parse("<Logging/>").getDocumentElement(), nullptr);
    EXPECT_EQ(test::readFile(temp.file("r0.log")), "\xEF\xBB\xBFline 0\nline 1\nline 2\n");
}

TEST_F(XmlLogConfigurationTest, ReconfigureRefusesAnOversizedAttributeWithoutBuildingTheWriter) {
    const test::TempDir temp;
    const std::string huge(100000, 'd');
    const ConfigurationReport report = XmlLogConfiguration::reconfigure(
        *parse("<Logging>\n<Writers>\n<Writer name='f' implementation='FileLogWriter' "
               "writerClassId='0' dir='" +
               huge + "'/></Writers></Logging>")
             .getDocumentElement(),
        nullptr, String(L"big.xml"));
    ASSERT_EQ(report.m_vecProblems.size(), 1u);
    const std::string text = toUtf8(report.m_vecProblems[0].view()).std();
    EXPECT_LT(text.size(), 300u);
    EXPECT_NE(text.find("big.xml:3: Writer attribute dir is 100000 characters long"),
              std::string::npos)
        << text;
}

TEST_F(XmlLogConfigurationTest, ReconfigureSetsTheSameThresholdsAsConfigAll) {
    const LogSourceHandle top(String(L"same"));
    const LogSourceHandle child(String(L"same.child"));
    const LogSourceHandle grandchild(String(L"same.child.leaf"));
    const LogSourceHandle other(String(L"same.other"));
    const XmlDocument document = parse(
        "<Logging><WriterClassGroups><WriterClassGroup name='A'>1,2</WriterClassGroup>"
        "<WriterClassGroup name='B'>2</WriterClassGroup></WriterClassGroups><Filters>"
        "<FilterRecord writerClassGroup='A' path='same' error='10' warning='4'/>"
        "<FilterRecord writerClassGroup='B' path='same.*' error='7'/>"
        "<FilterRecord writerClassGroup='B' path='same.child' trace='3'/>"
        "</Filters></Logging>");
    const std::vector<const LogSource*> vecSources{top.get(), child.get(), grandchild.get(),
                                                   other.get()};
    const auto levels = [&] {
        std::vector<LogLevels> vecLevels;
        for (const LogSource* pSource : vecSources) {
            for (int nId = 0; nId < 10; ++nId) {
                vecLevels.push_back(pSource->getLogFilter().getLogLevels(nId));
            }
        }
        return vecLevels;
    };
    XmlLogConfiguration::configAll(*document.getDocumentElement(), nullptr);
    const std::vector<LogLevels> vecByConfigAll = levels();
    XmlLogConfiguration::configAll(*parse("<Logging/>").getDocumentElement(), nullptr);
    ASSERT_NE(levels(), vecByConfigAll);
    ASSERT_TRUE(
        XmlLogConfiguration::reconfigure(*document.getDocumentElement(), nullptr).m_bApplied);
    EXPECT_EQ(levels(), vecByConfigAll);
    EXPECT_EQ(grandchild->getLogFilter().getLogLevels(2), LogLevels(0, 7, 4, 0, 3));
}

}  // namespace
}  // namespace kiv

// Bad logging documents, one per row: each is refused by reconfigure with one problem that
// names the file, the line and what is wrong, in a bounded text, while the configuration in
// force (its file writer and its thresholds) keeps logging as before.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/alloc_counter.h"
#include "support/temp_dir.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/tmlogger.h"
#include "weblogger/xmllogconfiguration.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

const char* const kHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Logging>\n";

const char* const kGoodDocument =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<Logging>\n"
    "  <WriterClassGroups><WriterClassGroup name=\"F\">0</WriterClassGroup></WriterClassGroups>\n"
    "  <Filters><FilterRecord writerClassGroup=\"F\" path=\"bad\" error=\"32\"/></Filters>\n"
    "  <Writers><Writer name=\"good\" implementation=\"FileLogWriter\" writerClassId=\"0\"\n"
    "                   fmtName=\"Line\" dir=\"{%logDir%}\" filePrefix=\"good\"/></Writers>\n"
    "  <Formats><Format name=\"Line\"><MessageText/><LineBreak/></Format></Formats>\n"
    "</Logging>\n";

struct BadDocument {
    const char* pszWhat;
    std::string strBody;  // after kHead
    unsigned nLine;
    std::string strExpected;
};

std::vector<BadDocument> badDocuments() {
    return {
        {"malformed XML", "<Writers>\n</Logging>\n", 4, "is not well-formed XML"},
        {"unknown implementation",
         "<Writers><Writer name=\"w\" implementation=\"Nowhere\" writerClassId=\"1\"/></Writers>\n"
         "</Logging>\n",
         3, "Writer 'w' names implementation 'Nowhere', which no writer class"},
        {"unknown format",
         "<Writers>\n<Writer name=\"w\" implementation=\"CoutWriter\" writerClassId=\"1\" "
         "fmtName=\"NoSuchFormat\"/></Writers>\n</Logging>\n",
         4, "The following log format is not found: NoSuchFormat"},
        {"undefined group",
         "<Filters><FilterRecord writerClassGroup=\"Ghost\" path=\"bad\" error=\"1\"/></Filters>\n"
         "</Logging>\n",
         3, "Writers Class Ghost is not defined"},
        {"duplicate group",
         "<WriterClassGroups>\n<WriterClassGroup name=\"G\">1</WriterClassGroup>\n"
         "<WriterClassGroup name=\"G\">2</WriterClassGroup>\n</WriterClassGroups>\n</Logging>\n",
         5, "Writers Class G is defined more then once"},
        {"id out of range",
         "<WriterClassGroups><WriterClassGroup name=\"G\">1, 12</WriterClassGroup>"
         "</WriterClassGroups>\n</Logging>\n",
         3, "Class id 12 is out of range"},
        {"missing required attribute",
         "<WriterClassGroups><WriterClassGroup name=\"G\">1</WriterClassGroup>"
         "</WriterClassGroups>\n<Filters>\n<FilterRecord writerClassGroup=\"G\" error=\"1\"/>\n"
         "</Filters>\n</Logging>\n",
         5, "FilterRecord has no attribute path"},
        {"file writer without dir",
         "<Writers>\n\n<Writer name=\"f\" implementation=\"FileLogWriter\" writerClassId=\"2\"/>\n"
         "</Writers>\n</Logging>\n",
         5,
         "Writer 'f' (FileLogWriter) could not be set up: Required attribute 'dir' is "
         "missing in element 'Writer'"},
        {"unterminated variable",
         "<Writers><Writer name=\"f\" implementation=\"FileLogWriter\" writerClassId=\"2\" "
         "dir=\"{%logDir/x\"/></Writers>\n</Logging>\n",
         3, ":81: a variable marker \"{%\" is not closed by \"%}\""},
        {"writerClassId 12",
         "<Writers>\n<Writer name=\"w\" implementation=\"CoutWriter\" writerClassId=\"12\"/>\n"
         "</Writers>\n</Logging>\n",
         4, "Writer 'w': writerClassId '12' is not a writer id from 0 to 9"},
        {"writerClassId -1",
         "<Writers>\n<Writer name=\"w\" implementation=\"CoutWriter\" writerClassId=\"-1\"/>\n"
         "</Writers>\n</Logging>\n",
         4, "Writer 'w': writerClassId '-1' is not a writer id from 0 to 9"},
        {"10 MB attribute",
         "<Writers><Writer name=\"f\" implementation=\"FileLogWriter\" writerClassId=\"2\" dir=\"" +
             std::string(10 * 1024 * 1024, 'd') + "\"/></Writers>\n</Logging>\n",
         3, "Writer attribute dir is 10485760 characters long; a value may have at most 4096"},
    };
}

TEST(BadDocuments, EachIsOneClearErrorAndLoggingGoesOnWithWhatWasInForce) {
    const test::TempDir temp;
    const LogSourceHandle source(String(L"bad"));
    ReplacementMap map;
    map[String(L"logDir")] = fromUtf8(temp.path());
    const ConfigurationReport good =
        XmlLogConfiguration::reconfigure(fromUtf8(temp.write("good.xml", kGoodDocument)), &map);
    ASSERT_TRUE(good.m_bApplied);

    std::vector<Handle<LogWriter>> vecInForce;
    AtomicEntity<int> version(0);
    logger_details::LogWritersMan::getLogWritersMan().getWriters(vecInForce, version);
    ASSERT_EQ(vecInForce.size(), 1u);
    const LogLevels levelsInForce = source->getLogFilter().getLogLevels(0);

    std::string strExpectedLog = "\xEF\xBB\xBF";
    for (const BadDocument& bad : badDocuments()) {
        SCOPED_TRACE(bad.pszWhat);
        const std::string strFile = temp.write("bad.xml", kHead + bad.strBody);
        const std::size_t nHeapBefore = test::liveHeapBytes();
        const ConfigurationReport report =
            XmlLogConfiguration::reconfigure(fromUtf8(strFile), &map);
        EXPECT_LT(test::liveHeapBytes(), nHeapBefore + 1024 * 1024);

        EXPECT_FALSE(report.m_bApplied);
        ASSERT_EQ(report.m_vecProblems.size(), 1u);
        const std::string text = toUtf8(report.m_vecProblems[0].view()).std();
        EXPECT_EQ(text.rfind(strFile + ":" + std::to_string(bad.nLine) + ":", 0), 0u) << text;
        EXPECT_NE(text.find(bad.strExpected), std::string::npos) << text;
        EXPECT_LT(text.size(), 2048u);

        // What was in force still is, and still writes.
        std::vector<Handle<LogWriter>> vecNow;
        logger_details::LogWritersMan::getLogWritersMan().getWriters(vecNow, version);
        ASSERT_EQ(vecNow.size(), 1u);
        EXPECT_EQ(vecNow[0].get(), vecInForce[0].get());
        EXPECT_TRUE(vecNow[0]->isEnabled());
        EXPECT_EQ(source->getLogFilter().getLogLevels(0), levelsInForce);
        const std::string strLine = std::string("after ") + bad.pszWhat;
        TmLogger::getLogger().logMessage(kSevError, GDString(fromUtf8(strLine)), source.get());
        strExpectedLog += strLine + "\n";
    }
    EXPECT_EQ(test::readFile(temp.file("good0.log")), strExpectedLog);
    // The refused writers made nothing: no directory named by the 10 MB value, no ring of theirs.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(temp.path()),
                            std::filesystem::directory_iterator()),
              3);  // good.xml, bad.xml, good0.log

    XmlLogConfiguration::configAll(
        *XmlDocument::parseString(std::string_view("<Logging/>")).getDocumentElement(), nullptr);
}

}  // namespace
}  // namespace kiv

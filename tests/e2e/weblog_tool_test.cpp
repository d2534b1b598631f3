// The weblog tool run as operators run it: a real process on configuration files and rings of
// log files in a temporary directory, its output and exit status compared. The rings are
// written by the library's own FileLogWriter in this process, so the tool reads what a server
// leaves behind.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"
#include "weblogger/xmllogconfiguration.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

using test::TempDir;

struct ToolRun {
    int nStatus;
    std::string strOut;
    std::string strErr;
};

// Runs weblog with args (none may hold a single quote), its output captured into files of dir.
ToolRun runWeblog(const TempDir& dir, const std::vector<std::string>& vecArgs) {
    std::string command = std::string("'") + WEBLOG_TOOL + "'";
    for (const std::string& arg : vecArgs) {
        command += " '" + arg + "'";
    }
    command += " > '" + dir.file("weblog.out") + "' 2> '" + dir.file("weblog.err") + "'";
    const int nRaw = std::system(command.c_str());
    EXPECT_TRUE(WIFEXITED(nRaw)) << command;
    return ToolRun{WEXITSTATUS(nRaw), test::readFile(dir.file("weblog.out")),
                   test::readFile(dir.file("weblog.err"))};
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> vecLines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        vecLines.push_back(line);
    }
    return vecLines;
}

// ---------------------------------------------------------------------------------------------
// Help and usage.

TEST(WeblogToolTest, HelpOfTheToolAndOfEveryCommandExitsZero) {
    const TempDir dir;
    const ToolRun overview = runWeblog(dir, {"--help"});
    EXPECT_EQ(overview.nStatus, 0);
    for (const char* pszCommand : {"check", "thresholds", "explain", "render", "cat"}) {
        EXPECT_NE(overview.strOut.find(std::string("  ") + pszCommand + " "), std::string::npos)
            << pszCommand;
        const ToolRun help = runWeblog(dir, {pszCommand, "--help"});
        EXPECT_EQ(help.nStatus, 0) << pszCommand;
        EXPECT_EQ(help.strOut.rfind(std::string("usage: weblog ") + pszCommand + " ", 0), 0u)
            << help.strOut;
        EXPECT_NE(help.strOut.find("exit status: 0 fine, 1 problems found, 2 usage error"),
                  std::string::npos);
        EXPECT_EQ(help.strErr, "");
    }
}

TEST(WeblogToolTest, UsageErrorsExitTwoAndSayWhat) {
    const TempDir dir;
    const std::string config = dir.write("logconfig.xml", "<Logging/>");
    struct Case {
        std::vector<std::string> vecArgs;
        const char* pszSays;
    };
    const std::vector<Case> vecCases = {
        {{}, "usage: weblog COMMAND"},
        {{"frobnicate"}, "weblog: unknown command 'frobnicate'"},
        {{"check"}, "weblog check: missing arguments"},
        {{"check", config, "more"}, "weblog check: too many arguments"},
        {{"check", config, "--verbose"}, "weblog check: unknown option --verbose"},
        {{"check", config, "--var"}, "weblog check: option --var needs a value"},
        {{"check", config, "--var", "novalue"}, "--var needs name=value, not 'novalue'"},
        {{"explain", config, "kiv", "loud", "1"}, "weblog explain: unknown message type 'loud'"},
        {{"explain", config, "kiv", "error", "high"}, "IMPORTANCE must be a number, not 'high'"},
        {{"cat", dir.path(), "kiv", "--since", "yesterday"}, "TIME must look like"},
        {{"render", config}, "weblog render: missing arguments"},
    };
    for (const Case& c : vecCases) {
        const ToolRun run = runWeblog(dir, c.vecArgs);
        EXPECT_EQ(run.nStatus, 2) << c.pszSays;
        EXPECT_NE(run.strErr.find(c.pszSays), std::string::npos) << run.strErr;
        EXPECT_EQ(run.strOut, "") << c.pszSays;
    }
}

// ---------------------------------------------------------------------------------------------
// check

TEST(WeblogToolTest, CheckOfASoundFileExitsZero) {
    const TempDir dir;
    const std::string config = dir.write("logconfig.xml", R"(<Logging>
  <WriterClassGroups><WriterClassGroup name="Console">1</WriterClassGroup></WriterClassGroups>
  <Filters><FilterRecord writerClassGroup="Console" path="kiv" error="32"/></Filters>
  <Writers><Writer name="console" implementation="CoutWriter" writerClassId="1"
                   fmtName="Lines"/></Writers>
  <Formats><Format name="Lines" Encoding="Json">{"m":"<MessageText/>"}<LineBreak/></Format></Formats>
</Logging>
)");
    const ToolRun run = runWeblog(dir, {"check", config});
    EXPECT_EQ(run.nStatus, 0) << run.strOut << run.strErr;
    EXPECT_EQ(run.strOut, config + ": no problems found\n");
}

TEST(WeblogToolTest, CheckReportsEveryProblemWithLineAndColumn) {
    const TempDir dir;
    // Each line below that holds a problem says so; the columns are those of the elements.
    const std::string config = dir.write("logconfig.xml", R"(<Logging>
  <WriterClassGroups>
    <WriterClassGroup name="Console">1,
2</WriterClassGroup>
    <WriterClassGroup name="Files">12</WriterClassGroup>
  </WriterClassGroups>
  <Filters>
    <FilterRecord writerClassGroup="Console" path="kiv" error="abc" warning="70000"/>
    <FilterRecord writerClassGroup="Nobody" path="kiv.http"/>
  </Filters>
  <Writers>
    <Writer name="a" implementation="FileLogWriter" writerClassId="1" dir="{%dir%}/logs"
            filePrefix="x" fmtName="Mine"/>
      <Writer name="b" implementation="FileLogWriter" writerClassId="12" dir="{%dir%}/logs/"
              filePrefix="x" fmtName="Broken"/>
  </Writers>
  <Formats>
    <Format name="Broken"><Property/></Format>
    <Format name="Odd" Encoding="Ebcdic"><MessageText/></Format>
  </Formats>
</Logging>
)");
    const ToolRun run = runWeblog(dir, {"check", config, "--var", "dir=" + dir.path()});
    EXPECT_EQ(run.nStatus, 1);
    const std::string ring = std::filesystem::weakly_canonical(dir.path()).string() + "/logs/x";
    const std::vector<std::string> vecExpected = {
        config +
            ":3:5: warning: the writer id token '\\n2' in WriterClassGroup holds a line break or "
            "tab; only blanks, commas and semicolons separate ids, so it is read as writer id 2.",
        config + ":5:5: error: Failed to load configuration. Class id 12 is out of range.",
        config +
            ":8:5: warning: FilterRecord attribute error='abc' is not a plain decimal number; it "
            "is read as 0.",
        config +
            ":8:5: warning: FilterRecord attribute warning='70000' is outside 0 to 65535; only "
            "its low 16 bits are kept, so it is read as 4464.",
        config + ":9:5: error: Failed to load configuration. Writers Class Nobody is not defined.",
        config +
            ":12:5: error: Failed to init log writer. The following log format is not "
            "found: Mine",
        config +
            ":14:7: error: Writer 'b': writerClassId '12' is not a writer id from 0 to 9; "
            "the writer is not built.",
        config + ":14:7: error: Failed to init log writer b. The log files " + ring +
            "*.log already belong to log writer a of this process.",
        config +
            ":18:5: error: the Format 'Broken' does not compile: Required attribute 'name' "
            "is missing in element 'Property'",
        config +
            ":19:5: warning: the Format 'Odd' has Encoding 'Ebcdic', which is none of Xml, "
            "Plain and Json; it is compiled with the default encoding.",
        config + ": 6 error(s), 4 warning(s)",
    };
    EXPECT_EQ(linesOf(run.strOut), vecExpected);
}

TEST(WeblogToolTest, CheckWarnsOfAPatternThatNoSourceMatches) {
    const TempDir dir;
    const std::string config = dir.write("logconfig.xml", R"(<Logging>
  <WriterClassGroups><WriterClassGroup name="All">1</WriterClassGroup></WriterClassGroups>
  <Filters>
    <FilterRecord writerClassGroup="All" path="shop.cart" error="32"/>
    <FilterRecord writerClassGroup="All" path="shop.*" error="16"/>
      <FilterRecord writerClassGroup="All" path="shpo.*" error="16"/>
  </Filters>
</Logging>
)");
    const ToolRun run = runWeblog(dir, {"check", config});
    EXPECT_EQ(run.nStatus, 1);
    EXPECT_EQ(run.strOut,
              config +
                  ":6:7: warning: FilterRecord path='shpo.*' (writer ids 1) is a pattern "
                  "that matches no existing log source.\n" +
                  config + ": 0 error(s), 1 warning(s)\n");
}

TEST(WeblogToolTest, CheckReportsAnUnterminatedVariableWhereItBegins) {
    const TempDir dir;
    const std::string config =
        dir.write("logconfig.xml", "<Logging>\n  <Writers dir=\"{%logDir\"/>\n</Logging>\n");
    const ToolRun run = runWeblog(dir, {"check", config, "--var", "logDir=/tmp"});
    EXPECT_EQ(run.nStatus, 1);
    EXPECT_EQ(run.strOut, config +
                              ":2:17: error: a variable marker \"{%\" is not closed by \"%}\"; no "
                              "variable of the document is replaced and the document is not "
                              "applied.\n" +
                              config + ": 1 error(s), 0 warning(s)\n");
}

TEST(WeblogToolTest, CheckReportsXmlThatIsNotWellFormed) {
    const TempDir dir;
    const std::string config = dir.write("logconfig.xml", "<Logging>\n  <a></b>\n</Logging>\n");
    const ToolRun run = runWeblog(dir, {"check", config});
    EXPECT_EQ(run.nStatus, 1);
    EXPECT_EQ(linesOf(run.strOut).front(),
              config + ":2:8: error: the document is not well-formed XML: mismatched tag");
}

TEST(WeblogToolTest, CheckOfAFileThatCannotBeReadExitsOne) {
    const TempDir dir;
    const ToolRun run = runWeblog(dir, {"check", dir.file("absent.xml")});
    EXPECT_EQ(run.nStatus, 1);
    EXPECT_EQ(run.strErr, "weblog check: cannot read " + dir.file("absent.xml") + "\n");
}

// ---------------------------------------------------------------------------------------------
// thresholds and explain

// kiv sets errors and warnings for both writers; kiv.http lowers the files' errors; the
// request source below inherits everything but its console traces.
const char* const kThreeLevels = R"(<Logging>
  <WriterClassGroups>
    <WriterClassGroup name="Console">1</WriterClassGroup>
    <WriterClassGroup name="Files">2</WriterClassGroup>
    <WriterClassGroup name="Everyone">1 2</WriterClassGroup>
  </WriterClassGroups>
  <Filters>
    <FilterRecord writerClassGroup="Everyone" path="kiv" error="32" warning="16"/>
    <FilterRecord writerClassGroup="Files" path="kiv.http" error="8" information="20"/>
    <FilterRecord writerClassGroup="Console" path="kiv.http.request" trace="5"/>
  </Filters>
  <Writers>
    <Writer name="console" implementation="CoutWriter" writerClassId="1" fmtName="Short"/>
    <Writer name="files" implementation="FileLogWriter" writerClassId="2" dir="{%dir%}"
            filePrefix="kiv">
      <Filters><FilterRecord path="kiv.http" error="4"/></Filters>
    </Writer>
  </Writers>
</Logging>
)";

TEST(WeblogToolTest, ThresholdsShowsTheTableOfAThreeLevelConfiguration) {
    const TempDir dir;
    const std::string config = dir.write("logconfig.xml", kThreeLevels);
    const ToolRun run =
        runWeblog(dir, {"thresholds", config, "kiv", "kiv.http", "kiv.http.request"});
    EXPECT_EQ(run.nStatus, 0) << run.strErr;
    EXPECT_EQ(run.strOut,
              "SOURCE            WRITER     incident_error  error  warning  information  trace\n"
              "kiv               1 console  0               32     16       0            0\n"
              "kiv               2 files    0               32     16       0            0\n"
              "kiv.http          1 console  0               32     16       0            0\n"
              "kiv.http          2 files    0               8      16       20           0\n"
              "kiv.http.request  1 console  0               32     16       0            5\n"
              "kiv.http.request  2 files    0               8      16       20           0\n");
    // Without sources: every source the file names, with its ancestors.
    const ToolRun all = runWeblog(dir, {"thresholds", config});
    EXPECT_EQ(all.strOut, run.strOut);
}

TEST(WeblogToolTest, ExplainNamesTheRecordsThatDecideForEachWriter) {
    const TempDir dir;
    const std::string config = dir.write("logconfig.xml", kThreeLevels);
    // An error of importance 10 from the request source: the console passes it (32, inherited
    // from kiv), the files do not (8, inherited from kiv.http).
    const ToolRun run = runWeblog(dir, {"explain", config, "kiv.http.request", "error", "10"});
    EXPECT_EQ(run.nStatus, 0) << run.strErr;
    EXPECT_EQ(run.strOut,
              "kiv.http.request, error of importance 10:\n"
              "writer \"console\" (id 1, CoutWriter): reached\n"
              "  source filter: error threshold 32 >= 10, inherited from kiv, set there by " +
                  config +
                  ":8 (FilterRecord path=\"kiv\")\n"
                  "  writer filter: none (the writer takes every source)\n"
                  "writer \"files\" (id 2, FileLogWriter): not reached\n"
                  "  source filter: error threshold 8 < 10, inherited from kiv.http, set there "
                  "by " +
                  config +
                  ":9 (FilterRecord path=\"kiv.http\")\n"
                  "  writer filter: error threshold 4 < 10, inherited from kiv.http, set there "
                  "by " +
                  config + ":16 (FilterRecord path=\"kiv.http\")\n");
    // A trace of importance 3 from the request itself: its own record lets the console have it.
    const ToolRun trace = runWeblog(dir, {"explain", config, "kiv.http.request", "trace", "3"});
    EXPECT_NE(trace.strOut.find("writer \"console\" (id 1, CoutWriter): reached\n"
                                "  source filter: trace threshold 5 >= 3, set by " +
                                config + ":10 (FilterRecord path=\"kiv.http.request\")\n"),
              std::string::npos)
        << trace.strOut;
    EXPECT_NE(trace.strOut.find("  source filter: trace threshold 0 < 3, no record sets it for "
                                "this source or an ancestor (the default 0)\n"),
              std::string::npos)
        << trace.strOut;
}

TEST(WeblogToolTest, ExplainRefusesADocumentTheLoaderWouldRefuse) {
    const TempDir dir;
    const std::string config = dir.write(
        "logconfig.xml",
        "<Logging>\n<Filters><FilterRecord writerClassGroup=\"None\" path=\"kiv\"/></Filters>\n"
        "</Logging>\n");
    const ToolRun run = runWeblog(dir, {"explain", config, "kiv", "error", "1"});
    EXPECT_EQ(run.nStatus, 1);
    EXPECT_EQ(run.strErr, config +
                              ":2:10: error: Failed to load configuration. Writers Class "
                              "None is not defined.\n");
}

// ---------------------------------------------------------------------------------------------
// render

TEST(WeblogToolTest, RenderPrintsTheSampleThroughAFormatOfTheFile) {
    const TempDir dir;
    const std::string config = dir.write("logconfig.xml", R"(<Logging><Formats>
  <Format name="Mine">[<CurrentLogSource/>] <MsgType/>/<MsgSeverity/> <MessageText/> user=<Property name="userId"><PropertyValues/></Property><LineBreak/></Format>
</Formats></Logging>
)");
    const ToolRun run = runWeblog(dir, {"render", config, "Mine"});
    EXPECT_EQ(run.nStatus, 0) << run.strErr;
    EXPECT_EQ(run.strOut,
              "[weblog.render] NOTIFICATION/20 sample message rendered through the format Mine "
              "user=user7\n");
    // A built-in format too.
    const ToolRun builtIn = runWeblog(dir, {"render", config, "Short"});
    EXPECT_EQ(builtIn.strOut,
              "N20\tweblog.render\tsample message rendered through the format Short\t\n");
    const ToolRun unknown = runWeblog(dir, {"render", config, "Nope"});
    EXPECT_EQ(unknown.nStatus, 1);
    EXPECT_EQ(unknown.strErr,
              "weblog render: Failed to init log writer. The following log format "
              "is not found: Nope\n");
}

// ---------------------------------------------------------------------------------------------
// cat

// A ring of files written by the library's FileLogWriter in KLF-Text, each message carrying
// the ecid of its request.
class RingOfFiles {
public:
    RingOfFiles(const std::string& dir, const std::string& filesN) {
        const std::string config =
            "<Logging><WriterClassGroups><WriterClassGroup name=\"Files\">2</WriterClassGroup>"
            "</WriterClassGroups><Filters><FilterRecord writerClassGroup=\"Files\" path=\"shop\" "
            "information=\"65534\"/></Filters><Writers><Writer name=\"files\" "
            "implementation=\"FileLogWriter\" writerClassId=\"2\" fmtName=\"KLF-Text\" dir=\"" +
            dir + "\" filePrefix=\"shop\" maxFileSizeKb=\"1\" filesN=\"" + filesN +
            "\" autoFlush=\"yes\"/></Writers></Logging>";
        XmlLogConfiguration::configAll(
            *XmlDocument::parseString(std::string_view(config)).getDocumentElement(), nullptr);
    }
    ~RingOfFiles() {
        XmlLogConfiguration::configAll(
            *XmlDocument::parseString(std::string_view("<Logging/>")).getDocumentElement(),
            nullptr);
    }

    void log(const LogSourceHandle& source, const std::string& ecid, const std::string& text) {
        TmLogger& logger = TmLogger::getLogger();
        logger.pushProperty(String(L"ecid"), GDString(fromUtf8(ecid)), 0xFFFFFFFF);
        const FileLocation here(L"tests/e2e/weblog_tool_test.cpp", __LINE__);
        logger.logMessage(kSevInfo, GDString(fromUtf8(text)), source.get(), &here);
        logger.popProperty(String(L"ecid"));
    }
};

// The numbers of the "message N" texts of output, in order.
std::vector<int> messageNumbers(const std::string& output) {
    static const std::regex kMessage(R"(\] message (\d+)\[\[$)");
    std::vector<int> vecNumbers;
    for (const std::string& line : linesOf(output)) {
        std::smatch match;
        if (std::regex_search(line, match, kMessage)) {
            vecNumbers.push_back(std::stoi(match[1].str()));
        }
    }
    return vecNumbers;
}

TEST(WeblogToolTest, CatReadsAWrappedRingOldestFirst) {
    const TempDir dir;
    constexpr int kMessages = 60;
    // Sources exist before the configuration, so that its thresholds reach them.
    const LogSourceHandle source(String(L"shop"));
    {
        RingOfFiles ring(dir.path(), "3");
        for (int i = 0; i < kMessages; ++i) {
            ring.log(source, "trace" + std::to_string(i % 3) + ",span",
                     "message " + std::to_string(i));
        }
    }
    // The ring went round: three files, the first messages overwritten.
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(std::filesystem::exists(dir.file("shop" + std::to_string(i) + ".log")));
    }
    ASSERT_FALSE(std::filesystem::exists(dir.file("shop3.log")));
    const ToolRun run = runWeblog(dir, {"cat", dir.path(), "shop"});
    EXPECT_EQ(run.nStatus, 0) << run.strErr;
    const std::vector<int> vecNumbers = messageNumbers(run.strOut);
    ASSERT_FALSE(vecNumbers.empty());
    EXPECT_GT(vecNumbers.front(), 0) << "the ring should have wrapped";
    EXPECT_EQ(vecNumbers.back(), kMessages - 1);
    for (std::size_t i = 1; i < vecNumbers.size(); ++i) {
        EXPECT_EQ(vecNumbers[i], vecNumbers[i - 1] + 1) << "at line " << i;
    }
    // Every line of every file is there, in file order, with no byte-order mark.
    std::size_t nLinesInFiles = 0;
    for (int i = 0; i < 3; ++i) {
        nLinesInFiles +=
            linesOf(test::readFile(dir.file("shop" + std::to_string(i) + ".log"))).size();
    }
    EXPECT_EQ(linesOf(run.strOut).size(), nLinesInFiles);
    EXPECT_EQ(run.strOut.find("\xEF\xBB\xBF"), std::string::npos);
    EXPECT_EQ(run.strOut.rfind("[20", 0), 0u);
}

TEST(WeblogToolTest, CatKeepsTheMessagesOfOneRequestByItsTraceId) {
    const TempDir dir;
    const LogSourceHandle request(String(L"shop.request"));
    const LogSourceHandle db(String(L"shop.db"));
    {
        RingOfFiles ring(dir.path(), "10");
        for (int i = 0; i < 12; ++i) {
            const std::string ecid = "trace" + std::to_string(i % 3) + ",span" + std::to_string(i);
            ring.log(i % 2 == 0 ? request : db, ecid, "message " + std::to_string(i));
        }
    }
    const ToolRun byTrace = runWeblog(dir, {"cat", dir.path(), "shop", "--ecid", "trace1"});
    EXPECT_EQ(byTrace.nStatus, 0) << byTrace.strErr;
    EXPECT_EQ(messageNumbers(byTrace.strOut), (std::vector<int>{1, 4, 7, 10}));
    // Each message comes whole, with the detail lines that follow its first line.
    EXPECT_NE(byTrace.strOut.find("]]"), std::string::npos);
    for (const std::string& line : linesOf(byTrace.strOut)) {
        if (line.rfind("[20", 0) == 0) {
            EXPECT_NE(line.find("[ecid: trace1,"), std::string::npos) << line;
        }
    }
    // A full ecid matches on its trace part.
    const ToolRun full = runWeblog(dir, {"cat", dir.path(), "shop", "--ecid", "trace2,span5"});
    EXPECT_EQ(messageNumbers(full.strOut), (std::vector<int>{2, 5, 8, 11}));

    const ToolRun bySource = runWeblog(dir, {"cat", dir.path(), "shop", "--source", "*.db"});
    EXPECT_EQ(messageNumbers(bySource.strOut), (std::vector<int>{1, 3, 5, 7, 9, 11}));
    const ToolRun both =
        runWeblog(dir, {"cat", dir.path(), "shop", "--source", "shop.request", "--ecid", "trace0"});
    EXPECT_EQ(messageNumbers(both.strOut), (std::vector<int>{0, 6}));

    const ToolRun since = runWeblog(dir, {"cat", dir.path(), "shop", "--since", "2000-01-01"});
    EXPECT_EQ(messageNumbers(since.strOut).size(), 12u);
    const ToolRun future =
        runWeblog(dir, {"cat", dir.path(), "shop", "--since", "2999-01-01T00:00"});
    EXPECT_EQ(future.nStatus, 0);
    EXPECT_EQ(future.strOut, "");
}

TEST(WeblogToolTest, CatOfADirectoryWithoutTheRingExitsOne) {
    const TempDir dir;
    dir.write("other0.log", "not ours\n");
    const ToolRun run = runWeblog(dir, {"cat", dir.path(), "shop"});
    EXPECT_EQ(run.nStatus, 1);
    EXPECT_EQ(run.strErr, "weblog cat: no files shop<n>.log in " + dir.path() + "\n");
}

}  // namespace
}  // namespace kiv

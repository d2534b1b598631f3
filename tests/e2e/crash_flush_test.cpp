// A server configured from a logging document with flushOnCrash="true" logs through TmLogger
// into a file writer with "autoFlush" off, another thread logging all the while, and crashes:
// every line the crashing thread logged is in the file, followed by the signal's line, every
// line of the other thread is whole and none is missing before its last one, and the process
// ended by the signal.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>

#include "support/temp_dir.h"
#include "weblogger/commonseverities.h"
#include "weblogger/crashflush.h"
#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"
#include "weblogger/xmllogconfiguration.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

const char* const kLogConfig = R"(<Logging flushOnCrash="true">
  <WriterClassGroups><WriterClassGroup name="Files">2</WriterClassGroup></WriterClassGroups>
  <Filters><FilterRecord writerClassGroup="Files" path="server" error="32"/></Filters>
  <Writers>
    <Writer name="files" implementation="FileLogWriter" writerClassId="2" fmtName="Line"
            dir="{%logDir%}" filePrefix="server" autoFlush="no" maxFileSizeKb="100000"/>
  </Writers>
  <Formats><Format name="Line"><MessageText/><LineBreak/></Format></Formats>
</Logging>
)";

constexpr long kMainLines = 1000;

// Made before the configuration, which sets the thresholds of the sources that exist.
const LogSource* g_pSource = nullptr;

void logLine(const char* pszTag, long n) {
    TmLogger::getLogger().logMessage(
        kSevError, GDString(fromUtf8(std::string(pszTag) + " " + std::to_string(n))), g_pSource);
}

// The child: configure, log, crash. Exit codes name what went wrong before the crash.
[[noreturn]] void serverThatCrashes(const std::string& dir) {
    struct rlimit noCore = {0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    // The host's handler for abort is the default action.
    ::signal(SIGABRT, SIG_DFL);
    const LogSourceHandle source(String(L"server"));
    g_pSource = source.get();
    ReplacementMap variables;
    variables[String(L"logDir")] = fromUtf8(dir);
    const XmlDocument document = XmlDocument::parseString(std::string_view(kLogConfig));
    XmlLogConfiguration::configAll(*document.getDocumentElement(), &variables);
    if (!isCrashFlushInstalled()) {
        ::_exit(10);
    }
    std::atomic<long> nWorkerLines{0};
    std::thread([&] {
        prepareThreadForCrashFlush();
        for (long n = 0;; ++n) {
            logLine("worker", n);
            nWorkerLines.store(n + 1);
        }
    }).detach();
    for (long n = 0; n < kMainLines; ++n) {
        logLine("main", n);
    }
    while (nWorkerLines.load() < 100) {
        std::this_thread::yield();
    }
    std::abort();
}

TEST(CrashFlushScenario, ConfiguredServerCrashesWithEveryLoggedLineOnDisk) {
    test::TempDir dir;
    const pid_t nChild = ::fork();
    ASSERT_GE(nChild, 0);
    if (nChild == 0) {
        serverThatCrashes(dir.path());
    }
    int nStatus = 0;
    ASSERT_EQ(::waitpid(nChild, &nStatus, 0), nChild);
    ASSERT_TRUE(WIFSIGNALED(nStatus)) << "exit status " << WEXITSTATUS(nStatus);
    EXPECT_EQ(WTERMSIG(nStatus), SIGABRT);

    const std::string text = test::readFile(dir.file("server0.log"));
    ASSERT_EQ(text.rfind("\xEF\xBB\xBF", 0), 0u);
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n') << "a torn last line";
    std::istringstream lines(text.substr(3));
    const std::string signalLine =
        "Fatal signal SIGABRT (" + std::to_string(SIGABRT) +
        "): the lines logged before it were written out; the process goes on to the signal's "
        "own handling.";
    long nMain = 0;
    long nWorker = 0;
    int nSignalLines = 0;
    std::string line;
    while (std::getline(lines, line)) {
        if (line == signalLine) {
            ++nSignalLines;
            EXPECT_EQ(nMain, kMainLines) << "the signal's line before the last main line";
        } else if (line.rfind("main ", 0) == 0) {
            EXPECT_EQ(line, "main " + std::to_string(nMain));
            ++nMain;
        } else {
            // The worker's lines in order, none left out, each whole.
            EXPECT_EQ(line, "worker " + std::to_string(nWorker));
            ++nWorker;
        }
    }
    EXPECT_EQ(nMain, kMainLines);
    EXPECT_EQ(nSignalLines, 1);
    EXPECT_GE(nWorker, 100);
}

}  // namespace
}  // namespace kiv

// The crash flush, in real child processes that really crash: what a file writer held with
// "autoFlush" off is on disk afterwards, followed by the signal's line, and the process still
// ends by the signal (the parent reads it from waitpid), through the host's handler when there
// is one.
#include "weblogger/internal/fatalsignalflush.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "support/temp_dir.h"
#include "support/writer_config.h"
#include "weblogger/crashflush.h"
#include "weblogger/internal/filelogwriter.h"
#include "weblogger/xmllogconfiguration.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

using test::readFile;
using test::TempDir;
using test::WriterConfig;

const std::string kBom = "\xEF\xBB\xBF";
constexpr int kLines = 1000;

// Exit codes of a child whose own checks failed before it could crash.
constexpr int kExitNoWriter = 10;
constexpr int kExitNotInstalled = 11;
constexpr int kExitFlushedTooEarly = 12;
constexpr int kExitDidNotCrash = 13;

std::string writerXml(const std::string& dir, const std::string& prefix) {
    return "<Writer name='crash' writerClassId='3' implementation='FileLogWriter' dir='" + dir +
           "' filePrefix='" + prefix + "' autoFlush='false' maxFileSizeKb='100000'/>";
}

std::string signalLine(const char* pszName, int nSignal) {
    return std::string("Fatal signal ") + pszName + " (" + std::to_string(nSignal) +
           "): the lines logged before it were written out; the process goes on to the "
           "signal's own handling.\n";
}

std::string numberedLines(int nCount) {
    std::string text;
    for (int i = 1; i <= nCount; ++i) {
        text += "line " + std::to_string(i) + "\n";
    }
    return text;
}

// Runs body in a forked child with core dumps off and standard error in stderrPath (when given);
// returns the child's wait status. A child that neither ends nor crashes in 30 s fails the test.
int runChild(const std::function<void()>& body, const std::string& stderrPath = std::string()) {
    const pid_t nChild = ::fork();
    if (nChild == 0) {
        struct rlimit noCore = {0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        if (!stderrPath.empty()) {
            const int nFd = ::open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::dup2(nFd, STDERR_FILENO);
        }
        // The child is the host here: whatever a sanitizer installed is not its handler.
        for (int nSignal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
            ::signal(nSignal, SIG_DFL);
        }
        body();
        ::_exit(0);
    }
    EXPECT_GT(nChild, 0);
    int nStatus = 0;
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (::waitpid(nChild, &nStatus, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > tEnd) {
            ::kill(nChild, SIGKILL);
            ::waitpid(nChild, &nStatus, 0);
            ADD_FAILURE() << "the child did not end";
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return nStatus;
}

Handle<LogWriter> makeWriter(const WriterConfig& config) {
    Handle<LogWriter> hWriter = config.create(L"FileLogWriter");
    if (hWriter.isNull()) {
        ::_exit(kExitNoWriter);
    }
    return hWriter;
}

void logNumbered(LogWriter& writer, int nCount) {
    const LoggerState state = test::stateWithSource(L"crashtest");
    for (int i = 1; i <= nCount; ++i) {
        writer.logMessage(kSevError, GDString(fromUtf8("line " + std::to_string(i))), state,
                          nullptr);
    }
}

// Out of the undefined-behaviour sanitizer's sight: the store is meant to reach the processor.
__attribute__((no_sanitize("undefined"))) void crashByNullDereference() {
    volatile int* volatile pNothing = nullptr;
    *pNothing = 1;
}

// Logs kLines lines, checks that they are all still in the buffer, and crashes.
void logThenCrash(const std::string& dir, const std::function<void()>& crash) {
    const WriterConfig config(writerXml(dir, "crash"));
    Handle<LogWriter> hWriter = makeWriter(config);
    if (!installCrashFlush()) {
        ::_exit(kExitNotInstalled);
    }
    logNumbered(*hWriter, kLines);
    struct stat st;
    if (::stat((dir + "/crash0.log").c_str(), &st) != 0 || st.st_size != 3) {
        ::_exit(kExitFlushedTooEarly);
    }
    crash();
    ::_exit(kExitDidNotCrash);
}

// The whole file compared; a mismatch shows where it starts instead of a thousand lines.
void expectFile(const std::string& path, const std::string& expected) {
    const std::string text = readFile(path);
    std::size_t nSame = 0;
    while (nSame < text.size() && nSame < expected.size() && text[nSame] == expected[nSame]) {
        ++nSame;
    }
    EXPECT_TRUE(text == expected) << path << ": " << text.size() << " bytes, expected "
                                  << expected.size() << "; they differ from byte " << nSame << ": '"
                                  << text.substr(nSame, 120) << "' instead of '"
                                  << expected.substr(nSame, 120) << "'";
}

void expectKilledBy(int nStatus, int nSignal) {
    ASSERT_TRUE(WIFSIGNALED(nStatus)) << "exit status " << WEXITSTATUS(nStatus);
    EXPECT_EQ(WTERMSIG(nStatus), nSignal);
}

TEST(FatalSignalFlushTest, NullDereferenceWritesEveryBufferedLineThenTheSignalLine) {
    TempDir dir;
    const int nStatus = runChild([&] { logThenCrash(dir.path(), &crashByNullDereference); });
    expectKilledBy(nStatus, SIGSEGV);
    expectFile(dir.file("crash0.log"),
               kBom + numberedLines(kLines) + signalLine("SIGSEGV", SIGSEGV));
}

TEST(FatalSignalFlushTest, AbortWritesEveryBufferedLineThenTheSignalLine) {
    TempDir dir;
    const int nStatus = runChild([&] { logThenCrash(dir.path(), [] { std::abort(); }); });
    expectKilledBy(nStatus, SIGABRT);
    expectFile(dir.file("crash0.log"),
               kBom + numberedLines(kLines) + signalLine("SIGABRT", SIGABRT));
}

// The host's handler: records whether the log file was complete when it ran, then lets the
// signal kill the process as the default action does.
int g_nHostPipe = -1;
char g_szHostLogPath[4096];

void hostAbortHandler(int nSignal) {
    struct stat st;
    const bool bFlushed = ::stat(g_szHostLogPath, &st) == 0 && st.st_size > 3;
    const char* pszMarker = bFlushed ? "host handler after flush\n" : "host handler before flush\n";
    ssize_t nIgnored = ::write(g_nHostPipe, pszMarker, std::strlen(pszMarker));
    static_cast<void>(nIgnored);
    ::signal(nSignal, SIG_DFL);
    ::raise(nSignal);
}

TEST(FatalSignalFlushTest, HostHandlerInstalledBeforeStillRunsAfterTheFlush) {
    TempDir dir;
    int arrPipe[2];
    ASSERT_EQ(::pipe(arrPipe), 0);
    const std::string logPath = dir.file("crash0.log");
    ASSERT_LT(logPath.size(), sizeof(g_szHostLogPath));
    const int nStatus = runChild([&] {
        ::close(arrPipe[0]);
        g_nHostPipe = arrPipe[1];
        std::strcpy(g_szHostLogPath, logPath.c_str());
        struct sigaction host = {};
        host.sa_handler = &hostAbortHandler;
        sigemptyset(&host.sa_mask);
        ::sigaction(SIGABRT, &host, nullptr);
        logThenCrash(dir.path(), [] { std::abort(); });
    });
    ::close(arrPipe[1]);
    char arrRead[128] = {};
    const ssize_t nRead = ::read(arrPipe[0], arrRead, sizeof(arrRead) - 1);
    ::close(arrPipe[0]);
    expectKilledBy(nStatus, SIGABRT);
    ASSERT_GT(nRead, 0);
    EXPECT_STREQ(arrRead, "host handler after flush\n");
    expectFile(logPath, kBom + numberedLines(kLines) + signalLine("SIGABRT", SIGABRT));
}

TEST(FatalSignalFlushTest, HostHandlerInstalledAfterTakesPrecedence) {
    TempDir dir;
    const int nStatus = runChild([&] {
        const WriterConfig config(writerXml(dir.path(), "crash"));
        Handle<LogWriter> hWriter = makeWriter(config);
        if (!installCrashFlush()) {
            ::_exit(kExitNotInstalled);
        }
        logNumbered(*hWriter, 10);
        // Replaces ours: a host that wants its own way after installing gets it.
        ::signal(SIGABRT, SIG_DFL);
        std::abort();
    });
    expectKilledBy(nStatus, SIGABRT);
    expectFile(dir.file("crash0.log"), kBom);
}

TEST(FatalSignalFlushTest, WriterBusyAtTheCrashIsSkippedAndCountedOthersAreWritten) {
    TempDir dir;
    const std::string stderrPath = dir.file("stderr.txt");
    const int nStatus = runChild(
        [&] {
            const WriterConfig busyConfig(writerXml(dir.path(), "busy"));
            const WriterConfig freeConfig(writerXml(dir.path(), "free"));
            Handle<LogWriter> hBusy = makeWriter(busyConfig);
            Handle<LogWriter> hFree = makeWriter(freeConfig);
            if (!installCrashFlush()) {
                ::_exit(kExitNotInstalled);
            }
            logNumbered(*hBusy, 20);
            logNumbered(*hFree, 20);
            // As if the crash came in the middle of a write through this writer.
            hBusy->getWriterSynchro().acquire();
            std::abort();
        },
        stderrPath);
    expectKilledBy(nStatus, SIGABRT);
    expectFile(dir.file("busy0.log"), kBom);
    expectFile(dir.file("free0.log"), kBom + numberedLines(20) + signalLine("SIGABRT", SIGABRT));
    EXPECT_NE(readFile(stderrPath)
                  .find("weblogger: Fatal signal SIGABRT: 1 log writer(s) were busy "
                        "and could not write out what they held.\n"),
              std::string::npos)
        << readFile(stderrPath);
}

TEST(FatalSignalFlushTest, SignalSentByAnotherProcessIsHandedOnToo) {
    TempDir dir;
    const int nStatus = runChild([&] {
        logThenCrash(dir.path(), [] {
            ::kill(::getpid(), SIGBUS);
            // The signal is delivered before kill returns.
        });
    });
    expectKilledBy(nStatus, SIGBUS);
    expectFile(dir.file("crash0.log"), kBom + numberedLines(kLines) + signalLine("SIGBUS", SIGBUS));
}

TEST(FatalSignalFlushTest, InstallingTwiceKeepsTheHostHandlerItFoundFirst) {
    TempDir dir;
    const int nStatus = runChild([&] {
        if (!installCrashFlush() || !installCrashFlush() || !isCrashFlushInstalled()) {
            ::_exit(kExitNotInstalled);
        }
        // Our handler would hand on to itself if the second call had saved it as the host's.
        std::abort();
    });
    expectKilledBy(nStatus, SIGABRT);
}

volatile long g_nDepthLeft = 0;

int recurseDeeper(volatile char* pPrevious) {
    volatile char arrFrame[4096];
    arrFrame[0] = pPrevious != nullptr ? pPrevious[0] : 1;
    g_nDepthLeft = g_nDepthLeft - 1;
    if (g_nDepthLeft <= 0) {
        return arrFrame[0];
    }
    return recurseDeeper(arrFrame) + arrFrame[0];
}

TEST(FatalSignalFlushTest, CallingThreadGetsAnAlternateStackAndAStackOverflowIsFlushed) {
    TempDir dir;
    const int nStatus = runChild([&] {
        logThenCrash(dir.path(), [] {
            stack_t current;
            if (::sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) != 0) {
                ::_exit(kExitNotInstalled);
            }
            // Recursion far deeper than any stack: the handler runs on the alternate stack.
            g_nDepthLeft = 1L << 40;
            recurseDeeper(nullptr);
        });
    });
    expectKilledBy(nStatus, SIGSEGV);
    expectFile(dir.file("crash0.log"),
               kBom + numberedLines(kLines) + signalLine("SIGSEGV", SIGSEGV));
}

TEST(FatalSignalFlushTest, OtherThreadPreparedForTheFlushHasItsOwnAlternateStack) {
    bool bBefore = true;
    bool bAfter = false;
    bool bSame = false;
    std::thread([&] {
        stack_t current;
        bBefore = ::sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0;
        const void* pExisting = current.ss_sp;
        bAfter = prepareThreadForCrashFlush();
        ::sigaltstack(nullptr, &current);
        bSame = bBefore && current.ss_sp == pExisting;
    }).join();
    EXPECT_TRUE(bAfter);
    // A stack the thread had (a sanitizer gives threads one) is kept.
    EXPECT_EQ(bBefore, bSame);
}

// The logging element's attribute: applied in a child, since installing is for good.
int configureInChild(const std::string& document, const std::string& stderrPath) {
    return runChild(
        [&] {
            const XmlDocument parsed = XmlDocument::parseString(std::string_view(document));
            XmlLogConfiguration::configAll(*parsed.getDocumentElement(), nullptr);
            ::_exit(isCrashFlushInstalled() ? 0 : 1);
        },
        stderrPath);
}

TEST(FatalSignalFlushTest, LoggingElementAttributeTurnsTheFlushOn) {
    TempDir dir;
    for (const char* pszValue : {"true", "YES", "1"}) {
        const int nStatus = configureInChild(
            std::string("<Logging flushOnCrash='") + pszValue + "'/>", dir.file("err"));
        ASSERT_TRUE(WIFEXITED(nStatus));
        EXPECT_EQ(WEXITSTATUS(nStatus), 0) << pszValue;
    }
    for (const char* pszValue : {"false", "No", "0", ""}) {
        const int nStatus = configureInChild(
            std::string("<Logging flushOnCrash='") + pszValue + "'/>", dir.file("err"));
        ASSERT_TRUE(WIFEXITED(nStatus));
        EXPECT_EQ(WEXITSTATUS(nStatus), 1) << pszValue;
        EXPECT_EQ(readFile(dir.file("err")), "");
    }
}

TEST(FatalSignalFlushTest, InvalidAttributeIsReportedWithFileLineElementAndValue) {
    TempDir dir;
    const int nStatus = configureInChild("<Logging\n flushOnCrash='sometimes'/>", dir.file("err"));
    ASSERT_TRUE(WIFEXITED(nStatus));
    EXPECT_EQ(WEXITSTATUS(nStatus), 1);
    EXPECT_EQ(readFile(dir.file("err")),
              "weblogger: <element>:1: the attribute flushOnCrash of Logging must be true or "
              "false (yes, no, 1, 0), not 'sometimes'; the crash flush is not turned on.\n");
}

TEST(FatalSignalFlushTest, ReconfigureRefusesAnInvalidAttributeAndAppliesAValidOne) {
    TempDir dir;
    const int nStatus = runChild([&] {
        const XmlDocument bad =
            XmlDocument::parseString(std::string_view("<Logging flushOnCrash='maybe'/>"));
        const ConfigurationReport refused =
            XmlLogConfiguration::reconfigure(*bad.getDocumentElement(), nullptr, L"bad.xml");
        if (refused.m_bApplied || refused.m_vecProblems.size() != 1 ||
            refused.m_vecProblems[0].view().find(L"bad.xml:1: the attribute flushOnCrash of "
                                                 L"Logging must be true or false") != 0 ||
            isCrashFlushInstalled()) {
            ::_exit(2);
        }
        const XmlDocument good =
            XmlDocument::parseString(std::string_view("<Logging flushOnCrash='true'/>"));
        const ConfigurationReport applied =
            XmlLogConfiguration::reconfigure(*good.getDocumentElement(), nullptr, L"good.xml");
        ::_exit(applied.m_bApplied && isCrashFlushInstalled() ? 0 : 3);
    });
    ASSERT_TRUE(WIFEXITED(nStatus));
    EXPECT_EQ(WEXITSTATUS(nStatus), 0);
}

TEST(FatalSignalFlushTest, ReadSettingNamesEachValue) {
    const XmlDocument document = XmlDocument::parseString(
        std::string_view("<Root><Logging flushOnCrash='Y'/><Logging/></Root>"));
    const XmlElement* pFirst = document.getDocumentElement()->getFirstChild()->asElement();
    const XmlElement* pSecond = pFirst->getNextSibling()->asElement();
    std::optional<ParamMessage> problem;
    EXPECT_EQ(logger_details::FatalSignalFlush::readSetting(*pSecond, L"f.xml", 1, problem),
              logger_details::FatalSignalFlush::FC_UNSET);
    EXPECT_FALSE(problem.has_value());
    // Only the three words of each side: "Y" is not one of them.
    EXPECT_EQ(logger_details::FatalSignalFlush::readSetting(*pFirst, L"f.xml", 7, problem),
              logger_details::FatalSignalFlush::FC_INVALID);
    ASSERT_TRUE(problem.has_value());
}

}  // namespace
}  // namespace kiv

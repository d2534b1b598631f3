// fork() while other threads log through a file writer: the child never finds the writer's lock
// held (every child logs and exits within a second), and no line reaches the file twice (what
// the parent's buffer held at the fork is written by the parent alone).
#include "weblogger/internal/forksafety.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"
#include "support/writer_config.h"
#include "weblogger/internal/filelogwriter.h"
#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"

#if defined(__SANITIZE_ADDRESS__)
// Children here end with exit() while the parent's threads, whose stacks held the pointers to
// the parent's objects, do not exist in them: every such object would look leaked to the leak
// check that runs at a child's exit.
extern "C" const char* __lsan_default_options() {
    return "detect_leaks=0";
}
#endif
#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer sleeps a second at every exit by default (for threads still running), the
// children's exits included.
extern "C" const char* __tsan_default_options() {
    return "atexit_sleep_ms=0";
}
#endif

namespace kiv {
namespace {

using test::readFile;
using test::TempDir;
using test::WriterConfig;

constexpr int kThreads = 4;
constexpr int kForks = 200;
constexpr int kChildLines = 3;

std::string writerXml(const std::string& dir, const std::string& prefix) {
    return "<Writer name='forked' writerClassId='3' implementation='FileLogWriter' dir='" + dir +
           "' filePrefix='" + prefix + "' autoFlush='false' maxFileSizeKb='4000000'/>";
}

// Logs one line "<tag> <n>" without allocating and without the C library's formatting, which
// takes locks of its own: a child must need no lock that another thread of the parent held.
void logLine(LogWriter& writer, const LoggerState& state, const char* pszTag, long n) {
    wchar_t arrText[64];
    std::size_t nLength = 0;
    for (const char* p = pszTag; *p != 0 && nLength < 32; ++p) {
        arrText[nLength++] = static_cast<wchar_t>(*p);
    }
    arrText[nLength++] = L' ';
    wchar_t arrDigits[24];
    std::size_t nDigits = 0;
    do {
        arrDigits[nDigits++] = static_cast<wchar_t>(L'0' + n % 10);
        n /= 10;
    } while (n != 0);
    while (nDigits > 0) {
        arrText[nLength++] = arrDigits[--nDigits];
    }
    writer.logMessage(kSevError, GDStringRef(arrText, nLength), state, nullptr);
}

// Waits up to nMillis for the child; true when it ended. A child still running is killed.
bool waitForChild(pid_t nChild, int nMillis, int& nStatus) {
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(nMillis);
    for (;;) {
        const pid_t nDone = ::waitpid(nChild, &nStatus, WNOHANG);
        if (nDone == nChild) {
            return true;
        }
        if (std::chrono::steady_clock::now() > tEnd) {
            ::kill(nChild, SIGKILL);
            ::waitpid(nChild, &nStatus, 0);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

TEST(ForkSafetyTest, HandlersAreRegisteredWhenTheLibraryLoads) {
    EXPECT_TRUE(logger_details::ForkSafety::isInstalled());
    EXPECT_TRUE(logger_details::ForkSafety::install());
}

TEST(ForkSafetyTest, ForksWhileThreadsLogLeaveNoLockHeldAndNoLineTwice) {
    TempDir dir;
    const WriterConfig config(writerXml(dir.path(), "fork"));
    Handle<LogWriter> hWriter = config.create(L"FileLogWriter");
    ASSERT_FALSE(hWriter.isNull());
    const LoggerState childState = test::stateWithSource(L"forktest");

    std::atomic<bool> bStop{false};
    std::array<std::atomic<long>, kThreads> arrLogged{};
    std::vector<std::thread> vecThreads;
    for (int nThread = 0; nThread < kThreads; ++nThread) {
        vecThreads.emplace_back([&, nThread] {
            const LoggerState state = test::stateWithSource(L"forktest");
            const std::string tag = "t" + std::to_string(nThread);
            long n = 0;
            while (!bStop.load(std::memory_order_relaxed)) {
                logLine(*hWriter, state, tag.c_str(), n);
                arrLogged[nThread].store(++n, std::memory_order_relaxed);
            }
        });
    }
    for (int nThread = 0; nThread < kThreads; ++nThread) {
        while (arrLogged[nThread].load() < 100) {
            std::this_thread::yield();
        }
    }

    int nHung = 0;
    int nFailed = 0;
    for (int nFork = 0; nFork < kForks; ++nFork) {
        const std::string tag = "c" + std::to_string(nFork);
        const pid_t nChild = ::fork();
        ASSERT_GE(nChild, 0);
        if (nChild == 0) {
            for (long nLine = 0; nLine < kChildLines; ++nLine) {
                logLine(*hWriter, childState, tag.c_str(), nLine);
            }
            hWriter->flush();
            ::_exit(0);
        }
        int nStatus = 0;
        if (!waitForChild(nChild, 1000, nStatus)) {
            ++nHung;
        } else if (!WIFEXITED(nStatus) || WEXITSTATUS(nStatus) != 0) {
            ++nFailed;
        }
    }
    bStop = true;
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    hWriter->flush();
    EXPECT_EQ(nHung, 0) << "children that did not exit within a second";
    EXPECT_EQ(nFailed, 0) << "children that did not exit normally";

    std::istringstream lines(readFile(dir.file("fork0.log")).substr(3));
    std::set<std::string> setSeen;
    std::vector<std::string> vecTwice;
    std::map<std::string, long> mapCount;
    std::string line;
    while (std::getline(lines, line)) {
        if (!setSeen.insert(line).second) {
            vecTwice.push_back(line);
        }
        ++mapCount[line.substr(0, line.find(' '))];
    }
    EXPECT_TRUE(vecTwice.empty()) << vecTwice.size() << " lines twice, the first: '"
                                  << vecTwice.front() << "'";
    for (int nThread = 0; nThread < kThreads; ++nThread) {
        EXPECT_EQ(mapCount["t" + std::to_string(nThread)], arrLogged[nThread].load());
    }
    for (int nFork = 0; nFork < kForks; ++nFork) {
        EXPECT_EQ(mapCount["c" + std::to_string(nFork)], kChildLines) << "child " << nFork;
    }
}

TEST(ForkSafetyTest, WritersMadeAndDestroyedDuringForksAreNeitherLostNorLeftLocked) {
    TempDir dir;
    std::atomic<bool> bStop{false};
    std::atomic<long> nMade{0};
    // Writers come and go while the main thread forks: the destructor waits for a fork's pin.
    std::thread churn([&] {
        const LoggerState state = test::stateWithSource(L"forkchurn");
        const WriterConfig config(writerXml(dir.path(), "churn"));
        while (!bStop.load()) {
            Handle<LogWriter> hWriter = config.create(L"FileLogWriter");
            if (!hWriter.isNull()) {
                logLine(*hWriter, state, "churn", nMade.fetch_add(1));
            }
        }
    });
    const WriterConfig config(writerXml(dir.path(), "steady"));
    Handle<LogWriter> hSteady = config.create(L"FileLogWriter");
    ASSERT_FALSE(hSteady.isNull());
    const LoggerState state = test::stateWithSource(L"forkchurn");
    while (nMade.load() < 10) {
        std::this_thread::yield();
    }
    int nHung = 0;
    for (int nFork = 0; nFork < kForks / 4; ++nFork) {
        const pid_t nChild = ::fork();
        ASSERT_GE(nChild, 0);
        if (nChild == 0) {
            logLine(*hSteady, state, "child", nFork);
            hSteady->flush();
            ::_exit(0);
        }
        int nStatus = 0;
        nHung += waitForChild(nChild, 1000, nStatus) ? 0 : 1;
    }
    bStop = true;
    churn.join();
    EXPECT_EQ(nHung, 0);
    EXPECT_GT(nMade.load(), 10);
    std::istringstream lines(readFile(dir.file("steady0.log")).substr(3));
    std::set<std::string> setSeen;
    std::string line;
    while (std::getline(lines, line)) {
        EXPECT_TRUE(setSeen.insert(line).second) << line;
    }
    EXPECT_EQ(setSeen.size(), static_cast<std::size_t>(kForks / 4));
}

// Threads that log through their loggers while the main thread forks, and children that log
// through a logger of their own (made in the child) and end with exit(), which runs the
// library's shutdown: it must neither wait for the parent's threads, which do not exist in the
// child, nor find the live loggers' lock held. Each child's line is written out at its exit.
TEST(ForkSafetyTest, ChildThatLogsAndEndsWithExitNeitherHangsNorWaits) {
    TempDir dir;
    const WriterConfig config(writerXml(dir.path(), "exit"));
    Handle<LogWriter> hWriter = config.create(L"FileLogWriter");
    ASSERT_FALSE(hWriter.isNull());
    const LogSourceHandle source(String(L"forktest.exit"));
    const_cast<LogSource&>(*source).getLogFilter().setLogLevelsForId(
        3, LogLevels(65534, 65534, 65534, 65534, 65534));

    std::atomic<bool> bStop{false};
    std::atomic<long> nLogged{0};
    std::vector<std::thread> vecThreads;
    for (int nThread = 0; nThread < kThreads; ++nThread) {
        vecThreads.emplace_back([&] {
            TmLogger& logger = TmLogger::getLogger();
            logger.addLocalWriter(hWriter.get());
            logger.pushSource(*source);
            const GDString text(L"parent");
            while (!bStop.load(std::memory_order_relaxed)) {
                logger.logMessage(kSevError, text);
                nLogged.fetch_add(1, std::memory_order_relaxed);
            }
            logger.popSource();
            logger.removeLocalWriter(hWriter.get());
        });
    }
    while (nLogged.load() < 1000) {
        std::this_thread::yield();
    }
    constexpr int kExitForks = 50;
    int nHung = 0;
    int nFailed = 0;
    for (int nFork = 0; nFork < kExitForks; ++nFork) {
        std::fflush(nullptr);
        const pid_t nChild = ::fork();
        ASSERT_GE(nChild, 0);
        if (nChild == 0) {
            // The forking thread has logged nowhere else: its logger is made in the child.
            TmLogger& logger = TmLogger::getLogger();
            logger.addLocalWriter(hWriter.get());
            logger.pushSource(*source);
            logLine(*hWriter, test::stateWithSource(L"forktest.exit"), "exited", nFork);
            logger.popSource();
            logger.removeLocalWriter(hWriter.get());
            std::exit(0);
        }
        int nStatus = 0;
        if (!waitForChild(nChild, 1000, nStatus)) {
            ++nHung;
        } else if (!WIFEXITED(nStatus) || WEXITSTATUS(nStatus) != 0) {
            ++nFailed;
        }
    }
    bStop = true;
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    hWriter->flush();
    EXPECT_EQ(nHung, 0) << "children that did not end within a second";
    EXPECT_EQ(nFailed, 0) << "children that did not exit normally";
    const std::string text = readFile(dir.file("exit0.log"));
    for (int nFork = 0; nFork < kExitForks; ++nFork) {
        EXPECT_NE(text.find("exited " + std::to_string(nFork) + "\n"), std::string::npos)
            << "child " << nFork;
    }
}

}  // namespace
}  // namespace kiv

// The library's shutdown writes everything: real processes log through a file writer with
// "autoFlush" off (lines stay in its buffer) and end in the ways a server ends; afterwards the
// files hold exactly the lines logged, whole, each once.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "support/temp_dir.h"
#include "support/writer_config.h"
#include "weblogger/logwritersman.h"

namespace kiv {
namespace {

struct ProcessRun {
    int nExitStatus = -1;
    std::string strOutput;
};

ProcessRun run(const std::string& strCommand) {
    ProcessRun result;
    FILE* pPipe = popen(strCommand.c_str(), "r");
    if (pPipe == nullptr) {
        return result;
    }
    char arrBuffer[4096];
    std::size_t n;
    while ((n = std::fread(arrBuffer, 1, sizeof(arrBuffer), pPipe)) > 0) {
        result.strOutput.append(arrBuffer, n);
    }
    const int nStatus = pclose(pPipe);
    result.nExitStatus = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
    return result;
}

// Every "T<t> S<s>" line of the ring files in dir, by thread; a line of another shape or a
// line twice fails the test.
struct Lines {
    long nTotal = 0;
    std::map<int, std::set<long>> mapByThread;
};

Lines readLines(const std::string& strDir) {
    Lines lines;
    if (!std::filesystem::exists(strDir)) {
        return lines;
    }
    for (const auto& entry : std::filesystem::directory_iterator(strDir)) {
        std::string strText = test::readFile(entry.path().string());
        if (strText.rfind("\xEF\xBB\xBF", 0) == 0) {
            strText.erase(0, 3);
        }
        EXPECT_TRUE(strText.empty() || strText.back() == '\n') << "torn last line in " << entry;
        std::istringstream in(strText);
        std::string strLine;
        while (std::getline(in, strLine)) {
            int nThread = -1;
            long nSequence = -1;
            char cEnd = 0;
            if (std::sscanf(strLine.c_str(), "T%d S%ld%c", &nThread, &nSequence, &cEnd) != 2) {
                ADD_FAILURE() << "not a whole line: '" << strLine << "' in " << entry;
                continue;
            }
            EXPECT_TRUE(lines.mapByThread[nThread].insert(nSequence).second)
                << "line written twice: " << strLine;
            ++lines.nTotal;
        }
    }
    return lines;
}

// Whether thread t's lines are exactly 0 .. n-1.
bool isPrefix(const std::set<long>& setSequences) {
    return setSequences.empty() ||
           (*setSequences.begin() == 0 &&
            *setSequences.rbegin() == static_cast<long>(setSequences.size()) - 1);
}

TEST(ShutdownTest, ReturningFromMainWritesEveryBufferedLine) {
    test::TempDir dir;
    const std::string strLogs = dir.file("logs");
    // Standard error too: an assertion of the registry's state word would be reported there.
    const ProcessRun result =
        run(std::string(SHUTDOWN_HELPER) + " main-return " + strLogs + " 1000 2>&1");
    ASSERT_EQ(result.nExitStatus, 0) << result.strOutput;
    // The writer registry was destroyed (state 1 -> 2) and nothing else was reported.
    EXPECT_EQ(result.strOutput, "state 2\n");

    Lines lines = readLines(strLogs);
    EXPECT_EQ(lines.nTotal, 4000);
    for (int t = 0; t < 4; ++t) {
        EXPECT_EQ(lines.mapByThread[t].size(), 1000u) << "thread " << t;
    }
}

TEST(ShutdownTest, ExitWhileAnotherThreadHasALoggerWritesASingleThreadedWritersLines) {
    test::TempDir dir;
    const std::string strLogs = dir.file("logs");
    const ProcessRun result =
        run(std::string(SHUTDOWN_HELPER) + " local-writer " + strLogs + " 1000");
    ASSERT_EQ(result.nExitStatus, 0) << result.strOutput;

    EXPECT_EQ(readLines(strLogs + "-local").nTotal, 1000);
    // The global writer: main's lines and the other thread's one.
    EXPECT_EQ(readLines(strLogs).nTotal, 1001);
}

TEST(ShutdownTest, ExitFromAWorkerThreadWhileOthersLogWritesEveryLineLoggedBeforeIt) {
    test::TempDir dir;
    const std::string strLogs = dir.file("logs");
    const ProcessRun result =
        run(std::string(SHUTDOWN_HELPER) + " worker-exit " + strLogs + " 3000");
    ASSERT_EQ(result.nExitStatus, 0) << result.strOutput;
    long nAttempted = -1;
    long nRefused = -1;
    ASSERT_EQ(
        std::sscanf(result.strOutput.c_str(), "attempted %ld refused %ld", &nAttempted, &nRefused),
        2)
        << result.strOutput;

    Lines lines = readLines(strLogs);
    std::printf("%ld log calls, %ld refused after the shutdown began, %ld lines on disk\n",
                nAttempted, nRefused, lines.nTotal);
    // Every call that was not refused is on disk; the refused ones are counted, not lost.
    EXPECT_EQ(lines.nTotal, nAttempted - nRefused);
    EXPECT_EQ(lines.mapByThread[0].size(), 3000u);
    for (const auto& [nThread, setSequences] : lines.mapByThread) {
        EXPECT_TRUE(isPrefix(setSequences)) << "a gap in the lines of thread " << nThread;
    }
}

TEST(ShutdownTest, HundredLoadsAndUnloadsWriteEveryLineAndLeakNothing) {
    test::TempDir dir;
    constexpr int kRounds = 100;
    constexpr int kLines = 500;
    // The helper runs under the same sanitizers as this test: LeakSanitizer fails its exit
    // status when the loads leaked.
    const ProcessRun result =
        run(std::string(DLOPEN_HELPER) + " " + WEBLOGGER_LIBRARY + " " + SHUTDOWN_PLUGIN + " " +
            dir.path() + " " + std::to_string(kRounds) + " " + std::to_string(kLines) + " 2>&1");
    ASSERT_EQ(result.nExitStatus, 0) << result.strOutput;
    EXPECT_NE(result.strOutput.find("rounds 100"), std::string::npos) << result.strOutput;
    for (int i = 0; i < kRounds; ++i) {
        Lines lines = readLines(dir.path() + "/" + std::to_string(i));
        EXPECT_EQ(lines.nTotal, kLines) << "round " << i;
    }
}

TEST(ShutdownTest, FlushAllWritesWhatEveryWriterHoldsBack) {
    test::TempDir dir;
    const std::string strLogs = dir.file("logs");
    const test::WriterConfig config("<Writer name='held' writerClassId='3' dir='" + strLogs +
                                    "' maxFileSizeKb='100000' filesN='10' autoFlush='false'/>");
    // A shared writer that is in no global list: only the list of live writers reaches it.
    const Handle<LogWriter> hWriter = config.create(L"FileLogWriter", LogWriter::WT_SHARED);
    ASSERT_FALSE(hWriter.isNull());
    const test::WriterConfig console("<Writer name='console' writerClassId='1'/>");
    const Handle<LogWriter> hConsole = console.create(L"CoutWriter", LogWriter::WT_SHARED);
    ASSERT_FALSE(hConsole.isNull());

    const LoggerState state = test::stateWithSource(L"flushall");
    for (int i = 0; i < 10; ++i) {
        const std::string text = "T0 S" + std::to_string(i);
        hWriter->logMessage(kSevError, GDString(fromUtf8(text)), state, nullptr);
    }
    EXPECT_EQ(readLines(strLogs).nTotal, 0) << "autoFlush off keeps the lines in the buffer";
    logger_details::LogWritersMan::flushAll();
    EXPECT_EQ(readLines(strLogs).nTotal, 10);
}

}  // namespace
}  // namespace kiv

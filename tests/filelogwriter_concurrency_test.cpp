// Threads render their messages before they take the file writer's lock: the lines must still
// reach the file whole, each thread's in the order it logged them, also when records are far
// longer than a thread's first record storage and grow it while other threads write. A full
// buffer is written after the lock is released, by the thread whose record did not fit, while
// the others go on: the same holds across rotations and flushes from another thread.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"
#include "support/writer_config.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/message.h"

namespace kiv {
namespace {

using logger_details::LogWritersMan;

constexpr int kThreads = 4;
constexpr int kMessagesPerThread = 3000;

// Every 50th message carries 20,000 characters, the others 20 to 120: whole lines are checked
// by their length, which the line itself states.
std::size_t payloadLength(int nSequence) {
    return nSequence % 50 == 0 ? 20000 : 20 + static_cast<std::size_t>(nSequence % 101);
}

// Checks one line ("T<thread> S<sequence> L<length> <payload>") against the order seen so far.
void checkLine(const std::string& line, std::map<int, int>& mapNextSequence) {
    int nThread = -1;
    int nSequence = -1;
    std::size_t nLength = 0;
    int nPayloadStart = 0;
    ASSERT_EQ(std::sscanf(line.c_str(), "T%d S%d L%zu %n", &nThread, &nSequence, &nLength,
                          &nPayloadStart),
              3)
        << "broken line: " << line.substr(0, 80);
    ASSERT_EQ(line.size() - static_cast<std::size_t>(nPayloadStart), nLength)
        << "torn line of thread " << nThread << ", message " << nSequence;
    ASSERT_EQ(line.find_first_not_of(static_cast<char>('a' + nThread),
                                     static_cast<std::size_t>(nPayloadStart)),
              std::string::npos)
        << "another thread's text inside the line of thread " << nThread;
    ASSERT_EQ(nSequence, mapNextSequence[nThread]) << "thread " << nThread << " out of order";
    mapNextSequence[nThread] = nSequence + 1;
}

// Makes the registry's only global writer a FileLogWriter for writer id nId, from the rest of
// its Writer element's attributes, and lets every message of the source through for that id.
Handle<LogWriter> installFileWriter(const LogSource& source, int nId,
                                    const std::string& strAttributes) {
    const_cast<LogSource&>(source).getLogFilter().setLogLevelsForId(
        nId, LogLevels(65534, 65534, 65534, 65534, 65534));
    LogWritersMan& registry = LogWritersMan::getLogWritersMan();
    registry.clearWriters();
    const test::WriterConfig config("<Writer writerClassId='" + std::to_string(nId) + "' " +
                                        strAttributes + " fmtName='Default' autoFlush='no'/>",
                                    test::kLineFormats);
    Handle<LogWriter> hWriter = config.create(L"FileLogWriter", LogWriter::WT_GLOBAL);
    registry.versionIncrement();
    return hWriter;
}

// Logs kMessagesPerThread numbered lines from each of kThreads threads through the source.
void logFromThreads(const LogSourceHandle& source) {
    std::vector<std::thread> vecThreads;
    for (int t = 0; t < kThreads; ++t) {
        vecThreads.emplace_back([&, t] {
            TmLogger& logger = TmLogger::getLogger();
            logger.pushSource(*source);
            const GDString tmpl(L"T%1 S%2 L%3 %4");
            for (int i = 0; i < kMessagesPerThread; ++i) {
                const std::size_t nLength = payloadLength(i);
                const String payload(std::wstring(nLength, static_cast<wchar_t>(L'a' + t)));
                if (logger.calcEnabledWriters(kSevInfo)) {
                    logger.logToEnabledWriters4(
                        kSevInfo, tmpl, GDUInteger64(static_cast<std::uint64_t>(t)),
                        GDUInteger64(static_cast<std::uint64_t>(i)), GDUInteger64(nLength),
                        GDStringRef(payload), nullptr);
                }
            }
            logger.popSource();
        });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
}

TEST(FileLogWriterConcurrencyTest, LinesRenderedOutsideTheLockArriveWholeAndInEachThreadsOrder) {
    test::TempDir dir;
    const std::string strLogs = dir.file("logs");
    const LogSourceHandle source(String(L"concurrent.render"));
    ASSERT_FALSE(installFileWriter(*source, 5,
                                   "name='lines' dir='" + strLogs +
                                       "' filePrefix='c' filesN='1' maxFileSizeKb='1048576'")
                     .isNull());
    LogWritersMan& registry = LogWritersMan::getLogWritersMan();

    logFromThreads(source);
    registry.clearWriters();  // the last handle goes: the file is flushed and closed
    registry.versionIncrement();

    const std::string text = test::readFile(strLogs + "/c0.log");
    ASSERT_EQ(text.compare(0, 3, "\xEF\xBB\xBF"), 0);
    std::istringstream lines(text.substr(3));
    std::string line;
    std::map<int, int> mapNextSequence;
    int nLines = 0;
    while (std::getline(lines, line)) {
        ++nLines;
        checkLine(line, mapNextSequence);
        if (HasFatalFailure()) {
            return;
        }
    }
    EXPECT_EQ(nLines, kThreads * kMessagesPerThread);
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(mapNextSequence[t], kMessagesPerThread) << "thread " << t;
    }
}

// Files of 16 KiB: nearly every full buffer ends a file, so the next line rotates while the
// buffer before it may still be being written; another thread flushes all the while.
TEST(FileLogWriterConcurrencyTest, BuffersWrittenAfterTheLockKeepOrderAcrossRotationsAndFlushes) {
    test::TempDir dir;
    const std::string strLogs = dir.file("ring");
    const LogSourceHandle source(String(L"concurrent.handoff"));
    Handle<LogWriter> hWriter = installFileWriter(
        *source, 6,
        "name='ring' dir='" + strLogs + "' filePrefix='r' filesN='1000' maxFileSizeKb='16'");
    ASSERT_FALSE(hWriter.isNull());
    LogWritersMan& registry = LogWritersMan::getLogWritersMan();

    std::atomic<bool> bLogging{true};
    std::thread flusher([&] {
        while (bLogging.load()) {
            hWriter->flush();
            // Seldom enough for buffers to fill up in between.
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    });
    logFromThreads(source);
    bLogging.store(false);
    flusher.join();
    hWriter.reset();
    registry.clearWriters();
    registry.versionIncrement();

    std::map<int, int> mapNextSequence;
    int nLines = 0;
    int nFiles = 0;
    for (;; ++nFiles) {
        const std::string strFile = strLogs + "/r" + std::to_string(nFiles) + ".log";
        if (!std::filesystem::exists(strFile)) {
            break;
        }
        const std::string text = test::readFile(strFile);
        ASSERT_EQ(text.compare(0, 3, "\xEF\xBB\xBF"), 0) << strFile;
        std::istringstream lines(text.substr(3));
        std::string line;
        while (std::getline(lines, line)) {
            ++nLines;
            checkLine(line, mapNextSequence);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
    EXPECT_GT(nFiles, 10);
    EXPECT_EQ(nLines, kThreads * kMessagesPerThread);
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(mapNextSequence[t], kMessagesPerThread) << "thread " << t;
    }
}

}  // namespace
}  // namespace kiv

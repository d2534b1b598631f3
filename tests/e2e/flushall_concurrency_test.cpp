// flushAll while four threads log through a buffered file writer and writers come and go:
// every line is on disk once, whole, and nothing waits on anything forever.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"
#include "support/test_writer.h"
#include "support/writer_config.h"
#include "weblogger/logwritersman.h"

namespace kiv {
namespace {

constexpr int kThreads = 4;
constexpr int kLines = 5000;

TEST(FlushAllConcurrencyTest, FlushingWhileThreadsLogLosesAndRepeatsNothing) {
    test::TempDir dir;
    const std::string strLogs = dir.file("logs");
    const test::WriterConfig config("<Writer name='busy' writerClassId='3' dir='" + strLogs +
                                    "' maxFileSizeKb='100000' filesN='10' autoFlush='false'/>");
    Handle<LogWriter> hWriter = config.create(L"FileLogWriter", LogWriter::WT_SHARED);
    ASSERT_FALSE(hWriter.isNull());

    std::atomic<int> nDone{0};
    // The threads start logging once flushing has begun: on a busy machine they could otherwise
    // be done before the flushing loop ever ran.
    std::atomic<bool> bFlushing{false};
    std::vector<std::thread> vecThreads;
    for (int t = 0; t < kThreads; ++t) {
        vecThreads.emplace_back([&, t] {
            const LoggerState state = test::stateWithSource(L"flushall.concurrency");
            while (!bFlushing.load()) {
                std::this_thread::yield();
            }
            for (int i = 0; i < kLines; ++i) {
                const std::string text = "T" + std::to_string(t) + " S" + std::to_string(i);
                hWriter->logMessage(kSevError, GDString(fromUtf8(text)), state, nullptr);
            }
            nDone.fetch_add(1);
        });
    }
    // Writers that write once and go meanwhile: the live list changes under flushAll.
    std::thread churn([&] {
        const LoggerState state = test::stateWithSource(L"flushall.churn");
        while (nDone.load() < kThreads) {
            const Handle<LogWriter> hShortLived(
                new test::RecordingWriter(String(L"churn"), 1, LogWriter::WT_SHARED, nullptr));
            hShortLived->logMessage(kSevError, GDString(L"churn"), state, nullptr);
        }
    });
    int nFlushes = 0;
    while (nDone.load() < kThreads) {
        logger_details::LogWritersMan::flushAll();
        ++nFlushes;
        bFlushing.store(true);
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    churn.join();
    logger_details::LogWritersMan::flushAll();
    EXPECT_GT(nFlushes, 0);

    std::string strText = test::readFile(strLogs + "/kiv0.log");
    ASSERT_EQ(strText.rfind("\xEF\xBB\xBF", 0), 0u);
    strText.erase(0, 3);
    std::set<std::string> setLines;
    std::istringstream in(strText);
    std::string strLine;
    long nTotal = 0;
    while (std::getline(in, strLine)) {
        EXPECT_TRUE(setLines.insert(strLine).second) << "twice: " << strLine;
        ++nTotal;
    }
    EXPECT_EQ(nTotal, kThreads * kLines);
}

}  // namespace
}  // namespace kiv

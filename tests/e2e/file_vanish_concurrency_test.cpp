// Four threads log through one file writer while its file is unlinked and its directory
// removed. Within about a second the writer notices, makes the directory again and goes on
// with a fresh file; every line logged after that is in the files, whole.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>
#include <vector>

#include "support/temp_dir.h"
#include "support/writer_config.h"
#include "weblogger/internal/filelogwriter.h"

namespace kiv {
namespace {

constexpr int kThreads = 4;

TEST(FileVanishTest, RemovedFileAndDirectoryAreReplacedWithinASecondAndNothingLaterIsLost) {
    test::TempDir dir;
    const std::string strLogs = dir.file("logs");
    const test::WriterConfig config("<Writer name='vanish' writerClassId='3' dir='" + strLogs +
                                    "' maxFileSizeKb='100000' filesN='10'/>");
    Handle<LogWriter> hWriter = config.create(L"FileLogWriter");
    ASSERT_FALSE(hWriter.isNull());

    std::atomic<bool> bDetected{false};
    std::atomic<bool> bStop{false};
    std::vector<int> vecFirstAfter(kThreads, -1);
    std::vector<int> vecLogged(kThreads, 0);
    std::vector<std::thread> vecThreads;
    for (int t = 0; t < kThreads; ++t) {
        vecThreads.emplace_back([&, t] {
            const LoggerState state = test::stateWithSource(L"vanish");
            int nSequence = 0;
            for (; !bStop.load(); ++nSequence) {
                if (vecFirstAfter[t] < 0 && bDetected.load()) {
                    vecFirstAfter[t] = nSequence;
                }
                const std::string text = "T" + std::to_string(t) + " S" + std::to_string(nSequence);
                hWriter->logMessage(kSevError, GDString(fromUtf8(text)), state, nullptr);
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
            vecLogged[t] = nSequence;
        });
    }

    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::filesystem::remove_all(strLogs);
    const auto tRemoved = std::chrono::steady_clock::now();
    // The fresh file is the next of the ring, with lines in it after its byte-order mark.
    const std::string strFresh = strLogs + "/kiv1.log";
    std::error_code ec;
    while (
        !(std::filesystem::exists(strFresh, ec) && std::filesystem::file_size(strFresh, ec) > 3)) {
        ASSERT_LT(std::chrono::steady_clock::now() - tRemoved, std::chrono::seconds(5))
            << "no fresh file";
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const auto nMillis = std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::steady_clock::now() - tRemoved)
                             .count();
    bDetected = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    bStop = true;
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    hWriter.reset();
    std::printf("fresh file with new lines %lld ms after the directory was removed\n",
                static_cast<long long>(nMillis));
    // Checked once a second: a second, plus generous room for a loaded sanitizer run.
    EXPECT_LT(nMillis, 2500);

    std::vector<std::vector<bool>> vecSeen(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        vecSeen[t].assign(static_cast<std::size_t>(vecLogged[t]), false);
    }
    for (const auto& entry : std::filesystem::directory_iterator(strLogs)) {
        std::istringstream lines(test::readFile(entry.path().string()));
        std::string line;
        while (std::getline(lines, line)) {
            const std::size_t nT = line.find('T');
            const std::size_t nS = line.find(" S");
            ASSERT_TRUE(nT != std::string::npos && nS != std::string::npos) << line;
            const int t = std::stoi(line.substr(nT + 1));
            const int nSequence = std::stoi(line.substr(nS + 2));
            ASSERT_TRUE(t >= 0 && t < kThreads && nSequence < vecLogged[t]) << line;
            vecSeen[t][static_cast<std::size_t>(nSequence)] = true;
        }
    }
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_GE(vecFirstAfter[t], 0);
        for (int n = vecFirstAfter[t]; n < vecLogged[t]; ++n) {
            EXPECT_TRUE(vecSeen[t][static_cast<std::size_t>(n)])
                << "thread " << t << " line " << n << " lost after the detection";
        }
    }
}

}  // namespace
}  // namespace kiv

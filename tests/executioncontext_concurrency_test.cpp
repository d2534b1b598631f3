// Execution context ids under concurrency, against the real context-monitoring client: many
// threads with their own contexts log through one shared "KLF-Text" writer and each through a
// writer of its own, and contexts travel between threads as traceparent values over a queue.
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/ctm_client.h"
#include "support/klf_writer.h"
#include "weblogger/commonseverities.h"
#include "weblogger/executioncontext.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/configreader.h"
#include "zq/webutil/ctmwrapper.h"

namespace kiv {
namespace {

using logger::ExecutionContext;
using logger::ExecutionContextGuard;
using logger_details::LogWritersMan;
using test::KlfTextWriter;

constexpr short kWriterId = 9;
constexpr int kThreads = 8;
constexpr int kRequestsPerThread = 1000;

std::string currentEcid() {
    return toUtf8(ExecutionContext::getCurrentECID().view()).std();
}

// "thread <t> request <i>" out of a rendered line.
bool requestOf(const std::string& strLine, int& nThread, int& nRequest) {
    static const std::regex kPattern("thread ([0-9]+) request ([0-9]+)");
    std::smatch match;
    if (!std::regex_search(strLine, match, kPattern)) {
        return false;
    }
    nThread = std::stoi(match[1]);
    nRequest = std::stoi(match[2]);
    return true;
}

class EcidConcurrencyTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(performance::CTMWrapper::initialize(test::ctmLibraryPath()));
        ExecutionContext::reloadConfig(ConfigReader::parseString(
            "<Server><ExecutionContext><Enable>true</Enable></ExecutionContext></Server>"));
    }
    void SetUp() override {
        const_cast<LogSource&>(*m_source).getLogFilter().setLogLevelsForId(
            kWriterId, LogLevels(65534, 65534, 65534, 65534, 65534));
    }
    void TearDown() override {
        LogWritersMan::getLogWritersMan().clearWriters();
        LogWritersMan::getLogWritersMan().versionIncrement();
    }

    const LogSourceHandle m_source{String(L"ecid.concurrency")};
};

TEST_F(EcidConcurrencyTest, EveryLineOfEveryThreadShowsItsOwnRequestsEcid) {
    // A global writer enters the registry as it is made.
    Handle<KlfTextWriter> hShared(new KlfTextWriter(kWriterId, LogWriter::WT_GLOBAL));
    LogWritersMan::getLogWritersMan().versionIncrement();

    std::vector<std::vector<std::string>> vecExpected(kThreads);
    std::vector<std::vector<std::string>> vecOwnLines(kThreads);
    std::vector<std::thread> vecThreads;
    for (int t = 0; t < kThreads; ++t) {
        vecThreads.emplace_back([&, t] {
            TmLogger& logger = TmLogger::getLogger();
            Handle<KlfTextWriter> hOwn(new KlfTextWriter(kWriterId, LogWriter::WT_SINGLE_THREADED));
            logger.addLocalWriter(hOwn.get());
            const GDString text(L"thread %1 request %2");
            const GDUInteger64 thread(static_cast<std::uint64_t>(t));
            for (int i = 0; i < kRequestsPerThread; ++i) {
                ExecutionContextGuard guard;
                guard.initCreateNew();
                vecExpected[t].push_back(currentEcid());
                const GDUInteger64 request(static_cast<std::uint64_t>(i));
                logger.logMessage(kSevInfo, ReferentialParameterizedMessage(text, thread, request),
                                  m_source.get());
            }
            logger.clearLocalWriters();
            vecOwnLines[t] = hOwn->lines();
        });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }

    std::set<std::string> setAll;
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(vecExpected[t].size(), static_cast<std::size_t>(kRequestsPerThread));
        ASSERT_EQ(vecOwnLines[t].size(), static_cast<std::size_t>(kRequestsPerThread));
        for (int i = 0; i < kRequestsPerThread; ++i) {
            ASSERT_EQ(vecExpected[t][i].size(), 49u) << vecExpected[t][i];
            ASSERT_EQ(KlfTextWriter::ecidOf(vecOwnLines[t][i]), vecExpected[t][i]);
            setAll.insert(vecExpected[t][i]);
        }
    }
    // No two requests, on one thread or on two, ever shared an id.
    EXPECT_EQ(setAll.size(), static_cast<std::size_t>(kThreads * kRequestsPerThread));

    const std::vector<std::string> vecShared = hShared->lines();
    ASSERT_EQ(vecShared.size(), static_cast<std::size_t>(kThreads * kRequestsPerThread));
    for (const std::string& strLine : vecShared) {
        int nThread = -1;
        int nRequest = -1;
        ASSERT_TRUE(requestOf(strLine, nThread, nRequest)) << strLine;
        ASSERT_EQ(KlfTextWriter::ecidOf(strLine), vecExpected[nThread][nRequest]) << strLine;
    }
}

// A producer hands each request to a worker as a traceparent over a queue, as a server hands
// work from its acceptor to its workers; the worker's lines continue the producer's trace.
TEST_F(EcidConcurrencyTest, AContextWrappedOnOneThreadContinuesItsTraceOnAnother) {
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 500;
    std::mutex queueMutex;
    std::condition_variable queueChanged;
    std::deque<std::optional<std::pair<std::string, std::string>>> queue;  // guarded by queueMutex

    std::vector<std::thread> vecProducers;
    for (int p = 0; p < kProducers; ++p) {
        vecProducers.emplace_back([&] {
            for (int i = 0; i < kPerProducer; ++i) {
                ExecutionContextGuard guard;
                guard.initCreateNew();
                const std::string strTraceId = currentEcid().substr(0, 32);
                const std::string strWrapped = ExecutionContext::wrap(false).std();
                {
                    const std::lock_guard<std::mutex> lock(queueMutex);
                    queue.emplace_back(std::make_pair(strTraceId, strWrapped));
                }
                queueChanged.notify_one();
            }
        });
    }
    std::vector<std::pair<std::string, std::string>> vecMismatches;
    int nHandled = 0;
    std::thread worker([&] {
        TmLogger& logger = TmLogger::getLogger();
        Handle<KlfTextWriter> hOwn(new KlfTextWriter(kWriterId, LogWriter::WT_SINGLE_THREADED));
        logger.addLocalWriter(hOwn.get());
        std::vector<std::string> vecTraceIds;
        for (;;) {
            std::optional<std::pair<std::string, std::string>> item;
            {
                std::unique_lock<std::mutex> lock(queueMutex);
                queueChanged.wait(lock, [&] { return !queue.empty(); });
                item = queue.front();
                queue.pop_front();
            }
            if (!item) {
                break;
            }
            ExecutionContextGuard guard;
            guard.initUnwrap(NString(item->second.c_str()));
            logger.logMessage(kSevInfo, GDString(L"handled"), m_source.get());
            vecTraceIds.push_back(item->first);
        }
        logger.clearLocalWriters();
        const std::vector<std::string> vecLines = hOwn->lines();
        nHandled = static_cast<int>(vecLines.size());
        for (std::size_t i = 0; i < vecLines.size() && i < vecTraceIds.size(); ++i) {
            const std::string strEcid = KlfTextWriter::ecidOf(vecLines[i]);
            if (strEcid.substr(0, 32) != vecTraceIds[i]) {
                vecMismatches.emplace_back(vecTraceIds[i], strEcid);
            }
        }
    });
    for (std::thread& producer : vecProducers) {
        producer.join();
    }
    {
        const std::lock_guard<std::mutex> lock(queueMutex);
        queue.emplace_back(std::nullopt);
    }
    queueChanged.notify_one();
    worker.join();
    EXPECT_EQ(nHandled, kProducers * kPerProducer);
    EXPECT_TRUE(vecMismatches.empty()) << vecMismatches.size() << " lines lost their trace";
}

}  // namespace
}  // namespace kiv

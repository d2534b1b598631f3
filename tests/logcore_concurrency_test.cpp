// The core data model under real threads: the source tree, filters and the writer registry.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <random>
#include <set>
#include <thread>

#include "support/test_writer.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

using logger_details::LogWritersMan;
using test::RecordingWriter;

constexpr int kThreads = 8;

ZQWString widenNumber(int n) {
    return widen(std::to_string(n));
}

TEST(LogCoreConcurrencyTest, ConcurrentResolutionCreatesExactlyOneNodePerName) {
    std::vector<ZQWString> vecNames;
    for (int i = 0; i < 20; ++i) {
        for (int j = 0; j < 5; ++j) {
            vecNames.push_back(ZQWString(L"conc.n") + widenNumber(i) + L".leaf" + widenNumber(j));
        }
    }
    std::vector<std::vector<const LogSource*>> vecResults(kThreads);
    std::barrier start(kThreads);
    std::vector<std::thread> vecThreads;
    for (int t = 0; t < kThreads; ++t) {
        vecThreads.emplace_back([&, t] {
            std::vector<std::size_t> vecOrder(vecNames.size());
            for (std::size_t i = 0; i < vecOrder.size(); ++i) {
                vecOrder[i] = i;
            }
            std::shuffle(vecOrder.begin(), vecOrder.end(), std::mt19937(t));
            vecResults[t].resize(vecNames.size());
            start.arrive_and_wait();
            for (std::size_t i : vecOrder) {
                vecResults[t][i] = LogSourceHandle(vecNames[i]).get();
            }
        });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    for (int t = 1; t < kThreads; ++t) {
        EXPECT_EQ(vecResults[t], vecResults[0]);
    }
    std::vector<ZQWString> vecAll;
    LogSourcesMan::getLogSourcesMan().getAllLogSourceNames(vecAll);
    const auto nUnderConc = std::count_if(vecAll.begin(), vecAll.end(), [](const ZQWString& n) {
        return n.equals(L"conc") || n.find(ZQWString(L"conc.")) == 0;
    });
    EXPECT_EQ(nUnderConc, 1 + 20 + 20 * 5);
    const std::set<ZQWString> setUnique(vecAll.begin(), vecAll.end());
    EXPECT_EQ(setUnique.size(), vecAll.size());
}

TEST(LogCoreConcurrencyTest, FiltersAreReadWhileThresholdsAreRewritten) {
    LogSource* pParent =
        LogSourcesMan::getLogSourcesMan().getLogSource(nullptr, ZQWString(L"concfilter"));
    LogSource* pChild = LogSourcesMan::getLogSourcesMan().getLogSource(pParent, ZQWString(L"c"));
    Handle<LogWriter> hWriter(
        new RecordingWriter(ZQWString(L"r"), 5, LogWriter::WT_SINGLE_THREADED, nullptr));
    std::atomic<bool> bStop{false};
    std::atomic<long> nDecisions{0};
    std::atomic<int> nReadersStarted{0};
    std::vector<std::thread> vecReaders;
    for (int t = 0; t < 3; ++t) {
        vecReaders.emplace_back([&] {
            long nLocal = 0;
            ++nReadersStarted;
            while (!bStop.load(std::memory_order_relaxed)) {
                // Thresholds alternate between 16 and 0, so kSevErrorFatal passes exactly when
                // the threshold read is 16; either answer is valid while the rewrite runs.
                nLocal += pChild->getLogFilter().isLogEnabled(kSevErrorFatal, hWriter.get());
                ++nDecisions;
            }
            (void)nLocal;
        });
    }
    // On a loaded machine the rewrites could otherwise all be over before a reader runs.
    while (nReadersStarted.load() < 3) {
        std::this_thread::yield();
    }
    LogWritersGroup group;
    group.add(5);
    for (int i = 0; i < 20000; ++i) {
        pParent->getLogFilter().setLogLevelsForId(
            5, i % 2 ? LogLevels(16, 16, 16, 16, 16) : LogLevels(0, 0, 0, 0, 0));
        pChild->getLogFilter().resetLogLevels(group);
        pChild->getLogFilter().setMissingSettings(&pParent->getLogFilter());
    }
    bStop = true;
    for (std::thread& thread : vecReaders) {
        thread.join();
    }
    EXPECT_GT(nDecisions.load(), 0);
    // The last rewrite (i = 19999, odd) left 16 everywhere: the decision is settled.
    EXPECT_TRUE(pChild->getLogFilter().isLogEnabled(kSevError, hWriter.get()));
}

TEST(LogCoreConcurrencyTest, GlobalWritersRegisterWhileReadersCopyTheList) {
    LogWritersMan& registry = LogWritersMan::getLogWritersMan();
    registry.clearWriters();
    constexpr int kWritersPerThread = 200;
    std::atomic<int> nCreatorsDone{0};
    std::vector<std::thread> vecThreads;
    for (int t = 0; t < 2; ++t) {
        vecThreads.emplace_back([&, t] {
            for (int i = 0; i < kWritersPerThread; ++i) {
                new RecordingWriter(ZQWString(L"g") + widenNumber(t * 1000 + i),
                                    static_cast<short>(i % 10), LogWriter::WT_GLOBAL, nullptr);
                if (i % 50 == 0) {
                    registry.versionIncrement();
                }
            }
            ++nCreatorsDone;
        });
    }
    std::atomic<bool> bShrankOrBroke{false};
    for (int t = 0; t < 2; ++t) {
        vecThreads.emplace_back([&] {
            std::size_t nLastSize = 0;
            std::vector<Handle<LogWriter>> vecCopy;
            AtomicEntity<int> version;
            while (nCreatorsDone.load() < 2) {
                if (!registry.isCurrent(version) || vecCopy.empty()) {
                    registry.getWriters(vecCopy, version);
                }
                if (vecCopy.size() < nLastSize) {
                    bShrankOrBroke = true;
                }
                for (const Handle<LogWriter>& hWriter : vecCopy) {
                    if (!hWriter->isEnabled()) {
                        bShrankOrBroke = true;
                    }
                }
                nLastSize = vecCopy.size();
            }
        });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    EXPECT_FALSE(bShrankOrBroke.load());
    std::vector<Handle<LogWriter>> vecFinal;
    AtomicEntity<int> version;
    registry.getWriters(vecFinal, version);
    EXPECT_EQ(vecFinal.size(), static_cast<std::size_t>(2 * kWritersPerThread));
    registry.clearWriters();
}

}  // namespace
}  // namespace kiv

// Many threads logging through shared global writers while the writer list is replaced.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>

#include "weblogger/logsource.h"
#include "weblogger/logwriters.h"
#include "weblogger/logwritersman.h"
#include "weblogger/tmlogger.h"

namespace kiv {
namespace {

using logger_details::LogWritersMan;

constexpr short kWriterId = 8;

// Counts the messages it writes; notes any write that happens after it was retired.
class CountingWriter : public LogWriter {
public:
    CountingWriter(const String& name, int nGeneration)
        : LogWriter(name, kWriterId, WT_GLOBAL, nullptr), m_nGeneration(nGeneration) {}
    bool initialize(const XmlElement*, const XmlElement*) override { return true; }
    void logMessage(const LogSeverity&, const GDValue&, const LoggerState&,
                    const FileLocation*) override {
        const WriteGuard guard(*this);
        if (!guard) {
            return;
        }
        if (m_bRetired) {
            ++m_nAfterRetirement;
        }
        ++m_nMessages;
    }
    void markRetired() {
        retire();
        LockGuard<WriterSynchro> guard(getWriterSynchro());
        m_bRetired = true;
    }
    long messages() {
        LockGuard<WriterSynchro> guard(getWriterSynchro());
        return m_nMessages;
    }
    long afterRetirement() {
        LockGuard<WriterSynchro> guard(getWriterSynchro());
        return m_nAfterRetirement;
    }
    const int m_nGeneration;

private:
    long m_nMessages = 0;
    long m_nAfterRetirement = 0;
    bool m_bRetired = false;
};

TEST(DispatchConcurrencyTest, ThreadsSeeReplacedWritersAtTheirNextCall) {
    const LogSourceHandle source(String(L"dispatchconc"));
    const_cast<LogSource&>(*source).getLogFilter().setLogLevelsForId(
        kWriterId, LogLevels(65534, 65534, 65534, 65534, 65534));
    LogWritersMan& registry = LogWritersMan::getLogWritersMan();
    registry.clearWriters();

    constexpr int kLoggers = 4;
    constexpr int kGenerations = 30;
    std::atomic<int> nGeneration{0};
    std::atomic<bool> bStop{false};
    std::atomic<int> nStaleSeen{0};
    std::atomic<long> nSent{0};

    auto hFirst = Handle<CountingWriter>(new CountingWriter(String(L"gen0"), 0));
    registry.versionIncrement();

    std::vector<std::thread> vecLoggers;
    for (int t = 0; t < kLoggers; ++t) {
        vecLoggers.emplace_back([&] {
            TmLogger& logger = TmLogger::getLogger();
            logger.pushSource(*source);
            while (!bStop.load()) {
                const int nExpected = nGeneration.load();
                if (logger.calcEnabledWriters(kSevInfo)) {
                    // The next call after a replacement must see the new generation's writer.
                    for (const LogWriter* pWriter : logger.getLogWriters()->getEnabledWriters()) {
                        if (static_cast<const CountingWriter&>(*pWriter).m_nGeneration <
                            nExpected) {
                            ++nStaleSeen;
                        }
                    }
                    logger.logToEnabledWriters(kSevInfo, GDString(L"m"), nullptr);
                    ++nSent;
                }
                logger.logMessage(kSevInfo, GDString(L"one-step"));
                ++nSent;
            }
            logger.popSource();
        });
    }

    std::vector<Handle<CountingWriter>> vecAll{hFirst};
    for (int g = 1; g <= kGenerations; ++g) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        // Replace the global writers the way the configuration does: retire, drop, add, bump.
        Handle<CountingWriter> hNext;
        {
            LockGuard<CriticalSection> lock(registry.getMonitor());
            for (const Handle<CountingWriter>& hOld : vecAll) {
                hOld->markRetired();
            }
            registry.clearWriters();
            hNext = new CountingWriter(String(L"gen"), g);
            registry.versionIncrement();
            nGeneration.store(g);
        }
        vecAll.push_back(hNext);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    bStop = true;
    for (std::thread& thread : vecLoggers) {
        thread.join();
    }

    EXPECT_EQ(nStaleSeen.load(), 0);
    long nTotal = 0;
    for (const Handle<CountingWriter>& hWriter : vecAll) {
        EXPECT_EQ(hWriter->afterRetirement(), 0) << "generation " << hWriter->m_nGeneration;
        nTotal += hWriter->messages();
    }
    // Exactly one global writer is active at any time: every message reached exactly one.
    EXPECT_EQ(nTotal, nSent.load());
    EXPECT_GT(vecAll.back()->messages(), 0);
    registry.clearWriters();
    registry.versionIncrement();
}

TEST(DispatchConcurrencyTest, EveryThreadsLoggerIsDestroyedAtItsEnd) {
    const int nBefore = TmLogger::getLiveLoggerCount();
    std::vector<std::thread> vecThreads;
    for (int t = 0; t < 16; ++t) {
        vecThreads.emplace_back([] { TmLogger::getLogger().logMessage(kSevInfo, GDString(L"x")); });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    EXPECT_EQ(TmLogger::getLiveLoggerCount(), nBefore);
}

}  // namespace
}  // namespace kiv

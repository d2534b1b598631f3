// Eight threads log 10,000 messages each through one system log writer while a drain thread
// reads the socket as the daemon would. Every message is either received whole, exactly once and
// in its thread's order, or counted as dropped (the daemon's queue is short, so some may be):
// nothing is lost unaccounted, nothing is torn or duplicated.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "support/syslog_sink.h"
#include "support/temp_dir.h"
#include "support/writer_config.h"
#include "weblogger/internal/eventlogwriter.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

using test::parseSyslog;
using test::SyslogSink;
using test::TempDir;

constexpr int kThreads = 8;
constexpr int kMessagesPerThread = 10000;

TEST(EventLogWriterConcurrencyTest, EveryMessageArrivesWholeOnceInOrderOrIsCountedAsDropped) {
    TempDir dir;
    SyslogSink sink(dir.file("log.sock"));
    ASSERT_TRUE(sink.isBound());
    const test::WriterConfig config(
        "<Writer name='syslog' writerClassId='3' socket='" + sink.path() + "'/>",
        "<Formats><Format name='Default'><MessageText/></Format></Formats>");
    Handle<LogWriter> hWriter = config.create(L"EventLogWriter");
    ASSERT_FALSE(hWriter.isNull());
    const SystemEventLog& eventLog = static_cast<EventLogWriter&>(*hWriter).getSystemEventLog();

    std::atomic<bool> bLogging{true};
    std::vector<std::vector<int>> vecReceived(kThreads);
    int nMalformed = 0;
    std::thread drain([&] {
        for (;;) {
            const std::optional<std::string> datagram = sink.receive(50);
            if (!datagram) {
                if (!bLogging.load()) {
                    return;
                }
                continue;
            }
            const test::SyslogMessage message = parseSyslog(*datagram);
            int nThread = -1;
            int nSequence = -1;
            char arrTail[16] = {};
            if (!message.bValid || message.severity() != 4 ||
                std::sscanf(message.text.c_str(), "T%d S%d %15s", &nThread, &nSequence, arrTail) !=
                    3 ||
                std::string(arrTail) != "payload" || nThread < 0 || nThread >= kThreads) {
                ++nMalformed;
                continue;
            }
            vecReceived[static_cast<std::size_t>(nThread)].push_back(nSequence);
        }
    });

    std::vector<std::thread> vecThreads;
    for (int t = 0; t < kThreads; ++t) {
        vecThreads.emplace_back([&, t] {
            const LoggerState state = test::stateWithSource(L"kiv.concurrency");
            for (int i = 0; i < kMessagesPerThread; ++i) {
                const String text =
                    widen("T" + std::to_string(t) + " S" + std::to_string(i) + " payload");
                hWriter->logMessage(kSevWarning, GDString(text), state, nullptr);
            }
        });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    bLogging.store(false);
    drain.join();

    EXPECT_EQ(nMalformed, 0);
    std::uint64_t nReceived = 0;
    for (const std::vector<int>& vecSequences : vecReceived) {
        for (std::size_t i = 1; i < vecSequences.size(); ++i) {
            ASSERT_LT(vecSequences[i - 1], vecSequences[i]) << "out of order or duplicated";
        }
        nReceived += vecSequences.size();
    }
    EXPECT_EQ(nReceived, eventLog.getSentCount());
    EXPECT_EQ(eventLog.getSentCount() + eventLog.getDroppedCount(),
              static_cast<std::uint64_t>(kThreads) * kMessagesPerThread);
    EXPECT_GT(nReceived, 0u);
}

TEST(SystemEventLogConcurrencyTest, SettingsChangeWhileOtherThreadsReport) {
    TempDir dir;
    SyslogSink sink(dir.file("log.sock"));
    SystemEventLog eventLog;
    eventLog.setSocketPath(sink.path());
    std::atomic<bool> bReporting{true};
    std::thread settings([&] {
        for (int i = 0; bReporting.load(); ++i) {
            eventLog.setAppName(i % 2 == 0 ? "even" : "odd");
            eventLog.setFacility(16 + i % 8);
            eventLog.setMaxDatagramBytes(4096 + static_cast<std::size_t>(i % 2) * 4096);
        }
    });
    std::thread drain([&] {
        for (;;) {
            if (!sink.receive(20) && !bReporting.load()) {
                return;
            }
        }
    });
    std::vector<std::thread> vecThreads;
    for (int t = 0; t < 4; ++t) {
        vecThreads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                eventLog.reportAnEvent(GDString(L"x"), SystemEventLog::kInformation, L"kiv");
            }
        });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    bReporting.store(false);
    settings.join();
    drain.join();
    EXPECT_EQ(eventLog.getSentCount() + eventLog.getDroppedCount(), 8000u);
    const NString strAppName = eventLog.getAppName();
    EXPECT_TRUE(strAppName.equals("even") || strAppName.equals("odd"));
}

}  // namespace
}  // namespace kiv

// An accepted message to the system log writer: the example server's typical message (a
// template with two inserts) through TmLogger to an EventLogWriter whose socket is bound in a
// temporary directory and read by a drain thread, as the daemon would read it. Reports messages
// per second, allocations per message (counted on the logging thread) and the share of
// messages the daemon's queue could not take (dropped/msg): the queue holds only
// net.unix.max_dgram_qlen datagrams, so a drain that falls behind costs drops, never time.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "support/alloc_counter.h"
#include "support/temp_dir.h"
#include "weblogger/internal/eventlogwriter.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/messageformatloader.h"
#include "weblogger/tmlogger.h"
#include "zq/webutil/message.h"

namespace kiv {
namespace {

constexpr short kWriterId = 5;

// The daemon's side: a bound datagram socket and a thread that reads it until the process ends.
class Drain {
public:
    Drain() : m_strSocket(m_dir.file("log.sock")) {
        m_hSocket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, m_strSocket.c_str(), sizeof(address.sun_path) - 1);
        if (::bind(m_hSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            std::perror("bind");
            std::exit(1);
        }
        m_thread = std::thread([this] { run(); });
    }
    ~Drain() {
        m_bRunning.store(false);
        m_thread.join();
        ::close(m_hSocket);
    }
    const std::string& socketPath() const { return m_strSocket; }
    std::uint64_t received() const { return m_nReceived.load(); }

private:
    void run() {
        char arrBuffer[16 * 1024];
        while (m_bRunning.load(std::memory_order_relaxed)) {
            pollfd entry{m_hSocket, POLLIN, 0};
            if (::poll(&entry, 1, 50) == 1 &&
                ::recv(m_hSocket, arrBuffer, sizeof(arrBuffer), 0) > 0) {
                m_nReceived.fetch_add(1, std::memory_order_relaxed);
            }
        }
    }

    test::TempDir m_dir;
    std::string m_strSocket;
    int m_hSocket = -1;
    std::atomic<bool> m_bRunning{true};
    std::atomic<std::uint64_t> m_nReceived{0};
    std::thread m_thread;
};

Drain& drain() {
    static Drain s_drain;
    return s_drain;
}

Handle<LogWriter> syslogWriter() {
    static const Handle<LogWriter> s_hWriter = [] {
        const std::string strXml = "<Writer name='syslog' writerClassId='" +
                                   std::to_string(kWriterId) + "' socket='" + drain().socketPath() +
                                   "' fmtName='Short'/>";
        const XmlDocument config = XmlDocument::parseString(std::string_view(strXml));
        LogWritersFactory::ConfigChain chain;
        chain.push_back(MessageFormatLoader::getFallbackLoggerFormats());
        return logger_details::LogWritersMan::getLogWritersMan()
            .getLogWritersFactory(String(L"EventLogWriter"))
            ->create(config.getDocumentElement(), chain, LogWriter::WT_SHARED, nullptr);
    }();
    return s_hWriter;
}

const LogSourceHandle& benchSource() {
    static const LogSourceHandle s_source = [] {
        LogSourceHandle source(String(L"bench.syslog"));
        const_cast<LogSource&>(*source).getLogFilter().setLogLevelsForId(
            kWriterId, LogLevels(65534, 65534, 65534, 65534, 65534));
        return source;
    }();
    return s_source;
}

void BM_EventLogWriter_Short(benchmark::State& state) {
    Handle<LogWriter> hWriter = syslogWriter();
    const SystemEventLog& eventLog = static_cast<EventLogWriter&>(*hWriter).getSystemEventLog();
    TmLogger& logger = TmLogger::getLogger();
    logger.addLocalWriter(hWriter.get());
    logger.pushSource(*benchSource());
    const GDString tmpl(L"user %1 requested %2");
    const GDString user(L"ann");
    const GDUInteger64 item(42);
    const FileLocation location(L"/build/project/examples/example_server.cpp", 120);
    logger.logMessage(kSevInfo, ReferentialParameterizedMessage(tmpl, user, item), nullptr,
                      &location);
    const std::uint64_t nDroppedStart = eventLog.getDroppedCount();
    const std::uint64_t nSentStart = eventLog.getSentCount();
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        logger.logMessage(kSevInfo, ReferentialParameterizedMessage(tmpl, user, item), nullptr,
                          &location);
    }
    state.counters["allocs/msg"] =
        benchmark::Counter(static_cast<double>(test::threadAllocationCount() - nStart),
                           benchmark::Counter::kAvgIterations);
    if (state.thread_index() == 0) {
        // Shared by the threads of a run, so reported once, for all of them.
        const double dTotal = static_cast<double>(eventLog.getDroppedCount() - nDroppedStart +
                                                  eventLog.getSentCount() - nSentStart);
        state.counters["dropped/msg"] =
            dTotal > 0 ? static_cast<double>(eventLog.getDroppedCount() - nDroppedStart) / dTotal
                       : 0.0;
    }
    state.SetItemsProcessed(state.iterations());
    logger.popSource();
    logger.removeLocalWriter(hWriter.get());
}
BENCHMARK(BM_EventLogWriter_Short)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
}  // namespace kiv

BENCHMARK_MAIN();

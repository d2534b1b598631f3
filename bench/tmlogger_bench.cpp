// The logging call itself: deciding that no writer wants a message (the cost of a filtered-out
// log call) and delivering a message to an in-memory writer that renders it into a reused
// buffer. Allocations per call are counted on the benchmark's thread and must be 0 in steady
// state.
#include <benchmark/benchmark.h>

#include "support/alloc_counter.h"
#include "weblogger/logsource.h"
#include "weblogger/logwriter.h"
#include "weblogger/logwritersman.h"
#include "weblogger/tmlogger.h"

namespace kiv {
namespace {

constexpr short kWriterId = 1;

class MemoryWriter : public LogWriter {
public:
    MemoryWriter() : LogWriter(String(L"memory"), kWriterId, WT_GLOBAL, nullptr) {}
    bool initialize(const XmlElement*, const XmlElement*) override { return true; }
    void logMessage(const LogSeverity&, const GDValue& msg, const LoggerState&,
                    const FileLocation*) override {
        LockGuard<WriterSynchro> guard(getWriterSynchro());
        if (!acceptWrite()) {
            return;
        }
        m_buffer.clear();
        msg.appendText(m_buffer);
        benchmark::DoNotOptimize(m_buffer.data());
    }

private:
    StringBufferTemplate<511, wchar_t> m_buffer;
};

const LogSourceHandle g_hSource(String(L"bench.http.request.body"));

// One global memory writer; the source lets errors through (threshold 16), not traces.
void setUp() {
    static const bool s_bDone = [] {
        const_cast<LogSource&>(*g_hSource)
            .getLogFilter()
            .setLogLevelsForId(kWriterId, LogLevels(16, 16, 16, 16, 16));
        new MemoryWriter;
        logger_details::LogWritersMan::getLogWritersMan().versionIncrement();
        return true;
    }();
    (void)s_bDone;
}

void reportAllocations(benchmark::State& state, std::size_t nStart) {
    state.counters["allocs/call"] =
        benchmark::Counter(static_cast<double>(test::threadAllocationCount() - nStart),
                           benchmark::Counter::kAvgIterations);
}

void BM_CalcEnabledWritersNoneAccepts(benchmark::State& state) {
    setUp();
    TmLogger& logger = TmLogger::getLogger();
    logger.pushSource(*g_hSource);
    logger.calcEnabledWriters(kSevTraceFinest);
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        benchmark::DoNotOptimize(logger.calcEnabledWriters(kSevTraceFinest));
    }
    reportAllocations(state, nStart);
    logger.popSource();
}
BENCHMARK(BM_CalcEnabledWritersNoneAccepts)->Threads(1)->Threads(2);

void BM_LogMessageToMemoryWriter(benchmark::State& state) {
    setUp();
    TmLogger& logger = TmLogger::getLogger();
    logger.pushSource(*g_hSource);
    const GDString message(L"request served");
    logger.logMessage(kSevError, message);
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        logger.logMessage(kSevError, message);
    }
    reportAllocations(state, nStart);
    logger.popSource();
}
BENCHMARK(BM_LogMessageToMemoryWriter)->Threads(1)->Threads(2);

void BM_TwoStepLogWithTwoInsertsToMemoryWriter(benchmark::State& state) {
    setUp();
    TmLogger& logger = TmLogger::getLogger();
    logger.pushSource(*g_hSource);
    const GDString tmpl(L"user %1 asked for %2");
    const GDString user(L"ann");
    const GDUInteger64 item(42);
    logger.calcEnabledWriters(kSevError);
    logger.logToEnabledWriters2(kSevError, tmpl, user, item, nullptr);
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        if (logger.calcEnabledWriters(kSevError)) {
            logger.logToEnabledWriters2(kSevError, tmpl, user, item, nullptr);
        }
    }
    reportAllocations(state, nStart);
    logger.popSource();
}
BENCHMARK(BM_TwoStepLogWithTwoInsertsToMemoryWriter)->Threads(1)->Threads(2);

}  // namespace
}  // namespace kiv

BENCHMARK_MAIN();

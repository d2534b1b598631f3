// The logging call itself: deciding that no writer wants a message (the cost of a filtered-out
// log call) and delivering a message to an in-memory writer that renders it into a reused
// buffer. Allocations per call are counted on the benchmark's thread and must be 0 in steady
// state. The one-line call (log.h) is measured beside the two-step call it replaces, accepted
// and filtered out, with the same three inserts: a counter, a signed number and a narrow name
// (which the two-step call is given already widened, its cheapest form).
#include <benchmark/benchmark.h>

#include "support/alloc_counter.h"
#include "weblogger/log.h"
#include "weblogger/logsource.h"
#include "weblogger/logwriter.h"
#include "weblogger/logwritersman.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/transcode.h"

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

// The one-step call with one severity, over and over, under the bench source.
void logMessageRepeatedly(benchmark::State& state, const LogSeverity& severity) {
    setUp();
    TmLogger& logger = TmLogger::getLogger();
    logger.pushSource(*g_hSource);
    const GDString message(L"request served");
    logger.logMessage(severity, message);
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        logger.logMessage(severity, message);
    }
    reportAllocations(state, nStart);
    logger.popSource();
}

void BM_LogMessageToMemoryWriter(benchmark::State& state) {
    logMessageRepeatedly(state, kSevError);
}
BENCHMARK(BM_LogMessageToMemoryWriter)->Threads(1)->Threads(2);

// A severity the source refuses: the call crosses into the library and answers from the
// source's summary there, without walking the writers.
void BM_LogMessageFilteredOut(benchmark::State& state) {
    logMessageRepeatedly(state, kSevTraceFinest);
}
BENCHMARK(BM_LogMessageFilteredOut)->Threads(1)->Threads(2);

// The same refused one-step call with a message built for it: a template and three inserts
// referred to, as a caller without a guard writes it.
void BM_LogReferentialMessageFilteredOut(benchmark::State& state) {
    setUp();
    TmLogger& logger = TmLogger::getLogger();
    logger.pushSource(*g_hSource);
    const GDString tmpl(L"request %1 handled in %2 ms by worker %3");
    std::uint64_t i = 0;
    std::int64_t nMillis = 12;
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        logger.logMessage(kSevTraceFinest, ReferentialParameterizedMessage(tmpl, GDUInteger64(++i),
                                                                           GDInteger64(nMillis),
                                                                           GDStringRef(L"w7", 2)));
        benchmark::DoNotOptimize(nMillis);
    }
    reportAllocations(state, nStart);
    logger.popSource();
}
BENCHMARK(BM_LogReferentialMessageFilteredOut)->Threads(1)->Threads(2);

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

// ---------------------------------------------------------------- one-line against two-step

const char* const kWorker = "worker-7";

void BM_TwoStepLogWithThreeInsertsToMemoryWriter(benchmark::State& state) {
    setUp();
    TmLogger& logger = TmLogger::getLogger();
    logger.pushSource(*g_hSource);
    const GDString tmpl(L"request %1 handled in %2 ms by worker %3");
    const String strWorker = fromUtf8(kWorker);
    std::uint64_t i = 0;
    std::int64_t nMillis = 12;
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        if (logger.calcEnabledWriters(kSevError)) {
            const FileLocation here(L"" __FILE__, __LINE__);
            logger.logToEnabledWriters3(kSevError, tmpl, GDUInteger64(++i), GDInteger64(nMillis),
                                        GDStringRef(strWorker), &here);
        }
        benchmark::DoNotOptimize(nMillis);
    }
    reportAllocations(state, nStart);
    logger.popSource();
}
BENCHMARK(BM_TwoStepLogWithThreeInsertsToMemoryWriter)->Threads(1)->Threads(2);

void BM_OneLineLogWithThreeInsertsToMemoryWriter(benchmark::State& state) {
    setUp();
    TmLogger& logger = TmLogger::getLogger();
    logger.pushSource(*g_hSource);
    std::uint64_t i = 0;
    std::int64_t nMillis = 12;
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        WEBLOG_TO(logger, kSevError, "request %1 handled in %2 ms by worker %3", ++i, nMillis,
                  kWorker);
        benchmark::DoNotOptimize(nMillis);
    }
    reportAllocations(state, nStart);
    logger.popSource();
}
BENCHMARK(BM_OneLineLogWithThreeInsertsToMemoryWriter)->Threads(1)->Threads(2);

// The same with the name given already widened, as the two-step call above has it: the
// difference from the narrow form is the decoding of the name as it renders.
void BM_OneLineLogWithWideNameToMemoryWriter(benchmark::State& state) {
    setUp();
    TmLogger& logger = TmLogger::getLogger();
    logger.pushSource(*g_hSource);
    const String strWorker = fromUtf8(kWorker);
    std::uint64_t i = 0;
    std::int64_t nMillis = 12;
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        WEBLOG_TO(logger, kSevError, "request %1 handled in %2 ms by worker %3", ++i, nMillis,
                  strWorker);
        benchmark::DoNotOptimize(nMillis);
    }
    reportAllocations(state, nStart);
    logger.popSource();
}
BENCHMARK(BM_OneLineLogWithWideNameToMemoryWriter)->Threads(1)->Threads(2);

// The same through the thread's logger, looked up by the call itself.
void BM_OneLineLogOnThreadLoggerToMemoryWriter(benchmark::State& state) {
    setUp();
    TmLogger::getLogger().pushSource(*g_hSource);
    std::uint64_t i = 0;
    std::int64_t nMillis = 12;
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        WEBLOG_ERROR("request %1 handled in %2 ms by worker %3", ++i, nMillis, kWorker);
        benchmark::DoNotOptimize(nMillis);
    }
    reportAllocations(state, nStart);
    TmLogger::getLogger().popSource();
}
BENCHMARK(BM_OneLineLogOnThreadLoggerToMemoryWriter)->Threads(1)->Threads(2);

void BM_TwoStepLogFilteredOut(benchmark::State& state) {
    setUp();
    TmLogger& logger = TmLogger::getLogger();
    logger.pushSource(*g_hSource);
    const GDString tmpl(L"request %1 handled in %2 ms by worker %3");
    const String strWorker = fromUtf8(kWorker);
    std::uint64_t i = 0;
    std::int64_t nMillis = 12;
    logger.calcEnabledWriters(kSevTraceFinest);
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        if (logger.calcEnabledWriters(kSevTraceFinest)) {
            const FileLocation here(L"" __FILE__, __LINE__);
            logger.logToEnabledWriters3(kSevTraceFinest, tmpl, GDUInteger64(++i),
                                        GDInteger64(nMillis), GDStringRef(strWorker), &here);
        }
        benchmark::DoNotOptimize(nMillis);
    }
    reportAllocations(state, nStart);
    logger.popSource();
}
BENCHMARK(BM_TwoStepLogFilteredOut)->Threads(1)->Threads(2);

void BM_OneLineLogFilteredOut(benchmark::State& state) {
    setUp();
    TmLogger& logger = TmLogger::getLogger();
    logger.pushSource(*g_hSource);
    std::uint64_t i = 0;
    std::int64_t nMillis = 12;
    logger.calcEnabledWriters(kSevTraceFinest);
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        WEBLOG_TO(logger, kSevTraceFinest, "request %1 handled in %2 ms by worker %3", ++i, nMillis,
                  kWorker);
        benchmark::DoNotOptimize(nMillis);
    }
    reportAllocations(state, nStart);
    logger.popSource();
}
BENCHMARK(BM_OneLineLogFilteredOut)->Threads(1)->Threads(2);

void BM_OneLineLogOnThreadLoggerFilteredOut(benchmark::State& state) {
    setUp();
    TmLogger::getLogger().pushSource(*g_hSource);
    std::uint64_t i = 0;
    std::int64_t nMillis = 12;
    TmLogger::getLogger().calcEnabledWriters(kSevTraceFinest);
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        WEBLOG_TRACE_FINEST("request %1 handled in %2 ms by worker %3", ++i, nMillis, kWorker);
        benchmark::DoNotOptimize(nMillis);
    }
    reportAllocations(state, nStart);
    TmLogger::getLogger().popSource();
}
BENCHMARK(BM_OneLineLogOnThreadLoggerFilteredOut)->Threads(1)->Threads(2);

}  // namespace
}  // namespace kiv

BENCHMARK_MAIN();

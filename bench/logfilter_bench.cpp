// The per-writer filter decisions of every log call, for a source four levels deep: the
// source's LogFilter (a few array reads) and a WriterFilter that has to walk up to the root.
// Neither takes a lock; allocations per decision are reported (they must be 0).
#include <benchmark/benchmark.h>

#include "support/alloc_counter.h"
#include "weblogger/logsource.h"
#include "weblogger/logwriter.h"

namespace kiv {
namespace {

class BenchWriter : public LogWriter {
public:
    using LogWriter::LogWriter;
    bool initialize(const XmlElement*, const XmlElement*) override { return true; }
    void logMessage(const LogSeverity&, const GDValue&, const LoggerState&,
                    const FileLocation*) override {}
};

const LogSourceHandle g_hDeep(ZQWString(L"bench.http.request.body"));
const LogSourceHandle g_hRoot(ZQWString(L"bench"));

void reportAllocations(benchmark::State& state, std::size_t nStart) {
    state.counters["allocs/decision"] =
        benchmark::Counter(static_cast<double>(test::threadAllocationCount() - nStart),
                           benchmark::Counter::kAvgIterations);
}

void BM_LogFilterRejects(benchmark::State& state) {
    Handle<LogWriter> hWriter(
        new BenchWriter(ZQWString(L"b"), 3, LogWriter::WT_SINGLE_THREADED, nullptr));
    const LogFilter& filter = g_hDeep->getLogFilter();
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        benchmark::DoNotOptimize(filter.isLogEnabled(kSevTraceFinest, hWriter.get()));
    }
    reportAllocations(state, nStart);
}
BENCHMARK(BM_LogFilterRejects);

void BM_LogFilterAccepts(benchmark::State& state) {
    Handle<LogWriter> hWriter(
        new BenchWriter(ZQWString(L"b"), 3, LogWriter::WT_SINGLE_THREADED, nullptr));
    LogSource& source = const_cast<LogSource&>(*g_hDeep);
    source.getLogFilter().setLogLevelsForId(3, LogLevels(32, 32, 32, 32, 32));
    const LogFilter& filter = source.getLogFilter();
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        benchmark::DoNotOptimize(filter.isLogEnabled(kSevError, hWriter.get()));
    }
    reportAllocations(state, nStart);
}
BENCHMARK(BM_LogFilterAccepts);

void BM_WriterFilterWalksFourLevels(benchmark::State& state) {
    WriterFilter filter(false);
    filter.setLogLevels(*g_hRoot, LogLevels(16, 16, 16, 16, 16));
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        benchmark::DoNotOptimize(filter.isLogEnabled(kSevError, *g_hDeep));
    }
    reportAllocations(state, nStart);
}
BENCHMARK(BM_WriterFilterWalksFourLevels);

void BM_WriterFilterDecidesAtTheSource(benchmark::State& state) {
    WriterFilter filter(false);
    filter.setLogLevels(*g_hDeep, LogLevels(16, 16, 16, 16, 16));
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        benchmark::DoNotOptimize(filter.isLogEnabled(kSevError, *g_hDeep));
    }
    reportAllocations(state, nStart);
}
BENCHMARK(BM_WriterFilterDecidesAtTheSource);

}  // namespace
}  // namespace kiv

BENCHMARK_MAIN();

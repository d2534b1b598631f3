// Rendering one message with the built-in "Short", "KLF-Text" and "JSON" formats into a reused
// UTF-8 byte buffer: the cost of an accepted message before it reaches a file. Allocations per
// message are counted on the benchmark's thread and must be 0 in steady state; the time stamp
// text is rebuilt once a second, not per message.
#include <benchmark/benchmark.h>

#include "rendering_bench_support.h"
#include "weblogger/logsource.h"

namespace kiv {
namespace {

void renderBuiltIn(benchmark::State& state, const wchar_t* pszFormat) {
    const auto hWriter = bench::builtInWriter(pszFormat);
    const LogSourceHandle source(String(L"bench.http.request"));
    LoggerState logState;
    logState.pushSource(*source);
    logState.pushProperty(String(L"userId"), GDString(L"ann"), 100);
    logState.pushProperty(String(L"ThreadID"), GDUInteger64(4242), 100);
    bench::measureRendering(state, *hWriter, logState);
}

void BM_RenderShort(benchmark::State& state) {
    renderBuiltIn(state, L"Short");
}
BENCHMARK(BM_RenderShort);

void BM_RenderKlfText(benchmark::State& state) {
    renderBuiltIn(state, L"KLF-Text");
}
BENCHMARK(BM_RenderKlfText);

void BM_RenderJson(benchmark::State& state) {
    renderBuiltIn(state, L"JSON");
}
BENCHMARK(BM_RenderJson);

}  // namespace
}  // namespace kiv

BENCHMARK_MAIN();

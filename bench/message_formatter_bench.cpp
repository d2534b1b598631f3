// The text formatter rendering a stack-only message with three inserts into a reused buffer:
// the work of every accepted log call's message text. Allocations are counted by the replaced
// global operator new (tests/support/alloc_counter.cpp) on the benchmark's thread and reported
// per iteration; after the warm-up iteration they must stay at 0.
#include <benchmark/benchmark.h>

#include "support/alloc_counter.h"
#include "zq/webutil/message.h"

namespace kiv {
namespace {

const ExternalMessage kmsgBenchRequest(
    L"kmsgBenchRequest", ExternalMessage::kNone,
    "<WebMessage name='kmsgBenchRequest' xmlns:kivm='urn:kiv:webmessages'><TEXT>user "
    "<kivm:param insert='1'/> asked for <kivm:param insert='2'/> in <kivm:param insert='3'/> "
    "ms</TEXT></WebMessage>");

void renderThreeInserts(benchmark::State& state, const GDValue& templateValue) {
    const String user(L"ann");
    const GDStringRef first(user);
    const GDString second(L"/catalog/items?page=3");
    const GDUInteger64 third(42);
    StringBufferTemplate<511, wchar_t> buffer;
    const WebTextMessageFormatter& formatter = WebTextMessageFormatter::getInstance();
    {
        const ReferentialParameterizedMessage warmUp(templateValue, first, second, third);
        formatter.FormatBuffer(buffer, warmUp);
    }
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        buffer.clear();
        const ReferentialParameterizedMessage message(templateValue, first, second, third);
        formatter.FormatBuffer(buffer, message);
        benchmark::DoNotOptimize(buffer.data());
    }
    state.counters["allocs/msg"] =
        benchmark::Counter(static_cast<double>(test::threadAllocationCount() - nStart),
                           benchmark::Counter::kAvgIterations);
}

void BM_FormatPlainTemplateThreeInserts(benchmark::State& state) {
    const GDString plain(L"user %1 asked for %2 in %3 ms");
    renderThreeInserts(state, plain);
}
BENCHMARK(BM_FormatPlainTemplateThreeInserts);

void BM_FormatCatalogueMessageThreeInserts(benchmark::State& state) {
    renderThreeInserts(state, kmsgBenchRequest);
}
BENCHMARK(BM_FormatCatalogueMessageThreeInserts);

}  // namespace
}  // namespace kiv

BENCHMARK_MAIN();

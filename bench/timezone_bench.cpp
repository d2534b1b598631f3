// The cost of a time stamp on the logging hot path: converting "now" to Berlin's local time,
// and writing it as the plain and the ISO 8601 text. The zone is loaded before the timed loop;
// the loop itself must not allocate (allocs/call reports the replaced global operator new on
// the benchmark's thread, and must stay at 0).
#include <benchmark/benchmark.h>

#include <ctime>

#include "support/alloc_counter.h"
#include "zq/webkeel/clock.h"
#include "zq/webutil/timezone.h"

namespace kiv {
namespace {

TimeZone berlin() {
    TimeZone zone = TimeZone::utc();
    TimeZoneRegistry::getInstance().findTimeZone(String(L"Europe/Berlin"), zone);
    return zone;
}

template <class Work>
void runCounted(benchmark::State& state, Work work) {
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        work();
    }
    state.counters["allocs/call"] =
        benchmark::Counter(static_cast<double>(test::threadAllocationCount() - nStart),
                           benchmark::Counter::kAvgIterations);
}

void BM_ToLocalBerlinNow(benchmark::State& state) {
    const TimeZone zone = berlin();
    std::time_t t = clock::wallClockSeconds();
    runCounted(state, [&] {
        LocalTime lt;
        benchmark::DoNotOptimize(t);
        zone.toLocal(t, lt);
        benchmark::DoNotOptimize(lt);
    });
}
BENCHMARK(BM_ToLocalBerlinNow);

// Past the last transition of the file, where the footer's rule is evaluated.
void BM_ToLocalBerlinYear2100(benchmark::State& state) {
    const TimeZone zone = berlin();
    std::time_t t = 4119336000;  // 2100-07-15 12:00:00 UTC
    runCounted(state, [&] {
        LocalTime lt;
        benchmark::DoNotOptimize(t);
        zone.toLocal(t, lt);
        benchmark::DoNotOptimize(lt);
    });
}
BENCHMARK(BM_ToLocalBerlinYear2100);

void BM_CrtToWCharBufBerlinNow(benchmark::State& state) {
    const TimeZone zone = berlin();
    std::time_t t = clock::wallClockSeconds();
    wchar_t arrText[64];
    runCounted(state, [&] {
        benchmark::DoNotOptimize(t);
        benchmark::DoNotOptimize(DateUtils::crtToWCharBuf(t, zone, arrText, 64));
        benchmark::DoNotOptimize(arrText);
    });
}
BENCHMARK(BM_CrtToWCharBufBerlinNow);

void BM_CrtToISO8601WCharBufBerlinNow(benchmark::State& state) {
    const TimeZone zone = berlin();
    std::time_t t = clock::wallClockSeconds();
    wchar_t arrText[64];
    runCounted(state, [&] {
        benchmark::DoNotOptimize(t);
        benchmark::DoNotOptimize(DateUtils::crtToISO8601WCharBuf(t, zone, arrText, 64));
        benchmark::DoNotOptimize(arrText);
    });
}
BENCHMARK(BM_CrtToISO8601WCharBufBerlinNow);

}  // namespace
}  // namespace kiv

BENCHMARK_MAIN();

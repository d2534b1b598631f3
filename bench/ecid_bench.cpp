// What showing the execution context id costs: one message rendered with the built-in
// "KLF-Text" format into a reused UTF-8 byte buffer (and, for the file writer's own path, into
// a record buffer), without an "ecid" property (as before
// loggers carried one), with it while the thread has no context, and with it while the thread
// has one (49 characters written). The id is resolved only while the format renders it, so the
// difference is the copy of those characters. Allocations per message are counted on the
// benchmark's thread and must be 0.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "rendering_bench_support.h"
#include "weblogger/eciddeferredpropertyvalue.h"
#include "weblogger/executioncontext.h"
#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"
#include "zq/webutil/configreader.h"
#include "zq/webutil/ctmwrapper.h"

namespace kiv {
namespace {

using logger::ExecutionContext;

enum class Ecid { kNoProperty, kNoContext, kContext, kFixedText };

enum class Output { kByteSink, kRecordBuffer };

void render(benchmark::State& state, Ecid nEcid, Output nOutput = Output::kByteSink) {
    const LogSourceHandle source(String(L"bench.http.request"));
    LoggerState logState;
    logState.pushSource(*source);
    logState.pushProperty(String(L"userId"), GDString(L"ann"), 100);
    logState.pushProperty(String(L"ThreadID"), GDUInteger64(4242), 100);
    if (nEcid == Ecid::kFixedText) {
        // The same 49 characters as a plain string property: what a deferred value costs beyond
        // a text known in advance.
        logState.pushProperty(ksExecutionContextIDLogPropName,
                              GDString(L"4bf92f3577b34da6a3ce929d0e0e4736,00f067aa0ba902b7"),
                              0xF0000000u);
    } else if (nEcid != Ecid::kNoProperty) {
        logState.pushProperty(ksExecutionContextIDLogPropName,
                              logger_details::ECIDLogDeferredPropertyValue(), 0xF0000000u);
    }
    if (nEcid == Ecid::kContext) {
        if (!ExecutionContext::createContext()) {
            state.SkipWithError("no execution context: the client library did not load");
            return;
        }
    }
    // Without a context the thread's ECID is empty: the benchmarks without a context run before
    // the first context is made on this thread.
    if (nOutput == Output::kRecordBuffer) {
        bench::measureRendering(state, *bench::builtInFileWriter(L"KLF-Text"), logState);
    } else {
        bench::measureRendering(state, *bench::builtInWriter(L"KLF-Text"), logState);
    }
}

// The same, rendered as the file writer renders: UTF-8 encoded in place into a record buffer,
// an already encoded ECID copied as it is.
void BM_KlfTextToFileWithoutEcidProperty(benchmark::State& state) {
    render(state, Ecid::kNoProperty, Output::kRecordBuffer);
}
BENCHMARK(BM_KlfTextToFileWithoutEcidProperty);

void BM_KlfTextToFileEcidWithoutContext(benchmark::State& state) {
    render(state, Ecid::kNoContext, Output::kRecordBuffer);
}
BENCHMARK(BM_KlfTextToFileEcidWithoutContext);

void BM_KlfTextWithoutEcidProperty(benchmark::State& state) {
    render(state, Ecid::kNoProperty);
}
BENCHMARK(BM_KlfTextWithoutEcidProperty);

void BM_KlfTextEcidWithoutContext(benchmark::State& state) {
    render(state, Ecid::kNoContext);
}
BENCHMARK(BM_KlfTextEcidWithoutContext);

void BM_KlfTextWithEcid(benchmark::State& state) {
    render(state, Ecid::kContext);
}
BENCHMARK(BM_KlfTextWithEcid);

void BM_KlfTextWithFixedEcidText(benchmark::State& state) {
    render(state, Ecid::kFixedText);
}
BENCHMARK(BM_KlfTextWithFixedEcidText);

void BM_KlfTextToFileWithEcid(benchmark::State& state) {
    render(state, Ecid::kContext, Output::kRecordBuffer);
}
BENCHMARK(BM_KlfTextToFileWithEcid);

// The deferred value alone: the thread's ECID looked up and appended to the renderer's buffer.
void BM_EcidBufferize(benchmark::State& state) {
    if (!ExecutionContext::createContext()) {
        state.SkipWithError("no execution context: the client library did not load");
        return;
    }
    const logger_details::ECIDLogDeferredPropertyValue value;
    StringBufferTemplate<511, wchar_t> buffer;
    for (auto _ : state) {
        buffer.clear();
        MessageFormatter::getDefault().FormatBuffer(buffer, value);
        benchmark::DoNotOptimize(buffer.view().data());
    }
}
BENCHMARK(BM_EcidBufferize);

// The client first, then the configuration that looks its functions up.
const bool g_bTracking = [] {
    if (!performance::CTMWrapper::initialize(WEBCTM_LIBRARY_PATH)) {
        std::fprintf(stderr, "ecid_bench: cannot load %s\n", WEBCTM_LIBRARY_PATH);
        return false;
    }
    ExecutionContext::reloadConfig(ConfigReader::parseString("<Server/>"));
    return true;
}();

}  // namespace
}  // namespace kiv

BENCHMARK_MAIN();

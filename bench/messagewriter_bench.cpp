// Rendering one message with the built-in "Short" and "KLF-Text" formats into a reused UTF-8
// byte buffer: the cost of an accepted message before it reaches a file. Allocations per
// message are counted on the benchmark's thread and must be 0 in steady state; the time stamp
// text is rebuilt once a second, not per message.
#include <benchmark/benchmark.h>

#include "support/alloc_counter.h"
#include "weblogger/internal/messagewriter_impl.h"
#include "weblogger/logsource.h"

namespace kiv {
namespace {

// A reused UTF-8 byte buffer with the log file's write signature.
class ByteSink {
public:
    void write(const void* p, unsigned long n) {
        m_buffer.append(static_cast<const char*>(p), static_cast<std::size_t>(n));
    }
    void clear() { m_buffer.clear(); }
    const char* data() const { return m_buffer.data(); }

private:
    StringBufferTemplate<4096, char> m_buffer;
};

using Utf8Adaptor = EncodingAdapter<StreamWriterAdapter<ByteSink, char>, T2NEncodingUTF8<wchar_t>>;

const XmlElement* builtInFormat(const wchar_t* pszName) {
    for (const XmlElement* p :
         MessageFormatLoader::getFallbackLoggerFormats()->selectElements(L"Format")) {
        if (p->getAttributeValue(L"name").equals(pszName)) {
            return p;
        }
    }
    return nullptr;
}

void renderBuiltIn(benchmark::State& state, const wchar_t* pszFormat) {
    auto* pFormat = new CompiledMsgFormat;
    MessageFormatLoader::loadFormat(*pFormat, *builtInFormat(pszFormat),
                                    CompiledMsgFormat::kEncodingPlain);
    const auto hWriter =
        MessageWriterFactory<ByteSink, Utf8Adaptor>::createMessageWriter(pFormat, true);
    const LogSourceHandle source(String(L"bench.http.request"));
    LoggerState logState;
    logState.pushSource(*source);
    logState.pushProperty(String(L"userId"), GDString(L"ann"), 100);
    logState.pushProperty(String(L"ThreadID"), GDUInteger64(4242), 100);
    const GDString tmpl(L"user %1 requested %2");
    const GDString user(L"ann");
    const GDUInteger64 item(42);
    const FileLocation location(L"/build/project/weblogger/server.cpp", 120);
    ByteSink sink;
    hWriter->msg_log(kSevInfo, ReferentialParameterizedMessage(tmpl, user, item), logState,
                     &location, &sink);
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        sink.clear();
        hWriter->msg_log(kSevInfo, ReferentialParameterizedMessage(tmpl, user, item), logState,
                         &location, &sink);
        benchmark::DoNotOptimize(sink.data());
    }
    state.counters["allocs/msg"] =
        benchmark::Counter(static_cast<double>(test::threadAllocationCount() - nStart),
                           benchmark::Counter::kAvgIterations);
}

void BM_RenderShort(benchmark::State& state) {
    renderBuiltIn(state, L"Short");
}
BENCHMARK(BM_RenderShort);

void BM_RenderKlfText(benchmark::State& state) {
    renderBuiltIn(state, L"KLF-Text");
}
BENCHMARK(BM_RenderKlfText);

}  // namespace
}  // namespace kiv

BENCHMARK_MAIN();

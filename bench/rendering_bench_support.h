// What the rendering benchmarks share: a reused UTF-8 byte buffer with the log file's write
// signature, the file writer's record buffer, the built-in formats by
// name, and the measured loop itself (one message with two
// inserts and a location, rendered again and again, allocations counted on this thread).
#pragma once

#include <benchmark/benchmark.h>

#include "support/alloc_counter.h"
#include "weblogger/internal/messagewriter_impl.h"
#include "weblogger/internal/recordbuffer.h"

namespace kiv::bench {

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

// The message writer of a built-in format ("Short", "KLF-Text"...), Plain, for a stream and the
// adaptor that writes to it.
template <class Stream, class Adaptor>
MessageWriterHandle<Stream> builtInWriterFor(const wchar_t* pszName) {
    for (const XmlElement* p :
         MessageFormatLoader::getFallbackLoggerFormats()->selectElements(L"Format")) {
        if (p->getAttributeValue(L"name").equals(pszName)) {
            auto* pFormat = new CompiledMsgFormat;
            MessageFormatLoader::loadFormat(*pFormat, *p, CompiledMsgFormat::kEncodingPlain);
            return MessageWriterFactory<Stream, Adaptor>::createMessageWriter(pFormat, true);
        }
    }
    return MessageWriterHandle<Stream>();
}

// Into a ByteSink, through the generic UTF-8 adaptor.
inline MessageWriterHandle<ByteSink> builtInWriter(const wchar_t* pszName) {
    return builtInWriterFor<ByteSink, Utf8Adaptor>(pszName);
}

// As the file writer renders: UTF-8 encoded in place into the thread's record buffer, which
// the writer then copies into its file.
inline MessageWriterHandle<RecordBuffer> builtInFileWriter(const wchar_t* pszName) {
    return builtInWriterFor<RecordBuffer, Utf8InPlaceAdaptor>(pszName);
}

// Renders "user ann requested 42" with the given state until the benchmark has its figure; the
// first rendering (which warms caches and the time-stamp text) is not counted. forget(out)
// empties the output before each message.
template <class Stream, class Forget>
void measureRenderingInto(benchmark::State& state, const MessageWriter<Stream>& writer,
                          const LoggerState& logState, Stream& out, Forget forget) {
    const GDString tmpl(L"user %1 requested %2");
    const GDString user(L"ann");
    const GDUInteger64 item(42);
    const FileLocation location(L"/build/project/weblogger/server.cpp", 120);
    writer.msg_log(kSevInfo, ReferentialParameterizedMessage(tmpl, user, item), logState, &location,
                   &out);
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        forget(out);
        writer.msg_log(kSevInfo, ReferentialParameterizedMessage(tmpl, user, item), logState,
                       &location, &out);
        benchmark::ClobberMemory();
    }
    state.counters["allocs/msg"] =
        benchmark::Counter(static_cast<double>(test::threadAllocationCount() - nStart),
                           benchmark::Counter::kAvgIterations);
}

inline void measureRendering(benchmark::State& state, const MessageWriter<ByteSink>& writer,
                             const LoggerState& logState) {
    ByteSink sink;
    measureRenderingInto(state, writer, logState, sink, [](ByteSink& s) { s.clear(); });
}

inline void measureRendering(benchmark::State& state, const MessageWriter<RecordBuffer>& writer,
                             const LoggerState& logState) {
    RecordBuffer record;
    measureRenderingInto(state, writer, logState, record, [](RecordBuffer& r) { r.clear(); });
}

}  // namespace kiv::bench

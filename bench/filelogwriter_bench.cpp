// The example server's typical message (a template with two inserts) through a FileLogWriter
// with the built-in "Short" and "KLF-Text" formats, "autoFlush" off and on, on one and two
// threads: messages per second and allocations per message (counted on the logging threads).
//
// Two baselines run in the same binary: a bare write(2) of an equally long, hand-formatted line
// per message (what "autoFlush" on can at best approach), and, when spdlog is installed,
// spdlog's synchronous basic file sink with an equivalent pattern. The ratios are printed at
// the end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>

#include "ratio_reporter.h"
#include "support/alloc_counter.h"
#include "support/temp_dir.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/messageformatloader.h"
#include "weblogger/tmlogger.h"
#include "zq/webutil/message.h"

#if WEBLOGGER_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace kiv {
namespace {

constexpr short kWriterId = 1;

// Removed with its files when the program ends: the file benchmarks write gigabytes.
const std::string& benchDirectory() {
    static const test::TempDir s_dir;
    return s_dir.path();
}

const LogSourceHandle& benchSource() {
    static const LogSourceHandle s_source = [] {
        LogSourceHandle source(String(L"bench.file"));
        const_cast<LogSource&>(*source).getLogFilter().setLogLevelsForId(
            kWriterId, LogLevels(65534, 65534, 65534, 65534, 65534));
        return source;
    }();
    return s_source;
}

// One shared writer per configuration, made through the registry's factory as the
// configuration would; the ring of 4 files of 64 MB bounds the disk it uses.
Handle<LogWriter> fileWriter(const std::string& format, bool bAutoFlush) {
    static std::mutex s_mutex;
    static std::map<std::string, Handle<LogWriter>> s_mapWriters;
    const std::string strKey = format + (bAutoFlush ? "-flush" : "-buffered");
    std::lock_guard<std::mutex> lock(s_mutex);
    Handle<LogWriter>& hWriter = s_mapWriters[strKey];
    if (hWriter.isNull()) {
        const std::string strXml = "<Writer name='" + strKey + "' writerClassId='1' dir='" +
                                   benchDirectory() + "/" + strKey + "' fmtName='" + format +
                                   "' maxFileSizeKb='65536' filesN='4' autoFlush='" +
                                   (bAutoFlush ? "yes" : "no") + "'/>";
        const XmlDocument config = XmlDocument::parseString(std::string_view(strXml));
        LogWritersFactory::ConfigChain chain;
        chain.push_back(MessageFormatLoader::getFallbackLoggerFormats());
        hWriter = logger_details::LogWritersMan::getLogWritersMan()
                      .getLogWritersFactory(String(L"FileLogWriter"))
                      ->create(config.getDocumentElement(), chain, LogWriter::WT_SHARED, nullptr);
    }
    return hWriter;
}

void logThroughFileWriter(benchmark::State& state, const char* pszFormat, bool bAutoFlush) {
    Handle<LogWriter> hWriter = fileWriter(pszFormat, bAutoFlush);
    TmLogger& logger = TmLogger::getLogger();
    logger.addLocalWriter(hWriter.get());
    logger.pushSource(*benchSource());
    logger.pushProperty(String(L"userId"), GDString(L"ann"), 100);
    logger.pushProperty(String(L"ThreadID"), GDUInteger64(4242), 100);
    const GDString tmpl(L"user %1 requested %2");
    const GDString user(L"ann");
    const GDUInteger64 item(42);
    const FileLocation location(L"/build/project/examples/example_server.cpp", 120);
    logger.logMessage(kSevInfo, ReferentialParameterizedMessage(tmpl, user, item), nullptr,
                      &location);
    const std::size_t nStart = test::threadAllocationCount();
    for (auto _ : state) {
        logger.logMessage(kSevInfo, ReferentialParameterizedMessage(tmpl, user, item), nullptr,
                          &location);
    }
    state.counters["allocs/msg"] =
        benchmark::Counter(static_cast<double>(test::threadAllocationCount() - nStart),
                           benchmark::Counter::kAvgIterations);
    state.SetItemsProcessed(state.iterations());
    logger.popProperty(String(L"ThreadID"));
    logger.popProperty(String(L"userId"));
    logger.popSource();
    logger.removeLocalWriter(hWriter.get());
}

void BM_FileWriter_Short_Buffered(benchmark::State& s) {
    logThroughFileWriter(s, "Short", false);
}
void BM_FileWriter_Short_AutoFlush(benchmark::State& s) {
    logThroughFileWriter(s, "Short", true);
}
void BM_FileWriter_KlfText_Buffered(benchmark::State& s) {
    logThroughFileWriter(s, "KLF-Text", false);
}
void BM_FileWriter_KlfText_AutoFlush(benchmark::State& s) {
    logThroughFileWriter(s, "KLF-Text", true);
}
BENCHMARK(BM_FileWriter_Short_Buffered)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_FileWriter_Short_AutoFlush)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_FileWriter_KlfText_Buffered)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_FileWriter_KlfText_AutoFlush)->Threads(1)->Threads(2)->UseRealTime();

// The same line as "Short" renders, formatted by hand and written with one write(2) per
// message, under a mutex as a writer's lock would be.
void BM_BareWritePerMessage(benchmark::State& state) {
    static int s_nFd = -1;
    static std::mutex s_mutex;
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        if (s_nFd < 0) {
            s_nFd = ::open((benchDirectory() + "/bare.log").c_str(),
                           O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
        }
    }
    char arrLine[128];
    for (auto _ : state) {
        const int nLength = std::snprintf(arrLine, sizeof(arrLine),
                                          "N20\tbench.file\tuser %s requested %d\t\n", "ann", 42);
        std::lock_guard<std::mutex> lock(s_mutex);
        benchmark::DoNotOptimize(::write(s_nFd, arrLine, static_cast<std::size_t>(nLength)));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareWritePerMessage)->Threads(1)->Threads(2)->UseRealTime();

#if WEBLOGGER_HAVE_SPDLOG
// spdlog's synchronous basic file sink (a thread-safe logger) with a pattern that writes the
// same line as "Short"; it flushes only when its buffer fills, like "autoFlush" off.
void BM_Spdlog_BasicFileSink_Short(benchmark::State& state) {
    static std::shared_ptr<spdlog::logger> s_pLogger = [] {
        auto pLogger = spdlog::basic_logger_mt("bench", benchDirectory() + "/spdlog.log", true);
        pLogger->set_pattern("N20\tbench.file\t%v\t");
        return pLogger;
    }();
    for (auto _ : state) {
        s_pLogger->info("user {} requested {}", "ann", 42);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Spdlog_BasicFileSink_Short)->Threads(1)->Threads(2)->UseRealTime();
#endif

}  // namespace
}  // namespace kiv

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    kiv::bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n");
    for (const char* pszThreads : {"threads:1", "threads:2"}) {
        const std::string suffix = std::string("/real_time/") + pszThreads;
        reporter.printRatio(
            (std::string("Short, autoFlush off vs spdlog basic file sink, ") + pszThreads).c_str(),
            "BM_FileWriter_Short_Buffered" + suffix, "BM_Spdlog_BasicFileSink_Short" + suffix);
        reporter.printRatio(
            (std::string("Short, autoFlush on vs bare write(2) per message, ") + pszThreads)
                .c_str(),
            "BM_FileWriter_Short_AutoFlush" + suffix, "BM_BareWritePerMessage" + suffix);
    }
    benchmark::Shutdown();
    return 0;
}

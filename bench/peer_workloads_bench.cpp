// The five workloads by which logging libraries are compared side by side, for weblogger and,
// when it is installed, spdlog, in one run, with the ratios printed at the end:
//
//   File1t       one thread, buffered, one file that never rotates
//   File1tFlush  the same, written out after every message ("autoFlush" on, spdlog flush_on)
//   Disabled     a call that the thresholds filter out (a fine trace; spdlog: debug below err)
//   File2t       two threads into the one buffered file
//   Rotate       one thread, buffered, a ring of 10 files of 64 KiB
//
// Every library writes the same line: "[<ISO 8601 time with offset>] [<level>] [kiv.http.request]
// request <i> handled in 42 ms by worker w7", with i the message's index and 42 and "w7" read
// from non-const globals. weblogger is set up as a server sets it up: the logging element of
// peer_workload_config.h is applied with XmlLogConfiguration::reconfigure, and the call is the
// one-line WEBLOG_TO on the thread's logger under a pushed source, with the severity named at
// the call and the worker's name passed as narrow text. spdlog uses its thread-safe sinks
// (basic_file_sink_mt, rotating_file_sink_mt) with the pattern
//   [%Y-%m-%dT%H:%M:%S%z] [%l] [%n] %v
//
// Each iteration is one message; the final write-out of the buffers is outside the timing.
// A shared machine spreads single figures: compare the ratios, and use
// --benchmark_repetitions=3 for medians.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "peer_workload_config.h"
#include "ratio_reporter.h"
#include "support/temp_dir.h"
#include "weblogger/log.h"
#include "weblogger/loglifetime.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"

#if WEBLOGGER_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#endif

// Read at every call, so that nothing is folded at compile time.
int g_nMillis = 42;
const char* g_pszWorker = "w7";

namespace kiv::bench {
namespace {

enum Workload { WL_FILE1T, WL_FILE1T_FLUSH, WL_DISABLED, WL_FILE2T, WL_ROTATE };

// Removed with its files when the program ends: the file benchmarks write gigabytes.
const std::string& benchDirectory() {
    static const test::TempDir s_dir;
    return s_dir.path();
}

const LogSourceHandle& requestSource() {
    static const LogSourceHandle s_source(String(L"kiv.http.request"));
    return s_source;
}

// A new directory for one run of one library's workload. Each run's files are removed when it
// ends: on this VM the kernel's copy into the page cache slowed to a third once a process had
// written a gigabyte or more, and a benchmark that keeps its files measures that instead.
std::string runDirectory(const char* pszLibrary) {
    static int s_nRun = 0;
    std::string strDir = benchDirectory() + "/" + pszLibrary + "-" + std::to_string(++s_nRun);
    std::filesystem::create_directories(strDir);
    return strDir;
}

void weblogger(benchmark::State& state, Workload nWorkload) {
    static std::string s_strDir;
    if (state.thread_index() == 0) {
        s_strDir = runDirectory("weblogger");
        // The source exists before the configuration, so it gets the record's thresholds.
        requestSource();
        PeerWriterShape shape;
        shape.m_bRotate = nWorkload == WL_ROTATE;
        shape.m_bFlush = nWorkload == WL_FILE1T_FLUSH;
        shape.m_bErrorsOnly = nWorkload == WL_DISABLED;
        applyPeerLogging(peerLoggingElement(s_strDir, shape));
    }
    TmLogger& logger = TmLogger::getLogger();
    const TmLoggerPushSource pushed(&logger, requestSource().get());
    std::uint64_t i = static_cast<std::uint64_t>(state.thread_index()) << 40;
    for (auto _ : state) {
        // Two call sites, each with its severity written out, as server code names it.
        if (nWorkload == WL_DISABLED) {
            WEBLOG_TO(logger, kSevTraceFine, "request %1 handled in %2 ms by worker %3", i,
                      g_nMillis, g_pszWorker);
        } else {
            WEBLOG_TO(logger, kSevInfo, "request %1 handled in %2 ms by worker %3", i, g_nMillis,
                      g_pszWorker);
        }
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        // The writer is written out and closed when its last holder lets it go.
        applyPeerLogging("<Logging/>");
        std::filesystem::remove_all(s_strDir);
    }
}

void BM_Weblogger_File1t(benchmark::State& s) {
    weblogger(s, WL_FILE1T);
}
void BM_Weblogger_File1tFlush(benchmark::State& s) {
    weblogger(s, WL_FILE1T_FLUSH);
}
void BM_Weblogger_Disabled(benchmark::State& s) {
    weblogger(s, WL_DISABLED);
}
void BM_Weblogger_File2t(benchmark::State& s) {
    weblogger(s, WL_FILE2T);
}
void BM_Weblogger_Rotate(benchmark::State& s) {
    weblogger(s, WL_ROTATE);
}
BENCHMARK(BM_Weblogger_File1t)->UseRealTime();
BENCHMARK(BM_Weblogger_File1tFlush)->UseRealTime();
BENCHMARK(BM_Weblogger_Disabled)->UseRealTime();
BENCHMARK(BM_Weblogger_File2t)->Threads(2)->UseRealTime();
BENCHMARK(BM_Weblogger_Rotate)->UseRealTime();

#if WEBLOGGER_HAVE_SPDLOG
std::shared_ptr<spdlog::logger> spdlogFor(Workload nWorkload, const std::string& strDir) {
    const std::string strFile = strDir + "/spdlog.log";
    std::shared_ptr<spdlog::logger> pLogger;
    if (nWorkload == WL_ROTATE) {
        pLogger = std::make_shared<spdlog::logger>(
            "kiv.http.request",
            std::make_shared<spdlog::sinks::rotating_file_sink_mt>(strFile, 65536, 10));
    } else {
        pLogger = std::make_shared<spdlog::logger>(
            "kiv.http.request", std::make_shared<spdlog::sinks::basic_file_sink_mt>(strFile, true));
    }
    pLogger->set_pattern("[%Y-%m-%dT%H:%M:%S%z] [%l] [%n] %v");
    pLogger->set_level(nWorkload == WL_DISABLED ? spdlog::level::err : spdlog::level::info);
    pLogger->flush_on(nWorkload == WL_FILE1T_FLUSH ? spdlog::level::trace : spdlog::level::off);
    return pLogger;
}

void spdlogWorkload(benchmark::State& state, Workload nWorkload) {
    static std::shared_ptr<spdlog::logger> s_pLogger;
    static std::string s_strDir;
    if (state.thread_index() == 0) {
        s_strDir = runDirectory("spdlog");
        s_pLogger = spdlogFor(nWorkload, s_strDir);
    }
    // Google Benchmark starts the threads' loops together, after thread 0 made the logger.
    std::uint64_t i = static_cast<std::uint64_t>(state.thread_index()) << 40;
    for (auto _ : state) {
        if (nWorkload == WL_DISABLED) {
            s_pLogger->debug("request {} handled in {} ms by worker {}", i, g_nMillis, g_pszWorker);
        } else {
            s_pLogger->info("request {} handled in {} ms by worker {}", i, g_nMillis, g_pszWorker);
        }
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        s_pLogger->flush();
        s_pLogger.reset();
        std::filesystem::remove_all(s_strDir);
    }
}

void BM_Spdlog_File1t(benchmark::State& s) {
    spdlogWorkload(s, WL_FILE1T);
}
void BM_Spdlog_File1tFlush(benchmark::State& s) {
    spdlogWorkload(s, WL_FILE1T_FLUSH);
}
void BM_Spdlog_Disabled(benchmark::State& s) {
    spdlogWorkload(s, WL_DISABLED);
}
void BM_Spdlog_File2t(benchmark::State& s) {
    spdlogWorkload(s, WL_FILE2T);
}
void BM_Spdlog_Rotate(benchmark::State& s) {
    spdlogWorkload(s, WL_ROTATE);
}
BENCHMARK(BM_Spdlog_File1t)->UseRealTime();
BENCHMARK(BM_Spdlog_File1tFlush)->UseRealTime();
BENCHMARK(BM_Spdlog_Disabled)->UseRealTime();
BENCHMARK(BM_Spdlog_File2t)->Threads(2)->UseRealTime();
BENCHMARK(BM_Spdlog_Rotate)->UseRealTime();
#endif

}  // namespace
}  // namespace kiv::bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    kiv::bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nweblogger / spdlog, messages (calls) per second:\n");
    for (const char* pszWorkload : {"File1t", "File1tFlush", "Disabled", "File2t", "Rotate"}) {
        const std::string threads =
            std::string(pszWorkload) == "File2t" ? "/real_time/threads:2" : "/real_time";
        reporter.printRatio(pszWorkload, std::string("BM_Weblogger_") + pszWorkload + threads,
                            std::string("BM_Spdlog_") + pszWorkload + threads);
    }
    benchmark::Shutdown();
    return 0;
}

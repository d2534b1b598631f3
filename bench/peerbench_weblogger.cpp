// weblogger in the peers' harness (../shared/peerbench), logging as server code logs: with the
// one-line WEBLOG_TO and the severity named at the call, as the peers are measured through their
// own macros (glog's VLOG(1) and LOG(INFO), spdlog's debug and info). The harness's own
// bench_weblogger writes the two-step call out by hand instead, with the file location built
// before the guard and the severity chosen at run time; this program is the same workloads
// through the call a user of this library writes, and its row is "weblogger_macro":
//
//   EXTRA_BENCH="<peerbench>/build/bench_weblogger; <build>/bench/peerbench_weblogger" ./run.sh
//
// It follows the harness's protocol through its common.hpp (arguments WORKLOAD N OUTDIR, one
// result line, the timed region from the first call to the files' final write-out and close)
// and links its allocation counter. Set-up is peer_workload_config.h's logging element, applied
// with XmlLogConfiguration::reconfigure: file1t, file2t: one file that never rotates, buffered;
// file1t_flush: the same, written out after every message; disabled: incident errors and errors
// only, and every call a fine trace; rotate and lat<T>: a ring of 10 files of 64 KiB.
// The end (timed) applies an empty logging element, and this thread's logger drops its copy of
// the writer list: the last holder lets the writer go, which writes the file out and closes it.
#include <cstdint>
#include <cstdio>
#include <string>

#include "common.hpp"
#include "peer_workload_config.h"
#include "weblogger/commonseverities.h"
#include "weblogger/kivmakelibloaded.h"
#include "weblogger/log.h"
#include "weblogger/loglifetime.h"
#include "weblogger/logsource.h"
#include "weblogger/logwriters.h"
#include "weblogger/tmlogger.h"

namespace {

using namespace kiv;

bool isFileWorkload(const std::string& w) {
    return w == "file1t" || w == "file1t_flush" || w == "disabled" || w == "file2t" ||
           w == "rotate";
}

}  // namespace

int main(int argc, char** argv) {
    const pb::Args args = pb::parse(argc, argv, "weblogger_macro");
    const std::string& w = args.workload;
    const unsigned nLatThreads = pb::lat_threads(w);
    if (!isFileWorkload(w) && nLatThreads == 0) {
        return pb::unknown_workload(args);
    }
    if (!isWebloggerLoaded()) {
        std::fprintf(stderr, "peerbench_weblogger: libweblogger did not initialise\n");
        return 1;
    }

    // The source exists before the configuration, so that it gets the record's thresholds.
    const LogSourceHandle source(String(L"kiv.http.request"));
    bench::PeerWriterShape shape;
    shape.m_bRotate = w == "rotate" || nLatThreads != 0;
    shape.m_bFlush = w == "file1t_flush";
    shape.m_bErrorsOnly = w == "disabled";
    bench::applyPeerLogging(bench::peerLoggingElement(args.outdir, shape));
    // This thread's logger exists before the timed region, as the harness's other programs
    // make their loggers before it.
    TmLogger::getLogger();

    const auto finish = [] {
        bench::applyPeerLogging("<Logging/>");
        TmLogger::getLogger().getLogWriters()->syncGlobalWriters();
    };
    const bool bDisabled = w == "disabled";
    const auto logRange = [&](std::uint64_t b, std::uint64_t e) {
        TmLogger& logger = TmLogger::getLogger();
        const TmLoggerPushSource pushed(&logger, source.get());
        if (nLatThreads != 0) {
            pb::timed_loop(b, e, [&](std::uint64_t i) {
                WEBLOG_TO(logger, kSevInfo, "request %1 handled in %2 ms by worker %3", i, pb::g_ms,
                          pb::g_worker);
            });
        } else if (bDisabled) {
            for (std::uint64_t i = b; i < e; pb::next(i)) {
                WEBLOG_TO(logger, kSevTraceFine, "request %1 handled in %2 ms by worker %3", i,
                          pb::g_ms, pb::g_worker);
            }
        } else {
            for (std::uint64_t i = b; i < e; pb::next(i)) {
                WEBLOG_TO(logger, kSevInfo, "request %1 handled in %2 ms by worker %3", i, pb::g_ms,
                          pb::g_worker);
            }
        }
    };
    const pb::Result result = nLatThreads != 0
                                  ? pb::drive_lat(args.n, nLatThreads, logRange, finish)
                                  : pb::drive(args.n, w == "file2t" ? 2 : 1, logRange, finish);
    return pb::report(args, result);
}

// The example server: a few worker threads handle simulated requests, each under its own log
// sources and properties, and log at all five message types through the writers that
// logconfig.xml declares: a console writer and a ring of rotating log files. Everything about
// logging comes from that file, through one call to the configuration loader with a value for
// its {%logDir%} variable. On SIGHUP the server reads the file again: a valid file replaces
// the writers and thresholds in one step, a file with problems changes nothing, and either way
// the server prints what happened.
//
// Each request runs under an execution context of its own, from the W3C Trace Context client
// libwebctm (KIV_CTM_LIBRARY, or the one built beside this program): the "KLF-Text" lines in
// the files show its ECID, the trace id and the span id. One request of each worker is finished
// by a back-end thread, to which it travels as a traceparent value over a queue; the back end's
// lines continue the same trace.
//
// The server logs with the one-line calls of weblogger/log.h: each names its severity, its
// template and its inserts (numbers and narrow text as they are), records its own file and line,
// and computes nothing when no writer takes the message.
//
// Usage: example_server [logconfig.xml [seconds]]
//   seconds: keep serving that long (so that there is time to edit the file and send SIGHUP);
//   without it the workers stop after a fixed number of requests.
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "weblogger/executioncontext.h"
#include "weblogger/kivmakelibloaded.h"
#include "weblogger/log.h"
#include "weblogger/loglifetime.h"
#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"
#include "weblogger/xmllogconfiguration.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/configreader.h"
#include "zq/webutil/ctmwrapper.h"
#include "zq/webutil/message.h"
#include "zq/webutil/timezone.h"

namespace {

using namespace kiv;

constexpr int kWorkers = 4;
constexpr int kRequestsPerWorker = 250;
// Relative to where the server is started.
constexpr const char* kLogDir = "build/example-logs";

std::atomic<bool> g_bServing{true};

void printList(const char* pszTitle, const std::vector<String>& vecLines) {
    std::printf("  %s\n", pszTitle);
    for (const String& line : vecLines) {
        std::printf("    %s\n", toUtf8(line.view()).c_str());
    }
    if (vecLines.empty()) {
        std::printf("    (none)\n");
    }
    // The console writer writes to the same descriptor, unbuffered.
    std::fflush(stdout);
}

// Loads the file (at start-up and on SIGHUP) and says what happened.
bool loadConfiguration(const std::string& strConfig, const ReplacementMap& vars) {
    const ConfigurationReport report = XmlLogConfiguration::reconfigure(fromUtf8(strConfig), &vars);
    if (!report.m_bApplied) {
        std::printf("example_server: %s was not applied; the logging in force stays:\n",
                    strConfig.c_str());
        printList("problems:", report.m_vecProblems);
        return false;
    }
    std::printf("example_server: %s applied (%u filter records)\n", strConfig.c_str(),
                report.m_nFilterRecords);
    if (report.m_vecWritersBefore != report.m_vecWritersAfter) {
        printList("writers before:", report.m_vecWritersBefore);
    }
    printList("writers now:", report.m_vecWritersAfter);
    return true;
}

// Waits for SIGHUP (blocked in every other thread) and reloads the configuration.
void reloadOnSighup(const std::string& strConfig, const ReplacementMap& vars) {
    sigset_t hangup;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    const timespec tick{0, 100 * 1000 * 1000};
    while (g_bServing.load()) {
        if (sigtimedwait(&hangup, nullptr, &tick) == SIGHUP) {
            std::printf("example_server: SIGHUP, reading %s again\n", strConfig.c_str());
            std::fflush(stdout);
            loadConfiguration(strConfig, vars);
        }
    }
}

// Requests handed from the workers to the back end, as traceparent values; an empty value
// ends the back end.
class HandOffQueue {
public:
    void push(NString strWrapped) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_queue.push_back(std::move(strWrapped));
        }
        m_changed.notify_one();
    }
    NString pop() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return !m_queue.empty(); });
        NString strWrapped = std::move(m_queue.front());
        m_queue.pop_front();
        return strWrapped;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<NString> m_queue;  // guarded by m_mutex
};

void runBackEnd(HandOffQueue& queue, const LogSourceHandle& http) {
    TmLogger& logger = TmLogger::getLogger();
    const LogSourceHandle backEnd(http, String(L"backend"));
    const TmLoggerPushSource pushed(&logger, backEnd.get());
    for (NString strWrapped = queue.pop(); !strWrapped.empty(); strWrapped = queue.pop()) {
        // The request's trace continues here, under a span of the back end's own.
        logger::ExecutionContextGuard context;
        context.initUnwrap(strWrapped);
        WEBLOG_INFO("finished the request handed over as %1", strWrapped);
    }
}

void handleRequests(int nWorker, const LogSourceHandle& http, HandOffQueue& backEnd,
                    std::chrono::steady_clock::time_point deadline) {
    TmLogger& logger = TmLogger::getLogger();
    const LogSourceHandle request(http, String(L"request"));
    const LogSourceHandle database(http, String(L"db"));
    logger.pushProperty(String(L"ThreadID"), GDUInteger64(static_cast<std::uint64_t>(nWorker)),
                        0xFFFFFFFF);
    std::mt19937 random(static_cast<unsigned>(nWorker));
    // An exception carries a message value, not a log call: its template is a value.
    const GDString failed(L"request %1 failed: the database did not answer");
    const bool bByTime = deadline != std::chrono::steady_clock::time_point();
    for (int i = 0; bByTime ? std::chrono::steady_clock::now() < deadline : i < kRequestsPerWorker;
         ++i) {
        if (bByTime) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        const std::string user = "user" + std::to_string(random() % 20);
        logger.pushProperty(String(L"userId"), GDString(fromUtf8(user)), 0xFFFFFFFF);
        // Every line of this request carries its own ECID.
        logger::ExecutionContextGuard context;
        context.initCreateNew();
        const TmLoggerPushSource pushed(&logger, request.get());
        // Requests that take 2 ms or more of real time leave a trace in the files.
        const LogLifeTime timer(L"examples/example_server.cpp", __LINE__, request,
                                String(L"handleRequest"), 2);
        const int id = nWorker * 10000 + i;
        const unsigned millis = random() % 250;

        if (i % 50 == 0) {
            // Now and then a request really is slow, and its timer leaves a trace.
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
        WEBLOG_TRACE_FINE("parsed %1 headers", 12 + i % 5);
        if (millis > 200) {
            WEBLOG_WARNING("request %1 took %2 ms, more than the 200 ms budget", id, millis);
        }
        if (random() % 97 == 0) {
            const TmLoggerPushSource inDatabase(&logger, database.get());
            Exception failure(ReferentialParameterizedMessage(failed, GDInteger64(id)));
            failure.linkException(Exception(GDString(L"connection reset by peer")));
            const FileLocation here(L"" __FILE__, __LINE__);
            logger.logException(failure, &kSevError, &here);
        } else if (random() % 499 == 0) {
            WEBLOG_ERROR_CORRUPTION("session table inconsistent");
        } else {
            WEBLOG_INFO("request %1 for %2 served in %3 ms", id, user, millis);
        }
        if (bByTime ? i % 50 == 49 : i == kRequestsPerWorker - 1) {
            // Some requests are finished elsewhere, as a real server would queue them (when
            // counting requests, each worker's last, so that its lines are still in the ring
            // of files at the end).
            backEnd.push(logger::ExecutionContext::wrap(false));
        }
        logger.popProperty(String(L"userId"));
    }
}

}  // namespace

int main(int argc, char** argv) {
    using namespace kiv;
    if (!isWebloggerLoaded()) {
        std::fprintf(stderr, "libweblogger did not initialise\n");
        return 1;
    }
    const std::string strConfig = argc > 1 ? argv[1] : WEBLOGGER_EXAMPLE_CONFIG;
    const int nSeconds = argc > 2 ? std::atoi(argv[2]) : 0;
    TmLogger::setTimeZone(TimeZone(TimeZone::kServerOS));

    // The context-monitoring client first, then the configuration that looks its functions up
    // ("ExecutionContext/Enable" is absent from this file, so tracking is on).
    const char* pszClient = std::getenv(performance::CTMWrapper::kLibraryPathVariable);
    NString strClientError;
    if (!performance::CTMWrapper::initialize(
            pszClient != nullptr && *pszClient != '\0' ? nullptr : WEBCTM_EXAMPLE_CLIENT,
            &strClientError)) {
        std::fprintf(stderr, "example_server: no execution context ids: %s\n",
                     strClientError.c_str());
    }
    try {
        logger::ExecutionContext::reloadConfig(
            ConfigReader::loadFromFile(NString(strConfig.c_str())));
    } catch (const Exception& e) {
        std::fprintf(stderr, "example_server: %s\n", e.what());
        return 1;
    }

    // Sources exist before the configuration is applied, so that its thresholds reach them.
    const LogSourceHandle root(String(L"example"));
    const LogSourceHandle http(root, String(L"http"));
    const LogSourceHandle request(http, String(L"request"));
    const LogSourceHandle database(http, String(L"db"));
    const LogSourceHandle backEnd(http, String(L"backend"));

    // SIGHUP is taken by the reloading thread only.
    sigset_t hangup;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &hangup, nullptr);

    ReplacementMap vars;
    vars[String(L"logDir")] = fromUtf8(kLogDir);
    std::printf("example_server: libweblogger %s\n", webloggerVersion());
    std::fflush(stdout);
    if (!loadConfiguration(strConfig, vars)) {
        return 1;
    }
    std::thread reloader(reloadOnSighup, std::cref(strConfig), std::cref(vars));

    const auto start = std::chrono::steady_clock::now();
    const auto deadline = nSeconds > 0 ? start + std::chrono::seconds(nSeconds)
                                       : std::chrono::steady_clock::time_point();
    HandOffQueue queue;
    std::thread backEndThread(runBackEnd, std::ref(queue), std::cref(http));
    std::vector<std::thread> vecWorkers;
    for (int w = 0; w < kWorkers; ++w) {
        vecWorkers.emplace_back(handleRequests, w, std::cref(http), std::ref(queue), deadline);
    }
    for (std::thread& worker : vecWorkers) {
        worker.join();
    }
    queue.push(NString());
    backEndThread.join();
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    g_bServing = false;
    reloader.join();

    // An empty configuration retires the writers: their files are flushed and closed.
    XmlLogConfiguration::configAll(
        *XmlDocument::parseString(std::string_view("<Logging/>")).getDocumentElement(), nullptr);

    const std::filesystem::path logs = std::filesystem::absolute(kLogDir);
    std::printf("example_server: %d workers served for %lld ms\n", kWorkers,
                static_cast<long long>(elapsed.count()));
    std::printf("example_server: log files in %s:\n", logs.string().c_str());
    if (std::filesystem::exists(logs)) {
        std::vector<std::filesystem::directory_entry> vecFiles{
            std::filesystem::directory_iterator(logs), std::filesystem::directory_iterator()};
        std::sort(vecFiles.begin(), vecFiles.end());
        for (const auto& entry : vecFiles) {
            std::printf("  %s (%llu bytes)\n", entry.path().filename().string().c_str(),
                        static_cast<unsigned long long>(entry.file_size()));
        }
    }
    return 0;
}

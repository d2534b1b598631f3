// The example server: a few worker threads handle simulated requests, each under its own log
// sources and properties, and log at all five message types through the writers that
// logconfig.xml declares: a console writer and a ring of rotating log files. The writers are
// built through the writer registry's factories, as the configuration does; thresholds are set
// on the sources directly.
//
// Each request runs under an execution context of its own, from the W3C Trace Context client
// libwebctm (KIV_CTM_LIBRARY, or the one built beside this program): the "KLF-Text" lines in
// the files show its ECID, the trace id and the span id. One request of each worker is finished
// by a back-end thread, to which it travels as a traceparent value over a queue; the back end's
// lines continue the same trace.
//
// Usage: example_server [logconfig.xml]
#include <algorithm>
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
#include "weblogger/loglifetime.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/messageformatloader.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/configreader.h"
#include "zq/webutil/ctmwrapper.h"
#include "zq/webutil/message.h"
#include "zq/webutil/timezone.h"

namespace {

using namespace kiv;

constexpr int kWorkers = 4;
constexpr int kRequestsPerWorker = 250;

// Console: errors and warnings, the important notifications; no traces. Files: everything.
// The system log: incident errors and errors.
void setThresholds(const LogSource& root) {
    LogFilter& filter = const_cast<LogSource&>(root).getLogFilter();
    filter.setLogLevelsForId(1, LogLevels(32, 32, 16, 1, 0));
    filter.setLogLevelsForId(2, LogLevels(65534, 65534, 65534, 65534, 65534));
    // System log: incident errors and errors only.
    filter.setLogLevelsForId(
        3, LogLevels(65534, 65534, LogLevels::kNotSet, LogLevels::kNotSet, LogLevels::kNotSet));
}

// Unset thresholds of a source take its parent's, as the configuration does down the tree.
void inheritThresholds(const LogSourceHandle& source) {
    const LogSource* pParent = source->getParent();
    const_cast<LogSource&>(*source).getLogFilter().setMissingSettings(
        pParent != nullptr ? &pParent->getLogFilter() : nullptr);
}

// Builds every writer of the Writers element through its factory; formats are looked up in the
// logging element first, then among the catalogue's and the library's built-in formats.
int buildWriters(const XmlElement& logging) {
    logger_details::LogWritersMan& registry = logger_details::LogWritersMan::getLogWritersMan();
    LogWritersFactory::ConfigChain chain;
    for (const XmlElement* pFormats : logging.selectElements(L"Formats")) {
        chain.push_back(pFormats);
    }
    chain.push_back(MessageFormatLoader::getFallbackLoggerFormats());
    int nWriters = 0;
    for (const XmlElement* pWriter : logging.selectElements(L"Writers/Writer")) {
        const Handle<const LogWritersFactory> hFactory =
            registry.getLogWritersFactory(pWriter->getAttributeValue(L"implementation", true));
        if (hFactory.isNull()) {
            std::fprintf(stderr, "unknown writer implementation in %s\n",
                         toUtf8(pWriter->toXmlString().view()).c_str());
            continue;
        }
        if (!hFactory->create(pWriter, chain, LogWriter::WT_GLOBAL, nullptr).isNull()) {
            ++nWriters;
        }
    }
    registry.versionIncrement();
    return nWriters;
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
    const GDString finished(L"finished the request handed over as %1");
    for (NString strWrapped = queue.pop(); !strWrapped.empty(); strWrapped = queue.pop()) {
        // The request's trace continues here, under a span of the back end's own.
        logger::ExecutionContextGuard context;
        context.initUnwrap(strWrapped);
        const FileLocation here(L"examples/example_server.cpp", __LINE__);
        logger.logMessage(
            kSevInfo,
            ReferentialParameterizedMessage(finished, GDString(fromUtf8(strWrapped.view()))),
            backEnd.get(), &here);
    }
}

void handleRequests(int nWorker, const LogSourceHandle& http, HandOffQueue& backEnd) {
    TmLogger& logger = TmLogger::getLogger();
    const LogSourceHandle request(http, String(L"request"));
    const LogSourceHandle database(http, String(L"db"));
    logger.pushProperty(String(L"ThreadID"), GDUInteger64(static_cast<std::uint64_t>(nWorker)),
                        0xFFFFFFFF);
    std::mt19937 random(static_cast<unsigned>(nWorker));
    const GDString served(L"request %1 for %2 served in %3 ms");
    const GDString slow(L"request %1 took %2 ms, more than the 200 ms budget");
    const GDString parsed(L"parsed %1 headers");
    const GDString failed(L"request %1 failed: the database did not answer");
    for (int i = 0; i < kRequestsPerWorker; ++i) {
        const String user = widen("user" + std::to_string(random() % 20));
        logger.pushProperty(String(L"userId"), GDString(user), 0xFFFFFFFF);
        // Every line of this request carries its own ECID.
        logger::ExecutionContextGuard context;
        context.initCreateNew();
        const TmLoggerPushSource pushed(&logger, request.get());
        // Requests that take 2 ms or more of real time leave a trace in the files.
        const LogLifeTime timer(L"examples/example_server.cpp", __LINE__, request,
                                String(L"handleRequest"), 2);
        const GDUInteger64 id(static_cast<std::uint64_t>(nWorker * 10000 + i));
        const GDUInteger64 millis(random() % 250);
        const FileLocation here(L"examples/example_server.cpp", __LINE__);

        if (i % 50 == 0) {
            // Now and then a request really is slow, and its timer leaves a trace.
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
        if (logger.calcEnabledWriters(kSevTraceFine)) {
            logger.logToEnabledWriters1(kSevTraceFine, parsed, GDUInteger64(12 + i % 5), &here);
        }
        if (millis.getValue() > 200) {
            logger.logMessage(kSevWarning, ReferentialParameterizedMessage(slow, id, millis),
                              nullptr, &here);
        }
        if (random() % 97 == 0) {
            const TmLoggerPushSource inDatabase(&logger, database.get());
            Exception failure(ReferentialParameterizedMessage(failed, id));
            failure.linkException(Exception(GDString(L"connection reset by peer")));
            logger.logException(failure, &kSevError, &here);
        } else if (random() % 499 == 0) {
            logger.logMessage(kSevErrorCorruption, GDString(L"session table inconsistent"), nullptr,
                              &here);
        } else {
            logger.logMessage(kSevInfo,
                              ReferentialParameterizedMessage(served, id, GDString(user), millis),
                              nullptr, &here);
        }
        if (i == kRequestsPerWorker - 1) {
            // One request per worker is finished elsewhere, as a real server would queue it (the
            // last, so that its lines are still in the ring of files at the end).
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
    XmlDocument config;
    try {
        config = XmlDocument::loadFromFile(NString(strConfig.c_str()));
    } catch (const Exception& e) {
        std::fprintf(stderr, "example_server: %s\n", e.what());
        return 1;
    }
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

    const LogSourceHandle root(String(L"example"));
    setThresholds(*root);
    const LogSourceHandle http(root, String(L"http"));
    const LogSourceHandle request(http, String(L"request"));
    const LogSourceHandle database(http, String(L"db"));
    const LogSourceHandle backEnd(http, String(L"backend"));
    for (const LogSourceHandle* pSource : {&http, &request, &database, &backEnd}) {
        inheritThresholds(*pSource);
    }
    int nWriters = 0;
    try {
        nWriters = buildWriters(*config.getDocumentElement());
    } catch (const Exception& e) {
        std::fprintf(stderr, "example_server: %s\n", e.what());
        return 1;
    }
    std::printf("example_server: libweblogger %s, %d writers from %s\n", webloggerVersion(),
                nWriters, strConfig.c_str());

    const auto start = std::chrono::steady_clock::now();
    HandOffQueue queue;
    std::thread backEndThread(runBackEnd, std::ref(queue), std::cref(http));
    std::vector<std::thread> vecWorkers;
    for (int w = 0; w < kWorkers; ++w) {
        vecWorkers.emplace_back(handleRequests, w, std::cref(http), std::ref(queue));
    }
    for (std::thread& worker : vecWorkers) {
        worker.join();
    }
    queue.push(NString());
    backEndThread.join();
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);

    // Retire the writers: their files are flushed and closed.
    logger_details::LogWritersMan::getLogWritersMan().clearWriters();
    logger_details::LogWritersMan::getLogWritersMan().versionIncrement();

    const std::filesystem::path logs = std::filesystem::absolute("build/example-logs");
    std::printf("example_server: %d workers handled %d requests in %lld ms\n", kWorkers,
                kWorkers * kRequestsPerWorker, static_cast<long long>(elapsed.count()));
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

// The soak program (not run by the tests): four threads log without end through a rotating
// ring of files and the console, and every 10 seconds the program prints its resident memory
// (VmRSS of /proc/self/status), its open descriptors (/proc/self/fd) and the messages logged so
// far, to standard error. Both figures should stay flat once the first minute is over.
//
// Usage: soak [--minutes M | --seconds S] [--dir DIR]     (default: 10 minutes, ./soak-logs)
// Typical run, the console into /dev/null:
//   nohup ./build/release/examples/soak > /dev/null 2> /tmp/soak.log &
#include <dirent.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "weblogger/loglifetime.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/messageformatloader.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/message.h"

namespace {

using namespace kiv;

constexpr int kThreads = 4;
// Each thread logs a batch, then sleeps a millisecond: a steady load that leaves room for the
// rest of the machine.
constexpr int kBatch = 20;

std::atomic<bool> g_bStop{false};
std::atomic<long long> g_nLogged{0};

long residentKb() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return -1;
}

int openDescriptors() {
    DIR* pDir = opendir("/proc/self/fd");
    if (pDir == nullptr) {
        return -1;
    }
    int n = 0;
    while (const dirent* pEntry = readdir(pDir)) {
        if (pEntry->d_name[0] != '.') {
            ++n;
        }
    }
    closedir(pDir);
    return n - 1;  // the directory's own descriptor
}

bool buildWriters(const std::string& strDir) {
    const std::string strConfig =
        "<Logging><Writers>"
        "<Writer name='console' implementation='CoutWriter' writerClassId='1' fmtName='Short'/>"
        "<Writer name='ring' implementation='FileLogWriter' writerClassId='2' "
        "fmtName='KLF-Text' dir='" +
        strDir +
        "' filePrefix='soak' maxFileSizeKb='1024' filesN='5' autoFlush='no'/>"
        "</Writers><Formats><Format name='Short'><MsgType style='short'/><MsgSeverity/>\t"
        "<CurrentLogSource/>\t<MessageText/><LineBreak/></Format></Formats></Logging>";
    const XmlDocument config = XmlDocument::parseString(std::string_view(strConfig));
    const XmlElement& logging = *config.getDocumentElement();
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
        if (!hFactory.isNull() &&
            !hFactory->create(pWriter, chain, LogWriter::WT_GLOBAL, nullptr).isNull()) {
            ++nWriters;
        }
    }
    registry.versionIncrement();
    return nWriters == 2;
}

void logUntilStopped(int nThread, const LogSourceHandle& source) {
    TmLogger& logger = TmLogger::getLogger();
    logger.pushProperty(String(L"ThreadID"), GDUInteger64(static_cast<std::uint64_t>(nThread)),
                        0xFFFFFFFF);
    const TmLoggerPushSource pushed(&logger, source.get());
    const GDString served(L"request %1 served in %2 ms");
    const FileLocation here(L"examples/soak.cpp", __LINE__);
    for (std::uint64_t i = 0; !g_bStop.load(std::memory_order_relaxed); ++i) {
        logger.logMessage(
            kSevInfo,
            ReferentialParameterizedMessage(served, GDUInteger64(i), GDUInteger64(i % 250)),
            nullptr, &here);
        if ((i + 1) % kBatch == 0) {
            g_nLogged.fetch_add(kBatch, std::memory_order_relaxed);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    long nSeconds = 600;
    std::string strDir = "soak-logs";
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--minutes") == 0) {
            nSeconds = std::atol(argv[i + 1]) * 60;
        } else if (std::strcmp(argv[i], "--seconds") == 0) {
            nSeconds = std::atol(argv[i + 1]);
        } else if (std::strcmp(argv[i], "--dir") == 0) {
            strDir = argv[i + 1];
        }
    }
    if (!buildWriters(strDir)) {
        std::fprintf(stderr, "soak: the writers could not be made\n");
        return 1;
    }
    const LogSourceHandle root(String(L"soak"));
    const_cast<LogSource&>(*root).getLogFilter().setLogLevelsForId(
        1, LogLevels(65534, 65534, 65534, 65534, 65534));
    const_cast<LogSource&>(*root).getLogFilter().setLogLevelsForId(
        2, LogLevels(65534, 65534, 65534, 65534, 65534));

    std::vector<std::thread> vecThreads;
    for (int t = 0; t < kThreads; ++t) {
        vecThreads.emplace_back(logUntilStopped, t, std::cref(root));
    }
    const auto tStart = std::chrono::steady_clock::now();
    std::fprintf(stderr, "soak: %d threads for %ld s into %s and the console\n", kThreads, nSeconds,
                 strDir.c_str());
    std::fprintf(stderr, "%8s %12s %10s %6s\n", "seconds", "messages", "VmRSS kB", "fds");
    for (long nElapsed = 0; nElapsed < nSeconds;) {
        std::this_thread::sleep_until(tStart + std::chrono::seconds(nElapsed + 10));
        nElapsed += 10;
        std::fprintf(stderr, "%8ld %12lld %10ld %6d\n", nElapsed, g_nLogged.load(), residentKb(),
                     openDescriptors());
    }
    g_bStop = true;
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    return 0;
}

// The processes of the shutdown scenarios (run by shutdown_test):
//
//   shutdown_helper main-return <dir> <lines>
//       Three threads and main each log <lines> lines; the threads are joined and main returns.
//       After the library's shutdown the program prints "state <n>": the writer registry's
//       state word.
//   shutdown_helper local-writer <dir> <lines>
//       A thread logs once and stays (so the exit keeps the process-wide objects for it); main
//       gives its own logger a single-threaded file writer on <dir>-local besides the global one
//       and logs <lines> lines, then returns.
//   shutdown_helper worker-exit <dir> <lines>
//       Four threads log without pause; thread 0 calls exit() after its <lines>th line while
//       the others go on. After the library's shutdown (from a destructor of this program that
//       runs after it) the threads are stopped and the program prints
//       "attempted <n> refused <m>": n log calls returned, m of them were refused because the
//       shutdown had begun.
//
// The writer keeps its lines in its buffer ("autoFlush" off), so whatever reaches the files was
// written by the library's shutdown.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "helpers/shutdown_logging.h"

namespace {

using namespace kiv;

constexpr int kThreads = 4;

std::atomic<long> g_arrAttempted[kThreads];
std::atomic<bool> g_bStop{false};
std::atomic<int> g_nParked{0};
std::atomic<bool> g_bWorkerExitMode{false};

int mainReturn(long nLines) {
    std::vector<std::thread> vecThreads;
    for (int t = 1; t < kThreads; ++t) {
        vecThreads.emplace_back([t, nLines] {
            for (long i = 0; i < nLines; ++i) {
                test::logLine(t, i);
            }
        });
    }
    for (long i = 0; i < nLines; ++i) {
        test::logLine(0, i);
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    return 0;
}

int localWriter(const std::string& strDir, long nLines) {
    std::atomic<bool> bLogged{false};
    std::thread([&bLogged] {
        test::logLine(1, 0);
        bLogged = true;
        for (;;) {
            pause();
        }
    }).detach();
    while (!bLogged.load()) {
        std::this_thread::yield();
    }
    const test::WriterConfig config("<Writer name='local' writerClassId='3' dir='" + strDir +
                                    "-local' maxFileSizeKb='100000' filesN='10' "
                                    "autoFlush='false'/>");
    const Handle<LogWriter> hLocal = config.create(L"FileLogWriter", LogWriter::WT_SINGLE_THREADED);
    if (hLocal.isNull()) {
        return 2;
    }
    TmLogger::getLogger().addLocalWriter(hLocal.get());
    for (long i = 0; i < nLines; ++i) {
        test::logLine(0, i);
    }
    return 0;
}

void logUntilStopped(int t, long nExitAfter) {
    for (long i = 0; !g_bStop.load(); ++i) {
        test::logLine(t, i);
        g_arrAttempted[t].fetch_add(1);
        if (i + 1 == nExitAfter) {
            std::exit(0);
        }
    }
    g_nParked.fetch_add(1);
    // Parked: the process ends under it.
    for (;;) {
        pause();
    }
}

int workerExit(long nLines) {
    g_bWorkerExitMode = true;
    std::vector<std::thread> vecThreads;
    for (int t = 0; t < kThreads; ++t) {
        vecThreads.emplace_back(logUntilStopped, t, t == 0 ? nLines : -1);
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    return 1;  // never reached: thread 0 exits the process
}

// Runs after the library's static destructors (the dynamic linker calls it last), while the
// other threads still log into the shut-down library.
[[gnu::destructor]] void reportAfterShutdown() {
    if (!g_bWorkerExitMode.load()) {
        const std::string line =
            "state " + std::to_string(logger_details::LogWritersMan::getState()) + "\n";
        const ssize_t nWritten = write(1, line.data(), line.size());
        static_cast<void>(nWritten);
        return;
    }
    g_bStop = true;
    // Thread 0 is the one exiting; the others park.
    while (g_nParked.load() < kThreads - 1) {
        std::this_thread::yield();
    }
    long nAttempted = 0;
    for (const std::atomic<long>& nCount : g_arrAttempted) {
        nAttempted += nCount.load();
    }
    const std::string line = "attempted " + std::to_string(nAttempted) + " refused " +
                             std::to_string(TmLogger::getMessagesRefusedAtShutdown()) + "\n";
    const ssize_t nWritten = write(1, line.data(), line.size());
    static_cast<void>(nWritten);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: shutdown_helper main-return|worker-exit <dir> <lines>\n");
        return 2;
    }
    const std::string strMode = argv[1];
    const long nLines = std::atol(argv[3]);
    if (!test::makeBufferedGlobalFileWriter(argv[2])) {
        std::fprintf(stderr, "shutdown_helper: no file writer\n");
        return 2;
    }
    if (strMode == "main-return") {
        return mainReturn(nLines);
    }
    if (strMode == "local-writer") {
        return localWriter(argv[2], nLines);
    }
    if (strMode == "worker-exit") {
        return workerExit(nLines);
    }
    return 2;
}

#include "weblogger/internal/libraryshutdown.h"

#include <atomic>

#include "weblogger/keelloggerlogimpl.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/tmlogger.h"

namespace kiv::logger_details {

void LibraryShutdown::run() noexcept {
    static std::atomic<bool> s_bDone{false};
    if (s_bDone.exchange(true)) {
        return;
    }
    const bool bDrained = TmLogger::closeAndDrain(kDrainLimitMillis);
    // Once every call has left, no thread touches a single-threaded writer through its logger
    // any more: those are closed too, from here.
    LogWritersMan::closeAll(bDrained);
    if (!bDrained || TmLogger::otherThreadsHaveLoggers()) {
        return;
    }
    KeelLoggerLogImpl::destroyBridge();
    LogWritersMan::destroyLogWritersMan();
    LogSourcesMan::destroyLogSourcesMan();
    TmLogger::destroyLoggerSlot();
}

namespace {
// Installs the shutdown when the library loads. Once logging is used, the shutdown runs from
// the sentinel that LogWritersMan::armShutdown makes, before this object's destructor; a
// library that was loaded and never used is still torn down here.
struct ShutdownAtUnload {
    ShutdownAtUnload() noexcept { LogWritersMan::setShutdownRoutine(&LibraryShutdown::run); }
    ~ShutdownAtUnload() { LibraryShutdown::run(); }
};
const ShutdownAtUnload g_shutdownAtUnload;
}  // namespace

}  // namespace kiv::logger_details

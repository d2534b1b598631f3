#include "weblogger/tmlogger.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "weblogger/eciddeferredpropertyvalue.h"
#include "weblogger/internal/logtimezone.h"
#include "weblogger/internal/ownfailures.h"
#include "weblogger/loggermessages.h"
#include "weblogger/logsource.h"
#include "weblogger/logwriters.h"
#include "weblogger/logwritersman.h"
#include "zq/webkeel/keellogger.h"
#include "zq/webthreadstorage/threadstatic.h"
#include "zq/webutil/message.h"

namespace kiv {

const LogSourceHandle lsUnspecified(String(L"kiv.unknown"));
const GDString gdEndOfLine(L"\n");
const String ksExecutionContextIDLogPropName(L"ecid");

namespace {

// The file name this unit reports to the lower library when it diverts a message.
const wchar_t* const kUnitFileName = L"./project/weblogger/tmlogger";
constexpr unsigned kDivertLineLogMessage = 79;
constexpr unsigned kDivertLineLogToEnabledWriters = 121;

// Far above every message importance, so the "ecid" property passes any level test.
constexpr std::uint32_t kEcidImportance = 0xF0000000u;

std::atomic<int> g_nLiveLoggers{0};
std::atomic<const KeelLogger*> g_pBridge{nullptr};

// Open until the library's shutdown begins; read by every log call without a lock.
std::atomic<bool> g_bGateOpen{true};
std::atomic<std::uint64_t> g_nRefusedAtShutdown{0};

// Live loggers, linked through m_pPrevLive/m_pNextLive. Constant-initialised and never
// destroyed: a thread may end after the library's other statics are gone.
std::mutex g_liveLoggersMutex;
TmLogger* g_pLiveLoggers = nullptr;

// Deleted by the library's shutdown only when no other thread has a logger; otherwise kept,
// so that threads still running at exit can go on using their loggers.
std::atomic<ThreadSpecificStatic<TmLogger>*> g_pLoggerSlot{nullptr};

// The calling thread's logger as its slot holds it: getLogger runs for every log call made
// without a logger at hand, and one thread_local load costs far less than the thread-specific
// lookup behind it. Set when the slot is given the logger, cleared when the logger is
// destroyed (at the thread's end, the slot's clean-up; a clean-up that runs after it and logs
// gets a new logger, never the destroyed one). Trivially destructible, so it stays readable
// for every clean-up of the ending thread.
thread_local TmLogger* t_pThreadLogger = nullptr;

// Makes every thread of the process pass a full memory barrier: the shutdown's half of the
// handshake with the log calls, whose half costs them only a compiler barrier.
void processWideBarrier() noexcept {
    if (syscall(__NR_membarrier, MEMBARRIER_CMD_GLOBAL, 0) != 0) {
        // Without the system call: by the time the stores of a call that saw the gate open
        // are visible everywhere; a store buffer drains in far less.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// The calling thread's logger, without making one: the slot's value, as getLogger keeps it.
const TmLogger* callingThreadsLogger() noexcept {
    return t_pThreadLogger;
}

}  // namespace

ThreadSpecificStatic<TmLogger>& TmLogger::loggerSlot() {
    static ThreadSpecificStatic<TmLogger>* const s_pSlot = [] {
        auto* pSlot = new ThreadSpecificStatic<TmLogger>(&TmLogger::destroyLogger);
        g_pLoggerSlot.store(pSlot);
        return pSlot;
    }();
    return *s_pSlot;
}

void TmLogger::destroyLogger(TmLogger* pLogger) {
    delete pLogger;
}

// =============================================================================================
// TmLogger

// Marks the thread as inside a log call and pushes the sources a call needs; on the way out,
// also by exception, pops exactly what it pushed and clears the flag.
class TmLogger::CallScope {
public:
    explicit CallScope(TmLogger& logger) noexcept : m_logger(logger) {
        m_logger.m_bInLogCall = true;
    }
    ~CallScope() {
        // A thread logs under a source of its own nearly always; without the hint the
        // compiler laid the common case out as the jump away.
        if (m_nPushed != 0) [[unlikely]] {
            for (int i = 0; i < m_nPushed; ++i) {
                m_logger.m_logState.popSource();
            }
            m_logger.refreshGuardFilter();
        }
        m_logger.m_bInLogCall = false;
    }
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

    // Pushes a source; a failure of our own or an out-of-memory error leaves it unpushed.
    void push(const LogSource& source) {
        logger_details::swallowOwnFailures([&] {
            m_logger.m_logState.pushSource(source);
            ++m_nPushed;
            // A guard called from inside this call (a writer that logs) reads this source.
            m_logger.refreshGuardFilter();
        });
    }
    // Logs under "kiv.unknown" when the thread has no source.
    void pushDefaultSourceIfNone() {
        if (m_logger.m_logState.getCurSource() == nullptr) {
            push(*lsUnspecified);
        }
    }

private:
    TmLogger& m_logger;
    int m_nPushed = 0;
};

// Marks the thread as inside a log call for the library's shutdown, and says whether the call
// may go on. Nested calls (a writer that logs) keep the outermost mark.
class TmLogger::ShutdownGate {
public:
    explicit ShutdownGate(TmLogger& logger) noexcept
        : m_logger(logger), m_bOutermost(!logger.m_bInGate.load(std::memory_order_relaxed)) {
        // Nested calls (a writer that logs) are the rare ones: the hints keep the outermost
        // call's path straight, where the compiler had put it behind two jumps.
        if (m_bOutermost) [[likely]] {
            m_logger.m_bInGate.store(true, std::memory_order_relaxed);
            // With the shutdown's process-wide barrier: either it sees this thread inside, or
            // this thread sees the gate closed.
            std::atomic_signal_fence(std::memory_order_seq_cst);
        }
        m_bOpen = g_bGateOpen.load(std::memory_order_relaxed);
    }
    ~ShutdownGate() {
        if (m_bOutermost) [[likely]] {
            // Release: what the call did happens before the shutdown's teardown.
            m_logger.m_bInGate.store(false, std::memory_order_release);
        }
    }
    ShutdownGate(const ShutdownGate&) = delete;
    ShutdownGate& operator=(const ShutdownGate&) = delete;

    explicit operator bool() const noexcept { return m_bOpen; }
    // For a call that would have written a message.
    static void countRefused() noexcept {
        g_nRefusedAtShutdown.fetch_add(1, std::memory_order_relaxed);
    }

private:
    TmLogger& m_logger;
    const bool m_bOutermost;
    bool m_bOpen;
};

TmLogger::TmLogger()
    : m_hLogWriters(new LogWriters),
      m_bInLogCall(false),
      m_pGuardFilter(&LogFilter::walkAlways()),
      m_pWalkAlways(m_pGuardFilter) {
    m_hLogWriters->syncGlobalWriters();
    logger_details::LogWritersMan::armShutdown();
    {
        const std::lock_guard<std::mutex> lock(g_liveLoggersMutex);
        m_pNextLive = g_pLiveLoggers;
        if (g_pLiveLoggers != nullptr) {
            g_pLiveLoggers->m_pPrevLive = this;
        }
        g_pLiveLoggers = this;
    }
    // A logger without the property is still a working logger.
    logger_details::swallowOwnFailures([&] {
        m_logState.pushProperty(ksExecutionContextIDLogPropName,
                                logger_details::ECIDLogDeferredPropertyValue(), kEcidImportance);
    });
    g_nLiveLoggers.fetch_add(1, std::memory_order_relaxed);
}

TmLogger::~TmLogger() {
    if (t_pThreadLogger == this) {
        t_pThreadLogger = nullptr;
    }
    g_nLiveLoggers.fetch_sub(1, std::memory_order_relaxed);
    const std::lock_guard<std::mutex> lock(g_liveLoggersMutex);
    if (m_pPrevLive != nullptr) {
        m_pPrevLive->m_pNextLive = m_pNextLive;
    } else if (g_pLiveLoggers == this) {
        g_pLiveLoggers = m_pNextLive;
    }
    if (m_pNextLive != nullptr) {
        m_pNextLive->m_pPrevLive = m_pPrevLive;
    }
}

std::uint64_t TmLogger::getMessagesRefusedAtShutdown() noexcept {
    return g_nRefusedAtShutdown.load(std::memory_order_relaxed);
}

bool TmLogger::closeAndDrain(int nMillisLimit) noexcept {
    g_bGateOpen.store(false);
    processWideBarrier();
    const TmLogger* pOwn = callingThreadsLogger();
    const auto tLimit = std::chrono::steady_clock::now() + std::chrono::milliseconds(nMillisLimit);
    // Held while waiting: a thread that leaves its call and then ends waits here to unlink its
    // logger, which is harmless; a log call never takes this lock.
    const std::lock_guard<std::mutex> lock(g_liveLoggersMutex);
    for (const TmLogger* pLogger = g_pLiveLoggers; pLogger != nullptr;
         pLogger = pLogger->m_pNextLive) {
        if (pLogger == pOwn) {
            continue;
        }
        while (pLogger->m_bInGate.load(std::memory_order_acquire)) {
            if (std::chrono::steady_clock::now() >= tLimit) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return true;
}

void TmLogger::lockLiveLoggersForFork() noexcept {
    g_liveLoggersMutex.lock();
}

void TmLogger::unlockLiveLoggersAfterFork(bool bChild) noexcept {
    if (bChild) {
        const TmLogger* pOwn = callingThreadsLogger();
        for (TmLogger* pLogger = g_pLiveLoggers; pLogger != nullptr;
             pLogger = pLogger->m_pNextLive) {
            if (pLogger != pOwn) {
                pLogger->m_bInGate.store(false, std::memory_order_relaxed);
            }
        }
    }
    g_liveLoggersMutex.unlock();
}

bool TmLogger::otherThreadsHaveLoggers() noexcept {
    const TmLogger* pOwn = callingThreadsLogger();
    const std::lock_guard<std::mutex> lock(g_liveLoggersMutex);
    for (const TmLogger* pLogger = g_pLiveLoggers; pLogger != nullptr;
         pLogger = pLogger->m_pNextLive) {
        if (pLogger != pOwn) {
            return true;
        }
    }
    return false;
}

void TmLogger::destroyLoggerSlot() noexcept {
    delete g_pLoggerSlot.exchange(nullptr);
}

TmLogger& TmLogger::getLogger() {
    if (TmLogger* pLogger = t_pThreadLogger) [[likely]] {
        return *pLogger;
    }
    ThreadSpecificStatic<TmLogger>& slot = loggerSlot();
    if (TmLogger* pLogger = slot.get()) {
        t_pThreadLogger = pLogger;
        return *pLogger;
    }
    TmLogger* pLogger = new TmLogger;
    try {
        slot.set(pLogger);
    } catch (...) {
        delete pLogger;
        throw;
    }
    t_pThreadLogger = pLogger;
    return *pLogger;
}

int TmLogger::getLiveLoggerCount() noexcept {
    return g_nLiveLoggers.load(std::memory_order_relaxed);
}

void TmLogger::addLocalWriter(LogWriter* pWriter) {
    m_hLogWriters->addLocalWriter(pWriter);
}

void TmLogger::removeLocalWriter(LogWriter* pWriter) {
    m_hLogWriters->removeLocalWriter(pWriter);
}

void TmLogger::clearLocalWriters() {
    m_hLogWriters->clearLocalWriters();
}

void TmLogger::getLocalWriters(LogWritersState& state) const {
    m_hLogWriters->getLocalWriters(state.m_list);
}

void TmLogger::setLocalWriters(const LogWritersState& state) {
    m_hLogWriters->setLocalWriters(state.m_list);
}

void TmLogger::appendLocalWriters(const LogWritersState& state) {
    m_hLogWriters->appendLocalWriters(state.m_list);
}

bool TmLogger::calcEnabledWritersByWalk(const LogSeverity& severity) {
    // The flag is set without testing it first and cleared at the end, also when this call was
    // made from inside another log call.
    const ShutdownGate gate(*this);
    if (!gate) [[unlikely]] {
        return false;
    }
    bool bAny = false;
    const LogSource* pSource = m_logState.getCurSource();
    if (pSource != nullptr && m_hLogWriters->giveRememberedAnswer(severity, *pSource, bAny))
        [[likely]] {
        // Nothing ran that could log, so no scope was needed; the flag ends cleared, as the
        // walk's scope leaves it.
        m_bInLogCall = false;
    } else {
        const bool bDone = logger_details::swallowOwnFailures([&] {
            CallScope scope(*this);
            scope.pushDefaultSourceIfNone();
            bAny = m_hLogWriters->calcEnabledWriters(severity, m_logState);
        });
        if (!bDone) [[unlikely]] {
            // Like every entry point: our own failures never reach the caller; nothing is
            // enabled.
            m_hLogWriters.get()->clearEnabledWriters();
            bAny = false;
        }
    }
    m_bGuardEnabledWriters = bAny;
    refreshGuardFilter();
    return bAny;
}

void TmLogger::refreshGuardFilter() noexcept {
    const LogSource* pSource = m_logState.getCurSource();
    m_pGuardFilter =
        m_bGuardEnabledWriters || pSource == nullptr ? m_pWalkAlways : &pSource->getLogFilter();
}

void TmLogger::logToEnabledWriters(const LogSeverity& severity, const GDValue& msg,
                                   const FileLocation* pLocation) {
    const ShutdownGate gate(*this);
    if (!gate) [[unlikely]] {
        ShutdownGate::countRefused();
        return;
    }
    if (m_bInLogCall) [[unlikely]] {
        divert(msg, kDivertLineLogToEnabledWriters);
        return;
    }
    logger_details::swallowOwnFailures([&] {
        CallScope scope(*this);
        scope.pushDefaultSourceIfNone();
        m_hLogWriters->logToEnabledWriters(severity, msg, m_logState, pLocation);
        // Emptied by the writer set; a writer that threw leaves the rest for the next guard.
        m_bGuardEnabledWriters = false;
    });
    refreshGuardFilter();
}

// The numbered forms take logToEnabledWriters in whole (flatten), so that a line is written one
// call level nearer the caller. A flushed line's write(2) comes back with the processor's
// return predictions spent on the kernel's own calls: each of our frames still open around the
// system call then costs a mispredicted return, about 6 ns, measured on the build machine.
[[gnu::flatten]] void TmLogger::logToEnabledWriters1(const LogSeverity& severity,
                                                     const GDValue& msg, const GDValue& p1,
                                                     const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1), pLocation);
}

[[gnu::flatten]] void TmLogger::logToEnabledWriters2(const LogSeverity& severity,
                                                     const GDValue& msg, const GDValue& p1,
                                                     const GDValue& p2,
                                                     const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1, p2), pLocation);
}

[[gnu::flatten]] void TmLogger::logToEnabledWriters3(const LogSeverity& severity,
                                                     const GDValue& msg, const GDValue& p1,
                                                     const GDValue& p2, const GDValue& p3,
                                                     const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1, p2, p3), pLocation);
}

[[gnu::flatten]] void TmLogger::logToEnabledWriters4(const LogSeverity& severity,
                                                     const GDValue& msg, const GDValue& p1,
                                                     const GDValue& p2, const GDValue& p3,
                                                     const GDValue& p4,
                                                     const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1, p2, p3, p4), pLocation);
}

[[gnu::flatten]] void TmLogger::logToEnabledWriters5(const LogSeverity& severity,
                                                     const GDValue& msg, const GDValue& p1,
                                                     const GDValue& p2, const GDValue& p3,
                                                     const GDValue& p4, const GDValue& p5,
                                                     const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1, p2, p3, p4, p5),
                        pLocation);
}

[[gnu::flatten]] void TmLogger::logToEnabledWriters6(const LogSeverity& severity,
                                                     const GDValue& msg, const GDValue& p1,
                                                     const GDValue& p2, const GDValue& p3,
                                                     const GDValue& p4, const GDValue& p5,
                                                     const GDValue& p6,
                                                     const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1, p2, p3, p4, p5, p6),
                        pLocation);
}

[[gnu::flatten]] void TmLogger::logToEnabledWriters7(const LogSeverity& severity,
                                                     const GDValue& msg, const GDValue& p1,
                                                     const GDValue& p2, const GDValue& p3,
                                                     const GDValue& p4, const GDValue& p5,
                                                     const GDValue& p6, const GDValue& p7,
                                                     const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1, p2, p3, p4, p5, p6, p7),
                        pLocation);
}

[[gnu::flatten]] void TmLogger::logToEnabledWriters8(
    const LogSeverity& severity, const GDValue& msg, const GDValue& p1, const GDValue& p2,
    const GDValue& p3, const GDValue& p4, const GDValue& p5, const GDValue& p6, const GDValue& p7,
    const GDValue& p8, const FileLocation* pLocation) {
    logToEnabledWriters(
        severity, ReferentialParameterizedMessage(msg, p1, p2, p3, p4, p5, p6, p7, p8), pLocation);
}

void TmLogger::logMessage(const LogSeverity& severity, const GDValue& msg, const LogSource* pSource,
                          const FileLocation* pLocation) {
    const ShutdownGate gate(*this);
    if (!gate) [[unlikely]] {
        ShutdownGate::countRefused();
        return;
    }
    if (m_bInLogCall) [[unlikely]] {
        divert(msg, kDivertLineLogMessage);
        return;
    }
    // The guard's test, for callers that log in one step: a message that the source's summary
    // refuses reaches no writer, so the walk is not made. (A named source is tested on its own
    // filter; with no source yet, the guard's filter is walkAlways() and the walk decides.)
    const LogFilter& filter = pSource != nullptr ? pSource->getLogFilter() : *m_pGuardFilter;
    if (!filter.mayAccept(severity)) [[likely]] {
        return;
    }
    logger_details::swallowOwnFailures([&] {
        CallScope scope(*this);
        if (pSource != nullptr) {
            scope.push(*pSource);
        }
        scope.pushDefaultSourceIfNone();
        m_hLogWriters->logMessage(severity, msg, m_logState, pLocation);
    });
}

void TmLogger::logException(const Exception& exception, const LogSeverity* pSeverity,
                            const FileLocation* pLocation, const LogSource* pSource) {
    const ShutdownGate gate(*this);
    if (!gate) [[unlikely]] {
        ShutdownGate::countRefused();
        return;
    }
    logger_details::swallowOwnFailures([&] {
        if (m_bInLogCall) {
            if (KeelLogger* pPrevious = getDivertTarget()) {
                pPrevious->logException(exception, exception.getSeverity());
            }
            return;
        }
        const LogSeverity& severity = pSeverity != nullptr ? *pSeverity : kSevError;
        const std::vector<const Exception*> vecLinked =
            exception.getFlattenedListOfLinkedExceptions();

        const String& strStackTrace = exception.getStackTrace();
        const FileLocation withBacktrace(pLocation != nullptr ? pLocation->getWFile() : nullptr,
                                         pLocation != nullptr ? pLocation->getLineNumber() : 0,
                                         strStackTrace.c_str());
        const FileLocation* pUsedLocation =
            pLocation != nullptr && !strStackTrace.empty() ? &withBacktrace : pLocation;

        if (vecLinked.empty()) {
            logMessage(severity, exception.getMsg(), pSource, pUsedLocation);
            return;
        }
        GDArray messages;
        messages.append(exception.getMsg());
        for (const Exception* pLinked : vecLinked) {
            messages.append(gdEndOfLine);
            if (pLinked != nullptr) {
                messages.append(pLinked->getMsg());
            }
        }
        logMessage(severity, messages, pSource, pUsedLocation);
    });
}

void TmLogger::setTimeZone(const TimeZone& zone) {
    logger_details::LoggingTimeZone::set(zone);
}

const TimeZone& TmLogger::getTimeZone() {
    return logger_details::LoggingTimeZone::get();
}

const String& TmLogger::getTimeZoneShortName(bool bDst) {
    return logger_details::LoggingTimeZone::getShortName(bDst);
}

void TmLogger::setBridge(const KeelLogger* pBridge) noexcept {
    g_pBridge.store(pBridge, std::memory_order_release);
}

KeelLogger* TmLogger::getDivertTarget() noexcept {
    const KeelLogger* pBridge = g_pBridge.load(std::memory_order_acquire);
    return pBridge != nullptr ? pBridge->getPrevKeelLogger() : nullptr;
}

void TmLogger::divert(const GDValue& msg, unsigned nLine) {
    logger_details::swallowOwnFailures([&] {
        KeelLogger* pPrevious = getDivertTarget();
        if (pPrevious == nullptr) {
            return;
        }
        const ReferentialParameterizedMessage wrapped(kmsgLogFromLogger, msg);
        pPrevious->log(KeelLogger::kError, KeelLogger::kSeverityNormal, kUnitFileName, nLine,
                       wrapped);
    });
}

}  // namespace kiv

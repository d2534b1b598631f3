// The per-thread logger.
//
// Each thread logs through its own TmLogger, made on the thread's first getLogger() and
// destroyed when the thread ends. It carries the thread's logging context (LoggerState: a stack
// of log sources, innermost last, and stacks of named properties), its writer set (LogWriters:
// a copy of the global writers plus the thread's local writers) and a flag that diverts a
// message logged from inside a log call to the lower library's previous logger.
//
// One message: the registry's writer version is compared with the thread's copy (no lock on
// the common path); every enabled writer whose own filter and whose source's filter accept the
// severity receives the message, global writers first, then local writers, each in order.
// Logging never fails the caller: in-house exceptions and out-of-memory errors raised by
// writers are swallowed at the entry points; any other exception passes on after the flag is
// cleared and temporary sources are popped.
//
// Threads: a TmLogger, its state and its writer set are touched only by their own thread and
// hold no lock. The logging time zone is process-wide and guarded by its own lock. Every logger
// is also on the process-wide list of live loggers (its own lock, taken by logger construction
// and destruction and by the library's shutdown, with nothing else held), and says through an
// atomic flag whether its thread is inside a log call, so that the shutdown can wait for calls
// in progress.
//
// Shutdown: once the library's shutdown has begun (unload, or exit from any thread), every log
// call returns at once without writing: the writers are being flushed and closed. Such a call
// is counted (getMessagesRefusedAtShutdown); it never crashes and never blocks.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "weblogger/commonseverities.h"
#include "weblogger/logfilter.h"
#include "weblogger/loggerstate.h"
#include "weblogger/logwriters.h"
#include "zq/webkeel/exception.h"
#include "zq/webkeel/gdvalue.h"
#include "zq/webkeel/handle.h"
#include "zq/webkeel/memalloc.h"
#include "zq/webkeel/string.h"

namespace kiv {

class LogSource;
class LogSourceHandle;
class LogWriter;
class TimeZone;
class KeelLogger;
template <class T>
class ThreadSpecificStatic;
namespace logger_details {
class LibraryShutdown;
}

class TmLogger : public MemAllocNewdel {
public:
    // The names by which the rest of the system has always known these classes.
    using LoggerState = kiv::LoggerState;
    using FileLocation = kiv::FileLocation;
    using LogWriters = kiv::LogWriters;
    using LogWritersList = kiv::LogWritersList;

    // ------------------------------------------------------------------ the logger
    // The calling thread's logger, made on first use. If making it throws, the exception
    // passes on and the next call tries again.
    static TmLogger& getLogger();
    // Loggers alive in the process (each thread that logged and has not ended has one).
    static int getLiveLoggerCount() noexcept;
    // Log calls refused because the library's shutdown had begun; nothing of them was written.
    static std::uint64_t getMessagesRefusedAtShutdown() noexcept;

    TmLogger(const TmLogger&) = delete;
    TmLogger& operator=(const TmLogger&) = delete;

    void pushSource(const LogSource& source) {
        m_logState.pushSource(source);
        refreshGuardFilter();
    }
    void popSource() noexcept {
        m_logState.popSource();
        refreshGuardFilter();
    }
    void pushProperty(const String& strPropName, const GDValue& propValue,
                      std::uint32_t nImportance) {
        m_logState.pushProperty(strPropName, propValue, nImportance);
    }
    void popProperty(const String& strPropName) noexcept { m_logState.popProperty(strPropName); }
    bool isInLogCall() const noexcept { return m_bInLogCall; }
    void getCurrentLogSourceNames(std::vector<String>& names) const {
        m_logState.getLogSourceNames(names);
    }
    const LoggerState& getLoggerState() const noexcept { return m_logState; }

    void addLocalWriter(LogWriter* pWriter);
    void removeLocalWriter(LogWriter* pWriter);
    void clearLocalWriters();
    void getLocalWriters(LogWritersState& state) const;
    void setLocalWriters(const LogWritersState& state);
    void appendLocalWriters(const LogWritersState& state);

    // Two-step logging: which writers accept the severity (so the caller can skip building an
    // expensive message), then the message to exactly those writers. The guard is inline: a
    // message that no writer id's threshold on the current source could accept is refused
    // after one compare against the source filter's summary, in the caller's own code; only
    // a message that may pass walks the writers (out of line).
    bool calcEnabledWriters(const LogSeverity& severity) {
        if (!m_pGuardFilter->mayAccept(severity)) [[likely]] {
            return false;
        }
        return calcEnabledWritersByWalk(severity);
    }
    void logToEnabledWriters(const LogSeverity& severity, const GDValue& msg,
                             const FileLocation* pLocation);
    // The numbered forms refer to msg as the template and to p1..pN as its inserts, without
    // copying; the values must outlive the call only.
    void logToEnabledWriters1(const LogSeverity& severity, const GDValue& msg, const GDValue& p1,
                              const FileLocation* pLocation);
    void logToEnabledWriters2(const LogSeverity& severity, const GDValue& msg, const GDValue& p1,
                              const GDValue& p2, const FileLocation* pLocation);
    void logToEnabledWriters3(const LogSeverity& severity, const GDValue& msg, const GDValue& p1,
                              const GDValue& p2, const GDValue& p3, const FileLocation* pLocation);
    void logToEnabledWriters4(const LogSeverity& severity, const GDValue& msg, const GDValue& p1,
                              const GDValue& p2, const GDValue& p3, const GDValue& p4,
                              const FileLocation* pLocation);
    void logToEnabledWriters5(const LogSeverity& severity, const GDValue& msg, const GDValue& p1,
                              const GDValue& p2, const GDValue& p3, const GDValue& p4,
                              const GDValue& p5, const FileLocation* pLocation);
    void logToEnabledWriters6(const LogSeverity& severity, const GDValue& msg, const GDValue& p1,
                              const GDValue& p2, const GDValue& p3, const GDValue& p4,
                              const GDValue& p5, const GDValue& p6, const FileLocation* pLocation);
    void logToEnabledWriters7(const LogSeverity& severity, const GDValue& msg, const GDValue& p1,
                              const GDValue& p2, const GDValue& p3, const GDValue& p4,
                              const GDValue& p5, const GDValue& p6, const GDValue& p7,
                              const FileLocation* pLocation);
    void logToEnabledWriters8(const LogSeverity& severity, const GDValue& msg, const GDValue& p1,
                              const GDValue& p2, const GDValue& p3, const GDValue& p4,
                              const GDValue& p5, const GDValue& p6, const GDValue& p7,
                              const GDValue& p8, const FileLocation* pLocation);

    // One-step logging, optionally under an explicit source pushed for the call.
    void logMessage(const LogSeverity& severity, const GDValue& msg,
                    const LogSource* pSource = nullptr, const FileLocation* pLocation = nullptr);
    // An exception and its linked exceptions as one message (a null severity means kSevError).
    void logException(const Exception& exception, const LogSeverity* pSeverity = nullptr,
                      const FileLocation* pLocation = nullptr, const LogSource* pSource = nullptr);

    const Handle<LogWriters>& getLogWriters() const noexcept { return m_hLogWriters; }

    // ------------------------------------------------------------------ fork
    // For the library's fork handlers. Before the fork: takes the live-loggers lock, so that no
    // thread holds it while the process is copied. After it: releases the lock; in the child
    // also marks every other thread's logger as outside any log call, because those threads do
    // not exist there and a shutdown by exit() must not wait for their calls to end.
    static void lockLiveLoggersForFork() noexcept;
    static void unlockLiveLoggersAfterFork(bool bChild) noexcept;

    // ------------------------------------------------------------------ the logging time zone
    // Makes zone the process-wide zone of message time stamps and caches its short names
    // (language "en", without and with daylight saving). Throws std::bad_cast when the zone
    // does not give its names as strings (the zone is replaced by then). Safe while other
    // threads render: the zone has its own lock.
    static void setTimeZone(const TimeZone& zone);
    // The zone itself, for start-up code.
    static const TimeZone& getTimeZone();
    // The cached short name; empty until setTimeZone is first called.
    static const String& getTimeZoneShortName(bool bDst);

private:
    TmLogger();
    ~TmLogger();
    friend class ThreadSpecificStatic<TmLogger>;
    static ThreadSpecificStatic<TmLogger>& loggerSlot();
    static void destroyLogger(TmLogger* pLogger);
    // The guard's full answer: every writer, its own filter and the source's threshold for
    // its id.
    bool calcEnabledWritersByWalk(const LogSeverity& severity);
    // Points the guard at the current source's filter, or at LogFilter::walkAlways() when
    // there is no source yet or writers that a guard enabled are still held (the walk then
    // empties them first, as a refusal must).
    void refreshGuardFilter() noexcept;
    // Rare (a message logged from inside a log call): kept out of the callers' code.
    [[gnu::cold, gnu::noinline]] void divert(const GDValue& msg, unsigned nLine);
    class CallScope;
    class ShutdownGate;

    // For the library's shutdown.
    friend class logger_details::LibraryShutdown;
    // Refuses every later log call, then waits until no other thread is inside one, at most
    // nMillisLimit; false when a thread was still inside at the limit.
    static bool closeAndDrain(int nMillisLimit) noexcept;
    // Whether a thread other than the caller has a logger.
    static bool otherThreadsHaveLoggers() noexcept;
    // Deletes the slot and with it the calling thread's logger.
    static void destroyLoggerSlot() noexcept;

    // The bridge from the lower library registers itself here when it is made, so that a
    // message logged from inside a log call can go to the logger that was installed before it.
    friend class KeelLoggerLogImpl;
    static void setBridge(const KeelLogger* pBridge) noexcept;
    // The lower library's logger that the bridge replaced, or null.
    static KeelLogger* getDivertTarget() noexcept;

    CacheLineGap m_tGapBefore;
    LoggerState m_logState;
    Handle<LogWriters> m_hLogWriters;
    bool m_bInLogCall;
    // Whether the writer set holds writers that a guard enabled and no message has been
    // written to yet.
    bool m_bGuardEnabledWriters = false;
    // The filter whose summary the inline guard reads (see refreshGuardFilter).
    const LogFilter* m_pGuardFilter;
    // LogFilter::walkAlways(), looked up once: every guard that enables a writer points the
    // inline guard at it.
    const LogFilter* const m_pWalkAlways;
    // True while the thread is inside a log call; read by the shutdown from another thread.
    std::atomic<bool> m_bInGate{false};
    // The list of live loggers (see the top of this file).
    TmLogger* m_pPrevLive = nullptr;
    TmLogger* m_pNextLive = nullptr;
    CacheLineGap m_tGapAfter;
};

// The source used when a caller names none: "kiv.unknown".
extern const LogSourceHandle lsUnspecified;
// A string value holding "\n".
extern const GDString gdEndOfLine;
// The name of the execution-context property: "ecid".
extern const String ksExecutionContextIDLogPropName;

}  // namespace kiv

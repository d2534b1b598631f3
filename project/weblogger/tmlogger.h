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
// hold no lock. The process-wide time zone is written at start-up without a lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <utility>
#include <vector>

#include "weblogger/commonseverities.h"
#include "zq/tl/hashmap.h"
#include "zq/webkeel/exception.h"
#include "zq/webkeel/gdvalue.h"
#include "zq/webkeel/handle.h"
#include "zq/webkeel/memalloc.h"
#include "zq/webkeel/string.h"
#include "zq/webkeel/stringbuffer.h"

namespace kiv {

class LogSource;
class LogSourceHandle;
class LogWriter;
class LogWritersState;
class TimeZone;
namespace logger_details {
class LogWritersMan;
}
template <class T>
class ThreadSpecificStatic;

class TmLogger : public MemAllocNewdel {
public:
    // ------------------------------------------------------------------ the thread's context
    class LoggerState : public MemAllocNewdel {
    public:
        using LogSourcesStack = std::vector<const LogSource*>;
        using PropValue = std::pair<GDVariant, std::uint32_t>;
        using PropValues = std::vector<PropValue>;
        using PropsMap = tl::hash_map<String, PropValues, String::Hash>;
        static constexpr std::size_t kReservedSources = 20;
        static constexpr std::size_t kReservedValues = 5;

        LoggerState();
        // Copies sources and properties, keeping only values that are (or refer to) strings or
        // numbers, so the copy is safe on another thread or after this thread's values are gone.
        LoggerState(const LoggerState& other);
        LoggerState& operator=(const LoggerState& other);
        void swap(LoggerState& other) noexcept;

        void pushSource(const LogSource& source);
        // Removes the innermost source; nothing on an empty stack.
        void popSource() noexcept;
        // The innermost source, or null when none was pushed.
        const LogSource* getCurSource() const noexcept {
            return m_LogSourcesStack.empty() ? nullptr : m_LogSourcesStack.back();
        }
        const LogSourcesStack& logSourcesStack() const noexcept { return m_LogSourcesStack; }

        void pushProperty(const String& strPropName, const GDValue& propValue,
                          std::uint32_t nImportance);
        // Removes the name's current value; an unknown name or an empty stack is ignored, and
        // the name's entry is kept even when its stack becomes empty.
        void popProperty(const String& strPropName) noexcept;
        const PropsMap& propertiesMap() const noexcept { return m_PropsMap; }

        // Every source's full path and a line feed, innermost first.
        void appendLogSources(StringBufferBaseTemplate<wchar_t>& buffer) const;
        // Clears names, then the full path of every source, innermost first.
        void getLogSourceNames(std::vector<String>& names) const;

    private:
        LogSourcesStack m_LogSourcesStack;
        PropsMap m_PropsMap;
    };

    // ------------------------------------------------------------------ where a call was made
    class FileLocation {
    public:
        FileLocation(const wchar_t* pwszFile, std::uint32_t nLineNumber,
                     const wchar_t* pwszBacktrace = nullptr) noexcept
            : m_wstrFile(pwszFile), m_nLineNumber(nLineNumber), m_pBacktrace(pwszBacktrace) {}
        const wchar_t* getWFile() const noexcept { return m_wstrFile; }
        std::uint32_t getLineNumber() const noexcept { return m_nLineNumber; }
        const wchar_t* getBacktrace() const noexcept { return m_pBacktrace; }

    private:
        const wchar_t* m_wstrFile;
        std::uint32_t m_nLineNumber;
        const wchar_t* m_pBacktrace;
    };

    using LogWritersList = std::vector<Handle<LogWriter>>;

    // ------------------------------------------------------------------ the thread's writers
    class LogWriters : public RefCountedBaseTemplate<MemAllocNewdel> {
    public:
        LogWriters();
        ~LogWriters() override;

        // Replaces the copy of the global writers by the registry's current list and version.
        void syncGlobalWriters();

        void addLocalWriter(LogWriter* pWriter);
        void removeLocalWriter(LogWriter* pWriter);
        void clearLocalWriters();
        void getLocalWriters(LogWritersList& list) const;
        void appendLocalWriters(const LogWritersList& list);
        void setLocalWriters(const LogWritersList& list);

        // Collects the writers that accept the severity; whether there is any.
        bool calcEnabledWriters(const LogSeverity& severity, const LoggerState& state);
        // Writes to the writers collected by the last calcEnabledWriters.
        void logToEnabledWriters(const LogSeverity& severity, const GDValue& msg,
                                 const LoggerState& state, const FileLocation* pLocation);
        // Writes to every accepting writer as it is found.
        void logMessage(const LogSeverity& severity, const GDValue& msg, const LoggerState& state,
                        const FileLocation* pLocation);

        const LogWritersList& getGlobalWriters() const noexcept { return m_LogWritersGlobal; }
        const LogWritersList& getEnabledWriters() const noexcept { return m_vecEnabledWriters; }
        void clearEnabledWriters() noexcept;
        int getGlobalWritersVersion() const noexcept {
            return m_GlobalWritersVersion.load(std::memory_order_relaxed);
        }

    private:
        void bringGlobalWritersUpToDate();
        static bool accepts(const LogWriter& writer, const LogSeverity& severity,
                            const LoggerState& state, const LogSource& source);
        // Calls onAccepted for every accepting writer; true when a retired writer was met (the
        // configuration is replacing the global writers).
        template <class OnAccepted>
        bool forEachAcceptingWriter(const LogSeverity& severity, const LoggerState& state,
                                    OnAccepted&& onAccepted);
        // Waits for a replacement of the global writers in progress, then copies the new list.
        void waitForReplacementAndSync();
        // A retired writer refused the message: hand it to the global writers that replaced
        // the retired ones (rare: only while the configuration replaces the writers).
        void redeliverToReplacements(const LogSeverity& severity, const GDValue& msg,
                                     const LoggerState& state, const FileLocation* pLocation);

        std::atomic<int> m_GlobalWritersVersion;
        // The registry outlives every thread's writer set; looked up once, not per message.
        logger_details::LogWritersMan* const m_pRegistry;
        LogWritersList m_LogWritersLocal;
        LogWritersList m_LogWritersGlobal;
        LogWritersList m_vecEnabledWriters;
    };

    // ------------------------------------------------------------------ the logger
    // The calling thread's logger, made on first use. If making it throws, the exception
    // passes on and the next call tries again.
    static TmLogger& getLogger();
    // Loggers alive in the process (each thread that logged and has not ended has one).
    static int getLiveLoggerCount() noexcept;

    TmLogger(const TmLogger&) = delete;
    TmLogger& operator=(const TmLogger&) = delete;

    void pushSource(const LogSource& source) { m_logState.pushSource(source); }
    void popSource() noexcept { m_logState.popSource(); }
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
    // expensive message), then the message to exactly those writers.
    bool calcEnabledWriters(const LogSeverity& severity);
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

    // ------------------------------------------------------------------ the logging time zone
    // Makes zone the process-wide zone of message time stamps and caches its short names
    // (language "en", without and with daylight saving). Throws std::bad_cast when the zone
    // does not give its names as strings (the zone is replaced by then).
    static void setTimeZone(const TimeZone& zone);
    // The zone itself, for start-up code; renderers use formatTimeStamp, which is safe while
    // another thread sets the zone.
    static const TimeZone& getTimeZone();
    // The cached short name; empty until setTimeZone is first called.
    static const String& getTimeZoneShortName(bool bDst);
    // Changes whenever the zone is set, so renderers know when their cached text is stale.
    static std::uint64_t getTimeZoneGeneration() noexcept;
    // Writes the stamp of second t in the logging zone into pBuffer (zero-terminated, at most
    // nCapacity characters with the terminator) and returns its length: with bIso8601 the
    // ISO 8601 text with the zone offset, otherwise the local date and time, a blank and the
    // zone's short name.
    static std::size_t formatTimeStamp(std::time_t t, bool bIso8601, wchar_t* pBuffer,
                                       std::size_t nCapacity);

private:
    TmLogger();
    ~TmLogger();
    friend class ThreadSpecificStatic<TmLogger>;
    static ThreadSpecificStatic<TmLogger>& loggerSlot();
    static void destroyLogger(TmLogger* pLogger);
    void divert(const GDValue& msg, unsigned nLine);
    class CallScope;

    LoggerState m_logState;
    Handle<LogWriters> m_hLogWriters;
    bool m_bInLogCall;
};

// A copyable set of local writers, with which the server saves, restores or hands over a
// thread's local writers.
class LogWritersState {
public:
    LogWritersState();
    LogWritersState(const LogWritersState& other);
    LogWritersState& operator=(const LogWritersState& other);
    ~LogWritersState();
    void swap(LogWritersState& other) noexcept { m_list.swap(other.m_list); }
    void clear() noexcept;
    // Appends the other state's writers after this state's.
    void append(const LogWritersState& other);

    TmLogger::LogWritersList m_list;
};

// The source used when a caller names none: "kiv.unknown".
extern const LogSourceHandle lsUnspecified;
// A string value holding "\n".
extern const GDString gdEndOfLine;
// The name of the execution-context property: "ecid".
extern const String ksExecutionContextIDLogPropName;

}  // namespace kiv

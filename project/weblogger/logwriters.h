// One thread's writer set and the dispatch of a message to it; LogWritersState, the copyable
// set of local writers a host saves, restores or hands over.
//
// LogWriters holds a copy of the registry's global writers (refreshed when the registry's
// version changes: one relaxed load per message when it has not) and the thread's local
// writers. A message goes to every enabled writer whose own filter and whose current source's
// filter accept its severity: global writers first, then local ones, each in order.
//
// Redelivery: while the configuration replaces the global writers, a thread may still hold
// the old ones. A retired writer refuses the write under its own lock (LogWriter's write
// guard); the dispatcher then waits for the replacement to finish (by passing through the
// registry's monitor) and hands the message to the writers that replaced the retired ones, so
// a message that races with a reconfiguration is neither lost nor written twice. A writer and
// its replacement carry the same name and id: a replacement whose predecessor already wrote the
// message (the reconfiguration retires old writers one at a time) is skipped.
//
// Enabled writers: the result of calcEnabledWriters is a list of plain pointers, not of counted
// handles. Every accepted message would otherwise increment and decrement each writer's
// reference count, two atomic operations on a line of the writer that every logging thread
// reads, which made threads logging to one writer wait on each other's cache. The writers stay
// alive all the same, until the next calculation or write empties the list: the thread's
// global and local lists hold them, and whatever this thread drops from those lists while the
// list is not empty (a new copy of the global writers, a local writer removed) is kept in
// m_keptForEnabled until then.
//
// Remembered answer: a guard's walk asks every writer and the source's filter; the thread then
// keeps the answer (GuardAnswer) and gives it again, without walking, to the next guard for
// the same source and severity while nothing the walk read has changed: the thread's writer
// lists (any change forgets the answer), the global writers' version, and the process-wide
// DispatchGeneration (thresholds, writers enabled, disabled or retired). A walk that met a
// retired writer is not remembered.
//
// Threads: a LogWriters belongs to one thread's logger and takes no lock of its own; it takes
// the registry's monitor only to copy the global list and to wait for a replacement.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "weblogger/commonseverities.h"
#include "weblogger/loggerstate.h"
#include "weblogger/logwriter.h"
#include "zq/webkeel/gdvalue.h"
#include "zq/webkeel/handle.h"
#include "zq/webkeel/memalloc.h"

namespace kiv {

class LogSource;
class LogWriter;
namespace logger_details {
class LogWritersMan;
}

using LogWritersList = std::vector<Handle<LogWriter>>;
// The writers a calcEnabledWriters found, kept alive as described at the top of this file.
using EnabledWritersList = std::vector<LogWriter*>;

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

    LogWritersList m_list;
};

namespace logger_details {

// The writers one guard's walk enabled, for a source (by its serial number, which is never
// reused) and a severity, as of one DispatchGeneration count. Up to kMaxWriters writers; a
// walk that enabled more is not kept.
class GuardAnswer {
public:
    static constexpr std::size_t kMaxWriters = 4;

    bool answers(std::uint64_t nSourceSerial, const LogSeverity& severity,
                 std::uint64_t nGeneration) const noexcept {
        return m_bKept && m_nGeneration == nGeneration && m_nSourceSerial == nSourceSerial &&
               m_dwImportance == severity.m_dwImportance && m_nType == severity.m_nType;
    }
    void keep(std::uint64_t nSourceSerial, const LogSeverity& severity, std::uint64_t nGeneration,
              const EnabledWritersList& writers) noexcept {
        m_bKept = writers.size() <= kMaxWriters;
        if (!m_bKept) {
            return;
        }
        m_nSourceSerial = nSourceSerial;
        m_dwImportance = severity.m_dwImportance;
        m_nType = severity.m_nType;
        m_nGeneration = nGeneration;
        m_nWriters = writers.size();
        std::copy(writers.begin(), writers.end(), m_arrWriters.begin());
    }
    void forget() noexcept { m_bKept = false; }
    // Appends the kept writers when the list has room for them without growing, which it
    // always has (LogWriters reserves more than kMaxWriters once and never shrinks it); false,
    // with the list untouched, otherwise. Nearly always one or two: a loop costs less than a
    // range insert. Once the room is known, the compiler is told that no push_back grows the
    // list: the vector's growth code, in line, spread the guard over twice the cache lines.
    [[gnu::always_inline]] bool giveTo(EnabledWritersList& writers) const noexcept {
        if (writers.capacity() - writers.size() < m_nWriters) [[unlikely]] {
            return false;
        }
        for (std::size_t i = 0; i < m_nWriters; ++i) {
            if (writers.size() == writers.capacity()) {
                __builtin_unreachable();
            }
            writers.push_back(m_arrWriters[i]);
        }
        return true;
    }

private:
    bool m_bKept = false;
    LogSeverity::MsgType m_nType = LogSeverity::SV_ERROR;
    std::uint64_t m_dwImportance = 0;
    std::uint64_t m_nSourceSerial = 0;
    std::uint64_t m_nGeneration = 0;
    std::size_t m_nWriters = 0;
    std::array<LogWriter*, kMaxWriters> m_arrWriters{};
};

}  // namespace logger_details

// The writer set of one thread.
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
    // The guard's answer without a walk, for a message of the severity on the source: when the
    // answer remembered still holds (see the top of this file), the enabled list becomes the
    // writers it names and bAny says whether there is one. False when only calcEnabledWriters
    // can answer. Runs no writer's code, so it neither throws nor logs.
    bool giveRememberedAnswer(const LogSeverity& severity, const LogSource& source,
                              bool& bAny) noexcept;
    // Writes to the writers collected by the last calcEnabledWriters. Inline, for the reason
    // TmLogger's numbered forms are flattened (tmlogger.cpp): one call level less around a
    // flushed line's write(2).
    void logToEnabledWriters(const LogSeverity& severity, const GDValue& msg,
                             const LoggerState& state, const FileLocation* pLocation);
    // Writes to every accepting writer as it is found.
    void logMessage(const LogSeverity& severity, const GDValue& msg, const LoggerState& state,
                    const FileLocation* pLocation);

    const LogWritersList& getGlobalWriters() const noexcept { return m_LogWritersGlobal; }
    const EnabledWritersList& getEnabledWriters() const noexcept { return m_vecEnabledWriters; }
    // Empties the enabled list and lets go of the writers kept for it. Inline: every message
    // calls it twice, once in its guard and once after its write.
    void clearEnabledWriters() noexcept {
        m_vecEnabledWriters.clear();
        if (!m_keptForEnabled.empty()) [[unlikely]] {
            releaseKeptForEnabled();
        }
    }
    int getGlobalWritersVersion() const noexcept {
        return m_GlobalWritersVersion.load(std::memory_order_relaxed);
    }

private:
    // Before a list of this thread's writers changes: while writers are enabled, the handles
    // that the change will drop are kept until the enabled list is emptied.
    void keepForEnabled(LogWritersList& list);
    void keepForEnabled(Handle<LogWriter>& hWriter);
    // Out of line: releasing handles in line made every guard save registers for it.
    [[gnu::cold, gnu::noinline]] void releaseKeptForEnabled() noexcept;
    // One relaxed load and a compare while the registry's version has not moved.
    void bringGlobalWritersUpToDate();
    [[gnu::noinline]] void syncIfGlobalWritersStale();
    static bool accepts(const LogWriter& writer, const LogSeverity& severity,
                        const LoggerState& state, const LogSource& source);
    // Calls onAccepted for every accepting writer; true when a retired writer was met (the
    // configuration is replacing the global writers).
    template <class OnAccepted>
    bool forEachAcceptingWriter(const LogSeverity& severity, const LoggerState& state,
                                OnAccepted&& onAccepted);
    // Waits for a replacement of the global writers in progress, then copies the new list.
    [[gnu::cold, gnu::noinline]] void waitForReplacementAndSync();
    // The writers that took one message (a fixed few, without allocating).
    class WrittenBy;
    // The rest of logToEnabledWriters once the writer at nRefused refused the message: the
    // writers after it, then the redelivery.
    [[gnu::cold, gnu::noinline]] void finishAfterRefusal(std::size_t nRefused,
                                                         const LogSeverity& severity,
                                                         const GDValue& msg,
                                                         const LoggerState& state,
                                                         const FileLocation* pLocation);
    // A retired writer refused the message: hand it to the global writers that replaced the
    // retired ones, except those whose predecessor took it (rare: only while the configuration
    // replaces the writers).
    [[gnu::cold, gnu::noinline]] void redeliverToReplacements(const LogSeverity& severity,
                                                              const GDValue& msg,
                                                              const LoggerState& state,
                                                              const FileLocation* pLocation,
                                                              const WrittenBy& written);

    CacheLineGap m_tGapBefore;
    std::atomic<int> m_GlobalWritersVersion;
    // The registry outlives every thread's writer set; looked up once, not per message.
    logger_details::LogWritersMan* const m_pRegistry;
    LogWritersList m_LogWritersLocal;
    LogWritersList m_LogWritersGlobal;
    EnabledWritersList m_vecEnabledWriters;
    LogWritersList m_keptForEnabled;
    // The room reserved for the enabled list: a remembered answer always fits in it.
    static constexpr std::size_t kEnabledWritersRoom = 16;
    static_assert(logger_details::GuardAnswer::kMaxWriters <= kEnabledWritersRoom);
    logger_details::GuardAnswer m_guardAnswer;
    CacheLineGap m_tGapAfter;
};

// Indexed: no writer's logMessage changes the enabled list (a log call made inside one is
// diverted before it reaches a writer set).
inline void LogWriters::logToEnabledWriters(const LogSeverity& severity, const GDValue& msg,
                                            const LoggerState& state,
                                            const FileLocation* pLocation) {
    for (std::size_t i = 0; i < m_vecEnabledWriters.size(); ++i) {
        LogWriter& writer = *m_vecEnabledWriters[i];
        writer.logMessage(severity, msg, state, pLocation);
        if (writer.refusedLastWrite()) [[unlikely]] {
            finishAfterRefusal(i, severity, msg, state, pLocation);
            return;
        }
    }
    clearEnabledWriters();
}

}  // namespace kiv

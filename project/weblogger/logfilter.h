// Thresholds, and the source's filter that decides whether a writer id receives a message.
//
// LogLevels holds five 16-bit thresholds, one per message type; 65535 means "not set". A
// LogFilter, owned by every log source, holds one LogLevels per writer id (0 to 9). The
// writer's own filter, decided along the source tree, is WriterFilter (writerfilter.h).
//
// Concurrency: a LogFilter is read on every log call without any lock while the configuration
// may rewrite it on another thread. Its thresholds are therefore relaxed atomics: on the
// platforms we run on a relaxed 16-bit load is an ordinary load, so the decision stays a few
// array reads, and a reader may see a mix of old and new thresholds for one message, which is
// accepted. Changes to one filter are made by one thread at a time (the source tree's monitor,
// or the host's start-up code).
//
// Summary: beside the thresholds each filter keeps, per message type, the highest threshold
// set for any writer id (-1 when none is set). A message whose importance is above it reaches
// no writer through this filter, so the guard every log call starts with is one load and one
// compare, inlined into the caller (mayAccept). Every change of a threshold goes through this
// class and recomputes the summary after storing the thresholds, so it is exact once a change
// is complete; a reader racing a change may see the old summary for a moment, as it may see
// old thresholds.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "weblogger/commonseverities.h"
#include "zq/webkeel/memalloc.h"

namespace kiv {

class LogWriter;

constexpr int kMaxWriterIds = 10;

class LogLevels {
public:
    static constexpr std::uint16_t kNotSet = 65535;

    // All five thresholds unset.
    constexpr LogLevels() noexcept : m_arrLogLevels{kNotSet, kNotSet, kNotSet, kNotSet, kNotSet} {}
    constexpr LogLevels(std::uint16_t incidentError, std::uint16_t error, std::uint16_t warning,
                        std::uint16_t information, std::uint16_t trace) noexcept
        : m_arrLogLevels{incidentError, error, warning, information, trace} {}

    constexpr std::uint16_t get(LogSeverity::MsgType nType) const noexcept {
        return m_arrLogLevels[nType];
    }
    constexpr void set(LogSeverity::MsgType nType, std::uint16_t nLevel) noexcept {
        m_arrLogLevels[nType] = nLevel;
    }
    constexpr bool isSet(LogSeverity::MsgType nType) const noexcept {
        return m_arrLogLevels[nType] != kNotSet;
    }
    // Whether a set threshold lets the severity through (an unset one never does).
    constexpr bool accepts(const LogSeverity& severity) const noexcept {
        const std::uint16_t nLevel = m_arrLogLevels[severity.m_nType];
        return nLevel != kNotSet && nLevel >= severity.m_dwImportance;
    }
    friend constexpr bool operator==(const LogLevels&, const LogLevels&) = default;

    std::uint16_t m_arrLogLevels[LogSeverity::kMsgTypeCount];
};

// The writer ids that a named writer-class group stands for.
class LogWritersGroup {
public:
    LogWritersGroup() noexcept : m_arrIsInGroup{} {}
    // Ids outside 0..9 fail the assertion "nId < 10" and are ignored.
    void add(int nId) noexcept;
    bool contains(int nId) const noexcept;

    bool m_arrIsInGroup[kMaxWriterIds];
};

class LogFilter : public MemAllocNewdel {
public:
    // Every threshold of every writer id unset.
    LogFilter() noexcept;
    LogFilter(const LogFilter& other) noexcept;
    LogFilter& operator=(const LogFilter& other) noexcept;

    // Whether the threshold for the writer's id and the message type passes the importance.
    // An id outside 0..9 fails the assertion "nId < 10" and is rejected.
    bool isLogEnabled(const LogSeverity& severity, const LogWriter* pWriter) const noexcept {
        const unsigned nId = writerIndex(pWriter);
        if (nId >= kMaxWriterIds) {
            return false;
        }
        const std::uint16_t nLevel =
            m_logLevels[nId][severity.m_nType].load(std::memory_order_relaxed);
        return nLevel != LogLevels::kNotSet && nLevel >= severity.m_dwImportance;
    }

    // Whether some writer id's threshold could let the severity through: false means that no
    // writer receives it through this filter, whatever the writers' own filters say.
    // The compare is signed so that walkAlways() can let everything through: an importance
    // of 2^63 or more reads as negative and passes, and the full walk then refuses it.
    bool mayAccept(const LogSeverity& severity) const noexcept {
        return static_cast<std::int64_t>(severity.m_dwImportance) <=
               m_arrMaxAccepted[severity.m_nType].load(std::memory_order_relaxed);
    }
    // A filter whose summary passes every message and whose thresholds accept none: for a
    // guard that must walk the writers whatever the message (no source yet, or writers that
    // an earlier guard enabled still to be emptied).
    static const LogFilter& walkAlways() noexcept;
    // Whether nId indexes the ten-slot tables; an id outside 0..9 fails the assertion
    // "nId < 10". Inline: the writer-id test is on every log call's path.
    static bool isValidWriterId(int nId) noexcept {
        // A negative id wraps to a large value and fails too.
        if (static_cast<unsigned>(nId) < kMaxWriterIds) [[likely]] {
            return true;
        }
        reportInvalidWriterId();
        return false;
    }
    // The writer's id, unchecked. Defined with the writer, which knows it: units below the
    // writer (the filter, the source tree) name writers without including them.
    static int classIdOf(const LogWriter& writer) noexcept;

    // Replaces the record of the writer's id (the same id check as isLogEnabled).
    void setLogLevels(const LogLevels& levels, const LogWriter* pWriter) noexcept;
    void setLogLevelsForId(int nId, const LogLevels& levels) noexcept;
    LogLevels getLogLevels(int nId) const noexcept;

    // Fills unset thresholds: from the parent's value for the same id and type, or, for the
    // root (no parent), with 0 so that an unconfigured root logs nothing. Set thresholds are
    // never touched.
    void setMissingSettings(const LogFilter* pParent) noexcept;

    // Unsets the five thresholds of every writer id in the group; the others are kept.
    void resetLogLevels(const LogWritersGroup& group) noexcept;

private:
    // Defined with the writer, which knows its id: the filter stays below the writer.
    static unsigned writerIndex(const LogWriter* pWriter) noexcept;
    [[gnu::cold, gnu::noinline]] static void reportInvalidWriterId() noexcept;
    // Recomputes the summary from the thresholds as they now stand.
    void refreshSummary() noexcept;
    struct WalkAlwaysTag {};
    explicit LogFilter(WalkAlwaysTag) noexcept;

    using AtomicLevels = std::array<std::atomic<std::uint16_t>, LogSeverity::kMsgTypeCount>;
    // First, so that the inlined guard finds it at the filter's own address.
    std::array<std::atomic<std::int64_t>, LogSeverity::kMsgTypeCount> m_arrMaxAccepted;
    std::array<AtomicLevels, kMaxWriterIds> m_logLevels;
};

namespace logger_details {

// Counts the changes to what decides which writers take a message, process-wide: a threshold
// set (every change of a filter's thresholds ends by advancing it), a writer enabled, disabled
// or retired. A thread that remembers a guard's answer gives it again only while this count
// has not moved (LogWriters). The count is advanced after the change is stored, with release,
// and read with acquire before a walk: an answer remembered from a walk that raced with a
// change carries the count from before the change and is not given again once it completes.
class DispatchGeneration {
public:
    static std::uint64_t current() noexcept { return s_nCount.load(std::memory_order_acquire); }
    static void advance() noexcept { s_nCount.fetch_add(1, std::memory_order_release); }

private:
    static std::atomic<std::uint64_t> s_nCount;
};

}  // namespace logger_details
}  // namespace kiv

#include "weblogger/logfilter.h"

#include <limits>

#include "zq/webkeel/assert.h"

namespace kiv {

void LogFilter::reportInvalidWriterId() noexcept {
    ZQ_ASSERT_TEXT(false, "nId < 10");
}

void LogWritersGroup::add(int nId) noexcept {
    if (LogFilter::isValidWriterId(nId)) {
        m_arrIsInGroup[nId] = true;
    }
}

bool LogWritersGroup::contains(int nId) const noexcept {
    return nId >= 0 && nId < kMaxWriterIds && m_arrIsInGroup[nId];
}

constinit std::atomic<std::uint64_t> logger_details::DispatchGeneration::s_nCount{0};

LogFilter::LogFilter() noexcept {
    for (std::atomic<std::int64_t>& nMax : m_arrMaxAccepted) {
        nMax.store(-1, std::memory_order_relaxed);
    }
    for (AtomicLevels& levels : m_logLevels) {
        for (std::atomic<std::uint16_t>& level : levels) {
            level.store(LogLevels::kNotSet, std::memory_order_relaxed);
        }
    }
}

LogFilter::LogFilter(const LogFilter& other) noexcept : MemAllocNewdel() {
    *this = other;
}

LogFilter& LogFilter::operator=(const LogFilter& other) noexcept {
    for (int nId = 0; nId < kMaxWriterIds; ++nId) {
        setLogLevelsForId(nId, other.getLogLevels(nId));
    }
    return *this;
}

void LogFilter::setLogLevels(const LogLevels& levels, const LogWriter* pWriter) noexcept {
    const unsigned nId = writerIndex(pWriter);
    if (nId < kMaxWriterIds) {
        setLogLevelsForId(static_cast<int>(nId), levels);
    }
}

void LogFilter::setLogLevelsForId(int nId, const LogLevels& levels) noexcept {
    if (!isValidWriterId(nId)) {
        return;
    }
    for (int nType = 0; nType < LogSeverity::kMsgTypeCount; ++nType) {
        m_logLevels[nId][nType].store(levels.m_arrLogLevels[nType], std::memory_order_relaxed);
    }
    refreshSummary();
}

void LogFilter::refreshSummary() noexcept {
    for (int nType = 0; nType < LogSeverity::kMsgTypeCount; ++nType) {
        std::int64_t nMax = -1;
        for (const AtomicLevels& levels : m_logLevels) {
            const std::uint16_t nLevel = levels[nType].load(std::memory_order_relaxed);
            if (nLevel != LogLevels::kNotSet && nLevel > nMax) {
                nMax = nLevel;
            }
        }
        m_arrMaxAccepted[nType].store(nMax, std::memory_order_relaxed);
    }
    logger_details::DispatchGeneration::advance();
}

LogFilter::LogFilter(WalkAlwaysTag) noexcept : LogFilter() {
    for (std::atomic<std::int64_t>& nMax : m_arrMaxAccepted) {
        nMax.store(std::numeric_limits<std::int64_t>::max(), std::memory_order_relaxed);
    }
}

const LogFilter& LogFilter::walkAlways() noexcept {
    static const LogFilter filter{WalkAlwaysTag{}};
    return filter;
}

LogLevels LogFilter::getLogLevels(int nId) const noexcept {
    LogLevels levels;
    if (!isValidWriterId(nId)) {
        return levels;
    }
    for (int nType = 0; nType < LogSeverity::kMsgTypeCount; ++nType) {
        levels.m_arrLogLevels[nType] = m_logLevels[nId][nType].load(std::memory_order_relaxed);
    }
    return levels;
}

void LogFilter::setMissingSettings(const LogFilter* pParent) noexcept {
    for (int nId = 0; nId < kMaxWriterIds; ++nId) {
        for (int nType = 0; nType < LogSeverity::kMsgTypeCount; ++nType) {
            std::atomic<std::uint16_t>& level = m_logLevels[nId][nType];
            if (level.load(std::memory_order_relaxed) < LogLevels::kNotSet) {
                continue;
            }
            level.store(pParent != nullptr
                            ? pParent->m_logLevels[nId][nType].load(std::memory_order_relaxed)
                            : 0,
                        std::memory_order_relaxed);
        }
    }
    refreshSummary();
}

void LogFilter::resetLogLevels(const LogWritersGroup& group) noexcept {
    for (int nId = 0; nId < kMaxWriterIds; ++nId) {
        if (group.m_arrIsInGroup[nId]) {
            setLogLevelsForId(nId, LogLevels());
        }
    }
}

}  // namespace kiv

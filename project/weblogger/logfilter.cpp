#include "weblogger/logfilter.h"

#include "weblogger/logsource.h"
#include "weblogger/logwriter.h"
#include "zq/webkeel/assert.h"

namespace kiv {
namespace {

// Writer ids index ten-slot tables; a negative id wraps to a large value and fails too.
bool isValidWriterId(int nIdIn) noexcept {
    const unsigned nId = static_cast<unsigned>(nIdIn);
    ZQ_ASSERT(nId < 10);
    return nId < 10;
}

}  // namespace

void LogWritersGroup::add(int nId) noexcept {
    if (isValidWriterId(nId)) {
        m_arrIsInGroup[nId] = true;
    }
}

bool LogWritersGroup::contains(int nId) const noexcept {
    return nId >= 0 && nId < kMaxWriterIds && m_arrIsInGroup[nId];
}

LogFilter::LogFilter() noexcept {
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

unsigned LogFilter::writerIndex(const LogWriter* pWriter) noexcept {
    const int nId = pWriter->getClassId();
    return isValidWriterId(nId) ? static_cast<unsigned>(nId) : kMaxWriterIds;
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
}

void LogFilter::resetLogLevels(const LogWritersGroup& group) noexcept {
    for (int nId = 0; nId < kMaxWriterIds; ++nId) {
        if (group.m_arrIsInGroup[nId]) {
            setLogLevelsForId(nId, LogLevels());
        }
    }
}

void WriterFilter::setLogLevels(const LogSource& source, const LogLevels& levels) {
    m_LogFiltersMap[&source] = levels;
}

const LogLevels* WriterFilter::findLogLevels(const LogSource& source) const noexcept {
    const auto it = m_LogFiltersMap.find(&source);
    return it != m_LogFiltersMap.end() ? &it->second : nullptr;
}

bool WriterFilter::isLogEnabled(const LogSeverity& severity,
                                const LogSource& source) const noexcept {
    for (const LogSource* pSource = &source; pSource != nullptr; pSource = pSource->getParent()) {
        const LogLevels* pLevels = findLogLevels(*pSource);
        if (pLevels != nullptr && pLevels->isSet(severity.m_nType)) {
            return pLevels->accepts(severity);
        }
    }
    return m_bEnabledByDefault;
}

}  // namespace kiv

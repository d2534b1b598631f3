#include "weblogger/writerfilter.h"

#include "weblogger/logsource.h"

namespace kiv {

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

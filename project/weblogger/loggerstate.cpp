#include "weblogger/loggerstate.h"

#include <algorithm>

#include "weblogger/logsource.h"

namespace kiv {

LoggerState::LoggerState() {
    m_LogSourcesStack.reserve(kReservedSources);
}

LoggerState::LoggerState(const LoggerState& other)
    : MemAllocNewdel(), m_LogSourcesStack(other.m_LogSourcesStack), m_PropsMap(other.m_PropsMap) {
    m_LogSourcesStack.reserve(kReservedSources);
    for (auto& entry : m_PropsMap) {
        PropValues& values = entry.second;
        values.erase(std::remove_if(values.begin(), values.end(),
                                    [](const PropValue& value) {
                                        const GDValue* pValue = value.first.get();
                                        return pValue == nullptr ||
                                               !(pValue->isString() || pValue->isNumber());
                                    }),
                     values.end());
    }
}

LoggerState& LoggerState::operator=(const LoggerState& other) {
    LoggerState copy(other);
    swap(copy);
    return *this;
}

void LoggerState::swap(LoggerState& other) noexcept {
    m_LogSourcesStack.swap(other.m_LogSourcesStack);
    std::swap(m_PropsMap, other.m_PropsMap);
}

void LoggerState::pushSource(const LogSource& source) {
    m_LogSourcesStack.push_back(&source);
}

void LoggerState::popSource() noexcept {
    if (!m_LogSourcesStack.empty()) {
        m_LogSourcesStack.pop_back();
    }
}

void LoggerState::pushProperty(const String& strPropName, const GDValue& propValue,
                               std::uint32_t nImportance) {
    PropValues& values = m_PropsMap[strPropName];
    values.reserve(kReservedValues);
    values.emplace_back(GDVariant(propValue), nImportance);
}

void LoggerState::popProperty(const String& strPropName) noexcept {
    const auto it = m_PropsMap.find(strPropName);
    if (it != m_PropsMap.end() && !it->second.empty()) {
        it->second.pop_back();
    }
}

void LoggerState::appendLogSources(StringBufferBaseTemplate<wchar_t>& buffer) const {
    for (auto it = m_LogSourcesStack.rbegin(); it != m_LogSourcesStack.rend(); ++it) {
        buffer.append((*it)->getPath()).append(L'\n');
    }
}

void LoggerState::getLogSourceNames(std::vector<String>& names) const {
    names.clear();
    for (auto it = m_LogSourcesStack.rbegin(); it != m_LogSourcesStack.rend(); ++it) {
        if (*it != nullptr) {
            names.push_back((*it)->getPath());
        }
    }
}

}  // namespace kiv

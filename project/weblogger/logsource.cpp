#include "weblogger/logsource.h"

#include <memory>

#include "zq/webkeel/assert.h"

// Internal checks of this unit report under the unit's name rather than the build path.
#define LOGSOURCE_ASSERT(cond) \
    ((cond)                    \
         ? (void)0             \
         : ::kiv::reportAssertion(::kiv::AssertionType::kAssert, #cond, kUnitFileName, __LINE__))

namespace kiv {
namespace {

constexpr const char* kUnitFileName = "./project/weblogger/logsource";
const wchar_t kSeparator = L'.';

ZQWString makeFullPath(const ZQWString& name, const LogSource* pParent) {
    if (pParent == nullptr) {
        return name;
    }
    ZQWString strPath;
    strPath.reserve(pParent->getPath().size() + 1 + name.size());
    strPath.append(pParent->getPath()).append(kSeparator).append(name);
    return strPath;
}

// Touched once at library load, so the registry exists before any thread asks for a source.
LogSourcesMan* const g_pLogSourcesMan = &LogSourcesMan::getLogSourcesMan();

}  // namespace

LogSource::LogSource(const ZQWString& name, LogSource* pParent)
    : m_strName(name),
      m_strFullPath(makeFullPath(name, pParent)),
      m_plogFilter(nullptr),
      m_pParent(pParent) {
    std::unique_ptr<LogFilter> pFilter(new LogFilter);
    m_plogFilter = pFilter.get();
    if (pParent != nullptr) {
        pParent->addChildSource(*this);
    }
    LogSourcesMan::getLogSourcesMan().addLogSource(*this, pParent == nullptr);
    pFilter.release();
}

LogSource::~LogSource() {
    delete m_plogFilter;
    for (auto& entry : m_mapChildSources) {
        delete entry.second;
    }
}

ZQWString LogSource::toString() const {
    return ZQWString(L"LogSource(") + m_strFullPath + L")";
}

void LogSource::addChildSource(LogSource& src) {
    // clang-format off
    LOGSOURCE_ASSERT(m_mapChildSources.insert(std::make_pair(src.getName(), &src )).second);
    // clang-format on
}

void LogSource::getSourceNames(std::vector<ZQWString>& names) const {
    for (const auto& entry : m_mapChildSources) {
        names.push_back(entry.second->m_strFullPath);
        entry.second->getSourceNames(names);
    }
}

LogSourcesMan& LogSourcesMan::getLogSourcesMan() {
    static LogSourcesMan s_registry;
    return s_registry;
}

LogSourcesMan::LogSourcesMan() : m_tMonitor(CriticalSection::kAllowRecursion, "LogSourcesMan") {}

LogSourcesMan::~LogSourcesMan() {
    for (auto& entry : m_mapChildSources) {
        delete entry.second;
    }
}

void LogSourcesMan::addLogSource(LogSource& src, bool bTopLevel) {
    LockGuard<CriticalSection> lock(m_tMonitor);
    if (bTopLevel) {
        const bool bInserted = m_mapChildSources.insert(std::make_pair(src.getName(), &src)).second;
        LOGSOURCE_ASSERT(bInserted);
    }
    const bool bInserted = m_mapAllChildSources.insert(std::make_pair(src.getPath(), &src)).second;
    LOGSOURCE_ASSERT(bInserted);
}

LogSource* LogSourcesMan::findLogSource(const ZQWString& fullPath) const {
    LockGuard<CriticalSection> lock(m_tMonitor);
    const auto it = m_mapAllChildSources.find(fullPath);
    return it != m_mapAllChildSources.end() ? it->second : nullptr;
}

LogSource* LogSourcesMan::getOrCreateChild(LogSource* pParent, const ZQWString& segment) {
    LogSourcesMap& map = pParent != nullptr ? pParent->m_mapChildSources : m_mapChildSources;
    const auto it = map.find(segment);
    if (it != map.end()) {
        return it->second;
    }
    // The constructor links the node into map and registers its full path.
    return new LogSource(segment, pParent);
}

LogSource* LogSourcesMan::getLogSource(const LogSource* pParent, const ZQWString& name) {
    LockGuard<CriticalSection> lock(m_tMonitor);
    // Nodes are never shared read-only with the registry: it owns them and may link children.
    LogSource* pCur = const_cast<LogSource*>(pParent);
    ZQWString::size_type iCurParseIndex = 0;
    if (pCur == nullptr) {
        const ZQWString::size_type iDot = name.find(kSeparator);
        const ZQWString strName = name.substr(0, iDot);
        LOGSOURCE_ASSERT(!strName.empty());
        pCur = getOrCreateChild(nullptr, strName);
        if (iDot == ZQWString::npos) {
            return pCur;
        }
        iCurParseIndex = iDot + 1;
    }
    for (;;) {
        const ZQWString::size_type iNewCurParseIndex = name.find(kSeparator, iCurParseIndex);
        LOGSOURCE_ASSERT(iNewCurParseIndex == ZQWString::npos ||
                         iNewCurParseIndex > iCurParseIndex);
        const ZQWString strName =
            iNewCurParseIndex == ZQWString::npos
                ? name.substr(iCurParseIndex)
                : name.substr(iCurParseIndex, iNewCurParseIndex - iCurParseIndex);
        LOGSOURCE_ASSERT(!strName.empty());
        pCur = getOrCreateChild(pCur, strName);
        if (iNewCurParseIndex == ZQWString::npos) {
            return pCur;
        }
        iCurParseIndex = iNewCurParseIndex + 1;
    }
}

void LogSourcesMan::getAllLogSourceNames(std::vector<ZQWString>& names) const {
    LockGuard<CriticalSection> lock(m_tMonitor);
    for (const auto& entry : m_mapChildSources) {
        names.push_back(entry.second->getPath());
        entry.second->getSourceNames(names);
    }
}

LogSourceHandle::LogSourceHandle(const ZQWString& name)
    : m_pLogSource(LogSourcesMan::getLogSourcesMan().getLogSource(nullptr, name)) {}

LogSourceHandle::LogSourceHandle(const LogSourceHandle& parent, const ZQWString& name)
    : m_pLogSource(LogSourcesMan::getLogSourcesMan().getLogSource(parent.m_pLogSource, name)) {}

}  // namespace kiv

#include "weblogger/logsource.h"

#include <atomic>
#include <memory>

#include "weblogger/logfilterconfig.h"
#include "zq/webkeel/assert.h"
#include "zq/webkeel/transcode.h"
#include "zq/webkeel/wildcard.h"

namespace kiv {
namespace {

// Internal checks of this unit report under the unit's name rather than the build path.
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

// Serial numbers start at 1: 0 stands for "no source" in the renderers' keys.
std::atomic<std::uint64_t> g_nNextSerial{1};

// Touched once at library load, so the registry exists before any thread asks for a source.
LogSourcesMan* const g_pLogSourcesMan = &LogSourcesMan::getLogSourcesMan();

}  // namespace

LogSource::LogSource(const ZQWString& name, LogSource* pParent)
    : m_strName(name),
      m_strFullPath(makeFullPath(name, pParent)),
      m_strFullPathUtf8(toUtf8(m_strFullPath.view())),
      m_plogFilter(nullptr),
      m_pParent(pParent),
      m_nSerial(g_nNextSerial.fetch_add(1, std::memory_order_relaxed)) {
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
    const bool bAdded = m_mapChildSources.insert(std::make_pair(src.getName(), &src)).second;
    ZQ_ASSERT_TEXT_IN(bAdded,
                      "m_mapChildSources.insert(std::make_pair(src.getName(), &src )).second",
                      kUnitFileName);
}

void LogSource::getSourceNames(std::vector<ZQWString>& names) const {
    for (const auto& entry : m_mapChildSources) {
        names.push_back(entry.second->m_strFullPath);
        entry.second->getSourceNames(names);
    }
}

const FilterConfigurationRecord* LogSource::findRecord(const GlobalFilterConfiguration& cfg) const {
    const auto it = cfg.m_lstSetLogLevels.find(m_strFullPath);
    if (it != cfg.m_lstSetLogLevels.end()) {
        return it->second;
    }
    // Document order decides among patterns, not how specific they are.
    for (const auto& entry : cfg.m_lstWildCardSetLogLevels) {
        if (matchesWildcard(entry.first.view(), m_strFullPath.view())) {
            return entry.second;
        }
    }
    return nullptr;
}

void LogSource::applyFilterConfigToSelfAndChilds(const GlobalFilterConfiguration& cfg) {
    const FilterConfigurationRecord* pRecord = findRecord(cfg);
    if (pRecord != nullptr) {
        *m_plogFilter = pRecord->m_ThisFilter;
    } else {
        *m_plogFilter = LogFilter();
    }
    for (auto& entry : m_mapChildSources) {
        entry.second->applyFilterConfigToSelfAndChilds(cfg);
    }
}

void LogSource::applySettledFilterConfigToSelfAndChilds(const GlobalFilterConfiguration& cfg) {
    const FilterConfigurationRecord* pRecord = findRecord(cfg);
    LogFilter settled = pRecord != nullptr ? pRecord->m_ThisFilter : LogFilter();
    settled.setMissingSettings(m_pParent != nullptr ? m_pParent->m_plogFilter : nullptr);
    *m_plogFilter = settled;
    for (auto& entry : m_mapChildSources) {
        entry.second->applySettledFilterConfigToSelfAndChilds(cfg);
    }
}

void LogSource::adjustSelfAndChildFilters() {
    m_plogFilter->setMissingSettings(m_pParent != nullptr ? m_pParent->m_plogFilter : nullptr);
    for (auto& entry : m_mapChildSources) {
        entry.second->adjustSelfAndChildFilters();
    }
}

void LogSource::resetSelfAndChildFilters(const LogWritersGroup& group) {
    m_plogFilter->resetLogLevels(group);
    for (auto& entry : m_mapChildSources) {
        entry.second->resetSelfAndChildFilters(group);
    }
}

void LogSource::resetSelfAndChildFilters(const LogWriter& writer) {
    const int nId = LogFilter::classIdOf(writer);
    // A negative id wraps to a large value and fails as well.
    const bool bValid = static_cast<unsigned>(nId) < 10;
    ZQ_ASSERT_TEXT_IN(bValid, "nId < 10", kUnitFileName);
    if (!bValid) {
        return;
    }
    LogWritersGroup group;
    group.add(nId);
    resetSelfAndChildFilters(group);
}

namespace {
// Deleted by the library's shutdown, and only when no other thread has a logger: threads still
// running at exit keep their sources.
std::atomic<LogSourcesMan*> g_pLogSourcesManInstance{nullptr};
}  // namespace

LogSourcesMan& LogSourcesMan::getLogSourcesMan() {
    static LogSourcesMan* const s_pRegistry = [] {
        auto* pRegistry = new LogSourcesMan;
        g_pLogSourcesManInstance.store(pRegistry);
        return pRegistry;
    }();
    return *s_pRegistry;
}

void LogSourcesMan::destroyLogSourcesMan() noexcept {
    delete g_pLogSourcesManInstance.exchange(nullptr);
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
        ZQ_ASSERT_TEXT_IN(bInserted, "bInserted", kUnitFileName);
    }
    const bool bInserted = m_mapAllChildSources.insert(std::make_pair(src.getPath(), &src)).second;
    ZQ_ASSERT_TEXT_IN(bInserted, "bInserted", kUnitFileName);
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
        ZQ_ASSERT_TEXT_IN(!strName.empty(), "!strName.empty()", kUnitFileName);
        pCur = getOrCreateChild(nullptr, strName);
        if (iDot == ZQWString::npos) {
            return pCur;
        }
        iCurParseIndex = iDot + 1;
    }
    for (;;) {
        const ZQWString::size_type iNewCurParseIndex = name.find(kSeparator, iCurParseIndex);
        ZQ_ASSERT_TEXT_IN(
            iNewCurParseIndex == ZQWString::npos || iNewCurParseIndex > iCurParseIndex,
            "iNewCurParseIndex == ZQWString::npos || iNewCurParseIndex > "
            "iCurParseIndex",
            kUnitFileName);
        const ZQWString strName =
            iNewCurParseIndex == ZQWString::npos
                ? name.substr(iCurParseIndex)
                : name.substr(iCurParseIndex, iNewCurParseIndex - iCurParseIndex);
        ZQ_ASSERT_TEXT_IN(!strName.empty(), "!strName.empty()", kUnitFileName);
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

void LogSourcesMan::applyConfig(const GlobalFilterConfiguration& cfg) {
    LockGuard<CriticalSection> lock(m_tMonitor);
    for (auto& entry : m_mapChildSources) {
        entry.second->applyFilterConfigToSelfAndChilds(cfg);
    }
    onConfigChanged();
}

void LogSourcesMan::applyConfigSettled(const GlobalFilterConfiguration& cfg) {
    LockGuard<CriticalSection> lock(m_tMonitor);
    for (auto& entry : m_mapChildSources) {
        entry.second->applySettledFilterConfigToSelfAndChilds(cfg);
    }
}

void LogSourcesMan::applyConfig(const GlobalFilterConfiguration& cfg,
                                const LogSource* const* sources, int count) {
    if (count <= 0) {
        return;
    }
    LockGuard<CriticalSection> lock(m_tMonitor);
    for (int i = 0; i < count; ++i) {
        // The registry owns every node; callers name them through const handles.
        const_cast<LogSource*>(sources[i])->applyFilterConfigToSelfAndChilds(cfg);
    }
    onConfigChanged(sources, count);
}

void LogSourcesMan::onConfigChanged() {
    LockGuard<CriticalSection> lock(m_tMonitor);
    for (auto& entry : m_mapChildSources) {
        entry.second->adjustSelfAndChildFilters();
    }
}

void LogSourcesMan::onConfigChanged(const LogSource* const* sources, int count) {
    LockGuard<CriticalSection> lock(m_tMonitor);
    for (int i = 0; i < count; ++i) {
        const_cast<LogSource*>(sources[i])->adjustSelfAndChildFilters();
    }
}

LogSourceHandle::LogSourceHandle(const ZQWString& name)
    : m_pLogSource(LogSourcesMan::getLogSourcesMan().getLogSource(nullptr, name)) {}

LogSourceHandle::LogSourceHandle(const LogSourceHandle& parent, const ZQWString& name)
    : m_pLogSource(LogSourcesMan::getLogSourcesMan().getLogSource(parent.m_pLogSource, name)) {}

}  // namespace kiv

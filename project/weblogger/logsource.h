// The process-wide tree of log sources.
//
// Every message is logged on behalf of a source: a node of one tree of dotted names such as
// "kiv.unknown". A node owns its children and a LogFilter with its thresholds per writer id.
// LogSourcesMan owns the top-level nodes, indexes every node by its full dotted path and creates
// missing nodes on demand. Nodes are only ever added and live until the process ends, so a
// LogSourceHandle (a pointer to a node) stays valid for the life of the process.
//
// Locking: m_tMonitor (recursive, because a node's constructor registers itself while
// getLogSource already holds it) guards both registry maps and every node's child map for
// creation, lookup by name and listing. The logging path reads a node's filter and parent
// without it: a node's parent, name and path never change after construction and the node is
// published to other threads under the monitor. findLogSource takes the monitor too: a hash map
// may rehash while another thread inserts, so an unlocked lookup could read freed buckets.
//
// Configuration: applyConfig writes a filter configuration into the tree in two passes under
// the monitor. The assign pass gives every node its own thresholds (an exact record for its
// path, else the first pattern that matches it, else none at all, so nothing carries over from
// the previous configuration); the adjust pass then fills every unset threshold from the
// parent, top down, so that a log call consults its source's filter alone. Threads logging
// meanwhile may see a node between the two passes and reject a message or two; that is
// accepted rather than making every log call take a lock.
#pragma once

#include <cstdint>
#include <vector>

#include "weblogger/logfilter.h"
#include "zq/tl/hashmap.h"
#include "zq/webkeel/criticalsection.h"
#include "zq/webkeel/memalloc.h"
#include "zq/webkeel/string.h"

namespace kiv {

class FilterConfigurationRecord;
class GlobalFilterConfiguration;
class LogWriter;
class LogSource;
using LogSourcesMap = tl::hash_map<ZQWString, LogSource*, ZQWString::Hash>;

class LogSource : public MemAllocNewdel {
public:
    // Builds the node, links it below parent (or makes it top-level) and registers it.
    LogSource(const ZQWString& name, LogSource* pParent);
    virtual ~LogSource();
    LogSource(const LogSource&) = delete;
    LogSource& operator=(const LogSource&) = delete;

    const ZQWString& getName() const noexcept { return m_strName; }
    const ZQWString& getPath() const noexcept { return m_strFullPath; }
    // The full path as UTF-8, made once: the file writers' lines show it on every message.
    const NString& getPathUtf8() const noexcept { return m_strFullPathUtf8; }
    const LogSource* getParent() const noexcept { return m_pParent; }
    LogSource* getParent() noexcept { return m_pParent; }
    // Different for every source the process ever makes, also one made where a deleted one
    // was: what a renderer keys its cached text by, where the address alone could be reused.
    std::uint64_t getSerial() const noexcept { return m_nSerial; }
    const LogFilter& getLogFilter() const noexcept { return *m_plogFilter; }
    LogFilter& getLogFilter() noexcept { return *m_plogFilter; }
    // "LogSource(<full path>)".
    ZQWString toString() const;

    // Links a new child. A name that is present already is a programming error: the assertion
    // facility reports it and the existing child is kept.
    void addChildSource(LogSource& src);
    // Appends the full path of every descendant, depth first, pre-order; not this node's own.
    void getSourceNames(std::vector<ZQWString>& names) const;
    // The direct children (read under the registry's monitor).
    const LogSourcesMap& getChildSources() const noexcept { return m_mapChildSources; }

    // The following walk this node and then its descendants, pre-order. The registry calls the
    // first two under its monitor; a host calling any of them must hold getMonitor().

    // Assign pass: this node's thresholds become those of the exact record for its path, or of
    // the first pattern record that matches it, or all unset.
    void applyFilterConfigToSelfAndChilds(const GlobalFilterConfiguration& cfg);
    // Adjust pass: unset thresholds take the parent's value (a top-level node's become 0).
    void adjustSelfAndChildFilters();
    // Both passes at once, node by node: each threshold goes from its old value straight to
    // its new one (the parent is settled first), never through "not set" in between.
    void applySettledFilterConfigToSelfAndChilds(const GlobalFilterConfiguration& cfg);
    // Unsets the thresholds of every writer id in the group; other ids keep theirs. Call
    // LogSourcesMan::onConfigChanged afterwards to have the gaps inherited again.
    void resetSelfAndChildFilters(const LogWritersGroup& group);
    // The same for the one id of writer; an id outside 0..9 fails the assertion "nId < 10" and
    // resets nothing.
    void resetSelfAndChildFilters(const LogWriter& writer);

private:
    // The exact record for this node's path, else the first pattern record that matches it.
    const FilterConfigurationRecord* findRecord(const GlobalFilterConfiguration& cfg) const;
    friend class LogSourcesMan;  // links children while it holds the monitor

    const ZQWString m_strName;
    const ZQWString m_strFullPath;
    const NString m_strFullPathUtf8;
    LogSourcesMap m_mapChildSources;
    LogFilter* m_plogFilter;
    LogSource* m_pParent;
    const std::uint64_t m_nSerial;
};

class LogSourcesMan : public MemAllocNewdel {
public:
    // The registry, built on first use.
    static LogSourcesMan& getLogSourcesMan();
    // Deletes the registry and every source; for the library's shutdown, when no thread can
    // reach a source any more.
    static void destroyLogSourcesMan() noexcept;

    LogSourcesMan();
    ~LogSourcesMan();
    LogSourcesMan(const LogSourcesMan&) = delete;
    LogSourcesMan& operator=(const LogSourcesMan&) = delete;

    // Called by the LogSource constructor only.
    void addLogSource(LogSource& src, bool bTopLevel);
    // The node with exactly this full path, or null; never creates one.
    LogSource* findLogSource(const ZQWString& fullPath) const;
    // Finds or creates the node of a dotted name, below parent or from the top level.
    LogSource* getLogSource(const LogSource* pParent, const ZQWString& name);
    // Every node's full path, pre-order, siblings in hash-map order.
    void getAllLogSourceNames(std::vector<ZQWString>& names) const;

    // Assign pass on every top-level node, then onConfigChanged(), under one hold of the
    // monitor.
    void applyConfig(const GlobalFilterConfiguration& cfg);
    // The same for the given nodes, each with its subtree; a count of 0 or less does nothing.
    void applyConfig(const GlobalFilterConfiguration& cfg, const LogSource* const* sources,
                     int count);
    // The same result as applyConfig, but threads that log meanwhile never see a threshold
    // unset that is set before and after (a reconfiguration under load rejects nothing it
    // would accept under either configuration).
    void applyConfigSettled(const GlobalFilterConfiguration& cfg);
    // Adjust pass on every top-level node, so that nodes made since the last configuration
    // inherit their parents' thresholds.
    void onConfigChanged();
    // Adjust pass on the given nodes with their subtrees; a node that is not top-level takes
    // missing values from its parent's filter as it stands.
    void onConfigChanged(const LogSource* const* sources, int count);

    CriticalSection& getMonitor() const noexcept { return m_tMonitor; }

private:
    LogSource* getOrCreateChild(LogSource* pParent, const ZQWString& segment);

    LogSourcesMap m_mapChildSources;
    LogSourcesMap m_mapAllChildSources;
    mutable CriticalSection m_tMonitor;
};

class LogSourceHandle {
public:
    // The source of a full dotted name, created when needed.
    explicit LogSourceHandle(const ZQWString& name);
    // The source of a dotted name relative to parent's source.
    LogSourceHandle(const LogSourceHandle& parent, const ZQWString& name);

    const LogSource* get() const noexcept { return m_pLogSource; }
    const LogSource& operator*() const noexcept { return *m_pLogSource; }
    const LogSource* operator->() const noexcept { return m_pLogSource; }

private:
    const LogSource* m_pLogSource;
};

}  // namespace kiv

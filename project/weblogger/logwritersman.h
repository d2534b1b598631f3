// The process-wide writer registry: writer factories by class name and the list of global
// writers with its version number.
//
// Locking: m_monitor guards the factory map and the writer list; readers that need the list and
// the version together take it too. m_Version is atomic and compared without the lock, so a
// logging thread learns that its copy of the list is stale with one load. The monitor is built
// recursive: the configuration holds it across the whole loop that builds global writers, and
// each WT_GLOBAL writer's constructor takes it again to enter the list. No writer lock is ever
// held while the monitor is taken.
//
// Lifecycle: built on first use, destroyed at exit. The state word goes 0 (not built) -> 1
// (alive) -> 2 (destroyed); "nLogWriterManState == 0" is asserted by the constructor,
// "nLogWriterManState == 1" by the destructor and by every getLogWritersMan(), so a use during
// or after exit-time destruction is reported.
#pragma once

#include <memory>
#include <vector>

#include "weblogger/logwriter.h"
#include "zq/tl/hashmap.h"
#include "zq/webkeel/criticalsection.h"

namespace kiv::logger_details {

class LogWritersMan : public MemAllocNewdel {
public:
    static LogWritersMan& getLogWritersMan();
    // 0 before the registry is built, 1 while it lives, 2 once it is destroyed.
    static int getState() noexcept;

    ~LogWritersMan();
    LogWritersMan(const LogWritersMan&) = delete;
    LogWritersMan& operator=(const LogWritersMan&) = delete;

    CriticalSection& getMonitor() noexcept { return m_monitor; }

    // Stores the factory under its name, replacing (and releasing) an earlier one.
    void addLogWritersFactory(const LogWritersFactory* pFactory);
    // The factory registered under exactly className, or null.
    Handle<const LogWritersFactory> getLogWritersFactory(const String& className);
    void removeLogWritersFactory(const String& className);

    void addLogWriter(LogWriter* pWriter);
    void removeLogWriter(LogWriter* pWriter);
    void clearWriters();
    // Copies the global writer list and the version it belongs to.
    void getWriters(std::vector<Handle<LogWriter>>& out, AtomicEntity<int>& version);
    // Whether a copy taken at version is still current (no lock).
    bool isCurrent(const AtomicEntity<int>& version) const noexcept {
        return version.getRelaxed() == m_Version.get();
    }
    // Called after the set of global writers was replaced.
    void versionIncrement() noexcept { m_Version.increment(); }
    int getVersion() const noexcept { return m_Version.get(); }

private:
    LogWritersMan();
    friend struct std::default_delete<LogWritersMan>;

    CriticalSection m_monitor;
    std::vector<Handle<LogWriter>> m_LogWritersList;
    tl::hash_map<String, Handle<const LogWritersFactory>, String::Hash> m_LogWritersFactoryMap;
    AtomicEntity<int> m_Version;
};

}  // namespace kiv::logger_details

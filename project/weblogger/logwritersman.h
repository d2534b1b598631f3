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
// Lifecycle: built on first use (at library load), destroyed by the library's shutdown when the
// library is unloaded or the process exits (see internal/libraryshutdown.h), after every writer
// was flushed and closed. The state word goes 0 (not built) -> 1 (alive) -> 2 (destroyed);
// "nLogWriterManState == 0" is asserted by the constructor, "nLogWriterManState == 1" by the
// destructor and by every getLogWritersMan(), so a use during or after the shutdown is reported.
//
// Flushing: flushAll() reaches every live writer that has a lock and has written (global and
// shared writers, local ones included) through the process-wide list of live writers, not
// through the global list. It takes that list's lock only to collect the writers, then each
// writer's own lock in turn (a console writer takes the console lock first), never two writer locks
// at once and never the monitor. A WT_SINGLE_THREADED writer has no lock, so only its own thread
// may touch it: flushAll leaves it alone.
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

    // Writes out what every live writer with a lock holds back: for a host before fork, or
    // from the thread that handles SIGTERM (it takes locks and may allocate, so it is not for
    // the signal handler itself). Never throws. Does nothing once the library shut down.
    static void flushAll() noexcept;
    // Closes every live writer with a lock (LogWriter::close), for the library's shutdown.
    // With bSingleThreadedToo, WT_SINGLE_THREADED writers as well: only when no other thread
    // can be inside a log call any more (the shutdown has closed the gate and waited for them).
    static void closeAll(bool bSingleThreadedToo) noexcept;
    // Deletes the registry (state 2), releasing its factories and writer handles. Called by
    // the library's shutdown only, once no thread can reach the registry any more.
    static void destroyLogWritersMan() noexcept;

    // For the fork handlers (internal/forksafety.h): the live-writers list's lock held across a
    // fork, taken after every writer lock they hold (its place in the lock order), so that the
    // child, whose first write through a writer enters that list, never finds it held.
    static void lockLiveWritersList() noexcept;
    static void unlockLiveWritersList() noexcept;

    // The library's shutdown routine, installed when the library loads.
    using ShutdownRoutine = void (*)() noexcept;
    static void setShutdownRoutine(ShutdownRoutine pfnShutdown) noexcept;
    // Called once logging is in use (a logger or a writer exists): the shutdown routine then
    // runs from the library's first static destructor at unload or exit, while every other
    // process-wide object of the library is still alive.
    static void armShutdown() noexcept;

private:
    LogWritersMan();
    friend class kiv::LogWriter;
    // Handles on every live writer that has a lock (or any live writer), taken under the
    // list's lock.
    static void collectLiveWriters(std::vector<Handle<LogWriter>>& out, bool bWithoutLockToo);
    static void linkLiveWriter(LogWriter* pWriter) noexcept;
    static void unlinkLiveWriter(LogWriter* pWriter) noexcept;

    CriticalSection m_monitor;
    std::vector<Handle<LogWriter>> m_LogWritersList;
    tl::hash_map<String, Handle<const LogWritersFactory>, String::Hash> m_LogWritersFactoryMap;
    AtomicEntity<int> m_Version;
};

}  // namespace kiv::logger_details

// The crash trigger, registered as "CrashWriter": a writer bound to one place in the source
// code (the "file" and "line" attributes of its Writer element) that reacts only to a message
// logged from exactly there. The reaction is deliberately inert: nothing is written and the
// process goes on; the trigger only notes that it was reached (the number of times and the
// second of the last time), which is what a debugger's breakpoint or a test looks for.
//
// Locking: the comparison of the call site reads only settings fixed by initialize, so it takes
// no lock; a match passes through the writer's own lock (WriteGuard) like every write, so a
// retired trigger is not reached. The counters are atomics.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

#include "weblogger/logwriter.h"

namespace kiv {

class CrashWriter : public LogWriter {
public:
    CrashWriter(const String& name, short id, WriterType type,
                const Handle<const WriterFilter>& filter);
    ~CrashWriter() override;

    // Reads "file" (compared exactly, letter case included, with the file the call site
    // reports) and "line" (base 10; text that is not a number gives 0). Either one missing
    // throws LogConfigurationException (kmsgLogWriterAttributeMissing): a trigger bound to no
    // place is a configuration mistake, not a trigger that never fires. The format is unused.
    bool initialize(const XmlElement* pConfig, const XmlElement* pFormat) override;
    // Reacts when the location's line and file are both the configured ones; a message without
    // a location never matches.
    void logMessage(const LogSeverity& severity, const GDValue& message, const LoggerState& state,
                    const FileLocation* pLocation) override;

    const String& getWhereToCrashFile() const noexcept { return m_strWhereToCrashFile; }
    std::uint32_t getLine() const noexcept { return m_nLine; }
    // How often the trigger was reached, and the wall-clock second of the last time (0: never).
    std::uint64_t getReachedCount() const noexcept {
        return m_nReached.load(std::memory_order_relaxed);
    }
    std::time_t getLastReached() const noexcept {
        return m_tLastReached.load(std::memory_order_relaxed);
    }

private:
    String m_strWhereToCrashFile;
    std::uint32_t m_nLine = 0;
    std::atomic<std::uint64_t> m_nReached{0};
    std::atomic<std::time_t> m_tLastReached{0};
};

}  // namespace kiv

// The execution context id (ECID) of the calling thread, through the context-monitoring (CTM)
// client that the host has loaded.
//
// An ECID names one piece of work as it crosses threads and processes; every message can show
// the thread's current one as the property "ecid". The library makes no ids itself: it asks the
// client (performance::CTMWrapper) through functions looked up by name, and caches per thread
// the ECID text ("<ecid>,<rid>") and the wrapped form of the current context. Everything is
// optional: while tracking is off every operation is a cheap no-op that reports failure or
// gives an empty text.
//
// Tracking is on when the enabled flag is set (by the configuration load or by
// enableIfCTMAvailaible) and the client reports itself initialised at the moment of the call.
// A client function that the client does not export is never called: the operation that needs
// it fails as it does while tracking is off.
//
// Threads: the cache is per thread. The enabled flag and the looked-up functions are written at
// start-up or configuration and read on every call without a lock.
#pragma once

#include "zq/webkeel/string.h"

namespace kiv {

class ConfigReader;

namespace logger {

class ExecutionContext {
public:
    // Sets the enabled flag when it is clear and the client is initialised. It does not look the
    // client's functions up; only the configuration load does.
    static void enableIfCTMAvailaible();
    // Clears the enabled flag and disables the client wrapper.
    static void disable();

    // The calling thread's ECID text, "<ecid>,<rid>", empty when it has no context.
    static const String& getCurrentECID();

    // The current context in wrapped form: cached until this library next changes the thread's
    // context, unless bForce asks the client again. Empty when tracking is off or there is no
    // context.
    static NString wrap(bool bForce);
    // Makes the wrapped context the thread's current one. An empty text fails without asking
    // the client; a text the client refuses is logged under "kiv.ctm.conext.unwrap".
    static bool unwrap(const NString& strWrapped, bool bFlag);

    // A new context for the thread.
    static bool createContext();
    // Refreshes the thread's ECID from the client's current context; false when there is none.
    static bool getContext();
    // Ends the thread's current context in the client; the thread's cached ECID is kept.
    static bool clearContext();
    // Stashes the current context under pReference / makes the one stashed there current.
    static bool stash(void* pReference);
    static bool restore(void* pReference);
    // Lets the client drop expired stashes; the host calls it from time to time.
    static void periodicCleanup(unsigned nValue);

    // Loads "ExecutionContext/Enable" (default true) from reader again, as at library load.
    // With true and an initialised client the client's functions are looked up anew and
    // tracking turns on; with false tracking turns off.
    static void reloadConfig(const ConfigReader& reader);

    ExecutionContext() = delete;
};

// Scopes a context to a block: the init functions stash the thread's context and set up a new
// one; the destructor puts back what was there before (or clears the context when there was
// none). The guard's own address is the stash reference.
class ExecutionContextGuard {
public:
    enum ActionAtDestruct { kNoAction = 0, kClearCtx = 1, kRestoreCtx = 2 };

    ExecutionContextGuard() noexcept = default;
    ~ExecutionContextGuard();
    ExecutionContextGuard(const ExecutionContextGuard&) = delete;
    ExecutionContextGuard& operator=(const ExecutionContextGuard&) = delete;

    // A new context for the block.
    void initCreateNew();
    // Keeps the thread's context when it has one; otherwise a new one, cleared at the end.
    void initCreateNewIfNotExists();
    // The context stashed under pReference, for the block.
    void initRestore(void* pReference);
    // The wrapped context, for the block.
    void initUnwrap(const NString& strWrapped);

    ActionAtDestruct getActionAtDestruct() const noexcept { return m_ActionAtDestruct; }

private:
    bool stashCurrentCtx();

    ActionAtDestruct m_ActionAtDestruct = kNoAction;
};

}  // namespace logger
}  // namespace kiv

#include "weblogger/internal/forksafety.h"

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <mutex>

#include "weblogger/internal/filelogwriter.h"
#include "weblogger/internal/livefilewriters.h"
#include "weblogger/logwritersman.h"
#include "weblogger/tmlogger.h"

namespace kiv::logger_details {
namespace {

std::atomic<bool> g_bInstalled{false};
// One fork at a time through the handlers: the arrays below belong to it.
std::mutex g_forkMutex;
// The writers the prepare handler pinned and locked, by slot, and how many slots it walked.
FileLogWriter* g_arrHeld[LiveFileWriters::kCapacity];
unsigned g_nSlotsWalked = 0;

void prepareFork() noexcept {
    g_forkMutex.lock();
    const unsigned nSlots = LiveFileWriters::getSlotsInUse();
    g_nSlotsWalked = nSlots;
    for (unsigned nSlot = 0; nSlot < nSlots; ++nSlot) {
        g_arrHeld[nSlot] = nullptr;
        bool bBusy = false;
        FileLogWriter* pWriter = LiveFileWriters::pin(nSlot, bBusy);
        while (pWriter == nullptr && bBusy) {
            // A crash handler's pin: short, and it ends the process.
            sched_yield();
            pWriter = LiveFileWriters::pin(nSlot, bBusy);
        }
        if (pWriter == nullptr) {
            continue;
        }
        pWriter->getWriterSynchro().acquire();
        g_arrHeld[nSlot] = pWriter;
        // A failure leaves the lines in the buffer: the child forgets them, the parent keeps
        // them for its next try.
        pWriter->getLogFile().writeOutWholeRecords();
    }
    // After the writers: a writer takes it under its own lock at its first write.
    LogWritersMan::lockLiveWritersList();
    // Last: nothing is taken under it, and a thread that makes or ends its logger holds it.
    TmLogger::lockLiveLoggersForFork();
}

void release(bool bChild) noexcept {
    TmLogger::unlockLiveLoggersAfterFork(bChild);
    LogWritersMan::unlockLiveWritersList();
    for (unsigned nSlot = g_nSlotsWalked; nSlot-- > 0;) {
        FileLogWriter* pWriter = g_arrHeld[nSlot];
        if (pWriter == nullptr) {
            continue;
        }
        if (bChild) {
            pWriter->getLogFile().forgetBuffered();
        }
        pWriter->getWriterSynchro().release();
        LiveFileWriters::unpin(nSlot);
        g_arrHeld[nSlot] = nullptr;
    }
    g_nSlotsWalked = 0;
    g_forkMutex.unlock();
}

void afterForkInParent() noexcept {
    release(false);
}

void afterForkInChild() noexcept {
    release(true);
}

}  // namespace

bool ForkSafety::install() noexcept {
    static const bool s_bRegistered = [] {
        const bool bDone =
            ::pthread_atfork(&prepareFork, &afterForkInParent, &afterForkInChild) == 0;
        g_bInstalled.store(bDone, std::memory_order_release);
        return bDone;
    }();
    return s_bRegistered;
}

bool ForkSafety::isInstalled() noexcept {
    return g_bInstalled.load(std::memory_order_acquire);
}

namespace {
// At library load, before any thread of the host can fork with a writer in use.
const bool g_bForkSafetyInstalled = ForkSafety::install();
}  // namespace

}  // namespace kiv::logger_details

#include "weblogger/internal/livefilewriters.h"

#include <sched.h>

#include "weblogger/loggermessages.h"

namespace kiv::logger_details {
namespace {

// Constant-initialised: usable by writers made during static initialisation and by the crash
// handler at any time, and never destroyed.
std::atomic<std::uintptr_t> g_arrSlots[LiveFileWriters::kCapacity] = {};
std::atomic<unsigned> g_nSlotsInUse{0};
std::atomic<bool> g_bFullReported{false};

}  // namespace

bool LiveFileWriters::add(FileLogWriter* pWriter) noexcept {
    const std::uintptr_t nWriter = reinterpret_cast<std::uintptr_t>(pWriter);
    for (unsigned nSlot = 0; nSlot < kCapacity; ++nSlot) {
        std::uintptr_t nExpected = 0;
        if (g_arrSlots[nSlot].compare_exchange_strong(nExpected, nWriter,
                                                      std::memory_order_acq_rel)) {
            unsigned nInUse = g_nSlotsInUse.load(std::memory_order_acquire);
            while (nInUse <= nSlot && !g_nSlotsInUse.compare_exchange_weak(
                                          nInUse, nSlot + 1, std::memory_order_acq_rel)) {
            }
            return true;
        }
    }
    if (!g_bFullReported.exchange(true)) {
        reportLoggerProblem(
            ParamMessage(kmsgLogCrashTableFull).setInsert(1, GDUInteger64(kCapacity)));
    }
    return false;
}

void LiveFileWriters::remove(FileLogWriter* pWriter) noexcept {
    const std::uintptr_t nWriter = reinterpret_cast<std::uintptr_t>(pWriter);
    const unsigned nInUse = g_nSlotsInUse.load(std::memory_order_acquire);
    for (unsigned nSlot = 0; nSlot < nInUse; ++nSlot) {
        std::atomic<std::uintptr_t>& slot = g_arrSlots[nSlot];
        if ((slot.load(std::memory_order_acquire) & ~kPinned) != nWriter) {
            continue;
        }
        // A pin lasts for a few writes (a crash) or one fork: wait it out.
        for (;;) {
            std::uintptr_t nExpected = nWriter;
            if (slot.compare_exchange_weak(nExpected, 0, std::memory_order_acq_rel)) {
                return;
            }
            sched_yield();
        }
    }
}

unsigned LiveFileWriters::getSlotsInUse() noexcept {
    return g_nSlotsInUse.load(std::memory_order_acquire);
}

FileLogWriter* LiveFileWriters::pin(unsigned nSlot, bool& bBusy) noexcept {
    bBusy = false;
    if (nSlot >= kCapacity) {
        return nullptr;
    }
    std::atomic<std::uintptr_t>& slot = g_arrSlots[nSlot];
    std::uintptr_t nValue = slot.load(std::memory_order_acquire);
    for (;;) {
        if (nValue == 0) {
            return nullptr;
        }
        if ((nValue & kPinned) != 0) {
            bBusy = true;
            return nullptr;
        }
        if (slot.compare_exchange_weak(nValue, nValue | kPinned, std::memory_order_acq_rel)) {
            return reinterpret_cast<FileLogWriter*>(nValue);
        }
    }
}

void LiveFileWriters::unpin(unsigned nSlot) noexcept {
    if (nSlot < kCapacity) {
        g_arrSlots[nSlot].fetch_and(~kPinned, std::memory_order_acq_rel);
    }
}

}  // namespace kiv::logger_details

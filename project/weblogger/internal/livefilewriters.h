// The process-wide table of live file writers that the crash handler and the fork handlers
// walk (see fatalsignalflush.h and forksafety.h).
//
// Neither of them may take a lock to find the writers: the crash handler runs in the middle of
// whatever the crashed thread was doing, and a fork handler must not wait on the live-writers
// list's mutex that a writer takes under its own lock. So the table is a fixed array of atomic
// words, each holding a writer's address or zero, read and written without any lock.
//
// Pinning. A walker that wants to use the writer in a slot first pins the slot (sets its low
// bit with a compare-and-swap); while a slot is pinned its writer cannot finish being destroyed:
// the writer's destructor removes it from the table first thing, and removal waits (yielding)
// until the slot is no longer pinned. A walker pins for as long as it uses the writer: the crash
// handler for the time of its writes, the fork handlers from the prepare handler to the parent's
// or the child's. A slot already pinned by another walker is busy: the crash handler skips it,
// the fork handler waits for it (the crash handler's pin is short and ends the process anyway).
//
// Capacity. kCapacity writers; a writer made when the table is full is not in it: neither
// flushed on a crash nor locked around a fork. That is reported once on standard error.
#pragma once

#include <atomic>
#include <cstdint>

namespace kiv {
class FileLogWriter;
}

namespace kiv::logger_details {

class LiveFileWriters {
public:
    // Far more file writers than a configuration has (ten writer ids, a tenant or session
    // prefix each), and small enough that the crash handler walks the table in microseconds.
    static constexpr unsigned kCapacity = 1024;

    // Called by every file writer's constructor. False (reported once) when the table is full.
    static bool add(FileLogWriter* pWriter) noexcept;
    // Called first thing by every file writer's destructor; waits while a walker pins the
    // writer's slot. Harmless for a writer that is not in the table.
    static void remove(FileLogWriter* pWriter) noexcept;

    // Slots 0 to getSlotsInUse() - 1 may hold writers; the rest have never been used.
    static unsigned getSlotsInUse() noexcept;
    // Pins slot nSlot and returns its writer; null when the slot is empty or pinned already
    // (bBusy then tells which). Async-signal-safe.
    static FileLogWriter* pin(unsigned nSlot, bool& bBusy) noexcept;
    // Ends a pin taken by pin(). Async-signal-safe.
    static void unpin(unsigned nSlot) noexcept;

private:
    static constexpr std::uintptr_t kPinned = 1;
    static_assert(std::atomic<std::uintptr_t>::is_always_lock_free,
                  "the crash handler reads the table without locks");
};

}  // namespace kiv::logger_details

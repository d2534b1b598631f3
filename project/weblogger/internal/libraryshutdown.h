// The library's shutdown: what happens when libweblogger.so is unloaded or the process exits
// (returning from main, or exit() from any thread, also while other threads log).
//
// It runs from the library's first static destructor (armed when logging is first used, see
// LogWritersMan::armShutdown), while every other process-wide object of the library is alive:
// 1. Log calls are refused from now on (counted, never written, never blocked), and calls in
//    progress on other threads are waited for, at most kDrainLimitMillis.
// 2. Every live writer is flushed and closed (LogWriter::close): nothing that was logged before
//    is lost. A single-threaded writer is closed from here only when every call has left (its
//    own thread can no longer be writing to it through its logger).
// 3. When no other thread has a logger (an unload, which requires that no other thread uses the
//    library, or an exit after the workers were joined): the bridge from the lower library is
//    unplugged and deleted, then the writer registry (state 1 -> 2, releasing the global
//    writers), the source registry with every source, and the logger slot with the calling
//    thread's logger; the remaining constants follow through the exit-time destructor list.
//    Otherwise (an exit while other threads still hold loggers, or a call that did not finish
//    in time) these are kept, so that the threads still running find what they use; the process
//    ends right after and takes them with it.
//
// Limits, stated plainly:
// - Step 2 takes each writer's lock as a log call does: a thread stuck inside a write (a full
//   pipe on standard output) past the drain's limit holds the shutdown there too, as it holds
//   every other thread that logs to that writer.
// - Step 3 assumes that a thread which never logged does not make its first logger while or
//   after the library is freed (that is using the library during its unload), and that no
//   static destructor that runs after the library's own (one of a library loaded before it)
//   logs. Threads that already have a logger are safe: their calls are refused.
// - Lines logged after step 1 are refused and counted, not written: the files are closed.
//
// Locks: step 1 takes the live-loggers lock alone (and waits under it; a log call never takes
// it); step 2 the live-writers lock alone to collect the writers, then each writer's own lock in
// turn (the console lock first for a console writer), never two writer locks at once; step 3
// takes no lock of a writer. A writer's lock is never held while a registry's monitor or the
// live-loggers lock is taken; the live-writers lock is taken under a writer's lock only at that
// writer's first write, and nothing is taken while it is held.
#pragma once

namespace kiv::logger_details {

class LibraryShutdown {
public:
    // How long the shutdown waits for log calls in progress on other threads.
    static constexpr int kDrainLimitMillis = 2000;

    // The whole shutdown; runs once.
    static void run() noexcept;
};

}  // namespace kiv::logger_details

// The library's shutdown: what happens when libweblogger.so is unloaded or the process exits
// (returning from main, or exit() from any thread, also while other threads log).
//
// It runs from the library's first static destructor (armed when logging is first used, see
// LogWritersMan::armShutdown), while every other process-wide object of the library is alive:
// 1. Log calls are refused from now on (counted, never written, never blocked), and calls in
//    progress on other threads are waited for, at most kDrainLimitMillis.
// 2. Every live writer with a lock is flushed and closed (LogWriter::close): nothing that was
//    logged before is lost.
// 3. When no other thread has a logger (an unload, which requires that no other thread uses the
//    library, or an exit after the workers were joined): the bridge from the lower library is
//    unplugged and deleted, then the writer registry (state 1 -> 2, releasing the global
//    writers), the source registry with every source, and the logger slot with the calling
//    thread's logger; the remaining constants follow through the exit-time destructor list.
//    Otherwise (an exit while other threads still hold loggers, or a call that did not finish
//    in time) these are kept, so that the threads still running find what they use; the process
//    ends right after and takes them with it.
//
// Locks: step 1 takes the live-loggers lock alone; step 2 the live-writers lock alone, then
// each writer's own lock in turn (the console lock first for a console writer); step 3 the
// registries' monitors, one at a time. A writer's lock is never held while a registry's monitor
// or a list lock is taken.
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

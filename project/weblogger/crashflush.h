// Writing out what the file writers hold when the process crashes.
//
// A file writer with "autoFlush" off keeps up to one buffer of whole lines in memory; a crash
// would take exactly the lines that explain it. With the crash flush installed, SIGSEGV, SIGBUS,
// SIGFPE, SIGILL and SIGABRT first make every file writer write out the lines it holds, then add
// one line to each of its files naming the signal ("Fatal signal SIGSEGV (11): the lines logged
// before it were written out; ..."), and then hand the signal on: the handler that was installed
// before (the host's own, or the default action with its core dump) is put back and the signal
// raised again, so the process ends exactly as it would have without the library.
//
// Turned on by installCrashFlush(), or by the attribute flushOnCrash="true" of the logging
// element (yes, 1 and true in any letter case turn it on; no, 0, false or none leave it as it
// is; anything else is reported naming file, line, element and value). Once installed it stays
// for the life of the process: a later configuration without the attribute does not remove it.
//
// What the handler does and does not do:
// - It uses write(2) and the writers' try-locks only: no allocation, no waiting lock. The texts
//   it writes are rendered from the catalogue (and the message file's translation) when the
//   flush is installed and whenever a configuration is applied.
// - A writer whose lock another thread holds is tried again for up to about 100 ms; a writer
//   still busy then (typically the crashed thread was inside it) is skipped, as is a
//   single-threaded writer (its own thread may be inside it), and one line on standard error
//   says how many were skipped. Only whole lines are written: a line being rendered when the
//   crash came is not.
// - Host handlers installed after installCrashFlush() take precedence; the host's handler
//   installed before it runs after the flush. When a second thread crashes while the first is
//   flushing, it waits for that flush (at most two seconds) and then follows the same path.
// - Signal stacks: the handler runs on an alternate signal stack where the crashing thread has
//   one (SA_ONSTACK), which is what lets it run at all after a stack overflow. installCrashFlush
//   gives the calling thread one; prepareThreadForCrashFlush gives one to any other thread (a
//   thread that already has one, from the host or a sanitizer, keeps it). Without one, a stack
//   overflow on that thread ends the process without the flush; every other crash is handled.
#pragma once

namespace kiv {

// Installs the handlers of the five signals (once; later calls do nothing) and gives the calling
// thread an alternate signal stack. True when the handlers are installed.
bool installCrashFlush() noexcept;
// Whether installCrashFlush (or the configuration) installed them.
bool isCrashFlushInstalled() noexcept;
// Gives the calling thread its own alternate signal stack, freed when the thread ends, unless it
// has one already. True when the thread has one afterwards.
bool prepareThreadForCrashFlush() noexcept;

}  // namespace kiv

// fork() while other threads log: the file writers' side of it.
//
// A fork copies the forking thread only. A writer's lock that another thread held at that moment
// would stay held in the child for good, and bytes that sat in a writer's buffer would be
// written twice, once by each process. The handlers below, registered with pthread_atfork when
// the library loads, prevent both:
// - prepare (in the forking thread, before the fork): takes the process's fork lock (one fork at
//   a time goes through these handlers), then, for every file writer in the table of live file
//   writers (livefilewriters.h) in slot order, pins its slot, takes its lock (waiting, as a log
//   call does) and writes out what its buffer holds. No thread is inside a file writer then, and
//   no buffer holds a line. Last it takes the lock of the process-wide list of live writers,
//   which a writer enters at its first write (the child's first write through a writer the
//   parent never wrote to takes it), and then the list of live loggers' lock, which a thread
//   takes when its logger is made or ends (the child's first log call makes its logger).
// - parent (after the fork, in the parent): releases the two list locks, the writers' locks and
//   pins in the reverse order, then the fork lock.
// - child: the same, after forgetting whatever a buffer still holds. That is only ever lines of a
//   file whose writes are failing (a full disk): the parent keeps them and writes them when it
//   can; in the child they would be a second copy. The other threads' loggers are also marked
//   as outside any log call: those threads do not exist in the child, and a child that ends
//   with exit() runs the library's shutdown, which waits for log calls in progress.
//
// Lock order: the fork lock, then the writers' locks in slot order, each writer's lock after its
// slot's pin (and its file's I/O lock taken and released under it, to wait for a full buffer
// another thread is writing: that thread holds no other lock), then the live-writers list's lock,
// then the live loggers' lock (nothing is taken under either list lock). Taking them is safe
// against deadlock because no thread waits for a second writer's lock while it holds one, and a
// writer's destructor (which waits for a pinned slot) holds no writer's lock. A writer being
// destroyed while the prepare handler pins it cannot finish before the parent handler unpins it;
// its destructor waits.
//
// The child's file writers go on writing to the same ring, through the file descriptions they
// share with the parent. Writes to a shared description go to its common offset, so each line
// of either process lands whole, after what is there, and nothing is overwritten. That is what
// a server that forks a short-lived helper (or a worker that execs) wants: its few lines appear
// in the server's log. Limits that follow from sharing the files, stated plainly: each process
// counts only its own bytes towards the size limit and rotates on its own, so a child that lives
// long enough to rotate makes both processes rotate the same ring. A child meant to run for long
// (a pre-forked worker) should apply its own configuration, with its own file prefix.
//
// A child may end with _exit, exec, or exit (which writes out its writers' buffers). What is not
// covered: the configuration's and the registries' locks (a fork while another
// thread configures leaves those held in the child; a child that then configures or makes a new
// log source would wait for ever), the console lock, and the other writer classes' locks.
#pragma once

namespace kiv::logger_details {

class ForkSafety {
public:
    // Registers the handlers; done once at library load, later calls do nothing. True when
    // they are registered.
    static bool install() noexcept;
    static bool isInstalled() noexcept;
};

}  // namespace kiv::logger_details

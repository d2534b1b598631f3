// The console stream: bytes for the process's standard output, collected between flushes.
//
// writeBytes copies into a fixed buffer inside the object (no allocation, ever); flush hands
// everything written since the last flush to the descriptor with write(2). A write that does
// not fit in what is left of the buffer first flushes it, and one at least as large as the
// whole buffer then goes straight to the descriptor, so the order of the bytes is always kept.
//
// The console must never fail its caller: errors are swallowed. A closed or broken descriptor
// (EBADF, EPIPE, EIO...) drops the bytes of that flush; a non-blocking descriptor that stays
// full for a second drops them too rather than stall the server. Writing to a pipe whose
// reader is gone also raises SIGPIPE, which kills a process that has not ignored or handled
// it: that disposition is the host's to choose, as servers do for their sockets.
//
// Thread-safety: none. Callers serialise all use of one stream (the console writers share the
// console lock for the process's stream). getCoutStream itself may be called from any thread.
#pragma once

#include <cstddef>

namespace kiv {

class CoutStream {
public:
    static constexpr unsigned long kBufferSize = 8 * 1024;

    // The process's standard output (descriptor 1). It is never destroyed, so it stays usable
    // while other static objects are torn down at exit; bytes not flushed by then are lost.
    static CoutStream& getCoutStream();

    // A stream over a descriptor the caller keeps open (and closes) itself.
    explicit CoutStream(int nFd) noexcept;
    // Flushes what is left.
    ~CoutStream();
    CoutStream(const CoutStream&) = delete;
    CoutStream& operator=(const CoutStream&) = delete;

    void writeBytes(const void* p, unsigned long n) noexcept;
    void flush() noexcept;

    int getDescriptor() const noexcept { return m_nFd; }
    // Bytes written and not yet flushed.
    unsigned long getBufferedBytes() const noexcept { return m_nUsed; }

private:
    void writeThrough(const char* p, unsigned long n) noexcept;

    int m_nFd;
    unsigned long m_nUsed;
    char m_arrBuffer[kBufferSize];
};

}  // namespace kiv

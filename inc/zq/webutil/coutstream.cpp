#include "zq/webutil/coutstream.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

namespace kiv {
namespace {

// How long a non-blocking descriptor may stay full before its bytes are dropped.
constexpr int kFullDescriptorWaitMs = 1000;

}  // namespace

CoutStream& CoutStream::getCoutStream() {
    // Built in place and never destroyed: console output from the destructor of another static
    // object must not find a destroyed stream.
    alignas(CoutStream) static unsigned char s_arrStorage[sizeof(CoutStream)];
    static CoutStream* const s_pStream = ::new (static_cast<void*>(s_arrStorage)) CoutStream(1);
    return *s_pStream;
}

CoutStream::CoutStream(int nFd) noexcept : m_nFd(nFd), m_nUsed(0) {}

CoutStream::~CoutStream() {
    flush();
}

void CoutStream::writeBytes(const void* p, unsigned long n) noexcept {
    if (n >= kBufferSize) {
        flush();
        writeThrough(static_cast<const char*>(p), n);
        return;
    }
    if (n > kBufferSize - m_nUsed) {
        flush();
    }
    if (n != 0) {
        std::memcpy(m_arrBuffer + m_nUsed, p, n);
        m_nUsed += n;
    }
}

void CoutStream::flush() noexcept {
    const unsigned long nUsed = m_nUsed;
    m_nUsed = 0;
    writeThrough(m_arrBuffer, nUsed);
}

void CoutStream::writeThrough(const char* p, unsigned long n) noexcept {
    while (n != 0) {
        const unsigned long nChunk =
            n > static_cast<unsigned long>(SSIZE_MAX) ? static_cast<unsigned long>(SSIZE_MAX) : n;
        const ssize_t nDone = ::write(m_nFd, p, nChunk);
        if (nDone > 0) {
            p += nDone;
            n -= static_cast<unsigned long>(nDone);
            continue;
        }
        if (nDone < 0 && errno == EINTR) {
            continue;
        }
        if (nDone < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd waitFor{m_nFd, POLLOUT, 0};
            int nReady;
            do {
                nReady = ::poll(&waitFor, 1, kFullDescriptorWaitMs);
            } while (nReady < 0 && errno == EINTR);
            if (nReady > 0) {
                continue;
            }
        }
        return;  // every other failure drops the rest: the console never fails the caller
    }
}

}  // namespace kiv

// Byte output streams: the interface, a stream over a BinaryFile, and a buffering stream.
//
// OutputStream is what a log file writes its bytes to. FlushableOutputStreamAdaptor turns any
// file-like object into an OutputStream through a policy that says how to write and flush it;
// UnbufferedFileOutputStream is that adaptor over BinaryFile, throwing FileException on any
// error. BufferedOutputStream collects small writes in one buffer, allocated once at
// construction, and hands them to the stream beneath in large pieces.
//
// Failure: when the buffered bytes cannot be written to the stream beneath, they are dropped
// and the exception passes on. Whatever part the stream beneath took before failing stays
// there, the rest is gone, and the stream stays usable for the next write: keeping the bytes
// would write them a second time behind the ones that did get through, or block every later
// message behind one that can never be written.
//
// Thread-safety: none. A stream belongs to one owner that serialises its calls.
#pragma once

#include <memory>

#include "zq/webkeel/memalloc.h"
#include "zq/webutil/binaryfile.h"

namespace kiv {

class OutputStream : public MemAllocNewdel {
public:
    virtual ~OutputStream();
    virtual void writeData(const void* p, unsigned long n) = 0;
    // Hands everything written so far on towards its destination.
    virtual void flush() = 0;
};

// How FlushableOutputStreamAdaptor drives a BinaryFile-like File: every failure throws.
template <class File>
struct BinaryFileStreamingPolicy {
    static void writeData(File& file, const void* p, unsigned long n) {
        unsigned long nWritten = 0;
        file.writeBytes(p, n, nWritten, File::kThrowException);
    }
    static void flush(File& file) { file.flush(File::kThrowException); }
};

// An OutputStream over a file it does not own; the file must outlive the adaptor.
template <class File, class Policy>
class FlushableOutputStreamAdaptor : public OutputStream {
public:
    explicit FlushableOutputStreamAdaptor(File& file) noexcept : m_pFile(&file) {}
    FlushableOutputStreamAdaptor(const FlushableOutputStreamAdaptor&) = delete;
    FlushableOutputStreamAdaptor& operator=(const FlushableOutputStreamAdaptor&) = delete;

    void writeData(const void* p, unsigned long n) override { Policy::writeData(*m_pFile, p, n); }
    void flush() override { Policy::flush(*m_pFile); }
    File& getFile() const noexcept { return *m_pFile; }

private:
    File* m_pFile;
};

using UnbufferedFileOutputStream =
    FlushableOutputStreamAdaptor<BinaryFile, BinaryFileStreamingPolicy<BinaryFile>>;

// Buffers writes over another stream it does not own; that stream must outlive this one.
class BufferedOutputStream : public OutputStream {
public:
    // 64 KiB: a rotated file of a few megabytes then costs a few dozen write(2) calls instead
    // of one per message when its writer does not flush after every message, while a server
    // with a dozen file writers spends under a megabyte on buffers. A write at least as large
    // as the buffer goes straight to the stream beneath, without being copied.
    static constexpr unsigned long s_knDefaultBufferSize = 64 * 1024;

    // A buffer size of 0 makes every write go straight through.
    explicit BufferedOutputStream(OutputStream& inner,
                                  unsigned long nBufferSize = s_knDefaultBufferSize);
    // Does not flush: the stream beneath may be gone already, and a destructor could not
    // report the failure. The owner flushes first.
    ~BufferedOutputStream() override;
    BufferedOutputStream(const BufferedOutputStream&) = delete;
    BufferedOutputStream& operator=(const BufferedOutputStream&) = delete;

    void writeData(const void* p, unsigned long n) override;
    // Room for n bytes to be written in place: a pointer into the buffer (written out first
    // when it has less room), or null when n is more than the whole buffer. The caller writes
    // at most n bytes there and then commits the count it wrote.
    char* reserve(unsigned long n) {
        // The common case (room left) stays inline: it runs for every piece of every message.
        if (n <= m_nCapacity - m_nUsed) {
            return m_pBuffer.get() + m_nUsed;
        }
        return reserveAfterWriting(n);
    }
    void commit(unsigned long n) noexcept { m_nUsed += n; }
    // Writes the buffer to the stream beneath, then flushes that stream.
    void flush() override;

    unsigned long getBufferSize() const noexcept { return m_nCapacity; }
    // Bytes written and not yet handed to the stream beneath.
    unsigned long getBufferedBytes() const noexcept { return m_nUsed; }

private:
    // Hands the buffer to the stream beneath; the buffer is empty afterwards also when that
    // throws (see the failure note at the top).
    void writeBuffer();
    char* reserveAfterWriting(unsigned long n);

    OutputStream* m_pInner;
    std::unique_ptr<char[]> m_pBuffer;
    unsigned long m_nCapacity;
    unsigned long m_nUsed;
};

}  // namespace kiv

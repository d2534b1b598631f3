// The byte sink of the file writer: one file on disk behind a buffer.
//
// The file writer writes the UTF-8 bytes of each rendered message with write() (the whole
// record at once, rendered beforehand into a RecordBuffer), and opens, flushes and closes the
// file around its rotation. The buffer is made once in the constructor and lives as long as
// the LogFile; only the file is opened and closed again and again. Opening, seeking and sizing
// throw FileException on any error; close() never throws for the close itself, only for the flush
// before it, and the destructor never throws.
//
// Records. The writer marks the end of every message with endRecord(); the bytes since the last
// mark are the record in progress (flush() marks one too, so a plain user of this class sees
// everything it wrote as records). The file only ever keeps whole records:
// - the buffer is written out up to its last record end, the record in progress stays in the
//   buffer, unless that record alone outgrows the buffer and has to be written through;
// - when a write fails (disk full, file size limit, I/O error), whatever that write put into
//   the file is cut off again, back to the end of the last whole record, so no torn line is
//   left for the next writes (or the next run) to glue onto;
// - the records that were not written stay in the buffer, and the file is "stalled": nothing
//   more is written (no system call per message) until retryWrite() succeeds. Records that
//   arrive meanwhile are kept while the buffer has room and dropped, whole, when it has not;
//   dropped records are counted (takeDroppedRecords). The buffer is all that is ever held.
// A record that was partly written through when the write failed is dropped whole.
//
// Bytes are accepted only while the file is open (write() on a closed LogFile throws). The
// buffer normally never holds bytes that would end up in the next file opened; detach() is the
// one exception, for a file whose name vanished, so that what was not written yet goes to the
// file that replaces it.
//
// Thread-safety: none of its own. A LogFile belongs to one writer, whose lock covers every call.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>

#include "zq/webkeel/memalloc.h"
#include "zq/webkeel/string.h"
#include "zq/webutil/binaryfile.h"

namespace kiv {

class LogFile : public MemAllocNewdel {
public:
    // 64 KiB: a rotated file of a few megabytes then costs a few dozen write(2) calls instead
    // of one per message when its writer does not flush after every message, while a server
    // with a dozen file writers spends under a megabyte on buffers. It is also the most that a
    // stalled file holds back.
    static constexpr unsigned long kBufferSize = 64 * 1024;
    // The mode of a file that openTruncate creates, unless the caller gives one.
    static constexpr unsigned kDefaultFileMode = 0644;

    LogFile();
    // Flushes an open file (swallowing a failure) and closes it.
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // Each open first closes a file that is still open, flushing its bytes into it. No open
    // goes through a symbolic link (FileException, ELOOP) or opens anything but a regular file
    // (EINVAL): a log file is written where its name says, and nowhere else.
    // Creates the file, or empties an existing one. The file gets exactly nMode (the umask does
    // not apply).
    void openTruncate(const String& path, unsigned nMode = kDefaultFileMode);
    // Opens an existing file (a missing one is not created: FileException, ENOENT) and goes
    // on writing at its end.
    void openAppend(const String& path);
    // The same, writing from the byte offset on and overwriting what follows it; an offset
    // past the end leaves a hole of zero bytes.
    void openAppend(const String& path, unsigned long nOffset);
    // Starts a new file under path with its first bytes written straight to it, and keeps it
    // open for writing after them: a ring's rollover in one open. A regular file already under
    // the name is removed first rather than emptied, so that the new file is a new one: ext4
    // writes a file emptied by truncation back to disk when it is next closed, which would
    // put the disk's latency inside the log call that rotates away from it. Anything else
    // under the name (a link, a FIFO) is left alone and the open fails as openTruncate's does.
    // The file gets exactly nMode.
    void openFresh(const String& path, unsigned nMode, const void* pFirst, unsigned long nFirst);

    // Nothing to write may come with a null pointer (an empty record that never needed storage).
    void write(const void* p, unsigned long n) {
        // Bytes that fit the buffer (nearly every record) are copied inline.
        if (m_file.isOpen() && !m_bRecordLost && n <= kBufferSize - m_nUsed && n != 0) {
            std::memcpy(m_pBuffer.get() + m_nUsed, p, n);
            m_nUsed += n;
            return;
        }
        writeInPieces(p, n);
    }
    // The bytes written since the last mark form a whole record. A record that had to be
    // dropped is counted here. Throws when a record that was partly written through cannot be
    // completed in the file (the record is dropped, the file stalled).
    void endRecord() {
        // A record that is all in the buffer (nearly every one) just moves the mark.
        if (!m_bRecordLost && !m_bPartialInFile && m_nUsed != m_nRecordEnd) [[likely]] {
            m_nRecordEnd = m_nUsed;
            ++m_nRecordsBuffered;
            return;
        }
        endUnusualRecord();
    }
    // Forgets the record in progress (its rendering failed).
    void discardRecord() noexcept;
    // Marks a record end and writes the buffered bytes to the file. Nothing to do when the file
    // is closed, since the buffer is empty then, or stalled (see retryWrite). Throws when the
    // write fails; the file is stalled then and the records are kept.
    void flush();
    // Tries once to write what a stalled file holds back: true when it is no longer stalled.
    bool retryWrite() noexcept;
    // Flushes (which may throw, also for a stalled file: it tries once more), then closes
    // without throwing; the file is closed afterwards even when the flush threw, and records
    // that could not be written are dropped and counted. Harmless on a file that is not open.
    void close();
    // Closes the file without writing anything to it, keeping the buffer for the next file.
    void detach() noexcept;

    // For the crash handler and the fork handlers, which reach the file without a log call
    // (the caller holds the writer's lock). These three allocate nothing, take no lock and
    // throw nothing: memmove, write(2), ftruncate(2) and lseek(2) are all they use, so the
    // crash handler may call them.
    //
    // Writes the whole records the buffer holds (a stalled file is tried once more) and forgets
    // them; the record in progress stays. False when the file is closed or a write failed
    // (the records then stay, as with any failed write).
    bool writeOutWholeRecords() noexcept;
    // Writes bytes straight to the file, past the buffer; the caller writes out the buffer
    // first. False when the file is closed or the write failed.
    bool writeDirect(const void* p, unsigned long n) noexcept;
    // Forgets what the buffer holds without writing or counting it: in a forked child, whose
    // parent writes those records itself.
    void forgetBuffered() noexcept;

    bool isOpen() const noexcept { return m_file.isOpen(); }
    bool isStalled() const noexcept { return m_bStalled; }
    // The system's error of the write that stalled the file.
    int getStallErrno() const noexcept { return m_nStallErrno; }
    // Records dropped since the last call.
    std::uint64_t takeDroppedRecords() noexcept {
        const std::uint64_t n = m_nDroppedRecords;
        m_nDroppedRecords = 0;
        return n;
    }
    // The size including the bytes still buffered: they are flushed first. Throws when the
    // file is not open.
    long long getSize();
    // Flushes (which may throw), then waits until the data is on the disk. False when the file
    // is not open or the system could not make the data durable.
    bool sync();
    // Bytes written and not yet handed to the file.
    unsigned long getBufferedBytes() const noexcept { return m_nUsed; }

    const BinaryFile& getFile() const noexcept { return m_file; }

private:
    void writeInPieces(const void* p, unsigned long n);
    // endRecord for a record that was lost, is empty, or is partly in the file already.
    void endUnusualRecord();
    // Room for n more bytes (n at most the buffer size): writes out what it can. False when
    // the record in progress has to be dropped instead.
    bool makeRoom(unsigned long n);
    // Writes the first n buffered bytes; on failure cuts the file back, stalls it and throws.
    // bWholeRecords says that they end at a record end.
    void writeOut(unsigned long n, bool bWholeRecords);
    // Drops the record in progress; the rest of its bytes are ignored until it ends.
    void loseRecord() noexcept;

    void openFile(const String& path, BinaryFile::FileCreation nCreation, unsigned nMode);
    // Throws when the file is closed, naming the operation.
    void requireOpen(const wchar_t* pszOperation) const;
    // The state of a freshly opened file.
    void startFile() noexcept;

    std::unique_ptr<char[]> m_pBuffer;
    unsigned long m_nUsed = 0;
    // Buffered bytes up to the last record end.
    unsigned long m_nRecordEnd = 0;
    // Whole records in the buffer.
    std::uint64_t m_nRecordsBuffered = 0;
    // Where the file's last whole record ends: a failed write cuts the file back to it.
    long long m_nCleanEnd = 0;
    // Part of the record in progress is in the file already.
    bool m_bPartialInFile = false;
    bool m_bRecordLost = false;
    bool m_bStalled = false;
    int m_nStallErrno = 0;
    std::uint64_t m_nDroppedRecords = 0;
    BinaryFile m_file;
};

}  // namespace kiv

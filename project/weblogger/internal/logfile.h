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
//   dropped records are counted (takeDroppedRecords). The two buffers (below) are all that is
//   ever held.
// A record that was partly written through when the write failed is dropped whole.
//
// Hand-off. A record that does not fit the buffer does not wait for the buffer to be written:
// the buffer's whole records are handed off to a second buffer's place and the record goes into
// the other, empty one. The caller that holds the writer's lock may take the handed-off write
// over (DeferredWrite) and make it after releasing the lock, so that the write(2) of up to
// 64 KiB no longer keeps the other threads from copying their records in; a hand-off nobody
// takes over is written by the next call that needs the file. Order and wholeness hold as
// before, because a handed-off buffer always reaches the file before anything written after
// it: every call but write() and endRecord() first settles it (writes it, or waits for the
// thread writing it), and no second hand-off is made while one is unsettled. A hand-off whose
// write fails is cut back off the file like any failed write; its records stay, ahead of the
// newer ones, and the file is stalled. The size the rotation check reads (getWrittenSize)
// counts handed-off bytes as written, so files rotate at the same sizes as when the write
// happened at once.
//
// Lock order: the writer's lock, then the file's I/O lock. The I/O lock is held by a thread
// from the moment it takes a write over (under the writer's lock) until that write is done
// (the writer's lock released meanwhile), and by a settle, under the writer's lock, only to
// wait for it. The writing thread reads only the handed-off buffer, its length and start and
// the descriptor, which nothing changes until the write is settled; it writes only the result
// (under the I/O lock).
//
// Bytes are accepted only while the file is open (write() on a closed LogFile throws). The
// buffer normally never holds bytes that would end up in the next file opened; detach() is the
// one exception, for a file whose name vanished, so that what was not written yet goes to the
// file that replaces it.
//
// Thread-safety: none of its own, but for the deferred write. A LogFile belongs to one writer,
// whose lock covers every call; DeferredWrite's destructor alone runs outside it.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>

#include "zq/webkeel/criticalsection.h"
#include "zq/webkeel/memalloc.h"
#include "zq/webkeel/string.h"
#include "zq/webutil/binaryfile.h"

namespace kiv {

class LogFile : public MemAllocNewdel {
public:
    // 64 KiB: a rotated file of a few megabytes then costs a few dozen write(2) calls instead
    // of one per message when its writer does not flush after every message, while a server
    // with a dozen file writers spends under a megabyte on buffers. The second buffer of a
    // hand-off is made at the first hand-off, so a writer that flushes every message never
    // has one. Twice this is the most that a stalled file holds back.
    static constexpr unsigned long kBufferSize = 64 * 1024;
    // The mode of a file that openTruncate creates, unless the caller gives one.
    static constexpr unsigned kDefaultFileMode = 0644;

    // Makes, after the writer's lock is released, the write of a buffer handed off while it
    // was held. Made before the lock is taken, so that it is destroyed after the lock's
    // release:
    //
    //     LogFile::DeferredWrite deferred(file);
    //     const WriteGuard guard(*this);
    //     file.write(p, n);
    //     file.endRecord();
    //     deferred.takeOver();
    class DeferredWrite {
    public:
        explicit DeferredWrite(LogFile& file) noexcept : m_file(file) {}
        ~DeferredWrite() {
            if (m_bTaken) [[unlikely]] {
                m_file.writeTakenOver();
            }
        }
        DeferredWrite(const DeferredWrite&) = delete;
        DeferredWrite& operator=(const DeferredWrite&) = delete;
        // Under the writer's lock: takes over the write of a buffer handed off under it.
        void takeOver() noexcept {
            if (m_file.m_eSpare == SpareState::kHandedOff) [[unlikely]] {
                m_file.takeOverHandOff();
                m_bTaken = true;
            }
        }

    private:
        LogFile& m_file;
        bool m_bTaken = false;
    };

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
    // write(p, n), endRecord() and flush() in one: the bytes form a whole record and go to
    // the file with everything buffered ahead of them. A record that finds nothing buffered
    // and the file writable (every line of a file that is flushed after each one) is written
    // from p with one write(2), never copied into the buffer. Should that write fail, the
    // file is cut back and the record is kept in the buffer, exactly as when flush() fails.
    void writeRecordAndFlush(const void* p, unsigned long n) {
        if (m_nUsed == 0 && n <= kBufferSize && m_eSpare == SpareState::kFree && !m_bStalled &&
            !m_bRecordLost && !m_bPartialInFile && n != 0 && m_file.isOpen()) [[likely]] {
            unsigned long nWritten = 0;
            if (m_file.writeBytes(p, n, nWritten, BinaryFile::kReturnFalse)) [[likely]] {
                m_nCleanEnd = m_file.getKnownPosition();
                return;
            }
            keepRecordOfFailedWrite(p, n);
            return;
        }
        write(p, n);
        endRecord();
        flush();
    }
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
    // For the crash handler, before writeOutWholeRecords: settles a handed-off write unless
    // another thread is still making it (false then; the crash handler tries again a few times
    // and otherwise leaves the file alone, since its bytes would land in the middle of that
    // write's).
    bool trySettle() noexcept;
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
    // Bytes written and not yet handed to the system: the buffer's, and the second buffer's
    // while it waits for its write or holds records back after a failed one (not while a
    // thread is writing it).
    unsigned long getBufferedBytes() const noexcept {
        const bool bWaiting = m_eSpare == SpareState::kHandedOff || m_eSpare == SpareState::kHeld;
        return m_nUsed + (bWaiting ? m_nSpareBytes : 0);
    }
    // The size of the file once a handed-off write is made: what the rotation check compares
    // with the limit, without a system call. Bytes still in the buffer do not count.
    long long getWrittenSize() const noexcept {
        const long long nSize = m_file.getKnownSize();
        if (m_nBytesHandedOff == 0) [[likely]] {
            return nSize;
        }
        const long long nEnd =
            m_file.getKnownPosition() + static_cast<long long>(m_nBytesHandedOff);
        return nEnd > nSize ? nEnd : nSize;
    }

    const BinaryFile& getFile() const noexcept { return m_file; }

private:
    // What the second buffer holds.
    enum class SpareState : unsigned char {
        kFree,       // nothing
        kHandedOff,  // whole records, for whoever settles or takes the write over
        kWriting,    // whole records a thread is writing outside the writer's lock
        kHeld,       // whole records whose write failed: they go first once the file writes
    };

    void writeInPieces(const void* p, unsigned long n);
    // Moves the buffer's whole records to the spare buffer's place as a write to be made.
    void handOff() noexcept;
    void takeOverHandOff() noexcept;
    void writeTakenOver() noexcept;
    // Writes the spare buffer at the file's offset, cutting the file back to where it started
    // when the write fails; 0 or the errno value. Touches nothing but the spare buffer and the
    // descriptor, so it runs outside the writer's lock too.
    int writeSpare() const noexcept;
    // Applies the result of the spare buffer's write (under the writer's lock).
    void finishSpare(int nErrno) noexcept;
    // Brings the spare buffer to rest: written, or held by a stalled or closed file.
    void settle() noexcept {
        if (m_eSpare != SpareState::kFree) [[unlikely]] {
            settleSpare();
        }
    }
    void settleSpare() noexcept;
    // endRecord for a record that was lost, is empty, or is partly in the file already.
    void endUnusualRecord();
    // Room for n more bytes (n at most the buffer size): writes out what it can. False when
    // the record in progress has to be dropped instead.
    bool makeRoom(unsigned long n);
    // Writes the first n buffered bytes; on failure cuts the file back and stalls it.
    // bWholeRecords says that they end at a record end. Inline down to write(2), for the same
    // reason as BinaryFile::writeBytes: a flushed line's system call returns through as few
    // frames as possible.
    void writeOut(unsigned long n, bool bWholeRecords) {
        unsigned long nWritten = 0;
        if (!m_file.writeBytes(m_pBuffer.get(), n, nWritten, BinaryFile::kReturnFalse))
            [[unlikely]] {
            stallAfterFailedWrite(bWholeRecords);
            return;
        }
        if (m_nUsed > n) {
            std::memmove(m_pBuffer.get(), m_pBuffer.get() + n, m_nUsed - n);
        }
        m_nUsed -= n;
        if (bWholeRecords) {
            m_nRecordEnd -= n;
            m_nRecordsBuffered = 0;
            m_nCleanEnd = m_file.getKnownPosition();
            m_bPartialInFile = false;
        } else {
            m_bPartialInFile = true;
        }
    }
    // The failure half of writeOut.
    [[gnu::cold]] void stallAfterFailedWrite(bool bWholeRecords);
    // The failure half of writeRecordAndFlush: stalls the file, keeps the record and throws.
    [[gnu::cold]] void keepRecordOfFailedWrite(const void* p, unsigned long n);
    // Drops the record in progress; the rest of its bytes are ignored until it ends.
    void loseRecord() noexcept;

    void openFile(const String& path, BinaryFile::FileCreation nCreation, unsigned nMode);
    // Throws when the file is closed, naming the operation.
    void requireOpen(const wchar_t* pszOperation) const;
    // The state of a freshly opened file.
    void startFile() noexcept;

    // What every record reads and writes comes first: the buffer's fill, the state a flushed
    // record's write checks, and the file with its position.
    unsigned long m_nUsed = 0;
    SpareState m_eSpare = SpareState::kFree;
    // Part of the record in progress is in the file already.
    bool m_bPartialInFile = false;
    bool m_bRecordLost = false;
    bool m_bStalled = false;
    // Where the file's last whole record ends: a failed write cuts the file back to it.
    long long m_nCleanEnd = 0;
    BinaryFile m_file;
    std::unique_ptr<char[]> m_pBuffer;
    // Buffered bytes up to the last record end.
    unsigned long m_nRecordEnd = 0;
    // Whole records in the buffer.
    std::uint64_t m_nRecordsBuffered = 0;
    int m_nStallErrno = 0;
    std::uint64_t m_nDroppedRecords = 0;
    // The second buffer: free, or records ahead of m_pBuffer's (see SpareState).
    std::unique_ptr<char[]> m_pSpare;
    unsigned long m_nSpareBytes = 0;
    std::uint64_t m_nSpareRecords = 0;
    // The file offset at which the spare buffer's write starts.
    long long m_nSpareStart = 0;
    // The spare buffer's bytes while they are handed off or being written, 0 otherwise.
    unsigned long m_nBytesHandedOff = 0;
    // The errno value of a taken-over write (0: written), under m_ioLock.
    int m_nTakenOverErrno = 0;
    CriticalSection m_ioLock{0, "LogFile I/O"};
};

}  // namespace kiv

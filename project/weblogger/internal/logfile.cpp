#include "weblogger/internal/logfile.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "zq/webutil/filesystemutils.h"

namespace kiv {

LogFile::LogFile() : m_pBuffer(new char[kBufferSize]) {}

LogFile::~LogFile() {
    if (m_file.isOpen()) {
        try {
            close();
        } catch (...) {
            // Nobody to report to from a destructor; the records that failed are dropped.
        }
    }
    m_file.close(BinaryFile::kReturnFalse);
}

void LogFile::startFile() noexcept {
    m_nCleanEnd = m_file.getKnownPosition();
    m_bPartialInFile = false;
    m_bStalled = false;
    m_nStallErrno = 0;
}

void LogFile::openFile(const String& path, BinaryFile::FileCreation nCreation, unsigned nMode) {
    // Bytes of the previous file belong in that file, not at the start of the next one.
    close();
    m_file.open(path, BinaryFile::kSharedReadWriteAccess, nCreation, BinaryFile::kThrowException,
                BinaryFile::kHFNoFollow, nMode);
}

void LogFile::openTruncate(const String& path, unsigned nMode) {
    openFile(path, BinaryFile::kCreateAlways, nMode);
    // A file we do not own keeps its mode (EPERM): it is still written.
    m_file.setMode(nMode, BinaryFile::kReturnFalse);
    startFile();
}

void LogFile::openAppend(const String& path) {
    openFile(path, BinaryFile::kOpenExisting, kDefaultFileMode);
    try {
        m_file.seek(BinaryFile::kSeekEnd, 0, BinaryFile::kThrowException);
    } catch (...) {
        m_file.close(BinaryFile::kReturnFalse);
        throw;
    }
    startFile();
}

void LogFile::openAppend(const String& path, unsigned long nOffset) {
    openFile(path, BinaryFile::kOpenExisting, kDefaultFileMode);
    try {
        // An offset beyond what a long holds becomes negative here, which lseek refuses
        // (EINVAL) instead of seeking somewhere else.
        m_file.seek(BinaryFile::kSeekSet, static_cast<long>(nOffset), BinaryFile::kThrowException);
    } catch (...) {
        m_file.close(BinaryFile::kReturnFalse);
        throw;
    }
    startFile();
}

void LogFile::openFresh(const String& path, unsigned nMode, const void* pFirst,
                        unsigned long nFirst) {
    // The bytes of the file open now go into it before the name moves on.
    close();
    FileStats stats;
    if (FileSystemUtils::getFileStats(path, stats, FileSystemUtils::kDontResolveLinks) &&
        stats.bIsRegular) {
        // When the name cannot be removed, the open below empties the file instead.
        FileSystemUtils::removeFile(path);
    }
    openFile(path, BinaryFile::kCreateAlways, nMode);
    try {
        m_file.setMode(nMode, BinaryFile::kReturnFalse);
        unsigned long nWritten = 0;
        m_file.writeBytes(pFirst, nFirst, nWritten, BinaryFile::kThrowException);
    } catch (...) {
        m_file.close(BinaryFile::kReturnFalse);
        throw;
    }
    startFile();
}

void LogFile::requireOpen(const wchar_t* pszOperation) const {
    if (!m_file.isOpen()) {
        ZQ_THROW(FileException(pszOperation, m_file.getPath(), EBADF));
    }
}

void LogFile::loseRecord() noexcept {
    m_nUsed = m_nRecordEnd;
    m_bRecordLost = true;
    m_bPartialInFile = false;
}

void LogFile::stallAfterFailedWrite(bool bWholeRecords) {
    m_nStallErrno = errno != 0 ? errno : EIO;
    m_bStalled = true;
    // Cutting a file shorter needs no space; should it fail all the same, retryWrite cuts
    // before it writes anything.
    m_file.truncate(m_nCleanEnd, BinaryFile::kReturnFalse);
    if (!bWholeRecords) {
        loseRecord();
    }
}

void LogFile::keepRecordOfFailedWrite(const void* p, unsigned long n) {
    // Read errno before anything else can change it.
    stallAfterFailedWrite(true);
    std::memcpy(m_pBuffer.get(), p, n);
    m_nUsed = n;
    m_nRecordEnd = n;
    m_nRecordsBuffered = 1;
    ZQ_THROW(FileException(L"write to file", m_file.getPath(), m_nStallErrno));
}

void LogFile::handOff() noexcept {
    std::swap(m_pBuffer, m_pSpare);
    m_nSpareBytes = m_nRecordEnd;
    m_nSpareRecords = m_nRecordsBuffered;
    m_nSpareStart = m_file.getKnownPosition();
    m_nBytesHandedOff = m_nRecordEnd;
    m_eSpare = SpareState::kHandedOff;
    // The record in progress (if any) goes on in the other buffer.
    const unsigned long nInProgress = m_nUsed - m_nRecordEnd;
    if (nInProgress != 0) {
        std::memcpy(m_pBuffer.get(), m_pSpare.get() + m_nRecordEnd, nInProgress);
    }
    m_nUsed = nInProgress;
    m_nRecordEnd = 0;
    m_nRecordsBuffered = 0;
}

void LogFile::takeOverHandOff() noexcept {
    // Never waits: a hand-off is only made once the previous one is settled, and a settle
    // releases the lock it took.
    m_ioLock.acquire();
    m_eSpare = SpareState::kWriting;
}

void LogFile::writeTakenOver() noexcept {
    m_nTakenOverErrno = writeSpare();
    m_ioLock.release();
}

int LogFile::writeSpare() const noexcept {
    unsigned long nWritten = 0;
    const int nFd = m_file.getDescriptor();
    const int nErrno = BinaryFile::writeAll(nFd, m_pSpare.get(), m_nSpareBytes, nWritten);
    if (nErrno != 0 && nWritten != 0) {
        // No torn record waits in the file until the failure is settled. Should the cut fail,
        // the retry cuts before it writes anything.
        BinaryFile::cutAt(nFd, m_nSpareStart);
    }
    return nErrno;
}

void LogFile::finishSpare(int nErrno) noexcept {
    m_nBytesHandedOff = 0;
    if (nErrno == 0) {
        m_file.advanceKnownPosition(m_nSpareBytes);
        m_nCleanEnd = m_file.getKnownPosition();
        m_nSpareBytes = 0;
        m_nSpareRecords = 0;
        m_eSpare = SpareState::kFree;
        return;
    }
    m_eSpare = SpareState::kHeld;
    m_bStalled = true;
    m_nStallErrno = nErrno;
    // The file's own idea of its size and offset goes back to where the write began.
    m_file.truncate(m_nSpareStart, BinaryFile::kReturnFalse);
}

void LogFile::settleSpare() noexcept {
    switch (m_eSpare) {
        case SpareState::kFree:
            return;
        case SpareState::kHandedOff:
            // Nobody took it over: written here, still ahead of everything after it.
            finishSpare(writeSpare());
            return;
        case SpareState::kWriting:
            m_ioLock.acquire();
            m_ioLock.release();
            finishSpare(m_nTakenOverErrno);
            return;
        case SpareState::kHeld:
            if (m_file.isOpen() && !m_bStalled) {
                // A file that writes again (the retry cut it back, or a new file took over
                // from a detached one) gets the held records first.
                m_nSpareStart = m_file.getKnownPosition();
                finishSpare(writeSpare());
            }
            return;
    }
}

bool LogFile::trySettle() noexcept {
    if (m_eSpare == SpareState::kWriting) {
        if (!m_ioLock.tryAcquire()) {
            return false;
        }
        m_ioLock.release();
    }
    settle();
    return true;
}

bool LogFile::makeRoom(unsigned long n) {
    while (kBufferSize - m_nUsed < n) {
        settle();
        if (m_bStalled) {
            loseRecord();
            return false;
        }
        if (m_nRecordEnd > 0) {
            // (A record partly in the file already is alone in the buffer: no record end.)
            if (!m_pSpare) {
                // Made at the first hand-off; without it the records are written here.
                m_pSpare.reset(new (std::nothrow) char[kBufferSize]);
            }
            if (m_pSpare) {
                handOff();
            } else {
                writeOut(m_nRecordEnd, true);
            }
        } else {
            // One record larger than the buffer: its first part goes ahead of its end.
            writeOut(m_nUsed, false);
            if (m_bRecordLost) {
                return false;
            }
        }
    }
    return true;
}

void LogFile::writeInPieces(const void* p, unsigned long n) {
    requireOpen(L"write to file");
    const char* pBytes = static_cast<const char*>(p);
    while (n != 0 && !m_bRecordLost) {
        if (m_nUsed == kBufferSize && !makeRoom(1)) {
            return;
        }
        const unsigned long nRoom = kBufferSize - m_nUsed;
        const unsigned long nPiece = n < nRoom ? n : nRoom;
        std::memcpy(m_pBuffer.get() + m_nUsed, pBytes, nPiece);
        m_nUsed += nPiece;
        pBytes += nPiece;
        n -= nPiece;
    }
}

void LogFile::endUnusualRecord() {
    if (m_bRecordLost) {
        m_bRecordLost = false;
        m_nUsed = m_nRecordEnd;
        ++m_nDroppedRecords;
        return;
    }
    if (m_nUsed == m_nRecordEnd) {
        return;
    }
    m_nRecordEnd = m_nUsed;
    ++m_nRecordsBuffered;
    if (m_bPartialInFile) {
        // The head of this record is in the file already: its end follows at once, so that a
        // torn record never waits in the file for a later write.
        writeOut(m_nRecordEnd, true);
        if (m_bStalled) {
            // The failed write cut the head off again: the tail alone is no record.
            m_nUsed = 0;
            m_nRecordEnd = 0;
            m_nRecordsBuffered = 0;
            ++m_nDroppedRecords;
            ZQ_THROW(FileException(L"write to file", m_file.getPath(), m_nStallErrno));
        }
    }
}

void LogFile::discardRecord() noexcept {
    if (m_bPartialInFile && !m_bStalled) {
        // Its head is in the file: cut it off again.
        m_file.truncate(m_nCleanEnd, BinaryFile::kReturnFalse);
    }
    m_nUsed = m_nRecordEnd;
    m_bRecordLost = false;
    m_bPartialInFile = false;
}

void LogFile::flush() {
    if (!m_file.isOpen()) {
        return;
    }
    endRecord();
    settle();
    if (m_bStalled || m_nUsed == 0) {
        return;
    }
    writeOut(m_nUsed, true);
    if (m_bStalled) {
        ZQ_THROW(FileException(L"write to file", m_file.getPath(), m_nStallErrno));
    }
}

bool LogFile::retryWrite() noexcept {
    settle();
    if (!m_bStalled) {
        return true;
    }
    if (!m_file.truncate(m_nCleanEnd, BinaryFile::kReturnFalse)) {
        m_nStallErrno = errno;
        return false;
    }
    m_bStalled = false;
    // Records held from a failed hand-off go first.
    settle();
    if (m_bStalled) {
        return false;
    }
    if (m_nRecordEnd > 0) {
        writeOut(m_nRecordEnd, true);
    }
    return !m_bStalled;
}

bool LogFile::writeOutWholeRecords() noexcept {
    if (!m_file.isOpen()) {
        return false;
    }
    if (!retryWrite()) {
        return false;
    }
    if (m_nRecordEnd > 0) {
        writeOut(m_nRecordEnd, true);
    }
    return !m_bStalled;
}

bool LogFile::writeDirect(const void* p, unsigned long n) noexcept {
    settle();
    if (!m_file.isOpen() || m_bStalled) {
        return false;
    }
    unsigned long nWritten = 0;
    if (!m_file.writeBytes(p, n, nWritten, BinaryFile::kReturnFalse)) {
        return false;
    }
    if (!m_bPartialInFile) {
        m_nCleanEnd = m_file.getKnownPosition();
    }
    return true;
}

void LogFile::forgetBuffered() noexcept {
    // The fork handlers settled a handed-off write before the fork: none is in flight here.
    m_eSpare = SpareState::kFree;
    m_nSpareBytes = 0;
    m_nSpareRecords = 0;
    m_nBytesHandedOff = 0;
    m_nUsed = 0;
    m_nRecordEnd = 0;
    m_nRecordsBuffered = 0;
    m_bRecordLost = false;
    m_bPartialInFile = false;
}

void LogFile::close() {
    if (!m_file.isOpen()) {
        return;
    }
    settle();
    int nErrno = 0;
    try {
        endRecord();
    } catch (const FileException& failure) {
        nErrno = failure.getErrno();
    }
    m_nUsed = m_nRecordEnd;
    // One more try for a stalled file: closing is rare, and what fails now is lost.
    if (retryWrite() && m_nUsed != 0) {
        writeOut(m_nUsed, true);
    }
    if (m_bStalled) {
        nErrno = m_nStallErrno;
        m_nDroppedRecords += m_nRecordsBuffered;
        if (m_eSpare == SpareState::kHeld) {
            m_nDroppedRecords += m_nSpareRecords;
        }
    }
    m_eSpare = SpareState::kFree;
    m_nSpareBytes = 0;
    m_nSpareRecords = 0;
    m_nUsed = 0;
    m_nRecordEnd = 0;
    m_nRecordsBuffered = 0;
    m_bRecordLost = false;
    m_file.close(BinaryFile::kReturnFalse);
    startFile();
    if (nErrno != 0) {
        ZQ_THROW(FileException(L"write to file", m_file.getPath(), nErrno));
    }
}

void LogFile::detach() noexcept {
    // A handed-off write goes where it was meant to; records held back from a failed one
    // stay, for the next file.
    settle();
    m_file.close(BinaryFile::kReturnFalse);
    startFile();
}

long long LogFile::getSize() {
    requireOpen(L"get the size of file");
    flush();
    return m_file.getSize(BinaryFile::kThrowException);
}

bool LogFile::sync() {
    if (!m_file.isOpen()) {
        return false;
    }
    flush();
    return m_file.sync(BinaryFile::kReturnFalse);
}

}  // namespace kiv

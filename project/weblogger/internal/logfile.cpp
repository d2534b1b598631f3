#include "weblogger/internal/logfile.h"

#include "zq/webkeel/encoding.h"

#include <cerrno>

namespace kiv {

LogFile::LogFile() {
    // In the body, not the member initialisers: the file is declared after the streams, and the
    // adaptor is bound to a constructed file. If the second stream cannot be made, the first is
    // released with the members.
    m_pUnBufferedStream.reset(ZQ_NEW UnbufferedFileOutputStream(m_file));
    m_pBufferedStream.reset(ZQ_NEW BufferedOutputStream(*m_pUnBufferedStream));
}

LogFile::~LogFile() {
    if (m_pBufferedStream != nullptr && m_file.isOpen()) {
        try {
            m_pBufferedStream->flush();
        } catch (...) {
            // Nobody to report to from a destructor; the bytes that failed are dropped.
        }
    }
    m_pBufferedStream.reset();
    m_pUnBufferedStream.reset();
    m_file.close(BinaryFile::kReturnFalse);
}

void LogFile::openFile(const String& path, BinaryFile::FileCreation nCreation) {
    // Bytes of the previous file belong in that file, not at the start of the next one.
    close();
    m_file.open(path, BinaryFile::kSharedReadWriteAccess, nCreation, BinaryFile::kThrowException,
                BinaryFile::kHFNone);
}

void LogFile::openTruncate(const String& path) {
    openFile(path, BinaryFile::kCreateAlways);
}

void LogFile::openAppend(const String& path) {
    openFile(path, BinaryFile::kOpenExisting);
    try {
        m_file.seek(BinaryFile::kSeekEnd, 0, BinaryFile::kThrowException);
    } catch (...) {
        m_file.close(BinaryFile::kReturnFalse);
        throw;
    }
}

void LogFile::openAppend(const String& path, unsigned long nOffset) {
    openFile(path, BinaryFile::kOpenExisting);
    try {
        // An offset beyond what a long holds becomes negative here, which lseek refuses
        // (EINVAL) instead of seeking somewhere else.
        m_file.seek(BinaryFile::kSeekSet, static_cast<long>(nOffset), BinaryFile::kThrowException);
    } catch (...) {
        m_file.close(BinaryFile::kReturnFalse);
        throw;
    }
}

void LogFile::requireOpen(const wchar_t* pszOperation) const {
    if (!m_file.isOpen()) {
        ZQ_THROW(FileException(pszOperation, m_file.getPath(), EBADF));
    }
}

void LogFile::write(const void* p, unsigned long n) {
    requireOpen(L"write to file");
    m_pBufferedStream->writeData(p, n);
}

void LogFile::writeUtf8InPieces(const wchar_t* p, std::size_t n) {
    requireOpen(L"write to file");
    // A UTF-8 sequence is at most 4 bytes; pieces of 1024 characters fit any buffer we use.
    constexpr std::size_t kPieceChars = 1024;
    constexpr std::size_t kMaxBytesPerChar = 4;
    while (n != 0) {
        const std::size_t nPiece = n < kPieceChars ? n : kPieceChars;
        char* pOut = m_pBufferedStream->reserve(nPiece * kMaxBytesPerChar);
        if (pOut == nullptr) {
            // A buffer smaller than one piece: convert aside and write through.
            char arrBytes[kPieceChars * kMaxBytesPerChar];
            std::size_t nBytes = 0;
            T2NEncodingUTF8<wchar_t>::encode(p, nPiece, arrBytes, sizeof(arrBytes), nBytes);
            m_pBufferedStream->writeData(arrBytes, nBytes);
        } else {
            std::size_t nBytes = 0;
            T2NEncodingUTF8<wchar_t>::encode(p, nPiece, pOut, nPiece * kMaxBytesPerChar, nBytes);
            m_pBufferedStream->commit(nBytes);
        }
        p += nPiece;
        n -= nPiece;
    }
}

void LogFile::flush() {
    if (m_file.isOpen()) {
        m_pBufferedStream->flush();
    }
}

void LogFile::close() {
    if (!m_file.isOpen()) {
        return;
    }
    try {
        m_pBufferedStream->flush();
    } catch (...) {
        m_file.close(BinaryFile::kReturnFalse);
        throw;
    }
    m_file.close(BinaryFile::kReturnFalse);
}

long long LogFile::getSize() {
    requireOpen(L"get the size of file");
    m_pBufferedStream->flush();
    return m_file.getSize(BinaryFile::kThrowException);
}

bool LogFile::sync() {
    if (!m_file.isOpen()) {
        return false;
    }
    m_pBufferedStream->flush();
    return m_file.sync(BinaryFile::kReturnFalse);
}

}  // namespace kiv

#include "weblogger/internal/recordbuffer.h"

#include <algorithm>

namespace kiv {

void RecordBuffer::writeGrowing(const void* p, std::size_t n) {
    if (n == 0) {
        return;
    }
    reserveMore(n);
    std::memcpy(m_pBuffer.get() + m_nSize, p, n);
    m_nSize += n;
}

void RecordBuffer::writeUtf8Growing(const wchar_t* p, std::size_t n) {
    // Pieces of a bounded size, so that the room reserved for the worst case (four bytes a
    // character) never runs far ahead of what the text needs.
    constexpr std::size_t kPieceChars = 1024;
    while (n != 0) {
        const std::size_t nPiece = std::min(n, kPieceChars);
        const std::size_t nRoom = nPiece * kMaxBytesPerChar;
        reserveMore(nRoom);
        std::size_t nBytes = 0;
        T2NEncodingUTF8<wchar_t>::encode(p, nPiece, m_pBuffer.get() + m_nSize, nRoom, nBytes);
        m_nSize += nBytes;
        p += nPiece;
        n -= nPiece;
    }
}

void RecordBuffer::reserveMore(std::size_t n) {
    if (n <= m_nCapacity - m_nSize) {
        return;
    }
    std::size_t nCapacity = std::max(m_nCapacity, kInitialBytes);
    while (nCapacity - m_nSize < n) {
        nCapacity *= 2;
    }
    std::unique_ptr<char[]> pBuffer(new char[nCapacity]);
    if (m_nSize != 0) {
        std::memcpy(pBuffer.get(), m_pBuffer.get(), m_nSize);
    }
    m_pBuffer = std::move(pBuffer);
    m_nCapacity = nCapacity;
}

void RecordBuffer::release() noexcept {
    m_pBuffer.reset();
    m_nCapacity = 0;
}

}  // namespace kiv

#include "zq/webutil/outputstream.h"

#include <cstring>

namespace kiv {

OutputStream::~OutputStream() = default;

BufferedOutputStream::BufferedOutputStream(OutputStream& inner, unsigned long nBufferSize)
    : m_pInner(&inner),
      m_pBuffer(nBufferSize != 0 ? new char[nBufferSize] : nullptr),
      m_nCapacity(nBufferSize),
      m_nUsed(0) {}

BufferedOutputStream::~BufferedOutputStream() = default;

void BufferedOutputStream::writeBuffer() {
    if (m_nUsed == 0) {
        return;
    }
    const unsigned long nUsed = m_nUsed;
    // Emptied before the write so that a throwing stream beneath leaves no bytes to repeat.
    m_nUsed = 0;
    m_pInner->writeData(m_pBuffer.get(), nUsed);
}

void BufferedOutputStream::writeData(const void* p, unsigned long n) {
    if (n == 0) {
        return;
    }
    if (n >= m_nCapacity) {
        writeBuffer();
        m_pInner->writeData(p, n);
        return;
    }
    if (n > m_nCapacity - m_nUsed) {
        writeBuffer();
    }
    std::memcpy(m_pBuffer.get() + m_nUsed, p, n);
    m_nUsed += n;
}

char* BufferedOutputStream::reserveAfterWriting(unsigned long n) {
    if (n > m_nCapacity) {
        return nullptr;
    }
    writeBuffer();
    return m_pBuffer.get() + m_nUsed;
}

void BufferedOutputStream::flush() {
    writeBuffer();
    m_pInner->flush();
}

}  // namespace kiv

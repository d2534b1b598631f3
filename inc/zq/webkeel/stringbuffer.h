// Growable character buffers that the hot path reuses from message to message.
//
// StringBufferBaseTemplate<CharT> is the interface every formatter writes into: append, clear
// (which keeps the storage), and a zero-terminated view. StringBufferTemplate<N, CharT> starts
// on N characters of inline storage and moves to the heap only when a text outgrows it, so a
// typical message is formatted without touching the allocator.
//
// Capacity is capped below 2^31 characters; a request beyond it fails the assertion
// "nSize < (1ULL << 31)" and the append that needed it is dropped whole, leaving the buffer as
// it was.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

#include "zq/webkeel/assert.h"
#include "zq/webkeel/string.h"

namespace kiv {

template <typename CharT>
class StringBufferBaseTemplate {
public:
    using value_type = CharT;

    StringBufferBaseTemplate() noexcept : StringBufferBaseTemplate(nullptr, 0) {}
    ~StringBufferBaseTemplate() { freeHeap(); }
    StringBufferBaseTemplate(const StringBufferBaseTemplate&) = delete;
    StringBufferBaseTemplate& operator=(const StringBufferBaseTemplate&) = delete;

    std::size_t size() const noexcept { return m_nSize; }
    std::size_t length() const noexcept { return m_nSize; }
    bool empty() const noexcept { return m_nSize == 0; }
    std::size_t capacity() const noexcept { return m_nCapacity; }
    bool isOnHeap() const noexcept { return m_pBuf != nullptr && m_pBuf != m_pInline; }
    const CharT* data() const noexcept { return m_pBuf != nullptr ? m_pBuf : emptyText(); }
    const CharT* c_str() const noexcept { return data(); }
    std::basic_string_view<CharT> view() const noexcept { return {data(), m_nSize}; }
    BasicString<CharT> toString() const { return BasicString<CharT>(data(), m_nSize); }
    CharT operator[](std::size_t i) const noexcept { return m_pBuf[i]; }

    // Empties the buffer and keeps its storage for the next text.
    void clear() noexcept {
        m_nSize = 0;
        if (m_pBuf != nullptr) {
            m_pBuf[0] = 0;
        }
    }

    // Shortens the text to n characters (no effect when it is shorter already).
    void truncate(std::size_t n) noexcept {
        if (n < m_nSize) {
            m_nSize = n;
            m_pBuf[n] = 0;
        }
    }

    // Makes room for nSize characters plus the terminator. False when the request is refused.
    bool reserve(std::size_t nSize) {
        if (nSize <= m_nCapacity && m_pBuf != nullptr) {
            return true;
        }
        ZQ_ASSERT(nSize < (1ULL << 31));
        if (!(nSize < (1ULL << 31))) {
            return false;
        }
        std::size_t nNewCapacity = m_nCapacity < 32 ? 32 : m_nCapacity;
        while (nNewCapacity < nSize) {
            nNewCapacity *= 2;
        }
        if (nNewCapacity >= (1ULL << 31)) {
            nNewCapacity = (1ULL << 31) - 1;
        }
        CharT* pNew = new CharT[nNewCapacity + 1];
        if (m_nSize != 0) {
            std::memcpy(pNew, m_pBuf, m_nSize * sizeof(CharT));
        }
        pNew[m_nSize] = 0;
        freeHeap();
        m_pBuf = pNew;
        m_nCapacity = nNewCapacity;
        return true;
    }

    StringBufferBaseTemplate& append(const CharT* p, std::size_t n) {
        if (n == 0) {
            return *this;
        }
        if (m_nSize + n > m_nCapacity || m_pBuf == nullptr) {
            if (!reserve(m_nSize + n)) {
                return *this;
            }
        }
        std::memcpy(m_pBuf + m_nSize, p, n * sizeof(CharT));
        m_nSize += n;
        m_pBuf[m_nSize] = 0;
        return *this;
    }
    StringBufferBaseTemplate& append(std::basic_string_view<CharT> v) {
        return append(v.data(), v.size());
    }
    StringBufferBaseTemplate& append(const BasicString<CharT>& s) {
        return append(s.data(), s.size());
    }
    StringBufferBaseTemplate& append(const CharT* psz) {
        return psz != nullptr ? append(psz, std::char_traits<CharT>::length(psz)) : *this;
    }
    StringBufferBaseTemplate& append(CharT c) { return append(&c, 1); }
    StringBufferBaseTemplate& append(std::size_t nCount, CharT c) {
        for (std::size_t i = 0; i < nCount; ++i) {
            append(c);
        }
        return *this;
    }

    // Appends the decimal text of a number.
    StringBufferBaseTemplate& appendUnsigned(unsigned long long n) {
        CharT arrDigits[24];
        std::size_t nPos = sizeof(arrDigits) / sizeof(CharT);
        do {
            arrDigits[--nPos] = static_cast<CharT>('0' + n % 10);
            n /= 10;
        } while (n != 0);
        return append(arrDigits + nPos, sizeof(arrDigits) / sizeof(CharT) - nPos);
    }
    StringBufferBaseTemplate& appendSigned(long long n) {
        if (n < 0) {
            append(static_cast<CharT>('-'));
            return appendUnsigned(0ULL - static_cast<unsigned long long>(n));
        }
        return appendUnsigned(static_cast<unsigned long long>(n));
    }

protected:
    StringBufferBaseTemplate(CharT* pInline, std::size_t nInlineCapacity) noexcept
        : m_pBuf(pInline), m_pInline(pInline), m_nSize(0), m_nCapacity(nInlineCapacity) {
        if (m_pBuf != nullptr) {
            m_pBuf[0] = 0;
        }
    }

private:
    static const CharT* emptyText() noexcept {
        static const CharT s_empty[1] = {0};
        return s_empty;
    }
    void freeHeap() noexcept {
        if (isOnHeap()) {
            delete[] m_pBuf;
        }
    }

    CharT* m_pBuf;
    CharT* m_pInline;
    std::size_t m_nSize;
    std::size_t m_nCapacity;  // characters, not counting the terminator
};

template <std::size_t N, typename CharT>
class StringBufferTemplate : public StringBufferBaseTemplate<CharT> {
public:
    StringBufferTemplate() noexcept : StringBufferBaseTemplate<CharT>(m_arrInline, N) {}
    explicit StringBufferTemplate(std::basic_string_view<CharT> v) : StringBufferTemplate() {
        this->append(v);
    }

private:
    CharT m_arrInline[N + 1];
};

using WStringBuffer = StringBufferBaseTemplate<wchar_t>;

}  // namespace kiv

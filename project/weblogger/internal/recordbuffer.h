// The bytes of one rendered record, gathered before they go to their file.
//
// The file writer renders a message into the calling thread's RecordBuffer without holding its
// lock, then copies the whole record into its log file under the lock (filelogwriter.h): two
// threads logging to one file render at the same time, and the lock covers only the copy.
//
// It is the byte sink that the UTF-8 adaptors write to: write() for bytes that are already
// UTF-8, writeUtf8() for wide text, encoded straight into the buffer. The storage grows as a
// record needs and is kept for the next one, so a thread renders without allocating once it has
// seen its longest message; storage beyond kKeptBytes is given back at the next clear, so that
// one huge message does not pin its memory for the rest of the thread's life. Growing throws
// std::bad_alloc when memory runs out; the log call's entry point swallows it.
//
// Thread-safety: none; each thread has its own (see RenderScratch in messagewriter.h).
#pragma once

#include <cstddef>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>

#include "zq/webkeel/encoding.h"
#include "zq/webkeel/memalloc.h"

namespace kiv {

class RecordBuffer : public MemAllocNewdel {
public:
    // The first storage: a few ordinary lines.
    static constexpr std::size_t kInitialBytes = 4096;
    // The most that clear() keeps for the next record.
    static constexpr std::size_t kKeptBytes = 256 * 1024;

    RecordBuffer() noexcept = default;
    RecordBuffer(const RecordBuffer&) = delete;
    RecordBuffer& operator=(const RecordBuffer&) = delete;

    // Inline in the renderer however large it grows: a record is a dozen of these.
    [[gnu::always_inline]] void write(const void* p, unsigned long n) {
        if (n <= m_nCapacity - m_nSize && n != 0) {
            char* const pTo = m_pBuffer.get() + m_nSize;
            const auto* const pFrom = static_cast<const char*>(p);
            m_nSize += n;
            // Most pieces of a line are a few bytes ("] [", a level word): copied inline by two
            // fixed-size moves that overlap as needed, instead of a call to memcpy.
            if (n >= 8 && n <= 16) {
                copyFixed<8>(pTo, pFrom);
                copyFixed<8>(pTo + n - 8, pFrom + n - 8);
            } else if (n >= 4 && n < 8) {
                copyFixed<4>(pTo, pFrom);
                copyFixed<4>(pTo + n - 4, pFrom + n - 4);
            } else if (n < 4) {
                pTo[0] = pFrom[0];
                pTo[n / 2] = pFrom[n / 2];
                pTo[n - 1] = pFrom[n - 1];
            } else {
                std::memcpy(pTo, pFrom, n);
            }
            return;
        }
        writeGrowing(p, n);
    }
    // Wide text as UTF-8, encoded in place: the same bytes as converting it first and writing
    // them, without the copy.
    void writeUtf8(const wchar_t* p, std::size_t n) {
        // A message's pieces are short: encoded straight into the room there is, inline.
        if (n <= kInlinePieceChars && n * kMaxBytesPerChar <= m_nCapacity - m_nSize) {
            m_nSize += T2NEncodingUTF8<wchar_t>::encodeAll(p, n, m_pBuffer.get() + m_nSize);
            return;
        }
        writeUtf8Growing(p, n);
    }

    // Room for n more bytes, for a caller that writes into the buffer itself; commit then keeps
    // what it wrote. Growing throws as write() does.
    char* reserve(std::size_t n) {
        if (n > m_nCapacity - m_nSize) [[unlikely]] {
            reserveMore(n);
        }
        return m_pBuffer.get() + m_nSize;
    }
    // Keeps the first n bytes of the room reserve() gave.
    void commit(std::size_t n) noexcept { m_nSize += n; }

    // Empties the buffer for the next record.
    void clear() noexcept {
        m_nSize = 0;
        m_tSecond = kNoSecond;
        if (m_nCapacity > kKeptBytes) [[unlikely]] {
            release();
        }
    }
    const char* data() const noexcept { return m_pBuffer.get(); }
    std::size_t size() const noexcept { return m_nSize; }
    std::size_t capacity() const noexcept { return m_nCapacity; }

    // The wall-clock second the renderer stamped the record with, so that the file writer's
    // once-a-second check needs no clock reading of its own; kNoSecond until one is set.
    static constexpr std::time_t kNoSecond = std::numeric_limits<std::time_t>::min();
    void setSecond(std::time_t tSecond) noexcept { m_tSecond = tSecond; }
    std::time_t getSecond() const noexcept { return m_tSecond; }

private:
    static constexpr std::size_t kMaxBytesPerChar = 4;

    template <std::size_t N>
    [[gnu::always_inline]] static void copyFixed(char* pTo, const char* pFrom) noexcept {
        char arrBytes[N];
        std::memcpy(arrBytes, pFrom, N);
        std::memcpy(pTo, arrBytes, N);
    }
    static constexpr std::size_t kInlinePieceChars = 256;

    void writeGrowing(const void* p, std::size_t n);
    void writeUtf8Growing(const wchar_t* p, std::size_t n);
    // Room for n more bytes.
    void reserveMore(std::size_t n);
    void release() noexcept;

    std::unique_ptr<char[]> m_pBuffer;
    std::size_t m_nSize = 0;
    std::size_t m_nCapacity = 0;
    std::time_t m_tSecond = kNoSecond;
};

}  // namespace kiv

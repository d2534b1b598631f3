// The adaptors through which a message writer hands rendered text to its output.
//
// A message writer never touches a stream itself: it calls Adaptor::write(stream, text) and the
// adaptor decides what reaches the stream. Adaptors are stateless classes of static functions,
// stacked as template arguments: an encoding adaptor transforms the text and passes the result
// to the adaptor it wraps, so one message writer template serves every output.
//
//   WriterAdapter<Stream>               wide text appended to a wide string buffer
//   StreamWriterAdapter<Stream, ByteT>  bytes written to a byte sink (the log file)
//   EncodingAdapter<Inner, Encoding>    wide text converted by Encoding, passed on to Inner
//   Utf8InPlaceAdaptor                  wide text to a stream that encodes UTF-8 itself
//   HoopyAdaptor                        wide text as UTF-8, handed to the console in one piece
//
// For example, EncodingAdapter<Utf8InPlaceAdaptor, W2WXmlEncoding> escapes a value for XML and
// hands the escaped text to the log file, which encodes it as UTF-8 into its buffer.
//
// Each adaptor has three write forms (pointer and length; NUL-terminated pointer; string), and
// the last two only find the length and call the first.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

#include "zq/webkeel/assert.h"
#include "zq/webkeel/encoding.h"
#include "zq/webkeel/string.h"
#include "zq/webkeel/stringbuffer.h"

namespace kiv {

// Appends wide text to a wide string buffer (StringBufferBaseTemplate<wchar_t>, or anything
// with the same append).
template <class Stream>
class WriterAdapter {
public:
    static void write(Stream* out, const wchar_t* p, std::size_t n) { out->append(p, n); }
    static void write(Stream* out, const wchar_t* psz) {
        if (psz != nullptr) {
            write(out, psz, std::char_traits<wchar_t>::length(psz));
        }
    }
    static void write(Stream* out, const String& s) { write(out, s.data(), s.size()); }
};

// Writes bytes (the output of an encoding adaptor) to a byte sink with
// write(const void* data, unsigned long n), such as the log file.
template <class Stream, class ByteT>
class StreamWriterAdapter {
public:
    static void write(Stream* out, const ByteT* p, std::size_t n) { out->write(p, n); }
    static void write(Stream* out, const ByteT* psz) {
        if (psz != nullptr) {
            write(out, psz, std::char_traits<ByteT>::length(psz));
        }
    }
    static void write(Stream* out, const BasicString<ByteT>& s) { write(out, s.data(), s.size()); }
};

// Converts wide text with Encoding (T2NEncodingUTF8<wchar_t>, W2WXmlEncoding) and passes the
// output to Inner, whose write must accept Encoding::OutputUnit text.
//
// The text is taken in chunks of at most kChunkChars characters, each converted into a stack
// buffer of kBufferUnits output units, so that no call allocates however long the text. The
// converters are stateless, so a chunk boundary never changes the output. UTF-8 needs at most
// four bytes per character and a chunk always fits; XML escaping may need six units per
// character, and when a chunk does not fit, the full buffer is passed on and the rest of the
// chunk converted after it: text is never cut off. Inner therefore sees one write per chunk
// normally, and more for heavily escaped text.
template <class Inner, class Encoding>
class EncodingAdapter {
public:
    static constexpr std::size_t kChunkChars = 256;
    static constexpr std::size_t kBufferUnits = 1024;

    template <class Stream>
    static void write(Stream* out, const wchar_t* p, std::size_t n) {
        if (n == 0) {
            return;
        }
        const Encoding encoding{};
        typename Encoding::OutputUnit arrBuffer[kBufferUnits];
        while (n != 0) {
            const std::size_t nChunk = std::min(n, kChunkChars);
            const wchar_t* pLeft = p;
            std::size_t nLeft = nChunk;
            while (nLeft != 0) {
                std::size_t nProduced = 0;
                std::size_t nConsumed = 0;
                encoding.encode(pLeft, nLeft, arrBuffer, kBufferUnits, nProduced, nConsumed);
                // An encoding whose single character outgrows the whole buffer could never
                // progress; the rest of the chunk is dropped rather than looping for ever.
                ZQ_ASSERT(nConsumed != 0);
                if (nConsumed == 0) {
                    break;
                }
                if (nProduced != 0) {
                    Inner::write(out, arrBuffer, nProduced);
                }
                pLeft += nConsumed;
                nLeft -= nConsumed;
            }
            p += nChunk;
            n -= nChunk;
        }
    }
    template <class Stream>
    static void write(Stream* out, const wchar_t* psz) {
        if (psz != nullptr) {
            write(out, psz, std::char_traits<wchar_t>::length(psz));
        }
    }
    template <class Stream>
    static void write(Stream* out, const String& s) {
        write(out, s.data(), s.size());
    }
};

// Wide text to a stream that encodes UTF-8 into its own buffer (RecordBuffer::writeUtf8):
// the same bytes as EncodingAdapter<StreamWriterAdapter<Stream, char>, T2NEncodingUTF8>, without
// the copy through a chunk buffer. Under an XML escaping adaptor it receives the escaped text.
class Utf8InPlaceAdaptor {
public:
    template <class Stream>
    static void write(Stream* out, const wchar_t* p, std::size_t n) {
        out->writeUtf8(p, n);
    }
    template <class Stream>
    static void write(Stream* out, const wchar_t* psz) {
        if (psz != nullptr) {
            write(out, psz, std::char_traits<wchar_t>::length(psz));
        }
    }
    template <class Stream>
    static void write(Stream* out, const String& s) {
        write(out, s.data(), s.size());
    }
};

// Whether an adaptor hands UTF-8 to its stream's write(bytes, count) unchanged: text that is
// already encoded (the thread's ECID) can then be copied into the stream as it is, with no
// conversion. True for the UTF-8 adaptors of byte streams; false for escaping adaptors, whose
// output differs from their input, and for the console, which gathers its text first.
template <class Adaptor>
struct TakesUtf8Bytes : std::false_type {};
template <>
struct TakesUtf8Bytes<Utf8InPlaceAdaptor> : std::true_type {};
template <class Stream>
struct TakesUtf8Bytes<EncodingAdapter<StreamWriterAdapter<Stream, char>, T2NEncodingUTF8<wchar_t>>>
    : std::true_type {};

// The console's conversion: the whole text as UTF-8, handed to the stream's
// writeBytes(const void*, unsigned long) in a single call, so that the console stream is entered
// once per piece of text however long it is, and never sees part of a character. Empty text
// writes nothing.
//
// The bytes are gathered in a narrow buffer with kInlineBytes of inline storage (a text of up
// to a quarter of that many characters converts without allocating) that grows on the heap for
// longer text. The text is converted in pieces of a quarter of the buffer's free space, four
// bytes per character being the worst case, but at least kMinPieceChars so that a nearly full
// buffer grows in useful steps. A piece is first given three bytes per character, enough for
// the whole Basic Multilingual Plane, so only text beyond it pays for a second attempt with
// more. A piece never ends between the two halves of a surrogate pair, should text ever hold
// UTF-16 pairs.
class HoopyAdaptor {
public:
    static constexpr std::size_t kInlineBytes = 511;
    static constexpr std::size_t kMinPieceChars = 64;

    template <class Stream>
    static void write(Stream* out, const wchar_t* p, std::size_t n) {
        if (n == 0) {
            return;
        }
        StringBufferTemplate<kInlineBytes, char> buffer;
        while (n != 0) {
            const std::size_t nFree = buffer.capacity() - buffer.size();
            std::size_t nPiece = std::min({std::max(nFree / 4, kMinPieceChars), n, kMaxPieceChars});
            if (nPiece < n && nPiece > 1 && isLowSurrogate(p[nPiece])) {
                --nPiece;
            }
            if (!appendPiece(buffer, p, nPiece)) {
                break;
            }
            p += nPiece;
            n -= nPiece;
        }
        // The buffer keeps its text NUL-terminated, for streams that hand it on as a C string.
        out->writeBytes(buffer.data(), buffer.size());
    }
    template <class Stream>
    static void write(Stream* out, const wchar_t* psz) {
        if (psz != nullptr) {
            write(out, psz, std::char_traits<wchar_t>::length(psz));
        }
    }
    template <class Stream>
    static void write(Stream* out, const String& s) {
        write(out, s.data(), s.size());
    }

private:
    // The narrow buffer cannot lend its free space to the converter, so a piece is converted on
    // the stack first; this bounds the piece whatever the buffer's free space.
    static constexpr std::size_t kScratchBytes = 1024;
    static constexpr std::size_t kMaxPieceChars = kScratchBytes / 4;

    static bool isLowSurrogate(wchar_t c) noexcept { return c >= 0xDC00 && c <= 0xDFFF; }

    // Converts one piece and appends it; false when the buffer cannot grow any more.
    static bool appendPiece(StringBufferBaseTemplate<char>& buffer, const wchar_t* p,
                            std::size_t n) {
        char arrScratch[kScratchBytes];
        std::size_t nReserve = n * 3;
        for (;;) {
            if (!buffer.reserve(buffer.size() + nReserve)) {
                return false;
            }
            std::size_t nWritten = 0;
            if (T2NEncodingUTF8<wchar_t>::encode(p, n, arrScratch, nReserve, nWritten)) {
                buffer.append(arrScratch, nWritten);
                return true;
            }
            const std::size_t nNext = std::min(nReserve * 2, n * 4);
            // Four bytes per character always suffice; this only guards against looping.
            ZQ_ASSERT(nNext > nReserve);
            if (nNext <= nReserve) {
                return false;
            }
            nReserve = nNext;
        }
    }
};

}  // namespace kiv

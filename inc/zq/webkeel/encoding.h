// The in-house transcoding converters that the output adaptors stack on top of one another.
//
// A converter turns a run of wide text into output units (bytes for UTF-8, wide characters for
// markup escaping) in a buffer the caller owns. Converters hold no state between calls, so a
// caller may cut its text anywhere between two characters and encode the pieces separately: the
// concatenated results equal the result for the whole text.
//
// Every converter offers a resumable encode that converts as many whole characters as fit and
// reports how much input it consumed, so that a caller with a fixed buffer can flush it and go
// on. Nothing is ever half-written: a character whose output does not fit is left for the next
// call.
#pragma once

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <cstddef>
#include <cstring>

#include "zq/webkeel/transcode.h"

namespace kiv {

// Wide text to UTF-8. The text is UTF-32; code units that are not Unicode scalar values
// (surrogates, values above U+10FFFF) are written as U+FFFD, exactly as encodeUtf8 does.
template <class CharT>
class T2NEncodingUTF8 {
    // The code units are taken as whole code points: a 16-bit instantiation would have to join
    // surrogate pairs, which none of the library's text ever needs.
    static_assert(sizeof(CharT) == 4, "T2NEncodingUTF8 converts UTF-32 text");

public:
    using OutputUnit = char;

    enum Utf8ByteType { kAsciiCharacter = 0, kInitialByte = 1, kSecondaryByte = 2 };

    // The role of one byte in UTF-8 text, judged by its bit pattern alone: 0xxxxxxx is a
    // character by itself, 10xxxxxx continues a sequence, and every other byte stands where a
    // sequence starts (including bytes that no valid sequence starts with, which this does not
    // check).
    static Utf8ByteType byteType(unsigned char b) noexcept {
        if (b < 0x80) {
            return kAsciiCharacter;
        }
        return (b & 0xC0) == 0x80 ? kSecondaryByte : kInitialByte;
    }

    // Converts the whole input or nothing: false when nOutCapacity bytes cannot hold it, in
    // which case nOutWritten is 0 and pOut holds nothing meaningful. Four bytes per input
    // character always suffice.
    static bool encode(const CharT* pIn, std::size_t nIn, char* pOut, std::size_t nOutCapacity,
                       std::size_t& nOutWritten) noexcept {
        std::size_t nInConsumed = 0;
        if (!encode(pIn, nIn, pOut, nOutCapacity, nOutWritten, nInConsumed)) {
            nOutWritten = 0;
            return false;
        }
        return true;
    }

    // Resumable form: converts the leading characters whose sequences fit. True when the whole
    // input was consumed.
    static bool encode(const CharT* pIn, std::size_t nIn, char* pOut, std::size_t nOutCapacity,
                       std::size_t& nOutWritten, std::size_t& nInConsumed) noexcept {
        std::size_t nOut = 0;
        std::size_t i = 0;
        // When the whole input fits even at 4 bytes a character, no capacity test is needed per
        // character: the common case, since callers size their buffers for it.
        if (nIn <= nOutCapacity / kMaxSequenceBytes) {
            nOutWritten = encodeAll(pIn, nIn, pOut);
            nInConsumed = nIn;
            return true;
        }
        for (; i < nIn; ++i) {
            const wchar_t c = static_cast<wchar_t>(pIn[i]);
            // Log text is mostly ASCII: one byte, no sequence to build.
            if (static_cast<std::uint32_t>(c) < 0x80 && nOut < nOutCapacity) {
                pOut[nOut++] = static_cast<char>(c);
                continue;
            }
            if (nOutCapacity - nOut >= kMaxSequenceBytes) {
                nOut += encodeUtf8(c, pOut + nOut);
                continue;
            }
            // Near the end of the buffer the sequence length decides whether it fits, so it is
            // built aside first rather than written past the capacity.
            char arrSequence[kMaxSequenceBytes];
            const std::size_t nSequence = encodeUtf8(c, arrSequence);
            if (nSequence > nOutCapacity - nOut) {
                break;
            }
            std::memcpy(pOut + nOut, arrSequence, nSequence);
            nOut += nSequence;
        }
        nOutWritten = nOut;
        nInConsumed = i;
        return i == nIn;
    }

    // Encodes pIn up to its first stop character (all of it when there is none) into pOut,
    // which has room for 4 * nIn bytes. Returns the bytes written and sets
    // nInConsumed to the characters encoded: the stop character, when found, is not one of them.
    // One pass finds the stop and encodes, eight ASCII characters at a time where the processor
    // lets us: what a template expansion needs between two of its markers.
    static std::size_t encodeUntil(const CharT* pIn, std::size_t nIn, CharT stop, char* pOut,
                                   std::size_t& nInConsumed) noexcept {
        return encodeRun<true>(pIn, nIn, stop, pOut, nInConsumed);
    }
    // Encodes the whole of pIn into pOut, which has room for 4 * nIn bytes, and returns the bytes
    // written: inline, without the capacity checks of the resumable encode.
    static std::size_t encodeAll(const CharT* pIn, std::size_t nIn, char* pOut) noexcept {
        std::size_t nInConsumed = 0;
        return encodeRun<false>(pIn, nIn, CharT(), pOut, nInConsumed);
    }

private:
    static constexpr std::size_t kMaxSequenceBytes = 4;

    template <bool kStops>
    static std::size_t encodeRun(const CharT* pIn, std::size_t nIn, CharT stop, char* pOut,
                                 std::size_t& nInConsumed) noexcept {
        std::size_t i = 0;
        std::size_t nOut = 0;
#if defined(__SSE2__)
        const __m128i high = _mm_set1_epi32(static_cast<int>(0xFFFFFF80u));
        const __m128i zero = _mm_setzero_si128();
        const __m128i stops = _mm_set1_epi32(static_cast<int>(stop));
        while (i + 8 <= nIn) {
            const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pIn + i));
            const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pIn + i + 4));
            // A lane goes on the run when it is ASCII (and not the stop character).
            __m128i goesA = _mm_cmpeq_epi32(_mm_and_si128(a, high), zero);
            __m128i goesB = _mm_cmpeq_epi32(_mm_and_si128(b, high), zero);
            if constexpr (kStops) {
                goesA = _mm_andnot_si128(_mm_cmpeq_epi32(a, stops), goesA);
                goesB = _mm_andnot_si128(_mm_cmpeq_epi32(b, stops), goesB);
            }
            const __m128i goes16 = _mm_packs_epi32(goesA, goesB);
            const unsigned nGoes =
                static_cast<unsigned>(_mm_movemask_epi8(_mm_packs_epi16(goes16, zero))) & 0xFFu;
            // Values below 0x80 survive both narrowing packs unchanged; the bytes of lanes past
            // the run are written over or left beyond the end. Eight bytes always fit: at least
            // eight characters remain, and each has four bytes of room.
            const __m128i words = _mm_packs_epi32(a, b);
            _mm_storel_epi64(reinterpret_cast<__m128i*>(pOut + nOut),
                             _mm_packus_epi16(words, zero));
            if (nGoes == 0xFFu) {
                i += 8;
                nOut += 8;
                continue;
            }
            const unsigned nRun = static_cast<unsigned>(__builtin_ctz(~nGoes));
            i += nRun;
            nOut += nRun;
            if (kStops && pIn[i] == stop) {
                nInConsumed = i;
                return nOut;
            }
            nOut += encodeUtf8(static_cast<wchar_t>(pIn[i]), pOut + nOut);
            ++i;
        }
#endif
        for (; i < nIn; ++i) {
            const CharT c = pIn[i];
            if (kStops && c == stop) {
                break;
            }
            if (static_cast<std::uint32_t>(c) < 0x80) {
                pOut[nOut++] = static_cast<char>(c);
            } else {
                nOut += encodeUtf8(static_cast<wchar_t>(c), pOut + nOut);
            }
        }
        nInConsumed = i;
        return nOut;
    }
};

// Wide text to wide text escaped for SGML-family markup (XML and HTML), as character data or
// attribute values.
//
//   type                 &      <     >     "       '       U+00A0
//   kXML                 &amp;  &lt;  &gt;  &quot;  &apos;  as is
//   kXMLNoQuotes         &amp;  &lt;  &gt;  as is   as is   as is
//   kHTML                &amp;  &lt;  &gt;  &quot;  &#39;   as is
//   kHTMLNoBreakSpaces   &amp;  &lt;  &gt;  &quot;  &#39;   &nbsp;
//
// HTML gets &#39; because &apos; is not an HTML 4 entity. With every type, a character that XML
// 1.0 does not allow anywhere in its text (C0 controls other than tab, line feed and carriage
// return; U+FFFE and U+FFFF; surrogate code units, which never form pairs in UTF-32 text; values
// above U+10FFFF) is written as U+FFFD. A log line carries whatever text the server was handed, and
// one stray control character must not make a whole XML log unreadable.
class W2WEncodingSGML {
public:
    using OutputUnit = wchar_t;

    enum SGMLType { kXML = 0, kHTML = 1, kHTMLNoBreakSpaces = 2, kXMLNoQuotes = 3 };

    explicit W2WEncodingSGML(SGMLType nType) noexcept : m_nType(nType) {}

    SGMLType type() const noexcept { return m_nType; }

    // Escapes the leading characters whose output fits into nOutCapacity units and stops before
    // the first one that does not. True when the whole input was consumed; six units per input
    // character always suffice.
    bool encode(const wchar_t* pIn, std::size_t nIn, wchar_t* pOut, std::size_t nOutCapacity,
                std::size_t& nOutWritten, std::size_t& nInConsumed) const noexcept;

private:
    SGMLType m_nType;
};

// The escaping the log formats use: XML with quotes escaped, so that the text is safe in
// character data and in attribute values alike.
class W2WXmlEncoding : public W2WEncodingSGML {
public:
    W2WXmlEncoding() noexcept : W2WEncodingSGML(kXML) {}
};

// Wide text to wide text escaped for the inside of a JSON string (RFC 8259), so that a value
// written between two quotation marks always parses back to the text it came from:
//
//   "  \    U+0008  U+000C  U+000A  U+000D  U+0009  other U+0000..U+001F
//   \"  \\   \b      \f      \n      \r      \t      \u00xx (lower-case hex digits)
//
// Everything else passes as it is, characters beyond U+FFFF included: the text is meant to be
// written as UTF-8, where they need no escape. Code units that are not Unicode scalar values
// (surrogates, which never form pairs in UTF-32 text, and values above U+10FFFF) are written as
// U+FFFD, so that the escaped text is valid Unicode whatever a caller handed in. U+007F and the
// line and paragraph separators U+2028, U+2029 are valid JSON as they are and stay so.
class W2WJsonEncoding {
public:
    using OutputUnit = wchar_t;

    // Escapes the leading characters whose output fits into nOutCapacity units and stops before
    // the first one that does not. True when the whole input was consumed; six units per input
    // character always suffice.
    bool encode(const wchar_t* pIn, std::size_t nIn, wchar_t* pOut, std::size_t nOutCapacity,
                std::size_t& nOutWritten, std::size_t& nInConsumed) const noexcept;
};

}  // namespace kiv

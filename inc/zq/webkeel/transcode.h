// Conversions between the library's wide text and UTF-8.
//
// Code points that are not Unicode scalar values (surrogates, values above U+10FFFF) are
// written as U+FFFD; malformed UTF-8 input (bad lead bytes, truncated or overlong sequences,
// encoded surrogates) decodes to one U+FFFD per offending sequence. Neither direction throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "zq/webkeel/string.h"
#include "zq/webkeel/stringbuffer.h"

namespace kiv {

constexpr wchar_t kReplacementChar = 0xFFFD;

// Appends the UTF-8 form of one code point; returns the byte count written (1..4). Inline:
// rendering calls it for every character of every message.
inline std::size_t encodeUtf8(wchar_t wc, char* pOut) noexcept {
    std::uint32_t c = static_cast<std::uint32_t>(wc);
    if (c < 0x80) {
        pOut[0] = static_cast<char>(c);
        return 1;
    }
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
        c = 0xFFFD;
    }
    if (c < 0x800) {
        pOut[0] = static_cast<char>(0xC0 | (c >> 6));
        pOut[1] = static_cast<char>(0x80 | (c & 0x3F));
        return 2;
    }
    if (c < 0x10000) {
        pOut[0] = static_cast<char>(0xE0 | (c >> 12));
        pOut[1] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        pOut[2] = static_cast<char>(0x80 | (c & 0x3F));
        return 3;
    }
    pOut[0] = static_cast<char>(0xF0 | (c >> 18));
    pOut[1] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    pOut[2] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    pOut[3] = static_cast<char>(0x80 | (c & 0x3F));
    return 4;
}

// Decodes the sequence at the start of bytes (which is not empty): returns its code point and
// sets nUsed to the bytes it took. Inline and constexpr: it decodes every narrow text at run
// time, and the templates of log calls at compile time.
constexpr wchar_t decodeUtf8(std::string_view bytes, std::size_t& nUsed) noexcept {
    const auto byteAt = [&bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned char b0 = byteAt(0);
    nUsed = 1;
    if (b0 < 0x80) {
        return static_cast<wchar_t>(b0);
    }
    std::size_t nLen = 0;
    std::uint32_t c = 0;
    std::uint32_t nMin = 0;
    if ((b0 & 0xE0) == 0xC0) {
        nLen = 2, c = b0 & 0x1F, nMin = 0x80;
    } else if ((b0 & 0xF0) == 0xE0) {
        nLen = 3, c = b0 & 0x0F, nMin = 0x800;
    } else if ((b0 & 0xF8) == 0xF0) {
        nLen = 4, c = b0 & 0x07, nMin = 0x10000;
    } else {
        return kReplacementChar;
    }
    for (std::size_t i = 1; i < nLen; ++i) {
        if (i >= bytes.size() || (byteAt(i) & 0xC0) != 0x80) {
            nUsed = i;
            return kReplacementChar;
        }
        c = (c << 6) | (byteAt(i) & 0x3F);
    }
    nUsed = nLen;
    if (c < nMin || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
        return kReplacementChar;
    }
    return static_cast<wchar_t>(c);
}

void appendUtf8(std::string& out, std::wstring_view text);
void appendUtf8(StringBufferBaseTemplate<char>& out, std::wstring_view text);
NString toUtf8(std::wstring_view text);

void appendFromUtf8(std::wstring& out, std::string_view bytes);
void appendFromUtf8(StringBufferBaseTemplate<wchar_t>& out, std::string_view bytes);
String fromUtf8(std::string_view bytes);

// ASCII-only widening, for the library's own constant texts and numbers.
String widen(std::string_view ascii);

}  // namespace kiv

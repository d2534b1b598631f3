// Conversions between the library's wide text and UTF-8.
//
// Code points that are not Unicode scalar values (surrogates, values above U+10FFFF) are
// written as U+FFFD; malformed UTF-8 input (bad lead bytes, truncated or overlong sequences,
// encoded surrogates) decodes to one U+FFFD per offending sequence. Neither direction throws.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "zq/webkeel/string.h"
#include "zq/webkeel/stringbuffer.h"

namespace kiv {

constexpr wchar_t kReplacementChar = 0xFFFD;

// Appends the UTF-8 form of one code point; returns the byte count written (1..4).
std::size_t encodeUtf8(wchar_t c, char* pOut) noexcept;

void appendUtf8(std::string& out, std::wstring_view text);
void appendUtf8(StringBufferBaseTemplate<char>& out, std::wstring_view text);
NString toUtf8(std::wstring_view text);

void appendFromUtf8(std::wstring& out, std::string_view bytes);
void appendFromUtf8(StringBufferBaseTemplate<wchar_t>& out, std::string_view bytes);
String fromUtf8(std::string_view bytes);

// ASCII-only widening, for the library's own constant texts and numbers.
String widen(std::string_view ascii);

}  // namespace kiv

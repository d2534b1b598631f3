#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

bool isScalarValue(std::uint32_t c) noexcept {
    return c <= 0x10FFFF && !(c >= 0xD800 && c <= 0xDFFF);
}

// Decodes one sequence at p (n bytes available); returns the code point and sets nUsed.
wchar_t decodeOne(const unsigned char* p, std::size_t n, std::size_t& nUsed) noexcept {
    const unsigned char b0 = p[0];
    nUsed = 1;
    if (b0 < 0x80) {
        return static_cast<wchar_t>(b0);
    }
    std::size_t nLen;
    std::uint32_t c;
    std::uint32_t nMin;
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
        if (i >= n || (p[i] & 0xC0) != 0x80) {
            nUsed = i;
            return kReplacementChar;
        }
        c = (c << 6) | (p[i] & 0x3F);
    }
    nUsed = nLen;
    if (c < nMin || !isScalarValue(c)) {
        return kReplacementChar;
    }
    return static_cast<wchar_t>(c);
}

}  // namespace

void appendUtf8(std::string& out, std::wstring_view text) {
    char arrBytes[4];
    for (wchar_t c : text) {
        out.append(arrBytes, encodeUtf8(c, arrBytes));
    }
}

void appendUtf8(StringBufferBaseTemplate<char>& out, std::wstring_view text) {
    char arrBytes[4];
    for (wchar_t c : text) {
        out.append(arrBytes, encodeUtf8(c, arrBytes));
    }
}

NString toUtf8(std::wstring_view text) {
    std::string out;
    out.reserve(text.size());
    appendUtf8(out, text);
    return NString(std::move(out));
}

void appendFromUtf8(std::wstring& out, std::string_view bytes) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    std::size_t nLeft = bytes.size();
    while (nLeft != 0) {
        std::size_t nUsed;
        out.push_back(decodeOne(p, nLeft, nUsed));
        p += nUsed;
        nLeft -= nUsed;
    }
}

void appendFromUtf8(StringBufferBaseTemplate<wchar_t>& out, std::string_view bytes) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    std::size_t nLeft = bytes.size();
    while (nLeft != 0) {
        std::size_t nUsed;
        out.append(decodeOne(p, nLeft, nUsed));
        p += nUsed;
        nLeft -= nUsed;
    }
}

String fromUtf8(std::string_view bytes) {
    std::wstring out;
    out.reserve(bytes.size());
    appendFromUtf8(out, bytes);
    return String(std::move(out));
}

String widen(std::string_view ascii) {
    std::wstring out;
    out.reserve(ascii.size());
    for (char c : ascii) {
        out.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
    }
    return String(std::move(out));
}

}  // namespace kiv

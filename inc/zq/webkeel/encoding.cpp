#include "zq/webkeel/encoding.h"

#include <cstdint>
#include <string_view>

namespace kiv {
namespace {

constexpr std::wstring_view kAmp = L"&amp;";
constexpr std::wstring_view kLt = L"&lt;";
constexpr std::wstring_view kGt = L"&gt;";
constexpr std::wstring_view kQuot = L"&quot;";
constexpr std::wstring_view kApos = L"&apos;";
constexpr std::wstring_view kAposNumeric = L"&#39;";
constexpr std::wstring_view kNbsp = L"&nbsp;";

// The Char production of XML 1.0.
bool isXmlChar(wchar_t c) noexcept {
    const auto n = static_cast<std::uint32_t>(c);
    if (n < 0x20) {
        return n == 0x09 || n == 0x0A || n == 0x0D;
    }
    if (n < 0xD800) {
        return true;
    }
    if (n < 0xE000) {
        return false;
    }
    if (n < 0x10000) {
        return n != 0xFFFE && n != 0xFFFF;
    }
    return n <= 0x10FFFF;
}

// The escape of c for the given type; an empty view when c is written as a single character.
std::wstring_view escapeFor(wchar_t c, W2WEncodingSGML::SGMLType nType) noexcept {
    switch (c) {
        case L'&':
            return kAmp;
        case L'<':
            return kLt;
        case L'>':
            return kGt;
        case L'"':
            return nType == W2WEncodingSGML::kXMLNoQuotes ? std::wstring_view() : kQuot;
        case L'\'':
            switch (nType) {
                case W2WEncodingSGML::kXML:
                    return kApos;
                case W2WEncodingSGML::kHTML:
                case W2WEncodingSGML::kHTMLNoBreakSpaces:
                    return kAposNumeric;
                case W2WEncodingSGML::kXMLNoQuotes:
                    break;
            }
            return std::wstring_view();
        case 0xA0:
            return nType == W2WEncodingSGML::kHTMLNoBreakSpaces ? kNbsp : std::wstring_view();
        default:
            return std::wstring_view();
    }
}

}  // namespace

bool W2WEncodingSGML::encode(const wchar_t* pIn, std::size_t nIn, wchar_t* pOut,
                             std::size_t nOutCapacity, std::size_t& nOutWritten,
                             std::size_t& nInConsumed) const noexcept {
    std::size_t nOut = 0;
    std::size_t i = 0;
    for (; i < nIn; ++i) {
        const wchar_t c = pIn[i];
        // Most log text is letters and digits past '>' and below U+00A0: none of them needs a
        // look at the escape table.
        const bool bPlain = c > L'>' && c < 0xA0;
        const std::wstring_view escape = bPlain ? std::wstring_view() : escapeFor(c, m_nType);
        if (escape.empty()) {
            if (nOut == nOutCapacity) {
                break;
            }
            pOut[nOut++] = (bPlain || isXmlChar(c)) ? c : kReplacementChar;
            continue;
        }
        if (escape.size() > nOutCapacity - nOut) {
            break;
        }
        std::memcpy(pOut + nOut, escape.data(), escape.size() * sizeof(wchar_t));
        nOut += escape.size();
    }
    nOutWritten = nOut;
    nInConsumed = i;
    return i == nIn;
}

namespace {

// The JSON escape of c into arrEscape; returns its length, 0 when c is written as one unit.
std::size_t jsonEscapeFor(wchar_t c, wchar_t (&arrEscape)[6]) noexcept {
    wchar_t cShort = 0;
    switch (c) {
        case L'"':
            cShort = L'"';
            break;
        case L'\\':
            cShort = L'\\';
            break;
        case L'\b':
            cShort = L'b';
            break;
        case L'\f':
            cShort = L'f';
            break;
        case L'\n':
            cShort = L'n';
            break;
        case L'\r':
            cShort = L'r';
            break;
        case L'\t':
            cShort = L't';
            break;
        default:
            break;
    }
    arrEscape[0] = L'\\';
    if (cShort != 0) {
        arrEscape[1] = cShort;
        return 2;
    }
    if (static_cast<std::uint32_t>(c) >= 0x20) {
        return 0;
    }
    constexpr wchar_t kHexDigits[] = L"0123456789abcdef";
    arrEscape[1] = L'u';
    arrEscape[2] = L'0';
    arrEscape[3] = L'0';
    arrEscape[4] = kHexDigits[(static_cast<std::uint32_t>(c) >> 4) & 0xF];
    arrEscape[5] = kHexDigits[static_cast<std::uint32_t>(c) & 0xF];
    return 6;
}

bool isUnicodeScalar(wchar_t c) noexcept {
    const auto n = static_cast<std::uint32_t>(c);
    return n < 0xD800 || (n >= 0xE000 && n <= 0x10FFFF);
}

}  // namespace

bool W2WJsonEncoding::encode(const wchar_t* pIn, std::size_t nIn, wchar_t* pOut,
                             std::size_t nOutCapacity, std::size_t& nOutWritten,
                             std::size_t& nInConsumed) const noexcept {
    std::size_t nOut = 0;
    std::size_t i = 0;
    for (; i < nIn; ++i) {
        const wchar_t c = pIn[i];
        // Printable ASCII other than the quotation mark and the backslash, the bulk of log
        // text, needs neither the escape table nor the scalar-value test.
        const auto n = static_cast<std::uint32_t>(c);
        const bool bPlain = n >= 0x20 && n < 0xD800 && c != L'"' && c != L'\\';
        wchar_t arrEscape[6];
        const std::size_t nEscape = bPlain ? 0 : jsonEscapeFor(c, arrEscape);
        if (nEscape == 0) {
            if (nOut == nOutCapacity) {
                break;
            }
            pOut[nOut++] = (bPlain || isUnicodeScalar(c)) ? c : kReplacementChar;
            continue;
        }
        if (nEscape > nOutCapacity - nOut) {
            break;
        }
        std::memcpy(pOut + nOut, arrEscape, nEscape * sizeof(wchar_t));
        nOut += nEscape;
    }
    nOutWritten = nOut;
    nInConsumed = i;
    return i == nIn;
}

}  // namespace kiv

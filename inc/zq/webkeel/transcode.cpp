#include "zq/webkeel/transcode.h"

namespace kiv {

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
    while (!bytes.empty()) {
        std::size_t nUsed;
        out.push_back(decodeUtf8(bytes, nUsed));
        bytes.remove_prefix(nUsed);
    }
}

void appendFromUtf8(StringBufferBaseTemplate<wchar_t>& out, std::string_view bytes) {
    while (!bytes.empty()) {
        std::size_t nUsed;
        out.append(decodeUtf8(bytes, nUsed));
        bytes.remove_prefix(nUsed);
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

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
    // Through a small chunk on the stack, so that the buffer checks its room and writes its
    // terminator once per chunk rather than once per character (log inserts render this way).
    constexpr std::size_t kChunk = 64;
    wchar_t arrChunk[kChunk];
    std::size_t nChars = 0;
    while (!bytes.empty()) {
        std::size_t nUsed;
        arrChunk[nChars] = decodeUtf8(bytes, nUsed);
        bytes.remove_prefix(nUsed);
        if (++nChars == kChunk) {
            out.append(arrChunk, nChars);
            nChars = 0;
        }
    }
    out.append(arrChunk, nChars);
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

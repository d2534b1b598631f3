#include "weblogger/internal/configvariables.h"

#include <algorithm>

#include "zq/webkeel/encoding.h"
#include "zq/webkeel/stringbuffer.h"

namespace kiv::logger_details {
namespace {

constexpr std::size_t kEscapeChunkChars = 128;
constexpr std::size_t kEscapeBufferUnits = kEscapeChunkChars * 6;

// Escapes value for XML text straight into out, a chunk at a time through a stack buffer.
void appendEscaped(StringBufferBaseTemplate<wchar_t>& out, std::wstring_view value) {
    const W2WEncodingSGML encoder(W2WEncodingSGML::kXML);
    wchar_t arrBuffer[kEscapeBufferUnits];
    while (!value.empty()) {
        const std::size_t nChunk = std::min(value.size(), kEscapeChunkChars);
        std::size_t nWritten = 0;
        std::size_t nConsumed = 0;
        encoder.encode(value.data(), nChunk, arrBuffer, kEscapeBufferUnits, nWritten, nConsumed);
        out.append(arrBuffer, nWritten);
        // Six units per character always suffice, so a chunk is consumed whole.
        value.remove_prefix(nConsumed != 0 ? nConsumed : nChunk);
    }
}

}  // namespace

String makeReplacements(const String& text, const ReplacementMap& map) {
    StringBufferTemplate<511, wchar_t> out;
    const std::size_t nLength = text.size();
    std::size_t i = 0;
    while (i < nLength) {
        if (i + 1 < nLength && text[i] == L'{' && text[i + 1] == L'%') {
            const std::size_t nEnd = text.view().find(L"%}", i + 2);
            const std::size_t nNameLength =
                nEnd == std::wstring_view::npos ? nLength - (i + 2) : nEnd - (i + 2);
            const String strName(text.data() + i + 2, nNameLength);
            const auto it = map.find(strName);
            if (it != map.end() && !it->second.empty()) {
                appendEscaped(out, it->second.view());
            }
            // Without a closing marker the search gives npos, and npos + 2 wraps to 1.
            i = nEnd + 2;
            continue;
        }
        out.append(text[i]);
        ++i;
    }
    return out.toString();
}

std::size_t findUnterminatedMarker(std::wstring_view text) noexcept {
    std::size_t i = 0;
    while ((i = text.find(L"{%", i)) != std::wstring_view::npos) {
        const std::size_t nEnd = text.find(L"%}", i + 2);
        if (nEnd == std::wstring_view::npos) {
            return i;
        }
        i = nEnd + 2;
    }
    return std::wstring_view::npos;
}

TextPosition positionOf(std::wstring_view text, std::size_t nIndex) noexcept {
    TextPosition position{1, 1};
    const std::size_t nStop = std::min(nIndex, text.size());
    for (std::size_t i = 0; i < nStop; ++i) {
        if (text[i] == L'\n') {
            ++position.nLine;
            position.nColumn = 1;
        } else {
            ++position.nColumn;
        }
    }
    return position;
}

}  // namespace kiv::logger_details

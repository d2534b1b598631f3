#include "weblogger/internal/templatecache.h"

#include <algorithm>
#include <cstring>

#include "zq/webkeel/encoding.h"
#include "zq/webkeel/gdvalue.h"
#include "zq/webutil/message.h"

namespace kiv::logger_details {
namespace {

// One value per insert number, told apart by address: walking a template with a message whose
// every insert is one of these shows each place an insert goes, and which insert it is.
const GDUInteger64 g_arrMarkers[MessageBase::kMaxInserts] = {
    GDUInteger64(1), GDUInteger64(2), GDUInteger64(3), GDUInteger64(4), GDUInteger64(5),
    GDUInteger64(6), GDUInteger64(7), GDUInteger64(8), GDUInteger64(9)};

class EveryInsertSet final : public GDValueImpl<EveryInsertSet, MessageBase> {
public:
    const ExternalMessage* getCatalogueMessage() const noexcept override { return nullptr; }
    const GDValue* getTemplateValue() const noexcept override { return nullptr; }
    unsigned getInsertCount() const noexcept override { return MessageBase::kMaxInserts; }
    const GDValue* getInsert(unsigned nIndex) const noexcept override {
        return nIndex >= 1 && nIndex <= MessageBase::kMaxInserts ? &g_arrMarkers[nIndex - 1]
                                                                 : nullptr;
    }
};

std::uint16_t markerNumber(const GDValue& marker) noexcept {
    return static_cast<std::uint16_t>(static_cast<const GDUInteger64*>(&marker) - g_arrMarkers + 1);
}

}  // namespace

bool Utf8Template::compile(std::wstring_view text, std::uint64_t nFingerprint) noexcept {
    m_pSource = nullptr;
    m_nFingerprint = 0;
    m_nChars = 0;
    m_nSegments = 0;
    if (text.size() > kMaxChars) {
        return false;
    }
    std::size_t nBytes = 0;
    std::size_t nSegmentStart = 0;
    bool bFits = true;
    const auto addText = [&](const wchar_t* p, std::size_t n) {
        std::size_t nWritten = 0;
        if (bFits && T2NEncodingUTF8<wchar_t>::encode(p, n, m_arrUtf8 + nBytes,
                                                      kMaxUtf8Bytes - nBytes, nWritten)) {
            nBytes += nWritten;
        } else {
            bFits = false;
        }
    };
    const auto endSegment = [&](std::uint16_t nInsert) {
        if (m_nSegments == kMaxSegments) {
            bFits = false;
            return;
        }
        m_arrSegments[m_nSegments++] =
            Segment{static_cast<std::uint16_t>(nSegmentStart),
                    static_cast<std::uint16_t>(nBytes - nSegmentStart), nInsert};
        nSegmentStart = nBytes;
    };
    const EveryInsertSet everyInsert;
    PlainTemplate::walk(text, everyInsert, addText,
                        [&](const GDValue& marker) { endSegment(markerNumber(marker)); });
    if (nBytes != nSegmentStart) {
        endSegment(0);
    }
    if (!bFits) {
        m_nSegments = 0;
        return false;
    }
    std::copy(text.begin(), text.end(), m_arrText);
    m_nChars = text.size();
    m_pSource = text.data();
    if (nFingerprint != 0 && GDLiteralText::fingerprintOf(text) == nFingerprint) {
        m_nFingerprint = nFingerprint;
    }
    return true;
}

bool Utf8Template::isFor(std::wstring_view text, std::uint64_t nFingerprint) const noexcept {
    if (m_pSource != text.data() || m_nChars != text.size() || m_pSource == nullptr) {
        return false;
    }
    if (nFingerprint != 0 && nFingerprint == m_nFingerprint) {
        return true;
    }
    return std::memcmp(m_arrText, text.data(), m_nChars * sizeof(wchar_t)) == 0;
}

}  // namespace kiv::logger_details

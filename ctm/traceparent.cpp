#include "traceparent.h"

#include <cstring>

namespace webctm {

namespace {

bool isLowerHex(char c) noexcept {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

bool allLowerHex(std::string_view text) noexcept {
    for (const char c : text) {
        if (!isLowerHex(c)) {
            return false;
        }
    }
    return true;
}

unsigned hexValue(char c) noexcept {
    return c <= '9' ? static_cast<unsigned>(c - '0') : static_cast<unsigned>(c - 'a' + 10);
}

constexpr char kHexDigits[] = "0123456789abcdef";

// Offsets of the fields in a version "00" value.
constexpr std::size_t kTraceIdOffset = 3;
constexpr std::size_t kSpanIdOffset = kTraceIdOffset + kTraceIdHexLength + 1;
constexpr std::size_t kFlagsOffset = kSpanIdOffset + kSpanIdHexLength + 1;

}  // namespace

bool isValidId(std::string_view text, std::size_t n) noexcept {
    if (text.size() != n || !allLowerHex(text)) {
        return false;
    }
    return text.find_first_not_of('0') != std::string_view::npos;
}

bool parseTraceparent(std::string_view text, TraceParent& parent) noexcept {
    if (text.size() < kTraceparentLength) {
        return false;
    }
    const std::string_view version = text.substr(0, 2);
    if (!allLowerHex(version) || version == "ff") {
        return false;
    }
    if (version == "00") {
        if (text.size() != kTraceparentLength) {
            return false;
        }
    } else if (text.size() > kTraceparentLength && text[kTraceparentLength] != '-') {
        // A later version may only add fields after the ones this version knows.
        return false;
    }
    if (text[2] != '-' || text[kSpanIdOffset - 1] != '-' || text[kFlagsOffset - 1] != '-') {
        return false;
    }
    const std::string_view traceId = text.substr(kTraceIdOffset, kTraceIdHexLength);
    const std::string_view spanId = text.substr(kSpanIdOffset, kSpanIdHexLength);
    const std::string_view flags = text.substr(kFlagsOffset, 2);
    if (!isValidId(traceId, kTraceIdHexLength) || !isValidId(spanId, kSpanIdHexLength) ||
        !allLowerHex(flags)) {
        return false;
    }
    std::memcpy(parent.szTraceId, traceId.data(), kTraceIdHexLength);
    parent.szTraceId[kTraceIdHexLength] = '\0';
    std::memcpy(parent.szSpanId, spanId.data(), kSpanIdHexLength);
    parent.szSpanId[kSpanIdHexLength] = '\0';
    parent.nFlags = static_cast<unsigned char>(hexValue(flags[0]) * 16 + hexValue(flags[1]));
    return true;
}

void formatTraceparent(const TraceParent& parent, char* pOut) noexcept {
    pOut[0] = '0';
    pOut[1] = '0';
    pOut[2] = '-';
    std::memcpy(pOut + kTraceIdOffset, parent.szTraceId, kTraceIdHexLength);
    pOut[kSpanIdOffset - 1] = '-';
    std::memcpy(pOut + kSpanIdOffset, parent.szSpanId, kSpanIdHexLength);
    pOut[kFlagsOffset - 1] = '-';
    pOut[kFlagsOffset] = kHexDigits[parent.nFlags >> 4];
    pOut[kFlagsOffset + 1] = kHexDigits[parent.nFlags & 0x0F];
    pOut[kTraceparentLength] = '\0';
}

}  // namespace webctm

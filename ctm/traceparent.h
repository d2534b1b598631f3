// The W3C Trace Context "traceparent" header value: parsing and formatting.
//
// A value is "<version>-<trace-id>-<parent-id>-<trace-flags>", every field lower-case hex:
// version 2 digits, trace id 32, parent (span) id 16, flags 2. Version "ff" is invalid; version
// "00" is exactly 55 characters; a later version may carry more after a further "-", which is
// ignored, and is read as version "00" would be. Neither id may be all zeros. A value that breaks
// any rule is refused whole, as a receiver must ignore it.
//
// Pure functions on caller memory: no state, safe on any thread.
#pragma once

#include <cstddef>
#include <string_view>

namespace webctm {

constexpr std::size_t kTraceIdHexLength = 32;
constexpr std::size_t kSpanIdHexLength = 16;
// "00-" + trace id + "-" + span id + "-" + flags.
constexpr std::size_t kTraceparentLength = 55;

struct TraceParent {
    char szTraceId[kTraceIdHexLength + 1];
    char szSpanId[kSpanIdHexLength + 1];
    unsigned char nFlags;
};

// Fills parent from text; false (parent unspecified) when text is not a valid value.
bool parseTraceparent(std::string_view text, TraceParent& parent) noexcept;

// Writes the version "00" value of parent and a terminating NUL into pOut, which must hold
// kTraceparentLength + 1 characters.
void formatTraceparent(const TraceParent& parent, char* pOut) noexcept;

// Whether text is n lower-case hex digits, not all of them zero: a valid trace or span id.
bool isValidId(std::string_view text, std::size_t n) noexcept;

}  // namespace webctm

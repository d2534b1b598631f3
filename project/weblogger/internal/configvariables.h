// Variable replacement in the text of a logging configuration.
//
// The configuration is serialised, its "{%name%}" markers are replaced by the caller's values
// (escaped for XML, so the reparsed document holds exactly the value), and the text is parsed
// again. makeReplacements keeps the scanner's resumption rule as it always was: without a
// closing "%}" the scan resumes at index 1, so an unterminated marker after index 0 would be
// met again and again. findUnterminatedMarker lets the loader refuse such a text first.
#pragma once

#include <cstddef>
#include <string_view>

#include "weblogger/replacementmap.h"
#include "zq/webkeel/string.h"

namespace kiv::logger_details {

// The text with every variable replaced; an unknown or empty variable vanishes with its
// markers. Must not be given a text with an unterminated marker after index 0.
String makeReplacements(const String& text, const ReplacementMap& map);

// The index of the first "{%" that no "%}" closes, or npos.
std::size_t findUnterminatedMarker(std::wstring_view text) noexcept;

// The 1-based line and column of index in text, for error messages.
struct TextPosition {
    std::size_t nLine;
    std::size_t nColumn;
};
TextPosition positionOf(std::wstring_view text, std::size_t nIndex) noexcept;

}  // namespace kiv::logger_details

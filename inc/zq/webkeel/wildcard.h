// The in-house wildcard matcher.
//
// Configuration names groups of things by pattern: "*" stands for any run of characters
// (also an empty one, and also one that crosses the dots of a dotted name), "?" for exactly one
// character, and every other character for itself. The whole text must match the whole
// pattern, so "kiv.*" matches "kiv.a" and "kiv.a.b" but not "kiv".
//
// Matching is case-sensitive. The names it is used on (log-source paths) are looked up exactly
// everywhere else, and "Kiv" and "kiv" are different sources; a pattern that folded case would
// configure a source that the same text written as an exact path does not, and a renamed source
// would silently change which record governs it.
#pragma once

#include <string_view>

namespace kiv {

// Whether text contains "*" or "?", that is, whether it is a pattern rather than a plain name.
bool hasWildcard(std::wstring_view text) noexcept;

// Whether the whole text matches the whole pattern. Needs no memory and, at worst, time
// proportional to the product of the two lengths; source paths and patterns are short.
bool matchesWildcard(std::wstring_view pattern, std::wstring_view text) noexcept;

}  // namespace kiv

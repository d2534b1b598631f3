#include "zq/webkeel/wildcard.h"

#include <cstddef>

namespace kiv {

bool hasWildcard(std::wstring_view text) noexcept {
    return text.find_first_of(L"*?") != std::wstring_view::npos;
}

bool matchesWildcard(std::wstring_view pattern, std::wstring_view text) noexcept {
    // Greedy scan that remembers the last "*": on a mismatch, that star swallows one more
    // character and matching resumes after it. Earlier stars never need to be revisited,
    // because whatever a later star could not absorb an earlier one cannot either.
    constexpr std::size_t kNoStar = std::wstring_view::npos;
    std::size_t iPattern = 0;
    std::size_t iText = 0;
    std::size_t iStar = kNoStar;
    std::size_t iStarText = 0;
    while (iText < text.size()) {
        if (iPattern < pattern.size() && pattern[iPattern] == L'*') {
            iStar = iPattern++;
            iStarText = iText;
        } else if (iPattern < pattern.size() &&
                   (pattern[iPattern] == L'?' || pattern[iPattern] == text[iText])) {
            ++iPattern;
            ++iText;
        } else if (iStar != kNoStar) {
            iPattern = iStar + 1;
            iText = ++iStarText;
        } else {
            return false;
        }
    }
    while (iPattern < pattern.size() && pattern[iPattern] == L'*') {
        ++iPattern;
    }
    return iPattern == pattern.size();
}

}  // namespace kiv

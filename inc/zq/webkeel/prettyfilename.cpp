#include "zq/webkeel/prettyfilename.h"

#include <algorithm>

namespace kiv {
namespace {

// Each with its leading '/', so that "myproject/" or "/incoming/" do not count.
constexpr std::wstring_view kArrSourceRoots[] = {
    L"/project/", L"/inc/", L"/tests/", L"/examples/", L"/bench/", L"/src/",
};

std::wstring_view withoutLeadingDotSlash(std::wstring_view path) noexcept {
    while (path.starts_with(L"./")) {
        path.remove_prefix(2);
    }
    return path;
}

}  // namespace

std::wstring_view asPrettyFilenameRefString(const wchar_t* pwszPath) noexcept {
    if (pwszPath == nullptr) {
        return std::wstring_view();
    }
    const std::wstring_view path = withoutLeadingDotSlash(std::wstring_view(pwszPath));
    std::size_t nCut = 0;
    for (const std::wstring_view root : kArrSourceRoots) {
        const std::size_t nPos = path.rfind(root);
        if (nPos != std::wstring_view::npos) {
            nCut = std::max(nCut, nPos + root.size());
        } else if (path.starts_with(root.substr(1))) {
            // The start of a relative path is as good a boundary as a '/'.
            nCut = std::max(nCut, root.size() - 1);
        }
    }
    return path.substr(nCut);
}

std::wstring_view asPrettyFilename(const wchar_t* pwszPath, PrettyFilenameOption nOption) noexcept {
    const std::wstring_view path = asPrettyFilenameRefString(pwszPath);
    if (nOption != kJustFileName) {
        return path;
    }
    const std::size_t nSlash = path.find_last_of(L"/\\");
    return nSlash == std::wstring_view::npos ? path : path.substr(nSlash + 1);
}

}  // namespace kiv

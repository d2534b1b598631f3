#include "zq/webkeel/prettyfilename.h"

#include <algorithm>

namespace kiv {
namespace {

// Each with its leading '/', so that "myproject/" or "/incoming/" do not count.
constexpr std::wstring_view kArrSourceRoots[] = {
    L"project", L"inc", L"tests", L"examples", L"bench", L"src",
};

bool isSourceRoot(std::wstring_view component) noexcept {
    return std::find(std::begin(kArrSourceRoots), std::end(kArrSourceRoots), component) !=
           std::end(kArrSourceRoots);
}

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
    // Walk the directory components from the right: the first one that is a source root is the
    // last occurrence of any root, and everything up to and including it is cut. Rendering a
    // location's file runs this per message, so it is one pass, not one search per root.
    std::size_t nComponentEnd = path.rfind(L'/');
    while (nComponentEnd != std::wstring_view::npos && nComponentEnd != 0) {
        const std::size_t nSlash = path.rfind(L'/', nComponentEnd - 1);
        const std::size_t nBegin = nSlash == std::wstring_view::npos ? 0 : nSlash + 1;
        if (isSourceRoot(path.substr(nBegin, nComponentEnd - nBegin))) {
            return path.substr(nComponentEnd + 1);
        }
        if (nSlash == std::wstring_view::npos) {
            break;
        }
        nComponentEnd = nSlash;
    }
    return path;
}

std::wstring_view asPrettyFilename(const wchar_t* pwszPath, PrettyFilenameOption nOption) noexcept {
    if (nOption != kJustFileName) {
        return asPrettyFilenameRefString(pwszPath);
    }
    // The bare file name needs no search for a build root.
    const std::wstring_view path =
        pwszPath != nullptr ? std::wstring_view(pwszPath) : std::wstring_view();
    const std::size_t nSlash = path.find_last_of(L"/\\");
    return nSlash == std::wstring_view::npos ? path : path.substr(nSlash + 1);
}

}  // namespace kiv

// Short forms of source file paths for log lines.
//
// The compiler records a source location as the path it was given, which for our builds is the
// absolute path of the checkout ("/work/main/project/weblogger/logfile.cpp"). That prefix says
// where the code was built, not which code it is, and it differs from machine to machine, so log
// lines show the path relative to the tree's top-level source directories instead:
//
//   - everything up to and including the last occurrence of one of "/project/", "/inc/",
//     "/tests/", "/examples/", "/bench/" or "/src/" is cut
//     ("/work/main/project/weblogger/logfile.cpp" gives "weblogger/logfile.cpp");
//   - a path that starts with one of those directory names ("project/weblogger/logfile.cpp", as a
//     build with relative paths records it) is cut the same way;
//   - leading "./" are removed first;
//   - any other path is left as it is, and a null path gives an empty text.
//
// The results are views into the caller's text: nothing is copied or allocated, so they are
// valid as long as that text is (for __FILE__, forever).
#pragma once

#include <string_view>

namespace kiv {

enum PrettyFilenameOption { kFullPrettyPath = 0, kJustFileName = 1 };

// The path with its build-directory prefix cut, by the rules above.
std::wstring_view asPrettyFilenameRefString(const wchar_t* pwszPath) noexcept;

// kFullPrettyPath: as asPrettyFilenameRefString. kJustFileName: the part after the last '/' or
// '\\' (the whole text when it has neither).
std::wstring_view asPrettyFilename(const wchar_t* pwszPath, PrettyFilenameOption nOption) noexcept;

}  // namespace kiv

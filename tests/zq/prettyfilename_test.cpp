#include "zq/webkeel/prettyfilename.h"

#include <gtest/gtest.h>

#include "support/alloc_counter.h"

namespace kiv {
namespace {

TEST(PrettyFilenameTest, CutsTheBuildDirectoryPrefix) {
    EXPECT_EQ(asPrettyFilenameRefString(L"/work/main/project/weblogger/logfile.cpp"),
              L"weblogger/logfile.cpp");
    EXPECT_EQ(asPrettyFilenameRefString(L"/work/main/inc/zq/webkeel/string.h"),
              L"zq/webkeel/string.h");
    EXPECT_EQ(asPrettyFilenameRefString(L"/work/main/tests/zq/string_test.cpp"),
              L"zq/string_test.cpp");
    EXPECT_EQ(asPrettyFilenameRefString(L"/work/main/examples/example_server.cpp"),
              L"example_server.cpp");
    EXPECT_EQ(asPrettyFilenameRefString(L"/work/main/bench/message_formatter_bench.cpp"),
              L"message_formatter_bench.cpp");
    EXPECT_EQ(asPrettyFilenameRefString(L"/home/build/src/server/main.cpp"), L"server/main.cpp");
}

TEST(PrettyFilenameTest, CutsAtTheLastOccurrenceOfAnyRoot) {
    EXPECT_EQ(asPrettyFilenameRefString(L"/src/checkout/project/weblogger/logfile.cpp"),
              L"weblogger/logfile.cpp");
    EXPECT_EQ(asPrettyFilenameRefString(L"/work/project/main/inc/zq/tl/hashmap.h"),
              L"zq/tl/hashmap.h");
    EXPECT_EQ(asPrettyFilenameRefString(L"/a/inc/b/inc/c.h"), L"c.h");
}

TEST(PrettyFilenameTest, OnlyWholeDirectoryNamesCount) {
    EXPECT_EQ(asPrettyFilenameRefString(L"/work/myproject/main.cpp"), L"/work/myproject/main.cpp");
    EXPECT_EQ(asPrettyFilenameRefString(L"/work/incoming/main.cpp"), L"/work/incoming/main.cpp");
    EXPECT_EQ(asPrettyFilenameRefString(L"/work/main/project"), L"/work/main/project");
}

TEST(PrettyFilenameTest, RelativePaths) {
    EXPECT_EQ(asPrettyFilenameRefString(L"./logfile.cpp"), L"logfile.cpp");
    EXPECT_EQ(asPrettyFilenameRefString(L"././logfile.cpp"), L"logfile.cpp");
    EXPECT_EQ(asPrettyFilenameRefString(L"./project/weblogger/logfile.cpp"),
              L"weblogger/logfile.cpp");
    EXPECT_EQ(asPrettyFilenameRefString(L"project/weblogger/logfile.cpp"),
              L"weblogger/logfile.cpp");
    EXPECT_EQ(asPrettyFilenameRefString(L"other/logfile.cpp"), L"other/logfile.cpp");
    EXPECT_EQ(asPrettyFilenameRefString(L"../logfile.cpp"), L"../logfile.cpp");
}

TEST(PrettyFilenameTest, UnmatchedEmptyAndNullPaths) {
    EXPECT_EQ(asPrettyFilenameRefString(L"/usr/include/c++/12/vector"),
              L"/usr/include/c++/12/vector");
    EXPECT_EQ(asPrettyFilenameRefString(L"logfile.cpp"), L"logfile.cpp");
    EXPECT_TRUE(asPrettyFilenameRefString(L"").empty());
    EXPECT_TRUE(asPrettyFilenameRefString(nullptr).empty());
    EXPECT_TRUE(asPrettyFilename(nullptr, kJustFileName).empty());
}

TEST(PrettyFilenameTest, IsAViewIntoTheCallersText) {
    const wchar_t* pwszPath = L"/work/main/project/weblogger/logfile.cpp";
    const std::wstring_view pretty = asPrettyFilenameRefString(pwszPath);
    EXPECT_EQ(pretty.data(), pwszPath + 19);
    EXPECT_EQ(pretty.data() + pretty.size(), pwszPath + std::wstring_view(pwszPath).size());
}

TEST(PrettyFilenameTest, JustTheFileName) {
    EXPECT_EQ(asPrettyFilename(L"/work/main/project/weblogger/logfile.cpp", kJustFileName),
              L"logfile.cpp");
    EXPECT_EQ(asPrettyFilename(L"C:\\work\\main\\logfile.cpp", kJustFileName), L"logfile.cpp");
    EXPECT_EQ(asPrettyFilename(L"/usr/include/vector", kJustFileName), L"vector");
    EXPECT_EQ(asPrettyFilename(L"logfile.cpp", kJustFileName), L"logfile.cpp");
    EXPECT_EQ(asPrettyFilename(L"/work/dir/", kJustFileName), L"");
    EXPECT_EQ(static_cast<int>(kFullPrettyPath), 0);
    EXPECT_EQ(static_cast<int>(kJustFileName), 1);
}

TEST(PrettyFilenameTest, FullPrettyPathIsTheRefString) {
    const wchar_t* pwszPath = L"/work/main/inc/zq/webkeel/string.cpp";
    EXPECT_EQ(asPrettyFilename(pwszPath, kFullPrettyPath), asPrettyFilenameRefString(pwszPath));
    EXPECT_EQ(asPrettyFilename(pwszPath, kFullPrettyPath), L"zq/webkeel/string.cpp");
}

TEST(PrettyFilenameTest, AllocatesNothing) {
    const test::AllocationScope scope;
    const std::wstring_view full = asPrettyFilename(L"/w/project/a/b.cpp", kFullPrettyPath);
    const std::wstring_view name = asPrettyFilename(L"/w/project/a/b.cpp", kJustFileName);
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(full, L"a/b.cpp");
    EXPECT_EQ(name, L"b.cpp");
}

}  // namespace
}  // namespace kiv

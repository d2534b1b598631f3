#include "zq/webutil/nativepath.h"

#include <gtest/gtest.h>

#include <string>

#include "support/alloc_counter.h"
#include "zq/webkeel/string.h"

namespace kiv {
namespace {

TEST(NativePathTest, IsTheUtf8OfThePath) {
    const NativePath native(L"/srv/l\u00f6gs/\U0001F600.log");
    EXPECT_TRUE(native.isValid());
    EXPECT_EQ(std::string(native.view()), "/srv/l\xC3\xB6gs/\xF0\x9F\x98\x80.log");
    EXPECT_STREQ(native.c_str(), "/srv/l\xC3\xB6gs/\xF0\x9F\x98\x80.log");
    EXPECT_TRUE(NativePath(L"").empty());
}

TEST(NativePathTest, ANulMakesThePathInvalid) {
    const std::wstring withNul(L"/srv/a\0b.log", 13);
    EXPECT_FALSE(NativePath(withNul).isValid());
    EXPECT_TRUE(NativePath(L"/srv/ab.log").isValid());
}

TEST(NativePathTest, ShortPathsAllocateNothingLongOnesStillConvert) {
    const String shortPath(L"/srv/logs/kiv10.log");
    const String longPath(String(NativePath::kInlineBytes + 100, L'x'));
    {
        test::AllocationScope scope;
        const NativePath native(shortPath.view());
        EXPECT_EQ(scope.count(), 0u);
        EXPECT_EQ(native.view(), "/srv/logs/kiv10.log");
    }
    const NativePath native(longPath.view());
    EXPECT_EQ(native.view(), std::string(NativePath::kInlineBytes + 100, 'x'));
}

}  // namespace
}  // namespace kiv

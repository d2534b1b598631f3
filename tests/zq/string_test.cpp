#include "zq/webkeel/string.h"

#include <gtest/gtest.h>

#include <unordered_map>

namespace kiv {
namespace {

TEST(StringTest, FindFromIndexReturnsNposWhenAbsent) {
    const String s(L"kiv.http.request");
    EXPECT_EQ(s.find(String(L".")), 3u);
    EXPECT_EQ(s.find(String(L"."), 4), 8u);
    EXPECT_EQ(s.find(String(L"."), 9), String::npos);
    EXPECT_EQ(s.find(String(L"x")), String::npos);
    EXPECT_EQ(s.find(String(L"."), 100), String::npos);
}

TEST(StringTest, SubstrClampsInsteadOfThrowing) {
    const String s(L"kiv.http");
    EXPECT_TRUE(s.substr(4).equals(L"http"));
    EXPECT_TRUE(s.substr(0, 3).equals(L"kiv"));
    EXPECT_TRUE(s.substr(8).empty());
    EXPECT_TRUE(s.substr(50).empty());
}

TEST(StringTest, EqualsIsExactAndCaseSensitive) {
    EXPECT_TRUE(String(L"Default").equals(String(L"Default")));
    EXPECT_FALSE(String(L"Default").equals(String(L"default")));
    EXPECT_FALSE(String(L"Default").equals(String(L"Default ")));
}

TEST(StringTest, CaseInsensitiveCompareFoldsLatinGreekCyrillic) {
    EXPECT_EQ(String(L"FileLogWriter").compareNoCase(L"filelogwriter"), 0);
    EXPECT_EQ(String(L"\u00C9T\u00C9").compareNoCase(L"\u00E9t\u00E9"), 0);
    EXPECT_EQ(String(L"\u0391\u0392").compareNoCase(L"\u03B1\u03B2"), 0);
    EXPECT_EQ(String(L"\u041F\u0420\u0418").compareNoCase(L"\u043F\u0440\u0438"), 0);
    EXPECT_LT(String(L"abc").compareNoCase(L"ABD"), 0);
    EXPECT_GT(String(L"abcd").compareNoCase(L"ABC"), 0);
    EXPECT_FALSE(String(L"abc").equalsNoCase(L"abcd"));
    // The multiplication sign has no small form.
    EXPECT_NE(String(L"\u00D7").compareNoCase(L"\u00F7"), 0);
}

TEST(StringTest, HashIsStableAndUsableInMaps) {
    EXPECT_EQ(String(L"userId").hash(), String(L"userId").hash());
    EXPECT_NE(String(L"userId").hash(), String(L"userid").hash());
    std::unordered_map<String, int, String::Hash> map;
    map[String(L"a")] = 1;
    map[String(L"b")] = 2;
    EXPECT_EQ(map.at(String(L"b")), 2);
    EXPECT_EQ(String::NoCaseHash()(String(L"ABC")), String::NoCaseHash()(String(L"abc")));
}

TEST(StringTest, AppendReserveAndNonBmpCharacters) {
    String s;
    s.reserve(100);
    s.append(L"a").append(String(L"\U0001F600")).append(L'z');
    EXPECT_EQ(s.size(), 3u);  // one wchar_t per code point, even outside the BMP
    EXPECT_EQ(s[1], static_cast<wchar_t>(0x1F600));
    EXPECT_TRUE((String(L"x") + L"y").equals(L"xy"));
}

TEST(StringTest, NullPointerBuildsEmptyString) {
    const wchar_t* pNull = nullptr;
    EXPECT_TRUE(String(pNull).empty());
    EXPECT_TRUE(NString(static_cast<const char*>(nullptr)).empty());
}

}  // namespace
}  // namespace kiv

#include "zq/webkeel/transcode.h"

#include <gtest/gtest.h>

namespace kiv {
namespace {

TEST(TranscodeTest, RoundTripsAllPlanes) {
    const String text(L"a\u00E9\u20AC\U0001F600z");
    const NString bytes = toUtf8(text.view());
    EXPECT_EQ(bytes.std(), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z");
    EXPECT_TRUE(fromUtf8(bytes.view()).equals(text));
}

TEST(TranscodeTest, InvalidCodePointsBecomeReplacementCharacter) {
    const wchar_t arrText[] = {static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), 0};
    EXPECT_EQ(toUtf8(arrText).std(), "\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(TranscodeTest, MalformedUtf8DecodesToReplacementCharacters) {
    // A lone continuation byte, a truncated sequence, an overlong '/', an encoded surrogate.
    EXPECT_TRUE(fromUtf8("\x80").equals(L"\uFFFD"));
    EXPECT_TRUE(fromUtf8("a\xE2\x82").equals(L"a\uFFFD"));
    EXPECT_TRUE(fromUtf8("\xC0\xAF").equals(L"\uFFFD"));
    EXPECT_TRUE(fromUtf8("\xED\xA0\x80").equals(L"\uFFFD"));
    EXPECT_TRUE(fromUtf8("\xE2\x82x").equals(L"\uFFFDx"));
}

TEST(TranscodeTest, EmptyAndBufferForms) {
    EXPECT_TRUE(toUtf8(L"").empty());
    EXPECT_TRUE(fromUtf8("").empty());
    StringBufferTemplate<32, char> narrow;
    appendUtf8(narrow, L"\u00FC");
    EXPECT_EQ(narrow.view(), "\xC3\xBC");
    StringBufferTemplate<32, wchar_t> wide;
    appendFromUtf8(wide, "\xC3\xBC");
    EXPECT_EQ(wide.view(), L"\u00FC");
    EXPECT_TRUE(widen("abc").equals(L"abc"));
}

}  // namespace
}  // namespace kiv

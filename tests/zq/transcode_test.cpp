#include "zq/webkeel/transcode.h"

#include <gtest/gtest.h>

#include <string>

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

// What a compile-time decode gives, character by character, with the bytes each one took.
constexpr bool decodesTo(std::string_view bytes, std::wstring_view expected,
                         std::size_t nExpectedUsed) {
    std::size_t nUsed = 0;
    return decodeUtf8(bytes, nUsed) == expected[0] && nUsed == nExpectedUsed;
}

TEST(TranscodeTest, OneSequenceDecodesAtCompileTimeAsAtRunTime) {
    static_assert(decodesTo("a", L"a", 1));
    static_assert(decodesTo("\xC3\xB6x", L"\u00F6", 2));
    static_assert(decodesTo("\xF0\x9F\x98\x80", L"\U0001F600", 4));
    static_assert(decodesTo("\xFF", L"\uFFFD", 1));
    static_assert(decodesTo("\xE2\x82", L"\uFFFD", 2));      // truncated
    static_assert(decodesTo("\xC0\xAF", L"\uFFFD", 2));      // overlong
    static_assert(decodesTo("\xED\xA0\x80", L"\uFFFD", 3));  // an encoded surrogate
    std::size_t nUsed = 0;
    EXPECT_EQ(decodeUtf8("\xE2\x82\xAC", nUsed), L'\u20AC');
    EXPECT_EQ(nUsed, 3u);
    EXPECT_TRUE(fromUtf8("\xE2\x82\xAC\xFF").equals(L"\u20AC\uFFFD"));
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

TEST(TranscodeTest, LongTextDecodesIntoABufferWhole) {
    std::string bytes = "[";
    std::wstring expected = L"[";
    for (int i = 0; i < 150; ++i) {
        bytes += "\xC3\xA9\xF0\x9F\x98\x80";
        bytes += 'a';
        expected += L"\u00E9\U0001F600a";
    }
    bytes += "\xE2\x82";  // truncated at the very end
    expected += L"\uFFFD";
    StringBufferTemplate<16, wchar_t> wide;
    wide.append(L"<");
    appendFromUtf8(wide, bytes);
    EXPECT_EQ(wide.view(), L"<" + expected);
    EXPECT_TRUE(fromUtf8(bytes).equals(String(expected)));
}

}  // namespace
}  // namespace kiv

#include "zq/webkeel/encoding.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cwchar>
#include <string>
#include <vector>

#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

using Utf8 = T2NEncodingUTF8<wchar_t>;

std::string encodeUtf8Whole(std::wstring_view text) {
    std::vector<char> vecOut(text.size() * 4);
    std::size_t nWritten = 0;
    EXPECT_TRUE(Utf8::encode(text.data(), text.size(), vecOut.data(), vecOut.size(), nWritten));
    return std::string(vecOut.data(), nWritten);
}

std::wstring escapeWhole(std::wstring_view text, W2WEncodingSGML::SGMLType nType) {
    const W2WEncodingSGML encoding(nType);
    std::vector<wchar_t> vecOut(text.size() * 6);
    std::size_t nWritten = 0;
    std::size_t nConsumed = 0;
    EXPECT_TRUE(encoding.encode(text.data(), text.size(), vecOut.data(), vecOut.size(), nWritten,
                                nConsumed));
    EXPECT_EQ(nConsumed, text.size());
    return std::wstring(vecOut.data(), nWritten);
}

TEST(T2NEncodingUTF8Test, EncodesEveryPlane) {
    EXPECT_EQ(encodeUtf8Whole(L"a"), "a");
    EXPECT_EQ(encodeUtf8Whole(L"\u00E9"), "\xC3\xA9");
    EXPECT_EQ(encodeUtf8Whole(L"\u20AC"), "\xE2\x82\xAC");
    EXPECT_EQ(encodeUtf8Whole(L"\U0001F600"), "\xF0\x9F\x98\x80");
    EXPECT_EQ(encodeUtf8Whole(L"\U0010FFFF"), "\xF4\x8F\xBF\xBF");
    const std::wstring mixed = L"x\u00E9\u20AC\U0001F600\U00010000y";
    EXPECT_EQ(encodeUtf8Whole(mixed), toUtf8(mixed).std());
}

TEST(T2NEncodingUTF8Test, InvalidCodePointsBecomeReplacementCharacter) {
    const wchar_t arrText[] = {static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0xDFFF),
                               static_cast<wchar_t>(0x110000), static_cast<wchar_t>(-1)};
    EXPECT_EQ(encodeUtf8Whole(std::wstring_view(arrText, 4)),
              "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(T2NEncodingUTF8Test, EmptyInputSucceedsWithNothingWritten) {
    std::size_t nWritten = 99;
    EXPECT_TRUE(Utf8::encode(L"", 0, nullptr, 0, nWritten));
    EXPECT_EQ(nWritten, 0u);
}

TEST(T2NEncodingUTF8Test, CapacityTooSmallFails) {
    char arrOut[9];
    std::size_t nWritten = 99;
    // Nine bytes are needed: the four-byte sequence does not fit in the last three of eight.
    EXPECT_FALSE(Utf8::encode(L"ab\u20AC\U0001F600", 4, arrOut, 8, nWritten));
    EXPECT_EQ(nWritten, 0u);
    EXPECT_FALSE(Utf8::encode(L"ab\u20AC\U0001F600", 4, arrOut, 0, nWritten));
    EXPECT_TRUE(Utf8::encode(L"ab\u20AC\U0001F600", 4, arrOut, 9, nWritten));
    EXPECT_EQ(std::string(arrOut, nWritten), "ab\xE2\x82\xAC\xF0\x9F\x98\x80");
    // Exactly enough is enough.
    EXPECT_TRUE(Utf8::encode(L"\u20AC\u20AC", 2, arrOut, 6, nWritten));
    EXPECT_EQ(nWritten, 6u);
    EXPECT_FALSE(Utf8::encode(L"\u20AC\u20AC", 2, arrOut, 5, nWritten));
}

TEST(T2NEncodingUTF8Test, ResumableFormStopsAtAWholeSequence) {
    char arrOut[5];
    std::size_t nWritten = 0;
    std::size_t nConsumed = 0;
    EXPECT_FALSE(Utf8::encode(L"a\u20AC\u20AC", 3, arrOut, 5, nWritten, nConsumed));
    EXPECT_EQ(nConsumed, 2u);
    EXPECT_EQ(std::string(arrOut, nWritten), "a\xE2\x82\xAC");
    EXPECT_TRUE(Utf8::encode(L"\u20AC", 1, arrOut, 5, nWritten, nConsumed));
    EXPECT_EQ(nConsumed, 1u);
    EXPECT_EQ(nWritten, 3u);
}

TEST(T2NEncodingUTF8Test, ClassifiesBytesByTheirBitPattern) {
    EXPECT_EQ(Utf8::byteType(0x00), Utf8::kAsciiCharacter);
    EXPECT_EQ(Utf8::byteType('A'), Utf8::kAsciiCharacter);
    EXPECT_EQ(Utf8::byteType(0x7F), Utf8::kAsciiCharacter);
    EXPECT_EQ(Utf8::byteType(0x80), Utf8::kSecondaryByte);
    EXPECT_EQ(Utf8::byteType(0xBF), Utf8::kSecondaryByte);
    EXPECT_EQ(Utf8::byteType(0xC2), Utf8::kInitialByte);
    EXPECT_EQ(Utf8::byteType(0xE2), Utf8::kInitialByte);
    EXPECT_EQ(Utf8::byteType(0xF0), Utf8::kInitialByte);
    EXPECT_EQ(Utf8::byteType(0xFF), Utf8::kInitialByte);
    EXPECT_EQ(static_cast<int>(Utf8::kAsciiCharacter), 0);
    EXPECT_EQ(static_cast<int>(Utf8::kInitialByte), 1);
    EXPECT_EQ(static_cast<int>(Utf8::kSecondaryByte), 2);
    // Every byte of an encoded text is classified as the position it holds.
    const std::string bytes = encodeUtf8Whole(L"a\U0001F600");
    EXPECT_EQ(Utf8::byteType(static_cast<unsigned char>(bytes[0])), Utf8::kAsciiCharacter);
    EXPECT_EQ(Utf8::byteType(static_cast<unsigned char>(bytes[1])), Utf8::kInitialByte);
    for (std::size_t i = 2; i < bytes.size(); ++i) {
        EXPECT_EQ(Utf8::byteType(static_cast<unsigned char>(bytes[i])), Utf8::kSecondaryByte);
    }
}

TEST(W2WEncodingSGMLTest, XmlEscapesEachMarkupCharacter) {
    EXPECT_EQ(escapeWhole(L"&", W2WEncodingSGML::kXML), L"&amp;");
    EXPECT_EQ(escapeWhole(L"<", W2WEncodingSGML::kXML), L"&lt;");
    EXPECT_EQ(escapeWhole(L">", W2WEncodingSGML::kXML), L"&gt;");
    EXPECT_EQ(escapeWhole(L"\"", W2WEncodingSGML::kXML), L"&quot;");
    EXPECT_EQ(escapeWhole(L"'", W2WEncodingSGML::kXML), L"&apos;");
    EXPECT_EQ(escapeWhole(L"a<b>&c\u00A0\U0001F600", W2WEncodingSGML::kXML),
              L"a&lt;b&gt;&amp;c\u00A0\U0001F600");
    EXPECT_EQ(escapeWhole(L"", W2WEncodingSGML::kXML), L"");
}

TEST(W2WEncodingSGMLTest, QuotesAndNoBreakSpacesPerType) {
    const std::wstring text = L"\"'\u00A0&";
    EXPECT_EQ(escapeWhole(text, W2WEncodingSGML::kXML), L"&quot;&apos;\u00A0&amp;");
    EXPECT_EQ(escapeWhole(text, W2WEncodingSGML::kXMLNoQuotes), L"\"'\u00A0&amp;");
    EXPECT_EQ(escapeWhole(text, W2WEncodingSGML::kHTML), L"&quot;&#39;\u00A0&amp;");
    EXPECT_EQ(escapeWhole(text, W2WEncodingSGML::kHTMLNoBreakSpaces), L"&quot;&#39;&nbsp;&amp;");
    EXPECT_EQ(static_cast<int>(W2WEncodingSGML::kXML), 0);
    EXPECT_EQ(static_cast<int>(W2WEncodingSGML::kHTML), 1);
    EXPECT_EQ(static_cast<int>(W2WEncodingSGML::kHTMLNoBreakSpaces), 2);
    EXPECT_EQ(static_cast<int>(W2WEncodingSGML::kXMLNoQuotes), 3);
}

TEST(W2WEncodingSGMLTest, CharactersXmlForbidsBecomeReplacementCharacter) {
    const wchar_t arrText[] = {0x00,
                               0x01,
                               0x08,
                               0x0B,
                               0x0C,
                               0x1F,
                               static_cast<wchar_t>(0xD800),
                               static_cast<wchar_t>(0xDFFF),
                               static_cast<wchar_t>(0xFFFE),
                               static_cast<wchar_t>(0xFFFF),
                               static_cast<wchar_t>(0x110000),
                               static_cast<wchar_t>(-1)};
    const std::size_t nText = sizeof(arrText) / sizeof(arrText[0]);
    for (const auto nType : {W2WEncodingSGML::kXML, W2WEncodingSGML::kXMLNoQuotes,
                             W2WEncodingSGML::kHTML, W2WEncodingSGML::kHTMLNoBreakSpaces}) {
        EXPECT_EQ(escapeWhole(std::wstring_view(arrText, nText), nType),
                  std::wstring(nText, kReplacementChar));
    }
}

TEST(W2WEncodingSGMLTest, AllowedCharactersPassUnchanged) {
    const std::wstring text =
        L"\t\n\r !#%;=?@Z~\u007F\u0085\u00FF\uD7FF\uE000\uFFFD\U00010000\U0010FFFF";
    EXPECT_EQ(escapeWhole(text, W2WEncodingSGML::kXML), text);
}

TEST(W2WEncodingSGMLTest, StopsBeforeAnEscapeThatDoesNotFit) {
    const W2WXmlEncoding encoding;
    const std::wstring text = L"ab&c";
    wchar_t arrOut[6];
    std::size_t nWritten = 0;
    std::size_t nConsumed = 0;
    EXPECT_FALSE(encoding.encode(text.data(), text.size(), arrOut, 6, nWritten, nConsumed));
    EXPECT_EQ(nConsumed, 2u);
    EXPECT_EQ(std::wstring(arrOut, nWritten), L"ab");

    // The caller flushes and goes on from where the converter stopped.
    EXPECT_TRUE(encoding.encode(text.data() + nConsumed, text.size() - nConsumed, arrOut, 6,
                                nWritten, nConsumed));
    EXPECT_EQ(nConsumed, 2u);
    EXPECT_EQ(std::wstring(arrOut, nWritten), L"&amp;c");

    // A full buffer stops before a plain character too.
    EXPECT_FALSE(encoding.encode(L"xyz", 3, arrOut, 2, nWritten, nConsumed));
    EXPECT_EQ(nConsumed, 2u);
    EXPECT_EQ(nWritten, 2u);
    EXPECT_FALSE(encoding.encode(L"\"", 1, arrOut, 5, nWritten, nConsumed));
    EXPECT_EQ(nConsumed, 0u);
    EXPECT_EQ(nWritten, 0u);
}

TEST(W2WEncodingSGMLTest, PiecewiseEncodingEqualsWholeEncoding) {
    const W2WXmlEncoding encoding;
    std::wstring text;
    for (int i = 0; i < 50; ++i) {
        text += L"<a href=\"x\">&'\u0001</a>";
    }
    const std::wstring whole = escapeWhole(text, W2WEncodingSGML::kXML);
    std::wstring pieces;
    std::size_t nPos = 0;
    wchar_t arrOut[7];
    while (nPos < text.size()) {
        std::size_t nWritten = 0;
        std::size_t nConsumed = 0;
        encoding.encode(text.data() + nPos, text.size() - nPos, arrOut, 7, nWritten, nConsumed);
        ASSERT_NE(nConsumed, 0u);
        pieces.append(arrOut, nWritten);
        nPos += nConsumed;
    }
    EXPECT_EQ(pieces, whole);
}

TEST(W2WXmlEncodingTest, IsTheXmlType) {
    EXPECT_EQ(W2WXmlEncoding().type(), W2WEncodingSGML::kXML);
    EXPECT_EQ(W2WEncodingSGML(W2WEncodingSGML::kHTML).type(), W2WEncodingSGML::kHTML);
}

}  // namespace
}  // namespace kiv

namespace kiv {
namespace {

TEST(T2NEncodingUTF8Test, AsciiRunsEncodeLikeCharacterByCharacterWhereverTheyBreak) {
    const wchar_t arrBreakers[] = {static_cast<wchar_t>(0xE9), static_cast<wchar_t>(0x1F600),
                                   static_cast<wchar_t>(0xD800), static_cast<wchar_t>(-1),
                                   static_cast<wchar_t>(0x80)};
    for (wchar_t breaker : arrBreakers) {
        for (std::size_t nPos = 0; nPos < 24; ++nPos) {
            std::wstring text(24, L'a');
            for (std::size_t i = 0; i < text.size(); ++i) {
                text[i] = static_cast<wchar_t>(L'a' + i % 26);
            }
            text[nPos] = breaker;
            std::string expected;
            for (wchar_t c : text) {
                char arrBytes[4];
                expected.append(arrBytes, encodeUtf8(c, arrBytes));
            }
            char arrOut[96];
            std::size_t nWritten = 0;
            ASSERT_TRUE(T2NEncodingUTF8<wchar_t>::encode(text.data(), text.size(), arrOut,
                                                         sizeof(arrOut), nWritten));
            EXPECT_EQ(std::string(arrOut, nWritten), expected)
                << "breaker " << static_cast<long>(breaker) << " at " << nPos;
        }
    }
}

TEST(T2NEncodingUTF8Test, EncodeUntilStopsAtItsStopCharacterWhereverItIs) {
    // Every length up to three blocks, the stop at every place (and nowhere), with a character
    // beyond ASCII before it or not: the bytes of everything before the stop, and its place.
    for (std::size_t nLength = 0; nLength <= 24; ++nLength) {
        for (std::size_t nStop = 0; nStop <= nLength; ++nStop) {
            for (bool bWide : {false, true}) {
                std::wstring text(nLength, L'x');
                for (std::size_t i = 0; i < nLength; ++i) {
                    text[i] = static_cast<wchar_t>(L'a' + i % 26);
                }
                if (bWide && nStop > 0) {
                    text[nStop / 2] = static_cast<wchar_t>(0x1F600);
                }
                if (nStop < nLength) {
                    text[nStop] = L'%';
                }
                std::vector<char> vecOut(nLength * 4);
                std::size_t nConsumed = 99;
                const std::size_t nBytes =
                    Utf8::encodeUntil(text.data(), nLength, L'%', vecOut.data(), nConsumed);
                EXPECT_EQ(nConsumed, nStop) << nLength << " " << nStop;
                EXPECT_EQ(std::string(vecOut.data(), nBytes),
                          encodeUtf8Whole(std::wstring_view(text).substr(0, nStop)))
                    << nLength << " " << nStop << " " << bWide;
            }
        }
    }
}

TEST(T2NEncodingUTF8Test, EncodeAllGivesWhatEncodeGives) {
    const std::wstring text =
        L"plain ascii, then \u00e9\u20ac\U0001F600 and a stray \xD800 "
        L"surrogate and % signs, long enough for blocks";
    for (std::size_t nLength = 0; nLength <= text.size(); ++nLength) {
        const std::wstring_view piece = std::wstring_view(text).substr(0, nLength);
        std::vector<char> vecOut(nLength * 4);
        const std::size_t nBytes = Utf8::encodeAll(piece.data(), piece.size(), vecOut.data());
        EXPECT_EQ(std::string(vecOut.data(), nBytes), encodeUtf8Whole(piece)) << nLength;
    }
}

}  // namespace
}  // namespace kiv

namespace kiv {
namespace {

std::wstring jsonEscapeWhole(std::wstring_view text) {
    const W2WJsonEncoding encoding;
    std::vector<wchar_t> vecOut(text.size() * 6);
    std::size_t nWritten = 0;
    std::size_t nConsumed = 0;
    EXPECT_TRUE(encoding.encode(text.data(), text.size(), vecOut.data(), vecOut.size(), nWritten,
                                nConsumed));
    EXPECT_EQ(nConsumed, text.size());
    return std::wstring(vecOut.data(), nWritten);
}

TEST(W2WJsonEncodingTest, QuoteAndBackslashGetABackslash) {
    EXPECT_EQ(jsonEscapeWhole(L"say \"hi\""), L"say \\\"hi\\\"");
    EXPECT_EQ(jsonEscapeWhole(L"C:\\dir\\"), L"C:\\\\dir\\\\");
    EXPECT_EQ(jsonEscapeWhole(L"\\\""), L"\\\\\\\"");
}

TEST(W2WJsonEncodingTest, LineBreaksAndTheOtherShortEscapes) {
    EXPECT_EQ(jsonEscapeWhole(L"a\nb\r\nc\td\be\ff"), L"a\\nb\\r\\nc\\td\\be\\ff");
}

TEST(W2WJsonEncodingTest, EveryControlCharacterIsEscaped) {
    for (std::uint32_t c = 0; c < 0x20; ++c) {
        const wchar_t ch = static_cast<wchar_t>(c);
        const std::wstring escaped = jsonEscapeWhole(std::wstring_view(&ch, 1));
        std::wstring expected;
        switch (c) {
            case 0x08:
                expected = L"\\b";
                break;
            case 0x09:
                expected = L"\\t";
                break;
            case 0x0A:
                expected = L"\\n";
                break;
            case 0x0C:
                expected = L"\\f";
                break;
            case 0x0D:
                expected = L"\\r";
                break;
            default: {
                wchar_t arrText[7];
                std::swprintf(arrText, 7, L"\\u%04x", c);
                expected = arrText;
            }
        }
        EXPECT_EQ(escaped, expected) << "U+" << c;
    }
    EXPECT_EQ(jsonEscapeWhole(std::wstring_view(L"\0\x1F", 2)), L"\\u0000\\u001f");
}

TEST(W2WJsonEncodingTest, EverythingElsePassesAsItIs) {
    const std::wstring text =
        L" !#/<>&'~\u007F\u0085\u00E9\u2028\u2029\uD7FF\uE000\uFFFD\U0001F600\U0010FFFF";
    EXPECT_EQ(jsonEscapeWhole(text), text);
}

TEST(W2WJsonEncodingTest, CodeUnitsThatAreNotCharactersBecomeReplacementCharacter) {
    const wchar_t arrText[] = {L'a',
                               static_cast<wchar_t>(0xD800),
                               static_cast<wchar_t>(0xDFFF),
                               static_cast<wchar_t>(0x110000),
                               static_cast<wchar_t>(-1),
                               L'b'};
    EXPECT_EQ(jsonEscapeWhole(std::wstring_view(arrText, 6)), L"a\uFFFD\uFFFD\uFFFD\uFFFDb");
}

TEST(W2WJsonEncodingTest, StopsBeforeAnEscapeThatDoesNotFit) {
    const W2WJsonEncoding encoding;
    wchar_t arrOut[6];
    std::size_t nWritten = 0;
    std::size_t nConsumed = 0;
    EXPECT_FALSE(encoding.encode(L"ab\u0001c", 4, arrOut, 6, nWritten, nConsumed));
    EXPECT_EQ(nConsumed, 2u);
    EXPECT_EQ(std::wstring(arrOut, nWritten), L"ab");
    // The escape fills the buffer exactly; the plain character after it waits for the next call.
    EXPECT_FALSE(encoding.encode(L"\u0001c", 2, arrOut, 6, nWritten, nConsumed));
    EXPECT_EQ(std::wstring(arrOut, nWritten), L"\\u0001");
    EXPECT_EQ(nConsumed, 1u);
    EXPECT_FALSE(encoding.encode(L"\"", 1, arrOut, 1, nWritten, nConsumed));
    EXPECT_EQ(nConsumed, 0u);
    EXPECT_EQ(nWritten, 0u);
}

}  // namespace
}  // namespace kiv

#include "weblogger/internal/configvariables.h"

#include <gtest/gtest.h>

#include "zq/webkeel/transcode.h"
#include "zq/webutil/xmldocument.h"

namespace kiv::logger_details {
namespace {

String replaced(const wchar_t* pszText, const ReplacementMap& map) {
    return makeReplacements(String(pszText), map);
}

TEST(ConfigVariablesTest, VariableInAnAttributeIsReplaced) {
    ReplacementMap map;
    map[String(L"dir")] = String(L"/var/log");
    const String text = replaced(L"<Writer path=\"{%dir%}/a.log\"/>", map);
    EXPECT_TRUE(text.equals(L"<Writer path=\"/var/log/a.log\"/>"));
    const XmlDocument document = XmlDocument::parseString(toUtf8(text.view()).c_str());
    EXPECT_TRUE(
        document.getDocumentElement()->getAttributeValue(L"path").equals(L"/var/log/a.log"));
}

TEST(ConfigVariablesTest, MarkupInAValueReachesTheReparsedAttributeUnchanged) {
    ReplacementMap map;
    map[String(L"v")] = String(L"a<b&c\"d");
    const String text = replaced(L"<W x=\"{%v%}\">{%v%}</W>", map);
    const XmlDocument document = XmlDocument::parseString(toUtf8(text.view()).c_str());
    const XmlElement* pRoot = document.getDocumentElement();
    ASSERT_NE(pRoot, nullptr);
    EXPECT_TRUE(pRoot->getAttributeValue(L"x").equals(L"a<b&c\"d"));
    EXPECT_TRUE(pRoot->getInnerText().equals(L"a<b&c\"d"));
}

TEST(ConfigVariablesTest, UnknownVariableVanishesWithItsMarkers) {
    const ReplacementMap map;
    EXPECT_TRUE(replaced(L"a{%nobody%}b", map).equals(L"ab"));
}

TEST(ConfigVariablesTest, EmptyMarkerPairLooksUpTheEmptyName) {
    ReplacementMap map;
    map[String()] = String(L"E");
    EXPECT_TRUE(replaced(L"a{%%}b", map).equals(L"aEb"));
}

TEST(ConfigVariablesTest, LoneBraceAndPercentAreCopied) {
    const ReplacementMap map;
    EXPECT_TRUE(replaced(L"50% {x} %{ {", map).equals(L"50% {x} %{ {"));
    EXPECT_TRUE(replaced(L"end{", map).equals(L"end{"));
}

TEST(ConfigVariablesTest, EmptyValueIsRemovedLikeAnUnknownOne) {
    ReplacementMap map;
    map[String(L"e")] = String();
    EXPECT_TRUE(replaced(L"a{%e%}b", map).equals(L"ab"));
}

TEST(ConfigVariablesTest, NamesMatchExactlyCaseIncluded) {
    ReplacementMap map;
    map[String(L"Dir")] = String(L"X");
    EXPECT_TRUE(replaced(L"{%dir%}{%Dir%}{% Dir%}", map).equals(L"X"));
}

TEST(ConfigVariablesTest, UnterminatedMarkerAtTheStartResumesAtIndexOne) {
    const ReplacementMap map;
    EXPECT_TRUE(replaced(L"{%abc", map).equals(L"%abc"));
}

TEST(ConfigVariablesTest, UnterminatedMarkerIsFoundWithItsLineAndColumn) {
    const std::wstring_view text = L"<a>\n  <b x=\"{%ok%}\"/>\n  <c y=\"{%open\"/>\n</a>";
    const std::size_t nAt = findUnterminatedMarker(text);
    ASSERT_NE(nAt, std::wstring_view::npos);
    EXPECT_EQ(text.substr(nAt, 6), L"{%open");
    const TextPosition position = positionOf(text, nAt);
    EXPECT_EQ(position.nLine, 3u);
    EXPECT_EQ(position.nColumn, 9u);
    EXPECT_EQ(findUnterminatedMarker(L"{%a%} and {%b%}"), std::wstring_view::npos);
}

TEST(ConfigVariablesTest, LongValuesAreEscapedWhole) {
    ReplacementMap map;
    map[String(L"v")] = String(std::wstring(1000, L'&').c_str());
    const String text = replaced(L"[{%v%}]", map);
    EXPECT_EQ(text.size(), 2u + 1000u * 5u);
}

}  // namespace
}  // namespace kiv::logger_details

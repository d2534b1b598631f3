#include "zq/webutil/xmldocument.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <optional>
#include <string>

#include "support/temp_dir.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

template <class F>
std::optional<XmlException> catchXmlException(F f) {
    try {
        f();
    } catch (const XmlException& e) {
        return e;
    }
    return std::nullopt;
}

// The message value of an exception, which must be a string.
std::wstring messageOf(const XmlException& e) {
    const auto* pString = dynamic_cast<const GDString*>(&e.getMsg());
    EXPECT_NE(pString, nullptr);
    return pString != nullptr ? std::wstring(pString->view()) : std::wstring();
}

bool contains(const std::wstring& text, std::wstring_view part) {
    return text.find(part) != std::wstring::npos;
}

std::string utf16(std::wstring_view text, bool bBigEndian) {
    std::string strBytes;
    auto put = [&](unsigned nUnit) {
        const char hi = static_cast<char>(nUnit >> 8);
        const char lo = static_cast<char>(nUnit & 0xFF);
        strBytes += bBigEndian ? hi : lo;
        strBytes += bBigEndian ? lo : hi;
    };
    for (wchar_t c : text) {
        const unsigned n = static_cast<unsigned>(c);
        if (n >= 0x10000) {
            put(0xD800 + ((n - 0x10000) >> 10));
            put(0xDC00 + ((n - 0x10000) & 0x3FF));
        } else {
            put(n);
        }
    }
    return strBytes;
}

long maxRssKb() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

TEST(XmlDocumentTest, ParsesElementsAttributesAndChildren) {
    const XmlDocument doc = XmlDocument::parseString(
        std::string_view("<Root a=\"1\" b='two'><Child x=\"y\"/><Child/><Other>t</Other></Root>"));
    ASSERT_FALSE(doc.isEmpty());
    const XmlElement* pRoot = doc.getDocumentElement();
    ASSERT_NE(pRoot, nullptr);
    EXPECT_EQ(doc.getDocumentElementHandle().get(), pRoot);
    EXPECT_TRUE(pRoot->getName().equals(L"Root"));
    ASSERT_EQ(pRoot->getAttributes().size(), 2u);
    EXPECT_TRUE(pRoot->getAttributes()[0].first.equals(L"a"));
    EXPECT_TRUE(pRoot->getAttributes()[0].second.equals(L"1"));
    EXPECT_TRUE(pRoot->getAttributes()[1].first.equals(L"b"));
    EXPECT_TRUE(pRoot->getAttributes()[1].second.equals(L"two"));
    EXPECT_TRUE(pRoot->hasAttribute(L"a"));
    EXPECT_FALSE(pRoot->hasAttribute(L"c"));
    ASSERT_EQ(pRoot->getChildNodes().size(), 3u);
    EXPECT_EQ(pRoot->getParent(), nullptr);
    const XmlElement* pChild = pRoot->getFirstChildElement();
    ASSERT_NE(pChild, nullptr);
    EXPECT_TRUE(pChild->getName().equals(L"Child"));
    EXPECT_TRUE(pChild->getAttributeValue(L"x").equals(L"y"));
    EXPECT_EQ(pChild->getParent(), pRoot);
    EXPECT_TRUE(pChild->getChildNodes().empty());
    EXPECT_EQ(pChild->getFirstChild(), nullptr);
    EXPECT_TRUE(doc.getDocumentElement()->getNodeValue().empty());
    EXPECT_TRUE(XmlDocument().isEmpty());
    EXPECT_EQ(XmlDocument().getDocumentElement(), nullptr);
}

TEST(XmlDocumentTest, NodeTypesAreOneThreeAndFive) {
    const XmlDocument doc =
        XmlDocument::parseString(std::string_view("<r>text<e/><![CDATA[raw]]></r>"));
    const auto& vecChildren = doc.getDocumentElement()->getChildNodes();
    ASSERT_EQ(vecChildren.size(), 3u);
    EXPECT_EQ(static_cast<int>(vecChildren[0]->getNodeType()), 3);
    EXPECT_EQ(static_cast<int>(vecChildren[1]->getNodeType()), 1);
    EXPECT_EQ(static_cast<int>(vecChildren[2]->getNodeType()), 5);
    EXPECT_EQ(static_cast<int>(doc.getDocumentElement()->getNodeType()), 1);
    EXPECT_EQ(vecChildren[0]->asElement(), nullptr);
    EXPECT_NE(vecChildren[1]->asElement(), nullptr);
    EXPECT_EQ(vecChildren[2]->asElement(), nullptr);
    EXPECT_TRUE(vecChildren[0]->getNodeValue().equals(L"text"));
    EXPECT_TRUE(vecChildren[2]->getNodeValue().equals(L"raw"));
}

TEST(XmlDocumentTest, AdjacentTextSplitByReferencesIsOneTextNode) {
    const XmlDocument doc = XmlDocument::parseString(
        std::string_view("<r>a&amp;b&#65;c&lt;&#x42;&gt;&quot;&apos;</r>"));
    const auto& vecChildren = doc.getDocumentElement()->getChildNodes();
    ASSERT_EQ(vecChildren.size(), 1u);
    EXPECT_EQ(vecChildren[0]->getNodeType(), XmlNode::kTypeText);
    EXPECT_TRUE(vecChildren[0]->getNodeValue().equals(L"a&bAc<B>\"'"));
}

TEST(XmlDocumentTest, CDataSectionIsItsOwnNode) {
    const XmlDocument doc = XmlDocument::parseString(
        std::string_view("<r>before<![CDATA[<in> & ]]]]><![CDATA[]]>after<![CDATA[x]]></r>"));
    const auto& vecChildren = doc.getDocumentElement()->getChildNodes();
    ASSERT_EQ(vecChildren.size(), 5u);
    EXPECT_EQ(vecChildren[0]->getNodeType(), XmlNode::kTypeText);
    EXPECT_TRUE(vecChildren[0]->getNodeValue().equals(L"before"));
    EXPECT_EQ(vecChildren[1]->getNodeType(), XmlNode::kTypeCDataSection);
    EXPECT_TRUE(vecChildren[1]->getNodeValue().equals(L"<in> & ]]"));
    // An empty section is still a node.
    EXPECT_EQ(vecChildren[2]->getNodeType(), XmlNode::kTypeCDataSection);
    EXPECT_TRUE(vecChildren[2]->getNodeValue().empty());
    EXPECT_EQ(vecChildren[3]->getNodeType(), XmlNode::kTypeText);
    EXPECT_TRUE(vecChildren[3]->getNodeValue().equals(L"after"));
    EXPECT_EQ(vecChildren[4]->getNodeType(), XmlNode::kTypeCDataSection);
    EXPECT_TRUE(vecChildren[4]->getNodeValue().equals(L"x"));
}

TEST(XmlDocumentTest, WhitespaceOnlyTextIsKept) {
    const XmlDocument doc =
        XmlDocument::parseString(std::string_view("<r>\n  <a> </a>\n\t<b/>\n</r>"));
    const XmlElement* pRoot = doc.getDocumentElement();
    const auto& vecChildren = pRoot->getChildNodes();
    ASSERT_EQ(vecChildren.size(), 5u);
    EXPECT_TRUE(vecChildren[0]->getNodeValue().equals(L"\n  "));
    EXPECT_TRUE(vecChildren[2]->getNodeValue().equals(L"\n\t"));
    EXPECT_TRUE(vecChildren[4]->getNodeValue().equals(L"\n"));
    EXPECT_TRUE(pRoot->selectSingleElement(L"a")->getInnerText().equals(L" "));
}

TEST(XmlDocumentTest, CommentsAndProcessingInstructionsAreDropped) {
    const XmlDocument doc = XmlDocument::parseString(
        std::string_view("<?xml version=\"1.0\"?><!-- head --><r>a<!-- c -->b<?pi data?>c</r>"));
    const auto& vecChildren = doc.getDocumentElement()->getChildNodes();
    ASSERT_EQ(vecChildren.size(), 1u);
    EXPECT_TRUE(vecChildren[0]->getNodeValue().equals(L"abc"));
}

TEST(XmlDocumentTest, QualifiedNamesAreKeptAsWritten) {
    const XmlDocument doc = XmlDocument::parseString(std::string_view(
        "<kivm:messages xmlns:kivm=\"urn:kiv\"><kivm:param insert=\"1\" kivm:x=\"2\"/>"
        "</kivm:messages>"));
    const XmlElement* pRoot = doc.getDocumentElement();
    EXPECT_TRUE(pRoot->getName().equals(L"kivm:messages"));
    EXPECT_TRUE(pRoot->getAttributeValue(L"xmlns:kivm").equals(L"urn:kiv"));
    const XmlElement* pParam = pRoot->selectSingleElement(L"kivm:param");
    ASSERT_NE(pParam, nullptr);
    EXPECT_TRUE(pParam->getAttributeValue(L"insert").equals(L"1"));
    EXPECT_TRUE(pParam->getAttributeValue(L"kivm:x").equals(L"2"));
    EXPECT_EQ(pRoot->selectSingleElement(L"param"), nullptr);
}

TEST(XmlDocumentTest, FirstChildAndNextSiblingWalkTheChildren) {
    const XmlDocument doc =
        XmlDocument::parseString(std::string_view("<r>t1<a/>t2<b/><![CDATA[c]]><c/></r>"));
    const XmlElement* pRoot = doc.getDocumentElement();
    std::wstring strWalk;
    for (const XmlNode* pNode = pRoot->getFirstChild(); pNode != nullptr;
         pNode = pNode->getNextSibling()) {
        EXPECT_EQ(pNode->getParent(), pRoot);
        strWalk += pNode->asElement() != nullptr ? pNode->asElement()->getName().std()
                                                 : pNode->getNodeValue().std();
        strWalk += L',';
    }
    EXPECT_EQ(strWalk, L"t1,a,t2,b,c,c,");
    std::wstring strElements;
    for (const XmlElement* pElement = pRoot->getFirstChildElement(); pElement != nullptr;
         pElement = pElement->getNextSiblingElement()) {
        strElements += pElement->getName().std();
    }
    EXPECT_EQ(strElements, L"abc");
    EXPECT_EQ(pRoot->getNextSibling(), nullptr);
    EXPECT_EQ(pRoot->getNextSiblingElement(), nullptr);
}

TEST(XmlDocumentTest, MissingRequiredAttributeNamesElementAndAttribute) {
    const XmlDocument doc =
        XmlDocument::parseString(std::string_view("<WriterClassGroup other=\"x\"/>"));
    const XmlElement* pElement = doc.getDocumentElement();
    const auto e = catchXmlException([&] { pElement->getAttributeValue(L"name", true); });
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(messageOf(*e), L"Required attribute 'name' is missing in element 'WriterClassGroup'");
    EXPECT_TRUE(
        e->getText().equals(L"Required attribute 'name' is missing in element "
                            L"'WriterClassGroup'"));
    EXPECT_TRUE(e->getSource().empty());
    EXPECT_EQ(e->getXmlLine(), 0u);
    EXPECT_EQ(e->getXmlColumn(), 0u);
    EXPECT_STREQ(e->what(), "Required attribute 'name' is missing in element 'WriterClassGroup'");
    const auto e2 =
        catchXmlException([&] { pElement->unchecked_getAttributeValue(L"name", true); });
    ASSERT_TRUE(e2.has_value());
    EXPECT_TRUE(e2->getText().equals(e->getText()));
    EXPECT_TRUE(pElement->getAttributeValue(L"other", true).equals(L"x"));
}

TEST(XmlDocumentTest, MissingOptionalAttributeIsEmpty) {
    const XmlDocument doc = XmlDocument::parseString(std::string_view("<e a=\"v\" empty=\"\"/>"));
    const XmlElement* pElement = doc.getDocumentElement();
    EXPECT_TRUE(pElement->getAttributeValue(L"missing").empty());
    EXPECT_TRUE(pElement->unchecked_getAttributeValue(L"missing").empty());
    EXPECT_EQ(pElement->findAttribute(L"missing"), nullptr);
    EXPECT_TRUE(pElement->hasAttribute(L"empty"));
    EXPECT_TRUE(pElement->getAttributeValue(L"empty", true).empty());
}

TEST(XmlDocumentTest, UncheckedGetAttributeValueReturnsTheStoredValue) {
    const XmlDocument doc = XmlDocument::parseString(std::string_view("<e a=\"v\"/>"));
    const XmlElement* pElement = doc.getDocumentElement();
    const String& value = pElement->unchecked_getAttributeValue(L"a");
    EXPECT_EQ(&value, &pElement->getAttributes()[0].second);
    EXPECT_EQ(&value, pElement->findAttribute(L"a"));
    EXPECT_TRUE(value.equals(L"v"));
}

TEST(XmlDocumentTest, SelectsElementsByPathInDocumentOrder) {
    const XmlDocument doc = XmlDocument::parseString(
        std::string_view("<Config>"
                         "<Writers><Writer n=\"1\"/><Other/><Writer n=\"2\"><Writer "
                         "n=\"nested\"/></Writer></Writers>"
                         "<Writers><Writer n=\"3\"/></Writers>"
                         "<A/><A><B n=\"b1\"/></A><A><B n=\"b2\"/></A>"
                         "</Config>"));
    const XmlElement* pRoot = doc.getDocumentElement();
    const auto vecWriters = pRoot->selectElements(L"Writers/Writer");
    ASSERT_EQ(vecWriters.size(), 3u);
    EXPECT_TRUE(vecWriters[0]->getAttributeValue(L"n").equals(L"1"));
    EXPECT_TRUE(vecWriters[1]->getAttributeValue(L"n").equals(L"2"));
    EXPECT_TRUE(vecWriters[2]->getAttributeValue(L"n").equals(L"3"));
    // Slashes at either end and doubled ones do not count.
    EXPECT_EQ(pRoot->selectElements(L"/Writers//Writer/").size(), 3u);
    EXPECT_EQ(pRoot->selectElements(L"Writers/Writer/Writer").size(), 1u);
    EXPECT_EQ(pRoot->selectElements(L"Writers").size(), 2u);
    EXPECT_TRUE(pRoot->selectElements(L"Nothing/Writer").empty());
    EXPECT_TRUE(pRoot->selectElements(L"writers").empty());
    const auto vecSelf = pRoot->selectElements(L"");
    ASSERT_EQ(vecSelf.size(), 1u);
    EXPECT_EQ(vecSelf[0], pRoot);

    EXPECT_EQ(pRoot->selectSingleElement(L""), pRoot);
    EXPECT_EQ(pRoot->selectSingleElement(L"/"), pRoot);
    EXPECT_EQ(pRoot->selectSingleElement(L"Writers/Writer"), vecWriters[0]);
    // The first A has no B: the first match in document order is under the second A.
    const XmlElement* pB = pRoot->selectSingleElement(L"A/B");
    ASSERT_NE(pB, nullptr);
    EXPECT_TRUE(pB->getAttributeValue(L"n").equals(L"b1"));
    EXPECT_EQ(pRoot->selectSingleElement(L"A/C"), nullptr);
    EXPECT_EQ(pRoot->selectSingleElement(L"Config"), nullptr);
}

TEST(XmlDocumentTest, InnerTextConcatenatesTextAndCDataBelow) {
    const XmlDocument doc = XmlDocument::parseString(
        std::string_view("<r>a<x>b<y>c</y><![CDATA[d]]></x>e<z/>&amp;</r>"));
    EXPECT_TRUE(doc.getDocumentElement()->getInnerText().equals(L"abcde&"));
    EXPECT_TRUE(doc.getDocumentElement()->selectSingleElement(L"x")->getInnerText().equals(L"bcd"));
    EXPECT_TRUE(doc.getDocumentElement()->selectSingleElement(L"z")->getInnerText().empty());
}

TEST(XmlDocumentTest, SerialisationRoundTrips) {
    const std::string_view input =
        "<?xml version=\"1.0\"?>\n"
        "<Config version=\"2\" q='say \"hi\"'>\n"
        "  <!-- dropped -->\n"
        "  <Writer name=\"a&amp;b\" tab=\"x&#9;y\" nl=\"x&#10;y\" cr=\"x&#13;y\">"
        "1 &lt; 2 &amp;&amp; 3 &gt; 2 ]]&gt; \"q\" 'a'</Writer>\n"
        "  <Raw><![CDATA[<b>bold</b> & more]]></Raw>\n"
        "  <Mixed>t<![CDATA[c]]>t<e/>&#13;</Mixed>\n"
        "  <Empty></Empty><kivm:x kivm:y=\"1\"/>\n"
        "</Config>\n";
    const XmlDocument doc = XmlDocument::parseString(input);
    const String strFirst = doc.getDocumentElement()->toXmlString();
    const XmlDocument doc2 = XmlDocument::parseString(strFirst);
    const String strSecond = doc2.getDocumentElement()->toXmlString();
    EXPECT_EQ(strFirst.std(), strSecond.std());
    const XmlElement* pWriter = doc2.getDocumentElement()->selectSingleElement(L"Writer");
    EXPECT_TRUE(pWriter->getAttributeValue(L"name").equals(L"a&b"));
    EXPECT_TRUE(pWriter->getAttributeValue(L"tab").equals(L"x\ty"));
    EXPECT_TRUE(pWriter->getAttributeValue(L"nl").equals(L"x\ny"));
    EXPECT_TRUE(pWriter->getAttributeValue(L"cr").equals(L"x\ry"));
    EXPECT_TRUE(pWriter->getInnerText().equals(L"1 < 2 && 3 > 2 ]]> \"q\" 'a'"));
    EXPECT_TRUE(doc2.getDocumentElement()->getAttributeValue(L"q").equals(L"say \"hi\""));
    const auto& vecRaw = doc2.getDocumentElement()->selectSingleElement(L"Raw")->getChildNodes();
    ASSERT_EQ(vecRaw.size(), 1u);
    EXPECT_EQ(vecRaw[0]->getNodeType(), XmlNode::kTypeCDataSection);
    EXPECT_EQ(doc2.getDocumentElement()->selectSingleElement(L"Mixed")->getChildNodes().size(), 5u);
    EXPECT_TRUE(
        doc2.getDocumentElement()->selectSingleElement(L"Mixed")->getInnerText().equals(L"tct\r"));
}

TEST(XmlDocumentTest, SerialisationEscapesSpecialCharacters) {
    XmlElement root(L"r");
    root.setAttribute(L"a", L"<&>\"'\t\r\n");
    root.appendText(L"x<&>\"\r\n\ty");
    XmlElement& child = root.appendElement(L"c");
    child.appendText(L"a]]>b", XmlNode::kTypeCDataSection);
    root.appendElement(L"empty");
    root.appendText(L"", XmlNode::kTypeCDataSection);
    const String strXml = root.toXmlString();
    EXPECT_EQ(strXml.std(),
              L"<r a=\"&lt;&amp;&gt;&quot;'&#9;&#13;&#10;\">x&lt;&amp;&gt;\"&#13;\n\ty"
              L"<c><![CDATA[a]]]]><![CDATA[>b]]></c><empty/><![CDATA[]]></r>");
    const XmlDocument doc = XmlDocument::parseString(strXml);
    const XmlElement* pRoot = doc.getDocumentElement();
    EXPECT_TRUE(pRoot->getAttributeValue(L"a").equals(L"<&>\"'\t\r\n"));
    EXPECT_TRUE(pRoot->getFirstChild()->getNodeValue().equals(L"x<&>\"\r\n\ty"));
    // The split section reads back as two sections with the original text between them.
    EXPECT_TRUE(pRoot->selectSingleElement(L"c")->getInnerText().equals(L"a]]>b"));
    EXPECT_EQ(pRoot->selectSingleElement(L"c")->getChildNodes().size(), 2u);
    EXPECT_EQ(pRoot->toXmlString().std(), strXml.std());
}

TEST(XmlDocumentTest, BuildingMergesAdjacentTextAndSetsLinks) {
    XmlElement root(L"r");
    root.appendText(L"a");
    root.appendText(L"");
    root.appendText(L"b");
    XmlElement& child = root.appendElement(L"c");
    root.appendText(L"d", XmlNode::kTypeCDataSection);
    root.appendText(L"e");
    root.setAttribute(L"k", L"1");
    root.setAttribute(L"k", L"2");
    ASSERT_EQ(root.getChildNodes().size(), 4u);
    EXPECT_TRUE(root.getFirstChild()->getNodeValue().equals(L"ab"));
    EXPECT_EQ(root.getFirstChild()->getNextSibling(), &child);
    EXPECT_EQ(child.getParent(), &root);
    EXPECT_EQ(child.getNextSibling()->getNodeType(), XmlNode::kTypeCDataSection);
    ASSERT_EQ(root.getAttributes().size(), 1u);
    EXPECT_TRUE(root.getAttributeValue(L"k").equals(L"2"));
}

TEST(XmlDocumentTest, NonBmpCharactersSurvive) {
    const std::string_view input = "<r a=\"\xF0\x9F\x98\x80\">x\xF0\x9F\x98\x80y&#x1F600;</r>";
    const XmlDocument doc = XmlDocument::parseString(input);
    const XmlElement* pRoot = doc.getDocumentElement();
    EXPECT_TRUE(pRoot->getAttributeValue(L"a").equals(L"\U0001F600"));
    EXPECT_TRUE(pRoot->getInnerText().equals(L"x\U0001F600y\U0001F600"));
    const String strXml = pRoot->toXmlString();
    EXPECT_EQ(strXml.std(), L"<r a=\"\U0001F600\">x\U0001F600y\U0001F600</r>");
    EXPECT_EQ(toUtf8(strXml.view()).std(),
              "<r a=\"\xF0\x9F\x98\x80\">x\xF0\x9F\x98\x80y\xF0\x9F\x98\x80</r>");
    EXPECT_TRUE(XmlDocument::parseString(strXml).getDocumentElement()->getInnerText().equals(
        L"x\U0001F600y\U0001F600"));
}

TEST(XmlDocumentTest, ElementsRememberTheLineOfTheirStartTag) {
    const XmlDocument doc = XmlDocument::parseString(std::string_view(
        "<?xml version=\"1.0\"?>\n<r>\n  <a/>\n\n  <b\n     x=\"1\">\n    <c/></b>\n</r>"));
    const XmlElement* pRoot = doc.getDocumentElement();
    EXPECT_EQ(pRoot->getLine(), 2u);
    EXPECT_EQ(pRoot->selectSingleElement(L"a")->getLine(), 3u);
    // A start tag spread over lines is reported where it begins.
    EXPECT_EQ(pRoot->selectSingleElement(L"b")->getLine(), 5u);
    EXPECT_EQ(pRoot->selectSingleElement(L"b/c")->getLine(), 7u);
}

TEST(XmlDocumentTest, ElementsRememberTheColumnOfTheirStartTag) {
    const XmlDocument doc =
        XmlDocument::parseString(std::string_view("<r>\n  <a/><b\n x=\"1\"/>\n\t<c/>\n</r>"));
    const XmlElement* pRoot = doc.getDocumentElement();
    EXPECT_EQ(pRoot->getColumn(), 1u);
    EXPECT_EQ(pRoot->selectSingleElement(L"a")->getColumn(), 3u);
    // The column of the "<", also when the tag goes on over the next line.
    EXPECT_EQ(pRoot->selectSingleElement(L"b")->getColumn(), 7u);
    EXPECT_EQ(pRoot->selectSingleElement(L"c")->getColumn(), 2u);
    XmlElement built(String(L"r"));
    EXPECT_EQ(built.getColumn(), 0u);
}

TEST(XmlDocumentTest, ElementsBuiltInCodeHaveNoLine) {
    XmlElement root(String(L"r"));
    EXPECT_EQ(root.getLine(), 0u);
    EXPECT_EQ(root.appendElement(String(L"a")).getLine(), 0u);
}

TEST(XmlDocumentTest, LinesOfAWideTextDocumentAndAFileAreCounted) {
    const XmlDocument wide = XmlDocument::parseString(String(L"<r>\n\u00E9\n<a/></r>"));
    EXPECT_EQ(wide.getDocumentElement()->selectSingleElement(L"a")->getLine(), 3u);
    test::TempDir dir;
    const std::string strPath = dir.write("lines.xml", "\xEF\xBB\xBF<r>\r\n<a/>\r\n<b/></r>");
    const XmlDocument file = XmlDocument::loadFromFile(NString(strPath.c_str()));
    EXPECT_EQ(file.getDocumentElement()->selectSingleElement(L"b")->getLine(), 3u);
}

TEST(XmlDocumentTest, ParsesWideText) {
    const XmlDocument doc = XmlDocument::parseString(String(L"<r>\u00E9\u20AC</r>"));
    EXPECT_TRUE(doc.getDocumentElement()->getInnerText().equals(L"\u00E9\u20AC"));
}

TEST(XmlDocumentTest, LoadsUtf8FileWithByteOrderMark) {
    test::TempDir dir;
    const std::string strPath = dir.write(
        "bom8.xml", "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?><r>caf\xC3\xA9</r>");
    const XmlDocument doc = XmlDocument::loadFromFile(NString(strPath.c_str()));
    EXPECT_TRUE(doc.getDocumentElement()->getInnerText().equals(L"caf\u00E9"));
}

TEST(XmlDocumentTest, LoadsUtf16LittleEndianFileWithByteOrderMark) {
    test::TempDir dir;
    const std::string strPath =
        dir.write("le.xml", "\xFF\xFE" + utf16(L"<?xml version=\"1.0\" encoding=\"UTF-16\"?>"
                                               L"<r a=\"\u00E9\">x\U0001F600\u20AC</r>",
                                               false));
    const XmlDocument doc = XmlDocument::loadFromFile(NString(strPath.c_str()));
    EXPECT_TRUE(doc.getDocumentElement()->getAttributeValue(L"a").equals(L"\u00E9"));
    EXPECT_TRUE(doc.getDocumentElement()->getInnerText().equals(L"x\U0001F600\u20AC"));
}

TEST(XmlDocumentTest, LoadsUtf16BigEndianFileWithByteOrderMark) {
    test::TempDir dir;
    const std::string strPath =
        dir.write("be.xml", "\xFE\xFF" + utf16(L"<r>x\U0001F600\u20AC</r>", true));
    const XmlDocument doc = XmlDocument::loadFromFile(NString(strPath.c_str()));
    EXPECT_TRUE(doc.getDocumentElement()->getInnerText().equals(L"x\U0001F600\u20AC"));
}

TEST(XmlDocumentTest, LoadsFileInTheDeclaredEncoding) {
    test::TempDir dir;
    const std::string strPath = dir.write(
        "latin1.xml", "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><r a=\"\xE9\">caf\xE9</r>");
    const XmlDocument doc = XmlDocument::loadFromFile(NString(strPath.c_str()));
    EXPECT_TRUE(doc.getDocumentElement()->getInnerText().equals(L"caf\u00E9"));
    EXPECT_TRUE(doc.getDocumentElement()->getAttributeValue(L"a").equals(L"\u00E9"));
    // Without a declaration the same byte is not UTF-8.
    const std::string strBad = dir.write("bad.xml", "<r>caf\xE9</r>");
    EXPECT_TRUE(
        catchXmlException([&] { XmlDocument::loadFromFile(NString(strBad.c_str())); }).has_value());
}

TEST(XmlDocumentTest, MalformedFileNamesPathLineAndColumn) {
    test::TempDir dir;
    const std::string strPath = dir.write("bad.xml", "<root>\n  <a>\n    </b>\n</root>\n");
    const auto e = catchXmlException([&] { XmlDocument::loadFromFile(NString(strPath.c_str())); });
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(e->getSource().std(), fromUtf8(strPath).std());
    EXPECT_EQ(e->getXmlLine(), 3u);
    EXPECT_EQ(e->getXmlColumn(), 7u);
    EXPECT_TRUE(e->getText().equals(L"mismatched tag"));
    EXPECT_EQ(messageOf(*e), fromUtf8(strPath).std() + L":3:7: mismatched tag");
    EXPECT_EQ(std::string(e->what()), strPath + ":3:7: mismatched tag");
}

TEST(XmlDocumentTest, StringErrorsNameTheSource) {
    const auto e = catchXmlException([] { XmlDocument::parseString(std::string_view("<a>\n<b")); });
    ASSERT_TRUE(e.has_value());
    EXPECT_TRUE(e->getSource().equals(L"<string>"));
    EXPECT_EQ(e->getXmlLine(), 2u);
    EXPECT_TRUE(contains(messageOf(*e), L"<string>:2:"));
    const auto e2 = catchXmlException(
        [] { XmlDocument::parseString(std::string_view("<a></b>"), String(L"config.xml")); });
    ASSERT_TRUE(e2.has_value());
    EXPECT_EQ(messageOf(*e2), L"config.xml:1:6: mismatched tag");
}

TEST(XmlDocumentTest, MissingFileNamesThePath) {
    test::TempDir dir;
    const std::string strPath = dir.file("does-not-exist.xml");
    const auto e = catchXmlException([&] { XmlDocument::loadFromFile(NString(strPath.c_str())); });
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(e->getSource().std(), fromUtf8(strPath).std());
    EXPECT_TRUE(contains(messageOf(*e), fromUtf8(strPath).std()));
    EXPECT_TRUE(contains(messageOf(*e), L"No such file or directory"));
    EXPECT_EQ(e->getXmlLine(), 0u);
}

TEST(XmlDocumentTest, EmptyInputIsAnError) {
    EXPECT_TRUE(catchXmlException([] { XmlDocument::parseString(std::string_view()); }));
    EXPECT_TRUE(catchXmlException([] { XmlDocument::parseString(std::string_view("  \n")); }));
    EXPECT_TRUE(
        catchXmlException([] { XmlDocument::parseString(std::string_view("<!-- c -->")); }));
    EXPECT_TRUE(catchXmlException(
        [] { XmlDocument::parseString(std::string_view("<?xml version=\"1.0\"?>")); }));
    test::TempDir dir;
    const std::string strPath = dir.write("empty.xml", "");
    const auto e = catchXmlException([&] { XmlDocument::loadFromFile(NString(strPath.c_str())); });
    ASSERT_TRUE(e.has_value());
    EXPECT_TRUE(contains(messageOf(*e), fromUtf8(strPath).std()));
}

TEST(XmlDocumentTest, RejectsBillionLaughs) {
    std::string strDoc = "<?xml version=\"1.0\"?>\n<!DOCTYPE lolz [\n<!ENTITY lol \"lol\">\n";
    for (int i = 1; i <= 9; ++i) {
        const std::string strPrevious = i == 1 ? "lol" : "lol" + std::to_string(i - 1);
        strDoc += "<!ENTITY lol" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j) {
            strDoc += "&" + strPrevious + ";";
        }
        strDoc += "\">\n";
    }
    strDoc += "]>\n<lolz>&lol9;</lolz>\n";

    const long nRssBefore = maxRssKb();
    const auto start = std::chrono::steady_clock::now();
    const auto e = catchXmlException([&] { XmlDocument::parseString(std::string_view(strDoc)); });
    const auto elapsed = std::chrono::steady_clock::now() - start;
    ASSERT_TRUE(e.has_value());
    EXPECT_TRUE(e->getText().equals(L"entity declarations are not allowed"));
    EXPECT_EQ(e->getXmlLine(), 3u);
    EXPECT_TRUE(contains(messageOf(*e), L"<string>:3:"));
    EXPECT_TRUE(contains(messageOf(*e), L": entity declarations are not allowed"));
    EXPECT_LT(maxRssKb() - nRssBefore, 50L * 1024L);
    EXPECT_LT(elapsed, std::chrono::seconds(2));
}

TEST(XmlDocumentTest, RejectsParameterEntityDeclarations) {
    const auto e = catchXmlException([] {
        XmlDocument::parseString(
            std::string_view("<!DOCTYPE r [<!ENTITY % p \"<!ENTITY x 'y'>\"> %p;]><r>&x;</r>"));
    });
    ASSERT_TRUE(e.has_value());
    EXPECT_TRUE(e->getText().equals(L"entity declarations are not allowed"));
}

TEST(XmlDocumentTest, RejectsDeepNesting) {
    std::string strDoc;
    for (int i = 0; i < 10000; ++i) {
        strDoc += "<e>";
    }
    for (int i = 0; i < 10000; ++i) {
        strDoc += "</e>";
    }
    const auto e = catchXmlException([&] { XmlDocument::parseString(std::string_view(strDoc)); });
    ASSERT_TRUE(e.has_value());
    EXPECT_TRUE(e->getText().equals(L"elements nested deeper than 256"));
    EXPECT_EQ(e->getXmlLine(), 1u);
    EXPECT_EQ(e->getXmlColumn(), 256u * 3u + 1u);
}

TEST(XmlDocumentTest, AcceptsNestingUpToTheLimit) {
    std::string strDoc;
    for (unsigned i = 0; i < XmlDocument::kMaxDepth; ++i) {
        strDoc += "<e>";
    }
    strDoc += "deep";
    for (unsigned i = 0; i < XmlDocument::kMaxDepth; ++i) {
        strDoc += "</e>";
    }
    const XmlDocument doc = XmlDocument::parseString(std::string_view(strDoc));
    EXPECT_TRUE(doc.getDocumentElement()->getInnerText().equals(L"deep"));
}

TEST(XmlDocumentTest, NeverLoadsExternalEntities) {
    const std::string strPasswd = test::readFile("/etc/passwd");
    const std::wstring strFirstLine =
        fromUtf8(std::string_view(strPasswd).substr(0, strPasswd.find('\n'))).std();
    const auto e = catchXmlException([] {
        XmlDocument::parseString(
            std::string_view("<!DOCTYPE r [<!ENTITY x SYSTEM \"file:///etc/passwd\">]><r>&x;</r>"));
    });
    ASSERT_TRUE(e.has_value());
    EXPECT_TRUE(contains(messageOf(*e), L"entity declarations are not allowed"));
    if (!strFirstLine.empty()) {
        EXPECT_FALSE(contains(messageOf(*e), strFirstLine));
    }

    // An external subset is not read either: the document parses without it.
    const XmlDocument doc = XmlDocument::parseString(
        std::string_view("<!DOCTYPE r SYSTEM \"file:///etc/passwd\"><r>x</r>"));
    EXPECT_EQ(doc.getDocumentElement()->toXmlString().std(), L"<r>x</r>");
}

TEST(XmlDocumentTest, AcceptsDoctypeWithoutEntityDeclarations) {
    const XmlDocument doc = XmlDocument::parseString(std::string_view("<!DOCTYPE r><r/>"));
    EXPECT_TRUE(doc.getDocumentElement()->getName().equals(L"r"));
    const XmlDocument doc2 = XmlDocument::parseString(std::string_view(
        "<!DOCTYPE r [<!ELEMENT r ANY><!ATTLIST r a CDATA #IMPLIED>]><r a=\"1\"/>"));
    EXPECT_TRUE(doc2.getDocumentElement()->getAttributeValue(L"a").equals(L"1"));
}

TEST(XmlDocumentTest, UndefinedEntityReferenceIsAnError) {
    const auto e =
        catchXmlException([] { XmlDocument::parseString(std::string_view("<r>&x;</r>")); });
    ASSERT_TRUE(e.has_value());
    EXPECT_TRUE(contains(messageOf(*e), L"undefined entity"));
    // With an external subset that is never read, expat would skip the reference silently.
    const auto e2 = catchXmlException([] {
        XmlDocument::parseString(std::string_view("<!DOCTYPE r SYSTEM \"r.dtd\"><r>&x;</r>"));
    });
    ASSERT_TRUE(e2.has_value());
    EXPECT_TRUE(contains(messageOf(*e2), L"undefined entity 'x'"));
}

}  // namespace
}  // namespace kiv

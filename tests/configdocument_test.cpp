#include "weblogger/internal/configdocument.h"

#include <gtest/gtest.h>

#include <string>

#include "support/temp_dir.h"
#include "support/test_writer.h"
#include "weblogger/messageformatloader.h"
#include "zq/webkeel/transcode.h"

namespace kiv::logger_details {
namespace {

using test::RecordingWriter;
using test::TempDir;

std::string utf8(std::wstring_view text) {
    const NString bytes = toUtf8(text);
    return std::string(bytes.data(), bytes.size());
}

XmlDocument parse(const std::string& xml) {
    return XmlDocument::parseString(std::string_view(xml));
}

bool contains(const String& text, const std::string& part) {
    return utf8(text.view()).find(part) != std::string::npos;
}

TEST(ConfigDocumentTest, LineOfAnElementCountsTheOffsetOfAReparsedDocument) {
    const XmlDocument document = parse("<Logging>\n\n<Writers/></Logging>");
    const XmlElement* pWriters = document.getDocumentElement()->getFirstChildElement();
    ASSERT_NE(pWriters, nullptr);
    EXPECT_EQ((SourcePlace{String(L"a.xml"), 0}).lineOf(*pWriters), 3u);
    EXPECT_EQ((SourcePlace{String(L"a.xml"), 10}).lineOf(*pWriters), 13u);
}

TEST(ConfigDocumentTest, ProblemNamesFileAndLine) {
    const SourcePlace place{String(L"logconfig.xml"), 0};
    EXPECT_TRUE(textOf(problemAt(place, 12, GDString(L"what went wrong")))
                    .equals(L"logconfig.xml:12: what went wrong"));
}

TEST(ConfigDocumentTest, ReplacedVariablesKeepTheLinesOfTheOriginal) {
    const XmlDocument document =
        parse("<Server>\n\n<Logging>\n<Writers path='{%dir%}'/></Logging></Server>");
    const XmlElement* pLogging = document.getDocumentElement()->getFirstChildElement();
    ASSERT_NE(pLogging, nullptr);
    ReplacementMap map;
    map[String(L"dir")] = String(L"/var/log");
    SourcePlace place{String(L"a.xml"), 0};
    XmlDocument holder;
    const XmlElement& replaced = replaceVariables(*pLogging, map, place, holder);
    const XmlElement* pWriters = replaced.getFirstChildElement();
    ASSERT_NE(pWriters, nullptr);
    EXPECT_TRUE(pWriters->getAttributeValue(L"path").equals(L"/var/log"));
    EXPECT_EQ(place.nLineOffset, 2u);
    EXPECT_EQ(place.lineOf(*pWriters), 4u);
}

TEST(ConfigDocumentTest, UnterminatedVariableIsRefusedWithItsLine) {
    const XmlDocument document = parse("<Logging>\n<Writers path='x{%dir'/></Logging>");
    SourcePlace place{String(L"a.xml"), 0};
    XmlDocument holder;
    try {
        replaceVariables(*document.getDocumentElement(), ReplacementMap(), place, holder);
        FAIL() << "no exception";
    } catch (const LogConfigurationException& e) {
        EXPECT_TRUE(contains(textOf(e.getMsg()), "a.xml")) << utf8(textOf(e.getMsg()).view());
        EXPECT_TRUE(contains(textOf(e.getMsg()), "2")) << utf8(textOf(e.getMsg()).view());
    }
}

TEST(ConfigDocumentTest, FormatChainIsTheDocumentsFormatsThenTheBuiltInOnes) {
    const XmlDocument document = parse("<Logging><Formats/><Other/><Formats/></Logging>");
    const XmlElement* pFirst = document.getDocumentElement()->getFirstChildElement();
    LogWritersFactory::ConfigChain chain;
    buildFormatChain(*document.getDocumentElement(), chain);
    ASSERT_GE(chain.size(), 3u);
    EXPECT_EQ(chain.front(), pFirst);
    EXPECT_TRUE(chain[1]->getName().equals(L"Formats"));
    EXPECT_NE(chain[1], pFirst);
    EXPECT_EQ(chain.back(), MessageFormatLoader::getFallbackLoggerFormats());
}

TEST(ConfigDocumentTest, ClassIdIsValidFromZeroToNineAsTheFactoryReadsIt) {
    for (const wchar_t* pszId : {L"0", L"9", L"3", L" 4"}) {
        EXPECT_TRUE(isValidClassId(String(pszId))) << utf8(pszId);
    }
    for (const wchar_t* pszId : {L"10", L"-1", L"99"}) {
        EXPECT_FALSE(isValidClassId(String(pszId))) << utf8(pszId);
    }
}

TEST(ConfigDocumentTest, WriterWithoutRecordsHasNoFilter) {
    const XmlDocument document = parse(
        "<Logging><Writers><Writer name='w' writerClassId='1'/></Writers>"
        "<WriterClassGroups><WriterClassGroup name='One'>1</WriterClassGroup>"
        "</WriterClassGroups>"
        "<Filters><FilterRecord writerClassGroup='One' path='cfg' error='20'/></Filters>"
        "</Logging>");
    const XmlElement& root = *document.getDocumentElement();
    const XmlElement* pWriter = root.selectSingleElement(L"Writers/Writer");
    ASSERT_NE(pWriter, nullptr);
    EXPECT_TRUE(buildWriterFilter(root, *pWriter, String(L"1"), false).isNull());
    EXPECT_FALSE(buildWriterFilter(root, *pWriter, String(L"1"), true).isNull());
    const XmlDocument bare = parse("<Logging><Writers><Writer name='w'/></Writers></Logging>");
    const XmlElement* pBare = bare.getDocumentElement()->selectSingleElement(L"Writers/Writer");
    ASSERT_NE(pBare, nullptr);
    EXPECT_TRUE(buildWriterFilter(*bare.getDocumentElement(), *pBare, String(L"1"), true).isNull());
}

TEST(ConfigDocumentTest, WriterWithItsOwnRecordsHasAFilter) {
    const XmlDocument document = parse(
        "<Logging><Writers><Writer name='w' writerClassId='1'>"
        "<Filters><FilterRecord path='cfg' error='5'/></Filters></Writer></Writers>"
        "</Logging>");
    const XmlElement& root = *document.getDocumentElement();
    const XmlElement* pWriter = root.selectSingleElement(L"Writers/Writer");
    ASSERT_NE(pWriter, nullptr);
    EXPECT_FALSE(buildWriterFilter(root, *pWriter, String(L"1"), false).isNull());
}

TEST(ConfigDocumentTest, WriterIsDescribedByNameAndId) {
    const Handle<LogWriter> hWriter(
        new RecordingWriter(String(L"rec"), 3, LogWriter::WT_SHARED, Handle<const WriterFilter>()));
    EXPECT_TRUE(describeWriter(*hWriter).equals(L"rec (id 3)"));
    const std::vector<String> vecText = describeWriters({hWriter, hWriter});
    ASSERT_EQ(vecText.size(), 2u);
    EXPECT_TRUE(vecText[1].equals(L"rec (id 3)"));
}

TEST(ConfigDocumentTest, EveryOversizedAttributeIsFoundDownTheTree) {
    const std::string strLong(kMaxAttributeLength + 1, 'x');
    const std::string strLimit(kMaxAttributeLength, 'x');
    const XmlDocument document = parse("<Logging a='" + strLimit + "'><Writers><Writer b='" +
                                       strLong + "' c='" + strLong + "'/></Writers></Logging>");
    std::vector<String> vecFound;
    const bool bFine = forEachOversizedAttribute(
        *document.getDocumentElement(),
        [&](const XmlElement& owner, const XmlElement::Attribute& attribute) {
            EXPECT_TRUE(owner.getName().equals(L"Writer"));
            vecFound.push_back(attribute.first);
        });
    EXPECT_FALSE(bFine);
    ASSERT_EQ(vecFound.size(), 2u);
    const XmlDocument fine = parse("<Logging a='" + strLimit + "'/>");
    EXPECT_TRUE(forEachOversizedAttribute(*fine.getDocumentElement(),
                                          [](const XmlElement&, const XmlElement::Attribute&) {}));
}

TEST(ConfigDocumentTest, OversizedAttributeProblemNamesElementAttributeAndLengths) {
    const std::string strLong(kMaxAttributeLength + 1, 'x');
    const XmlDocument document = parse("<Logging>\n<Writer dir='" + strLong + "'/></Logging>");
    const XmlElement* pWriter = document.getDocumentElement()->getFirstChildElement();
    ASSERT_NE(pWriter, nullptr);
    const XmlElement::Attribute& attribute = pWriter->getAttributes().front();
    const String text =
        textOf(attributeTooLong(SourcePlace{String(L"a.xml"), 0}, *pWriter, attribute));
    for (const std::string& part :
         {std::string("a.xml"), std::string("2"), std::string("Writer"), std::string("dir"),
          std::to_string(kMaxAttributeLength + 1), std::to_string(kMaxAttributeLength)}) {
        EXPECT_TRUE(contains(text, part)) << part << " in " << utf8(text.view());
    }
}

TEST(ConfigDocumentTest, Utf8TextIsReadWithoutItsByteOrderMark) {
    const TempDir dir;
    String text;
    ASSERT_TRUE(readUtf8Text(fromUtf8(dir.write("bom.xml", "\xEF\xBB\xBF<a>\xC3\xA9</a>")), text));
    EXPECT_TRUE(text.equals(L"<a>\u00E9</a>"));
    ASSERT_TRUE(readUtf8Text(fromUtf8(dir.write("plain.xml", "<b/>")), text));
    EXPECT_TRUE(text.equals(L"<b/>"));
}

TEST(ConfigDocumentTest, Utf16TextIsLeftToTheXmlLayer) {
    const TempDir dir;
    String text(L"unchanged");
    EXPECT_FALSE(readUtf8Text(fromUtf8(dir.write("le.xml", std::string("\xFF\xFE<\0", 4))), text));
    EXPECT_FALSE(readUtf8Text(fromUtf8(dir.write("be.xml", std::string("\xFE\xFF\0<", 4))), text));
    EXPECT_TRUE(text.equals(L"unchanged"));
}

TEST(ConfigDocumentTest, UnreadableFileThrows) {
    const TempDir dir;
    String text;
    EXPECT_THROW(readUtf8Text(fromUtf8(dir.file("missing.xml")), text), XmlException);
}

}  // namespace
}  // namespace kiv::logger_details

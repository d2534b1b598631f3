#include "weblogger/messageformatloader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/alloc_counter.h"
#include "weblogger/loggermessages.h"
#include "zq/webkeel/assert.h"

namespace kiv {
namespace {

using Format = CompiledMsgFormat;
using Kinds = std::vector<Format::MessagePart>;

const std::vector<std::wstring> kLongTypeTexts = {L"INCIDENT_ERROR", L"ERROR", L"WARNING",
                                                  L"NOTIFICATION", L"TRACE"};
const std::vector<std::wstring> kShortTypeTexts = {L"I_E", L"E", L"W", L"N", L"TRACE"};

XmlDocument parse(std::string_view xml) {
    return XmlDocument::parseString(xml);
}

// Compiles the root element of xml into a fresh format, as the writers do.
std::unique_ptr<Format> compile(std::string_view xml,
                                Format::Encoding nDefault = Format::kEncodingPlain) {
    const XmlDocument document = parse(xml);
    std::unique_ptr<Format> pFormat(new Format);
    MessageFormatLoader::loadFormat(*pFormat, *document.getDocumentElement(), nDefault);
    return pFormat;
}

Kinds kindsOf(const Format& format) {
    Kinds kinds;
    for (const Format::Record* pRecord : format.m_records) {
        kinds.push_back(pRecord->m_nType);
    }
    return kinds;
}

// The text of a kText record; a marker for any other kind, so that a wrong kind shows in the
// failure message instead of crashing the test.
std::wstring textAt(const Format& format, std::size_t nIndex) {
    const Format::Record* pRecord = format.m_records.at(nIndex);
    if (pRecord->m_nType != Format::kText) {
        return L"<not a text record>";
    }
    return static_cast<const Format::TextRecord*>(pRecord)->m_strText.std();
}

template <class RecordT>
const RecordT& recordAt(const Format& format, std::size_t nIndex) {
    return static_cast<const RecordT&>(*format.m_records.at(nIndex));
}

std::vector<std::wstring> typeTextsAt(const Format& format, std::size_t nIndex) {
    std::vector<std::wstring> vecTexts;
    for (const String& text : recordAt<Format::EnumRecord>(format, nIndex).m_vecValues) {
        vecTexts.push_back(text.std());
    }
    return vecTexts;
}

struct SimpleList {
    std::wstring strSeparator;
    std::wstring strPrefix;
    std::wstring strSuffix;
    bool operator==(const SimpleList&) const = default;
};

SimpleList simpleListAt(const Format& format, std::size_t nIndex) {
    const auto& record = recordAt<Format::SimpleListRecord>(format, nIndex);
    return {record.m_strSeparator.std(), record.m_strPrefix.std(), record.m_strSuffix.std()};
}

void PrintTo(const SimpleList& list, std::ostream* pOut) {
    *pOut << testing::PrintToString(list.strSeparator) << " "
          << testing::PrintToString(list.strPrefix) << " "
          << testing::PrintToString(list.strSuffix);
}

// Two text records in a row would mean the merge rule was bypassed; nested formats must exist.
void expectWellFormed(const Format& format) {
    for (std::size_t i = 0; i < format.m_records.size(); ++i) {
        const Format::Record* pRecord = format.m_records[i];
        ASSERT_NE(pRecord, nullptr);
        if (i > 0) {
            EXPECT_FALSE(pRecord->m_nType == Format::kText &&
                         format.m_records[i - 1]->m_nType == Format::kText)
                << "adjacent text records at " << i;
        }
        if (pRecord->m_nType == Format::kPropsList) {
            const auto* pList = static_cast<const Format::ComplexListRecord*>(pRecord);
            ASSERT_NE(pList->m_pFormat, nullptr);
            expectWellFormed(*pList->m_pFormat);
        } else if (pRecord->m_nType == Format::kSpecificProperty) {
            const auto* pProperty = static_cast<const Format::SingleValueFromListRecord*>(pRecord);
            ASSERT_NE(pProperty->m_pFormat, nullptr);
            expectWellFormed(*pProperty->m_pFormat);
        }
    }
    EXPECT_TRUE(format.m_strMessageSeparator.empty());
}

const XmlElement* builtInFormat(const wchar_t* pszName) {
    for (const XmlElement* pFormat :
         MessageFormatLoader::getFallbackLoggerFormats()->selectElements(L"Format")) {
        if (pFormat->getAttributeValue(L"name").equals(pszName)) {
            return pFormat;
        }
    }
    return nullptr;
}

std::unique_ptr<Format> compileBuiltIn(const wchar_t* pszName) {
    const XmlElement* pElement = builtInFormat(pszName);
    std::unique_ptr<Format> pFormat(new Format);
    if (pElement != nullptr) {
        MessageFormatLoader::loadFormat(*pFormat, *pElement, Format::kEncodingPlain);
    }
    return pFormat;
}

// ---------------------------------------------------------------------------------------------
// The compiled form

TEST(CompiledMsgFormatTest, NewFormatIsEmptyWithXmlEncoding) {
    const Format format;
    EXPECT_TRUE(format.m_records.empty());
    EXPECT_TRUE(format.m_strMessageSeparator.empty());
    EXPECT_EQ(format.m_Encoding, Format::kEncodingXml);
}

TEST(CompiledMsgFormatTest, AddRecordMergesTextIntoPrecedingTextOnly) {
    Format format;
    format.addRecord(new Format::TextRecord(String(L"a")));
    format.addRecord(new Format::TextRecord(String(L"b")));
    format.addRecord(new Format::Record(Format::kMsg));
    format.addRecord(new Format::TextRecord(String(L"c")));
    format.addRecord(
        new Format::SimpleListRecord(Format::kLogSourcesList, String(L","), String(), String()));
    format.addRecord(new Format::TextRecord(String()));
    format.addRecord(new Format::TextRecord(String(L"d")));
    EXPECT_EQ(kindsOf(format), (Kinds{Format::kText, Format::kMsg, Format::kText,
                                      Format::kLogSourcesList, Format::kText}));
    EXPECT_EQ(textAt(format, 0), L"ab");
    EXPECT_EQ(textAt(format, 2), L"c");
    EXPECT_EQ(textAt(format, 4), L"d");
}

TEST(CompiledMsgFormatTest, TextAndTypeWordsAreKeptAsUtf8TooAlsoWhenTextIsMerged) {
    Format format;
    format.addRecord(new Format::TextRecord(String(L"\u00e9 ")));
    format.addRecord(new Format::TextRecord(String(L"\u20ac\U0001F600")));
    const auto& text = static_cast<const Format::TextRecord&>(*format.m_records.at(0));
    EXPECT_EQ(text.m_strUtf8.std(), "\xc3\xa9 \xe2\x82\xac\xf0\x9f\x98\x80");
    const Format::EnumRecord types({String(L"INFO"), String(L"\u00dcBER")});
    ASSERT_EQ(types.m_vecUtf8Values.size(), 2u);
    EXPECT_EQ(types.m_vecUtf8Values[0].std(), "INFO");
    EXPECT_EQ(types.m_vecUtf8Values[1].std(),
              "\xc3\x9c"
              "BER");
}

TEST(CompiledMsgFormatTest, SwapExchangesRecordsSeparatorAndEncoding) {
    Format first;
    first.addRecord(new Format::Record(Format::kMsg));
    first.m_strMessageSeparator = String(L"|");
    first.m_Encoding = Format::kEncodingPlain;
    Format second;
    second.addRecord(new Format::Record(Format::kLine));
    second.addRecord(new Format::Record(Format::kFile));
    first.swap(second);
    EXPECT_EQ(kindsOf(first), (Kinds{Format::kLine, Format::kFile}));
    EXPECT_TRUE(first.m_strMessageSeparator.empty());
    EXPECT_EQ(first.m_Encoding, Format::kEncodingXml);
    EXPECT_EQ(kindsOf(second), (Kinds{Format::kMsg}));
    EXPECT_EQ(second.m_strMessageSeparator.std(), L"|");
    EXPECT_EQ(second.m_Encoding, Format::kEncodingPlain);
}

// ---------------------------------------------------------------------------------------------
// Edge cases of the language

TEST(MessageFormatLoaderTest, DefaultStartMergesLineBreakWithTheFollowingText) {
    const std::unique_ptr<Format> pFormat = compile(
        "<Format name=\"Default\">\n\tType: <MsgType/><LineBreak/>\n\tSeverity: "
        "<MsgSeverity/></Format>");
    EXPECT_EQ(kindsOf(*pFormat),
              (Kinds{Format::kText, Format::kMsgType, Format::kText, Format::kSeverity}));
    EXPECT_EQ(textAt(*pFormat, 0), L"Type: ");
    EXPECT_EQ(textAt(*pFormat, 2), L"\nSeverity: ");
}

TEST(MessageFormatLoaderTest, LeadingLineEndAndTabGiveAnEmptyFirstTextRecord) {
    const std::unique_ptr<Format> pFormat = compile("<Format>\n\t<MessageText/></Format>");
    EXPECT_EQ(kindsOf(*pFormat), (Kinds{Format::kText, Format::kMsg}));
    EXPECT_EQ(textAt(*pFormat, 0), L"");
}

TEST(MessageFormatLoaderTest, PrefixOfOnlyATabKeepsTheTab) {
    const std::unique_ptr<Format> pFormat =
        compile("<Format><LogSources><Prefix>\t</Prefix></LogSources></Format>");
    EXPECT_EQ(kindsOf(*pFormat), (Kinds{Format::kLogSourcesList}));
    EXPECT_EQ(simpleListAt(*pFormat, 0), (SimpleList{L"", L"\t", L""}));
}

TEST(MessageFormatLoaderTest, PrefixWithLineEndTabLineBreakAndLetterGivesLineFeedAndLetter) {
    const std::unique_ptr<Format> pFormat =
        compile("<Format><LogSources><Prefix>\n\t<LineBreak/>x</Prefix></LogSources></Format>");
    EXPECT_EQ(kindsOf(*pFormat), (Kinds{Format::kLogSourcesList}));
    EXPECT_EQ(simpleListAt(*pFormat, 0), (SimpleList{L"", L"\nx", L""}));
}

TEST(MessageFormatLoaderTest, MsgTypeStyleShortInCapitalsSelectsShortTextsWithLongTrace) {
    const std::unique_ptr<Format> pFormat = compile("<Format><MsgType style=\"SHORT\"/></Format>");
    EXPECT_EQ(kindsOf(*pFormat), (Kinds{Format::kMsgType}));
    EXPECT_EQ(typeTextsAt(*pFormat, 0), kShortTypeTexts);
    EXPECT_EQ(typeTextsAt(*pFormat, 0)[4], L"TRACE");
}

TEST(MessageFormatLoaderTest, MsgTypeWithoutShortStyleSelectsLongTexts) {
    const std::unique_ptr<Format> pFormat =
        compile("<Format><MsgType/><MsgType style=\"long\"/><MsgType style=\"x\"/></Format>");
    EXPECT_EQ(kindsOf(*pFormat), (Kinds{Format::kMsgType, Format::kMsgType, Format::kMsgType}));
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(typeTextsAt(*pFormat, i), kLongTypeTexts) << i;
    }
}

TEST(MessageFormatLoaderTest, MsgTypeTextsComeFromTheCatalogue) {
    const std::unique_ptr<Format> pFormat =
        compile("<Format><MsgType/><MsgType style=\"short\"/></Format>");
    const ExternalMessage* arrLong[] = {&kmsgLogIncidentErrorLong, &kmsgLogErrorLong,
                                        &kmsgLogWarningLong, &kmsgLogInformationLong,
                                        &kmsgLogTraceLong};
    const ExternalMessage* arrShort[] = {&kmsgLogIncidentErrorShort, &kmsgLogErrorShort,
                                         &kmsgLogWarningShort, &kmsgLogInformationShort,
                                         &kmsgLogTraceLong};
    const std::vector<std::wstring> vecLong = typeTextsAt(*pFormat, 0);
    const std::vector<std::wstring> vecShort = typeTextsAt(*pFormat, 1);
    ASSERT_EQ(vecLong.size(), 5u);
    ASSERT_EQ(vecShort.size(), 5u);
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(vecLong[i], arrLong[i]->toString().std()) << i;
        EXPECT_EQ(vecShort[i], arrShort[i]->toString().std()) << i;
    }
    EXPECT_EQ(vecLong, kLongTypeTexts);
    EXPECT_EQ(vecShort, kShortTypeTexts);
    // The short trace text of the catalogue is not the one a format shows.
    EXPECT_EQ(kmsgLogTraceShort.toString().std(), L"T");
}

TEST(MessageFormatLoaderTest, TimeStyleShortGivesTheOrdinaryStamp) {
    const std::unique_ptr<Format> pFormat = compile(
        "<Format><Time style=\"short\"/><Time/><Time style=\"klftimeformat\"/>"
        "<Time style=\"KLFTimeFormat\"/><Time style=\"other\"/></Format>");
    EXPECT_EQ(kindsOf(*pFormat),
              (Kinds{Format::kTimeStamp, Format::kTimeStamp, Format::kTimeStampKLFFormat,
                     Format::kTimeStampKLFFormat, Format::kTimeStamp}));
}

TEST(MessageFormatLoaderTest, FileStyleShortWithCapitalGivesTheFileName) {
    const std::unique_ptr<Format> pFormat =
        compile("<Format><File style=\"Short\"/><File/><File style=\"long\"/></Format>");
    EXPECT_EQ(kindsOf(*pFormat), (Kinds{Format::kFileName, Format::kFile, Format::kFile}));
}

TEST(MessageFormatLoaderTest, TimeKLFFormatElementCompilesToNothing) {
    EXPECT_TRUE(compile("<Format><TimeKLFFormat/></Format>")->m_records.empty());
    const std::unique_ptr<Format> pFormat =
        compile("<Format>a<TimeKLFFormat>b<MessageText/></TimeKLFFormat>c</Format>");
    EXPECT_EQ(kindsOf(*pFormat), (Kinds{Format::kText}));
    EXPECT_EQ(textAt(*pFormat, 0), L"ac");
}

TEST(MessageFormatLoaderTest, SecondListElementFormatReplacesTheFirst) {
    const std::unique_ptr<Format> pFormat = compile(
        "<Format><Properties>"
        "<ListElementFormat>first<PropertyName/></ListElementFormat>"
        "<Separator>;</Separator>"
        "<ListElementFormat><PropertyValues><Separator>,</Separator></PropertyValues>"
        "</ListElementFormat>"
        "</Properties></Format>");
    ASSERT_EQ(kindsOf(*pFormat), (Kinds{Format::kPropsList}));
    const auto& list = recordAt<Format::ComplexListRecord>(*pFormat, 0);
    EXPECT_EQ(list.m_strSeparator.std(), L";");
    ASSERT_NE(list.m_pFormat, nullptr);
    EXPECT_EQ(kindsOf(*list.m_pFormat), (Kinds{Format::kPropValuesList}));
    EXPECT_EQ(simpleListAt(*list.m_pFormat, 0), (SimpleList{L",", L"", L""}));
}

TEST(MessageFormatLoaderTest, CompilingIntoAFormatThatHoldsRecordsReplacesThemAll) {
    Format format;
    MessageFormatLoader::loadFormat(
        format,
        *parse("<Format Encoding=\"Xml\">a<MessageText/>b<Line/></Format>").getDocumentElement(),
        Format::kEncodingPlain);
    ASSERT_EQ(format.m_records.size(), 4u);
    EXPECT_EQ(format.m_Encoding, Format::kEncodingXml);
    MessageFormatLoader::loadFormat(format, *parse("<Format><File/></Format>").getDocumentElement(),
                                    Format::kEncodingPlain);
    EXPECT_EQ(kindsOf(format), (Kinds{Format::kFile}));
    EXPECT_EQ(format.m_Encoding, Format::kEncodingPlain);
    MessageFormatLoader::loadFormat(format, *parse("<Format/>").getDocumentElement(),
                                    Format::kEncodingXml);
    EXPECT_TRUE(format.m_records.empty());
    EXPECT_EQ(format.m_Encoding, Format::kEncodingXml);
}

// ---------------------------------------------------------------------------------------------
// Text rules

TEST(MessageFormatLoaderTest, LineEndsAndTheIndentationAfterThemVanish) {
    const std::unique_ptr<Format> pFormat =
        compile("<Format> a\tb \r\n \t c\n\n\t\td e\t<MessageText/>\n  \n x\r y</Format>");
    EXPECT_EQ(kindsOf(*pFormat), (Kinds{Format::kText, Format::kMsg, Format::kText}));
    EXPECT_EQ(textAt(*pFormat, 0), L" a\tb cd e\t");
    EXPECT_EQ(textAt(*pFormat, 2), L"xy");
}

TEST(MessageFormatLoaderTest, CDataFollowsTheTextRules) {
    const std::unique_ptr<Format> pFormat = compile(
        "<Format><MessageText/><![CDATA[\n\t <x>&amp;\ty]]><Line/>a\n<![CDATA[\tb]]></Format>");
    EXPECT_EQ(kindsOf(*pFormat),
              (Kinds{Format::kMsg, Format::kText, Format::kLine, Format::kText}));
    EXPECT_EQ(textAt(*pFormat, 1), L"<x>&amp;\ty");
    // Each node starts with the flag cleared, so the tab that opens the section stays.
    EXPECT_EQ(textAt(*pFormat, 3), L"a\tb");
}

TEST(MessageFormatLoaderTest, SeparatorPrefixAndSuffixFollowTheTextRules) {
    const std::unique_ptr<Format> pFormat = compile(
        "<Format><PropertyValues>\n"
        "  <Separator>\n    ,<LineBreak/> <![CDATA[;]]></Separator>\n"
        "  <Prefix><MessageText/>[<Unknown>ignored</Unknown>\n</Prefix>\n"
        "  <Suffix> ]\n\t</Suffix>\n"
        "</PropertyValues></Format>");
    ASSERT_EQ(kindsOf(*pFormat), (Kinds{Format::kPropValuesList}));
    EXPECT_EQ(simpleListAt(*pFormat, 0), (SimpleList{L",\n ;", L"[", L" ]"}));
}

TEST(MessageFormatLoaderTest, LastSeparatorPrefixAndSuffixOfAListWin) {
    const std::unique_ptr<Format> pFormat = compile(
        "<Format><LogSources>"
        "<Separator>1</Separator><Prefix>p1</Prefix><Suffix>s1</Suffix>"
        "<Separator>2</Separator><Prefix>p2</Prefix><Suffix>s2</Suffix><Suffix/>"
        "</LogSources>"
        "<Properties><Separator>a</Separator><Separator>b</Separator></Properties>"
        "</Format>");
    ASSERT_EQ(kindsOf(*pFormat), (Kinds{Format::kLogSourcesList, Format::kPropsList}));
    EXPECT_EQ(simpleListAt(*pFormat, 0), (SimpleList{L"2", L"p2", L""}));
    EXPECT_EQ(recordAt<Format::ComplexListRecord>(*pFormat, 1).m_strSeparator.std(), L"b");
}

TEST(MessageFormatLoaderTest, ListsIgnoreTextAndOtherChildren) {
    const std::unique_ptr<Format> pFormat = compile(
        "<Format><LogSources>text<MessageText/><LineBreak/></LogSources>"
        "<Properties>text<PropertyName/></Properties></Format>");
    ASSERT_EQ(kindsOf(*pFormat), (Kinds{Format::kLogSourcesList, Format::kPropsList}));
    EXPECT_EQ(simpleListAt(*pFormat, 0), (SimpleList{L"", L"", L""}));
    const auto& list = recordAt<Format::ComplexListRecord>(*pFormat, 1);
    EXPECT_TRUE(list.m_strSeparator.empty());
    ASSERT_NE(list.m_pFormat, nullptr);
    EXPECT_TRUE(list.m_pFormat->m_records.empty());
}

// ---------------------------------------------------------------------------------------------
// Elements

TEST(MessageFormatLoaderTest, EveryElementCompilesToItsRecordKind) {
    const std::unique_ptr<Format> pFormat = compile(
        "<Format><File/><Line/><Time/><LogSources/><CurrentLogSource/><Backtrace/>"
        "<Properties/><PropertyName/><PropertyValues/><MessageText/><MsgType/><MsgSeverity/>"
        "<Property name=\"p\"/><LineBreak/></Format>");
    EXPECT_EQ(kindsOf(*pFormat),
              (Kinds{Format::kFile, Format::kLine, Format::kTimeStamp, Format::kLogSourcesList,
                     Format::kCurLogSource, Format::kBacktrace, Format::kPropsList,
                     Format::kPropName, Format::kPropValuesList, Format::kMsg, Format::kMsgType,
                     Format::kSeverity, Format::kSpecificProperty, Format::kText}));
    EXPECT_EQ(textAt(*pFormat, 13), L"\n");
    expectWellFormed(*pFormat);
}

TEST(MessageFormatLoaderTest, ElementNamesAreCaseSensitive) {
    const std::unique_ptr<Format> pFormat =
        compile("<Format><messagetext/><LINEBREAK/><file/>x<property/></Format>");
    EXPECT_EQ(kindsOf(*pFormat), (Kinds{Format::kText}));
    EXPECT_EQ(textAt(*pFormat, 0), L"x");
}

TEST(MessageFormatLoaderTest, UnknownElementsAreIgnoredWithTheirContent) {
    const std::unique_ptr<Format> pFormat = compile(
        "<Format>a<Unknown style=\"short\">b<MessageText/><LineBreak/>"
        "<Inner><Line/></Inner></Unknown>c<ListElementFormat><Line/></ListElementFormat>"
        "<Separator>;</Separator><MessageText/></Format>");
    EXPECT_EQ(kindsOf(*pFormat), (Kinds{Format::kText, Format::kMsg}));
    EXPECT_EQ(textAt(*pFormat, 0), L"ac");
}

TEST(MessageFormatLoaderTest, CommentsAreIgnored) {
    const std::unique_ptr<Format> pFormat = compile(
        "<Format><!-- leading --><MessageText/>a<!-- <Line/> -->b<!--x--><LineBreak/></Format>");
    EXPECT_EQ(kindsOf(*pFormat), (Kinds{Format::kMsg, Format::kText}));
    EXPECT_EQ(textAt(*pFormat, 1), L"ab\n");
}

TEST(MessageFormatLoaderTest, EmptyFormatHasNoRecords) {
    EXPECT_TRUE(compile("<Format/>")->m_records.empty());
    EXPECT_TRUE(compile("<Format name=\"x\"></Format>")->m_records.empty());
    EXPECT_TRUE(compile("<Format><!-- nothing --></Format>")->m_records.empty());
}

TEST(MessageFormatLoaderTest, TheElementsOwnNameIsNotLookedAt) {
    const std::unique_ptr<Format> pFormat =
        compile("<Anything>x<MessageText/></Anything>", Format::kEncodingXml);
    EXPECT_EQ(kindsOf(*pFormat), (Kinds{Format::kText, Format::kMsg}));
    EXPECT_EQ(pFormat->m_Encoding, Format::kEncodingXml);
}

TEST(MessageFormatLoaderTest, PropertyCompilesItsContentIntoANestedFormat) {
    const std::unique_ptr<Format> pFormat = compile(
        "<Format>[<Property name=\"userId\">\n\t<PropertyName/>=<PropertyValues>"
        "<Separator>,</Separator><Prefix>(</Prefix><Suffix>)</Suffix>"
        "</PropertyValues></Property>]</Format>");
    ASSERT_EQ(kindsOf(*pFormat), (Kinds{Format::kText, Format::kSpecificProperty, Format::kText}));
    EXPECT_EQ(textAt(*pFormat, 0), L"[");
    EXPECT_EQ(textAt(*pFormat, 2), L"]");
    const auto& property = recordAt<Format::SingleValueFromListRecord>(*pFormat, 1);
    EXPECT_EQ(property.m_strValueName.std(), L"userId");
    ASSERT_NE(property.m_pFormat, nullptr);
    const Format& nested = *property.m_pFormat;
    EXPECT_EQ(kindsOf(nested),
              (Kinds{Format::kText, Format::kPropName, Format::kText, Format::kPropValuesList}));
    EXPECT_EQ(textAt(nested, 0), L"");
    EXPECT_EQ(textAt(nested, 2), L"=");
    EXPECT_EQ(simpleListAt(nested, 3), (SimpleList{L",", L"(", L")"}));
}

TEST(MessageFormatLoaderTest, PropertyWhenEmptyOmitInAnyCaseMarksTheRecord) {
    const std::unique_ptr<Format> pFormat = compile(
        "<Format><Property name=\"a\" whenEmpty=\"omit\"/><Property name=\"b\" whenEmpty=\"OMIT\"/>"
        "<Property name=\"c\"/><Property name=\"d\" whenEmpty=\"keep\"/>"
        "<Property name=\"e\" WhenEmpty=\"omit\"/></Format>");
    ASSERT_EQ(pFormat->m_records.size(), 5u);
    const bool arrExpected[] = {true, true, false, false, false};
    for (std::size_t i = 0; i < 5; ++i) {
        const auto& property = recordAt<Format::SingleValueFromListRecord>(*pFormat, i);
        EXPECT_EQ(property.m_bOmitWhenEmpty, arrExpected[i]) << property.m_strValueName.std();
    }
}

TEST(MessageFormatLoaderTest, PropertyWithoutNameThrowsXmlException) {
    EXPECT_THROW(compile("<Format><Property><PropertyValues/></Property></Format>"), XmlException);
    EXPECT_THROW(compile("<Format><Property Name=\"x\"/></Format>"), XmlException);
}

TEST(MessageFormatLoaderTest, PropertyWithEmptyNameCompiles) {
    const std::unique_ptr<Format> pFormat = compile("<Format><Property name=\"\"/></Format>");
    ASSERT_EQ(kindsOf(*pFormat), (Kinds{Format::kSpecificProperty}));
    EXPECT_TRUE(recordAt<Format::SingleValueFromListRecord>(*pFormat, 0).m_strValueName.empty());
}

// A list element format takes the encoding being compiled; a property takes the encoding that
// the target held when the load began.
TEST(MessageFormatLoaderTest, NestedFormatsReceiveTheirIntendedEncodings) {
    const XmlDocument document = parse(
        "<Format Encoding=\"Plain\"><Properties><ListElementFormat/></Properties>"
        "<Property name=\"p\"/></Format>");
    Format format;
    ASSERT_EQ(format.m_Encoding, Format::kEncodingXml);
    MessageFormatLoader::loadFormat(format, *document.getDocumentElement(), Format::kEncodingXml);
    ASSERT_EQ(kindsOf(format), (Kinds{Format::kPropsList, Format::kSpecificProperty}));
    EXPECT_EQ(format.m_Encoding, Format::kEncodingPlain);
    EXPECT_EQ(recordAt<Format::ComplexListRecord>(format, 0).m_pFormat->m_Encoding,
              Format::kEncodingPlain);
    EXPECT_EQ(recordAt<Format::SingleValueFromListRecord>(format, 1).m_pFormat->m_Encoding,
              Format::kEncodingXml);

    // Compiled again, the target now holds Plain, and so does the property's format.
    const XmlDocument xmlDocument = parse(
        "<Format Encoding=\"Xml\"><Properties><ListElementFormat/></Properties>"
        "<Property name=\"p\"/></Format>");
    MessageFormatLoader::loadFormat(format, *xmlDocument.getDocumentElement(),
                                    Format::kEncodingXml);
    EXPECT_EQ(format.m_Encoding, Format::kEncodingXml);
    EXPECT_EQ(recordAt<Format::ComplexListRecord>(format, 0).m_pFormat->m_Encoding,
              Format::kEncodingXml);
    EXPECT_EQ(recordAt<Format::SingleValueFromListRecord>(format, 1).m_pFormat->m_Encoding,
              Format::kEncodingPlain);
}

TEST(MessageFormatLoaderTest, FailedCompileLeavesTheTargetUntouched) {
    Format format;
    MessageFormatLoader::loadFormat(
        format, *parse("<Format Encoding=\"Xml\">a<MessageText/></Format>").getDocumentElement(),
        Format::kEncodingPlain);
    const std::vector<Format::Record*> vecBefore = format.m_records;
    ASSERT_EQ(vecBefore.size(), 2u);

    const XmlDocument failing = parse(
        "<Format Encoding=\"Plain\">b<Line/><LogSources/>"
        "<Properties><Separator>;</Separator><ListElementFormat><PropertyName/>"
        "<Property name=\"ok\"><PropertyValues/></Property>"
        "<Property><PropertyValues/></Property>"
        "</ListElementFormat></Properties><MessageText/></Format>");
    // The first throw may set up lazily made state; only the second is measured.
    EXPECT_THROW(MessageFormatLoader::loadFormat(format, *failing.getDocumentElement(),
                                                 Format::kEncodingPlain),
                 XmlException);
    const MemAllocNewdel::Stats before = MemAllocNewdel::stats();
    EXPECT_THROW(MessageFormatLoader::loadFormat(format, *failing.getDocumentElement(),
                                                 Format::kEncodingPlain),
                 XmlException);
    const MemAllocNewdel::Stats after = MemAllocNewdel::stats();
    // The records built before the throw, nested formats included, are gone.
    EXPECT_EQ(after.nLiveBlocks, before.nLiveBlocks);
    EXPECT_EQ(after.nLiveBytes, before.nLiveBytes);

    EXPECT_EQ(format.m_records, vecBefore);
    EXPECT_EQ(format.m_Encoding, Format::kEncodingXml);
    EXPECT_EQ(kindsOf(format), (Kinds{Format::kText, Format::kMsg}));
    EXPECT_EQ(textAt(format, 0), L"a");
}

// ---------------------------------------------------------------------------------------------
// The Encoding attribute

TEST(MessageFormatLoaderTest, EncodingXmlInAnyCaseSelectsXml) {
    AssertionCapture capture;
    EXPECT_EQ(compile("<Format Encoding=\"xml\"/>", Format::kEncodingPlain)->m_Encoding,
              Format::kEncodingXml);
    EXPECT_EQ(compile("<Format Encoding=\"XML\"/>", Format::kEncodingPlain)->m_Encoding,
              Format::kEncodingXml);
    EXPECT_EQ(compile("<Format Encoding=\"Xml\"/>", Format::kEncodingXml)->m_Encoding,
              Format::kEncodingXml);
    EXPECT_EQ(capture.count(), 0u);
}

TEST(MessageFormatLoaderTest, EncodingPlainInAnyCaseSelectsPlain) {
    AssertionCapture capture;
    EXPECT_EQ(compile("<Format Encoding=\"PLAIN\"/>", Format::kEncodingXml)->m_Encoding,
              Format::kEncodingPlain);
    EXPECT_EQ(compile("<Format Encoding=\"plain\"/>", Format::kEncodingXml)->m_Encoding,
              Format::kEncodingPlain);
    EXPECT_EQ(capture.count(), 0u);
}

TEST(MessageFormatLoaderTest, EncodingJsonInAnyCaseSelectsJson) {
    AssertionCapture capture;
    for (const Format::Encoding nDefault : {Format::kEncodingXml, Format::kEncodingPlain}) {
        for (const char* pszXml : {"<Format Encoding=\"Json\"/>", "<Format Encoding=\"JSON\"/>",
                                   "<Format Encoding=\"json\"/>"}) {
            EXPECT_EQ(compile(pszXml, nDefault)->m_Encoding, Format::kEncodingJson) << pszXml;
        }
    }
    EXPECT_EQ(capture.count(), 0u);
}

TEST(MessageFormatLoaderTest, UnknownEncodingReportsFalseAndKeepsTheDefault) {
    for (const Format::Encoding nDefault : {Format::kEncodingXml, Format::kEncodingPlain}) {
        AssertionCapture capture;
        const std::unique_ptr<Format> pFormat =
            compile("<Format Encoding=\"bogus\">x<MessageText/></Format>", nDefault);
        EXPECT_TRUE(capture.contains("false"));
        EXPECT_EQ(capture.expressions(), std::vector<std::string>{"false"});
        EXPECT_EQ(pFormat->m_Encoding, nDefault);
        // Compiling goes on after the report.
        EXPECT_EQ(kindsOf(*pFormat), (Kinds{Format::kText, Format::kMsg}));
        EXPECT_EQ(textAt(*pFormat, 0), L"x");
    }
}

TEST(MessageFormatLoaderTest, EmptyOrMissingEncodingKeepsTheDefault) {
    AssertionCapture capture;
    for (const Format::Encoding nDefault : {Format::kEncodingXml, Format::kEncodingPlain}) {
        EXPECT_EQ(compile("<Format Encoding=\"\"/>", nDefault)->m_Encoding, nDefault);
        EXPECT_EQ(compile("<Format/>", nDefault)->m_Encoding, nDefault);
        // The attribute name is matched exactly.
        EXPECT_EQ(compile("<Format encoding=\"bogus\"/>", nDefault)->m_Encoding, nDefault);
    }
    EXPECT_EQ(capture.count(), 0u);
}

// ---------------------------------------------------------------------------------------------
// The built-in formats

TEST(MessageFormatLoaderTest, BuiltInDocumentIsParsedOnceAndHoldsSixFormats) {
    const XmlElement* pRoot = nullptr;
    {
        const test::AllocationScope scope;
        pRoot = MessageFormatLoader::getFallbackLoggerFormats();
        EXPECT_EQ(scope.count(), 0u);
    }
    ASSERT_NE(pRoot, nullptr);
    EXPECT_EQ(MessageFormatLoader::getFallbackLoggerFormats(), pRoot);
    EXPECT_EQ(pRoot->getName().std(), L"Formats");
    std::vector<std::wstring> vecNames;
    for (const XmlElement* pFormat : pRoot->selectElements(L"Format")) {
        vecNames.push_back(pFormat->getAttributeValue(L"name").std());
    }
    EXPECT_EQ(vecNames, (std::vector<std::wstring>{L"Default", L"Short", L"xml", L"KLF-XML",
                                                   L"KLF-Text", L"JSON"}));
}

TEST(MessageFormatLoaderTest, EveryBuiltInFormatCompiles) {
    const struct {
        const wchar_t* pszName;
        Format::Encoding nEncoding;
    } arrExpected[] = {{L"Default", Format::kEncodingPlain},  {L"Short", Format::kEncodingPlain},
                       {L"xml", Format::kEncodingXml},        {L"KLF-XML", Format::kEncodingXml},
                       {L"KLF-Text", Format::kEncodingPlain}, {L"JSON", Format::kEncodingJson}};
    AssertionCapture capture;
    for (const auto& expected : arrExpected) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(expected.pszName)));
        ASSERT_NE(builtInFormat(expected.pszName), nullptr);
        const std::unique_ptr<Format> pFormat = compileBuiltIn(expected.pszName);
        EXPECT_FALSE(pFormat->m_records.empty());
        EXPECT_EQ(pFormat->m_Encoding, expected.nEncoding);
        expectWellFormed(*pFormat);
    }
    EXPECT_EQ(capture.count(), 0u);
}

TEST(MessageFormatLoaderTest, BuiltInShortCompilesToItsExactRecords) {
    const std::unique_ptr<Format> pFormat = compileBuiltIn(L"Short");
    ASSERT_EQ(kindsOf(*pFormat),
              (Kinds{Format::kText, Format::kMsgType, Format::kSeverity, Format::kText,
                     Format::kCurLogSource, Format::kText, Format::kMsg, Format::kText}));
    EXPECT_EQ(textAt(*pFormat, 0), L"");
    EXPECT_EQ(typeTextsAt(*pFormat, 1), kShortTypeTexts);
    EXPECT_EQ(textAt(*pFormat, 3), L"\t");
    EXPECT_EQ(textAt(*pFormat, 5), L"\t");
    EXPECT_EQ(textAt(*pFormat, 7), L"\t\n");
}

TEST(MessageFormatLoaderTest, BuiltInDefaultCompilesToItsExactRecords) {
    const std::unique_ptr<Format> pFormat = compileBuiltIn(L"Default");
    ASSERT_EQ(kindsOf(*pFormat),
              (Kinds{Format::kText,      Format::kMsgType,        Format::kText,
                     Format::kSeverity,  Format::kText,           Format::kTimeStamp,
                     Format::kText,      Format::kFile,           Format::kText,
                     Format::kLine,      Format::kText,           Format::kPropsList,
                     Format::kText,      Format::kLogSourcesList, Format::kText,
                     Format::kBacktrace, Format::kText,           Format::kMsg,
                     Format::kText,      Format::kBacktrace,      Format::kText}));
    EXPECT_EQ(textAt(*pFormat, 0), L"Type: ");
    EXPECT_EQ(typeTextsAt(*pFormat, 1), kLongTypeTexts);
    EXPECT_EQ(textAt(*pFormat, 2), L"\nSeverity: ");
    EXPECT_EQ(textAt(*pFormat, 4), L"\nTime: ");
    EXPECT_EQ(textAt(*pFormat, 6), L"\nFile: ");
    EXPECT_EQ(textAt(*pFormat, 8), L" Line: ");
    EXPECT_EQ(textAt(*pFormat, 10), L"\nProperties: ");

    const auto& properties = recordAt<Format::ComplexListRecord>(*pFormat, 11);
    EXPECT_EQ(properties.m_strSeparator.std(), L";");
    ASSERT_NE(properties.m_pFormat, nullptr);
    const Format& item = *properties.m_pFormat;
    ASSERT_EQ(kindsOf(item), (Kinds{Format::kText, Format::kPropName, Format::kText,
                                    Format::kPropValuesList, Format::kText}));
    EXPECT_EQ(textAt(item, 0), L"");
    EXPECT_EQ(textAt(item, 2), L"-");
    EXPECT_EQ(simpleListAt(item, 3), (SimpleList{L",", L"", L""}));
    EXPECT_EQ(textAt(item, 4), L"");

    EXPECT_EQ(textAt(*pFormat, 12), L"\nLocation:\n");
    EXPECT_EQ(simpleListAt(*pFormat, 13), (SimpleList{L"\n", L"\t", L""}));
    EXPECT_EQ(textAt(*pFormat, 14), L"\n");
    EXPECT_EQ(textAt(*pFormat, 16), L"\n");
    EXPECT_EQ(textAt(*pFormat, 18), L"\n");
    EXPECT_EQ(textAt(*pFormat, 20), std::wstring(39, L'-') + L"\n");
}

TEST(MessageFormatLoaderTest, BuiltInJsonCompilesToItsExactRecords) {
    const std::unique_ptr<Format> pFormat = compileBuiltIn(L"JSON");
    ASSERT_EQ(kindsOf(*pFormat), (Kinds{Format::kText, Format::kTimeStampKLFFormat,
                                        Format::kText, Format::kMsgType,
                                        Format::kText, Format::kSeverity,
                                        Format::kText, Format::kCurLogSource,
                                        Format::kText, Format::kSpecificProperty,
                                        Format::kText, Format::kSpecificProperty,
                                        Format::kText, Format::kSpecificProperty,
                                        Format::kText, Format::kSpecificProperty,
                                        Format::kText, Format::kSpecificProperty,
                                        Format::kText, Format::kSpecificProperty,
                                        Format::kText, Format::kPropsList,
                                        Format::kText, Format::kFile,
                                        Format::kText, Format::kLine,
                                        Format::kText, Format::kMsg,
                                        Format::kText}));
    EXPECT_EQ(textAt(*pFormat, 0), L"{\"time\":\"");
    EXPECT_EQ(textAt(*pFormat, 2), L"\",\"type\":\"");
    EXPECT_EQ(typeTextsAt(*pFormat, 3), kLongTypeTexts);
    EXPECT_EQ(textAt(*pFormat, 4), L"\",\"importance\":");
    EXPECT_EQ(textAt(*pFormat, 6), L",\"source\":\"");
    EXPECT_EQ(textAt(*pFormat, 8), L"\"");
    const wchar_t* arrProperties[] = {L"ecid",    L"ThreadID", L"SIName",
                                      L"IDDName", L"IDDGUID",  L"userId"};
    for (std::size_t i = 0; i < 6; ++i) {
        const auto& property = recordAt<Format::SingleValueFromListRecord>(*pFormat, 9 + 2 * i);
        EXPECT_EQ(property.m_strValueName.std(), arrProperties[i]);
        // Only the ecid is left out when empty: a thread without a context has it set.
        EXPECT_EQ(property.m_bOmitWhenEmpty, i == 0) << arrProperties[i];
        ASSERT_NE(property.m_pFormat, nullptr);
        const Format& nested = *property.m_pFormat;
        ASSERT_EQ(kindsOf(nested), (Kinds{Format::kText, Format::kPropValuesList, Format::kText}));
        EXPECT_EQ(textAt(nested, 0), std::wstring(L",\"") + arrProperties[i] + L"\":\"");
        EXPECT_EQ(simpleListAt(nested, 1), (SimpleList{L",", L"", L""}));
        EXPECT_EQ(textAt(nested, 2), L"\"");
        EXPECT_EQ(textAt(*pFormat, 10 + 2 * i), L"");
    }
    const auto& properties = recordAt<Format::ComplexListRecord>(*pFormat, 21);
    EXPECT_EQ(properties.m_strSeparator.std(), L"");
    ASSERT_NE(properties.m_pFormat, nullptr);
    const Format& item = *properties.m_pFormat;
    ASSERT_EQ(kindsOf(item), (Kinds{Format::kText, Format::kPropName, Format::kText,
                                    Format::kPropValuesList, Format::kText}));
    EXPECT_EQ(textAt(item, 0), L",\"");
    EXPECT_EQ(textAt(item, 2), L"\":\"");
    EXPECT_EQ(simpleListAt(item, 3), (SimpleList{L",", L"", L""}));
    EXPECT_EQ(textAt(item, 4), L"\"");
    EXPECT_EQ(textAt(*pFormat, 22), L",\"file\":\"");
    EXPECT_EQ(textAt(*pFormat, 24), L"\",\"line\":\"");
    EXPECT_EQ(textAt(*pFormat, 26), L"\",\"message\":\"");
    EXPECT_EQ(textAt(*pFormat, 28), L"\"}\n");
}

TEST(MessageFormatLoaderTest, BuiltInKlfTextStartsWithItsExactRecords) {
    const std::unique_ptr<Format> pFormat = compileBuiltIn(L"KLF-Text");
    ASSERT_GE(pFormat->m_records.size(), 12u);
    const Kinds kinds = kindsOf(*pFormat);
    EXPECT_EQ(Kinds(kinds.begin(), kinds.begin() + 12),
              (Kinds{Format::kText, Format::kTimeStampKLFFormat, Format::kText, Format::kMsgType,
                     Format::kText, Format::kSeverity, Format::kText, Format::kCurLogSource,
                     Format::kText, Format::kSpecificProperty, Format::kText,
                     Format::kSpecificProperty}));
    EXPECT_EQ(textAt(*pFormat, 0), L"[");
    EXPECT_EQ(textAt(*pFormat, 2), L"] [KVWEB] [");
    EXPECT_EQ(typeTextsAt(*pFormat, 3), kLongTypeTexts);
    EXPECT_EQ(textAt(*pFormat, 4), L":");
    EXPECT_EQ(textAt(*pFormat, 6), L"] [] [");
    EXPECT_EQ(textAt(*pFormat, 8), L"] [ecid: ");
    const auto& ecid = recordAt<Format::SingleValueFromListRecord>(*pFormat, 9);
    EXPECT_EQ(ecid.m_strValueName.std(), L"ecid");
    ASSERT_NE(ecid.m_pFormat, nullptr);
    EXPECT_EQ(kindsOf(*ecid.m_pFormat), (Kinds{Format::kPropValuesList}));
    EXPECT_EQ(simpleListAt(*ecid.m_pFormat, 0), (SimpleList{L"", L"", L""}));
    EXPECT_EQ(textAt(*pFormat, 10), L"] [tid: ");
    EXPECT_EQ(recordAt<Format::SingleValueFromListRecord>(*pFormat, 11).m_strValueName.std(),
              L"ThreadID");
}

TEST(MessageFormatLoaderTest, BuiltInKlfTextCompilesToItsExactRecords) {
    const std::unique_ptr<Format> pFormat = compileBuiltIn(L"KLF-Text");
    ASSERT_EQ(pFormat->m_records.size(), 31u);
    const wchar_t* arrProperties[] = {L"ecid",    L"ThreadID", L"SIName",
                                      L"IDDName", L"IDDGUID",  L"userId"};
    const wchar_t* arrLabels[] = {L"] [ecid: ",     L"] [tid: ",      L"] [SI-Name: ",
                                  L"] [IDD-Name: ", L"] [IDD-GUID: ", L"] [userId: "};
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(textAt(*pFormat, 8 + 2 * i), arrLabels[i]);
        ASSERT_EQ(pFormat->m_records[9 + 2 * i]->m_nType, Format::kSpecificProperty);
        EXPECT_EQ(
            recordAt<Format::SingleValueFromListRecord>(*pFormat, 9 + 2 * i).m_strValueName.std(),
            arrProperties[i]);
    }
    const Kinds kinds = kindsOf(*pFormat);
    EXPECT_EQ(Kinds(kinds.begin() + 20, kinds.end()),
              (Kinds{Format::kText, Format::kMsg, Format::kText, Format::kFileName, Format::kText,
                     Format::kLine, Format::kText, Format::kLogSourcesList, Format::kText,
                     Format::kPropsList, Format::kText}));
    EXPECT_EQ(textAt(*pFormat, 20), L"] ");
    EXPECT_EQ(textAt(*pFormat, 22), L"[[\nFile:");
    EXPECT_EQ(textAt(*pFormat, 24), L"\nLine:");
    EXPECT_EQ(textAt(*pFormat, 26), L"\nLocation:\n");
    EXPECT_EQ(simpleListAt(*pFormat, 27), (SimpleList{L"\n", L"\t", L""}));
    EXPECT_EQ(textAt(*pFormat, 28), L"\n");
    const auto& properties = recordAt<Format::ComplexListRecord>(*pFormat, 29);
    EXPECT_TRUE(properties.m_strSeparator.empty());
    const Format& item = *properties.m_pFormat;
    ASSERT_EQ(kindsOf(item), (Kinds{Format::kText, Format::kPropName, Format::kText,
                                    Format::kPropValuesList, Format::kText}));
    EXPECT_EQ(textAt(item, 2), L": ");
    EXPECT_EQ(simpleListAt(item, 3), (SimpleList{L",", L"", L""}));
    EXPECT_EQ(textAt(item, 4), L" \n");
    EXPECT_EQ(textAt(*pFormat, 30), L"]]\n");
}

TEST(MessageFormatLoaderTest, BuiltInKlfXmlShowsSixPropertiesAndNoBacktrace) {
    const std::unique_ptr<Format> pFormat = compileBuiltIn(L"KLF-XML");
    std::vector<std::wstring> vecProperties;
    for (const Format::Record* pRecord : pFormat->m_records) {
        EXPECT_NE(pRecord->m_nType, Format::kBacktrace);
        if (pRecord->m_nType == Format::kSpecificProperty) {
            vecProperties.push_back(static_cast<const Format::SingleValueFromListRecord*>(pRecord)
                                        ->m_strValueName.std());
        }
    }
    EXPECT_EQ(vecProperties, (std::vector<std::wstring>{L"ecid", L"ThreadID", L"SIName", L"IDDGUID",
                                                        L"IDDName", L"userId"}));
    ASSERT_GE(pFormat->m_records.size(), 2u);
    EXPECT_EQ(textAt(*pFormat, 0), L"\n<msg time=\"");
    EXPECT_EQ(pFormat->m_records[1]->m_nType, Format::kTimeStampKLFFormat);
    EXPECT_EQ(textAt(*pFormat, pFormat->m_records.size() - 1),
              L"\n   </Properties>\n </suppl_detail>\n</msg>\n ");
}

// ---------------------------------------------------------------------------------------------
// The catalogue's formats

TEST(MessageFormatLoaderTest, CatalogueFormatsCompile) {
    const XmlElement* pXml = kmsgLogFormats.getStructuredContent();
    ASSERT_NE(pXml, nullptr);
    const std::vector<const XmlElement*> vecFormats = pXml->selectElements(L"Format");
    ASSERT_EQ(vecFormats.size(), 3u);
    AssertionCapture capture;
    std::vector<std::unique_ptr<Format>> vecCompiled;
    for (const XmlElement* pElement : vecFormats) {
        vecCompiled.emplace_back(new Format);
        MessageFormatLoader::loadFormat(*vecCompiled.back(), *pElement, Format::kEncodingPlain);
        expectWellFormed(*vecCompiled.back());
    }
    EXPECT_EQ(capture.count(), 0u);

    // "Default": one backtrace, just before the message text, after two line breaks.
    const Format& defaultFormat = *vecCompiled[0];
    EXPECT_EQ(defaultFormat.m_Encoding, Format::kEncodingPlain);
    const Kinds defaultKinds = kindsOf(defaultFormat);
    EXPECT_EQ(std::count(defaultKinds.begin(), defaultKinds.end(), Format::kBacktrace), 1);
    const auto itMsg = std::find(defaultKinds.begin(), defaultKinds.end(), Format::kMsg);
    ASSERT_NE(itMsg, defaultKinds.end());
    const std::size_t nMsg = static_cast<std::size_t>(itMsg - defaultKinds.begin());
    ASSERT_GE(nMsg, 2u);
    EXPECT_EQ(defaultKinds[nMsg - 1], Format::kBacktrace);
    EXPECT_EQ(textAt(defaultFormat, nMsg - 2), L"\n\n");
    EXPECT_EQ(textAt(defaultFormat, 0), L"Type: ");

    // "Short": the built-in one without the empty leading text.
    const Format& shortFormat = *vecCompiled[1];
    EXPECT_EQ(kindsOf(shortFormat),
              (Kinds{Format::kMsgType, Format::kSeverity, Format::kText, Format::kCurLogSource,
                     Format::kText, Format::kMsg, Format::kText}));
    EXPECT_EQ(typeTextsAt(shortFormat, 0), kShortTypeTexts);
    EXPECT_EQ(textAt(shortFormat, 6), L"\t\n");

    // "xml": escaped output and no line.
    const Format& xmlFormat = *vecCompiled[2];
    EXPECT_EQ(xmlFormat.m_Encoding, Format::kEncodingXml);
    const Kinds xmlKinds = kindsOf(xmlFormat);
    EXPECT_EQ(std::count(xmlKinds.begin(), xmlKinds.end(), Format::kLine), 0);
    EXPECT_EQ(textAt(xmlFormat, 0), L"\n<Message>\n   <Type>");
}

}  // namespace
}  // namespace kiv

#include "weblogger/loggermessages.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace kiv {
namespace {

String render(const GDValue& value) {
    return value.toString();
}

String withInsert(const ExternalMessage& message, const wchar_t* pszInsert) {
    return render(ParamMessage(message).setInsert(1, GDString(pszInsert)));
}

TEST(LoggerMessagesTest, EveryMessageRendersItsDefaultText) {
    MessageTable::getDefault().setLanguage(String(L"en"));
    EXPECT_TRUE(render(ParamMessage(kmsgCoreDumped)
                           .setInsert(1, GDString(L"a.cpp"))
                           .setInsert(2, GDUInteger64(7))
                           .setInsert(3, GDString(L"main")))
                    .equals(L"File:  a.cpp. Line:  7. Core dumped in main"));
    EXPECT_TRUE(
        withInsert(kmsgFormatNotFound, L"X")
            .equals(L"Failed to init log writer. The following log format is not found: X"));
    EXPECT_TRUE(withInsert(kmsgLogConfigClassDefinedMoreThenOnce, L"G")
                    .equals(L"Failed to load configuration. Writers Class G is defined more then "
                            L"once."));
    EXPECT_TRUE(render(ParamMessage(kmsgLogConfigClassIdOutOfRange).setInsert(1, GDInteger64(-3)))
                    .equals(L"Failed to load configuration. Class id -3 is out of range."));
    EXPECT_TRUE(withInsert(kmsgLogConfigClassNotDefined, L"G")
                    .equals(L"Failed to load configuration. Writers Class G is not defined."));
    EXPECT_TRUE(withInsert(kmsgLogFromLogger, L"inner")
                    .equals(L"Failed to log the following message. inner "));
    EXPECT_TRUE(render(kmsgLogIncidentErrorLong).equals(L"INCIDENT_ERROR"));
    EXPECT_TRUE(render(kmsgLogIncidentErrorShort).equals(L"I_E"));
    EXPECT_TRUE(render(kmsgLogErrorLong).equals(L"ERROR"));
    EXPECT_TRUE(render(kmsgLogErrorShort).equals(L"E"));
    EXPECT_TRUE(render(kmsgLogWarningLong).equals(L"WARNING"));
    EXPECT_TRUE(render(kmsgLogWarningShort).equals(L"W"));
    EXPECT_TRUE(render(kmsgLogInformationLong).equals(L"NOTIFICATION"));
    EXPECT_TRUE(render(kmsgLogInformationShort).equals(L"N"));
    EXPECT_TRUE(render(kmsgLogTraceLong).equals(L"TRACE"));
    EXPECT_TRUE(render(kmsgLogTraceShort).equals(L"T"));
}

TEST(LoggerMessagesTest, ConfigurationDiagnosticsRenderTheirDefaultTexts) {
    MessageTable::getDefault().setLanguage(String(L"en"));
    auto render6 = [](const ExternalMessage& message) {
        return render(ParamMessage(message)
                          .setInsert(1, GDString(L"f.xml"))
                          .setInsert(2, GDUInteger64(3))
                          .setInsert(3, GDString(L"E"))
                          .setInsert(4, GDString(L"a"))
                          .setInsert(5, GDString(L"t"))
                          .setInsert(6, GDString(L"r")));
    };
    EXPECT_TRUE(render6(kmsgLogConfigIdTokenWhiteSpace)
                    .equals(L"f.xml:3: the writer id token 't' in E holds a line break or tab; "
                            L"only blanks, commas and semicolons separate ids, so it is read as "
                            L"writer id r."));
    EXPECT_TRUE(render6(kmsgLogConfigThresholdNotDecimal)
                    .equals(L"f.xml:3: E attribute a='t' is not a plain decimal number; it is "
                            L"read as r."));
    EXPECT_TRUE(render6(kmsgLogConfigThresholdOutOfRange)
                    .equals(L"f.xml:3: E attribute a='t' is outside 0 to 65535; only its low 16 "
                            L"bits are kept, so it is read as r."));
    EXPECT_TRUE(
        render6(kmsgLogConfigGroupNotReferenced)
            .equals(L"f.xml:3: E a='t' (writer ids r) is not referenced by any FilterRecord."));
    EXPECT_TRUE(render6(kmsgLogConfigPatternMatchesNoSource)
                    .equals(L"f.xml:3: E a='t' (writer ids r) is a pattern that matches no "
                            L"existing log source."));
}

TEST(LoggerMessagesTest, TemplatesWithParametersDeclareTheNamespaceAndOthersNothing) {
    const XmlElement* pWithParams = kmsgFormatNotFound.getDefaultTemplate();
    EXPECT_TRUE(pWithParams->getAttributeValue(L"xmlns:kivm").equals(kMessageNamespaceUri));
    EXPECT_TRUE(pWithParams->getAttributeValue(L"name").equals(L"kmsgFormatNotFound"));
    EXPECT_FALSE(kmsgLogErrorLong.getDefaultTemplate()->hasAttribute(L"xmlns:kivm"));
    EXPECT_EQ(kmsgLogErrorLong.getOption(), ExternalMessage::kNone);
}

TEST(LoggerMessagesTest, FormatsMessageHoldsTheCataloguesFormats) {
    const XmlElement* pXml = kmsgLogFormats.getStructuredContent();
    ASSERT_NE(pXml, nullptr);
    const std::vector<const XmlElement*> vecFormats = pXml->selectElements(L"Format");
    ASSERT_EQ(vecFormats.size(), 3u);
    EXPECT_TRUE(vecFormats[0]->getAttributeValue(L"name").equals(L"Default"));
    EXPECT_TRUE(vecFormats[1]->getAttributeValue(L"name").equals(L"Short"));
    EXPECT_TRUE(vecFormats[2]->getAttributeValue(L"name").equals(L"xml"));
    EXPECT_TRUE(vecFormats[2]->getAttributeValue(L"Encoding").equals(L"Xml"));
    // "Default" shows one backtrace, just before the message text, after two line breaks.
    EXPECT_EQ(vecFormats[0]->selectElements(L"Backtrace").size(), 1u);
    // "xml" has no Line element.
    EXPECT_TRUE(vecFormats[2]->selectElements(L"Line").empty());
    EXPECT_TRUE(vecFormats[1]->toXmlString().equals(
        L"<Format name=\"Short\"><MsgType style=\"short\"/><MsgSeverity/>\t<CurrentLogSource/>"
        L"\t<MessageText/>\t<LineBreak/></Format>"));
}

TEST(LoggerMessagesTest, MessageFileNameIsRegistered) {
    const std::vector<String> vecFiles = MessageFilesRegistry::getInstance().getRegisteredFiles();
    EXPECT_NE(std::find(vecFiles.begin(), vecFiles.end(), String(L"loggermessages.xml")),
              vecFiles.end());
}

TEST(LoggerMessagesTest, FormatNotFoundNamesTheFormat) {
    const LogFormatNotFound e(String(L"Foo"));
    EXPECT_TRUE(
        render(e.getMsg())
            .equals(L"Failed to init log writer. The following log format is not found: Foo"));
    EXPECT_STREQ(e.what(), "Failed to init log writer. The following log format is not found: Foo");
    EXPECT_NE(dynamic_cast<const LogConfigurationException*>(&e), nullptr);
}

TEST(LoggerMessagesTest, LoggerExceptionCarriesTheCatalogueMessageWithItsInsert) {
    try {
        preThrow(LoggerException(
                     ParamMessage(kmsgLogConfigClassNotDefined).setInsert(1, GDString(L"web"))),
                 "./project/weblogger/xmlconfigreader", 42);
    } catch (const LoggerException& e) {
        EXPECT_STREQ(e.what(), "Failed to load configuration. Writers Class web is not defined.");
        EXPECT_STREQ(e.getFile(), "./project/weblogger/xmlconfigreader");
        EXPECT_EQ(e.getLine(), 42u);
    }
}

}  // namespace
}  // namespace kiv

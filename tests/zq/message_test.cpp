#include "zq/webutil/message.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>

#include "support/alloc_counter.h"
#include "support/temp_dir.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

const ExternalMessage kmsgTestGreeting(
    L"kmsgTestGreeting", ExternalMessage::kNone,
    "<WebMessage name='kmsgTestGreeting' xmlns:kivm='urn:kiv:webmessages'><TEXT>Hello "
    "<kivm:param insert='1'/>, you are <kivm:param insert='2'/> today.</TEXT></WebMessage>");
const ExternalMessage kmsgTestPlain(L"kmsgTestPlain", ExternalMessage::kNone,
                                    "<WebMessage name='kmsgTestPlain'><TEXT>NOTIFICATION</TEXT>"
                                    "</WebMessage>");
const ExternalMessage kmsgTestStructured(
    L"kmsgTestStructured", ExternalMessage::kNone,
    "<WebMessage name='kmsgTestStructured'><XML><Formats><Format name='Default'/></Formats>"
    "</XML></WebMessage>");

String render(const GDValue& value) {
    StringBufferTemplate<511, wchar_t> buffer;
    WebTextMessageFormatter::getInstance().FormatBuffer(buffer, value);
    return buffer.toString();
}

class MessageTest : public ::testing::Test {
protected:
    void SetUp() override {
        MessageFilesRegistry::getInstance().reset();
        MessageTable::getDefault().setLanguage(String(L"en"));
    }
    void TearDown() override { SetUp(); }
};

TEST_F(MessageTest, CatalogueTextSubstitutesInsertsInPlace) {
    ParamMessage message(kmsgTestGreeting);
    message.setInsert(1, GDString(L"Ann")).setInsert(2, GDUInteger64(3));
    EXPECT_TRUE(render(message).equals(L"Hello Ann, you are 3 today."));
}

TEST_F(MessageTest, UnsetCatalogueInsertsRenderAsNothing) {
    EXPECT_TRUE(render(kmsgTestGreeting).equals(L"Hello , you are  today."));
    ParamMessage message(kmsgTestGreeting);
    message.setInsert(2, GDString(L"x"));
    EXPECT_TRUE(render(message).equals(L"Hello , you are x today."));
}

TEST_F(MessageTest, CatalogueEntryKnowsItsIdAndStructuredContent) {
    EXPECT_TRUE(kmsgTestPlain.getId().equals(L"kmsgTestPlain"));
    EXPECT_EQ(kmsgTestPlain.getOption(), ExternalMessage::kNone);
    EXPECT_TRUE(render(kmsgTestPlain).equals(L"NOTIFICATION"));
    EXPECT_EQ(kmsgTestPlain.getStructuredContent(), nullptr);
    const XmlElement* pXml = kmsgTestStructured.getStructuredContent();
    ASSERT_NE(pXml, nullptr);
    const XmlElement* pFormat = pXml->selectSingleElement(L"Formats/Format");
    ASSERT_NE(pFormat, nullptr);
    EXPECT_TRUE(pFormat->getAttributeValue(L"name").equals(L"Default"));
    EXPECT_TRUE(
        render(kmsgTestStructured).equals(L"<Formats><Format name=\"Default\"/></Formats>"));
}

TEST_F(MessageTest, TableFindsEntriesById) {
    const ExternalMessage* pFound = MessageTable::getDefault().findMessage(L"kmsgTestGreeting");
    ASSERT_NE(pFound, nullptr);
    EXPECT_TRUE(pFound->getId().equals(L"kmsgTestGreeting"));
    EXPECT_EQ(pFound->getDefaultTemplate(), kmsgTestGreeting.getDefaultTemplate());
    EXPECT_EQ(MessageTable::getDefault().findMessage(L"kmsgNoSuchThing"), nullptr);
}

TEST_F(MessageTest, InvalidDefaultTemplateFailsAssertionAndRendersId) {
    AssertionCapture capture;
    const ExternalMessage broken(L"kmsgBroken", ExternalMessage::kNone, "<WebMessage name='x'>");
    EXPECT_TRUE(capture.contains("bValidDefaultTemplate"));
    EXPECT_TRUE(render(broken).equals(L"kmsgBroken"));
    const ExternalMessage misnamed(L"kmsgMisnamed", ExternalMessage::kNone,
                                   "<WebMessage name='other'><TEXT>t</TEXT></WebMessage>");
    EXPECT_EQ(capture.count(), 2u);
}

TEST_F(MessageTest, PlainTemplateExpandsPercentInserts) {
    const GDString tmpl(L"%1 of %2 (100%%) %3 %x %");
    const GDString first(L"one");
    const GDUInteger64 second(2);
    const ReferentialParameterizedMessage message(tmpl, first, second);
    // "%3" has no insert and stays as written, so the missing argument shows in the log.
    EXPECT_TRUE(render(message).equals(L"one of 2 (100%) %3 %x %"));
}

TEST_F(MessageTest, PlainTemplateHandsOnALiteralsFingerprint) {
    static constexpr std::wstring_view kLiteral = L"%1 served";
    constexpr std::uint64_t nFingerprint = GDLiteralText::fingerprintOf(kLiteral);
    const GDLiteralText literal(kLiteral, nFingerprint);
    const GDString owned(L"%1 served");
    const GDUInteger64 insert(3);
    std::wstring_view text;
    std::uint64_t nGiven = 0;
    const ReferentialParameterizedMessage fromLiteral(literal, insert);
    ASSERT_EQ(PlainTemplate::find(fromLiteral, text, nGiven), &fromLiteral);
    EXPECT_EQ(text.data(), kLiteral.data());
    EXPECT_EQ(nGiven, nFingerprint);
    const ReferentialParameterizedMessage fromString(owned, insert);
    ASSERT_EQ(PlainTemplate::find(fromString, text, nGiven), &fromString);
    EXPECT_EQ(text, kLiteral);
    EXPECT_EQ(nGiven, 0U);
    // Through a reference to the message, and rendered as any string template.
    ASSERT_EQ(PlainTemplate::find(GDValueRef(&fromLiteral), text, nGiven), &fromLiteral);
    EXPECT_EQ(nGiven, nFingerprint);
    EXPECT_TRUE(render(fromLiteral).equals(L"3 served"));
    // A catalogue message has no plain template, and so no fingerprint either.
    const ReferentialParameterizedMessage catalogue(kmsgTestGreeting, owned, insert);
    EXPECT_EQ(PlainTemplate::find(catalogue, text, nGiven), nullptr);
}

// The template found the long way too: a template behind a reference, a reference to nothing,
// values that are no message at all.
TEST_F(MessageTest, PlainTemplateIsFoundBehindReferencesAndOnlyInMessages) {
    const GDString owned(L"%1 queued");
    const GDUInteger64 insert(4);
    std::wstring_view text;
    std::uint64_t nGiven = 7;
    const GDValueRef toOwned(&owned);
    const ReferentialParameterizedMessage overReference(toOwned, insert);
    ASSERT_EQ(PlainTemplate::find(overReference, text, nGiven), &overReference);
    EXPECT_EQ(text, std::wstring_view(L"%1 queued"));
    EXPECT_EQ(nGiven, 0U);
    EXPECT_TRUE(render(overReference).equals(L"4 queued"));
    const GDValueRef toNothing(nullptr);
    const ReferentialParameterizedMessage overNothing(toNothing, insert);
    EXPECT_EQ(PlainTemplate::find(overNothing, text, nGiven), nullptr);
    EXPECT_EQ(PlainTemplate::find(owned, text, nGiven), nullptr);
    EXPECT_EQ(PlainTemplate::find(insert, text, nGiven), nullptr);
    EXPECT_EQ(PlainTemplate::find(toNothing, text, nGiven), nullptr);
    // A catalogue entry behind a reference makes a catalogue message.
    const GDValueRef toEntry(&kmsgTestGreeting);
    const ReferentialParameterizedMessage overEntry(toEntry, insert);
    EXPECT_EQ(PlainTemplate::find(GDValueRef(&overEntry), text, nGiven), nullptr);
}

TEST_F(MessageTest, ReferentialMessageOverCatalogueEntry) {
    const GDString who(L"Bob");
    const GDInteger64 mood(-1);
    const ReferentialParameterizedMessage message(kmsgTestGreeting, who, mood);
    EXPECT_EQ(message.getCatalogueMessage(), &kmsgTestGreeting);
    EXPECT_EQ(message.getTemplateValue(), nullptr);
    EXPECT_TRUE(render(message).equals(L"Hello Bob, you are -1 today."));
}

TEST_F(MessageTest, ReferentialMessageAnswersTheSameInEveryOrderOfQuestions) {
    const GDString who(L"Bob");
    const GDInteger64 mood(3);
    // A catalogue entry reached through a reference, asked for the plain template first.
    const GDValueRef toEntry(&kmsgTestGreeting);
    const ReferentialParameterizedMessage overEntry(toEntry, who, mood);
    EXPECT_EQ(overEntry.getTemplateValue(), nullptr);
    EXPECT_EQ(overEntry.getCatalogueMessage(), &kmsgTestGreeting);
    EXPECT_EQ(overEntry.getCatalogueMessage(), &kmsgTestGreeting);
    EXPECT_TRUE(render(overEntry).equals(L"Hello Bob, you are 3 today."));

    // A plain template, asked for the catalogue entry first.
    const GDString tmpl(L"<%1>");
    const ReferentialParameterizedMessage plain(tmpl, who);
    EXPECT_EQ(plain.getCatalogueMessage(), nullptr);
    EXPECT_EQ(plain.getTemplateValue(), &tmpl);
    EXPECT_EQ(plain.getCatalogueMessage(), nullptr);
    EXPECT_TRUE(render(plain).equals(L"<Bob>"));

    // A reference to nothing is neither.
    const GDValueRef toNothing(nullptr);
    const ReferentialParameterizedMessage empty(toNothing);
    EXPECT_EQ(empty.getCatalogueMessage(), nullptr);
    EXPECT_EQ(empty.getTemplateValue(), &toNothing);
}

TEST_F(MessageTest, ReferentialMessageTakesUpToEightInserts) {
    const GDString tmpl(L"%1%2%3%4%5%6%7%8%9");
    const GDUInteger64 a(1), b(2), c(3), d(4), e(5), f(6), g(7), h(8);
    const ReferentialParameterizedMessage message(tmpl, a, b, c, d, e, f, g, h);
    EXPECT_EQ(message.getInsertCount(), 8u);
    EXPECT_TRUE(render(message).equals(L"12345678%9"));
}

TEST_F(MessageTest, CloneOfReferentialMessageOwnsItsInserts) {
    GDVariant copy;
    {
        const GDString tmpl(L"[%1|%2]");
        const GDString first(L"alpha");
        const GDString second(L"beta");
        copy.set(ReferentialParameterizedMessage(tmpl, first, second));
    }
    EXPECT_FALSE(copy.isInline());
    EXPECT_TRUE(render(*copy).equals(L"[alpha|beta]"));
}

TEST_F(MessageTest, MessagesNestAsInsertsAndSelfReferenceStops) {
    ParamMessage inner(kmsgTestGreeting);
    inner.setInsert(1, GDString(L"Cy")).setInsert(2, GDString(L"fine"));
    ParamMessage outer(GDString(L"<%1>"));
    outer.setInsert(1, inner);
    EXPECT_TRUE(render(outer).equals(L"<Hello Cy, you are fine today.>"));

    ParamMessage loop(GDString(L"x%1"));
    loop.setInsert(1, GDValueRef(&loop));
    EXPECT_TRUE(render(loop).equals(L"xxxxxxxx"));
}

TEST_F(MessageTest, InsertIndexOutOfRangeFailsAssertion) {
    AssertionCapture capture;
    ParamMessage message(GDString(L"%1"));
    message.setInsert(0, GDString(L"no"));
    message.setInsert(10, GDString(L"no"));
    EXPECT_EQ(capture.count(), 2u);
    EXPECT_TRUE(capture.contains("nIndex >= 1 && nIndex <= kMaxInserts"));
    EXPECT_TRUE(render(message).equals(L"%1"));
}

TEST_F(MessageTest, MessageFileOverridesTextForItsLanguage) {
    test::TempDir dir;
    dir.write("de/testmessages.xml",
              "<?xml version='1.0' encoding='UTF-8'?>\n"
              "<WebMessages>\n"
              "  <WebMessage name='kmsgTestGreeting' xmlns:kivm='urn:kiv:webmessages'>"
              "<TEXT>Hallo <kivm:param insert='1'/>, heute <kivm:param insert='2'/> "
              "\xC3\xBC</TEXT></WebMessage>\n"
              "</WebMessages>\n");
    MessageFilesRegistry::getInstance().addSearchDirectory(NString(dir.path().c_str()));
    MessageFilesRegistry::getInstance().registerMessageFiles(String(L"testmessages.xml"));
    ParamMessage message(kmsgTestGreeting);
    message.setInsert(1, GDString(L"Ann")).setInsert(2, GDUInteger64(3));

    EXPECT_TRUE(render(message).equals(L"Hello Ann, you are 3 today."));
    MessageTable::getDefault().setLanguage(String(L"de"));
    EXPECT_TRUE(render(message).equals(L"Hallo Ann, heute 3 \u00FC"));
    // Ids the file does not translate keep their default text.
    EXPECT_TRUE(render(kmsgTestPlain).equals(L"NOTIFICATION"));
    MessageTable::getDefault().setLanguage(String(L"en"));
    EXPECT_TRUE(render(message).equals(L"Hello Ann, you are 3 today."));
}

TEST_F(MessageTest, MalformedMessageFileIsReportedAndDefaultsStay) {
    test::TempDir dir;
    const std::string strPath = dir.write("fr/broken.xml", "<WebMessages><WebMessage name='x'>");
    MessageFilesRegistry::getInstance().addSearchDirectory(NString(dir.path().c_str()));
    MessageFilesRegistry::getInstance().registerMessageFiles(String(L"broken.xml"));
    MessageTable::getDefault().setLanguage(String(L"fr"));
    EXPECT_TRUE(render(kmsgTestPlain).equals(L"NOTIFICATION"));
    const std::vector<String> vecErrors = MessageTable::getDefault().getLoadErrors();
    ASSERT_FALSE(vecErrors.empty());
    EXPECT_NE(vecErrors.back().find(fromUtf8(strPath)), String::npos);
}

TEST_F(MessageTest, RenderingReferentialMessageDoesNotAllocateAfterWarmUp) {
    const GDString plain(L"user %1 asked for %2 in %3 ms");
    const String user(L"ann");
    const GDStringRef first(user);
    const GDString second(L"/index.html");
    const GDUInteger64 third(42);
    const ReferentialParameterizedMessage overPlain(plain, first, second, third);
    const ReferentialParameterizedMessage overCatalogue(kmsgTestGreeting, first, second, third);
    StringBufferTemplate<511, wchar_t> buffer;
    const WebTextMessageFormatter& formatter = WebTextMessageFormatter::getInstance();
    formatter.FormatBuffer(buffer, overCatalogue);  // warm-up resolves the template once
    test::AllocationScope scope;
    for (int i = 0; i < 1000; ++i) {
        buffer.clear();
        formatter.FormatBuffer(buffer, overPlain);
        formatter.FormatBuffer(buffer, overCatalogue);
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(buffer.view(),
              L"user ann asked for /index.html in 42 msHello ann, you are "
              L"/index.html today.");
}

TEST_F(MessageTest, DefaultFormatterOfValuesIsTheTextFormatter) {
    ParamMessage message(kmsgTestGreeting);
    message.setInsert(1, GDString(L"Di"));
    EXPECT_TRUE(message.toString().equals(L"Hello Di, you are  today."));
    const Exception e(message);
    EXPECT_STREQ(e.what(), "Hello Di, you are  today.");
}

}  // namespace
}  // namespace kiv

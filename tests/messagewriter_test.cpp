#include "weblogger/internal/messagewriter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/alloc_counter.h"
#include "weblogger/internal/messagewriter_impl.h"
#include "weblogger/loggermessages.h"
#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/clock.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/timezone.h"

namespace kiv {
namespace {

using WideBuffer = StringBufferBaseTemplate<wchar_t>;
using WideFactory = MessageWriterFactory<WideBuffer, WriterAdapter<WideBuffer>>;

// UTF-8 bytes gathered as a byte stream receives them.
struct Utf8Bytes {
    void write(const void* p, unsigned long n) { text.append(static_cast<const char*>(p), n); }
    std::string text;
};
using Utf8Factory = MessageWriterFactory<
    Utf8Bytes, EncodingAdapter<StreamWriterAdapter<Utf8Bytes, char>, T2NEncodingUTF8<wchar_t>>>;

// A value that keeps a UTF-8 form beside its text, as the thread's ECID does. The two forms
// differ here on purpose, so that a line shows which of them the writer used.
class TwoFormValue final : public GDValueImpl<TwoFormValue> {
public:
    void accept(GDValueVisitor& visitor) const override { visitor.visitString(kWide); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitString(kWide, buffer, params);
    }
    Kind kind() const noexcept override { return kKindString; }
    bool readyUtf8(std::string_view& bytes) const override {
        bytes = "bytes\"&";
        return true;
    }

private:
    static constexpr std::wstring_view kWide = L"wide\"&";
};

// 2026-03-29 00:30:05 UTC: 01:30:05 CET, half an hour before Berlin moves to CEST.
constexpr std::time_t kFixedTime = 1774744205;
std::time_t fixedClock() noexcept {
    return kFixedTime;
}

// A built-in format by name; null when there is none.
const XmlElement* builtInFormat(const wchar_t* pszName) {
    for (const XmlElement* p :
         MessageFormatLoader::getFallbackLoggerFormats()->selectElements(L"Format")) {
        if (p->getAttributeValue(L"name").equals(pszName)) {
            return p;
        }
    }
    return nullptr;
}

class MessageWriterTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        TimeZone berlin = TimeZone::utc();
        ASSERT_TRUE(TimeZoneRegistry::getInstance().findTimeZone(String(L"Europe/Berlin"), berlin));
        TmLogger::setTimeZone(berlin);
    }

    // Compiles a format from its XML text; the writer owns it.
    MessageWriterHandle<WideBuffer> writerFor(
        const char* pszFormatXml,
        CompiledMsgFormat::Encoding nDefault = CompiledMsgFormat::kEncodingPlain) {
        const XmlDocument document = XmlDocument::parseString(std::string_view(pszFormatXml));
        auto* pFormat = new CompiledMsgFormat;
        MessageFormatLoader::loadFormat(*pFormat, *document.getDocumentElement(), nDefault);
        return WideFactory::createMessageWriter(pFormat, true);
    }
    MessageWriterHandle<WideBuffer> writerFor(const XmlElement& formatElement) {
        auto* pFormat = new CompiledMsgFormat;
        MessageFormatLoader::loadFormat(*pFormat, formatElement, CompiledMsgFormat::kEncodingPlain);
        return WideFactory::createMessageWriter(pFormat, true);
    }

    String render(const MessageWriterHandle<WideBuffer>& hWriter, const LogSeverity& severity,
                  const GDValue& message, const FileLocation* pLocation = nullptr) {
        StringBufferTemplate<1024, wchar_t> out;
        hWriter->msg_log(severity, message, m_state, pLocation, &out);
        return out.toString();
    }

    clock::ScopedWallClock m_clock{&fixedClock};
    LoggerState m_state;
    LogSourceHandle m_one{String(L"one")};
    LogSourceHandle m_two{String(L"one.two")};
    LogSourceHandle m_three{String(L"one.two.three")};
};

// ------------------------------------------------------------------------- record by record

TEST_F(MessageWriterTest, TraceMessageInShortStyleShowsTrace) {
    auto hWriter = writerFor("<Format><MsgType style='short'/>|<MsgType/></Format>");
    EXPECT_TRUE(render(hWriter, kSevTraceFine, GDString(L"")).equals(L"TRACE|TRACE"));
    EXPECT_TRUE(render(hWriter, kSevInfo, GDString(L"")).equals(L"N|NOTIFICATION"));
    EXPECT_TRUE(render(hWriter, kSevErrorCorruption, GDString(L"")).equals(L"I_E|INCIDENT_ERROR"));
}

TEST_F(MessageWriterTest, SourcesListSkipsRepeatsInnermostFirst) {
    auto hWriter = writerFor(
        "<Format><LogSources><Separator>,</Separator><Prefix>[</Prefix><Suffix>]</Suffix>"
        "</LogSources></Format>");
    m_state.pushSource(*m_one);
    m_state.pushSource(*m_two);
    m_state.pushSource(*m_two);
    m_state.pushSource(*m_three);
    EXPECT_TRUE(
        render(hWriter, kSevError, GDString(L"")).equals(L"[one.two.three],[one.two],[one]"));
}

TEST_F(MessageWriterTest, DefaultFormatPutsEachSourceOnItsOwnIndentedLine) {
    const XmlElement* pDefault = nullptr;
    for (const XmlElement* p :
         MessageFormatLoader::getFallbackLoggerFormats()->selectElements(L"Format")) {
        if (p->getAttributeValue(L"name").equals(L"Default")) {
            pDefault = p;
        }
    }
    ASSERT_NE(pDefault, nullptr);
    m_state.pushSource(*m_one);
    m_state.pushSource(*m_two);
    const FileLocation location(L"/src/project/weblogger/a.cpp", 7);
    const String text = render(writerFor(*pDefault), kSevError, GDString(L"m"), &location);
    EXPECT_NE(text.find(String(L"Location:\n\tone.two\n\tone\n")), String::npos)
        << toUtf8(text.view()).c_str();
}

TEST_F(MessageWriterTest, PropertyShowsOnlyWhereItsLevelReachesTheImportance) {
    auto hWriter = writerFor(
        "<Format><Properties><ListElementFormat><PropertyName/>=<PropertyValues/>"
        "</ListElementFormat></Properties></Format>");
    m_state.pushProperty(String(L"custom"), GDString(L"v"), 2);
    EXPECT_TRUE(
        render(hWriter, LogSeverity(LogSeverity::SV_ERROR, 2), GDString(L"")).equals(L"custom=v"));
    EXPECT_TRUE(render(hWriter, LogSeverity(LogSeverity::SV_ERROR, 3), GDString(L"")).empty());
}

TEST_F(MessageWriterTest, AValueKeptAsUtf8IsCopiedAsItIsOnlyWhereNothingIsEscaped) {
    const char* const pszFormat =
        "<Format>[<Property name='p'><PropertyValues/></Property>]<MessageText/></Format>";
    m_state.pushProperty(String(L"p"), TwoFormValue(), 100);
    const auto renderUtf8 = [&](CompiledMsgFormat::Encoding nEncoding) {
        const XmlDocument document = XmlDocument::parseString(std::string_view(pszFormat));
        auto* pFormat = new CompiledMsgFormat;
        MessageFormatLoader::loadFormat(*pFormat, *document.getDocumentElement(), nEncoding);
        const auto hWriter = Utf8Factory::createMessageWriter(pFormat, true);
        Utf8Bytes out;
        hWriter->msg_log(kSevError, TwoFormValue(), m_state, nullptr, &out);
        return out.text;
    };
    // Plain and Xml write property values unescaped: the bytes go in as they are. The message
    // text is a value that Xml escapes, so it is always formatted.
    EXPECT_EQ(renderUtf8(CompiledMsgFormat::kEncodingPlain), "[bytes\"&]wide\"&");
    EXPECT_EQ(renderUtf8(CompiledMsgFormat::kEncodingXml), "[bytes\"&]wide&quot;&amp;");
    // Json escapes property values too: they are formatted and escaped.
    EXPECT_EQ(renderUtf8(CompiledMsgFormat::kEncodingJson), "[wide\\\"&]wide\\\"&");
    // A wide stream takes no bytes.
    EXPECT_TRUE(render(writerFor(pszFormat), kSevError, GDString(L"m")).equals(L"[wide\"&]m"));
}

TEST_F(MessageWriterTest, AsUtf8EveryFormatWritesItsWideTextEncodedByteForByte) {
    // Text beyond ASCII everywhere a writer copies pre-encoded bytes: format text, the source
    // names, the message type words (through a format of its own), the time zone's name.
    const LogSourceHandle source(String(L"one.zw\u00f6lf.\u20ac"));
    m_state.pushSource(*m_one);
    m_state.pushSource(*source);
    m_state.pushProperty(String(L"userId"), GDString(L"\u00e4nne"), 100);
    m_state.pushProperty(String(L"custom"), GDString(L"w\u00e9rt \U0001F600"), 100);
    m_state.pushProperty(String(L"ecid"), GDString(L"E1,R1"), 0xF0000000u);
    const GDString tmpl(L"user %1 got %2 \u2014 \u00fcn\u00efcode & <co>");
    const GDString user(L"\u00e4nne");
    const GDUInteger64 count(42);
    const FileLocation here(L"/build/src/\u00e4\u00f6.cpp", 42, L"frame0 \u00e9\nframe1");
    std::vector<const XmlElement*> vecFormats =
        MessageFormatLoader::getFallbackLoggerFormats()->selectElements(L"Format");
    const XmlDocument custom = XmlDocument::parseString(std::string_view(
        "<Format>\xc3\xa9\xe2\x82\xac [<MsgType/>|<MsgType style='short'/>] <Time/> "
        "<Time style='KLFTimeFormat'/> <CurrentLogSource/> <LogSources><Separator>\xc2\xbb"
        "</Separator></LogSources> <MessageText/></Format>"));
    vecFormats.push_back(custom.getDocumentElement());
    for (const XmlElement* pFormat : vecFormats) {
        for (const auto nEncoding :
             {CompiledMsgFormat::kEncodingPlain, CompiledMsgFormat::kEncodingXml}) {
            auto* pWideFormat = new CompiledMsgFormat;
            MessageFormatLoader::loadFormat(*pWideFormat, *pFormat, nEncoding);
            const auto hWide = WideFactory::createMessageWriter(pWideFormat, true);
            auto* pUtf8Format = new CompiledMsgFormat;
            MessageFormatLoader::loadFormat(*pUtf8Format, *pFormat, nEncoding);
            const auto hUtf8 = Utf8Factory::createMessageWriter(pUtf8Format, true);
            for (const LogSeverity* pSeverity : {&kSevInfo, &kSevErrorCorruption, &kSevTraceFine}) {
                StringBufferTemplate<4096, wchar_t> wide;
                hWide->msg_log(*pSeverity, ReferentialParameterizedMessage(tmpl, user, count),
                               m_state, &here, &wide);
                Utf8Bytes utf8;
                hUtf8->msg_log(*pSeverity, ReferentialParameterizedMessage(tmpl, user, count),
                               m_state, &here, &utf8);
                EXPECT_EQ(utf8.text, toUtf8(wide.view()).std())
                    << "format " << toUtf8(pFormat->getAttributeValue(L"name").view()).std();
                EXPECT_FALSE(utf8.text.empty());
            }
        }
    }
}

TEST_F(MessageWriterTest, AsUtf8AMessageOfAnyShapeWritesItsWideTextEncodedByteForByte) {
    // Plain templates are expanded straight to UTF-8 where the stream takes it; whatever the
    // template and its inserts, the bytes must be those of the formatter's wide text, encoded.
    const char* const pszFormat = "<Format>&lt;<MessageText/>&gt;</Format>";
    const auto hWide = writerFor(pszFormat);
    const auto compileFor = [pszFormat](auto factory) {
        const XmlDocument document = XmlDocument::parseString(std::string_view(pszFormat));
        auto* pFormat = new CompiledMsgFormat;
        MessageFormatLoader::loadFormat(*pFormat, *document.getDocumentElement(),
                                        CompiledMsgFormat::kEncodingPlain);
        return decltype(factory)::createMessageWriter(pFormat, true);
    };
    const auto hBytes = compileFor(Utf8Factory());
    const auto hRecord = compileFor(MessageWriterFactory<RecordBuffer, Utf8InPlaceAdaptor>());

    const GDString every(L"s=%1 u=%2 min=%3 neg=%4 f=%5 ref=%6 utf8=%7 arr=%8");
    const GDString text(L"\u00e4\u20ac \U0001F600");
    const GDUInteger64 maxU(UINT64_MAX);
    const GDInteger64 minI(INT64_MIN);
    const GDInteger64 minusSeven(-7);
    const GDFloat half(0.5);
    const GDValueRef refToNumber(&maxU);
    const GDUtf8StringRef utf8("caf\xc3\xa9");
    GDArray array;
    array.append(GDString(L"x")).append(GDUInteger64(3)).append(GDInteger64(-4));
    const GDString odd(L"%% 100% %0 %x %9 %%1 %1%2 %");
    const GDString withNull(String(L"a\0b", 3));
    const GDStringRef nullInside(L"n\0l", 3);
    const GDValueRef refToNothing(nullptr);
    const GDString nestedTemplate(L"[in %1]");
    const ReferentialParameterizedMessage nested(nestedTemplate, text);
    const GDValueRef templateByReference(&nestedTemplate);
    const GDUInteger64 numberTemplate(5);
    const GDString emptyTemplate(L"");
    ParamMessage owning(GDString(L"owned %1 %2"));
    owning.setInsert(1, text).setInsert(2, GDInteger64(0));
    const ReferentialParameterizedMessage byReference(every, text, maxU);
    const GDValueRef refToMessage(&byReference);

    const auto check = [&](const char* pszWhat, const GDValue& message) {
        StringBufferTemplate<1024, wchar_t> wide;
        hWide->msg_log(kSevInfo, message, m_state, nullptr, &wide);
        Utf8Bytes bytes;
        hBytes->msg_log(kSevInfo, message, m_state, nullptr, &bytes);
        RecordBuffer record;
        hRecord->msg_log(kSevInfo, message, m_state, nullptr, &record);
        const std::string expected = toUtf8(wide.view()).std();
        EXPECT_EQ(bytes.text, expected) << pszWhat;
        EXPECT_EQ(std::string(record.data(), record.size()), expected) << pszWhat;
        return expected;
    };
    EXPECT_EQ(check("every kind of insert",
                    ReferentialParameterizedMessage(every, text, maxU, minI, minusSeven, half,
                                                    refToNumber, utf8, array)),
              "<s=\xc3\xa4\xe2\x82\xac \xf0\x9f\x98\x80 u=18446744073709551615 "
              "min=-9223372036854775808 neg=-7 f=0.5 ref=18446744073709551615 "
              "utf8=caf\xc3\xa9 arr=x3-4>");
    EXPECT_EQ(check("percent signs", ReferentialParameterizedMessage(odd, text, maxU)),
              "<% 100% %0 %x %9 %1 \xc3\xa4\xe2\x82\xac \xf0\x9f\x98\x80"
              "18446744073709551615 %>");
    EXPECT_EQ(
        check("null characters", ReferentialParameterizedMessage(every, withNull, nullInside)),
        std::string("<s=a") + '\0' + "b u=n" + '\0' +
            "l min=%3 neg=%4 f=%5 ref=%6 utf8=%7 arr=%8>");
    check("a reference to nothing", ReferentialParameterizedMessage(every, refToNothing));
    EXPECT_EQ(check("a nested message", ReferentialParameterizedMessage(nestedTemplate, nested)),
              "<[in [in \xc3\xa4\xe2\x82\xac \xf0\x9f\x98\x80]]>");
    EXPECT_EQ(check("a template by reference",
                    ReferentialParameterizedMessage(templateByReference, maxU)),
              "<[in 18446744073709551615]>");
    EXPECT_EQ(
        check("a template that is a number", ReferentialParameterizedMessage(numberTemplate, maxU)),
        "<5>");
    EXPECT_EQ(check("an empty template", ReferentialParameterizedMessage(emptyTemplate, maxU)),
              "<>");
    EXPECT_EQ(check("a message owning its inserts", owning),
              "<owned \xc3\xa4\xe2\x82\xac \xf0\x9f\x98\x80 0>");
    check("a reference to a message", refToMessage);
    EXPECT_EQ(check("a string, not a message", GDString(L"%1 stays")), "<%1 stays>");
    // Templates too long to keep compiled are expanded as they come.
    const GDString longTemplate(String(std::wstring(200, L'\u00e9') + L" %1 %% %9 %"));
    std::string longExpected = "<";
    for (int i = 0; i < 200; ++i) {
        longExpected += "\xc3\xa9";
    }
    EXPECT_EQ(check("a long template", ReferentialParameterizedMessage(longTemplate, minI)),
              longExpected + " -9223372036854775808 % %9 %>");
    std::wstring manyMarkers;
    for (int i = 0; i < 20; ++i) {
        manyMarkers += L"%1%2";
    }
    check("many inserts", ReferentialParameterizedMessage(GDString(manyMarkers.c_str()), text));
    // The same compiled template serves messages that set different inserts.
    const GDString shared(L"[%1|%2]");
    EXPECT_EQ(check("both inserts", ReferentialParameterizedMessage(shared, maxU, minusSeven)),
              "<[18446744073709551615|-7]>");
    EXPECT_EQ(check("one insert", ReferentialParameterizedMessage(shared, maxU)),
              "<[18446744073709551615|%2]>");
    EXPECT_EQ(check("no insert", ReferentialParameterizedMessage(shared)), "<[%1|%2]>");
    EXPECT_EQ(check("an array", array), "<x3-4>");
}

TEST_F(MessageWriterTest, AsUtf8ANumberInsertOfEveryLengthIsWrittenWhole) {
    // Numbers go straight into the record buffer, their length counted first: each side of
    // every power of ten, both signs, and the extremes.
    const auto hRecord = MessageWriterFactory<RecordBuffer, Utf8InPlaceAdaptor>::compile(
        XmlDocument::parseString(std::string_view("<Format>(<MessageText/>)</Format>"))
            .getDocumentElement());
    const GDString tmpl(L"%1|%2");
    std::vector<std::uint64_t> vecNumbers = {0, UINT64_MAX};
    for (std::uint64_t nPower = 1; nPower <= 10000000000000000000ULL; nPower *= 10) {
        vecNumbers.insert(vecNumbers.end(), {nPower - 1, nPower, nPower + 1});
        if (nPower == 10000000000000000000ULL) {
            break;
        }
    }
    for (const std::uint64_t n : vecNumbers) {
        const std::int64_t nSigned =
            n > static_cast<std::uint64_t>(INT64_MAX) ? INT64_MIN : -static_cast<std::int64_t>(n);
        RecordBuffer record;
        hRecord->msg_log(
            kSevInfo, ReferentialParameterizedMessage(tmpl, GDUInteger64(n), GDInteger64(nSigned)),
            m_state, nullptr, &record);
        EXPECT_EQ(std::string(record.data(), record.size()),
                  "(" + std::to_string(n) + "|" + std::to_string(nSigned) + ")");
    }
}

TEST_F(MessageWriterTest, FixedTextEndingALineIsWrittenAsTheRecordsWouldBe) {
    // The file writer's renderer writes the fixed text that ends a format (a line break, a
    // closing bracket; one record, since a format joins each run of text) in one piece: the
    // bytes must be those the record writes, for every shape of ending.
    m_state.pushSource(*m_one);
    const GDString tmpl(L"got %1");
    const GDUInteger64 count(7);
    const char* const arrFormats[] = {
        "<Format>[<MsgType/>] <MessageText/><LineBreak/></Format>",
        "<Format><MessageText/> \xc2\xbb<LineBreak/><LineBreak/>end\xe2\x82\xac</Format>",
        "<Format><MessageText/></Format>",
        "<Format>only text<LineBreak/></Format>",
        "<Format>[<MsgType/>]<LineBreak/></Format>",
        "<Format><MessageText/> <CurrentLogSource/><LineBreak/></Format>",
        "<Format>(<MessageText/>)<LineBreak/></Format>",
    };
    for (const char* pszFormat : arrFormats) {
        for (const auto nEncoding :
             {CompiledMsgFormat::kEncodingPlain, CompiledMsgFormat::kEncodingXml}) {
            const XmlDocument format = XmlDocument::parseString(std::string_view(pszFormat));
            auto* pWideFormat = new CompiledMsgFormat;
            MessageFormatLoader::loadFormat(*pWideFormat, *format.getDocumentElement(), nEncoding);
            const auto hWide = WideFactory::createMessageWriter(pWideFormat, true);
            auto* pRecordFormat = new CompiledMsgFormat;
            MessageFormatLoader::loadFormat(*pRecordFormat, *format.getDocumentElement(),
                                            nEncoding);
            const auto hRecord =
                MessageWriterFactory<RecordBuffer, Utf8InPlaceAdaptor>::createMessageWriter(
                    pRecordFormat, true);
            StringBufferTemplate<512, wchar_t> wide;
            hWide->msg_log(kSevInfo, ReferentialParameterizedMessage(tmpl, count), m_state, nullptr,
                           &wide);
            RecordBuffer record;
            hRecord->msg_log(kSevInfo, ReferentialParameterizedMessage(tmpl, count), m_state,
                             nullptr, &record);
            EXPECT_EQ(std::string(record.data(), record.size()), toUtf8(wide.view()).std())
                << pszFormat;
        }
    }
}

TEST_F(MessageWriterTest, EveryShapeOfLineBodyIsWrittenAsTheRecordsWouldBe) {
    // Between its cached head and its fixed tail, the file writer's renderer writes the message
    // alone without reading the format's records, and walks the records for any other body. Both
    // ways, and a second line that copies the cached head, give the bytes of the records.
    m_state.pushSource(*m_one);
    const GDString tmpl(L"got %1 of %2");
    const GDUInteger64 count(7);
    const GDString total(L"nine");
    const FileLocation here(L"src/server.cpp", 42);
    const char* const arrFormats[] = {
        "<Format>[<MsgType/>] [<CurrentLogSource/>] <MessageText/><LineBreak/></Format>",
        "<Format>[<MsgType/>] [<CurrentLogSource/>] <MessageText/></Format>",
        "<Format>[<MsgType/>] [<CurrentLogSource/>] <MessageText/>|<MessageText/><LineBreak/>"
        "</Format>",
        "<Format>[<MsgType/>] [<CurrentLogSource/>] <File/>:<Line/> <MessageText/><LineBreak/>"
        "</Format>",
        "<Format>[<MsgType/>] [<CurrentLogSource/>] <MessageText/> (<FileName/>)<LineBreak/>"
        "</Format>",
        "<Format>[<MsgType/>] [<CurrentLogSource/>]<LineBreak/></Format>",
        "<Format><MessageText/><LineBreak/></Format>",
    };
    for (const char* pszFormat : arrFormats) {
        const XmlDocument format = XmlDocument::parseString(std::string_view(pszFormat));
        auto* pWideFormat = new CompiledMsgFormat;
        MessageFormatLoader::loadFormat(*pWideFormat, *format.getDocumentElement(),
                                        CompiledMsgFormat::kEncodingPlain);
        const auto hWide = WideFactory::createMessageWriter(pWideFormat, true);
        auto* pRecordFormat = new CompiledMsgFormat;
        MessageFormatLoader::loadFormat(*pRecordFormat, *format.getDocumentElement(),
                                        CompiledMsgFormat::kEncodingPlain);
        const auto hRecord =
            MessageWriterFactory<RecordBuffer, Utf8InPlaceAdaptor>::createMessageWriter(
                pRecordFormat, true);
        for (int nLine = 0; nLine < 2; ++nLine) {
            StringBufferTemplate<512, wchar_t> wide;
            hWide->msg_log(kSevInfo, ReferentialParameterizedMessage(tmpl, count, total), m_state,
                           &here, &wide);
            RecordBuffer record;
            hRecord->msg_log(kSevInfo, ReferentialParameterizedMessage(tmpl, count, total), m_state,
                             &here, &record);
            const std::string strLine(record.data(), record.size());
            EXPECT_EQ(strLine, toUtf8(wide.view()).std()) << pszFormat << " line " << nLine;
            EXPECT_EQ(strLine.find("got 7 of nine") != std::string::npos,
                      std::string_view(pszFormat).find("<MessageText/>") != std::string::npos)
                << pszFormat;
        }
    }
}

TEST_F(MessageWriterTest, ARecordIsStampedWithTheSecondItsLineShows) {
    // The file writer takes its once-a-second check's time from the record.
    const auto hRecord = MessageWriterFactory<RecordBuffer, Utf8InPlaceAdaptor>::compile(
        XmlDocument::parseString(std::string_view("<Format><MessageText/></Format>"))
            .getDocumentElement());
    RecordBuffer record;
    hRecord->msg_log(kSevInfo, GDString(L"x"), m_state, nullptr, &record);
    EXPECT_EQ(record.getSecond(), kFixedTime);
}

// The clock of the line-head tests: a second the test moves on.
std::time_t g_tMovingNow = kFixedTime;
std::time_t movingClock() noexcept {
    return g_tMovingNow;
}

TEST_F(MessageWriterTest, ALineHeadIsRenderedAgainForEachSecondSeveritySourceAndZone) {
    // The file writer's renderer copies a line's head (here everything before the message) from
    // the thread's cache; each thing the head shows must still show as it is now.
    const clock::ScopedWallClock moving(&movingClock);
    g_tMovingNow = kFixedTime;
    const auto hRecord = MessageWriterFactory<RecordBuffer, Utf8InPlaceAdaptor>::compile(
        XmlDocument::parseString(
            std::string_view("<Format>[<Time style='KLFTimeFormat'/>] [<MsgType style='long'/>] "
                             "[<CurrentLogSource/>] <MsgSeverity/>: <MessageText/></Format>"))
            .getDocumentElement());
    const auto render = [&](const LogSeverity& severity, const wchar_t* pszText) {
        RecordBuffer record;
        hRecord->msg_log(severity, GDString(pszText), m_state, nullptr, &record);
        return std::string(record.data(), record.size());
    };
    const std::string info = std::to_string(kSevInfo.m_dwImportance);
    m_state.pushSource(*m_two);
    EXPECT_EQ(render(kSevInfo, L"a"),
              "[2026-03-29T01:30:05+01:00] [NOTIFICATION] [one.two] " + info + ": a");
    EXPECT_EQ(render(kSevInfo, L"b"),
              "[2026-03-29T01:30:05+01:00] [NOTIFICATION] [one.two] " + info + ": b");
    EXPECT_EQ(render(kSevError, L"c"), "[2026-03-29T01:30:05+01:00] [ERROR] [one.two] " +
                                           std::to_string(kSevError.m_dwImportance) + ": c");
    const LogSeverity lessImportantError(kSevError.m_nType, kSevError.m_dwImportance - 1);
    EXPECT_EQ(render(lessImportantError, L"d"), "[2026-03-29T01:30:05+01:00] [ERROR] [one.two] " +
                                                    std::to_string(kSevError.m_dwImportance - 1) +
                                                    ": d");
    m_state.pushSource(*m_three);
    EXPECT_EQ(render(kSevInfo, L"e"),
              "[2026-03-29T01:30:05+01:00] [NOTIFICATION] [one.two.three] " + info + ": e");
    m_state.popSource();
    // Berlin moves to summer time at 01:00 UTC: the same clock shows 03:00:00+02:00.
    g_tMovingNow = kFixedTime + 1795;
    EXPECT_EQ(render(kSevInfo, L"f"),
              "[2026-03-29T03:00:00+02:00] [NOTIFICATION] [one.two] " + info + ": f");
    TimeZone utc = TimeZone::utc();
    TmLogger::setTimeZone(utc);
    EXPECT_EQ(render(kSevInfo, L"g"),
              "[2026-03-29T01:00:00+00:00] [NOTIFICATION] [one.two] " + info + ": g");
    SetUpTestSuite();
}

TEST_F(MessageWriterTest, TwoWritersOnOneThreadKeepTheirOwnLineHeads) {
    const auto compile = [](const char* pszFormat) {
        return MessageWriterFactory<RecordBuffer, Utf8InPlaceAdaptor>::compile(
            XmlDocument::parseString(std::string_view(pszFormat)).getDocumentElement());
    };
    // Three writers: more than the cache has entries, so some share one and take turns.
    const auto hFirst = compile("<Format>1 [<CurrentLogSource/>] <MessageText/></Format>");
    const auto hSecond = compile("<Format>2 &lt;<MsgType/>&gt; <MessageText/></Format>");
    const auto hXml = compile(
        "<Format encoding='Xml'><![CDATA[<]]><CurrentLogSource/><![CDATA[>]]> <MessageText/>"
        "</Format>");
    m_state.pushSource(*m_two);
    for (int nRound = 0; nRound < 3; ++nRound) {
        for (const auto* pWriter : {&hFirst, &hSecond, &hXml}) {
            RecordBuffer record;
            (*pWriter)->msg_log(kSevInfo, GDString(L"m"), m_state, nullptr, &record);
            const std::string line(record.data(), record.size());
            if (pWriter == &hFirst) {
                EXPECT_EQ(line, "1 [one.two] m");
            } else if (pWriter == &hSecond) {
                EXPECT_EQ(line, "2 <NOTIFICATION> m");
            } else {
                EXPECT_EQ(line, "<one.two> m");
            }
        }
    }
}

TEST_F(MessageWriterTest, AHeadTooLongToKeepIsRenderedEveryTime) {
    const std::string strLong(logger_details::LineHeadCache::kMaxBytes + 10, 'x');
    const auto hRecord = MessageWriterFactory<RecordBuffer, Utf8InPlaceAdaptor>::compile(
        XmlDocument::parseString("<Format>" + strLong +
                                 "[<CurrentLogSource/>] <MessageText/></Format>")
            .getDocumentElement());
    for (const auto* pSource : {&m_one, &m_two, &m_two, &m_one}) {
        m_state.pushSource(**pSource);
        RecordBuffer record;
        hRecord->msg_log(kSevInfo, GDString(L"m"), m_state, nullptr, &record);
        EXPECT_EQ(std::string(record.data(), record.size()),
                  strLong + "[" + toUtf8((*pSource)->getPath().view()).std() + "] m");
        m_state.popSource();
    }
}

TEST_F(MessageWriterTest, ReservedPropertiesShowOnlyThroughTheirOwnRecord) {
    auto hList = writerFor(
        "<Format><Properties><ListElementFormat><PropertyName/>=<PropertyValues/>"
        "</ListElementFormat><Separator>;</Separator></Properties></Format>");
    auto hEcid =
        writerFor("<Format><Property name='ecid'>ecid:<PropertyValues/></Property></Format>");
    m_state.pushProperty(String(L"ecid"), GDString(L"E1,R1"), 0xF0000000u);
    EXPECT_TRUE(render(hList, kSevError, GDString(L"")).empty());
    EXPECT_TRUE(render(hEcid, kSevError, GDString(L"")).equals(L"ecid:E1,R1"));
}

TEST_F(MessageWriterTest, SeparatorStillPrecedesAPropertyAfterAReservedFirstOne) {
    auto hList = writerFor(
        "<Format><Properties><ListElementFormat><PropertyName/></ListElementFormat>"
        "<Separator>;</Separator></Properties></Format>");
    m_state.pushProperty(String(L"userId"), GDString(L"ann"), 100);
    m_state.pushProperty(String(L"custom"), GDString(L"x"), 100);
    const String text = render(hList, kSevError, GDString(L""));
    // Only "custom" is written. It is preceded by the separator exactly when the reserved
    // property took part before it in the map's own order.
    const auto reservedComesFirst = [this] {
        return m_state.propertiesMap().begin()->first.equals(L"userId");
    };
    EXPECT_TRUE(text.equals(reservedComesFirst() ? L";custom" : L"custom"))
        << toUtf8(text.view()).c_str();
    // With two written properties: one separator between them, and one more before the first
    // of them when the reserved property came first.
    m_state.pushProperty(String(L"other"), GDString(L"y"), 100);
    const String both = render(hList, kSevError, GDString(L""));
    EXPECT_EQ(std::count(both.begin(), both.end(), L';'), reservedComesFirst() ? 2 : 1)
        << toUtf8(both.view()).c_str();
}

TEST_F(MessageWriterTest, PropertyThatIsNotSetRendersNothingAtAll) {
    auto hWriter =
        writerFor("<Format>a<Property name='nothere'>[<PropertyValues/>]</Property>b</Format>");
    EXPECT_TRUE(render(hWriter, kSevError, GDString(L"")).equals(L"ab"));
}

TEST_F(MessageWriterTest, BacktraceOnlyWhenTheLocationHasOne) {
    auto hWriter = writerFor("<Format>[<Backtrace/>]</Format>");
    const FileLocation plain(L"f.cpp", 1);
    const FileLocation traced(L"f.cpp", 1, L"frame1\nframe2");
    EXPECT_TRUE(render(hWriter, kSevError, GDString(L""), &plain).equals(L"[]"));
    EXPECT_TRUE(render(hWriter, kSevError, GDString(L""), &traced)
                    .equals(L"[\tBacktrace:\nframe1\nframe2\n]"));
}

TEST_F(MessageWriterTest, XmlFormatEscapesTheMessageButNotPropertyValues) {
    auto hWriter = writerFor(
        "<Format Encoding='Xml'>&lt;m&gt;<MessageText/>|<Property name='p'><PropertyValues/>"
        "</Property>|<CurrentLogSource/>|<MsgSeverity/></Format>");
    m_state.pushProperty(String(L"p"), GDString(L"a&b"), 100);
    const LogSourceHandle odd(String(L"xmlsrc.a&b"));
    m_state.pushSource(*odd);
    EXPECT_TRUE(render(hWriter, kSevError, GDString(L"x & y <z>"))
                    .equals(L"<m>x &amp; y &lt;z&gt;|a&b|xmlsrc.a&b|16"));
}

// ------------------------------------------------------------------------- JSON

TEST_F(MessageWriterTest, JsonFormatEscapesEveryValueButItsOwnText) {
    auto hWriter = writerFor(
        "<Format Encoding='Json'>{\"m\":\"<MessageText/>\",\"u\":\"<Property name='userId'>"
        "<PropertyValues><Separator>|</Separator></PropertyValues></Property>\",\"s\":\""
        "<CurrentLogSource/>\",\"t\":\"<MsgType/>\"<Properties><ListElementFormat>,\""
        "<PropertyName/>\":\"<PropertyValues/>\"</ListElementFormat></Properties>}</Format>");
    // userId is shown only through its own record, so the list holds the one other property.
    m_state.pushProperty(String(L"userId"), GDString(L"a\"b"), 100);
    m_state.pushProperty(String(L"userId"), GDString(L"c\\d\n"), 100);
    m_state.pushProperty(String(L"q\"uote"), GDString(L"\t"), 100);
    const LogSourceHandle odd(String(L"json\"src.a\\b"));
    m_state.pushSource(*odd);
    const GDString tmpl(L"said %1 in %2");
    const GDString quoted(L"\"hi\"\r\n");
    const GDString path(L"C:\\tmp\\");
    EXPECT_TRUE(render(hWriter, kSevError, ReferentialParameterizedMessage(tmpl, quoted, path))
                    .equals(L"{\"m\":\"said \\\"hi\\\"\\r\\n in C:\\\\tmp\\\\\","
                            L"\"u\":\"a\\\"b|c\\\\d\\n\",\"s\":\"json\\\"src.a\\\\b\","
                            L"\"t\":\"ERROR\",\"q\\\"uote\":\"\\t\"}"))
        << toUtf8(render(hWriter, kSevError, ReferentialParameterizedMessage(tmpl, quoted, path))
                      .view())
               .c_str();
}

TEST_F(MessageWriterTest, JsonFormatEscapesEveryControlCharacterOfAnInsert) {
    auto hWriter = writerFor("<Format Encoding='Json'>\"<MessageText/>\"</Format>");
    std::wstring controls;
    std::wstring expected = L"\"<";
    for (wchar_t c = 0; c < 0x20; ++c) {
        controls += c;
        switch (c) {
            case L'\b':
                expected += L"\\b";
                break;
            case L'\t':
                expected += L"\\t";
                break;
            case L'\n':
                expected += L"\\n";
                break;
            case L'\f':
                expected += L"\\f";
                break;
            case L'\r':
                expected += L"\\r";
                break;
            default: {
                wchar_t arrEscape[7];
                std::swprintf(arrEscape, 7, L"\\u%04x", static_cast<unsigned>(c));
                expected += arrEscape;
            }
        }
    }
    expected += L">\"";
    const GDString tmpl(L"<%1>");
    const GDString insert{String(controls)};
    const String text = render(hWriter, kSevError, ReferentialParameterizedMessage(tmpl, insert));
    EXPECT_EQ(text.std(), expected);
}

TEST_F(MessageWriterTest, JsonFormatKeepsCharactersBeyondTheBasicPlaneAndReplacesBrokenText) {
    auto hWriter = writerFor("<Format Encoding='Json'><MessageText/></Format>");
    const GDString tmpl(L"%1|%2|%3");
    const GDString emoji(L"\U0001F600\U00010348");
    // Malformed UTF-8 decodes to U+FFFD; a lone surrogate in wide text is not a character either.
    const GDString badUtf8(
        fromUtf8("a\xFF\xC3"
                 "b\xED\xA0\x80"));
    const wchar_t arrLone[] = {L'x', static_cast<wchar_t>(0xDC00), L'y'};
    const GDString lone{String(arrLone, 3)};
    const String text =
        render(hWriter, kSevError, ReferentialParameterizedMessage(tmpl, emoji, badUtf8, lone));
    EXPECT_EQ(toUtf8(text.view()).std(),
              "\xF0\x9F\x98\x80\xF0\x90\x8D\x88|a\xEF\xBF\xBD\xEF\xBF\xBD"
              "b\xEF\xBF\xBD|x\xEF\xBF\xBDy");
    // The replacement is the escaping's own, not only the UTF-8 conversion's.
    EXPECT_EQ(text[text.size() - 2], kReplacementChar);
}

TEST_F(MessageWriterTest, PropertyWhenEmptyOmitLeavesOutAPropertyWithoutText) {
    auto hWriter = writerFor(
        "<Format>a<Property name='p' whenEmpty='omit'>[<PropertyValues/>]</Property>"
        "<Property name='q'>(<PropertyValues/>)</Property>b</Format>");
    m_state.pushProperty(String(L"p"), GDString(L""), 100);
    m_state.pushProperty(String(L"q"), GDString(L""), 100);
    EXPECT_TRUE(render(hWriter, kSevError, GDString(L"")).equals(L"a()b"));
    // A value that is only a null character is as empty as the text it shows.
    m_state.popProperty(String(L"p"));
    m_state.pushProperty(String(L"p"), GDString(String(L"\0z", 2)), 100);
    EXPECT_TRUE(render(hWriter, kSevError, GDString(L"")).equals(L"a()b"));
    // One value with text is enough: all of them are shown.
    m_state.pushProperty(String(L"p"), GDString(L"v"), 100);
    EXPECT_TRUE(render(hWriter, kSevError, GDString(L"")).equals(L"a[v]()b"));
}

TEST_F(MessageWriterTest, JsonRenderingAllocatesNothingInSteadyState) {
    const XmlElement* pJson = builtInFormat(L"JSON");
    ASSERT_NE(pJson, nullptr);
    auto hWriter = writerFor(*pJson);
    m_state.pushSource(*m_two);
    m_state.pushProperty(String(L"custom"), GDString(L"v\"w"), 100);
    m_state.pushProperty(String(L"ecid"), GDString(L""), 0xF0000000u);
    const GDString tmpl(L"user %1 got %2");
    const GDString user(L"\"ann\"\n");
    const GDUInteger64 count(3);
    const FileLocation location(L"/src/project/weblogger/a.cpp", 7);
    StringBufferTemplate<1024, wchar_t> out;
    hWriter->msg_log(kSevError, ReferentialParameterizedMessage(tmpl, user, count), m_state,
                     &location, &out);
    test::AllocationScope scope;
    for (int i = 0; i < 100; ++i) {
        out.clear();
        hWriter->msg_log(kSevError, ReferentialParameterizedMessage(tmpl, user, count), m_state,
                         &location, &out);
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_NE(out.view().find(L"\"message\":\"user \\\"ann\\\"\\n got 3\"}"),
              std::wstring_view::npos)
        << toUtf8(out.view()).c_str();
}

TEST_F(MessageWriterTest, FileLineAndSeverityPieces) {
    auto hWriter =
        writerFor("<Format><File/>|<File style='Short'/>|<Line/>|<MsgSeverity/></Format>");
    const FileLocation location(L"/build/x/project/weblogger/logfile.cpp", 42);
    EXPECT_TRUE(render(hWriter, kSevErrorCritical, GDString(L""), &location)
                    .equals(L"weblogger/logfile.cpp|logfile.cpp|42|10"));
}

TEST_F(MessageWriterTest, FileWithoutLocationIsReported) {
    AssertionCapture capture;
    auto hWriter = writerFor("<Format>[<File/>]</Format>");
    EXPECT_TRUE(render(hWriter, kSevError, GDString(L"")).equals(L"[]"));
    EXPECT_TRUE(capture.contains("pFileLocation != __null"));
}

TEST_F(MessageWriterTest, PropertyPartsAtTopLevelAreReportedAndSkipped) {
    AssertionCapture capture;
    auto hWriter = writerFor("<Format>a<PropertyName/>b<PropertyValues/>c</Format>");
    EXPECT_TRUE(render(hWriter, kSevError, GDString(L"")).equals(L"abc"));
    EXPECT_EQ(capture.expressions(), (std::vector<std::string>{"false", "false"}));
}

TEST_F(MessageWriterTest, MessageTypeBeyondTheTableIsWrittenAsANumber) {
    auto hWriter = writerFor("<Format><MsgType/></Format>");
    EXPECT_TRUE(render(hWriter, LogSeverity(static_cast<LogSeverity::MsgType>(7), 1), GDString(L""))
                    .equals(L"7"));
}

TEST_F(MessageWriterTest, UnknownEncodingGivesNoWriter) {
    AssertionCapture capture;
    CompiledMsgFormat format;
    format.m_Encoding = static_cast<CompiledMsgFormat::Encoding>(5);
    EXPECT_TRUE(WideFactory::createMessageWriter(&format, false).isNull());
    EXPECT_TRUE(capture.contains("false"));
}

TEST_F(MessageWriterTest, PropertyValueIsCutAtItsFirstNullCharacter) {
    auto hWriter = writerFor("<Format><Property name='p'><PropertyValues/></Property></Format>");
    const wchar_t arrText[] = {L'a', L'b', 0, L'c'};
    m_state.pushProperty(String(L"p"), GDString(String(arrText, 4)), 100);
    EXPECT_TRUE(render(hWriter, kSevError, GDString(L"")).equals(L"ab"));
}

TEST_F(MessageWriterTest, TimeStampsUseTheLoggingZoneAndTheInjectedClock) {
    auto hWriter = writerFor("<Format><Time/>|<Time style='KLFTimeFormat'/></Format>");
    EXPECT_TRUE(render(hWriter, kSevError, GDString(L""))
                    .equals(L"2026-03-29 01:30:05 CET|2026-03-29T01:30:05+01:00"));
}

TEST_F(MessageWriterTest, RenderingAllocatesNothingInSteadyState) {
    auto hWriter = writerFor(
        "<Format><Time/> <MsgType style='short'/><MsgSeverity/>\t<CurrentLogSource/>\t"
        "<MessageText/> <Properties><ListElementFormat><PropertyName/>=<PropertyValues/>"
        "</ListElementFormat></Properties></Format>");
    m_state.pushSource(*m_two);
    m_state.pushProperty(String(L"custom"), GDString(L"v"), 100);
    const GDString tmpl(L"user %1 got %2");
    const GDString user(L"ann");
    const GDUInteger64 count(3);
    StringBufferTemplate<1024, wchar_t> out;
    hWriter->msg_log(kSevError, ReferentialParameterizedMessage(tmpl, user, count), m_state,
                     nullptr, &out);
    test::AllocationScope scope;
    for (int i = 0; i < 100; ++i) {
        out.clear();
        hWriter->msg_log(kSevError, ReferentialParameterizedMessage(tmpl, user, count), m_state,
                         nullptr, &out);
    }
    EXPECT_EQ(scope.count(), 0u);
}

// ------------------------------------------------------------------------- golden texts

// The fixed message every golden text renders: sources one, two, three; properties userId,
// ThreadID, ecid and a custom one; a file location with or without a backtrace.
class GoldenTest : public MessageWriterTest {
protected:
    void SetUp() override {
        m_state.pushSource(*m_one);
        m_state.pushSource(*m_two);
        m_state.pushSource(*m_three);
        m_state.pushProperty(String(L"userId"), GDString(L"ann"), 100);
        m_state.pushProperty(String(L"ThreadID"), GDUInteger64(4242), 100);
        m_state.pushProperty(String(L"ecid"), GDString(L"0af3,1"), 0xF0000000u);
        m_state.pushProperty(String(L"custom"), GDString(L"first"), 100);
        m_state.pushProperty(String(L"custom"), GDString(L"second"), 100);
    }

    static const XmlElement* findFormat(const XmlElement* pRoot, const String& name) {
        for (const XmlElement* p : pRoot->selectElements(L"Format")) {
            if (p->getAttributeValue(L"name").equals(name)) {
                return p;
            }
        }
        return nullptr;
    }

    // Renders with and without a backtrace, as UTF-8.
    std::string renderBoth(const XmlElement& formatElement) {
        auto* pFormat = new CompiledMsgFormat;
        MessageFormatLoader::loadFormat(*pFormat, formatElement, CompiledMsgFormat::kEncodingPlain);
        auto hWriter = WideFactory::createMessageWriter(pFormat, true);
        const ReferentialParameterizedMessage message(m_template, m_user, m_items);
        const FileLocation plain(L"/build/main/project/weblogger/server.cpp", 120);
        const FileLocation traced(L"/build/main/project/weblogger/server.cpp", 120,
                                  L"#0 handle()\n#1 main()");
        StringBufferTemplate<4096, wchar_t> out;
        hWriter->msg_log(kSevWarning, message, m_state, &plain, &out);
        hWriter->msg_log(kSevError, message, m_state, &traced, &out);
        return toUtf8(out.view()).std();
    }

    static std::string goldenPath(const std::string& name) {
        return std::string(WEBLOGGER_TEST_DATA_DIR) + "/golden/" + name + ".txt";
    }

    void compareWithGolden(const std::string& name, const std::string& actual) {
        const std::string strPath = goldenPath(name);
        if (std::getenv("WEBLOGGER_UPDATE_GOLDEN") != nullptr) {
            std::ofstream(strPath, std::ios::binary) << actual;
        }
        std::ifstream in(strPath, std::ios::binary);
        ASSERT_TRUE(in.good()) << "missing " << strPath;
        std::stringstream expected;
        expected << in.rdbuf();
        EXPECT_EQ(actual, expected.str()) << name;
    }

    const GDString m_template{L"user %1 asked for %2 & more"};
    const GDString m_user{L"ann"};
    const GDUInteger64 m_items{3};
};

TEST_F(GoldenTest, BuiltInFormatsRenderTheirGoldenText) {
    for (const char* pszName : {"Default", "Short", "xml", "KLF-XML", "KLF-Text", "JSON"}) {
        const XmlElement* pFormat =
            findFormat(MessageFormatLoader::getFallbackLoggerFormats(), fromUtf8(pszName));
        ASSERT_NE(pFormat, nullptr) << pszName;
        compareWithGolden(std::string("builtin-") + pszName, renderBoth(*pFormat));
    }
}

TEST_F(GoldenTest, CatalogueFormatsRenderTheirGoldenText) {
    for (const char* pszName : {"Default", "Short", "xml"}) {
        const XmlElement* pFormat =
            findFormat(kmsgLogFormats.getStructuredContent(), fromUtf8(pszName));
        ASSERT_NE(pFormat, nullptr) << pszName;
        compareWithGolden(std::string("catalogue-") + pszName, renderBoth(*pFormat));
    }
}

TEST_F(GoldenTest, XmlFormatsProduceWellFormedXml) {
    for (const char* pszName : {"xml", "KLF-XML"}) {
        const std::string text = renderBoth(
            *findFormat(MessageFormatLoader::getFallbackLoggerFormats(), fromUtf8(pszName)));
        // Two messages one after the other: wrap them so they form one document.
        const std::string document = "<messages>" + text + "</messages>";
        EXPECT_NO_THROW(XmlDocument::parseString(std::string_view(document))) << pszName;
    }
    const std::string catalogue =
        renderBoth(*findFormat(kmsgLogFormats.getStructuredContent(), String(L"xml")));
    EXPECT_NO_THROW(XmlDocument::parseString(std::string_view("<m>" + catalogue + "</m>")));
}

}  // namespace
}  // namespace kiv

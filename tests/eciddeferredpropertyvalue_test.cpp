// The "ecid" property: a deferred value that shows the rendering thread's ECID, against the
// real context-monitoring client.
#include "weblogger/eciddeferredpropertyvalue.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>
#include <thread>

#include "support/alloc_counter.h"
#include "support/ctm_client.h"
#include "support/klf_writer.h"
#include "weblogger/commonseverities.h"
#include "weblogger/executioncontext.h"
#include "weblogger/internal/messagewriter_impl.h"
#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/clock.h"
#include "zq/webkeel/encoding.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/configreader.h"
#include "zq/webutil/ctmwrapper.h"

namespace kiv {
namespace {

using logger::ExecutionContext;
using logger_details::ECIDLogDeferredPropertyValue;
using test::KlfTextWriter;

constexpr short kWriterId = 8;

std::string currentEcid() {
    return toUtf8(ExecutionContext::getCurrentECID().view()).std();
}

std::string textOf(const GDValue& value) {
    return toUtf8(value.toString().view()).std();
}

class EcidPropertyTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(performance::CTMWrapper::initialize(test::ctmLibraryPath()));
        ExecutionContext::reloadConfig(ConfigReader::parseString(
            "<Server><ExecutionContext><Enable>true</Enable></ExecutionContext></Server>"));
        const_cast<LogSource&>(*lsUnspecified)
            .getLogFilter()
            .setLogLevelsForId(kWriterId, LogLevels(65534, 65534, 65534, 65534, 65534));
    }
};

TEST_F(EcidPropertyTest, ALineShowsTheEcidOfTheThreadAtTheMomentItIsRendered) {
    std::thread([] {
        TmLogger& logger = TmLogger::getLogger();
        Handle<KlfTextWriter> hWriter(new KlfTextWriter(kWriterId, LogWriter::WT_SINGLE_THREADED));
        logger.addLocalWriter(hWriter.get());
        const auto& map = logger.getLoggerState().propertiesMap();
        const GDValue* pValueBefore =
            map.find(ksExecutionContextIDLogPropName)->second[0].first.get();

        logger.logMessage(kSevError, GDString(L"before any context"));
        ASSERT_TRUE(ExecutionContext::createContext());
        logger.logMessage(kSevError, GDString(L"inside the first"));
        ASSERT_TRUE(ExecutionContext::createContext());
        const std::string strSecond = currentEcid();
        logger.logMessage(kSevError, GDString(L"inside the second"));

        const auto vecLines = hWriter->lines();
        ASSERT_EQ(vecLines.size(), 3u);
        EXPECT_EQ(KlfTextWriter::ecidOf(vecLines[0]), "");
        EXPECT_EQ(KlfTextWriter::ecidOf(vecLines[1]).size(), 49u);
        EXPECT_NE(KlfTextWriter::ecidOf(vecLines[1]), strSecond);
        EXPECT_EQ(KlfTextWriter::ecidOf(vecLines[2]), strSecond);
        // The logger itself did not change: the same single value, made when it was.
        ASSERT_EQ(map.size(), 1u);
        EXPECT_EQ(map.find(ksExecutionContextIDLogPropName)->second.size(), 1u);
        EXPECT_EQ(map.find(ksExecutionContextIDLogPropName)->second[0].first.get(), pValueBefore);
        logger.clearLocalWriters();
    }).join();
}

TEST_F(EcidPropertyTest, CopiesOfTheValueRenderLikeTheOriginal) {
    ASSERT_TRUE(ExecutionContext::createContext());
    const ECIDLogDeferredPropertyValue original;
    const std::string strExpected = currentEcid();
    ASSERT_EQ(textOf(original), strExpected);

    GDValue* pClone = original.clone();
    EXPECT_EQ(textOf(*pClone), strExpected);
    delete pClone;

    alignas(std::max_align_t) unsigned char arrMemory[64];
    const unsigned nSize = original.placementClone(arrMemory, sizeof(arrMemory));
    ASSERT_EQ(nSize, sizeof(ECIDLogDeferredPropertyValue));
    const auto* pPlaced = std::launder(reinterpret_cast<GDValue*>(arrMemory));
    EXPECT_EQ(textOf(*pPlaced), strExpected);
    pPlaced->~GDValue();

    const GDVariant variant(original);
    const GDVariant copied(variant);  // as a property stack copies its values
    EXPECT_TRUE(copied.isInline());
    EXPECT_EQ(textOf(*copied), strExpected);

    // The copies follow the thread's context, as the original does.
    ASSERT_TRUE(ExecutionContext::createContext());
    EXPECT_NE(currentEcid(), strExpected);
    EXPECT_EQ(textOf(*copied), currentEcid());
}

TEST_F(EcidPropertyTest, APlacementCloneIntoTooLittleMemoryBuildsNothing) {
    const ECIDLogDeferredPropertyValue original;
    alignas(std::max_align_t) unsigned char arrMemory[64] = {};
    EXPECT_EQ(original.placementClone(arrMemory, sizeof(ECIDLogDeferredPropertyValue) - 1), 0u);
    for (const unsigned char c : arrMemory) {
        EXPECT_EQ(c, 0);
    }
}

TEST_F(EcidPropertyTest, BufferizeAppendsTheEcidForTextAndXmlAlikeAndNothingWhenEmpty) {
    const ECIDLogDeferredPropertyValue value;
    std::thread([&] {
        StringBufferTemplate<64, wchar_t> buffer;
        buffer.append(std::wstring_view(L"["));
        EXPECT_EQ(value.bufferize(buffer, TextMessageBase::kText), 0);
        EXPECT_EQ(buffer.view(), L"[");
        ASSERT_TRUE(ExecutionContext::createContext());
        EXPECT_EQ(value.bufferize(buffer, TextMessageBase::kXml), 0);
        EXPECT_EQ(value.bufferize(buffer, TextMessageBase::kText), 0);
        const std::wstring strEcid(ExecutionContext::getCurrentECID().view());
        EXPECT_EQ(buffer.view(), L"[" + strEcid + strEcid);
    }).join();
}

TEST_F(EcidPropertyTest, ACopiedLoggerStateKeepsTheNameButNotTheDeferredValue) {
    LoggerState state;
    state.pushProperty(ksExecutionContextIDLogPropName, ECIDLogDeferredPropertyValue(),
                       0xF0000000u);
    state.pushProperty(String(L"userId"), GDString(L"ann"), 3);
    const LoggerState copy(state);
    const auto& map = copy.propertiesMap();
    ASSERT_NE(map.find(ksExecutionContextIDLogPropName), map.end());
    EXPECT_TRUE(map.find(ksExecutionContextIDLogPropName)->second.empty());
    ASSERT_EQ(map.find(String(L"userId"))->second.size(), 1u);
    EXPECT_EQ(textOf(*map.find(String(L"userId"))->second[0].first), "ann");
}

TEST_F(EcidPropertyTest, RenderingALineWithAnEcidAllocatesNothing) {
    using WideBuffer = StringBufferBaseTemplate<wchar_t>;
    auto* pFormat = new CompiledMsgFormat;
    MessageFormatLoader::loadFormat(*pFormat, *KlfTextWriter::klfTextElement(),
                                    CompiledMsgFormat::kEncodingPlain);
    const auto hWriter = KlfTextWriter::Factory::createMessageWriter(pFormat, true);
    ASSERT_TRUE(ExecutionContext::createContext());
    const LoggerState& state = TmLogger::getLogger().getLoggerState();
    LoggerState withSource(state);
    withSource.pushSource(*lsUnspecified);
    withSource.pushProperty(ksExecutionContextIDLogPropName, ECIDLogDeferredPropertyValue(),
                            0xF0000000u);
    const GDString message(L"request served");
    const FileLocation here(L"eciddeferredpropertyvalue_test.cpp", 1);
    StringBufferTemplate<2048, wchar_t> out;
    hWriter->msg_log(kSevError, message, withSource, &here, &out);  // warms the time stamp

    const test::AllocationScope scope;
    for (int i = 0; i < 100; ++i) {
        static_cast<WideBuffer&>(out).clear();
        hWriter->msg_log(kSevError, message, withSource, &here, &out);
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(KlfTextWriter::ecidOf(toUtf8(out.view()).std()), currentEcid());
}

TEST_F(EcidPropertyTest, TheValueHandsOutTheThreadsEcidAsTextAndAsUtf8) {
    std::thread([] {
        const ECIDLogDeferredPropertyValue value;
        std::wstring_view text;
        std::string_view bytes;
        // A thread that never had a context: empty, in both forms.
        ASSERT_TRUE(value.readyUtf8(bytes));
        EXPECT_TRUE(bytes.empty());
        ASSERT_TRUE(value.readyText(text));
        EXPECT_TRUE(text.empty());

        ASSERT_TRUE(ExecutionContext::createContext());
        const std::string strFirst = currentEcid();
        ASSERT_EQ(strFirst.size(), 49u);
        ASSERT_TRUE(value.readyText(text));
        ASSERT_TRUE(value.readyUtf8(bytes));
        EXPECT_EQ(text, ExecutionContext::getCurrentECID().view());
        EXPECT_EQ(std::string(bytes), strFirst);

        // Both forms follow the thread's context.
        ASSERT_TRUE(ExecutionContext::createContext());
        ASSERT_TRUE(value.readyUtf8(bytes));
        EXPECT_NE(std::string(bytes), strFirst);
        EXPECT_EQ(std::string(bytes), currentEcid());
        ASSERT_TRUE(value.readyText(text));
        EXPECT_EQ(toUtf8(text).std(), currentEcid());
    }).join();
}

TEST_F(EcidPropertyTest, ALineWrittenAsUtf8CopiesTheEcidAndMatchesTheWideLine) {
    struct Utf8Bytes {
        void write(const void* p, unsigned long n) { text.append(static_cast<const char*>(p), n); }
        std::string text;
    };
    using Utf8Factory = MessageWriterFactory<
        Utf8Bytes, EncodingAdapter<StreamWriterAdapter<Utf8Bytes, char>, T2NEncodingUTF8<wchar_t>>>;
    auto* pWideFormat = new CompiledMsgFormat;
    MessageFormatLoader::loadFormat(*pWideFormat, *KlfTextWriter::klfTextElement(),
                                    CompiledMsgFormat::kEncodingPlain);
    const auto hWide = KlfTextWriter::Factory::createMessageWriter(pWideFormat, true);
    auto* pUtf8Format = new CompiledMsgFormat;
    MessageFormatLoader::loadFormat(*pUtf8Format, *KlfTextWriter::klfTextElement(),
                                    CompiledMsgFormat::kEncodingPlain);
    const auto hUtf8 = Utf8Factory::createMessageWriter(pUtf8Format, true);
    // One second for both renderings, so that the two lines can be compared whole.
    const clock::ScopedWallClock fixedSecond(+[]() noexcept -> std::time_t { return 1774744205; });
    std::thread([&] {
        const LoggerState& state = TmLogger::getLogger().getLoggerState();
        const FileLocation here(L"eciddeferredpropertyvalue_test.cpp", 1);
        const GDString message(L"served");
        const auto renderBoth = [&](std::string& strWide, std::string& strUtf8) {
            StringBufferTemplate<2048, wchar_t> wide;
            hWide->msg_log(kSevError, message, state, &here, &wide);
            strWide = toUtf8(wide.view()).std();
            Utf8Bytes utf8;
            utf8.text.reserve(2048);
            const test::AllocationScope scope;
            hUtf8->msg_log(kSevError, message, state, &here, &utf8);
            EXPECT_EQ(scope.count(), 0u);
            strUtf8 = utf8.text;
        };
        std::string strWide;
        std::string strUtf8;
        renderBoth(strWide, strUtf8);
        EXPECT_EQ(KlfTextWriter::ecidOf(strUtf8), "");
        ASSERT_TRUE(ExecutionContext::createContext());
        renderBoth(strWide, strUtf8);
        // The same line, with the thread's ECID, however the writer reached it.
        EXPECT_EQ(strUtf8, strWide);
        EXPECT_EQ(KlfTextWriter::ecidOf(strUtf8), currentEcid());
    }).join();
}

TEST_F(EcidPropertyTest, TheJsonFormatShowsTheEcidOnlyWhileTheThreadHasAContext) {
    const XmlElement* pJson = nullptr;
    for (const XmlElement* p :
         MessageFormatLoader::getFallbackLoggerFormats()->selectElements(L"Format")) {
        if (p->getAttributeValue(L"name").equals(L"JSON")) {
            pJson = p;
        }
    }
    ASSERT_NE(pJson, nullptr);
    auto* pFormat = new CompiledMsgFormat;
    MessageFormatLoader::loadFormat(*pFormat, *pJson, CompiledMsgFormat::kEncodingPlain);
    const auto hWriter = KlfTextWriter::Factory::createMessageWriter(pFormat, true);
    std::thread([&] {
        // The logger's own state: the "ecid" property is there from the start.
        const LoggerState& state = TmLogger::getLogger().getLoggerState();
        const FileLocation here(L"eciddeferredpropertyvalue_test.cpp", 1);
        const auto render = [&] {
            StringBufferTemplate<1024, wchar_t> out;
            hWriter->msg_log(kSevError, GDString(L"m"), state, &here, &out);
            return toUtf8(out.view()).std();
        };
        const std::string strWithout = render();
        EXPECT_EQ(strWithout.find("\"ecid\""), std::string::npos) << strWithout;
        EXPECT_NE(strWithout.find("\"source\":\"\",\"file\""), std::string::npos) << strWithout;
        ASSERT_TRUE(ExecutionContext::createContext());
        const std::string strWith = render();
        EXPECT_NE(strWith.find("\"source\":\"\",\"ecid\":\"" + currentEcid() + "\",\"file\""),
                  std::string::npos)
            << strWith;
    }).join();
}

std::size_t heapInUse() {
    return test::liveHeapBytes() + MemAllocNewdel::stats().nLiveBytes;
}

TEST_F(EcidPropertyTest, ThousandThreadsWithAContextLeaveNoCacheBehind) {
    const auto oneRequest = [] {
        ExecutionContext::createContext();
        TmLogger::getLogger().logMessage(kSevError, GDString(L"once"));
        ExecutionContext::clearContext();
    };
    std::thread(oneRequest).join();  // warms everything process-wide

    std::size_t nCacheBytes = 0;
    std::thread([&] {
        TmLogger::getLogger();
        const std::size_t nBefore = heapInUse();
        ExecutionContext::createContext();
        nCacheBytes = heapInUse() - nBefore;
    }).join();
    std::printf("heap held by one thread's execution context cache: %zu bytes\n", nCacheBytes);
    EXPECT_GT(nCacheBytes, 0u);  // the measurement sees the cache at all

    const std::size_t nBefore = heapInUse();
    for (int i = 0; i < 1000; ++i) {
        std::thread(oneRequest).join();
    }
    const std::size_t nAfter = heapInUse();
    std::printf("heap in use before 1000 threads with a context: %zu, after: %zu\n", nBefore,
                nAfter);
    EXPECT_EQ(nAfter, nBefore);
}

}  // namespace
}  // namespace kiv

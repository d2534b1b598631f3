#include "weblogger/logwriter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "support/test_writer.h"
#include "weblogger/commonseverities.h"
#include "weblogger/loggermessages.h"
#include "weblogger/loggerstate.h"
#include "weblogger/logwritersman.h"
#include "zq/webkeel/gdvalue.h"

namespace kiv {
namespace {

using logger_details::LogWritersFactoryImpl;
using logger_details::LogWritersMan;
using test::RecordingWriter;

LogWritersMan& registry() {
    return LogWritersMan::getLogWritersMan();
}

bool isInGlobalList(const LogWriter* pWriter) {
    std::vector<Handle<LogWriter>> vecWriters;
    AtomicEntity<int> version;
    registry().getWriters(vecWriters, version);
    return std::any_of(vecWriters.begin(), vecWriters.end(),
                       [&](const Handle<LogWriter>& h) { return h.get() == pWriter; });
}

class LogWriterFactoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        registry().addLogWritersFactory(
            new LogWritersFactoryImpl<RecordingWriter>(String(L"RecordingWriter")));
        m_hFactory = registry().getLogWritersFactory(String(L"RecordingWriter"));
        ASSERT_FALSE(m_hFactory.isNull());
    }
    void TearDown() override {
        registry().removeLogWritersFactory(String(L"RecordingWriter"));
        registry().clearWriters();
    }

    // Parses a configuration and builds the chain [inner, outer] from the element paths.
    Handle<RecordingWriter> create(const char* pszXml, const wchar_t* pszWriterPath,
                                   std::initializer_list<const wchar_t*> chainPaths,
                                   LogWriter::WriterType type = LogWriter::WT_SHARED) {
        m_document = XmlDocument::parseString(std::string_view(pszXml));
        const XmlElement* pRoot = m_document.getDocumentElement();
        LogWritersFactory::ConfigChain chain;
        for (const wchar_t* pszPath : chainPaths) {
            chain.push_back(pRoot->selectSingleElement(pszPath));
        }
        Handle<LogWriter> hWriter =
            m_hFactory->create(pRoot->selectSingleElement(pszWriterPath), chain, type, nullptr);
        return Handle<RecordingWriter>(static_cast<RecordingWriter*>(hWriter.get()));
    }

    Handle<const LogWritersFactory> m_hFactory;
    XmlDocument m_document;
};

TEST_F(LogWriterFactoryTest, AbsentOrEmptyFmtNameSelectsDefault) {
    const char* pszXml =
        "<Logging><Format name='Other' id='o'/><Format name='Default' id='d'/>"
        "<Writers><Writer name='w1' writerClassId='3'/>"
        "<Writer name='w2' writerClassId='3' fmtName=''/></Writers></Logging>";
    auto hFirst = create(pszXml, L"Writers/Writer", {L""});
    ASSERT_FALSE(hFirst.isNull());
    EXPECT_TRUE(hFirst->formatId().equals(L"d"));
    EXPECT_TRUE(hFirst->getName().equals(L"w1"));
    EXPECT_EQ(hFirst->getClassId(), 3);
    EXPECT_TRUE(LogWritersFactory::strDefaultFmtName.equals(L"Default"));
}

TEST_F(LogWriterFactoryTest, FormatNameMatchesIgnoringCaseButElementNameExactly) {
    const char* pszXml =
        "<Logging><format name='Short' id='wrong-element'/><FORMAT name='Short' id='wrong2'/>"
        "<Format name='sHoRt' id='right'/>"
        "<Writer name='w' writerClassId='0' fmtName='Short'/></Logging>";
    auto hWriter = create(pszXml, L"Writer", {L""});
    ASSERT_FALSE(hWriter.isNull());
    EXPECT_TRUE(hWriter->formatId().equals(L"right"));
}

TEST_F(LogWriterFactoryTest, FirstElementOfTheChainWinsThenDocumentOrder) {
    const char* pszXml =
        "<Outer><Format name='F' id='outer'/>"
        "<Inner><Format name='F' id='inner-first'/><Format name='F' id='inner-second'/>"
        "<Writer name='w' writerClassId='1' fmtName='F'/></Inner></Outer>";
    auto hWriter = create(pszXml, L"Inner/Writer", {L"Inner", L""});
    ASSERT_FALSE(hWriter.isNull());
    EXPECT_TRUE(hWriter->formatId().equals(L"inner-first"));
    auto hOuterFirst = create(pszXml, L"Inner/Writer", {L"", L"Inner"});
    EXPECT_TRUE(hOuterFirst->formatId().equals(L"outer"));
}

TEST_F(LogWriterFactoryTest, UnknownFormatThrowsLogFormatNotFound) {
    const char* pszXml =
        "<L><Format name='Default'/><Writer name='w' writerClassId='1' "
        "fmtName='Foo'/></L>";
    try {
        create(pszXml, L"Writer", {L""});
        FAIL() << "no exception";
    } catch (const LogFormatNotFound& e) {
        EXPECT_TRUE(e.getFormatName().equals(L"Foo"));
        EXPECT_STREQ(e.what(),
                     "Failed to init log writer. The following log format is not found: Foo");
        EXPECT_NE(e.getLine(), 0u);
    }
}

TEST_F(LogWriterFactoryTest, MissingRequiredAttributesRaiseTheXmlLayersException) {
    EXPECT_THROW(
        create("<L><Format name='Default'/><Writer writerClassId='1'/></L>", L"Writer", {L""}),
        XmlException);
    EXPECT_THROW(create("<L><Format name='Default'/><Writer name='w'/></L>", L"Writer", {L""}),
                 XmlException);
}

TEST_F(LogWriterFactoryTest, ClassIdOutOfRangeIsReported) {
    for (const char* pszId : {"10", "-1"}) {
        AssertionCapture capture;
        const std::string strXml = std::string(
                                       "<L><Format name='Default'/><Writer name='w' "
                                       "writerClassId='") +
                                   pszId + "'/></L>";
        create(strXml.c_str(), L"Writer", {L""});
        EXPECT_TRUE(capture.contains("iClassId >=0 && iClassId<10")) << pszId;
    }
}

TEST_F(LogWriterFactoryTest, NonNumericClassIdIsZero) {
    AssertionCapture capture;
    auto hWriter = create("<L><Format name='Default'/><Writer name='w' writerClassId='abc'/></L>",
                          L"Writer", {L""});
    ASSERT_FALSE(hWriter.isNull());
    EXPECT_EQ(hWriter->getClassId(), 0);
    EXPECT_EQ(capture.count(), 0u);
}

TEST_F(LogWriterFactoryTest, NullOrNonElementConfigurationIsReported) {
    AssertionCapture capture;
    const LogWritersFactory::ConfigChain chain;
    EXPECT_TRUE(m_hFactory->create(nullptr, chain, LogWriter::WT_SHARED, nullptr).isNull());
    EXPECT_TRUE(capture.contains("pConfig != 0"));
    const XmlDocument document = XmlDocument::parseString(std::string_view("<L>text</L>"));
    const XmlNode* pText = document.getDocumentElement()->getFirstChild();
    EXPECT_TRUE(m_hFactory->create(pText, chain, LogWriter::WT_SHARED, nullptr).isNull());
    EXPECT_TRUE(capture.contains("pConfig->getType() == XmlNode::kTypeElement"));
}

TEST_F(LogWriterFactoryTest, GlobalWriterWhoseInitializeFailsStaysInTheGlobalList) {
    const char* pszXml =
        "<L><Format name='Default'/><Writer name='failing' writerClassId='2' fail='true'/></L>";
    auto hResult = create(pszXml, L"Writer", {L""}, LogWriter::WT_GLOBAL);
    EXPECT_TRUE(hResult.isNull());
    std::vector<Handle<LogWriter>> vecWriters;
    AtomicEntity<int> version;
    registry().getWriters(vecWriters, version);
    ASSERT_FALSE(vecWriters.empty());
    EXPECT_TRUE(vecWriters.back()->getName().equals(L"failing"));
    registry().removeLogWriter(vecWriters.back().get());
    EXPECT_FALSE(isInGlobalList(vecWriters.back().get()));
}

TEST_F(LogWriterFactoryTest, SecondFactoryUnderTheSameNameReplacesTheFirst) {
    struct OtherWriter : RecordingWriter {
        using RecordingWriter::RecordingWriter;
    };
    const LogWritersFactory* pSecond =
        new LogWritersFactoryImpl<OtherWriter>(String(L"RecordingWriter"));
    registry().addLogWritersFactory(pSecond);
    EXPECT_EQ(registry().getLogWritersFactory(String(L"RecordingWriter")).get(), pSecond);
    EXPECT_TRUE(registry().getLogWritersFactory(String(L"recordingwriter")).isNull());
}

TEST(LogWriterTest, ConstructorChecksIdSigned) {
    AssertionCapture capture;
    Handle<LogWriter> hNegative(
        new RecordingWriter(String(L"n"), -1, LogWriter::WT_SINGLE_THREADED, nullptr));
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_EQ(hNegative->getClassId(), -1);
    Handle<LogWriter> hTen(
        new RecordingWriter(String(L"t"), 10, LogWriter::WT_SINGLE_THREADED, nullptr));
    EXPECT_TRUE(capture.contains("id < 10"));
    EXPECT_EQ(hTen->getClassId(), 10);
}

TEST(LogWriterTest, LockOnlyForSharedAndGlobalWriters) {
    Handle<LogWriter> hSingle(
        new RecordingWriter(String(L"s"), 0, LogWriter::WT_SINGLE_THREADED, nullptr));
    Handle<LogWriter> hShared(new RecordingWriter(String(L"s"), 0, LogWriter::WT_SHARED, nullptr));
    EXPECT_FALSE(hSingle->getWriterSynchro().hasLock());
    EXPECT_TRUE(hShared->getWriterSynchro().hasLock());
    EXPECT_FALSE(isInGlobalList(hShared.get()));
    // A writer without a lock still writes.
    const LoggerState state;
    hSingle->logMessage(kSevError, GDString(L"no lock"), state, nullptr);
    const auto records = static_cast<RecordingWriter&>(*hSingle).records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_TRUE(records[0].text.equals(L"no lock"));
}

TEST(LogWriterTest, GlobalWriterEntersTheListFromItsConstructor) {
    const int nVersion = registry().getVersion();
    RecordingWriter* pWriter = new RecordingWriter(String(L"g"), 4, LogWriter::WT_GLOBAL, nullptr);
    EXPECT_TRUE(pWriter->getWriterSynchro().hasLock());
    EXPECT_EQ(pWriter->refCount(), 1);  // the registry's handle
    EXPECT_TRUE(isInGlobalList(pWriter));
    EXPECT_EQ(registry().getVersion(), nVersion);  // entering does not bump the version
    registry().removeLogWriter(pWriter);
}

TEST(LogWriterTest, EnabledFlagStartsTrue) {
    Handle<LogWriter> hWriter(
        new RecordingWriter(String(L"e"), 0, LogWriter::WT_SINGLE_THREADED, nullptr));
    EXPECT_TRUE(hWriter->isEnabled());
    hWriter->setIsEnabled(false);
    EXPECT_FALSE(hWriter->isEnabled());
    hWriter->setIsEnabled(true);
    EXPECT_TRUE(hWriter->isEnabled());
}

TEST(LogWritersManTest, RegistryIsAliveAndVersionsTellStaleCopies) {
    EXPECT_EQ(LogWritersMan::getState(), 1);
    std::vector<Handle<LogWriter>> vecCopy;
    AtomicEntity<int> version;
    registry().getWriters(vecCopy, version);
    EXPECT_TRUE(registry().isCurrent(version));
    registry().versionIncrement();
    EXPECT_FALSE(registry().isCurrent(version));
    registry().getWriters(vecCopy, version);
    EXPECT_TRUE(registry().isCurrent(version));
}

struct Counting : RecordingWriter {
    using RecordingWriter::RecordingWriter;
    ~Counting() override { ++s_nDestroyed; }
    static inline int s_nDestroyed = 0;
};

TEST(LogWritersManTest, ClearWritersReleasesTheRegistrysHandles) {
    new Counting(String(L"c1"), 1, LogWriter::WT_GLOBAL, nullptr);
    new Counting(String(L"c2"), 2, LogWriter::WT_GLOBAL, nullptr);
    EXPECT_EQ(Counting::s_nDestroyed, 0);
    registry().clearWriters();
    EXPECT_EQ(Counting::s_nDestroyed, 2);
}

TEST(LogWritersManTest, UnknownClassNameHasNoFactory) {
    EXPECT_TRUE(registry().getLogWritersFactory(String(L"NoSuchWriter")).isNull());
}

TEST(LogWriterDispatchGenerationTest, DisablingEnablingAndRetiringMoveIt) {
    using logger_details::DispatchGeneration;
    const Handle<test::RecordingWriter> hWriter(
        new test::RecordingWriter(String(L"switch"), 1, LogWriter::WT_SINGLE_THREADED, nullptr));
    std::uint64_t nBefore = DispatchGeneration::current();
    hWriter->setIsEnabled(false);
    EXPECT_GT(DispatchGeneration::current(), nBefore);
    nBefore = DispatchGeneration::current();
    hWriter->setIsEnabled(true);
    EXPECT_GT(DispatchGeneration::current(), nBefore);
    nBefore = DispatchGeneration::current();
    hWriter->retire();
    EXPECT_GT(DispatchGeneration::current(), nBefore);
}

TEST(LogWriterRefusalTest, OnlyTheRetiredWriterThatRefusedReportsItAndOnlyOnce) {
    const Handle<RecordingWriter> hRetired(
        new RecordingWriter(String(L"retired"), 1, LogWriter::WT_SINGLE_THREADED, nullptr));
    const Handle<RecordingWriter> hActive(
        new RecordingWriter(String(L"active"), 2, LogWriter::WT_SINGLE_THREADED, nullptr));
    hRetired->retire();
    const LoggerState state;
    hRetired->logMessage(kSevInfo, GDString(L"refused"), state, nullptr);
    hActive->logMessage(kSevInfo, GDString(L"taken"), state, nullptr);

    // The writer that took the message reports no refusal, whatever the thread's flag says.
    EXPECT_FALSE(hActive->refusedLastWrite());
    EXPECT_EQ(hActive->recordCount(), 1u);
    EXPECT_TRUE(hRetired->refusedLastWrite());
    EXPECT_FALSE(hRetired->refusedLastWrite());
    EXPECT_EQ(hRetired->recordCount(), 0u);
}

TEST(LogWriterRefusalTest, WriterRetiredAfterTakingTheMessageReportsNoRefusal) {
    const Handle<RecordingWriter> hWriter(
        new RecordingWriter(String(L"late"), 1, LogWriter::WT_SINGLE_THREADED, nullptr));
    const LoggerState state;
    hWriter->logMessage(kSevInfo, GDString(L"taken"), state, nullptr);
    hWriter->retire();

    EXPECT_FALSE(hWriter->refusedLastWrite());
    EXPECT_EQ(hWriter->recordCount(), 1u);
}

TEST(LogWriterRefusalTest, DisabledWriterThatIsNotRetiredRefusesNothingToHandOn) {
    const Handle<RecordingWriter> hWriter(
        new RecordingWriter(String(L"off"), 1, LogWriter::WT_SINGLE_THREADED, nullptr));
    hWriter->setIsEnabled(false);
    const LoggerState state;
    hWriter->logMessage(kSevInfo, GDString(L"dropped"), state, nullptr);

    EXPECT_FALSE(hWriter->refusedLastWrite());
    EXPECT_FALSE(LogWriter::takeWriteRefusal());
    EXPECT_EQ(hWriter->recordCount(), 0u);
}

}  // namespace
}  // namespace kiv

#include "weblogger/internal/crashwriter.h"

#include <gtest/gtest.h>

#include "support/writer_config.h"
#include "weblogger/loggermessages.h"
#include "zq/webkeel/assert.h"
#include "zq/webkeel/clock.h"

namespace kiv {
namespace {

using test::WriterConfig;

std::time_t frozenClock() noexcept {
    return 1700000000;
}

Handle<LogWriter> createCrashWriter(const std::string& attributes) {
    const WriterConfig config(
        "<Writer name='crash' writerClassId='4' implementation='CrashWriter' " + attributes + "/>");
    return config.create(L"CrashWriter");
}

const CrashWriter& asCrash(const Handle<LogWriter>& hWriter) {
    return static_cast<const CrashWriter&>(*hWriter);
}

TEST(CrashWriterTest, ReactsOnlyWhenFileAndLineBothMatch) {
    Handle<LogWriter> hWriter = createCrashWriter("file='src/server.cpp' line='120'");
    ASSERT_FALSE(hWriter.isNull());
    EXPECT_TRUE(asCrash(hWriter).getWhereToCrashFile().equals(L"src/server.cpp"));
    EXPECT_EQ(asCrash(hWriter).getLine(), 120u);
    const LoggerState state = test::stateWithSource(L"crash");
    const clock::ScopedWallClock frozen(&frozenClock);

    const FileLocation otherLine(L"src/server.cpp", 121);
    const FileLocation otherFile(L"src/client.cpp", 120);
    const FileLocation otherCase(L"src/Server.cpp", 120);
    hWriter->logMessage(kSevError, GDString(L"x"), state, &otherLine);
    hWriter->logMessage(kSevError, GDString(L"x"), state, &otherFile);
    hWriter->logMessage(kSevError, GDString(L"x"), state, &otherCase);
    hWriter->logMessage(kSevError, GDString(L"x"), state, nullptr);
    EXPECT_EQ(asCrash(hWriter).getReachedCount(), 0u);
    EXPECT_EQ(asCrash(hWriter).getLastReached(), 0);

    const FileLocation here(L"src/server.cpp", 120);
    hWriter->logMessage(kSevTraceFine, GDString(L"x"), state, &here);
    EXPECT_EQ(asCrash(hWriter).getReachedCount(), 1u);
    EXPECT_EQ(asCrash(hWriter).getLastReached(), frozenClock());
}

TEST(CrashWriterTest, AMatchHasNoVisibleEffect) {
    Handle<LogWriter> hWriter = createCrashWriter("file='a.cpp' line='7'");
    const LoggerState state = test::stateWithSource(L"crash");
    const FileLocation here(L"a.cpp", 7);
    AssertionCapture capture;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    hWriter->logMessage(kSevErrorFatal, GDString(L"boom"), state, &here);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(capture.count(), 0u);
    // The process is still here, the writer still enabled, and it keeps reacting.
    EXPECT_TRUE(hWriter->isEnabled());
    hWriter->logMessage(kSevErrorFatal, GDString(L"boom"), state, &here);
    EXPECT_EQ(asCrash(hWriter).getReachedCount(), 2u);
}

TEST(CrashWriterTest, MissingFileOrLineIsAConfigurationError) {
    try {
        createCrashWriter("line='7'");
        FAIL() << "no exception";
    } catch (const LogConfigurationException& e) {
        EXPECT_STREQ(e.what(),
                     "Failed to init log writer crash. Its Writer element needs the attribute "
                     "file.");
    }
    try {
        createCrashWriter("file='a.cpp'");
        FAIL() << "no exception";
    } catch (const LogConfigurationException& e) {
        EXPECT_STREQ(e.what(),
                     "Failed to init log writer crash. Its Writer element needs the attribute "
                     "line.");
    }
}

TEST(CrashWriterTest, LineThatIsNotANumberIsZero) {
    Handle<LogWriter> hWriter = createCrashWriter("file='a.cpp' line='seven'");
    EXPECT_EQ(asCrash(hWriter).getLine(), 0u);
    const FileLocation lineZero(L"a.cpp", 0);
    hWriter->logMessage(kSevError, GDString(L"x"), test::stateWithSource(L"crash"), &lineZero);
    EXPECT_EQ(asCrash(hWriter).getReachedCount(), 1u);
}

TEST(CrashWriterTest, RetiredTriggerIsNotReached) {
    Handle<LogWriter> hWriter = createCrashWriter("file='a.cpp' line='7'");
    const FileLocation here(L"a.cpp", 7);
    hWriter->retire();
    hWriter->logMessage(kSevError, GDString(L"x"), test::stateWithSource(L"crash"), &here);
    EXPECT_EQ(asCrash(hWriter).getReachedCount(), 0u);
    (void)LogWriter::takeWriteRefusal();
}

}  // namespace
}  // namespace kiv

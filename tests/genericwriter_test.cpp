#include "weblogger/internal/genericwriter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "support/temp_dir.h"
#include "support/writer_config.h"

namespace kiv {
namespace {

using test::readFile;
using test::TempDir;
using test::WriterConfig;

// Sends the process's standard output to a file for the life of the object.
class CapturedStdout {
public:
    explicit CapturedStdout(const std::string& path) {
        std::fflush(stdout);
        m_nSaved = ::dup(1);
        const int nFd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(nFd, 1);
        ::close(nFd);
    }
    ~CapturedStdout() {
        CoutStream::getCoutStream().flush();
        ::dup2(m_nSaved, 1);
        ::close(m_nSaved);
    }

private:
    int m_nSaved;
};

const char* const kConsoleWriter =
    "<Writer name='console' writerClassId='2' implementation='CoutWriter'/>";

TEST(CoutWriterTest, IsRegisteredAndWritesEachMessageAtOnce) {
    TempDir dir;
    const std::string strOut = dir.file("stdout.txt");
    const WriterConfig config(kConsoleWriter);
    Handle<LogWriter> hWriter = config.create(L"CoutWriter");
    ASSERT_FALSE(hWriter.isNull());
    const LoggerState state = test::stateWithSource(L"console");
    CapturedStdout capture(strOut);
    hWriter->logMessage(kSevError, GDString(L"first \u00FC"), state, nullptr);
    // Visible as soon as logMessage returns: nothing waits in a buffer.
    EXPECT_EQ(readFile(strOut), "first \xC3\xBC\n");
    hWriter->logMessage(kSevError, GDString(L"second"), state, nullptr);
    EXPECT_EQ(readFile(strOut), "first \xC3\xBC\nsecond\n");
}

TEST(CoutWriterTest, TwoWritersOnTwoThreadsWriteWholeMessages) {
    TempDir dir;
    const std::string strOut = dir.file("stdout.txt");
    const WriterConfig config(kConsoleWriter);
    Handle<LogWriter> hFirst = config.create(L"CoutWriter");
    // A single-threaded console writer has no lock of its own but still takes the console lock.
    Handle<LogWriter> hSecond = config.create(L"CoutWriter", LogWriter::WT_SINGLE_THREADED);
    ASSERT_FALSE(hSecond->getWriterSynchro().hasLock());
    constexpr int kMessages = 2000;
    {
        CapturedStdout capture(strOut);
        const auto run = [&](LogWriter& writer, wchar_t c) {
            const LoggerState state = test::stateWithSource(L"console");
            for (int i = 0; i < kMessages; ++i) {
                writer.logMessage(kSevError, GDString(String(300, c)), state, nullptr);
            }
        };
        std::thread a(run, std::ref(*hFirst), L'a');
        std::thread b(run, std::ref(*hSecond), L'b');
        a.join();
        b.join();
    }
    const std::string text = readFile(strOut);
    const std::string lineA = std::string(300, 'a') + "\n";
    const std::string lineB = std::string(300, 'b') + "\n";
    int nA = 0;
    int nB = 0;
    for (std::size_t nPos = 0; nPos < text.size(); nPos += 301) {
        const std::string line = text.substr(nPos, 301);
        nA += line == lineA;
        nB += line == lineB;
        ASSERT_TRUE(line == lineA || line == lineB) << "interleaved at byte " << nPos;
    }
    EXPECT_EQ(nA, kMessages);
    EXPECT_EQ(nB, kMessages);
}

TEST(CoutWriterTest, UserFormatWithJsonEncodingEscapesItsValues) {
    TempDir dir;
    const std::string strOut = dir.file("stdout.txt");
    const WriterConfig config(
        "<Writer name='console' writerClassId='2' implementation='CoutWriter' fmtName='j'/>",
        "<Formats><Format name='j' Encoding='Json'>{\"src\":\"<CurrentLogSource/>\","
        "\"msg\":\"<MessageText/>\"}<LineBreak/></Format></Formats>");
    Handle<LogWriter> hWriter = config.create(L"CoutWriter");
    ASSERT_FALSE(hWriter.isNull());
    const LoggerState state = test::stateWithSource(L"con\"sole");
    CapturedStdout capture(strOut);
    hWriter->logMessage(kSevError, GDString(L"a \"b\"\\\n\u0001 \U0001F600"), state, nullptr);
    EXPECT_EQ(readFile(strOut),
              "{\"src\":\"con\\\"sole\",\"msg\":\"a \\\"b\\\"\\\\\\n\\u0001 \xF0\x9F\x98\x80\"}\n");
}

TEST(GenericWriterTest, RendersIntoAnyStreamAndFlushes) {
    TempDir dir;
    const std::string strOut = dir.file("generic.txt");
    const int nFd = ::open(strOut.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    CoutStream stream(nFd);
    Handle<GenericWriter<CoutStream, HoopyAdaptor>> hWriter(
        new GenericWriter<CoutStream, HoopyAdaptor>(String(L"generic"), 1, LogWriter::WT_SHARED,
                                                    nullptr));
    const XmlDocument formats = XmlDocument::parseString(std::string_view(test::kLineFormats));
    ASSERT_TRUE(hWriter->initialize(nullptr, formats.getDocumentElement()->getFirstChildElement()));
    hWriter->setStream(&stream);
    hWriter->logMessage(kSevError, GDString(L"generic"), test::stateWithSource(L"generic"),
                        nullptr);
    EXPECT_EQ(readFile(strOut), "generic\n");
    ::close(nFd);
}

TEST(CoutWriterTest, WithoutMessageWriterLoggingRaisesTheInvalidHandleException) {
    Handle<LogWriter> hWriter(new CoutWriter(String(L"raw"), 1, LogWriter::WT_SHARED, nullptr));
    try {
        hWriter->logMessage(kSevError, GDString(L"x"), test::stateWithSource(L"raw"), nullptr);
        FAIL() << "no exception";
    } catch (const InvalidHandleException& e) {
        EXPECT_TRUE(e.getTypeName().equals(L"MessageWriter<CoutStream>"));
    }
}

}  // namespace
}  // namespace kiv

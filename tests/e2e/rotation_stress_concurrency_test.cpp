// Eight threads log 20,000 messages each through one file writer that rotates every 4 KB over
// a ring large enough to keep everything, and through two console writers. Afterwards every
// message must be present exactly once in the files and once per console writer, whole and
// never interleaved with another.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <thread>

#include "support/temp_dir.h"
#include "support/writer_config.h"
#include "weblogger/tmlogger.h"
#include "zq/webutil/coutstream.h"
#include "zq/webutil/message.h"

namespace kiv {
namespace {

using logger_details::LogWritersMan;

constexpr int kThreads = 8;
constexpr int kMessagesPerThread = 20000;
const char* const kPayload = "payload-0123456789-abcdefghij";

const char* const kFormats =
    "<Formats>"
    "<Format name='Line'><MessageText/><LineBreak/></Format>"
    "<Format name='ConsoleA'>A <MessageText/><LineBreak/></Format>"
    "<Format name='ConsoleB'>B <MessageText/><LineBreak/></Format>"
    "</Formats>";

// The line every message becomes: thread, sequence number, payload.
std::string expectedLine(int nThread, int nSequence) {
    return "T" + std::to_string(nThread) + " S" + std::to_string(nSequence) + " " + kPayload;
}

// Counts the lines of a text that start with prefix; fails on any line that is not a whole
// message.
void collect(const std::string& text, const std::string& prefix, std::multiset<std::string>& out) {
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.compare(0, prefix.size(), prefix) != 0) {
            continue;
        }
        const std::string message = line.substr(prefix.size());
        ASSERT_EQ(message.find(kPayload), message.size() - std::strlen(kPayload))
            << "broken line: " << line;
        out.insert(message);
    }
}

TEST(RotationStressTest, EveryMessageExactlyOnceWholeInFilesAndOnTheConsole) {
    test::TempDir dir;
    const std::string strLogs = dir.file("logs");
    const std::string strConsole = dir.file("console.txt");

    const LogSourceHandle source(String(L"stress.request"));
    for (short nId : {2, 3, 4}) {
        const_cast<LogSource&>(*source).getLogFilter().setLogLevelsForId(
            nId, LogLevels(65534, 65534, 65534, 65534, 65534));
    }
    LogWritersMan& registry = LogWritersMan::getLogWritersMan();
    registry.clearWriters();
    const test::WriterConfig fileConfig("<Writer name='files' writerClassId='3' dir='" + strLogs +
                                            "' fmtName='Line' maxFileSizeKb='4' filesN='100000'/>",
                                        kFormats);
    const test::WriterConfig consoleA(
        "<Writer name='consoleA' writerClassId='2' fmtName='ConsoleA'/>", kFormats);
    const test::WriterConfig consoleB(
        "<Writer name='consoleB' writerClassId='4' fmtName='ConsoleB'/>", kFormats);

    std::fflush(stdout);
    const int nSavedStdout = ::dup(1);
    const int nConsoleFd = ::open(strConsole.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(nConsoleFd, 1);
    ::close(nConsoleFd);

    ASSERT_FALSE(fileConfig.create(L"FileLogWriter", LogWriter::WT_GLOBAL).isNull());
    ASSERT_FALSE(consoleA.create(L"CoutWriter", LogWriter::WT_GLOBAL).isNull());
    ASSERT_FALSE(consoleB.create(L"CoutWriter", LogWriter::WT_GLOBAL).isNull());
    registry.versionIncrement();

    std::vector<std::thread> vecThreads;
    for (int t = 0; t < kThreads; ++t) {
        vecThreads.emplace_back([&, t] {
            TmLogger& logger = TmLogger::getLogger();
            logger.pushSource(*source);
            const GDString tmpl(fromUtf8(std::string("T%1 S%2 ") + kPayload));
            const GDUInteger64 thread(static_cast<std::uint64_t>(t));
            for (int i = 0; i < kMessagesPerThread; ++i) {
                const GDUInteger64 sequence(static_cast<std::uint64_t>(i));
                if (i % 2 == 0) {
                    if (logger.calcEnabledWriters(kSevInfo)) {
                        logger.logToEnabledWriters2(kSevInfo, tmpl, thread, sequence, nullptr);
                    }
                } else {
                    logger.logMessage(kSevInfo,
                                      ReferentialParameterizedMessage(tmpl, thread, sequence));
                }
            }
            logger.popSource();
        });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    registry.clearWriters();  // the last handles go: files flushed and closed
    registry.versionIncrement();
    CoutStream::getCoutStream().flush();
    ::dup2(nSavedStdout, 1);
    ::close(nSavedStdout);

    std::multiset<std::string> setFiles;
    std::size_t nFiles = 0;
    for (const auto& entry : std::filesystem::directory_iterator(strLogs)) {
        const std::string text = test::readFile(entry.path().string());
        ASSERT_EQ(text.compare(0, 3, "\xEF\xBB\xBF"), 0) << entry.path();
        collect(text.substr(3), "", setFiles);
        ++nFiles;
    }
    std::multiset<std::string> setConsoleA;
    std::multiset<std::string> setConsoleB;
    const std::string console = test::readFile(strConsole);
    collect(console, "A ", setConsoleA);
    collect(console, "B ", setConsoleB);

    const std::size_t nTotal = static_cast<std::size_t>(kThreads) * kMessagesPerThread;
    EXPECT_GT(nFiles, 100u);  // it really rotated
    for (const std::multiset<std::string>* pSet : {&setFiles, &setConsoleA, &setConsoleB}) {
        ASSERT_EQ(pSet->size(), nTotal);
        std::size_t nMissingOrRepeated = 0;
        for (int t = 0; t < kThreads; ++t) {
            for (int i = 0; i < kMessagesPerThread; ++i) {
                nMissingOrRepeated += pSet->count(expectedLine(t, i)) != 1;
            }
        }
        EXPECT_EQ(nMissingOrRepeated, 0u);
    }
}

}  // namespace
}  // namespace kiv

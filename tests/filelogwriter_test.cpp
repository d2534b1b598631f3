#include "weblogger/internal/filelogwriter.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>

#include "support/temp_dir.h"
#include "support/test_writer.h"
#include "support/writer_config.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/clock.h"

namespace kiv {
namespace {

using test::readFile;
using test::TempDir;
using test::WriterConfig;

const std::string kBom = "\xEF\xBB\xBF";

std::string writerXml(const std::string& dir, const std::string& attributes) {
    return "<Writer name='files' writerClassId='3' implementation='FileLogWriter' dir='" + dir +
           "' " + attributes + "/>";
}

class FileLogWriterTest : public ::testing::Test {
protected:
    Handle<FileLogWriter> make(const std::string& attributes) {
        m_pConfig = std::make_unique<WriterConfig>(writerXml(m_dir.path(), attributes));
        Handle<LogWriter> hWriter = m_pConfig->create(L"FileLogWriter");
        return Handle<FileLogWriter>(static_cast<FileLogWriter*>(hWriter.get()));
    }
    void log(FileLogWriter& writer, const std::string& text) {
        writer.logMessage(kSevError, GDString(fromUtf8(text)), m_state, nullptr);
    }
    std::string file(const std::string& name) const { return readFile(m_dir.file(name)); }
    bool exists(const std::string& name) const { return std::filesystem::exists(m_dir.file(name)); }

    TempDir m_dir;
    std::unique_ptr<WriterConfig> m_pConfig;
    LoggerState m_state = test::stateWithSource(L"filetest");
};

TEST_F(FileLogWriterTest, DefaultsAndFileNaming) {
    auto hWriter = make("");
    ASSERT_FALSE(hWriter.isNull());
    EXPECT_TRUE(hWriter->isEnabled());
    EXPECT_EQ(hWriter->getRotationType(), FileLogWriter::kRotateBySize);
    EXPECT_EQ(hWriter->getFileSizeMax(), 1048576u);
    EXPECT_EQ(hWriter->getNumberOfFiles(), 10u);
    EXPECT_EQ(hWriter->getRotationIntervalSeconds(), 86400u);
    EXPECT_TRUE(hWriter->isAutoFlush());
    EXPECT_TRUE(hWriter->getFilePrefix().equals(L"kiv"));
    EXPECT_TRUE(hWriter->getFilePathNW().equals(fromUtf8(m_dir.file("kiv0.log"))));
    EXPECT_EQ(hWriter->getFilePathN().std(), m_dir.file("kiv0.log"));
    log(*hWriter, "first");
    EXPECT_EQ(file("kiv0.log"), kBom + "first\n");
}

TEST_F(FileLogWriterTest, DirectoryIsCreatedWithItsParents) {
    m_pConfig = std::make_unique<WriterConfig>(writerXml(m_dir.file("a/b/c"), "filePrefix='p'"));
    Handle<LogWriter> hWriter = m_pConfig->create(L"FileLogWriter");
    ASSERT_FALSE(hWriter.isNull());
    EXPECT_TRUE(std::filesystem::exists(m_dir.file("a/b/c/p0.log")));
}

TEST_F(FileLogWriterTest, MissingDirIsTheXmlLayersError) {
    m_pConfig = std::make_unique<WriterConfig>(
        "<Writer name='files' writerClassId='3' implementation='FileLogWriter'/>");
    EXPECT_THROW(m_pConfig->create(L"FileLogWriter"), XmlException);
}

TEST_F(FileLogWriterTest, OneFileRingTruncatesTheSameFileAtEachRotation) {
    auto hWriter = make("filesN='1' maxFileSizeKb='0'");
    log(*hWriter, "one");
    log(*hWriter, "two");
    EXPECT_EQ(file("kiv0.log"), kBom + "two\n");
    EXPECT_FALSE(exists("kiv1.log"));
}

TEST_F(FileLogWriterTest, ZeroOrNonNumericFilesNIsRefused) {
    for (const char* pszValue : {"0", "many"}) {
        auto hWriter = make(std::string("filesN='") + pszValue + "'");
        EXPECT_TRUE(hWriter.isNull()) << pszValue;
    }
    EXPECT_FALSE(exists("kiv0.log"));
}

TEST_F(FileLogWriterTest, ZeroSizeLimitMovesEveryMessageToTheNextFile) {
    auto hWriter = make("filesN='3' maxFileSizeKb='0'");
    // kiv0 got its mark at initialisation; from then on every message rotates first.
    EXPECT_EQ(file("kiv0.log"), kBom);
    log(*hWriter, "a");
    EXPECT_EQ(file("kiv1.log"), kBom + "a\n");
    log(*hWriter, "b");
    EXPECT_EQ(file("kiv2.log"), kBom + "b\n");
    log(*hWriter, "c");
    EXPECT_EQ(file("kiv0.log"), kBom + "c\n");
    log(*hWriter, "d");
    EXPECT_EQ(file("kiv1.log"), kBom + "d\n");
    EXPECT_EQ(hWriter->getCurrentFileIndex(), 1u);
}

TEST_F(FileLogWriterTest, RotationIntervalInHours) {
    EXPECT_EQ(make("rotateBy='time' rotationIntervalHours='0.5'")->getRotationIntervalSeconds(),
              1800u);
    for (const char* pszValue : {"0", "-2", "soon", ""}) {
        auto hWriter =
            make(std::string("rotateBy='time' rotationIntervalHours='") + pszValue + "'");
        EXPECT_EQ(hWriter->getRotationIntervalSeconds(), 86400u) << pszValue;
        EXPECT_EQ(hWriter->getRotationType(), FileLogWriter::kRotateByTime);
    }
    // Exact, case-sensitive: "Time" is not time rotation.
    EXPECT_EQ(make("rotateBy='Time'")->getRotationType(), FileLogWriter::kRotateBySize);
}

TEST_F(FileLogWriterTest, RestartResumesTheNewestFileAndRotatesToTheNextOne) {
    for (int i = 0; i < 10; ++i) {
        m_dir.write("kiv" + std::to_string(i) + ".log", kBom + "old" + std::to_string(i) + "\n");
    }
    // File 4 is the newest.
    const std::filesystem::file_time_type tBase =
        std::filesystem::last_write_time(m_dir.file("kiv0.log"));
    for (int i = 0; i < 10; ++i) {
        std::filesystem::last_write_time(m_dir.file("kiv" + std::to_string(i) + ".log"),
                                         tBase - std::chrono::hours(10 - i % 5));
    }
    std::filesystem::last_write_time(m_dir.file("kiv4.log"), tBase + std::chrono::hours(1));
    auto hWriter = make("maxFileSizeKb='1'");
    EXPECT_EQ(hWriter->getCurrentFileIndex(), 4u);
    log(*hWriter, "resumed");
    EXPECT_EQ(file("kiv4.log"), kBom + "old4\nresumed\n");  // no second mark
    log(*hWriter, std::string(1100, 'x'));                  // passes the 1 KB limit
    log(*hWriter, "after rotation");
    EXPECT_EQ(file("kiv5.log"), kBom + "after rotation\n");
    EXPECT_EQ(file("kiv6.log"), kBom + "old6\n");
}

TEST_F(FileLogWriterTest, SizeLimitCountsOnlyWhatTheFileHandleHolds) {
    auto hWriter = make("maxFileSizeKb='1' autoFlush='false'");
    for (int i = 0; i < 40; ++i) {
        log(*hWriter, std::string(99, 'y'));  // 4000 bytes, all still in the buffer
    }
    EXPECT_EQ(hWriter->getCurrentFileIndex(), 0u);
    hWriter.reset();  // destruction flushes
    EXPECT_EQ(file("kiv0.log").size(), kBom.size() + 4000);
}

TEST_F(FileLogWriterTest, AutoFlushWords) {
    for (const char* pszOff : {"no", "N", "False", "0", "NO"}) {
        EXPECT_FALSE(make(std::string("autoFlush='") + pszOff + "'")->isAutoFlush()) << pszOff;
    }
    for (const char* pszOn : {"off", "yes", "", "true", "1"}) {
        EXPECT_TRUE(make(std::string("autoFlush='") + pszOn + "'")->isAutoFlush()) << pszOn;
    }
}

TEST_F(FileLogWriterTest, AutoFlushMakesEachMessageVisibleAtOnce) {
    auto hWriter = make("");
    log(*hWriter, "visible");
    EXPECT_EQ(file("kiv0.log"), kBom + "visible\n");
    auto hBuffered = make("filePrefix='buffered' autoFlush='no'");
    log(*hBuffered, "held");
    EXPECT_EQ(file("buffered0.log"), kBom);
    hBuffered.reset();
    EXPECT_EQ(file("buffered0.log"), kBom + "held\n");
}

TEST_F(FileLogWriterTest, AppendedPrefixOpensItsOwnRing) {
    auto hWriter = make("");
    log(*hWriter, "main");
    hWriter->appendFilePrefix(String(L"tenant"));
    log(*hWriter, "tenant message");
    EXPECT_EQ(file("kiv-tenant-0.log"), kBom + "tenant message\n");
    EXPECT_EQ(file("kiv0.log"), kBom + "main\n");
}

std::atomic<std::time_t> g_tNow{1800000000};
std::time_t fakeClock() noexcept {
    return g_tNow.load();
}

TEST_F(FileLogWriterTest, AgeRotationOncePerIntervalAcrossClockJumpsAndRestarts) {
    clock::ScopedWallClock fake(&fakeClock);
    auto hWriter = make("rotateBy='time' rotationIntervalHours='1'");
    log(*hWriter, "t0");
    g_tNow += 3599;
    log(*hWriter, "t3599");
    EXPECT_EQ(hWriter->getCurrentFileIndex(), 0u);
    g_tNow += 1;
    log(*hWriter, "t3600");
    EXPECT_EQ(hWriter->getCurrentFileIndex(), 1u);
    g_tNow += 10 * 3600;  // a jump of ten intervals rotates once, not ten times
    log(*hWriter, "jump");
    EXPECT_EQ(hWriter->getCurrentFileIndex(), 2u);
    log(*hWriter, "same interval");
    EXPECT_EQ(hWriter->getCurrentFileIndex(), 2u);
    EXPECT_EQ(file("kiv0.log"), kBom + "t0\nt3599\n");
    EXPECT_EQ(file("kiv1.log"), kBom + "t3600\n");
    EXPECT_EQ(file("kiv2.log"), kBom + "jump\nsame interval\n");

    // A restart resumes file 2 (the newest: the files were really written hours apart) and
    // starts a fresh interval from the restart.
    hWriter.reset();
    const auto tWritten = std::filesystem::last_write_time(m_dir.file("kiv2.log"));
    std::filesystem::last_write_time(m_dir.file("kiv0.log"), tWritten - std::chrono::hours(11));
    std::filesystem::last_write_time(m_dir.file("kiv1.log"), tWritten - std::chrono::hours(10));
    g_tNow += 3000;
    auto hRestarted = make("rotateBy='time' rotationIntervalHours='1'");
    EXPECT_EQ(hRestarted->getCurrentFileIndex(), 2u);
    g_tNow += 3599;
    log(*hRestarted, "still file 2");
    EXPECT_EQ(hRestarted->getCurrentFileIndex(), 2u);
    g_tNow += 1;
    log(*hRestarted, "file 3");
    EXPECT_EQ(hRestarted->getCurrentFileIndex(), 3u);
}

TEST_F(FileLogWriterTest, KilledProcessLosesNoFlushedMessage) {
    const std::string strDir = m_dir.file("killed");
    constexpr int kMessages = 500;
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        WriterConfig config(writerXml(strDir, ""));
        Handle<LogWriter> hWriter = config.create(L"FileLogWriter");
        const LoggerState state = test::stateWithSource(L"killed");
        for (int i = 0; i < kMessages; ++i) {
            hWriter->logMessage(kSevError, GDString(L"message"), state, nullptr);
        }
        ::kill(::getpid(), SIGKILL);
        _exit(1);
    }
    int nStatus = 0;
    ::waitpid(pid, &nStatus, 0);
    ASSERT_TRUE(WIFSIGNALED(nStatus));
    const std::string text = readFile(strDir + "/kiv0.log");
    std::size_t nLines = 0;
    for (char c : text) {
        nLines += c == '\n';
    }
    EXPECT_EQ(nLines, static_cast<std::size_t>(kMessages));
}

TEST_F(FileLogWriterTest, DirectoryThatCannotBeCreatedFailsTheConfiguration) {
    m_dir.write("blocker", "a file where a directory should be");
    m_pConfig = std::make_unique<WriterConfig>(writerXml(m_dir.file("blocker/logs"), ""));
    EXPECT_THROW(m_pConfig->create(L"FileLogWriter"), FileException);
}

TEST_F(FileLogWriterTest, FileThatCannotBeOpenedFailsTheConfiguration) {
    // A directory where the ring's first file should be.
    std::filesystem::create_directories(m_dir.file("kiv0.log"));
    EXPECT_THROW(make(""), FileException);
}

TEST_F(FileLogWriterTest, FullDiskDisablesTheWriterAndKeepsWhatWasWritten) {
    const std::string strDir = m_dir.file("full");
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        WriterConfig config(writerXml(strDir, "maxFileSizeKb='100'"));
        Handle<LogWriter> hWriter = config.create(L"FileLogWriter");
        const LoggerState state = test::stateWithSource(L"full");
        int nThrown = 0;
        for (int i = 0; i < 100; ++i) {
            try {
                hWriter->logMessage(kSevError, GDString(String(99, L'z')), state, nullptr);
            } catch (const FileException&) {
                ++nThrown;
            }
        }
        // The failure is thrown once; afterwards the writer is disabled and refuses quietly.
        _exit(nThrown == 1 && !hWriter->isEnabled() ? 0 : 2);
    }
    int nStatus = 0;
    ::waitpid(pid, &nStatus, 0);
    ASSERT_TRUE(WIFEXITED(nStatus));
    EXPECT_EQ(WEXITSTATUS(nStatus), 0);
    const std::string text = readFile(strDir + "/kiv0.log");
    EXPECT_LE(text.size(), 4096u);
    EXPECT_EQ(text.substr(0, 3), kBom);
    // Every whole line that reached the disk is intact.
    EXPECT_EQ(text.find(std::string(99, 'z') + "\n", 3), 3u);
}

}  // namespace
}  // namespace kiv

namespace kiv {
namespace {

TEST_F(FileLogWriterTest, FullDiskNeverReachesTheCallerAndOtherWritersKeepWriting) {
    const std::string strDir = m_dir.file("full-dispatch");
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        const LogSourceHandle source(String(L"fulldispatch"));
        for (short nId : {3, 5}) {
            const_cast<LogSource&>(*source).getLogFilter().setLogLevelsForId(
                nId, LogLevels(65534, 65534, 65534, 65534, 65534));
        }
        WriterConfig config(writerXml(strDir, ""));
        Handle<LogWriter> hFile = config.create(L"FileLogWriter");
        Handle<test::RecordingWriter> hOther(
            new test::RecordingWriter(String(L"other"), 5, LogWriter::WT_SHARED, nullptr));
        TmLogger& logger = TmLogger::getLogger();
        logger.addLocalWriter(hFile.get());
        logger.addLocalWriter(hOther.get());
        logger.pushSource(*source);
        bool bEscaped = false;
        for (int i = 0; i < 200; ++i) {
            try {
                logger.logMessage(kSevError, GDString(String(99, L'q')));
            } catch (...) {
                bEscaped = true;
            }
        }
        // The message during which the disk filled up stops at the failing writer; every other
        // message reaches the other writer.
        const std::size_t nOther = hOther->records().size();
        _exit(!bEscaped && !hFile->isEnabled() && nOther == 199 ? 0 : 2);
    }
    int nStatus = 0;
    ::waitpid(pid, &nStatus, 0);
    ASSERT_TRUE(WIFEXITED(nStatus));
    EXPECT_EQ(WEXITSTATUS(nStatus), 0);
}

}  // namespace
}  // namespace kiv

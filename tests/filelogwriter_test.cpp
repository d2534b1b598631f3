#include "weblogger/internal/filelogwriter.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/alloc_counter.h"
#include "support/temp_dir.h"
#include "support/test_writer.h"
#include "support/writer_config.h"
#include "weblogger/eciddeferredpropertyvalue.h"
#include "weblogger/messageformatloader.h"
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

TEST_F(FileLogWriterTest, AFormatThatRendersNothingWritesNothingFromAThreadsFirstMessage) {
    m_pConfig = std::make_unique<WriterConfig>(writerXml(m_dir.path(), "fmtName='Empty'"),
                                               "<Formats><Format name='Empty'/></Formats>");
    Handle<LogWriter> hWriter = m_pConfig->create(L"FileLogWriter");
    ASSERT_FALSE(hWriter.isNull());
    // A new thread: its record buffer has no storage yet when the empty record is copied.
    std::thread([&] { log(static_cast<FileLogWriter&>(*hWriter), "nothing shows"); }).join();
    hWriter->flush();
    EXPECT_EQ(file("kiv0.log"), kBom);
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

TEST_F(FileLogWriterTest, FullDiskStallsTheWriterQuietlyAndLeavesOnlyWholeLines) {
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
        // Nothing reaches the caller, and the writer stays in service to resume later.
        _exit(nThrown == 0 && hWriter->isEnabled() ? 0 : 2);
    }
    int nStatus = 0;
    ::waitpid(pid, &nStatus, 0);
    ASSERT_TRUE(WIFEXITED(nStatus));
    EXPECT_EQ(WEXITSTATUS(nStatus), 0);
    const std::string text = readFile(strDir + "/kiv0.log");
    EXPECT_LE(text.size(), 4096u);
    EXPECT_EQ(text.substr(0, 3), kBom);
    // Only whole lines reached the disk.
    const std::string line = std::string(99, 'z') + "\n";
    ASSERT_EQ((text.size() - 3) % line.size(), 0u);
    for (std::size_t i = 3; i < text.size(); i += line.size()) {
        EXPECT_EQ(text.compare(i, line.size(), line), 0) << i;
    }
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
        // The full disk stays inside the file writer: every message reaches the other writer.
        const std::size_t nOther = hOther->records().size();
        _exit(!bEscaped && hFile->isEnabled() && nOther == 200 ? 0 : 2);
    }
    int nStatus = 0;
    ::waitpid(pid, &nStatus, 0);
    ASSERT_TRUE(WIFEXITED(nStatus));
    EXPECT_EQ(WEXITSTATUS(nStatus), 0);
}

}  // namespace
}  // namespace kiv

namespace kiv {
namespace {

// Captures what the library reports on standard error for the life of the object.
class StderrCapture {
public:
    explicit StderrCapture(std::string path) : m_strPath(std::move(path)) {
        std::fflush(stderr);
        m_nSaved = ::dup(2);
        const int nFd = ::open(m_strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(nFd, 2);
        ::close(nFd);
    }
    ~StderrCapture() { restore(); }
    std::string text() {
        std::fflush(stderr);
        return readFile(m_strPath);
    }
    void restore() {
        if (m_nSaved >= 0) {
            std::fflush(stderr);
            ::dup2(m_nSaved, 2);
            ::close(m_nSaved);
            m_nSaved = -1;
        }
    }

private:
    std::string m_strPath;
    int m_nSaved = -1;
};

std::size_t count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t nPos = text.find(what); nPos != std::string::npos;
         nPos = text.find(what, nPos + 1)) {
        ++n;
    }
    return n;
}

TEST_F(FileLogWriterTest, HugeFilesNIsRefusedAtOnceWithAReport) {
    for (const char* pszValue : {"4294967295", "-1", "1e9", "1000001", "99999999999999999999"}) {
        StderrCapture capture(m_dir.file("stderr.txt"));
        const auto tStart = std::chrono::steady_clock::now();
        auto hWriter = make(std::string("filesN='") + pszValue + "'");
        const auto nMicros = std::chrono::duration_cast<std::chrono::microseconds>(
                                 std::chrono::steady_clock::now() - tStart)
                                 .count();
        const std::string report = capture.text();
        capture.restore();
        EXPECT_TRUE(hWriter.isNull()) << pszValue;
        EXPECT_NE(report.find("filesN"), std::string::npos) << report;
        std::printf("filesN='%s' refused in %lld us\n", pszValue, static_cast<long long>(nMicros));
    }
    EXPECT_FALSE(exists("kiv0.log"));
    EXPECT_FALSE(make("filesN='1000000'").isNull());
}

TEST_F(FileLogWriterTest, RingOfAThousandFilesResumesTheNewestInOnePass) {
    constexpr int kFiles = 1000;
    constexpr int kNewest = 637;
    timespec arrTimes[2] = {};
    for (int i = 0; i < kFiles; ++i) {
        const std::string path = m_dir.write("kiv" + std::to_string(i) + ".log", kBom + "x\n");
        arrTimes[0].tv_sec = arrTimes[1].tv_sec = 1700000000 + (i == kNewest ? 5000 : i);
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), arrTimes, 0), 0);
    }
    const auto tStart = std::chrono::steady_clock::now();
    auto hWriter = make("filesN='1000'");
    const auto nMicros = std::chrono::duration_cast<std::chrono::microseconds>(
                             std::chrono::steady_clock::now() - tStart)
                             .count();
    std::printf("ring of %d files resumed in %lld us\n", kFiles, static_cast<long long>(nMicros));
    ASSERT_FALSE(hWriter.isNull());
    EXPECT_EQ(hWriter->getCurrentFileIndex(), static_cast<std::uint32_t>(kNewest));
    // A huge ring with few files present costs no more than the files present.
    hWriter.reset();
    const auto tHuge = std::chrono::steady_clock::now();
    hWriter = make("filesN='1000000'");
    std::printf("ring of filesN=1000000 with %d files resumed in %lld us\n", kFiles,
                static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(
                                           std::chrono::steady_clock::now() - tHuge)
                                           .count()));
    EXPECT_EQ(hWriter->getCurrentFileIndex(), static_cast<std::uint32_t>(kNewest));
}

// Sets every file of the directory to the same whole second, as a file system with one-second
// times (or a copy that keeps times) leaves a ring written within one second.
void setAllTimes(const std::string& dir, std::time_t tSecond) {
    timespec arrTimes[2] = {};
    arrTimes[0].tv_sec = arrTimes[1].tv_sec = tSecond;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        ASSERT_EQ(::utimensat(AT_FDCWD, entry.path().c_str(), arrTimes, 0), 0);
    }
}

// The numbers of the lines "line <n>" in the ring's files.
std::set<int> ringLines(const std::string& dir) {
    std::set<int> setLines;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        std::istringstream lines(readFile(entry.path().string()));
        std::string line;
        while (std::getline(lines, line)) {
            const std::size_t nPos = line.find("line ");
            if (nPos != std::string::npos) {
                setLines.insert(std::stoi(line.substr(nPos + 5)));
            }
        }
    }
    return setLines;
}

TEST_F(FileLogWriterTest, RestartOnEqualWholeSecondTimesResumesTheLastFileWritten) {
    // About 9 lines per 1 KB file; each round ends on another file of the ring, with a full
    // ring (all files written within "one second") or a run of a few files.
    constexpr int kRounds = 30;
    const std::string attributes = "filesN='10' maxFileSizeKb='1' autoFlush='no'";
    const std::string line = std::string(100, '-') + " line ";
    for (int nRound = 0; nRound < kRounds; ++nRound) {
        const std::string strDir = m_dir.file("round" + std::to_string(nRound));
        m_pConfig = std::make_unique<WriterConfig>(writerXml(strDir, attributes));
        int nNext = 0;
        // Older files first, at an older time: the ring after the first pass.
        const int nOldLines = nRound % 2 == 0 ? 95 : 40;
        {
            Handle<LogWriter> hWriter = m_pConfig->create(L"FileLogWriter");
            for (; nNext < nOldLines; ++nNext) {
                hWriter->logMessage(kSevError, GDString(fromUtf8(line + std::to_string(nNext))),
                                    m_state, nullptr);
            }
        }
        setAllTimes(strDir, 1700000000);
        const int nLines = nOldLines + 7 + nRound * 3;
        std::uint32_t nLastFile = 0;
        {
            Handle<LogWriter> hWriter = m_pConfig->create(L"FileLogWriter");
            for (; nNext < nLines; ++nNext) {
                hWriter->logMessage(kSevError, GDString(fromUtf8(line + std::to_string(nNext))),
                                    m_state, nullptr);
            }
            nLastFile = static_cast<FileLogWriter&>(*hWriter).getCurrentFileIndex();
        }
        // Everything written in the newest second: the whole ring in even rounds.
        setAllTimes(strDir, 1700000100);
        if (nRound % 2 != 0) {
            // Odd rounds: only the files of the second run carry the newest second.
            timespec arrOld[2] = {};
            arrOld[0].tv_sec = arrOld[1].tv_sec = 1700000000;
            const std::set<int> setAll = ringLines(strDir);
            for (int i = 0; i < 10; ++i) {
                const std::string path = strDir + "/kiv" + std::to_string(i) + ".log";
                const std::string text = readFile(path);
                bool bNew = false;
                for (int n = nOldLines; n < nLines && !bNew; ++n) {
                    bNew = text.find(" line " + std::to_string(n) + "\n") != std::string::npos;
                }
                if (!bNew && std::filesystem::exists(path)) {
                    ::utimensat(AT_FDCWD, path.c_str(), arrOld, 0);
                }
            }
        }
        Handle<LogWriter> hWriter = m_pConfig->create(L"FileLogWriter");
        ASSERT_EQ(static_cast<FileLogWriter&>(*hWriter).getCurrentFileIndex(), nLastFile)
            << "round " << nRound;
        // Twenty more lines rotate a few times; the ring must still hold an unbroken tail.
        const int nEnd = nNext + 20;
        for (; nNext < nEnd; ++nNext) {
            hWriter->logMessage(kSevError, GDString(fromUtf8(line + std::to_string(nNext))),
                                m_state, nullptr);
        }
        hWriter.reset();
        const std::set<int> setLines = ringLines(strDir);
        ASSERT_FALSE(setLines.empty());
        EXPECT_EQ(*setLines.rbegin(), nEnd - 1);
        EXPECT_EQ(static_cast<int>(setLines.size()), *setLines.rbegin() - *setLines.begin() + 1)
            << "a line from the middle of the log is missing, round " << nRound;
    }
}

TEST_F(FileLogWriterTest, TiesThatAreNotOneRunKeepTheLowestIndex) {
    for (int i : {2, 3, 6}) {
        m_dir.write("kiv" + std::to_string(i) + ".log", kBom + "x\n");
    }
    setAllTimes(m_dir.path(), 1700000000);
    EXPECT_EQ(make("")->getCurrentFileIndex(), 2u);
}

TEST_F(FileLogWriterTest, SecondWriterOnTheSameRingIsRefused) {
    auto hFirst = make("filePrefix='shared'");
    ASSERT_FALSE(hFirst.isNull());
    std::filesystem::create_directory_symlink(m_dir.path(), m_dir.file("alias"));
    StderrCapture capture(m_dir.file("stderr.txt"));
    WriterConfig second(writerXml(m_dir.file("alias"), "filePrefix='shared'"));
    EXPECT_TRUE(second.create(L"FileLogWriter").isNull());
    WriterConfig other(writerXml(m_dir.path(), "filePrefix='other'"));
    EXPECT_FALSE(other.create(L"FileLogWriter").isNull());
    const std::string report = capture.text();
    capture.restore();
    EXPECT_EQ(count(report, "already belong to log writer files"), 1u) << report;
    hFirst.reset();
    EXPECT_FALSE(second.create(L"FileLogWriter").isNull());
}

TEST_F(FileLogWriterTest, PlantedLinkIsNeverFollowedAcrossAWrapOfTheRing) {
    const std::string victim = m_dir.write("victim.txt", "not a log\n");
    const std::string strDir = m_dir.file("logs");
    std::filesystem::create_directories(strDir);
    ASSERT_EQ(::symlink(victim.c_str(), (strDir + "/kiv1.log").c_str()), 0);
    StderrCapture capture(m_dir.file("stderr.txt"));
    m_pConfig = std::make_unique<WriterConfig>(writerXml(strDir, "filesN='3' maxFileSizeKb='0'"));
    Handle<LogWriter> hWriter = m_pConfig->create(L"FileLogWriter");
    ASSERT_FALSE(hWriter.isNull());
    for (int i = 0; i < 9; ++i) {  // three wraps: every message rotates
        hWriter->logMessage(kSevError, GDString(L"message"), m_state, nullptr);
    }
    const std::string report = capture.text();
    capture.restore();
    EXPECT_EQ(readFile(victim), "not a log\n");
    EXPECT_TRUE(std::filesystem::is_symlink(strDir + "/kiv1.log"));
    EXPECT_GE(count(report, "is a symbolic link or not a regular file"), 3u) << report;
    EXPECT_EQ(readFile(strDir + "/kiv2.log"), kBom + "message\n");

    // A restart does not resume the link either, however new it looks.
    hWriter.reset();
    timespec arrTimes[2] = {};
    arrTimes[0].tv_sec = arrTimes[1].tv_sec = 2000000000;
    ::utimensat(AT_FDCWD, (strDir + "/kiv1.log").c_str(), arrTimes, AT_SYMLINK_NOFOLLOW);
    ::utimensat(AT_FDCWD, victim.c_str(), arrTimes, 0);
    hWriter = m_pConfig->create(L"FileLogWriter");
    EXPECT_NE(static_cast<FileLogWriter&>(*hWriter).getCurrentFileIndex(), 1u);
    hWriter->logMessage(kSevError, GDString(L"after restart"), m_state, nullptr);
    EXPECT_EQ(readFile(victim), "not a log\n");
}

TEST_F(FileLogWriterTest, FilesAndDirectoriesGetTheirModesWhateverTheUmask) {
    for (mode_t nUmask : {mode_t(0), mode_t(077), mode_t(022)}) {
        const mode_t nOld = ::umask(nUmask);
        const std::string strDir = m_dir.file("u" + std::to_string(nUmask) + "/logs");
        const std::string strOwn = m_dir.file("own" + std::to_string(nUmask));
        {
            WriterConfig defaults(writerXml(strDir, "filesN='2' maxFileSizeKb='0'"));
            Handle<LogWriter> hWriter = defaults.create(L"FileLogWriter");
            hWriter->logMessage(kSevError, GDString(L"rotated"), m_state, nullptr);
            WriterConfig own(writerXml(strOwn, "fileMode='600'"));
            Handle<LogWriter> hOwn = own.create(L"FileLogWriter");
            ASSERT_FALSE(hOwn.isNull());
        }
        ::umask(nOld);
        struct stat st;
        for (const char* pszFile : {"/kiv0.log", "/kiv1.log"}) {
            ASSERT_EQ(::stat((strDir + pszFile).c_str(), &st), 0);
            EXPECT_EQ(st.st_mode & 07777, 0640u) << nUmask << pszFile;
        }
        ASSERT_EQ(::stat(strDir.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0750u) << nUmask;
        ASSERT_EQ(::stat((strOwn + "/kiv0.log").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0600u) << nUmask;
        ASSERT_EQ(::stat(strOwn.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0700u) << nUmask;
    }
    for (const char* pszBad : {"rw-r-----", "0888", "10640", "-1", "0440"}) {
        EXPECT_TRUE(make(std::string("fileMode='") + pszBad + "'").isNull()) << pszBad;
    }
}

}  // namespace
}  // namespace kiv

namespace kiv {
namespace {

// Unmounts in teardown, also when an assertion ends the test early.
struct TmpfsMount {
    explicit TmpfsMount(std::string path) : m_strPath(std::move(path)) {}
    ~TmpfsMount() {
        if (m_bMounted) {
            ::umount2(m_strPath.c_str(), MNT_DETACH);
        }
    }
    std::string m_strPath;
    bool m_bMounted = false;
};

// Fills the file system of dir until it has no space left; the filler file's path.
std::string fillFileSystem(const std::string& dir) {
    const std::string strFiller = dir + "/filler";
    const int nFd = ::open(strFiller.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const std::string block(4096, 'f');
    while (::write(nFd, block.data(), block.size()) > 0) {
    }
    // Single bytes for the last partial block.
    while (::write(nFd, "f", 1) > 0) {
    }
    ::close(nFd);
    return strFiller;
}

TEST_F(FileLogWriterTest, FullDiskLosesNoLineAfterSpaceReturnsAndCountsWhatItDropped) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "mounting a small tmpfs needs root; run as root to test a full disk";
    }
    TmpfsMount mount(m_dir.file("tmpfs"));
    std::filesystem::create_directories(mount.m_strPath);
    if (::mount("tmpfs", mount.m_strPath.c_str(), "tmpfs", 0, "size=256k") != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
    }
    mount.m_bMounted = true;
    const std::string line = std::string(90, '.') + " line ";
    for (bool bAutoFlush : {true, false}) {
        SCOPED_TRACE(bAutoFlush ? "autoFlush" : "buffered");
        const std::string strDir = mount.m_strPath + (bAutoFlush ? "/flushed" : "/buffered");
        clock::ScopedWallClock fake(&fakeClock);
        StderrCapture capture(m_dir.file("stderr.txt"));
        WriterConfig config(writerXml(strDir, std::string("filesN='1' maxFileSizeKb='100000' ") +
                                                  (bAutoFlush ? "" : "autoFlush='no'")));
        Handle<LogWriter> hWriter = config.create(L"FileLogWriter");
        ASSERT_FALSE(hWriter.isNull());
        FileLogWriter& writer = static_cast<FileLogWriter&>(*hWriter);
        int nNext = 0;
        const auto logLines = [&](int nLines) {
            for (int i = 0; i < nLines; ++i, ++nNext) {
                hWriter->logMessage(kSevError, GDString(fromUtf8(line + std::to_string(nNext))),
                                    m_state, nullptr);
            }
        };
        const std::string strFile = strDir + "/kiv0.log";
        logLines(100);
        writer.flush();
        const std::string strFiller = fillFileSystem(mount.m_strPath);
        logLines(3000);  // 300 KB: far more than the disk or the buffer holds
        writer.flush();
        EXPECT_TRUE(hWriter->isEnabled());
        // Space returns, but within the same second nothing is tried again: the message finds
        // the buffer full and is dropped (and counted).
        ASSERT_EQ(::unlink(strFiller.c_str()), 0);
        const std::uintmax_t nSizeWhileFull = std::filesystem::file_size(strFile);
        logLines(1);
        EXPECT_EQ(std::filesystem::file_size(strFile), nSizeWhileFull);
        g_tNow += 1;
        const int nFirstAfterSpace = nNext;
        logLines(500);
        hWriter.reset();
        const std::string report = capture.text();
        capture.restore();

        EXPECT_EQ(count(report, "cannot write to " + strFile), 1u) << report;
        EXPECT_EQ(count(report, "writes to " + strFile + " again"), 1u) << report;
        const std::size_t nAgain = report.find(" again; ");
        ASSERT_NE(nAgain, std::string::npos) << report;
        const long nReportedDropped = std::stol(report.substr(nAgain + 8));

        const std::string text = readFile(strFile);
        ASSERT_EQ(text.substr(0, 3), kBom);
        std::set<int> setLines;
        std::istringstream lines(text.substr(3));
        std::string got;
        while (std::getline(lines, got)) {
            ASSERT_EQ(got.compare(0, line.size(), line), 0) << "torn line: " << got;
            const std::string number = got.substr(line.size());
            ASSERT_EQ(number.find_first_not_of("0123456789"), std::string::npos)
                << "torn line: " << got;
            EXPECT_TRUE(setLines.insert(std::stoi(number)).second) << "twice: " << got;
        }
        EXPECT_EQ(text.back(), '\n');
        for (int n = nFirstAfterSpace; n < nNext; ++n) {
            EXPECT_EQ(setLines.count(n), 1u) << "lost after the space returned: " << n;
        }
        EXPECT_GT(nReportedDropped, 0);
        EXPECT_EQ(static_cast<long>(nNext) - static_cast<long>(setLines.size()), nReportedDropped);
        std::printf("%s: %d lines, %zu on disk, %ld dropped while the disk was full\n",
                    bAutoFlush ? "autoFlush" : "buffered", nNext, setLines.size(),
                    nReportedDropped);
        // The next case gets the whole disk: when the space returns it must hold what a
        // stalled writer kept back, up to two buffers.
        std::filesystem::remove_all(strDir);
    }
}

}  // namespace
}  // namespace kiv

namespace kiv {
namespace {

// Write system calls the process has made so far (the kernel's own count).
long long writeSystemCalls() {
    std::istringstream io(readFile("/proc/self/io"));
    std::string key;
    long long nValue = 0;
    while (io >> key >> nValue) {
        if (key == "syscw:") {
            return nValue;
        }
    }
    return -1;
}

TEST_F(FileLogWriterTest, BufferedMessageAllocatesNothingAndMakesNoSystemCall) {
    clock::ScopedWallClock fake(&fakeClock);
    auto hWriter = make("autoFlush='no'");
    const GDString message(String(80, L'm'));
    log(*hWriter, "warm up");
    [[maybe_unused]] const long long nWritesBefore = writeSystemCalls();
    ::getppid();  // marks the loop's start in a system call trace (two calls per check)
    test::AllocationScope scope;
    for (int i = 0; i < 500; ++i) {  // 40 KB: within one buffer
        hWriter->logMessage(kSevError, message, m_state, nullptr);
        if (i % 100 == 99) {
            g_tNow += 1;  // the once-a-second check runs, and allocates nothing either
        }
    }
    const std::size_t nAllocations = scope.count();
    ::getppid();
    EXPECT_EQ(nAllocations, 0u);
    EXPECT_EQ(file("kiv0.log"), kBom);  // all still in the buffer
    // A sanitizer's own checks write to a pipe of its own; without one, the count is exact.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    if (nWritesBefore >= 0) {
        EXPECT_EQ(writeSystemCalls(), nWritesBefore);
    }
#endif
}

TEST_F(FileLogWriterTest, RotationAllocatesNothingOnceTheRingWentRound) {
    // Twelve files: the names grow from kiv0.log to kiv11.log in the first round, which sizes
    // the kept path; every later rotation rewrites it in place.
    auto hWriter = make("filesN='12' maxFileSizeKb='0'");
    const GDString lap1(String(L"first round"));
    const GDString lap4(String(L"fourth round"));
    for (int i = 0; i < 12; ++i) {
        hWriter->logMessage(kSevError, lap1, m_state, nullptr);
    }
    test::AllocationScope scope;
    for (int i = 0; i < 36; ++i) {  // three more rounds, every message in a new file
        hWriter->logMessage(kSevError, i < 24 ? lap1 : lap4, m_state, nullptr);
    }
    EXPECT_EQ(scope.count(), 0u);
    // The 48th message went to kiv0.log (the first message rotated to kiv1.log).
    EXPECT_EQ(hWriter->getCurrentFileIndex(), 0u);
    for (int n = 0; n < 12; ++n) {
        EXPECT_EQ(file("kiv" + std::to_string(n) + ".log"), kBom + "fourth round\n") << n;
    }
}

}  // namespace
}  // namespace kiv

namespace kiv {
namespace {

TEST_F(FileLogWriterTest, RemovedFileIsNoticedInTheNextSecondAndItsBufferGoesToAFreshFile) {
    clock::ScopedWallClock fake(&fakeClock);
    StderrCapture capture(m_dir.file("stderr.txt"));
    const std::string strDir = m_dir.file("logs");
    m_pConfig = std::make_unique<WriterConfig>(writerXml(strDir, "autoFlush='no'"));
    Handle<LogWriter> hWriter = m_pConfig->create(L"FileLogWriter");
    hWriter->logMessage(kSevError, GDString(L"before"), m_state, nullptr);
    std::filesystem::remove_all(strDir);
    hWriter->logMessage(kSevError, GDString(L"same second"), m_state, nullptr);
    EXPECT_FALSE(std::filesystem::exists(strDir));  // no check within the second
    g_tNow += 1;
    hWriter->logMessage(kSevError, GDString(L"next second"), m_state, nullptr);
    EXPECT_EQ(static_cast<FileLogWriter&>(*hWriter).getCurrentFileIndex(), 1u);
    hWriter.reset();
    const std::string report = capture.text();
    capture.restore();
    EXPECT_EQ(count(report, "found its file " + strDir + "/kiv0.log removed"), 1u) << report;
    EXPECT_EQ(readFile(strDir + "/kiv1.log"), kBom + "before\nsame second\nnext second\n");
    struct stat st;
    ASSERT_EQ(::stat(strDir.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0750u);
}

TEST_F(FileLogWriterTest, FileThatCannotBeCreatedIsTriedAgainEachSecondAndDropsAreCounted) {
    clock::ScopedWallClock fake(&fakeClock);
    StderrCapture capture(m_dir.file("stderr.txt"));
    const std::string strDir = m_dir.file("logs");
    m_pConfig = std::make_unique<WriterConfig>(writerXml(strDir, "filesN='3' maxFileSizeKb='1'"));
    Handle<LogWriter> hWriter = m_pConfig->create(L"FileLogWriter");
    hWriter->logMessage(kSevError, GDString(fromUtf8(std::string(1100, 'a'))), m_state, nullptr);
    // The directory is replaced by a file: the rotation cannot create kiv1.log.
    std::filesystem::remove_all(strDir);
    m_dir.write("logs", "blocker");
    for (int i = 0; i < 5; ++i) {
        hWriter->logMessage(kSevError, GDString(L"dropped"), m_state, nullptr);
    }
    EXPECT_TRUE(hWriter->isEnabled());
    std::filesystem::remove(strDir);
    g_tNow += 1;
    hWriter->logMessage(kSevError, GDString(L"back"), m_state, nullptr);
    hWriter.reset();
    const std::string report = capture.text();
    capture.restore();
    EXPECT_EQ(count(report, "cannot write to"), 1u) << report;
    EXPECT_EQ(count(report, "again; 5 messages were dropped meanwhile."), 1u) << report;
    EXPECT_EQ(readFile(strDir + "/kiv1.log"), kBom + "back\n");
}

TEST_F(FileLogWriterTest, AppendedPrefixThatAnotherWriterHoldsDisablesTheWriter) {
    auto hTenant = make("filePrefix='kiv-tenant-'");
    WriterConfig second(writerXml(m_dir.path(), ""));
    Handle<LogWriter> hWriter = second.create(L"FileLogWriter");
    ASSERT_FALSE(hWriter.isNull());
    StderrCapture capture(m_dir.file("stderr.txt"));
    static_cast<FileLogWriter&>(*hWriter).appendFilePrefix(String(L"tenant"));
    const std::string report = capture.text();
    capture.restore();
    EXPECT_FALSE(hWriter->isEnabled());
    EXPECT_EQ(count(report, "already belong to log writer files"), 1u) << report;
}

}  // namespace
}  // namespace kiv

namespace kiv {
namespace {

// ------------------------------------------------------------------------- the JSON format

// Runs python3 with a script and its arguments; the exit status, or -1 when it could not run.
int runPython(const char* pszScript, const std::vector<std::string>& vecArgs) {
    std::vector<char*> vecArgv;
    vecArgv.push_back(const_cast<char*>("python3"));
    vecArgv.push_back(const_cast<char*>("-c"));
    vecArgv.push_back(const_cast<char*>(pszScript));
    for (const std::string& arg : vecArgs) {
        vecArgv.push_back(const_cast<char*>(arg.c_str()));
    }
    vecArgv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        return -1;
    }
    if (pid == 0) {
        ::execvp("python3", vecArgv.data());
        _exit(127);
    }
    int nStatus = 0;
    if (::waitpid(pid, &nStatus, 0) != pid || !WIFEXITED(nStatus)) {
        return -1;
    }
    return WEXITSTATUS(nStatus);
}

// Decodes every line of the file named first as one JSON object and writes, per line, the
// chosen fields to the file named second: the texts as hex of their UTF-8 bytes, so that any
// character survives the trip back, and whether the object has an "ecid". Fails on a line that
// is not JSON, on a file that is not UTF-8, and on a missing field.
const char* const kDecodeJsonLines = R"(
import json, sys
with open(sys.argv[2], "w") as out:
    for line in open(sys.argv[1], encoding="utf-8-sig", newline="\n"):
        o = json.loads(line)
        hexed = [o[k].encode("utf-8").hex() for k in ("message", "q\"k", "source", "line")]
        out.write(" ".join(hexed + [o["type"], str(o["importance"]), str("ecid" in o)]) + "\n")
)";

std::string hexOf(const std::string& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (const unsigned char c : bytes) {
        hex += kDigits[c >> 4];
        hex += kDigits[c & 0xF];
    }
    return hex;
}

class FileLogWriterJsonTest : public FileLogWriterTest {
protected:
    // A writer whose fmtName is looked up in the built-in formats, as a configuration does
    // after its own Formats element.
    Handle<FileLogWriter> makeJson(const std::string& attributes) {
        m_pConfig = std::make_unique<WriterConfig>(
            writerXml(m_dir.path(), "fmtName='JSON' " + attributes), "<Formats/>");
        LogWritersFactory::ConfigChain chain;
        chain.push_back(MessageFormatLoader::getFallbackLoggerFormats());
        const Handle<const LogWritersFactory> hFactory =
            logger_details::LogWritersMan::getLogWritersMan().getLogWritersFactory(
                String(L"FileLogWriter"));
        Handle<LogWriter> hWriter =
            hFactory->create(m_pConfig->writerElement(), chain, LogWriter::WT_SHARED, nullptr);
        return Handle<FileLogWriter>(static_cast<FileLogWriter*>(hWriter.get()));
    }

    void SetUp() override {
        // The thread's ECID, empty here: no context-monitoring client is loaded.
        m_state.pushProperty(String(L"ecid"), logger_details::ECIDLogDeferredPropertyValue(),
                             0xF0000000u);
        m_state.pushProperty(String(L"q\"k"), GDString(L"v\"\\\n"), 100);
    }
};

TEST_F(FileLogWriterJsonTest, EveryLineIsAJsonObjectThatPythonDecodesToTheOriginalText) {
    auto hWriter = makeJson("");
    ASSERT_FALSE(hWriter.isNull());
    const FileLocation location(L"/build/x/project/weblogger/server.cpp", 7);

    std::wstring controls;
    for (wchar_t c = 0; c < 0x20; ++c) {
        controls += c;
    }
    const wchar_t arrLone[] = {L'x', static_cast<wchar_t>(0xD800), L'y'};
    const std::vector<std::wstring> vecTexts = {
        L"say \"hi\" to C:\\dir\\",
        L"a\nb\r\nc\td",
        controls,
        L"\U0001F600 \U00010348 \u00E9\u20AC",
        L"",
    };
    for (const std::wstring& text : vecTexts) {
        hWriter->logMessage(kSevError, GDString(String(text)), m_state, &location);
    }
    // Inserts: broken UTF-8 decodes to U+FFFD; a lone surrogate is replaced when written.
    const GDString tmpl(L"<%1|%2>");
    const GDString badUtf8(
        fromUtf8("bad\xFF\xC3"
                 "!"));
    const GDString lone(String(arrLone, 3));
    hWriter->logMessage(kSevWarning, ReferentialParameterizedMessage(tmpl, badUtf8, lone), m_state,
                        &location);

    const std::string strDecoded = m_dir.file("decoded.txt");
    ASSERT_EQ(runPython(kDecodeJsonLines, {m_dir.file("kiv0.log"), strDecoded}), 0)
        << file("kiv0.log");

    std::vector<std::string> vecExpected;
    const std::string strRest = " " + hexOf("v\"\\\n") + " " + hexOf("filetest") + " " + hexOf("7");
    for (const std::wstring& text : vecTexts) {
        vecExpected.push_back(hexOf(toUtf8(text).std()) + strRest + " ERROR 16 False");
    }
    vecExpected.push_back(hexOf("<bad\xEF\xBF\xBD\xEF\xBF\xBD!|x\xEF\xBF\xBDy>") + strRest +
                          " WARNING 16 False");
    std::istringstream decoded(readFile(strDecoded));
    std::vector<std::string> vecLines;
    for (std::string strLine; std::getline(decoded, strLine);) {
        vecLines.push_back(strLine);
    }
    EXPECT_EQ(vecLines, vecExpected);
}

TEST_F(FileLogWriterJsonTest, JsonMessageAllocatesNothing) {
    clock::ScopedWallClock fake(&fakeClock);
    auto hWriter = makeJson("autoFlush='no'");
    ASSERT_FALSE(hWriter.isNull());
    const FileLocation location(L"/build/x/project/weblogger/server.cpp", 7);
    const GDString message(String(L"quote \" backslash \\ line\n \u0001 \U0001F600 ") +
                           String(40, L'm'));
    hWriter->logMessage(kSevError, message, m_state, &location);
    test::AllocationScope scope;
    for (int i = 0; i < 100; ++i) {  // under 30 KB: within one buffer
        hWriter->logMessage(kSevError, message, m_state, &location);
        if (i % 50 == 49) {  // the once-a-second check runs too
            g_tNow += 1;
        }
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(file("kiv0.log"), kBom);  // all still in the buffer
}

}  // namespace
}  // namespace kiv

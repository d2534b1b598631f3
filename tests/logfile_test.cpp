#include "weblogger/internal/logfile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <string>

#include "support/temp_dir.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

using test::readFile;
using test::TempDir;

String wide(const std::string& path) {
    return fromUtf8(path);
}

void writeText(LogFile& file, const std::string& text) {
    file.write(text.data(), text.size());
}

// Runs body in a child process with the file size limit set to nLimit bytes (SIGXFSZ ignored,
// so that writes past it fail with EFBIG as on a full disk); returns the child's exit code, or
// -1 when it did not exit normally.
template <class Body>
int runWithFileSizeLimit(rlim_t nLimit, Body body) {
    const pid_t nChild = ::fork();
    if (nChild < 0) {
        return -1;
    }
    if (nChild == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{nLimit, RLIM_INFINITY};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) {
            ::_exit(100);
        }
        int nCode = 101;
        try {
            nCode = body();
        } catch (...) {
            nCode = 102;
        }
        ::_exit(nCode);
    }
    int nStatus = 0;
    if (::waitpid(nChild, &nStatus, 0) != nChild || !WIFEXITED(nStatus)) {
        return -1;
    }
    return WEXITSTATUS(nStatus);
}

// Lifts the soft file size limit of the calling (child) process again.
bool liftFileSizeLimit() {
    rlimit limit{RLIM_INFINITY, RLIM_INFINITY};
    return ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

TEST(LogFileTest, NewLogFileIsClosed) {
    LogFile file;
    EXPECT_FALSE(file.isOpen());
    EXPECT_FALSE(file.getFile().isOpen());
}

TEST(LogFileTest, OpenAppendOnMissingFileThrowsAndCreatesNothing) {
    TempDir dir;
    const std::string path = dir.file("missing.log");
    LogFile file;
    try {
        file.openAppend(wide(path));
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(e.getErrno(), ENOENT);
        EXPECT_TRUE(e.getPath().equals(wide(path)));
        EXPECT_EQ(std::string(e.what()),
                  "Cannot open file " + path + ": No such file or directory");
    }
    EXPECT_THROW(file.openAppend(wide(path), 0), FileException);
    EXPECT_FALSE(file.isOpen());
    EXPECT_EQ(::access(path.c_str(), F_OK), -1);
}

TEST(LogFileTest, WritingNothingFromANullPointerLeavesTheFileAsItWas) {
    TempDir dir;
    const std::string path = dir.file("empty.log");
    LogFile file;
    file.openTruncate(wide(path));
    writeText(file, "a");
    file.write(nullptr, 0);
    file.endRecord();
    file.flush();
    EXPECT_EQ(readFile(path), "a");
    file.close();
    EXPECT_THROW(file.write(nullptr, 0), FileException);
}

TEST(LogFileTest, UnflushedBytesReachTheDiskAtFlush) {
    TempDir dir;
    const std::string path = dir.file("flush.log");
    LogFile file;
    file.openTruncate(wide(path));
    writeText(file, "line 1\n");
    EXPECT_EQ(readFile(path), "");
    file.flush();
    EXPECT_EQ(readFile(path), "line 1\n");
    writeText(file, "line 2\n");
    file.flush();
    EXPECT_EQ(readFile(path), "line 1\nline 2\n");
}

TEST(LogFileTest, UnflushedBytesReachTheDiskAtClose) {
    TempDir dir;
    const std::string path = dir.file("close.log");
    LogFile file;
    file.openTruncate(wide(path));
    writeText(file, "closing");
    EXPECT_EQ(readFile(path), "");
    file.close();
    EXPECT_FALSE(file.isOpen());
    EXPECT_EQ(readFile(path), "closing");
}

TEST(LogFileTest, UnflushedBytesReachTheDiskAtDestruction) {
    TempDir dir;
    const std::string path = dir.file("destroy.log");
    {
        LogFile file;
        file.openTruncate(wide(path));
        writeText(file, "destroyed");
        EXPECT_EQ(readFile(path), "");
    }
    EXPECT_EQ(readFile(path), "destroyed");
}

TEST(LogFileTest, CloseOnNeverOpenedLogFileIsHarmless) {
    LogFile file;
    file.close();
    file.close();
    file.flush();
    EXPECT_FALSE(file.isOpen());
}

TEST(LogFileTest, CloseTwiceIsHarmless) {
    TempDir dir;
    LogFile file;
    file.openTruncate(wide(dir.file("twice.log")));
    file.close();
    file.close();
    EXPECT_FALSE(file.isOpen());
}

TEST(LogFileTest, OpenTruncateEmptiesAnExistingFile) {
    TempDir dir;
    const std::string path = dir.write("trunc.log", "old old old");
    LogFile file;
    file.openTruncate(wide(path));
    EXPECT_EQ(readFile(path), "");
    writeText(file, "new");
    file.close();
    EXPECT_EQ(readFile(path), "new");
}

TEST(LogFileTest, OpenAppendContinuesAtTheEnd) {
    TempDir dir;
    const std::string path = dir.write("append.log",
                                       "\xEF\xBB\xBF"
                                       "first\n");
    LogFile file;
    file.openAppend(wide(path));
    writeText(file, "second\n");
    file.close();
    EXPECT_EQ(readFile(path),
              "\xEF\xBB\xBF"
              "first\nsecond\n");
}

TEST(LogFileTest, OpenAppendAtOffsetOverwritesWhatFollows) {
    TempDir dir;
    const std::string path = dir.write("offset.log", "0123456789");
    LogFile file;
    file.openAppend(wide(path), 4);
    writeText(file, "ab");
    file.close();
    EXPECT_EQ(readFile(path), "0123ab6789");

    file.openAppend(wide(path), 8);
    writeText(file, "XYZ");
    file.close();
    EXPECT_EQ(readFile(path), "0123ab67XYZ");
}

TEST(LogFileTest, OpenAppendAtOffsetPastTheEndLeavesAHole) {
    TempDir dir;
    const std::string path = dir.write("hole.log", "ab");
    LogFile file;
    file.openAppend(wide(path), 4);
    writeText(file, "c");
    file.close();
    EXPECT_EQ(readFile(path), std::string("ab\0\0c", 5));
}

TEST(LogFileTest, OpenAppendAtImpossibleOffsetThrowsAndLeavesTheFileClosed) {
    TempDir dir;
    const std::string path = dir.write("bad.log", "ab");
    LogFile file;
    try {
        file.openAppend(wide(path), static_cast<unsigned long>(-1));
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(e.getErrno(), EINVAL);
    }
    EXPECT_FALSE(file.isOpen());
    EXPECT_EQ(readFile(path), "ab");
}

TEST(LogFileTest, GetSizeCountsBufferedBytes) {
    TempDir dir;
    const std::string path = dir.write("size.log", "12345");
    LogFile file;
    file.openAppend(wide(path));
    EXPECT_EQ(file.getSize(), 5);
    writeText(file, "678");
    // The handle alone does not see what the buffer still holds.
    EXPECT_EQ(file.getFile().getSize(BinaryFile::kThrowException), 5);
    EXPECT_EQ(file.getSize(), 8);
    EXPECT_EQ(file.getFile().getSize(BinaryFile::kThrowException), 8);
    writeText(file, "9");
    file.close();
    EXPECT_EQ(readFile(path), "123456789");
}

TEST(LogFileTest, GetSizeOfClosedFileThrows) {
    LogFile file;
    EXPECT_THROW(file.getSize(), FileException);
}

TEST(LogFileTest, WriteToClosedLogFileThrows) {
    TempDir dir;
    const std::string path = dir.file("closed.log");
    LogFile file;
    EXPECT_THROW(writeText(file, "nowhere"), FileException);
    file.openTruncate(wide(path));
    file.close();
    try {
        writeText(file, "late");
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(e.getErrno(), EBADF);
        EXPECT_TRUE(e.getPath().equals(wide(path)));
    }
    // Nothing was kept for the next file.
    file.openTruncate(wide(dir.file("next.log")));
    file.close();
    EXPECT_EQ(readFile(dir.file("next.log")), "");
}

TEST(LogFileTest, OpeningAnotherFileFlushesThePreviousOneIntoItself) {
    TempDir dir;
    const std::string strFirst = dir.file("first.log");
    const std::string strSecond = dir.file("second.log");
    LogFile file;
    file.openTruncate(wide(strFirst));
    writeText(file, "for the first");
    file.openTruncate(wide(strSecond));
    writeText(file, "for the second");
    file.close();
    EXPECT_EQ(readFile(strFirst), "for the first");
    EXPECT_EQ(readFile(strSecond), "for the second");
}

TEST(LogFileTest, RecordLargerThanTheBufferGoesAheadOfItsEnd) {
    TempDir dir;
    const std::string path = dir.file("large.log");
    const std::string large(LogFile::kBufferSize + 10, 'q');
    LogFile file;
    file.openTruncate(wide(path));
    writeText(file, large);
    EXPECT_EQ(readFile(path), large.substr(0, LogFile::kBufferSize));
    file.endRecord();
    EXPECT_EQ(readFile(path), large);
}

TEST(LogFileTest, ManySmallMessagesArriveInOrder) {
    TempDir dir;
    const std::string path = dir.file("many.log");
    std::string expected;
    LogFile file;
    file.openTruncate(wide(path));
    for (int i = 0; i < 20000; ++i) {
        const std::string line = "message " + std::to_string(i) + "\n";
        writeText(file, line);
        expected += line;
    }
    file.close();
    EXPECT_EQ(readFile(path), expected);
}

TEST(LogFileTest, SyncFlushesAndMakesDurable) {
    TempDir dir;
    const std::string path = dir.file("sync.log");
    LogFile file;
    EXPECT_FALSE(file.sync());
    file.openTruncate(wide(path));
    writeText(file, "kept");
    EXPECT_TRUE(file.sync());
    EXPECT_EQ(readFile(path), "kept");
}

TEST(LogFileTest, OpenInMissingDirectoryThrows) {
    TempDir dir;
    LogFile file;
    EXPECT_THROW(file.openTruncate(wide(dir.file("no/such/dir.log"))), FileException);
    EXPECT_FALSE(file.isOpen());
}

// A flush that fails at close (here: the file size limit, as a full disk would) is reported,
// the file is closed all the same, and what the failed write put into the file is cut off
// again: no torn line stays behind for the next writes to glue onto.
TEST(LogFileTest, FailedFlushAtCloseThrowsClosesAndCutsTheTornRecord) {
    TempDir dir;
    const std::string path = dir.file("limited.log");
    const int nCode = runWithFileSizeLimit(100, [&]() -> int {
        LogFile file;
        file.openTruncate(wide(path));
        writeText(file, "whole\n");
        file.flush();
        writeText(file, std::string(150, 'a'));
        try {
            file.close();
            return 1;
        } catch (const FileException& e) {
            if (e.getErrno() != EFBIG) {
                return 2;
            }
        }
        if (file.isOpen() || file.takeDroppedRecords() != 1) {
            return 3;
        }
        if (!liftFileSizeLimit()) {
            return 4;
        }
        file.openAppend(wide(path));
        writeText(file, "tail\n");
        file.close();
        return 0;
    });
    EXPECT_EQ(nCode, 0);
    EXPECT_EQ(readFile(path), "whole\ntail\n");
}

// Writes text as a whole record and flushes it, in one of the two ways the file offers.
using FlushRecord = void (*)(LogFile&, const std::string&);

void writeAndFlush(LogFile& file, const std::string& text) {
    writeText(file, text);
    file.flush();
}

void writeRecordAndFlush(LogFile& file, const std::string& text) {
    file.writeRecordAndFlush(text.data(), text.size());
}

// A failed write keeps the records it could not write (what reached the file is cut off
// again); the file writes nothing more (no system call) until retryWrite succeeds, and then
// writes them whole.
void expectFailedFlushKeepsTheRecordsUntilARetrySucceeds(FlushRecord flushRecord) {
    TempDir dir;
    const std::string path = dir.file("usable.log");
    const int nCode = runWithFileSizeLimit(10, [&]() -> int {
        LogFile file;
        file.openTruncate(wide(path));
        flushRecord(file, "0123\n");
        try {
            flushRecord(file, "456789ABCDEF\n");
            return 1;
        } catch (const FileException& e) {
            if (e.getErrno() != EFBIG) {
                return 2;
            }
        }
        if (!file.isStalled() || readFile(path) != "0123\n") {
            return 3;
        }
        flushRecord(file, "next\n");  // stalled: nothing tried
        if (file.retryWrite() || readFile(path) != "0123\n") {
            return 4;
        }
        if (!liftFileSizeLimit() || !file.retryWrite() || file.isStalled()) {
            return 5;
        }
        if (file.takeDroppedRecords() != 0) {
            return 6;
        }
        flushRecord(file, "last\n");
        return 0;
    });
    EXPECT_EQ(nCode, 0);
    EXPECT_EQ(readFile(path), "0123\n456789ABCDEF\nnext\nlast\n");
}

TEST(LogFileTest, FailedFlushKeepsTheRecordsUntilARetrySucceeds) {
    expectFailedFlushKeepsTheRecordsUntilARetrySucceeds(&writeAndFlush);
}

TEST(LogFileTest, FailedWriteOfAFlushedRecordKeepsItUntilARetrySucceeds) {
    expectFailedFlushKeepsTheRecordsUntilARetrySucceeds(&writeRecordAndFlush);
}

TEST(LogFileTest, RecordWrittenAndFlushedIsInTheFileAtOnceBehindWhatWasBuffered) {
    TempDir dir;
    const std::string path = dir.file("through.log");
    LogFile file;
    file.openTruncate(wide(path));
    writeRecordAndFlush(file, "line 1\n");
    EXPECT_EQ(readFile(path), "line 1\n");
    writeText(file, "line 2\n");
    file.endRecord();
    writeRecordAndFlush(file, "line 3\n");
    EXPECT_EQ(readFile(path), "line 1\nline 2\nline 3\n");
    EXPECT_EQ(file.getSize(), 21);
    file.close();
    EXPECT_EQ(readFile(path), "line 1\nline 2\nline 3\n");
}

TEST(LogFileTest, RecordWrittenAndFlushedToAClosedFileThrowsAndIsNotKept) {
    TempDir dir;
    LogFile file;
    EXPECT_THROW(writeRecordAndFlush(file, "nowhere\n"), FileException);
    file.openTruncate(wide(dir.file("next.log")));
    file.close();
    EXPECT_EQ(readFile(dir.file("next.log")), "");
}

// While stalled the buffer is all that is kept: records that do not fit are dropped whole and
// counted, the others are written when the retry succeeds.
TEST(LogFileTest, StalledFileDropsWholeRecordsBeyondItsBufferAndCountsThem) {
    TempDir dir;
    const std::string path = dir.file("stalled.log");
    const std::string line = std::string(99, 'r') + "\n";
    constexpr int kRecords = 1000;  // 100,000 bytes: more than one buffer
    const int nCode = runWithFileSizeLimit(50, [&]() -> int {
        LogFile file;
        file.openTruncate(wide(path));
        int nKept = 0;
        for (int i = 0; i < kRecords; ++i) {
            writeText(file, line);
            file.endRecord();
            try {
                file.flush();
            } catch (const FileException&) {
            }
        }
        const std::uint64_t nDropped = file.takeDroppedRecords();
        if (!liftFileSizeLimit() || !file.retryWrite()) {
            return 2;
        }
        nKept = kRecords - static_cast<int>(nDropped);
        file.close();
        // The parent checks the file against the count written here.
        return nDropped > 0 && nDropped < kRecords ? nKept % 250 : 250;
    });
    ASSERT_NE(nCode, 250);
    const std::string text = readFile(path);
    ASSERT_EQ(text.size() % line.size(), 0u);
    for (std::size_t i = 0; i < text.size(); i += line.size()) {
        ASSERT_EQ(text.compare(i, line.size(), line), 0) << "torn at " << i;
    }
    EXPECT_EQ(static_cast<int>(text.size() / line.size()) % 250, nCode);
    EXPECT_LE(text.size(), LogFile::kBufferSize);
}

TEST(LogFileTest, DestructorSwallowsAFailedFlush) {
    TempDir dir;
    const std::string path = dir.file("swallow.log");
    const int nCode = runWithFileSizeLimit(4, [&]() -> int {
        {
            LogFile file;
            file.openTruncate(wide(path));
            writeText(file, "too long for the limit");
        }
        return 0;
    });
    EXPECT_EQ(nCode, 0);
    EXPECT_EQ(readFile(path), "");
}

TEST(LogFileTest, NeverOpensThroughASymbolicLink) {
    TempDir dir;
    const std::string victim = dir.write("victim.txt", "precious");
    const std::string link = dir.file("link.log");
    ASSERT_EQ(::symlink(victim.c_str(), link.c_str()), 0);
    LogFile file;
    for (int nOpen = 0; nOpen < 2; ++nOpen) {
        try {
            if (nOpen == 0) {
                file.openTruncate(wide(link));
            } else {
                file.openAppend(wide(link));
            }
            FAIL() << "opened through the link";
        } catch (const FileException& e) {
            EXPECT_EQ(e.getErrno(), ELOOP);
        }
    }
    EXPECT_THROW(file.openFresh(wide(link), 0640, "x", 1), FileException);
    EXPECT_EQ(readFile(victim), "precious");
    struct stat st;
    ASSERT_EQ(::lstat(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode)) << "the link is left where it was";
}

TEST(LogFileTest, NewFileGetsItsModeWhateverTheUmask) {
    TempDir dir;
    for (mode_t nUmask : {mode_t(0), mode_t(077), mode_t(022)}) {
        const mode_t nOld = ::umask(nUmask);
        const std::string path = dir.file("mode" + std::to_string(nUmask) + ".log");
        const std::string created = dir.file("created" + std::to_string(nUmask) + ".log");
        {
            LogFile file;
            file.openTruncate(wide(path), 0640);
            LogFile fresh;
            fresh.openFresh(wide(created), 0640, "x", 1);
        }
        ::umask(nOld);
        struct stat st;
        ASSERT_EQ(::stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0640u) << nUmask;
        ASSERT_EQ(::stat(created.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0640u) << nUmask;
    }
}

}  // namespace
}  // namespace kiv

namespace kiv {
namespace {

TEST(LogFileRecordsTest, RecordWrittenAheadOfItsEndIsCutWhenItsEndCannotFollow) {
    TempDir dir;
    const std::string path = dir.file("ahead.log");
    const std::string large(LogFile::kBufferSize + 100, 'L');
    const int nCode = runWithFileSizeLimit(LogFile::kBufferSize + 50, [&]() -> int {
        LogFile file;
        file.openTruncate(wide(path));
        writeText(file, "small\n");
        file.endRecord();
        writeText(file, large);  // the first part goes ahead of the end
        try {
            file.endRecord();
            return 1;
        } catch (const FileException& e) {
            if (e.getErrno() != EFBIG) {
                return 2;
            }
        }
        if (!file.isStalled() || file.takeDroppedRecords() != 1) {
            return 3;
        }
        if (!liftFileSizeLimit() || !file.retryWrite()) {
            return 4;
        }
        writeText(file, "after\n");
        file.close();
        return 0;
    });
    EXPECT_EQ(nCode, 0);
    EXPECT_EQ(readFile(path), "small\nafter\n");
}

TEST(LogFileRecordsTest, DiscardedRecordLeavesNothingBehind) {
    TempDir dir;
    const std::string path = dir.file("discard.log");
    LogFile file;
    file.openTruncate(wide(path));
    writeText(file, "kept\n");
    file.endRecord();
    writeText(file, "half of a");
    file.discardRecord();
    writeText(file, std::string(LogFile::kBufferSize + 10, 'h'));  // partly in the file already
    file.discardRecord();
    file.close();
    EXPECT_EQ(readFile(path), "kept\n");
}

TEST(LogFileRecordsTest, DetachedFileHandsWhatItHeldToTheNextFile) {
    TempDir dir;
    const std::string strFirst = dir.file("first.log");
    const std::string strNext = dir.file("next.log");
    LogFile file;
    file.openTruncate(wide(strFirst));
    writeText(file, "written\n");
    file.flush();
    writeText(file, "held\n");
    file.endRecord();
    file.detach();
    EXPECT_FALSE(file.isOpen());
    file.openFresh(wide(strNext), 0640, "\xEF\xBB\xBF", 3);
    writeText(file, "more\n");
    file.close();
    EXPECT_EQ(readFile(strFirst), "written\n");
    EXPECT_EQ(readFile(strNext), "\xEF\xBB\xBFheld\nmore\n");
}

TEST(LogFileTest, FreshFileReplacesTheOldOneInsteadOfEmptyingItAndStaysOpen) {
    TempDir dir;
    const std::string first = dir.file("first.log");
    const std::string slot = dir.file("slot.log");
    {
        LogFile old;
        old.openTruncate(wide(slot));
        writeText(old, "old record\n");
        old.close();
    }
    // A reader that still has the old file open keeps reading it whole.
    const int nReader = ::open(slot.c_str(), O_RDONLY);
    ASSERT_GE(nReader, 0);
    LogFile file;
    file.openTruncate(wide(first));
    writeText(file, "tail of the first\n");
    file.endRecord();
    file.openFresh(wide(slot), 0600, "\xEF\xBB\xBF", 3);
    EXPECT_TRUE(file.isOpen());
    EXPECT_EQ(readFile(first), "tail of the first\n");
    EXPECT_EQ(readFile(slot), "\xEF\xBB\xBF") << "the first bytes are on disk at once";
    writeText(file, "new record\n");
    file.close();
    EXPECT_EQ(readFile(slot), "\xEF\xBB\xBFnew record\n");
    char buffer[64] = {};
    const ssize_t nRead = ::read(nReader, buffer, sizeof(buffer));
    ::close(nReader);
    EXPECT_EQ(std::string(buffer, nRead > 0 ? static_cast<std::size_t>(nRead) : 0), "old record\n");
    struct stat st;
    ASSERT_EQ(::stat(slot.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST(LogFileTest, WriteOutWholeRecordsWritesThemAndKeepsTheRecordInProgress) {
    TempDir dir;
    const std::string path = dir.file("whole.log");
    LogFile file;
    file.openTruncate(wide(path));
    writeText(file, "one\n");
    file.endRecord();
    writeText(file, "two\n");
    file.endRecord();
    writeText(file, "thr");
    EXPECT_TRUE(file.writeOutWholeRecords());
    EXPECT_EQ(readFile(path), "one\ntwo\n");
    EXPECT_EQ(file.getBufferedBytes(), 3u);
    // Written once: the buffer no longer holds them.
    writeText(file, "ee\n");
    file.flush();
    EXPECT_EQ(readFile(path), "one\ntwo\nthree\n");
    EXPECT_EQ(file.getFile().getKnownSize(), 14);
}

TEST(LogFileTest, WriteOutWholeRecordsOnAClosedFileIsFalse) {
    LogFile file;
    EXPECT_FALSE(file.writeOutWholeRecords());
    EXPECT_FALSE(file.writeDirect("x", 1));
}

TEST(LogFileTest, WriteDirectGoesPastTheBufferAndCountsAsWritten) {
    TempDir dir;
    const std::string path = dir.file("direct.log");
    LogFile file;
    file.openTruncate(wide(path));
    writeText(file, "buffered\n");
    file.endRecord();
    EXPECT_TRUE(file.writeOutWholeRecords());
    EXPECT_TRUE(file.writeDirect("direct\n", 7));
    writeText(file, "after\n");
    file.close();
    EXPECT_EQ(readFile(path), "buffered\ndirect\nafter\n");
}

TEST(LogFileTest, ForgetBufferedDropsWithoutWritingOrCounting) {
    TempDir dir;
    const std::string path = dir.file("forget.log");
    LogFile file;
    file.openTruncate(wide(path));
    writeText(file, "parent's\n");
    file.endRecord();
    file.forgetBuffered();
    EXPECT_EQ(file.getBufferedBytes(), 0u);
    writeText(file, "child's\n");
    file.close();
    EXPECT_EQ(readFile(path), "child's\n");
    EXPECT_EQ(file.takeDroppedRecords(), 0u);
}

// Records of 100 bytes ("record 00042 ...\n"): 655 fill the buffer, the 656th is handed over.
constexpr int kRecordsPerBuffer = 655;
constexpr std::size_t kRecordBytes = 100;

std::string numberedRecord(int n) {
    std::string text = "record " + std::to_string(100000 + n).substr(1) + " ";
    text.append(kRecordBytes - 1 - text.size(), '.');
    text += '\n';
    return text;
}

// Writes records nFirst to nFirst + nCount - 1 and returns their text.
std::string writeRecords(LogFile& file, int nFirst, int nCount) {
    std::string text;
    for (int n = nFirst; n < nFirst + nCount; ++n) {
        const std::string record = numberedRecord(n);
        writeText(file, record);
        file.endRecord();
        text += record;
    }
    return text;
}

std::string expectedRecords(int nFirst, int nCount) {
    std::string text;
    for (int n = nFirst; n < nFirst + nCount; ++n) {
        text += numberedRecord(n);
    }
    return text;
}

TEST(LogFileHandOffTest, FullBufferIsHandedOffAndReachesTheFileAheadOfEverythingAfterIt) {
    TempDir dir;
    const std::string path = dir.file("handoff.log");
    LogFile file;
    file.openTruncate(wide(path));
    const std::string expected = writeRecords(file, 0, kRecordsPerBuffer + 1);
    // Nobody took the write over: nothing is in the file yet, but its size counts it.
    EXPECT_EQ(readFile(path), "");
    EXPECT_EQ(file.getWrittenSize(), static_cast<long long>(kRecordsPerBuffer * kRecordBytes));
    EXPECT_EQ(file.getFile().getKnownSize(), 0);
    EXPECT_EQ(file.getBufferedBytes(), (kRecordsPerBuffer + 1) * kRecordBytes);
    file.flush();
    EXPECT_TRUE(readFile(path) == expected);
    EXPECT_EQ(file.getWrittenSize(), static_cast<long long>(expected.size()));
    EXPECT_EQ(file.getBufferedBytes(), 0u);
}

TEST(LogFileHandOffTest, HandOffsNobodyTookOverAreWrittenInOrderByTheNextOne) {
    TempDir dir;
    const std::string path = dir.file("several.log");
    LogFile file;
    file.openTruncate(wide(path));
    const std::string expected = writeRecords(file, 0, 5 * kRecordsPerBuffer + 7);
    // Five hand-offs: the first four are in the file, each written by the next; the fifth
    // waits. (Compared as a whole: a mismatch would print half a megabyte.)
    EXPECT_TRUE(readFile(path) == expected.substr(0, 4 * kRecordsPerBuffer * kRecordBytes));
    EXPECT_EQ(file.getBufferedBytes(), (kRecordsPerBuffer + 7) * kRecordBytes);
    file.close();
    EXPECT_TRUE(readFile(path) == expected);
}

TEST(LogFileHandOffTest, DeferredWriteWritesTheHandedOffBufferWhenItEnds) {
    TempDir dir;
    const std::string path = dir.file("deferred.log");
    LogFile file;
    file.openTruncate(wide(path));
    std::string expected;
    {
        LogFile::DeferredWrite deferred(file);
        expected = writeRecords(file, 0, kRecordsPerBuffer);
        deferred.takeOver();
    }
    // No hand-off: nothing to write.
    EXPECT_EQ(readFile(path), "");
    {
        LogFile::DeferredWrite deferred(file);
        expected += writeRecords(file, kRecordsPerBuffer, 1);
        deferred.takeOver();
        EXPECT_EQ(readFile(path), "");
    }
    EXPECT_TRUE(readFile(path) == expected.substr(0, kRecordsPerBuffer * kRecordBytes));
    EXPECT_EQ(file.getBufferedBytes(), kRecordBytes);
    file.flush();
    EXPECT_TRUE(readFile(path) == expected);
}

TEST(LogFileHandOffTest, TrySettleWritesAHandOffNobodyTookOver) {
    TempDir dir;
    const std::string path = dir.file("settle.log");
    LogFile file;
    file.openTruncate(wide(path));
    const std::string expected = writeRecords(file, 0, kRecordsPerBuffer + 1);
    EXPECT_TRUE(file.trySettle());
    EXPECT_TRUE(readFile(path) == expected.substr(0, kRecordsPerBuffer * kRecordBytes));
    EXPECT_TRUE(file.writeOutWholeRecords());
    EXPECT_TRUE(readFile(path) == expected);
}

// The handed-off write fails outside the lock: it leaves nothing torn in the file, and its
// records stay ahead of the ones that came after it until the retry writes them all.
TEST(LogFileHandOffTest, FailedHandedOffWriteKeepsItsRecordsAheadOfTheNewerOnes) {
    TempDir dir;
    const std::string path = dir.file("failed.log");
    const int nCode = runWithFileSizeLimit(1000, [&]() -> int {
        LogFile file;
        file.openTruncate(wide(path));
        {
            LogFile::DeferredWrite deferred(file);
            writeRecords(file, 0, kRecordsPerBuffer + 1);
            deferred.takeOver();
        }
        // The write reached the limit part way and was cut back at once.
        if (readFile(path) != "") {
            return 1;
        }
        writeRecords(file, kRecordsPerBuffer + 1, 10);
        // The failure is found when the file is next needed: stalled, nothing thrown.
        file.flush();
        if (!file.isStalled() || file.getStallErrno() != EFBIG || readFile(path) != "") {
            return 2;
        }
        if (!liftFileSizeLimit() || !file.retryWrite() || file.isStalled()) {
            return 3;
        }
        file.flush();
        return file.takeDroppedRecords() == 0 ? 0 : 4;
    });
    EXPECT_EQ(nCode, 0);
    EXPECT_TRUE(readFile(path) == expectedRecords(0, kRecordsPerBuffer + 11));
}

// A stalled file keeps at most its two buffers; what it cannot write when it is closed is
// dropped and counted, the records of both buffers included.
TEST(LogFileHandOffTest, StalledFileClosedCountsTheRecordsOfBothBuffers) {
    TempDir dir;
    const std::string path = dir.file("closed.log");
    constexpr int kWritten = 3 * kRecordsPerBuffer;
    const int nCode = runWithFileSizeLimit(1000, [&]() -> int {
        LogFile file;
        file.openTruncate(wide(path));
        writeRecords(file, 0, kWritten);
        if (!file.isStalled()) {
            return 1;
        }
        // The second buffer filled up again: the records that did not fit are gone already.
        const std::uint64_t nDroppedWhileStalled = file.takeDroppedRecords();
        if (nDroppedWhileStalled != kWritten - 2 * kRecordsPerBuffer) {
            return 2;
        }
        try {
            file.close();
            return 3;
        } catch (const FileException& e) {
            if (e.getErrno() != EFBIG) {
                return 4;
            }
        }
        return file.takeDroppedRecords() == 2 * kRecordsPerBuffer ? 0 : 5;
    });
    EXPECT_EQ(nCode, 0);
    EXPECT_EQ(readFile(path), "");
}

TEST(LogFileHandOffTest, DetachedFileGivesHeldRecordsToTheNextFileFirst) {
    TempDir dir;
    const std::string first = dir.file("first.log");
    const std::string second = dir.file("second.log");
    const int nCode = runWithFileSizeLimit(1000, [&]() -> int {
        LogFile file;
        file.openTruncate(wide(first));
        writeRecords(file, 0, kRecordsPerBuffer + 1);
        file.flush();
        if (!file.isStalled()) {
            return 1;
        }
        file.detach();
        if (!liftFileSizeLimit()) {
            return 2;
        }
        file.openTruncate(wide(second));
        writeRecords(file, kRecordsPerBuffer + 1, 3);
        file.close();
        return file.takeDroppedRecords() == 0 ? 0 : 3;
    });
    EXPECT_EQ(nCode, 0);
    EXPECT_EQ(readFile(first), "");
    EXPECT_TRUE(readFile(second) == expectedRecords(0, kRecordsPerBuffer + 4));
}

}  // namespace
}  // namespace kiv

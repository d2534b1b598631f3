#include "weblogger/internal/logfile.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
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

TEST(LogFileTest, LargeMessageReachesTheFileWithoutAFlush) {
    TempDir dir;
    const std::string path = dir.file("large.log");
    const std::string large(BufferedOutputStream::s_knDefaultBufferSize + 10, 'q');
    LogFile file;
    file.openTruncate(wide(path));
    writeText(file, large);
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
// the file is closed all the same, and the failed bytes are not written again later.
TEST(LogFileTest, FailedFlushAtCloseThrowsClosesAndDropsTheBytes) {
    TempDir dir;
    const std::string path = dir.file("limited.log");
    const int nCode = runWithFileSizeLimit(100, [&]() -> int {
        LogFile file;
        file.openTruncate(wide(path));
        writeText(file, std::string(150, 'a'));
        try {
            file.close();
            return 1;
        } catch (const FileException& e) {
            if (e.getErrno() != EFBIG) {
                return 2;
            }
        }
        if (file.isOpen()) {
            return 3;
        }
        if (!liftFileSizeLimit()) {
            return 4;
        }
        file.openAppend(wide(path));
        writeText(file, "tail");
        file.close();
        return 0;
    });
    EXPECT_EQ(nCode, 0);
    EXPECT_EQ(readFile(path), std::string(100, 'a') + "tail");
}

TEST(LogFileTest, FailedFlushKeepsTheFileUsable) {
    TempDir dir;
    const std::string path = dir.file("usable.log");
    const int nCode = runWithFileSizeLimit(10, [&]() -> int {
        LogFile file;
        file.openTruncate(wide(path));
        writeText(file, "0123456789ABCDEF");
        try {
            file.flush();
            return 1;
        } catch (const FileException& e) {
            if (e.getErrno() != EFBIG) {
                return 2;
            }
        }
        if (!file.isOpen() || !liftFileSizeLimit()) {
            return 3;
        }
        writeText(file, "|next");
        file.flush();
        return 0;
    });
    EXPECT_EQ(nCode, 0);
    EXPECT_EQ(readFile(path), "0123456789|next");
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
    EXPECT_EQ(readFile(path), "too ");
}

}  // namespace
}  // namespace kiv

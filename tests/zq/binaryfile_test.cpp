#include "zq/webutil/binaryfile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <thread>
#include <utility>

#include "support/temp_dir.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

using test::readFile;
using test::TempDir;

String wide(const std::string& path) {
    return fromUtf8(path);
}

bool writeAll(BinaryFile& file, const std::string& bytes,
              BinaryFile::OnError nOnError = BinaryFile::kThrowException) {
    unsigned long nWritten = 0;
    const bool bOk = file.writeBytes(bytes.data(), bytes.size(), nWritten, nOnError);
    if (bOk) {
        EXPECT_EQ(nWritten, bytes.size());
    }
    return bOk;
}

void openOrFail(BinaryFile& file, const std::string& path, BinaryFile::FileCreation nCreation) {
    ASSERT_TRUE(file.open(wide(path), BinaryFile::kSharedReadWriteAccess, nCreation,
                          BinaryFile::kThrowException, BinaryFile::kHFNone));
}

TEST(BinaryFileTest, EnumerationValuesAreFixed) {
    EXPECT_EQ(BinaryFile::kSharedReadWriteAccess, 15);
    EXPECT_EQ(BinaryFile::kReadAccess | BinaryFile::kWriteAccess | BinaryFile::kShareRead |
                  BinaryFile::kShareWrite,
              15);
    EXPECT_EQ(BinaryFile::kCreateAlways, 1);
    EXPECT_EQ(BinaryFile::kOpenExisting, 2);
    EXPECT_EQ(BinaryFile::kOpenAlways, 3);
    EXPECT_EQ(BinaryFile::kCreateNew, 4);
    EXPECT_EQ(BinaryFile::kReturnFalse, 0);
    EXPECT_EQ(BinaryFile::kThrowException, 65535);
    EXPECT_EQ(BinaryFile::kHFNone, 0);
    EXPECT_EQ(BinaryFile::kSeekSet, 1);
    EXPECT_EQ(BinaryFile::kSeekCur, 2);
    EXPECT_EQ(BinaryFile::kSeekEnd, 3);
}

TEST(BinaryFileTest, NewObjectIsClosed) {
    const BinaryFile file;
    EXPECT_FALSE(file.isOpen());
    EXPECT_EQ(file.getDescriptor(), -1);
    EXPECT_TRUE(file.getPath().empty());
}

TEST(BinaryFileTest, CreateAlwaysCreatesMissingFile) {
    TempDir dir;
    const std::string path = dir.file("new.log");
    BinaryFile file;
    openOrFail(file, path, BinaryFile::kCreateAlways);
    EXPECT_TRUE(file.isOpen());
    EXPECT_TRUE(file.getPath().equals(wide(path)));
    writeAll(file, "abc");
    EXPECT_TRUE(file.close(BinaryFile::kThrowException));
    EXPECT_FALSE(file.isOpen());
    EXPECT_EQ(readFile(path), "abc");
}

TEST(BinaryFileTest, CreateAlwaysEmptiesExistingFile) {
    TempDir dir;
    const std::string path = dir.write("old.log", "previous content");
    BinaryFile file;
    openOrFail(file, path, BinaryFile::kCreateAlways);
    EXPECT_EQ(file.getSize(BinaryFile::kThrowException), 0);
    writeAll(file, "new");
    file.close(BinaryFile::kThrowException);
    EXPECT_EQ(readFile(path), "new");
}

TEST(BinaryFileTest, OpenExistingKeepsContentAndStartsAtOffsetZero) {
    TempDir dir;
    const std::string path = dir.write("keep.log", "0123456789");
    BinaryFile file;
    openOrFail(file, path, BinaryFile::kOpenExisting);
    EXPECT_EQ(file.getPosition(BinaryFile::kThrowException), 0);
    writeAll(file, "ab");
    file.close(BinaryFile::kThrowException);
    EXPECT_EQ(readFile(path), "ab23456789");
}

TEST(BinaryFileTest, OpenExistingOnMissingFileThrowsNamingThePath) {
    TempDir dir;
    const std::string path = dir.file("missing.log");
    BinaryFile file;
    try {
        file.open(wide(path), BinaryFile::kSharedReadWriteAccess, BinaryFile::kOpenExisting,
                  BinaryFile::kThrowException, BinaryFile::kHFNone);
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Cannot open file " + path + ": No such file or directory");
        EXPECT_TRUE(e.getPath().equals(wide(path)));
        EXPECT_EQ(e.getErrno(), ENOENT);
        EXPECT_GT(e.getLine(), 0u);
        EXPECT_NE(std::string(e.getFile()).find("binaryfile.cpp"), std::string::npos);
    }
    EXPECT_FALSE(file.isOpen());
    EXPECT_EQ(::access(path.c_str(), F_OK), -1);
}

TEST(BinaryFileTest, FileExceptionIsAnException) {
    try {
        ZQ_THROW(FileException(L"open file", L"/x/y.log", EACCES));
    } catch (const Exception& e) {
        EXPECT_STREQ(e.what(), "Cannot open file /x/y.log: Permission denied");
        std::unique_ptr<Exception> pCopy(e.clone());
        const auto* pFile = dynamic_cast<const FileException*>(pCopy.get());
        ASSERT_NE(pFile, nullptr);
        EXPECT_EQ(pFile->getErrno(), EACCES);
        EXPECT_TRUE(pFile->getPath().equals(L"/x/y.log"));
    }
}

TEST(BinaryFileTest, ReturnFalseModeReportsFailuresWithoutThrowing) {
    TempDir dir;
    BinaryFile file;
    EXPECT_FALSE(file.open(wide(dir.file("missing.log")), BinaryFile::kSharedReadWriteAccess,
                           BinaryFile::kOpenExisting, BinaryFile::kReturnFalse,
                           BinaryFile::kHFNone));
    EXPECT_FALSE(file.isOpen());
    unsigned long nWritten = 7;
    EXPECT_FALSE(file.writeBytes("x", 1, nWritten, BinaryFile::kReturnFalse));
    EXPECT_EQ(nWritten, 0u);
    EXPECT_FALSE(file.seek(BinaryFile::kSeekSet, 0, BinaryFile::kReturnFalse));
    EXPECT_EQ(file.getSize(BinaryFile::kReturnFalse), -1);
    EXPECT_EQ(file.getPosition(BinaryFile::kReturnFalse), -1);
    EXPECT_FALSE(file.flush(BinaryFile::kReturnFalse));
    EXPECT_FALSE(file.sync(BinaryFile::kReturnFalse));
    EXPECT_TRUE(file.close(BinaryFile::kReturnFalse));
}

TEST(BinaryFileTest, OperationsOnClosedFileThrowBadDescriptor) {
    TempDir dir;
    BinaryFile file;
    openOrFail(file, dir.file("closed.log"), BinaryFile::kCreateAlways);
    file.close(BinaryFile::kThrowException);
    unsigned long nWritten = 0;
    try {
        file.writeBytes("x", 1, nWritten, BinaryFile::kThrowException);
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(e.getErrno(), EBADF);
        EXPECT_EQ(std::string(e.what()),
                  "Cannot write to file " + dir.file("closed.log") + ": Bad file descriptor");
    }
    EXPECT_THROW(file.getSize(BinaryFile::kThrowException), FileException);
    EXPECT_THROW(file.flush(BinaryFile::kThrowException), FileException);
    EXPECT_THROW(file.seek(BinaryFile::kSeekEnd, 0, BinaryFile::kThrowException), FileException);
    // Closing again is not an error.
    EXPECT_TRUE(file.close(BinaryFile::kThrowException));
}

TEST(BinaryFileTest, OpenAlwaysCreatesOrKeeps) {
    TempDir dir;
    const std::string path = dir.file("always.log");
    BinaryFile file;
    openOrFail(file, path, BinaryFile::kOpenAlways);
    writeAll(file, "first");
    file.close(BinaryFile::kThrowException);
    openOrFail(file, path, BinaryFile::kOpenAlways);
    EXPECT_EQ(file.getSize(BinaryFile::kThrowException), 5);
    file.close(BinaryFile::kThrowException);
    EXPECT_EQ(readFile(path), "first");
}

TEST(BinaryFileTest, CreateNewRefusesExistingFile) {
    TempDir dir;
    const std::string path = dir.write("exists.log", "x");
    BinaryFile file;
    try {
        openOrFail(file, path, BinaryFile::kCreateNew);
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(e.getErrno(), EEXIST);
    }
    openOrFail(file, dir.file("fresh.log"), BinaryFile::kCreateNew);
    EXPECT_TRUE(file.isOpen());
}

TEST(BinaryFileTest, SeekEndAppends) {
    TempDir dir;
    const std::string path = dir.write("append.log", "head-");
    BinaryFile file;
    openOrFail(file, path, BinaryFile::kOpenExisting);
    EXPECT_TRUE(file.seek(BinaryFile::kSeekEnd, 0, BinaryFile::kThrowException));
    EXPECT_EQ(file.getPosition(BinaryFile::kThrowException), 5);
    writeAll(file, "tail");
    file.close(BinaryFile::kThrowException);
    EXPECT_EQ(readFile(path), "head-tail");
}

TEST(BinaryFileTest, SeekSetOverwritesAtOffset) {
    TempDir dir;
    const std::string path = dir.write("overwrite.log", "0123456789");
    BinaryFile file;
    openOrFail(file, path, BinaryFile::kOpenExisting);
    EXPECT_TRUE(file.seek(BinaryFile::kSeekSet, 4, BinaryFile::kThrowException));
    writeAll(file, "ab");
    EXPECT_TRUE(file.seek(BinaryFile::kSeekCur, 2, BinaryFile::kThrowException));
    writeAll(file, "c");
    EXPECT_TRUE(file.seek(BinaryFile::kSeekEnd, -1, BinaryFile::kThrowException));
    writeAll(file, "d");
    file.close(BinaryFile::kThrowException);
    EXPECT_EQ(readFile(path), "0123ab67cd");
}

TEST(BinaryFileTest, SeekPastEndLeavesAHole) {
    TempDir dir;
    const std::string path = dir.write("hole.log", "ab");
    BinaryFile file;
    openOrFail(file, path, BinaryFile::kOpenExisting);
    file.seek(BinaryFile::kSeekSet, 5, BinaryFile::kThrowException);
    writeAll(file, "z");
    EXPECT_EQ(file.getSize(BinaryFile::kThrowException), 6);
    file.close(BinaryFile::kThrowException);
    EXPECT_EQ(readFile(path), std::string("ab\0\0\0z", 6));
}

TEST(BinaryFileTest, SeekBeforeStartFails) {
    TempDir dir;
    BinaryFile file;
    openOrFail(file, dir.write("neg.log", "abc"), BinaryFile::kOpenExisting);
    try {
        file.seek(BinaryFile::kSeekSet, -1, BinaryFile::kThrowException);
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(e.getErrno(), EINVAL);
        EXPECT_NE(std::string(e.what()).find("Cannot seek in file "), std::string::npos);
    }
    EXPECT_EQ(file.getPosition(BinaryFile::kThrowException), 0);
}

TEST(BinaryFileTest, GetSizeFollowsWrites) {
    TempDir dir;
    BinaryFile file;
    openOrFail(file, dir.file("size.log"), BinaryFile::kCreateAlways);
    EXPECT_EQ(file.getSize(BinaryFile::kThrowException), 0);
    writeAll(file, std::string(1000, 'x'));
    EXPECT_EQ(file.getSize(BinaryFile::kThrowException), 1000);
    file.seek(BinaryFile::kSeekSet, 10, BinaryFile::kThrowException);
    writeAll(file, "y");
    EXPECT_EQ(file.getSize(BinaryFile::kThrowException), 1000);
}

TEST(BinaryFileTest, LargeWriteArrivesWhole) {
    TempDir dir;
    const std::string path = dir.file("large.log");
    std::string bytes(3 * 1024 * 1024 + 17, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>('a' + i % 26);
    }
    BinaryFile file;
    openOrFail(file, path, BinaryFile::kCreateAlways);
    writeAll(file, bytes);
    file.close(BinaryFile::kThrowException);
    EXPECT_EQ(readFile(path), bytes);
}

TEST(BinaryFileTest, ZeroByteWriteSucceeds) {
    TempDir dir;
    BinaryFile file;
    openOrFail(file, dir.file("empty.log"), BinaryFile::kCreateAlways);
    unsigned long nWritten = 5;
    EXPECT_TRUE(file.writeBytes("", 0, nWritten, BinaryFile::kThrowException));
    EXPECT_EQ(nWritten, 0u);
}

TEST(BinaryFileTest, FlushAndSyncSucceedOnOpenFile) {
    TempDir dir;
    const std::string path = dir.file("sync.log");
    BinaryFile file;
    openOrFail(file, path, BinaryFile::kCreateAlways);
    writeAll(file, "durable");
    EXPECT_TRUE(file.flush(BinaryFile::kThrowException));
    // Nothing is held back in user space: the bytes are visible before any flush or close.
    EXPECT_EQ(readFile(path), "durable");
    EXPECT_TRUE(file.sync(BinaryFile::kThrowException));
}

TEST(BinaryFileTest, DescriptorIsCloseOnExec) {
    TempDir dir;
    BinaryFile file;
    openOrFail(file, dir.file("cloexec.log"), BinaryFile::kCreateAlways);
    const int nFlags = ::fcntl(file.getDescriptor(), F_GETFD);
    ASSERT_GE(nFlags, 0);
    EXPECT_NE(nFlags & FD_CLOEXEC, 0);
}

TEST(BinaryFileTest, NewFileGetsMode0644UnderTheUmask) {
    TempDir dir;
    const mode_t nOldMask = ::umask(022);
    BinaryFile file;
    openOrFail(file, dir.file("mode.log"), BinaryFile::kCreateAlways);
    ::umask(077);
    openOrFail(file, dir.file("private.log"), BinaryFile::kCreateAlways);
    ::umask(nOldMask);
    struct stat st;
    ASSERT_EQ(::stat(dir.file("mode.log").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    ASSERT_EQ(::stat(dir.file("private.log").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST(BinaryFileTest, WidePathIsEncodedAsUtf8) {
    TempDir dir;
    const String path = wide(dir.path()) + L"/\u00FCber-\u65E5\u672C.log";
    BinaryFile file;
    ASSERT_TRUE(file.open(path, BinaryFile::kSharedReadWriteAccess, BinaryFile::kCreateAlways,
                          BinaryFile::kThrowException, BinaryFile::kHFNone));
    file.close(BinaryFile::kThrowException);
    EXPECT_EQ(::access((dir.path() + "/\xC3\xBC"
                                     "ber-\xE6\x97\xA5\xE6\x9C\xAC.log")
                           .c_str(),
                       F_OK),
              0);
}

TEST(BinaryFileTest, PathWithNulIsRefused) {
    TempDir dir;
    String path = wide(dir.file("a"));
    path.append(L'\0');
    path.append(L"b.log");
    BinaryFile file;
    try {
        file.open(path, BinaryFile::kSharedReadWriteAccess, BinaryFile::kCreateAlways,
                  BinaryFile::kThrowException, BinaryFile::kHFNone);
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(e.getErrno(), EINVAL);
    }
    EXPECT_EQ(::access(dir.file("a").c_str(), F_OK), -1);
}

TEST(BinaryFileTest, AccessWithoutReadOrWriteIsRefused) {
    TempDir dir;
    BinaryFile file;
    try {
        file.open(wide(dir.file("x.log")), BinaryFile::kShareRead, BinaryFile::kOpenAlways,
                  BinaryFile::kThrowException, BinaryFile::kHFNone);
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(e.getErrno(), EINVAL);
    }
}

TEST(BinaryFileTest, ReadOnlyTruncationIsRefused) {
    TempDir dir;
    const std::string path = dir.write("ro.log", "keep me");
    BinaryFile file;
    EXPECT_FALSE(file.open(wide(path), BinaryFile::kReadAccess, BinaryFile::kCreateAlways,
                           BinaryFile::kReturnFalse, BinaryFile::kHFNone));
    EXPECT_EQ(readFile(path), "keep me");
}

TEST(BinaryFileTest, WriteToReadOnlyFileFails) {
    TempDir dir;
    BinaryFile file;
    ASSERT_TRUE(file.open(wide(dir.write("ro.log", "abc")), BinaryFile::kReadAccess,
                          BinaryFile::kOpenExisting, BinaryFile::kThrowException,
                          BinaryFile::kHFNone));
    EXPECT_FALSE(writeAll(file, "x", BinaryFile::kReturnFalse));
}

TEST(BinaryFileTest, OpeningADirectoryForWritingFails) {
    TempDir dir;
    BinaryFile file;
    try {
        openOrFail(file, dir.path(), BinaryFile::kOpenExisting);
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(e.getErrno(), EISDIR);
    }
}

TEST(BinaryFileTest, OpenClosesTheFileOpenBefore) {
    TempDir dir;
    BinaryFile file;
    openOrFail(file, dir.file("one.log"), BinaryFile::kCreateAlways);
    const int nFirst = file.getDescriptor();
    openOrFail(file, dir.file("two.log"), BinaryFile::kCreateAlways);
    EXPECT_TRUE(file.getPath().equals(wide(dir.file("two.log"))));
    // The first descriptor was released (and, being the lowest free one, reused).
    EXPECT_EQ(file.getDescriptor(), nFirst);
    EXPECT_FALSE(file.open(wide(dir.file("missing/x.log")), BinaryFile::kSharedReadWriteAccess,
                           BinaryFile::kOpenExisting, BinaryFile::kReturnFalse,
                           BinaryFile::kHFNone));
    EXPECT_FALSE(file.isOpen());
}

TEST(BinaryFileTest, MoveTransfersTheDescriptor) {
    TempDir dir;
    const std::string path = dir.file("move.log");
    BinaryFile first;
    openOrFail(first, path, BinaryFile::kCreateAlways);
    BinaryFile second(std::move(first));
    EXPECT_FALSE(first.isOpen());
    EXPECT_TRUE(second.isOpen());
    writeAll(second, "moved");
    BinaryFile third;
    third = std::move(second);
    EXPECT_FALSE(second.isOpen());
    writeAll(third, "!");
    EXPECT_TRUE(third.getPath().equals(wide(path)));
    third.close(BinaryFile::kThrowException);
    EXPECT_EQ(readFile(path), "moved!");
}

TEST(BinaryFileTest, PermissionDeniedNamesPathAndReason) {
    TempDir dir;
    std::string path;
    int nExpected;
    std::string strReason;
    if (::geteuid() == 0) {
        // root passes permission checks, so take a path that no permission can make valid.
        path = dir.write("plain", "x") + "/x.log";
        nExpected = ENOTDIR;
        strReason = "Not a directory";
    } else {
        const std::string strLocked = dir.file("locked");
        ASSERT_EQ(::mkdir(strLocked.c_str(), 0500), 0);
        path = strLocked + "/x.log";
        nExpected = EACCES;
        strReason = "Permission denied";
    }
    BinaryFile file;
    try {
        openOrFail(file, path, BinaryFile::kCreateAlways);
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(e.getErrno(), nExpected);
        EXPECT_EQ(std::string(e.what()), "Cannot open file " + path + ": " + strReason);
    }
}

// The same refusal for real: a child process without root's bypass (it gives up root for the
// "nobody" account when the tests run as root) cannot create a file in a read-only directory.
TEST(BinaryFileTest, PermissionDeniedForAnUnprivilegedProcess) {
    TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    const std::string strLocked = dir.file("locked");
    ASSERT_EQ(::mkdir(strLocked.c_str(), 0555), 0);
    const std::string path = strLocked + "/x.log";
    const std::string strExpected = "Cannot open file " + path + ": Permission denied";
    const pid_t nChild = ::fork();
    ASSERT_GE(nChild, 0);
    if (nChild == 0) {
        const unsigned kNobody = 65534;
        if (::geteuid() == 0 && (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)) {
            ::_exit(30);
        }
        int nCode = 0;
        try {
            BinaryFile file;
            file.open(wide(path), BinaryFile::kSharedReadWriteAccess, BinaryFile::kCreateAlways,
                      BinaryFile::kThrowException, BinaryFile::kHFNone);
            nCode = 31;
        } catch (const FileException& e) {
            if (e.getErrno() != EACCES) {
                nCode = 32;
            } else if (std::string(e.what()) != strExpected) {
                nCode = 33;
            }
        } catch (...) {
            nCode = 34;
        }
        ::_exit(nCode);
    }
    int nStatus = 0;
    ASSERT_EQ(::waitpid(nChild, &nStatus, 0), nChild);
    ASSERT_TRUE(WIFEXITED(nStatus));
    EXPECT_EQ(WEXITSTATUS(nStatus), 0);
    EXPECT_EQ(::access(path.c_str(), F_OK), -1);
}

// The file size limit makes write(2) fail with EFBIG as a full disk fails with ENOSPC, without
// filling a disk; the child process keeps the limit away from the test runner.
// A handler installed without SA_RESTART makes a write(2) blocked on a full pipe come back early:
// short, or with EINTR when nothing went through yet. writeAll goes on until every byte is
// through, in order. (Whether a signal lands mid-write is up to the scheduler; what is checked
// holds either way.)
TEST(BinaryFileTest, WriteAllGoesOnWhenSignalsInterruptIt) {
    int arrPipe[2];
    ASSERT_EQ(::pipe(arrPipe), 0);
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
    std::string bytes(1 << 20, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>('a' + i % 23);
    }
    int nResult = -1;
    unsigned long nWritten = 0;
    std::thread writer(
        [&] { nResult = BinaryFile::writeAll(arrPipe[1], bytes.data(), bytes.size(), nWritten); });
    std::string received;
    char arrChunk[4096];
    for (int nSignals = 0; received.size() < bytes.size(); ++nSignals) {
        if (nSignals < 200) {
            ::pthread_kill(writer.native_handle(), SIGUSR1);
        }
        const ssize_t nRead = ::read(arrPipe[0], arrChunk, sizeof(arrChunk));
        if (nRead <= 0) {
            ADD_FAILURE() << "read failed: " << nRead;
            break;
        }
        received.append(arrChunk, static_cast<std::size_t>(nRead));
    }
    writer.join();
    ::sigaction(SIGUSR1, &previous, nullptr);
    ::close(arrPipe[0]);
    ::close(arrPipe[1]);
    EXPECT_EQ(nResult, 0);
    EXPECT_EQ(nWritten, bytes.size());
    EXPECT_TRUE(received == bytes);
}

TEST(BinaryFileTest, WriteBeyondFileSizeLimitThrowsAfterPartialWrite) {
    TempDir dir;
    const std::string path = dir.file("limited.log");
    const std::string strExpected = "Cannot write to file " + path + ": File too large";
    const pid_t nChild = ::fork();
    ASSERT_GE(nChild, 0);
    if (nChild == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{100, RLIM_INFINITY};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) {
            ::_exit(20);
        }
        int nCode = 0;
        try {
            BinaryFile file;
            file.open(wide(path), BinaryFile::kSharedReadWriteAccess, BinaryFile::kCreateAlways,
                      BinaryFile::kThrowException, BinaryFile::kHFNone);
            const std::string bytes(300, 'x');
            unsigned long nWritten = 0;
            if (file.writeBytes(bytes.data(), bytes.size(), nWritten, BinaryFile::kReturnFalse)) {
                nCode = 21;
            } else if (nWritten != 100) {
                nCode = 22;
            } else {
                file.writeBytes(bytes.data(), bytes.size(), nWritten, BinaryFile::kThrowException);
                nCode = 23;
            }
        } catch (const FileException& e) {
            if (e.getErrno() != EFBIG) {
                nCode = 24;
            } else if (std::string(e.what()) != strExpected) {
                nCode = 25;
            }
        } catch (...) {
            nCode = 26;
        }
        ::_exit(nCode);
    }
    int nStatus = 0;
    ASSERT_EQ(::waitpid(nChild, &nStatus, 0), nChild);
    ASSERT_TRUE(WIFEXITED(nStatus));
    EXPECT_EQ(WEXITSTATUS(nStatus), 0);
    EXPECT_EQ(readFile(path), std::string(100, 'x'));
}

}  // namespace
}  // namespace kiv

namespace kiv {
namespace {

TEST(BinaryFileNoFollowTest, RefusesLinksAndAnythingButRegularFiles) {
    TempDir dir;
    const std::string victim = dir.write("victim.txt", "keep");
    const std::string link = dir.file("link.log");
    ASSERT_EQ(::symlink(victim.c_str(), link.c_str()), 0);
    const std::string fifo = dir.file("fifo.log");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    BinaryFile file;
    for (BinaryFile::FileCreation nCreation :
         {BinaryFile::kCreateAlways, BinaryFile::kOpenExisting, BinaryFile::kOpenAlways}) {
        try {
            file.open(wide(link), BinaryFile::kSharedReadWriteAccess, nCreation,
                      BinaryFile::kThrowException, BinaryFile::kHFNoFollow);
            FAIL() << "opened through a link";
        } catch (const FileException& e) {
            EXPECT_EQ(e.getErrno(), ELOOP);
        }
        // A FIFO neither blocks the open nor is written.
        try {
            file.open(wide(fifo), BinaryFile::kSharedReadWriteAccess, nCreation,
                      BinaryFile::kThrowException, BinaryFile::kHFNoFollow);
            FAIL() << "opened a FIFO";
        } catch (const FileException& e) {
            EXPECT_EQ(e.getErrno(), EINVAL);
        }
        EXPECT_FALSE(file.isOpen());
    }
    EXPECT_EQ(readFile(victim), "keep");
}

TEST(BinaryFileNoFollowTest, CreationModeSetModeAndTruncate) {
    TempDir dir;
    const std::string path = dir.file("mode.log");
    const mode_t nOldMask = ::umask(077);
    BinaryFile file;
    ASSERT_TRUE(file.open(wide(path), BinaryFile::kSharedReadWriteAccess, BinaryFile::kCreateAlways,
                          BinaryFile::kReturnFalse, BinaryFile::kHFNoFollow, 0640));
    ::umask(nOldMask);
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);  // the umask took the group's bit
    EXPECT_TRUE(file.setMode(0640, BinaryFile::kReturnFalse));
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);

    ASSERT_TRUE(writeAll(file, "0123456789"));
    EXPECT_TRUE(file.truncate(4, BinaryFile::kReturnFalse));
    EXPECT_EQ(file.getKnownSize(), 4);
    EXPECT_EQ(file.getKnownPosition(), 4);
    ASSERT_TRUE(writeAll(file, "ab"));
    file.close(BinaryFile::kReturnFalse);
    EXPECT_EQ(readFile(path), "0123ab");
    EXPECT_FALSE(file.truncate(0, BinaryFile::kReturnFalse));
}

}  // namespace
}  // namespace kiv

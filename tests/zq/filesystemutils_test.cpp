#include "zq/webutil/filesystemutils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>

#include "support/alloc_counter.h"
#include "support/temp_dir.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/binaryfile.h"

namespace kiv {
namespace {

using test::TempDir;

String wide(const std::string& path) {
    return fromUtf8(path);
}

bool isDirectory(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

TEST(FileSystemUtilsTest, CreatesTheWholeHierarchy) {
    TempDir dir;
    const std::string path = dir.file("a/b/c");
    const mode_t nOldMask = ::umask(022);
    EXPECT_TRUE(FileSystemUtils::createDirectoryHierarchy(wide(path)));
    ::umask(nOldMask);
    EXPECT_TRUE(isDirectory(dir.file("a")));
    EXPECT_TRUE(isDirectory(dir.file("a/b")));
    EXPECT_TRUE(isDirectory(path));
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0755u);
}

TEST(FileSystemUtilsTest, ExistingDirectoryIsSuccess) {
    TempDir dir;
    EXPECT_TRUE(FileSystemUtils::createDirectoryHierarchy(wide(dir.path())));
    EXPECT_TRUE(FileSystemUtils::createDirectoryHierarchy(wide(dir.file("x"))));
    EXPECT_TRUE(FileSystemUtils::createDirectoryHierarchy(wide(dir.file("x"))));
    EXPECT_TRUE(FileSystemUtils::createDirectoryHierarchy(L"/"));
}

TEST(FileSystemUtilsTest, ToleratesRepeatedTrailingAndDotComponents) {
    TempDir dir;
    EXPECT_TRUE(FileSystemUtils::createDirectoryHierarchy(wide(dir.path() + "//p//q/")));
    EXPECT_TRUE(isDirectory(dir.file("p/q")));
    EXPECT_TRUE(FileSystemUtils::createDirectoryHierarchy(wide(dir.path() + "/p/./r/../s")));
    EXPECT_TRUE(isDirectory(dir.file("p/r")));
    EXPECT_TRUE(isDirectory(dir.file("p/s")));
}

TEST(FileSystemUtilsTest, RelativePathIsCreatedUnderTheWorkingDirectory) {
    TempDir dir;
    char arrOld[4096];
    ASSERT_NE(::getcwd(arrOld, sizeof(arrOld)), nullptr);
    ASSERT_EQ(::chdir(dir.path().c_str()), 0);
    const bool bOk = FileSystemUtils::createDirectoryHierarchy(L"rel/dir");
    ASSERT_EQ(::chdir(arrOld), 0);
    EXPECT_TRUE(bOk);
    EXPECT_TRUE(isDirectory(dir.file("rel/dir")));
}

TEST(FileSystemUtilsTest, FileInTheWayFails) {
    TempDir dir;
    const std::string strFile = dir.write("blocker", "x");
    EXPECT_FALSE(FileSystemUtils::createDirectoryHierarchy(wide(strFile + "/sub/dir")));
    EXPECT_FALSE(FileSystemUtils::createDirectoryHierarchy(wide(strFile)));
    try {
        FileSystemUtils::createDirectoryHierarchy(wide(strFile + "/sub"), kOnErrorThrow);
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(e.getErrno(), ENOTDIR);
        EXPECT_EQ(std::string(e.what()),
                  "Cannot create directory " + strFile + "/sub: Not a directory");
        EXPECT_TRUE(e.getPath().equals(wide(strFile + "/sub")));
    }
    EXPECT_THROW(FileSystemUtils::createDirectoryHierarchy(wide(strFile), kOnErrorThrow),
                 FileException);
}

// Run in a child process that is not root (it gives up root for the "nobody" account when the
// tests run as root), since root creates directories whatever the permissions say.
TEST(FileSystemUtilsTest, LockedParentFails) {
    TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(dir.file("locked").c_str(), 0555), 0);
    const String path = wide(dir.file("locked/a/b"));
    const pid_t nChild = ::fork();
    ASSERT_GE(nChild, 0);
    if (nChild == 0) {
        const unsigned kNobody = 65534;
        if (::geteuid() == 0 && (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)) {
            ::_exit(30);
        }
        int nCode = 0;
        if (FileSystemUtils::createDirectoryHierarchy(path)) {
            nCode = 31;
        } else {
            try {
                FileSystemUtils::createDirectoryHierarchy(path, kOnErrorThrow);
                nCode = 32;
            } catch (const FileException& e) {
                nCode = e.getErrno() == EACCES ? 0 : 33;
            } catch (...) {
                nCode = 34;
            }
        }
        ::_exit(nCode);
    }
    int nStatus = 0;
    ASSERT_EQ(::waitpid(nChild, &nStatus, 0), nChild);
    ASSERT_TRUE(WIFEXITED(nStatus));
    EXPECT_EQ(WEXITSTATUS(nStatus), 0);
    EXPECT_FALSE(isDirectory(dir.file("locked/a")));
}

TEST(FileSystemUtilsTest, EmptyPathFails) {
    EXPECT_FALSE(FileSystemUtils::createDirectoryHierarchy(L""));
}

TEST(FileSystemUtilsTest, StatsOfMissingFile) {
    TempDir dir;
    FileStats stats;
    stats.bExists = true;
    stats.nSize = 99;
    EXPECT_FALSE(FileSystemUtils::getFileStats(wide(dir.file("none")), stats));
    EXPECT_FALSE(stats.bExists);
    EXPECT_EQ(stats.nSize, 0);
    try {
        FileSystemUtils::getFileStats(wide(dir.file("none")), stats, FileSystemUtils::kResolveLinks,
                                      kOnErrorThrow);
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(e.getErrno(), ENOENT);
        EXPECT_EQ(std::string(e.what()),
                  "Cannot examine " + dir.file("none") + ": No such file or directory");
    }
}

TEST(FileSystemUtilsTest, StatsOfRegularFile) {
    TempDir dir;
    const std::time_t tBefore = std::time(nullptr);
    const std::string path = dir.write("f.log", "12345");
    FileStats stats;
    ASSERT_TRUE(FileSystemUtils::getFileStats(wide(path), stats));
    EXPECT_TRUE(stats.bExists);
    EXPECT_TRUE(stats.bIsRegular);
    EXPECT_FALSE(stats.bIsDirectory);
    EXPECT_FALSE(stats.bIsSymbolicLink);
    EXPECT_EQ(stats.nSize, 5);
    EXPECT_GE(stats.tModified, tBefore - 1);
    EXPECT_LE(stats.tModified, std::time(nullptr) + 1);
    EXPECT_GE(stats.nModifiedNanoseconds, 0);
    EXPECT_LT(stats.nModifiedNanoseconds, 1000000000);
}

TEST(FileSystemUtilsTest, StatsOfDirectory) {
    TempDir dir;
    FileStats stats;
    ASSERT_TRUE(FileSystemUtils::getFileStats(wide(dir.path()), stats));
    EXPECT_TRUE(stats.bExists);
    EXPECT_TRUE(stats.bIsDirectory);
    EXPECT_FALSE(stats.bIsRegular);
}

TEST(FileSystemUtilsTest, StatsFollowSymbolicLinks) {
    TempDir dir;
    const std::string strTarget = dir.write("target.log", "0123456789");
    const std::string strLink = dir.file("link.log");
    ASSERT_EQ(::symlink(strTarget.c_str(), strLink.c_str()), 0);

    FileStats stats;
    ASSERT_TRUE(FileSystemUtils::getFileStats(wide(strLink), stats));
    EXPECT_TRUE(stats.bIsRegular);
    EXPECT_FALSE(stats.bIsSymbolicLink);
    EXPECT_EQ(stats.nSize, 10);

    ASSERT_TRUE(FileSystemUtils::getFileStats(FilePath(wide(strLink)), stats,
                                              FileSystemUtils::kDontResolveLinks));
    EXPECT_TRUE(stats.bIsSymbolicLink);
    EXPECT_FALSE(stats.bIsRegular);
}

TEST(FileSystemUtilsTest, DanglingLinkCountsAsMissingWhenResolved) {
    TempDir dir;
    const std::string strLink = dir.file("dangling");
    ASSERT_EQ(::symlink(dir.file("nowhere").c_str(), strLink.c_str()), 0);
    FileStats stats;
    EXPECT_FALSE(FileSystemUtils::getFileStats(wide(strLink), stats));
    EXPECT_FALSE(stats.bExists);
    EXPECT_TRUE(
        FileSystemUtils::getFileStats(wide(strLink), stats, FileSystemUtils::kDontResolveLinks));
    EXPECT_TRUE(stats.bIsSymbolicLink);
}

TEST(FileSystemUtilsTest, RemoveFile) {
    TempDir dir;
    const std::string path = dir.write("gone.log", "x");
    EXPECT_TRUE(FileSystemUtils::removeFile(wide(path)));
    EXPECT_EQ(::access(path.c_str(), F_OK), -1);
    EXPECT_FALSE(FileSystemUtils::removeFile(wide(path)));
    EXPECT_THROW(FileSystemUtils::removeFile(wide(path), kOnErrorThrow), FileException);
    EXPECT_FALSE(FileSystemUtils::removeFile(wide(dir.path())));
    EXPECT_TRUE(isDirectory(dir.path()));
}

TEST(FilePathTest, SplitsDirectoryAndFileName) {
    const FilePath path(L"/var/log/kiv3.log");
    EXPECT_TRUE(path.getFullPath().equals(L"/var/log/kiv3.log"));
    EXPECT_TRUE(path.getDirectory().getPath().equals(L"/var/log"));
    EXPECT_TRUE(path.getFileName().equals(L"kiv3.log"));
    EXPECT_TRUE(path.getExtension().equals(L"log"));
    EXPECT_FALSE(path.empty());
}

TEST(FilePathTest, EdgeShapes) {
    EXPECT_TRUE(FilePath(L"/kiv.log").getDirectory().getPath().equals(L"/"));
    EXPECT_TRUE(FilePath(L"/kiv.log").getFileName().equals(L"kiv.log"));
    EXPECT_TRUE(FilePath(L"kiv.log").getDirectory().empty());
    EXPECT_TRUE(FilePath(L"kiv.log").getFileName().equals(L"kiv.log"));
    EXPECT_TRUE(FilePath(L"a//b").getDirectory().getPath().equals(L"a"));
    EXPECT_TRUE(FilePath(L"dir/").getFileName().empty());
    EXPECT_TRUE(FilePath(L"dir/noext").getExtension().empty());
    EXPECT_TRUE(FilePath().empty());
}

TEST(FilePathTest, AppendExtendsTheFileName) {
    const FilePath path = FilePath(L"/logs/kiv0.log").append(L".1");
    EXPECT_TRUE(path.getFullPath().equals(L"/logs/kiv0.log.1"));
    EXPECT_TRUE(path.getFileName().equals(L"kiv0.log.1"));
}

TEST(FilePathTest, DirectoryJoinPutsOneSlash) {
    EXPECT_TRUE(DirectoryPath(L"/var/log").join(L"a.log").getFullPath().equals(L"/var/log/a.log"));
    EXPECT_TRUE(DirectoryPath(L"/var/log/").join(L"a.log").getFullPath().equals(L"/var/log/a.log"));
    EXPECT_TRUE(DirectoryPath(L"/").join(L"a.log").getFullPath().equals(L"/a.log"));
    EXPECT_TRUE(DirectoryPath().join(L"a.log").getFullPath().equals(L"a.log"));
    EXPECT_TRUE(FilePath(DirectoryPath(L"logs"), L"b.log").getFullPath().equals(L"logs/b.log"));
}

TEST(FilePathTest, RingFileNamesFromPrefixAndIndex) {
    const DirectoryPath dir(L"/srv/logs");
    const FilePrefix prefix(L"kiv");
    EXPECT_TRUE(
        FilePath(dir, prefix.withIndex(3), L"log").getFullPath().equals(L"/srv/logs/kiv3.log"));
    EXPECT_TRUE(FilePath(dir, prefix.withIndex(4294967295ul), L"log")
                    .getFullPath()
                    .equals(L"/srv/logs/kiv4294967295.log"));
    EXPECT_TRUE(FilePath(dir, prefix.withPart(L"P").withIndex(0), L"log")
                    .getFullPath()
                    .equals(L"/srv/logs/kiv-P-0.log"));
    EXPECT_TRUE(FilePath(dir, FilePrefix(L"plain"), L"").getFullPath().equals(L"/srv/logs/plain"));
    EXPECT_TRUE(prefix.getPrefix().equals(L"kiv"));
    EXPECT_TRUE(FilePrefix().empty());
    EXPECT_TRUE(prefix.withIndex(1) == FilePrefix(L"kiv1"));
}

TEST(FilePathTest, AssignIndexedGivesTheJoinedNameForEveryShape) {
    for (const wchar_t* pszDir : {L"/srv/logs", L"/srv/logs/", L"/", L""}) {
        for (const wchar_t* pszExtension : {L"log", L""}) {
            for (unsigned long nIndex : {0ul, 7ul, 12ul, 4294967295ul}) {
                const DirectoryPath dir(pszDir);
                FilePath path(L"/some/longer/path/that/was/there/before.log");
                path.assignIndexed(dir, String(L"kiv"), nIndex, String(pszExtension));
                const FilePath joined(dir, FilePrefix(L"kiv").withIndex(nIndex), pszExtension);
                EXPECT_TRUE(path == joined) << toUtf8(joined.getFullPath().view()).std();
            }
        }
    }
}

TEST(FilePathTest, AssignIndexedReusesTheStorageOfALongerPath) {
    const DirectoryPath dir(L"/srv/logs");
    const String prefix(L"kiv");
    const String extension(L"log");
    FilePath path;
    path.assignIndexed(dir, prefix, 10, extension);
    test::AllocationScope scope;
    for (unsigned long nIndex = 0; nIndex < 11; ++nIndex) {
        path.assignIndexed(dir, prefix, nIndex, extension);
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_TRUE(path.getFullPath().equals(L"/srv/logs/kiv10.log"));
}

TEST(FileSystemUtilsTest, PathWithANulIsNotExamined) {
    const std::wstring withNul(L"/srv/a\0b.log", 13);
    FileStats stats;
    EXPECT_FALSE(FileSystemUtils::getFileStats(String(std::wstring_view(withNul)), stats,
                                               FileSystemUtils::kDontResolveLinks));
    EXPECT_FALSE(FileSystemUtils::removeFile(String(std::wstring_view(withNul))));
}

TEST(FilePathTest, BuiltPathOpensAsAFile) {
    TempDir dir;
    const FilePath path(DirectoryPath(wide(dir.path() + "/")), FilePrefix(L"kiv").withIndex(7),
                        L"log");
    BinaryFile file;
    EXPECT_TRUE(file.open(path.getFullPath(), BinaryFile::kSharedReadWriteAccess,
                          BinaryFile::kCreateAlways, BinaryFile::kReturnFalse,
                          BinaryFile::kHFNone));
    EXPECT_EQ(::access(dir.file("kiv7.log").c_str(), F_OK), 0);
}

}  // namespace
}  // namespace kiv

namespace kiv {
namespace {

TEST(FileSystemUtilsModeTest,
     CreatedDirectoriesGetTheirModeWhateverTheUmaskExistingOnesKeepTheirs) {
    TempDir dir;
    ASSERT_EQ(::mkdir(dir.file("old").c_str(), 0711), 0);
    const mode_t nOldMask = ::umask(077);
    EXPECT_TRUE(FileSystemUtils::createDirectoryHierarchy(wide(dir.file("old/new/deeper")),
                                                          kOnErrorReturn, 0750));
    ::umask(nOldMask);
    struct stat st;
    ASSERT_EQ(::stat(dir.file("old").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0711u);
    for (const char* pszNew : {"old/new", "old/new/deeper"}) {
        ASSERT_EQ(::stat(dir.file(pszNew).c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0750u) << pszNew;
    }
}

TEST(FileSystemUtilsScanTest, VisitsEveryEntryOnceWithoutFollowingLinks) {
    TempDir dir;
    dir.write("a.log", "12345");
    ASSERT_EQ(::mkdir(dir.file("sub").c_str(), 0700), 0);
    ASSERT_EQ(::symlink(dir.file("a.log").c_str(), dir.file("link.log").c_str()), 0);
    std::string strSeen;
    long long nSizeOfA = -1;
    bool bLinkSeenAsLink = false;
    EXPECT_TRUE(FileSystemUtils::scanDirectory(
        wide(dir.path()), [&](std::string_view name, const FileStats& stats) {
            strSeen += std::string(name) + ";";
            if (name == "a.log") {
                nSizeOfA = stats.bIsRegular ? stats.nSize : -2;
            }
            if (name == "link.log") {
                bLinkSeenAsLink = stats.bIsSymbolicLink && !stats.bIsRegular;
            }
        }));
    EXPECT_EQ(strSeen.size(), std::string("a.log;sub;link.log;").size()) << strSeen;
    EXPECT_EQ(nSizeOfA, 5);
    EXPECT_TRUE(bLinkSeenAsLink);
    EXPECT_FALSE(FileSystemUtils::scanDirectory(wide(dir.file("missing")),
                                                [](std::string_view, const FileStats&) {}));
    EXPECT_THROW(
        FileSystemUtils::scanDirectory(
            wide(dir.file("missing")), [](std::string_view, const FileStats&) {}, kOnErrorThrow),
        FileException);
}

TEST(FileSystemUtilsScanTest, CanonicalPathResolvesLinksAndDots) {
    TempDir dir;
    ASSERT_EQ(::mkdir(dir.file("real").c_str(), 0700), 0);
    ASSERT_EQ(::symlink(dir.file("real").c_str(), dir.file("alias").c_str()), 0);
    String strViaLink;
    String strReal;
    ASSERT_TRUE(FileSystemUtils::getCanonicalPath(wide(dir.file("alias/../alias")), strViaLink));
    ASSERT_TRUE(FileSystemUtils::getCanonicalPath(wide(dir.file("real")), strReal));
    EXPECT_TRUE(strViaLink == strReal);
    EXPECT_FALSE(FileSystemUtils::getCanonicalPath(wide(dir.file("missing")), strReal));
}

TEST(FileSystemUtilsScanTest, OpenFileWhoseNameWasRemovedHasNoLinks) {
    TempDir dir;
    const std::string path = dir.write("gone.log", "x");
    BinaryFile file;
    ASSERT_TRUE(file.open(wide(path), BinaryFile::kSharedReadWriteAccess, BinaryFile::kOpenExisting,
                          BinaryFile::kReturnFalse));
    FileStats before;
    ASSERT_TRUE(FileSystemUtils::getOpenFileStats(file.getDescriptor(), before));
    FileStats named;
    ASSERT_TRUE(FileSystemUtils::getNativeFileStats(path.c_str(), named));
    EXPECT_EQ(before.nLinks, 1u);
    EXPECT_EQ(before.nInode, named.nInode);
    EXPECT_EQ(before.nDevice, named.nDevice);
    ASSERT_EQ(::unlink(path.c_str()), 0);
    FileStats after;
    ASSERT_TRUE(FileSystemUtils::getOpenFileStats(file.getDescriptor(), after));
    EXPECT_EQ(after.nLinks, 0u);
    EXPECT_FALSE(FileSystemUtils::getNativeFileStats(path.c_str(), named));
}

}  // namespace
}  // namespace kiv

// File-system queries and the small path values the rotating file writer builds its names with.
//
// FileSystemUtils reads file statistics, creates a directory with all its missing parents and
// removes files, on POSIX calls. DirectoryPath, FilePrefix and FilePath are plain values: a
// directory, the start of a file name, and a full file path split into directory and name, so
// that "<dir>/<prefix><index>.log" is built without string surgery at the call site. They never
// touch the disk and do not normalise "." or ".." components: a path stays as it was given.
//
// Paths are wide Strings; the system sees their UTF-8 form (NativePath, on the stack).
//
// Thread-safety: the functions of FileSystemUtils may be called from any thread (each is a few
// system calls on its own arguments). The path classes are values, safe to share while nobody
// assigns to them.
#pragma once

#include <ctime>
#include <functional>
#include <string_view>

#include "zq/webkeel/string.h"

namespace kiv {

// What a file-system function does on failure: return false, or throw FileException.
enum FileSystemOnError { kOnErrorReturn = 0, kOnErrorThrow = 1 };

struct FileStats {
    bool bExists = false;
    bool bIsDirectory = false;
    bool bIsRegular = false;
    // Set only when links are not resolved and the path is a symbolic link.
    bool bIsSymbolicLink = false;
    long long nSize = 0;
    std::time_t tModified = 0;
    // The sub-second part of the modification time: files of a ring rotated within the same
    // second are still told apart by it.
    long nModifiedNanoseconds = 0;
    // Which file this is: the same device and inode are the same file, under whatever name.
    unsigned long long nDevice = 0;
    unsigned long long nInode = 0;
    // Names the file has; 0 for an open file whose last name was removed.
    unsigned long long nLinks = 0;
};

class FilePath;

class FileSystemUtils {
public:
    enum LinkHandling { kResolveLinks = 0, kDontResolveLinks = 1 };

    // Fills out and returns true when the path could be examined; false (out reset, bExists
    // false) when it is missing or cannot be examined. With kOnErrorThrow a failure, a missing
    // file included, throws instead.
    static bool getFileStats(const String& path, FileStats& out,
                             LinkHandling nLinks = kResolveLinks,
                             FileSystemOnError nOnError = kOnErrorReturn);
    static bool getFileStats(const FilePath& path, FileStats& out,
                             LinkHandling nLinks = kResolveLinks,
                             FileSystemOnError nOnError = kOnErrorReturn);

    // The same for a path already in the system's form (UTF-8): no conversion, no allocation,
    // for callers that look at the same path again and again.
    static bool getNativeFileStats(const char* pszPath, FileStats& out,
                                   LinkHandling nLinks = kResolveLinks);

    // The statistics of an open file descriptor (fstat); false when it cannot be examined.
    static bool getOpenFileStats(int nFd, FileStats& out);

    // Like mkdir -p: true when the path is a directory afterwards, also when it was one already
    // or another process made it meanwhile. The directories it creates get exactly nMode,
    // whatever the umask; those that existed keep theirs.
    static bool createDirectoryHierarchy(const String& path,
                                         FileSystemOnError nOnError = kOnErrorReturn,
                                         unsigned nMode = 0755);

    // Calls visit once for every entry of the directory but "." and "..", with its name as the
    // system gives it (UTF-8 bytes) and its statistics, links not resolved. One pass over the
    // directory and one examination per entry: the cost grows with what the directory holds.
    // False when the directory cannot be read (entries that vanish meanwhile are skipped).
    static bool scanDirectory(const String& path,
                              const std::function<void(std::string_view, const FileStats&)>& visit,
                              FileSystemOnError nOnError = kOnErrorReturn);

    // The path with every link and "." or ".." resolved (realpath); false when it does not
    // exist.
    static bool getCanonicalPath(const String& path, String& out);

    // Removes a file (not a directory). False when it could not be removed, a missing file
    // included.
    static bool removeFile(const String& path, FileSystemOnError nOnError = kOnErrorReturn);
};

// The start of a file name, such as "kiv" for the files kiv0.log, kiv1.log...
class FilePrefix {
public:
    FilePrefix() = default;
    explicit FilePrefix(const String& prefix) : m_strPrefix(prefix) {}

    const String& getPrefix() const noexcept { return m_strPrefix; }
    bool empty() const noexcept { return m_strPrefix.empty(); }

    // "<prefix>-<part>-": a family of files of its own for one instance ("kiv-P-0.log").
    FilePrefix withPart(const String& part) const;
    // "<prefix><index>" in decimal, without padding.
    FilePrefix withIndex(unsigned long nIndex) const;

    friend bool operator==(const FilePrefix& a, const FilePrefix& b) noexcept {
        return a.m_strPrefix == b.m_strPrefix;
    }

private:
    String m_strPrefix;
};

// A directory. Empty means the current directory: joining gives the bare file name.
class DirectoryPath {
public:
    DirectoryPath() = default;
    explicit DirectoryPath(const String& path) : m_strPath(path) {}

    // The path as given.
    const String& getPath() const noexcept { return m_strPath; }
    bool empty() const noexcept { return m_strPath.empty(); }

    // "<dir>/<fileName>", with one '/' between the two however the directory ended.
    FilePath join(const String& fileName) const;
    // "<dir>/<prefix>.<extension>"; no dot when the extension is empty.
    FilePath join(const FilePrefix& prefix, const String& extension) const;

    friend bool operator==(const DirectoryPath& a, const DirectoryPath& b) noexcept {
        return a.m_strPath == b.m_strPath;
    }

private:
    String m_strPath;
};

// A file path: the directory is everything before the last '/', the file name what follows.
class FilePath {
public:
    FilePath() = default;
    explicit FilePath(const String& fullPath);
    FilePath(const DirectoryPath& directory, const String& fileName);
    FilePath(const DirectoryPath& directory, const FilePrefix& prefix, const String& extension);

    const String& getFullPath() const noexcept { return m_strFullPath; }
    bool empty() const noexcept { return m_strFullPath.empty(); }
    // "/var/log" for "/var/log/kiv0.log", "/" for "/kiv0.log", empty for "kiv0.log".
    DirectoryPath getDirectory() const;
    String getFileName() const;
    // What follows the last '.' of the file name; empty when it has none.
    String getExtension() const;
    // The same path with text added to the file name ("kiv0.log" and ".1" give "kiv0.log.1").
    FilePath append(const String& suffix) const;
    // Makes this the path directory.join(FilePrefix(prefix).withIndex(nIndex), extension)
    // gives, in the storage this path already holds: a ring going round its files allocates
    // nothing once its longest name was built.
    void assignIndexed(const DirectoryPath& directory, const String& prefix, unsigned long nIndex,
                       const String& extension);

    friend bool operator==(const FilePath& a, const FilePath& b) noexcept {
        return a.m_strFullPath == b.m_strFullPath;
    }

private:
    String m_strFullPath;
};

}  // namespace kiv

#include "zq/webutil/filesystemutils.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "zq/webkeel/exception.h"
#include "zq/webkeel/stringbuffer.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/binaryfile.h"
#include "zq/webutil/nativepath.h"

namespace kiv {
namespace {

bool fail(const wchar_t* pszOperation, const String& path, int nErrno, FileSystemOnError nOnError) {
    if (nOnError == kOnErrorThrow) {
        ZQ_THROW(FileException(pszOperation, path, nErrno));
    }
    return false;
}

bool isDirectory(const char* pszPath) {
    struct stat st;
    return ::stat(pszPath, &st) == 0 && S_ISDIR(st.st_mode);
}

void fillStats(const struct stat& st, FileStats& out) {
    out.bExists = true;
    out.bIsDirectory = S_ISDIR(st.st_mode);
    out.bIsRegular = S_ISREG(st.st_mode);
    out.bIsSymbolicLink = S_ISLNK(st.st_mode);
    out.nSize = static_cast<long long>(st.st_size);
    out.tModified = st.st_mtim.tv_sec;
    out.nModifiedNanoseconds = st.st_mtim.tv_nsec;
    out.nDevice = static_cast<unsigned long long>(st.st_dev);
    out.nInode = static_cast<unsigned long long>(st.st_ino);
    out.nLinks = static_cast<unsigned long long>(st.st_nlink);
}

// "<dir>/", with one '/' however the directory ended; nothing for the current directory.
void appendDirectory(String& out, const String& directory) {
    if (directory.empty()) {
        return;
    }
    out.append(directory);
    if (directory[directory.size() - 1] != L'/') {
        out.append(L'/');
    }
}

// ".<extension>"; nothing when the extension is empty.
void appendExtension(String& out, const String& extension) {
    if (!extension.empty()) {
        out.append(L'.').append(extension);
    }
}

}  // namespace

bool FileSystemUtils::getFileStats(const String& path, FileStats& out, LinkHandling nLinks,
                                   FileSystemOnError nOnError) {
    out = FileStats();
    const NativePath strNative(path.view());
    if (!strNative.isValid()) {
        return fail(L"examine", path, EINVAL, nOnError);
    }
    struct stat st;
    const int nResult = nLinks == kDontResolveLinks ? ::lstat(strNative.c_str(), &st)
                                                    : ::stat(strNative.c_str(), &st);
    if (nResult != 0) {
        return fail(L"examine", path, errno, nOnError);
    }
    fillStats(st, out);
    return true;
}

bool FileSystemUtils::getNativeFileStats(const char* pszPath, FileStats& out, LinkHandling nLinks) {
    out = FileStats();
    struct stat st;
    const int nResult = nLinks == kDontResolveLinks ? ::lstat(pszPath, &st) : ::stat(pszPath, &st);
    if (nResult != 0) {
        return false;
    }
    fillStats(st, out);
    return true;
}

bool FileSystemUtils::getOpenFileStats(int nFd, FileStats& out) {
    out = FileStats();
    struct stat st;
    if (nFd < 0 || ::fstat(nFd, &st) != 0) {
        return false;
    }
    fillStats(st, out);
    return true;
}

bool FileSystemUtils::scanDirectory(
    const String& path, const std::function<void(std::string_view, const FileStats&)>& visit,
    FileSystemOnError nOnError) {
    const NativePath strNative(path.view());
    if (!strNative.isValid()) {
        return fail(L"read directory", path, EINVAL, nOnError);
    }
    DIR* pDir = ::opendir(strNative.empty() ? "." : strNative.c_str());
    if (pDir == nullptr) {
        return fail(L"read directory", path, errno, nOnError);
    }
    const int nDirFd = ::dirfd(pDir);
    for (;;) {
        errno = 0;
        const dirent* pEntry = ::readdir(pDir);
        if (pEntry == nullptr) {
            if (errno != 0) {
                const int nErrno = errno;
                ::closedir(pDir);
                return fail(L"read directory", path, nErrno, nOnError);
            }
            break;
        }
        const std::string_view name(pEntry->d_name);
        if (name == "." || name == "..") {
            continue;
        }
        struct stat st;
        if (::fstatat(nDirFd, pEntry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;  // removed meanwhile
        }
        FileStats stats;
        fillStats(st, stats);
        visit(name, stats);
    }
    ::closedir(pDir);
    return true;
}

bool FileSystemUtils::getCanonicalPath(const String& path, String& out) {
    const NativePath strNative(path.view());
    if (!strNative.isValid()) {
        return false;
    }
    char arrResolved[PATH_MAX];
    if (::realpath(strNative.empty() ? "." : strNative.c_str(), arrResolved) == nullptr) {
        return false;
    }
    out = fromUtf8(arrResolved);
    return true;
}

bool FileSystemUtils::getFileStats(const FilePath& path, FileStats& out, LinkHandling nLinks,
                                   FileSystemOnError nOnError) {
    return getFileStats(path.getFullPath(), out, nLinks, nOnError);
}

bool FileSystemUtils::createDirectoryHierarchy(const String& path, FileSystemOnError nOnError,
                                               unsigned nMode) {
    const NativePath strNative(path.view());
    if (!strNative.isValid()) {
        return fail(L"create directory", path, EINVAL, nOnError);
    }
    if (strNative.empty()) {
        return fail(L"create directory", path, ENOENT, nOnError);
    }
    if (isDirectory(strNative.c_str())) {
        return true;
    }
    // Each prefix ending before a '/' and then the whole path, from the top down. Creating what
    // exists fails with EEXIST, which is fine; other failures count only when the prefix is not
    // a directory after all (mkdir may say EACCES or EROFS about a directory that exists).
    std::string strPrefix;
    const std::string_view strPath = strNative.view();
    for (std::size_t nPos = 0; nPos <= strPath.size(); ++nPos) {
        const bool bEnd = nPos == strPath.size();
        if (!bEnd && strPath[nPos] != '/') {
            continue;
        }
        strPrefix.assign(strPath, 0, nPos);
        if (strPrefix.empty() || strPrefix.back() == '/') {
            continue;  // the root, or one of several slashes in a row
        }
        if (::mkdir(strPrefix.c_str(), static_cast<mode_t>(nMode)) == 0) {
            // The umask took bits away; the caller asked for these exactly. Through a
            // descriptor that refuses a link: a directory someone replaced meanwhile is not
            // ours to change.
            const int nDirFd =
                ::open(strPrefix.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (nDirFd >= 0) {
                ::fchmod(nDirFd, static_cast<mode_t>(nMode));
                ::close(nDirFd);
            }
        } else if (errno != EEXIST) {
            const int nErrno = errno;
            if (!isDirectory(strPrefix.c_str())) {
                return fail(L"create directory", path, nErrno, nOnError);
            }
        }
    }
    if (!isDirectory(strNative.c_str())) {
        return fail(L"create directory", path, ENOTDIR, nOnError);
    }
    return true;
}

bool FileSystemUtils::removeFile(const String& path, FileSystemOnError nOnError) {
    const NativePath strNative(path.view());
    if (!strNative.isValid()) {
        return fail(L"remove file", path, EINVAL, nOnError);
    }
    if (::unlink(strNative.c_str()) != 0) {
        return fail(L"remove file", path, errno, nOnError);
    }
    return true;
}

FilePrefix FilePrefix::withPart(const String& part) const {
    String text(m_strPrefix);
    text.append(L'-').append(part).append(L'-');
    return FilePrefix(text);
}

FilePrefix FilePrefix::withIndex(unsigned long nIndex) const {
    StringBufferTemplate<24, wchar_t> digits;
    digits.appendUnsigned(nIndex);
    String text(m_strPrefix);
    text.append(digits.view());
    return FilePrefix(text);
}

FilePath DirectoryPath::join(const String& fileName) const {
    String text;
    appendDirectory(text, m_strPath);
    text.append(fileName);
    return FilePath(text);
}

FilePath DirectoryPath::join(const FilePrefix& prefix, const String& extension) const {
    String text;
    appendDirectory(text, m_strPath);
    text.append(prefix.getPrefix());
    appendExtension(text, extension);
    return FilePath(text);
}

FilePath::FilePath(const String& fullPath) : m_strFullPath(fullPath) {}

void FilePath::assignIndexed(const DirectoryPath& directory, const String& prefix,
                             unsigned long nIndex, const String& extension) {
    StringBufferTemplate<24, wchar_t> digits;
    digits.appendUnsigned(nIndex);
    m_strFullPath.clear();
    appendDirectory(m_strFullPath, directory.getPath());
    m_strFullPath.append(prefix).append(digits.view());
    appendExtension(m_strFullPath, extension);
}

FilePath::FilePath(const DirectoryPath& directory, const String& fileName)
    : FilePath(directory.join(fileName)) {}

FilePath::FilePath(const DirectoryPath& directory, const FilePrefix& prefix,
                   const String& extension)
    : FilePath(directory.join(prefix, extension)) {}

DirectoryPath FilePath::getDirectory() const {
    const std::size_t nSlash = m_strFullPath.rfind(L'/');
    if (nSlash == String::npos) {
        return DirectoryPath();
    }
    // Keep the root's slash (and those of a path like "//x"): an empty text would mean the
    // current directory instead.
    std::size_t nEnd = nSlash;
    while (nEnd > 0 && m_strFullPath[nEnd - 1] == L'/') {
        --nEnd;
    }
    return DirectoryPath(m_strFullPath.substr(0, nEnd == 0 ? 1 : nEnd));
}

String FilePath::getFileName() const {
    const std::size_t nSlash = m_strFullPath.rfind(L'/');
    return nSlash == String::npos ? m_strFullPath : m_strFullPath.substr(nSlash + 1);
}

String FilePath::getExtension() const {
    const String fileName = getFileName();
    const std::size_t nDot = fileName.rfind(L'.');
    return nDot == String::npos ? String() : fileName.substr(nDot + 1);
}

FilePath FilePath::append(const String& suffix) const {
    return FilePath(m_strFullPath + suffix);
}

}  // namespace kiv

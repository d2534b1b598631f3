#include "zq/webutil/filesystemutils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "zq/webkeel/exception.h"
#include "zq/webkeel/stringbuffer.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/binaryfile.h"

namespace kiv {
namespace {

bool fail(const wchar_t* pszOperation, const String& path, int nErrno, FileSystemOnError nOnError) {
    if (nOnError == kOnErrorThrow) {
        ZQ_THROW(FileException(pszOperation, path, nErrno));
    }
    return false;
}

// The UTF-8 form for the system; false when the wide path holds a NUL, which would silently
// cut the name the system sees.
bool toNative(const String& path, NString& out) {
    if (path.find(L'\0') != String::npos) {
        return false;
    }
    out = toUtf8(path.view());
    return true;
}

bool isDirectory(const char* pszPath) {
    struct stat st;
    return ::stat(pszPath, &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

bool FileSystemUtils::getFileStats(const String& path, FileStats& out, LinkHandling nLinks,
                                   FileSystemOnError nOnError) {
    out = FileStats();
    NString strNative;
    if (!toNative(path, strNative)) {
        return fail(L"examine", path, EINVAL, nOnError);
    }
    struct stat st;
    const int nResult = nLinks == kDontResolveLinks ? ::lstat(strNative.c_str(), &st)
                                                    : ::stat(strNative.c_str(), &st);
    if (nResult != 0) {
        return fail(L"examine", path, errno, nOnError);
    }
    out.bExists = true;
    out.bIsDirectory = S_ISDIR(st.st_mode);
    out.bIsRegular = S_ISREG(st.st_mode);
    out.bIsSymbolicLink = S_ISLNK(st.st_mode);
    out.nSize = static_cast<long long>(st.st_size);
    out.tModified = st.st_mtim.tv_sec;
    out.nModifiedNanoseconds = st.st_mtim.tv_nsec;
    return true;
}

bool FileSystemUtils::getFileStats(const FilePath& path, FileStats& out, LinkHandling nLinks,
                                   FileSystemOnError nOnError) {
    return getFileStats(path.getFullPath(), out, nLinks, nOnError);
}

bool FileSystemUtils::createDirectoryHierarchy(const String& path, FileSystemOnError nOnError) {
    NString strNative;
    if (!toNative(path, strNative)) {
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
    const std::string& strPath = strNative.std();
    for (std::size_t nPos = 0; nPos <= strPath.size(); ++nPos) {
        const bool bEnd = nPos == strPath.size();
        if (!bEnd && strPath[nPos] != '/') {
            continue;
        }
        strPrefix.assign(strPath, 0, nPos);
        if (strPrefix.empty() || strPrefix.back() == '/') {
            continue;  // the root, or one of several slashes in a row
        }
        if (::mkdir(strPrefix.c_str(), 0755) != 0 && errno != EEXIST) {
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
    NString strNative;
    if (!toNative(path, strNative)) {
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
    if (m_strPath.empty()) {
        return FilePath(fileName);
    }
    String text(m_strPath);
    if (text[text.size() - 1] != L'/') {
        text.append(L'/');
    }
    text.append(fileName);
    return FilePath(text);
}

FilePath DirectoryPath::join(const FilePrefix& prefix, const String& extension) const {
    String fileName(prefix.getPrefix());
    if (!extension.empty()) {
        fileName.append(L'.').append(extension);
    }
    return join(fileName);
}

FilePath::FilePath(const String& fullPath) : m_strFullPath(fullPath) {}

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

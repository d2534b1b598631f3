#include "zq/webutil/binaryfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "zq/webkeel/gdvalue.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/nativepath.h"

namespace kiv {
namespace {

// strerror_r comes in a GNU flavour (returns the text) and an XSI one (fills the buffer); these
// overloads accept whichever the C library declares.
[[maybe_unused]] const char* pickErrorText(const char* pszText, const char*) {
    return pszText;
}
[[maybe_unused]] const char* pickErrorText(int nResult, const char* pszBuffer) {
    return nResult == 0 ? pszBuffer : "Unknown error";
}

String fileErrorText(const wchar_t* pszOperation, const String& path, int nErrno) {
    String text(L"Cannot ");
    text.append(pszOperation).append(L' ').append(path).append(L": ");
    text.append(systemErrorText(nErrno));
    return text;
}

}  // namespace

String systemErrorText(int nErrno) {
    char arrBuffer[256];
    arrBuffer[0] = 0;
    return fromUtf8(pickErrorText(::strerror_r(nErrno, arrBuffer, sizeof(arrBuffer)), arrBuffer));
}

FileException::FileException(const wchar_t* pszOperation, const String& path, int nErrno)
    : Exception(GDString(fileErrorText(pszOperation, path, nErrno))),
      m_strPath(path),
      m_nErrno(nErrno) {}

BinaryFile::~BinaryFile() {
    close(kReturnFalse);
}

BinaryFile::BinaryFile(BinaryFile&& other) noexcept
    : m_nFd(std::exchange(other.m_nFd, -1)), m_strPath(std::move(other.m_strPath)) {}

BinaryFile& BinaryFile::operator=(BinaryFile&& other) noexcept {
    if (this != &other) {
        close(kReturnFalse);
        m_nFd = std::exchange(other.m_nFd, -1);
        m_strPath = std::move(other.m_strPath);
    }
    return *this;
}

bool BinaryFile::fail(const wchar_t* pszOperation, int nErrno, OnError nOnError) const {
    if (nOnError == kThrowException) {
        ZQ_THROW(FileException(pszOperation, m_strPath, nErrno));
    }
    return false;
}

bool BinaryFile::open(const String& path, FileAccessFlags nAccess, FileCreation nCreation,
                      OnError nOnError, HandleFlags nHandleFlags, unsigned nCreationMode) {
    close(kReturnFalse);
    m_strPath = path;

    const bool bRead = (nAccess & kReadAccess) != 0;
    const bool bWrite = (nAccess & kWriteAccess) != 0;
    int nFlags = O_CLOEXEC;
    if (bRead && bWrite) {
        nFlags |= O_RDWR;
    } else if (bWrite) {
        nFlags |= O_WRONLY;
    } else if (bRead) {
        nFlags |= O_RDONLY;
    } else {
        return fail(L"open file", EINVAL, nOnError);
    }
    switch (nCreation) {
        case kCreateAlways:
            // Linux would truncate a file opened for reading only; refuse that surprise.
            if (!bWrite) {
                return fail(L"open file", EINVAL, nOnError);
            }
            nFlags |= O_CREAT | O_TRUNC;
            break;
        case kOpenExisting:
            break;
        case kOpenAlways:
            nFlags |= O_CREAT;
            break;
        case kCreateNew:
            nFlags |= O_CREAT | O_EXCL;
            break;
        default:
            return fail(L"open file", EINVAL, nOnError);
    }

    const NativePath strNative(path.view());
    if (!strNative.isValid()) {
        return fail(L"open file", EINVAL, nOnError);
    }
    const bool bNoFollow = (nHandleFlags & kHFNoFollow) != 0;
    if (bNoFollow) {
        // O_NONBLOCK only so that a FIFO under the name cannot block the open; a regular file
        // ignores it.
        nFlags |= O_NOFOLLOW | O_NONBLOCK;
    }
    int nFd;
    do {
        nFd = ::open(strNative.c_str(), nFlags, static_cast<mode_t>(nCreationMode));
    } while (nFd < 0 && errno == EINTR);
    if (nFd < 0) {
        return fail(L"open file", errno, nOnError);
    }
    struct stat st;
    const bool bStat = ::fstat(nFd, &st) == 0;
    if (bNoFollow && (!bStat || !S_ISREG(st.st_mode))) {
        ::close(nFd);
        return fail(L"open file", EINVAL, nOnError);
    }
    m_nFd = nFd;
    m_nKnownSize = bStat ? static_cast<long long>(st.st_size) : 0;
    m_nKnownPosition = 0;
    return true;
}

bool BinaryFile::seek(Whence nWhence, long nOffset, OnError nOnError) {
    int nSystemWhence;
    switch (nWhence) {
        case kSeekSet:
            nSystemWhence = SEEK_SET;
            break;
        case kSeekCur:
            nSystemWhence = SEEK_CUR;
            break;
        case kSeekEnd:
            nSystemWhence = SEEK_END;
            break;
        default:
            return fail(L"seek in file", EINVAL, nOnError);
    }
    const off_t nPosition = ::lseek(m_nFd, static_cast<off_t>(nOffset), nSystemWhence);
    if (nPosition < 0) {
        return fail(L"seek in file", errno, nOnError);
    }
    m_nKnownPosition = static_cast<long long>(nPosition);
    return true;
}

long long BinaryFile::getPosition(OnError nOnError) const {
    const off_t nPos = ::lseek(m_nFd, 0, SEEK_CUR);
    if (nPos < 0) {
        fail(L"get the position in file", errno, nOnError);
        return -1;
    }
    return static_cast<long long>(nPos);
}

bool BinaryFile::flush(OnError nOnError) {
    if (m_nFd < 0) {
        return fail(L"flush file", EBADF, nOnError);
    }
    return true;
}

bool BinaryFile::sync(OnError nOnError) {
    int nResult;
    do {
        nResult = ::fdatasync(m_nFd);
    } while (nResult < 0 && errno == EINTR);
    if (nResult < 0) {
        return fail(L"sync file", errno, nOnError);
    }
    return true;
}

long long BinaryFile::getSize(OnError nOnError) const {
    struct stat st;
    if (::fstat(m_nFd, &st) < 0) {
        fail(L"get the size of file", errno, nOnError);
        return -1;
    }
    return static_cast<long long>(st.st_size);
}

int BinaryFile::resumeWrite(int nFd, const void* p, unsigned long n, ssize_t nFirst,
                            unsigned long& nWritten) noexcept {
    nWritten = 0;
    const char* pBytes = static_cast<const char*>(p);
    ssize_t nDone = nFirst;
    while (true) {
        if (nDone < 0) {
            if (errno != EINTR) {
                return errno;
            }
        } else if (nDone == 0) {
            // write(2) returning 0 for a non-empty request would make this loop spin forever.
            return EIO;
        } else {
            nWritten += static_cast<unsigned long>(nDone);
        }
        if (nWritten >= n) {
            return 0;
        }
        const unsigned long nRest = n - nWritten;
        const unsigned long nMaxChunk = static_cast<unsigned long>(SSIZE_MAX);
        nDone = ::write(nFd, pBytes + nWritten, nRest < nMaxChunk ? nRest : nMaxChunk);
    }
}

int BinaryFile::cutAt(int nFd, long long nSize) noexcept {
    int nResult;
    do {
        nResult = ::ftruncate(nFd, static_cast<off_t>(nSize));
    } while (nResult < 0 && errno == EINTR);
    if (nResult < 0 || ::lseek(nFd, static_cast<off_t>(nSize), SEEK_SET) < 0) {
        return errno;
    }
    return 0;
}

bool BinaryFile::truncate(long long nSize, OnError nOnError) {
    if (m_nFd < 0) {
        return fail(L"truncate file", EBADF, nOnError);
    }
    const int nErrno = cutAt(m_nFd, nSize);
    if (nErrno != 0) {
        return fail(L"truncate file", nErrno, nOnError);
    }
    m_nKnownSize = nSize;
    m_nKnownPosition = nSize;
    return true;
}

bool BinaryFile::setMode(unsigned nMode, OnError nOnError) {
    if (::fchmod(m_nFd, static_cast<mode_t>(nMode)) < 0) {
        return fail(L"set the mode of file", errno, nOnError);
    }
    return true;
}

bool BinaryFile::close(OnError nOnError) {
    if (m_nFd < 0) {
        return true;
    }
    // No retry on EINTR: Linux has released the descriptor already, and a retry could close a
    // descriptor another thread has just been given.
    const int nResult = ::close(std::exchange(m_nFd, -1));
    if (nResult < 0 && errno != EINTR) {
        return fail(L"close file", errno, nOnError);
    }
    return true;
}

}  // namespace kiv

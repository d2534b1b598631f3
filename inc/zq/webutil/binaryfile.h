// A file of bytes on a POSIX file descriptor, and the exception the file layer throws.
//
// BinaryFile is what the log files are written through: open with a creation mode, seek, write,
// size, close. Every operation takes an OnError argument: kReturnFalse reports a failure by its
// result (false, or -1 for a size or position), kThrowException throws a FileException naming
// the operation, the path and the system's error text. There is no buffering in user space, so
// flush() has nothing to hand over (write(2) already gave the bytes to the kernel); sync() is
// the separate, slow step that asks the kernel to put them on the disk (fdatasync).
//
// Paths are wide Strings converted to UTF-8 for the system. Files are opened close-on-exec (a
// CGI or helper process the server starts must not inherit its log files). A file that open
// creates gets the creation mode given to open (0644 unless said otherwise) with the process
// umask applied; setMode sets the exact mode afterwards. kHFNoFollow refuses to open through a
// symbolic link (ELOOP) and anything that is not a regular file (EINVAL), without blocking on
// a FIFO planted under the name. The share bits of FileAccessFlags are accepted and ignored:
// POSIX has no share modes, every opener may read and write alongside the others.
//
// Thread-safety: none. One BinaryFile belongs to one owner that serialises its calls (the log
// file's writer lock); a FileException is a value and may travel between threads.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <climits>

#include "zq/webkeel/exception.h"
#include "zq/webkeel/string.h"

namespace kiv {

class FileException : public Exception {
public:
    // "Cannot <operation> <path>: <system error text>"; pszOperation reads like "open file" or
    // "create directory", nErrno is the errno value of the failure.
    FileException(const wchar_t* pszOperation, const String& path, int nErrno);
    const String& getPath() const noexcept { return m_strPath; }
    int getErrno() const noexcept { return m_nErrno; }
    ZQ_EXCEPTION_COMMON(FileException)

private:
    String m_strPath;
    int m_nErrno;
};

// The system's text for an errno value ("Permission denied"), as wide text.
String systemErrorText(int nErrno);

class BinaryFile {
public:
    // Access bits: at least one of read or write. The share bits only say what other openers
    // may do, which POSIX does not enforce; they are kept so that callers state their intent.
    enum FileAccessFlags {
        kReadAccess = 1,
        kWriteAccess = 2,
        kShareRead = 4,
        kShareWrite = 8,
        kSharedReadWriteAccess = 15
    };
    enum FileCreation {
        kCreateAlways = 1,  // create, or empty an existing file
        kOpenExisting = 2,  // fail with ENOENT when the file is missing
        kOpenAlways = 3,    // create when missing, keep the content otherwise
        kCreateNew = 4      // fail with EEXIST when the file exists
    };
    enum OnError { kReturnFalse = 0, kThrowException = 65535 };
    enum HandleFlags { kHFNone = 0, kHFNoFollow = 1 };
    enum Whence { kSeekSet = 1, kSeekCur = 2, kSeekEnd = 3 };

    BinaryFile() noexcept = default;
    // Closes the file, ignoring a failure: a destructor has nobody to report it to.
    ~BinaryFile();
    BinaryFile(const BinaryFile&) = delete;
    BinaryFile& operator=(const BinaryFile&) = delete;
    BinaryFile(BinaryFile&& other) noexcept;
    BinaryFile& operator=(BinaryFile&& other) noexcept;

    // An open file is closed first (ignoring a failure of that close). After a failed open the
    // object is closed.
    bool open(const String& path, FileAccessFlags nAccess, FileCreation nCreation, OnError nOnError,
              HandleFlags nFlags = kHFNone, unsigned nCreationMode = 0644);
    bool isOpen() const noexcept { return m_nFd >= 0; }

    // Seeking past the end is allowed; a later write leaves a hole of zero bytes.
    bool seek(Whence nWhence, long nOffset, OnError nOnError);
    // The current offset, -1 on failure.
    long long getPosition(OnError nOnError) const;

    // Writes all n bytes, resuming after partial writes and interrupted calls. nWritten says
    // how many reached the file, also when the write fails part way (disk full, file size
    // limit, I/O error).
    // Inline down to write(2), failures out of line: a log file that flushes every line calls
    // it once a message, and every frame between the caller and the system call costs a
    // mispredicted return when the call comes back (the kernel's own calls have overwritten
    // the processor's return stack).
    bool writeBytes(const void* p, unsigned long n, unsigned long& nWritten, OnError nOnError) {
        nWritten = 0;
        if (m_nFd < 0) [[unlikely]] {
            return fail(L"write to file", EBADF, nOnError);
        }
        const int nErrno = writeAll(m_nFd, p, n, nWritten);
        // What reached the file counts, also when the write failed part way.
        advanceKnownPosition(nWritten);
        if (nErrno != 0) [[unlikely]] {
            return fail(L"write to file", nErrno, nOnError);
        }
        return true;
    }
    // Nothing is buffered here, so this only checks that the file is open.
    bool flush(OnError nOnError);
    // Waits until the written data is on the disk (fdatasync).
    bool sync(OnError nOnError);

    // The size the system reports for the open file; -1 on failure.
    long long getSize(OnError nOnError) const;
    // The size as this handle knows it, without a system call: read from the system at open,
    // then kept up to date by this handle's own seeks and writes. Another process writing the
    // same file is not seen; for a file only this handle writes it equals getSize.
    long long getKnownSize() const noexcept { return m_nKnownSize; }

    // The position as this handle knows it, without a system call.
    long long getKnownPosition() const noexcept { return m_nKnownPosition; }
    // Cuts the file to nSize bytes and goes on writing there.
    bool truncate(long long nSize, OnError nOnError);

    // Bytes that another thread writes through this file's descriptor with writeAll, counted
    // as written: the known position moves on by n (and the known size with it, when the
    // position passes it). The owner calls it under its own serialisation, as any other call.
    void advanceKnownPosition(unsigned long n) noexcept {
        m_nKnownPosition += static_cast<long long>(n);
        if (m_nKnownPosition > m_nKnownSize) {
            m_nKnownSize = m_nKnownPosition;
        }
    }
    // The system calls behind writeBytes and truncate, on a bare descriptor, touching no
    // BinaryFile: for a thread that writes through a descriptor its owner keeps open meanwhile.
    // They allocate nothing and take no lock. Each returns 0 or the errno value of the failure.
    // writeAll writes all n bytes, resuming after partial writes and interrupted calls; nWritten
    // says how many reached the file. cutAt cuts the file to nSize bytes and moves the offset
    // there.
    static int writeAll(int nFd, const void* p, unsigned long n, unsigned long& nWritten) noexcept {
        // Nearly every call is one write(2) that takes all the bytes: that case runs straight
        // through, and resuming (a partial write, an interruption, a failure) is out of line.
        // After a system call the code runs from cold caches, so its jumps count.
        if (n == 0) [[unlikely]] {
            nWritten = 0;
            return 0;
        }
        const unsigned long nMaxChunk = static_cast<unsigned long>(SSIZE_MAX);
        const ssize_t nDone = ::write(nFd, p, n < nMaxChunk ? n : nMaxChunk);
        if (static_cast<unsigned long>(nDone) == n) [[likely]] {
            nWritten = n;
            return 0;
        }
        return resumeWrite(nFd, p, n, nDone, nWritten);
    }
    static int cutAt(int nFd, long long nSize) noexcept;
    // Sets the permission bits exactly (fchmod), whatever the umask did at creation.
    bool setMode(unsigned nMode, OnError nOnError);

    // Closing a closed file succeeds. The descriptor is released even when close(2) reports an
    // error (on Linux it is gone either way), so the object is closed afterwards in every case.
    bool close(OnError nOnError);

    // The path given to the last open (also after close); empty before the first.
    const String& getPath() const noexcept { return m_strPath; }
    // The descriptor, -1 when closed.
    int getDescriptor() const noexcept { return m_nFd; }

private:
    // The rest of writeAll after a first write(2) of the n bytes that returned nFirst.
    [[gnu::cold, gnu::noinline]] static int resumeWrite(int nFd, const void* p, unsigned long n,
                                                        ssize_t nFirst,
                                                        unsigned long& nWritten) noexcept;
    bool fail(const wchar_t* pszOperation, int nErrno, OnError nOnError) const;

    int m_nFd = -1;
    long long m_nKnownSize = 0;
    long long m_nKnownPosition = 0;
    String m_strPath;
};

}  // namespace kiv

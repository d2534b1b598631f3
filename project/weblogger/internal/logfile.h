// The byte sink of the file writer: one file on disk behind a buffered output stream.
//
// The message writer writes the UTF-8 bytes of each rendered message with write(); the file
// writer opens, flushes and closes the file around its rotation. The two streams are made once
// in the constructor and live as long as the LogFile; only the file is opened and closed again
// and again. Opening, seeking, writing, flushing and sizing throw FileException on any error;
// close() never throws for the close itself, only for the flush before it, and the destructor
// never throws.
//
// Bytes are accepted only while the file is open (write() on a closed LogFile throws), so the
// buffer never holds bytes that would end up in the next file opened.
//
// Thread-safety: none of its own. A LogFile belongs to one writer, whose lock covers every call.
#pragma once

#include <memory>

#include "zq/webkeel/encoding.h"
#include "zq/webkeel/memalloc.h"
#include "zq/webkeel/string.h"
#include "zq/webutil/binaryfile.h"
#include "zq/webutil/outputstream.h"

namespace kiv {

class LogFile : public MemAllocNewdel {
public:
    // The closed file, then the stream over it, then the buffer over that stream.
    LogFile();
    // Flushes an open file (swallowing a failure) and closes it.
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // Each open first closes a file that is still open, flushing its bytes into it.
    // Creates the file, or empties an existing one.
    void openTruncate(const String& path);
    // Opens an existing file (a missing one is not created: FileException, ENOENT) and goes
    // on writing at its end.
    void openAppend(const String& path);
    // The same, writing from the byte offset on and overwriting what follows it; an offset
    // past the end leaves a hole of zero bytes.
    void openAppend(const String& path, unsigned long nOffset);

    void write(const void* p, unsigned long n);
    // Writes wide text as UTF-8, encoding it straight into the buffer: the same bytes as
    // converting first and writing them, without the copy.
    void writeUtf8(const wchar_t* p, std::size_t n) {
        // A message's pieces are short: encode them straight into the buffer, inline.
        constexpr std::size_t kMaxBytesPerChar = 4;
        if (m_file.isOpen() && n <= kInlinePieceChars) {
            if (char* pOut = m_pBufferedStream->reserve(n * kMaxBytesPerChar)) {
                std::size_t nBytes = 0;
                T2NEncodingUTF8<wchar_t>::encode(p, n, pOut, n * kMaxBytesPerChar, nBytes);
                m_pBufferedStream->commit(nBytes);
                return;
            }
        }
        writeUtf8InPieces(p, n);
    }
    // Writes the buffered bytes to the file. Nothing to do when the file is closed, since the
    // buffer is empty then.
    void flush();
    // Flushes (which may throw), then closes without throwing; the file is closed afterwards
    // even when the flush threw. Harmless on a file that is not open.
    void close();

    bool isOpen() const noexcept { return m_file.isOpen(); }
    // The size including the bytes still buffered: they are flushed first. Throws when the
    // file is not open.
    long long getSize();
    // Flushes (which may throw), then waits until the data is on the disk. False when the file
    // is not open or the system could not make the data durable.
    bool sync();

    const BinaryFile& getFile() const noexcept { return m_file; }

private:
    static constexpr std::size_t kInlinePieceChars = 256;
    void writeUtf8InPieces(const wchar_t* p, std::size_t n);

    void openFile(const String& path, BinaryFile::FileCreation nCreation);
    // Throws when the file is closed, naming the operation.
    void requireOpen(const wchar_t* pszOperation) const;

    std::unique_ptr<UnbufferedFileOutputStream> m_pUnBufferedStream;
    std::unique_ptr<BufferedOutputStream> m_pBufferedStream;
    BinaryFile m_file;
};

}  // namespace kiv

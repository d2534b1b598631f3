#include "zq/webutil/outputstream.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/alloc_counter.h"
#include "support/temp_dir.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

using test::readFile;
using test::TempDir;

// Records what reaches it, in order: "w:<bytes>" for a write, "f" for a flush. Capacity is
// reserved ahead so that recording itself does not allocate.
class RecordingStream : public OutputStream {
public:
    RecordingStream() {
        m_vecEvents.reserve(64);
        m_vecPointers.reserve(64);
    }
    void writeData(const void* p, unsigned long n) override {
        m_vecPointers.push_back(p);
        if (m_nFailures > 0) {
            --m_nFailures;
            throw std::runtime_error("inner stream failed");
        }
        m_vecEvents.push_back("w:" + std::string(static_cast<const char*>(p), n));
    }
    void flush() override { m_vecEvents.push_back("f"); }

    std::vector<std::string> m_vecEvents;
    std::vector<const void*> m_vecPointers;
    int m_nFailures = 0;
};

TEST(OutputStreamTest, DefaultBufferSizeIs64KiB) {
    EXPECT_EQ(BufferedOutputStream::s_knDefaultBufferSize, 65536ul);
    RecordingStream inner;
    const BufferedOutputStream stream(inner);
    EXPECT_EQ(stream.getBufferSize(), 65536ul);
    EXPECT_EQ(stream.getBufferedBytes(), 0ul);
}

TEST(OutputStreamTest, SmallWritesStayBufferedUntilFlush) {
    RecordingStream inner;
    BufferedOutputStream stream(inner, 16);
    stream.writeData("abc", 3);
    stream.writeData("def", 3);
    EXPECT_TRUE(inner.m_vecEvents.empty());
    EXPECT_EQ(stream.getBufferedBytes(), 6ul);
    stream.flush();
    EXPECT_EQ(inner.m_vecEvents, (std::vector<std::string>{"w:abcdef", "f"}));
    EXPECT_EQ(stream.getBufferedBytes(), 0ul);
}

TEST(OutputStreamTest, FlushOfEmptyBufferOnlyFlushesInner) {
    RecordingStream inner;
    BufferedOutputStream stream(inner, 16);
    stream.flush();
    EXPECT_EQ(inner.m_vecEvents, (std::vector<std::string>{"f"}));
}

TEST(OutputStreamTest, WriteThatDoesNotFitWritesTheBufferFirst) {
    RecordingStream inner;
    BufferedOutputStream stream(inner, 16);
    stream.writeData("0123456789", 10);
    stream.writeData("ABCDEFGHIJ", 10);
    EXPECT_EQ(inner.m_vecEvents, (std::vector<std::string>{"w:0123456789"}));
    EXPECT_EQ(stream.getBufferedBytes(), 10ul);
    stream.writeData("klmnop", 6);  // fills the buffer exactly
    EXPECT_EQ(inner.m_vecEvents.size(), 1u);
    stream.flush();
    EXPECT_EQ(inner.m_vecEvents,
              (std::vector<std::string>{"w:0123456789", "w:ABCDEFGHIJklmnop", "f"}));
}

TEST(OutputStreamTest, LargeWritePassesThroughWithoutCopy) {
    RecordingStream inner;
    BufferedOutputStream stream(inner, 16);
    stream.writeData("ab", 2);
    const std::string large(40, 'L');
    stream.writeData(large.data(), large.size());
    // The buffered bytes first, then the caller's own bytes, not a copy of them.
    ASSERT_EQ(inner.m_vecEvents.size(), 2u);
    EXPECT_EQ(inner.m_vecEvents[0], "w:ab");
    EXPECT_EQ(inner.m_vecEvents[1], "w:" + large);
    EXPECT_EQ(inner.m_vecPointers[1], static_cast<const void*>(large.data()));
    EXPECT_EQ(stream.getBufferedBytes(), 0ul);

    // A write exactly the buffer's size goes through too.
    const std::string exact(16, 'E');
    stream.writeData(exact.data(), exact.size());
    EXPECT_EQ(inner.m_vecPointers.back(), static_cast<const void*>(exact.data()));
}

TEST(OutputStreamTest, ZeroSizedBufferWritesEverythingThrough) {
    RecordingStream inner;
    BufferedOutputStream stream(inner, 0);
    stream.writeData("a", 1);
    stream.writeData("", 0);
    stream.writeData("b", 1);
    EXPECT_EQ(inner.m_vecEvents, (std::vector<std::string>{"w:a", "w:b"}));
}

TEST(OutputStreamTest, FailedBufferWriteDropsTheBytesAndStaysUsable) {
    RecordingStream inner;
    BufferedOutputStream stream(inner, 16);
    stream.writeData("lost", 4);
    inner.m_nFailures = 1;
    EXPECT_THROW(stream.flush(), std::runtime_error);
    EXPECT_EQ(stream.getBufferedBytes(), 0ul);
    stream.writeData("kept", 4);
    stream.flush();
    // "lost" is neither repeated nor written in front of the next bytes.
    EXPECT_EQ(inner.m_vecEvents, (std::vector<std::string>{"w:kept", "f"}));
}

TEST(OutputStreamTest, FailureWhileMakingRoomDropsBufferAndNewBytes) {
    RecordingStream inner;
    BufferedOutputStream stream(inner, 8);
    stream.writeData("123456", 6);
    inner.m_nFailures = 1;
    EXPECT_THROW(stream.writeData("abcdef", 6), std::runtime_error);
    EXPECT_EQ(stream.getBufferedBytes(), 0ul);
    stream.writeData("xy", 2);
    stream.flush();
    EXPECT_EQ(inner.m_vecEvents, (std::vector<std::string>{"w:xy", "f"}));
}

// Counts the bytes that reach it and keeps nothing.
class CountingStream : public OutputStream {
public:
    void writeData(const void*, unsigned long n) override {
        m_nBytes += n;
        ++m_nWrites;
    }
    void flush() override {}

    unsigned long m_nBytes = 0;
    unsigned long m_nWrites = 0;
};

TEST(OutputStreamTest, WritesAllocateNothing) {
    CountingStream inner;
    BufferedOutputStream stream(inner, 64);
    char arrMessage[10] = {'m', 'e', 's', 's', 'a', 'g', 'e', '!', '\n', 0};
    const test::AllocationScope scope;
    for (int i = 0; i < 1000; ++i) {
        stream.writeData(arrMessage, 9);
    }
    stream.flush();
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(inner.m_nBytes, 9000ul);
    // Seven 9-byte messages fit in 64 bytes: one write per seven messages.
    EXPECT_EQ(inner.m_nWrites, 143ul);
}

TEST(OutputStreamTest, BufferedFileStreamAllocatesNothingPerWrite) {
    TempDir dir;
    BinaryFile file;
    file.open(fromUtf8(dir.file("noalloc.log")), BinaryFile::kSharedReadWriteAccess,
              BinaryFile::kCreateAlways, BinaryFile::kThrowException, BinaryFile::kHFNone);
    UnbufferedFileOutputStream unbuffered(file);
    BufferedOutputStream stream(unbuffered, 256);
    const std::string large(1000, 'z');
    {
        const test::AllocationScope scope;
        for (int i = 0; i < 1000; ++i) {
            stream.writeData("0123456789abcdef", 16);
        }
        stream.writeData(large.data(), large.size());
        stream.flush();
        EXPECT_EQ(scope.count(), 0u);
    }
    EXPECT_EQ(file.getSize(BinaryFile::kThrowException), 16000 + 1000);
}

TEST(OutputStreamTest, UnbufferedFileStreamWritesAtOnce) {
    TempDir dir;
    const std::string path = dir.file("direct.log");
    BinaryFile file;
    file.open(fromUtf8(path), BinaryFile::kSharedReadWriteAccess, BinaryFile::kCreateAlways,
              BinaryFile::kThrowException, BinaryFile::kHFNone);
    UnbufferedFileOutputStream stream(file);
    EXPECT_EQ(&stream.getFile(), &file);
    stream.writeData("now", 3);
    EXPECT_EQ(readFile(path), "now");
    stream.flush();
    EXPECT_EQ(readFile(path), "now");
}

TEST(OutputStreamTest, UnbufferedFileStreamThrowsFileException) {
    BinaryFile file;
    UnbufferedFileOutputStream stream(file);
    try {
        stream.writeData("x", 1);
        FAIL() << "no exception";
    } catch (const FileException& e) {
        EXPECT_EQ(e.getErrno(), EBADF);
    }
    EXPECT_THROW(stream.flush(), FileException);
}

TEST(OutputStreamTest, StreamsAreDestroyedThroughTheInterface) {
    RecordingStream inner;
    std::unique_ptr<OutputStream> pStream(new BufferedOutputStream(inner, 32));
    pStream->writeData("a", 1);
    pStream.reset();
    // The destructor does not flush: the owner decides when bytes go out.
    EXPECT_TRUE(inner.m_vecEvents.empty());
}

}  // namespace
}  // namespace kiv

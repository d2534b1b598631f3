#include "zq/webutil/coutstream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include "support/alloc_counter.h"

namespace kiv {
namespace {

// A pipe whose read end is non-blocking, so that a test can look for bytes that have not
// arrived without hanging.
class Pipe {
public:
    Pipe() {
        EXPECT_EQ(::pipe2(m_arrFds, O_CLOEXEC), 0);
        ::fcntl(m_arrFds[0], F_SETFL, O_NONBLOCK);
    }
    ~Pipe() {
        closeReader();
        closeWriter();
    }
    int reader() const { return m_arrFds[0]; }
    int writer() const { return m_arrFds[1]; }
    void closeReader() {
        if (m_arrFds[0] >= 0) {
            ::close(m_arrFds[0]);
            m_arrFds[0] = -1;
        }
    }
    void closeWriter() {
        if (m_arrFds[1] >= 0) {
            ::close(m_arrFds[1]);
            m_arrFds[1] = -1;
        }
    }
    // Everything available now.
    std::string drain() {
        std::string text;
        char arrChunk[4096];
        for (;;) {
            const ssize_t n = ::read(m_arrFds[0], arrChunk, sizeof(arrChunk));
            if (n <= 0) {
                return text;
            }
            text.append(arrChunk, static_cast<std::size_t>(n));
        }
    }

private:
    int m_arrFds[2] = {-1, -1};
};

// Ignores SIGPIPE for one test, so that writing to a pipe without reader reports EPIPE.
class IgnoreSigpipe {
public:
    IgnoreSigpipe() { m_pfnOld = ::signal(SIGPIPE, SIG_IGN); }
    ~IgnoreSigpipe() { ::signal(SIGPIPE, m_pfnOld); }

private:
    sighandler_t m_pfnOld;
};

TEST(CoutStreamTest, ProcessStreamIsStandardOutput) {
    CoutStream& stream = CoutStream::getCoutStream();
    EXPECT_EQ(stream.getDescriptor(), 1);
    EXPECT_EQ(&stream, &CoutStream::getCoutStream());
}

TEST(CoutStreamTest, BytesArriveOnlyAtFlush) {
    Pipe pipe;
    CoutStream stream(pipe.writer());
    stream.writeBytes("hello ", 6);
    stream.writeBytes("world\n", 6);
    EXPECT_EQ(pipe.drain(), "");
    EXPECT_EQ(stream.getBufferedBytes(), 12ul);
    stream.flush();
    EXPECT_EQ(stream.getBufferedBytes(), 0ul);
    EXPECT_EQ(pipe.drain(), "hello world\n");
    stream.flush();
    EXPECT_EQ(pipe.drain(), "");
}

TEST(CoutStreamTest, FullBufferIsDeliveredBeforeTheWriteThatDoesNotFit) {
    Pipe pipe;
    CoutStream stream(pipe.writer());
    const std::string first(CoutStream::kBufferSize - 4, 'a');
    stream.writeBytes(first.data(), first.size());
    EXPECT_EQ(pipe.drain(), "");
    stream.writeBytes("bbbbbbbb", 8);
    EXPECT_EQ(pipe.drain(), first);
    stream.flush();
    EXPECT_EQ(pipe.drain(), "bbbbbbbb");
}

TEST(CoutStreamTest, LargeWriteGoesThroughInOrder) {
    Pipe pipe;
    std::string received;
    std::string large(200 * 1024, '\0');
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>('A' + i % 26);
    }
    {
        CoutStream stream(pipe.writer());
        stream.writeBytes("<", 1);
        // More than a pipe holds: a reader has to drain while the write goes on.
        std::thread reader([&] {
            const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(30);
            while (received.size() < large.size() + 1 && std::chrono::steady_clock::now() < tEnd) {
                const std::string chunk = pipe.drain();
                if (chunk.empty()) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
                received += chunk;
            }
        });
        stream.writeBytes(large.data(), large.size());
        EXPECT_EQ(stream.getBufferedBytes(), 0ul);
        reader.join();
        stream.writeBytes(">", 1);
    }
    // The destructor flushed the last byte.
    received += pipe.drain();
    EXPECT_EQ(received, "<" + large + ">");
}

TEST(CoutStreamTest, DestructorFlushes) {
    Pipe pipe;
    {
        CoutStream stream(pipe.writer());
        stream.writeBytes("bye", 3);
    }
    EXPECT_EQ(pipe.drain(), "bye");
}

TEST(CoutStreamTest, ClosedPipeIsSwallowed) {
    const IgnoreSigpipe ignore;
    Pipe pipe;
    pipe.closeReader();
    CoutStream stream(pipe.writer());
    stream.writeBytes("nobody listens", 14);
    stream.flush();
    EXPECT_EQ(stream.getBufferedBytes(), 0ul);
    const std::string large(3 * CoutStream::kBufferSize, 'x');
    stream.writeBytes(large.data(), large.size());
    stream.flush();
    EXPECT_EQ(stream.getBufferedBytes(), 0ul);
}

TEST(CoutStreamTest, BadDescriptorIsSwallowed) {
    CoutStream stream(-1);
    stream.writeBytes("lost", 4);
    stream.flush();
    EXPECT_EQ(stream.getBufferedBytes(), 0ul);
}

TEST(CoutStreamTest, FullNonBlockingPipeDropsInsteadOfHanging) {
    Pipe pipe;
    ASSERT_EQ(::fcntl(pipe.writer(), F_SETFL, O_NONBLOCK), 0);
    ::fcntl(pipe.writer(), F_SETPIPE_SZ, 4096);
    CoutStream stream(pipe.writer());
    const std::string large(256 * 1024, 'y');
    const auto tStart = std::chrono::steady_clock::now();
    stream.writeBytes(large.data(), large.size());
    const auto tElapsed = std::chrono::steady_clock::now() - tStart;
    EXPECT_LT(tElapsed, std::chrono::seconds(10));
    const std::string received = pipe.drain();
    EXPECT_LT(received.size(), large.size());
    EXPECT_EQ(received, std::string(received.size(), 'y'));
    // Once there is room again the stream works as before.
    stream.writeBytes("next", 4);
    stream.flush();
    EXPECT_EQ(pipe.drain(), "next");
}

TEST(CoutStreamTest, WritingAllocatesNothing) {
    Pipe pipe;
    CoutStream stream(pipe.writer());
    char arrReceived[64];
    int nShortReads = 0;
    const test::AllocationScope scope;
    for (int i = 0; i < 100; ++i) {
        stream.writeBytes("line of text\n", 13);
        stream.flush();
        if (::read(pipe.reader(), arrReceived, sizeof(arrReceived)) != 13) {
            ++nShortReads;
        }
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(nShortReads, 0);
}

}  // namespace
}  // namespace kiv

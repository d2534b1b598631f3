// The table of live file writers: every file writer is in it from its construction to its
// destruction, a pinned slot is busy for others, and a writer's destructor waits for a pin.
#include "weblogger/internal/livefilewriters.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/temp_dir.h"
#include "support/writer_config.h"
#include "weblogger/internal/filelogwriter.h"

namespace kiv::logger_details {
namespace {

using test::TempDir;
using test::WriterConfig;

std::string writerXml(const std::string& dir) {
    return "<Writer name='table' writerClassId='3' implementation='FileLogWriter' dir='" + dir +
           "'/>";
}

// The slot that holds pWriter, or -1.
int slotOf(const FileLogWriter* pWriter) {
    for (unsigned nSlot = 0; nSlot < LiveFileWriters::getSlotsInUse(); ++nSlot) {
        bool bBusy = false;
        FileLogWriter* pFound = LiveFileWriters::pin(nSlot, bBusy);
        if (pFound != nullptr) {
            LiveFileWriters::unpin(nSlot);
            if (pFound == pWriter) {
                return static_cast<int>(nSlot);
            }
        }
    }
    return -1;
}

TEST(LiveFileWritersTest, FileWriterIsInTheTableWhileItLives) {
    TempDir dir;
    const WriterConfig config(writerXml(dir.path()));
    Handle<LogWriter> hWriter = config.create(L"FileLogWriter");
    ASSERT_FALSE(hWriter.isNull());
    const FileLogWriter* pWriter = static_cast<const FileLogWriter*>(hWriter.get());
    EXPECT_GE(slotOf(pWriter), 0);
    hWriter = Handle<LogWriter>();
    EXPECT_EQ(slotOf(pWriter), -1);
}

TEST(LiveFileWritersTest, PinnedSlotIsBusyForAnotherPin) {
    TempDir dir;
    const WriterConfig config(writerXml(dir.path()));
    Handle<LogWriter> hWriter = config.create(L"FileLogWriter");
    const int nSlot = slotOf(static_cast<FileLogWriter*>(hWriter.get()));
    ASSERT_GE(nSlot, 0);
    bool bBusy = true;
    EXPECT_EQ(LiveFileWriters::pin(static_cast<unsigned>(nSlot), bBusy), hWriter.get());
    EXPECT_FALSE(bBusy);
    EXPECT_EQ(LiveFileWriters::pin(static_cast<unsigned>(nSlot), bBusy), nullptr);
    EXPECT_TRUE(bBusy);
    LiveFileWriters::unpin(static_cast<unsigned>(nSlot));
    EXPECT_EQ(LiveFileWriters::pin(static_cast<unsigned>(nSlot), bBusy), hWriter.get());
    LiveFileWriters::unpin(static_cast<unsigned>(nSlot));
    // Past the table: nothing, and not busy.
    EXPECT_EQ(LiveFileWriters::pin(LiveFileWriters::kCapacity, bBusy), nullptr);
    EXPECT_FALSE(bBusy);
}

TEST(LiveFileWritersTest, DestructorWaitsUntilThePinEnds) {
    TempDir dir;
    const WriterConfig config(writerXml(dir.path()));
    Handle<LogWriter> hWriter = config.create(L"FileLogWriter");
    FileLogWriter* pWriter = static_cast<FileLogWriter*>(hWriter.get());
    const int nSlot = slotOf(pWriter);
    ASSERT_GE(nSlot, 0);
    bool bBusy = false;
    ASSERT_EQ(LiveFileWriters::pin(static_cast<unsigned>(nSlot), bBusy), pWriter);
    std::atomic<bool> bDestroyed{false};
    std::thread destroyer([&] {
        hWriter = Handle<LogWriter>();
        bDestroyed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    // Still usable: its destructor is waiting for the pin.
    EXPECT_FALSE(bDestroyed.load());
    EXPECT_EQ(pWriter->getNumberOfFiles(), 10u);
    LiveFileWriters::unpin(static_cast<unsigned>(nSlot));
    destroyer.join();
    EXPECT_TRUE(bDestroyed.load());
}

TEST(LiveFileWritersTest, SlotsAreReusedAfterWritersGo) {
    TempDir dir;
    const WriterConfig config(writerXml(dir.path()));
    const unsigned nBefore = LiveFileWriters::getSlotsInUse();
    for (int i = 0; i < 50; ++i) {
        Handle<LogWriter> hWriter = config.create(L"FileLogWriter");
        ASSERT_FALSE(hWriter.isNull());
    }
    EXPECT_LE(LiveFileWriters::getSlotsInUse(), nBefore + 1);
}

}  // namespace
}  // namespace kiv::logger_details

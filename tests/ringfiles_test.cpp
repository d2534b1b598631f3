#include "weblogger/ringfiles.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace kiv {
namespace {

using test::TempDir;

// A file of the ring modified at second tModified and nanosecond nNanoseconds.
std::string writeAt(const TempDir& dir, const std::string& name, std::time_t tModified,
                    long nNanoseconds = 0) {
    const std::string path = dir.write(name, "x\n");
    const timespec times[2] = {{tModified, nNanoseconds}, {tModified, nNanoseconds}};
    EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    return path;
}

TEST(RingFilesTest, AWrappedRingStartsAfterItsNewestFile) {
    const TempDir dir;
    writeAt(dir, "kiv0.log", 1000);
    writeAt(dir, "kiv1.log", 1001);
    writeAt(dir, "kiv2.log", 1002);
    writeAt(dir, "kiv3.log", 900);
    writeAt(dir, "kiv4.log", 950);
    EXPECT_EQ(
        ringFilesOldestFirst(dir.path(), "kiv"),
        (std::vector<std::string>{dir.file("kiv3.log"), dir.file("kiv4.log"), dir.file("kiv0.log"),
                                  dir.file("kiv1.log"), dir.file("kiv2.log")}));
}

TEST(RingFilesTest, ARingThatHasNotWrappedIsInIndexOrder) {
    const TempDir dir;
    writeAt(dir, "app0.log", 1000);
    writeAt(dir, "app1.log", 1000, 5);
    writeAt(dir, "app2.log", 1000, 9);
    EXPECT_EQ(ringFilesOldestFirst(dir.path(), "app"),
              (std::vector<std::string>{dir.file("app0.log"), dir.file("app1.log"),
                                        dir.file("app2.log")}));
}

TEST(RingFilesTest, FilesWrittenWithinOneSecondAreOrderedAsTheWriterLeftThem) {
    const TempDir dir;
    // Files 2 and 0 were written within the newest second, in ring order 2 then 0.
    writeAt(dir, "app0.log", 2000);
    writeAt(dir, "app1.log", 1000);
    writeAt(dir, "app2.log", 2000);
    EXPECT_EQ(ringFilesOldestFirst(dir.path(), "app"),
              (std::vector<std::string>{dir.file("app1.log"), dir.file("app2.log"),
                                        dir.file("app0.log")}));
}

TEST(RingFilesTest, OtherFilesAreNotPartOfTheRing) {
    const TempDir dir;
    writeAt(dir, "app0.log", 1000);
    writeAt(dir, "app01.log", 3000);
    writeAt(dir, "app1.txt", 3000);
    writeAt(dir, "other0.log", 3000);
    writeAt(dir, "app-x-0.log", 3000);
    EXPECT_EQ(ringFilesOldestFirst(dir.path(), "app"),
              (std::vector<std::string>{dir.file("app0.log")}));
}

TEST(RingFilesTest, NoRingGivesNoFiles) {
    const TempDir dir;
    EXPECT_TRUE(ringFilesOldestFirst(dir.path(), "app").empty());
    EXPECT_TRUE(ringFilesOldestFirst(dir.file("absent"), "app").empty());
}

}  // namespace
}  // namespace kiv

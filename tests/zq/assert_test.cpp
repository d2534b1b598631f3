#include "zq/webkeel/assert.h"

#include <gtest/gtest.h>

#include <thread>

namespace kiv {
namespace {

unsigned g_nCheckLine = 0;

int checkedIndex(int id) {
    g_nCheckLine = __LINE__ + 1;
    ZQ_ASSERT(id < 10);
    return id < 10 ? id : 0;  // the fallback after a failed check
}

TEST(AssertTest, ReportsLiteralConditionFileAndLineAndGoesOn) {
    AssertionCapture capture;
    EXPECT_EQ(checkedIndex(12), 0);
    const auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].expression, "id < 10");
    EXPECT_NE(entries[0].file.find("assert_test.cpp"), std::string::npos);
    EXPECT_EQ(entries[0].line, g_nCheckLine);
    EXPECT_EQ(entries[0].type, AssertionType::kAssert);
}

TEST(AssertTest, PassingCheckReportsNothing) {
    AssertionCapture capture;
    EXPECT_EQ(checkedIndex(3), 3);
    EXPECT_EQ(capture.count(), 0u);
}

TEST(AssertTest, CapturesReportsFromOtherThreads) {
    AssertionCapture capture;
    std::thread([] { ZQ_ASSERT_FAILURE("false"); }).join();
    EXPECT_TRUE(capture.contains("false"));
}

TEST(AssertTest, NestedCaptureTakesReportsUntilItEnds) {
    AssertionCapture outer;
    {
        AssertionCapture inner;
        ZQ_ASSERT(1 == 2);
        EXPECT_EQ(inner.count(), 1u);
    }
    EXPECT_EQ(outer.count(), 0u);
    ZQ_ASSERT(2 == 3);
    EXPECT_TRUE(outer.contains("2 == 3"));
}

int g_nHandled = 0;
void countingHandler(const AssertionReport&) {
    ++g_nHandled;
}

TEST(AssertTest, InstalledHandlerReceivesReportsWithoutCapture) {
    AssertionHandler previous = setAssertionHandler(&countingHandler);
    ZQ_ASSERT(false);
    setAssertionHandler(previous);
    EXPECT_EQ(g_nHandled, 1);
}

}  // namespace
}  // namespace kiv

#include "weblogger/internal/ringownership.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "support/writer_config.h"
#include "weblogger/internal/filelogwriter.h"

namespace kiv::logger_details {
namespace {

using test::TempDir;
using test::WriterConfig;

std::string writerXml(const std::string& dir, const std::string& prefix) {
    return "<Writer name='" + prefix + "' writerClassId='3' implementation='FileLogWriter' dir='" +
           dir + "' filePrefix='" + prefix + "'/>";
}

class RingOwnershipTest : public ::testing::Test {
protected:
    Handle<LogWriter> make(const std::string& prefix) const {
        return WriterConfig(writerXml(m_dir.path(), prefix)).create(L"FileLogWriter");
    }

    TempDir m_dir;
};

TEST_F(RingOwnershipTest, NoWriterIsBeingReplacedOutsideAHandOverScope) {
    const Handle<LogWriter> hWriter = make("a");
    ASSERT_FALSE(hWriter.isNull());
    EXPECT_FALSE(isBeingReplaced(hWriter.get()));
    const std::vector<Handle<LogWriter>> vecReplaced{hWriter};
    {
        const FileLogWriter::RingHandOver handOver(vecReplaced);
        EXPECT_TRUE(isBeingReplaced(hWriter.get()));
    }
    EXPECT_FALSE(isBeingReplaced(hWriter.get()));
}

TEST_F(RingOwnershipTest, OnlyTheWritersOfTheInnermostScopeAreBeingReplaced) {
    const Handle<LogWriter> hOuter = make("outer");
    const Handle<LogWriter> hInner = make("inner");
    ASSERT_FALSE(hOuter.isNull());
    ASSERT_FALSE(hInner.isNull());
    const std::vector<Handle<LogWriter>> vecOuter{hOuter};
    const std::vector<Handle<LogWriter>> vecInner{hInner};
    const FileLogWriter::RingHandOver outer(vecOuter);
    {
        const FileLogWriter::RingHandOver inner(vecInner);
        EXPECT_TRUE(isBeingReplaced(hInner.get()));
        EXPECT_FALSE(isBeingReplaced(hOuter.get()));
    }
    EXPECT_TRUE(isBeingReplaced(hOuter.get()));
    EXPECT_FALSE(isBeingReplaced(hInner.get()));
}

TEST_F(RingOwnershipTest, RingHasOneOwnerUntilItIsReleased) {
    Handle<LogWriter> hFirst = make("shared");
    ASSERT_FALSE(hFirst.isNull());
    EXPECT_TRUE(make("shared").isNull());
    EXPECT_FALSE(make("other").isNull());
    hFirst.reset();
    EXPECT_FALSE(make("shared").isNull());
}

TEST_F(RingOwnershipTest, WriterBeingReplacedHandsItsRingToItsSuccessor) {
    const Handle<LogWriter> hOld = make("shared");
    ASSERT_FALSE(hOld.isNull());
    const std::vector<Handle<LogWriter>> vecReplaced{hOld};
    Handle<LogWriter> hNew;
    {
        const FileLogWriter::RingHandOver handOver(vecReplaced);
        hNew = make("shared");
    }
    EXPECT_FALSE(hNew.isNull());
}

TEST_F(RingOwnershipTest, HandOverOfAnotherWriterLeavesTheRingRefused) {
    const Handle<LogWriter> hOwner = make("shared");
    const Handle<LogWriter> hUnrelated = make("unrelated");
    ASSERT_FALSE(hOwner.isNull());
    ASSERT_FALSE(hUnrelated.isNull());
    const std::vector<Handle<LogWriter>> vecReplaced{hUnrelated};
    const FileLogWriter::RingHandOver handOver(vecReplaced);
    EXPECT_TRUE(make("shared").isNull());
}

}  // namespace
}  // namespace kiv::logger_details

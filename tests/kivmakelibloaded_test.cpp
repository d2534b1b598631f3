#include "weblogger/kivmakelibloaded.h"

#include <gtest/gtest.h>

namespace kiv {
namespace {

TEST(LibraryLoadedTest, LoadTimeInitialisationHasRun) {
    EXPECT_TRUE(isWebloggerLoaded());
}

TEST(LibraryLoadedTest, VersionIsTheProjectVersion) {
    EXPECT_STREQ(webloggerVersion(), WEBLOGGER_EXPECTED_VERSION);
}

}  // namespace
}  // namespace kiv

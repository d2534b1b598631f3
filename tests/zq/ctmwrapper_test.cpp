#include "zq/webutil/ctmwrapper.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "zq/webkeel/dynamicloader.h"

namespace kiv::performance {
namespace {

// Each test leaves the wrapper as a new process has it, apart from the library it opened.
class CTMWrapperTest : public ::testing::Test {
protected:
    void SetUp() override { unsetenv(CTMWrapper::kLibraryPathVariable); }
    void TearDown() override {
        CTMWrapper::disable();
        unsetenv(CTMWrapper::kLibraryPathVariable);
    }
};

TEST_F(CTMWrapperTest, WithoutAPathOrVariableNothingIsInitialised) {
    CTMWrapper::disable();
    NString strError;
    EXPECT_FALSE(CTMWrapper::initialize(nullptr, &strError));
    EXPECT_FALSE(CTMWrapper::isInitialized());
    EXPECT_NE(std::string(strError.c_str()).find("KIV_CTM_LIBRARY"), std::string::npos);
}

TEST_F(CTMWrapperTest, AGivenPathIsOpenedAndInitialised) {
    NString strError;
    ASSERT_TRUE(CTMWrapper::initialize(WEBCTM_LIBRARY_PATH, &strError)) << strError.c_str();
    EXPECT_TRUE(CTMWrapper::isInitialized());
    ASSERT_NE(CTMWrapper::s_pCTMLib, nullptr);
    EXPECT_NE(DynamicLoader::loadSymbol(CTMWrapper::s_pCTMLib, "qamContextGet", nullptr), nullptr);
}

TEST_F(CTMWrapperTest, TheEnvironmentVariableNamesTheLibraryWhenNoPathIsGiven) {
    setenv(CTMWrapper::kLibraryPathVariable, WEBCTM_LIBRARY_PATH, 1);
    EXPECT_TRUE(CTMWrapper::initialize());
    EXPECT_TRUE(CTMWrapper::isInitialized());
}

TEST_F(CTMWrapperTest, DisableStopsReportingTheClientButKeepsItsHandle) {
    ASSERT_TRUE(CTMWrapper::initialize(WEBCTM_LIBRARY_PATH));
    CTMWrapper::disable();
    EXPECT_FALSE(CTMWrapper::isInitialized());
    EXPECT_NE(CTMWrapper::s_pCTMLib, nullptr);
}

TEST_F(CTMWrapperTest, ALibraryWithoutTheInitialisationFunctionIsRefused) {
    CTMWrapper::disable();
    NString strError;
    // The C library is a shared library, but no context-monitoring client.
    EXPECT_FALSE(CTMWrapper::initialize("libc.so.6", &strError));
    EXPECT_FALSE(CTMWrapper::isInitialized());
    EXPECT_NE(std::string(strError.c_str()).find("qamMeasInitModel"), std::string::npos)
        << strError.c_str();
}

TEST_F(CTMWrapperTest, AMissingLibraryIsRefused) {
    CTMWrapper::disable();
    EXPECT_FALSE(CTMWrapper::initialize("/nonexistent/libwebctm.so"));
    EXPECT_FALSE(CTMWrapper::isInitialized());
}

}  // namespace
}  // namespace kiv::performance

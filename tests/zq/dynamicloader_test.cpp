#include "zq/webkeel/dynamicloader.h"

#include <gtest/gtest.h>

namespace kiv {
namespace {

TEST(DynamicLoaderTest, OpensALibraryAndFindsAFunctionByName) {
    NString strError;
    void* hLib = DynamicLoader::loadLibrary(WEBCTM_LIBRARY_PATH, &strError);
    ASSERT_NE(hLib, nullptr) << strError.c_str();
    using InitFn = int (*)();
    const auto pfnInit =
        reinterpret_cast<InitFn>(DynamicLoader::loadSymbol(hLib, "qamMeasInitModel", &strError));
    ASSERT_NE(pfnInit, nullptr) << strError.c_str();
    EXPECT_NE(pfnInit(), 0);
    DynamicLoader::unloadLibrary(hLib);
}

TEST(DynamicLoaderTest, AVariableIsFoundAsTheAddressOfItsStorage) {
    void* hLib = DynamicLoader::loadLibrary(WEBCTM_LIBRARY_PATH, nullptr);
    ASSERT_NE(hLib, nullptr);
    using FreeFn = void (*)(void*);
    auto* ppfnFree =
        static_cast<FreeFn*>(DynamicLoader::loadSymbol(hLib, "qamysLocalFree", nullptr));
    ASSERT_NE(ppfnFree, nullptr);
    EXPECT_NE(*ppfnFree, nullptr);
    DynamicLoader::unloadLibrary(hLib);
}

TEST(DynamicLoaderTest, AMissingSymbolIsNullWithAReason) {
    void* hLib = DynamicLoader::loadLibrary(WEBCTM_LIBRARY_PATH, nullptr);
    ASSERT_NE(hLib, nullptr);
    NString strError;
    EXPECT_EQ(DynamicLoader::loadSymbol(hLib, "qamNoSuchFunction", &strError), nullptr);
    EXPECT_NE(std::string(strError.c_str()).find("qamNoSuchFunction"), std::string::npos)
        << strError.c_str();
    EXPECT_EQ(DynamicLoader::loadSymbol(hLib, "qamNoSuchFunction", nullptr), nullptr);
    DynamicLoader::unloadLibrary(hLib);
}

TEST(DynamicLoaderTest, AMissingLibraryOrNullArgumentsAreRefusedWithAReason) {
    NString strError;
    EXPECT_EQ(DynamicLoader::loadLibrary("/nonexistent/libnothing.so", &strError), nullptr);
    EXPECT_NE(std::string(strError.c_str()).find("libnothing.so"), std::string::npos);
    strError = NString();
    EXPECT_EQ(DynamicLoader::loadLibrary(nullptr, &strError), nullptr);
    EXPECT_FALSE(strError.empty());
    strError = NString();
    EXPECT_EQ(DynamicLoader::loadSymbol(nullptr, "qamContextGet", &strError), nullptr);
    EXPECT_FALSE(strError.empty());
    DynamicLoader::unloadLibrary(nullptr);  // ignored
}

}  // namespace
}  // namespace kiv

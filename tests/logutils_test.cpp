#include "weblogger/logutils.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "weblogger/logsource.h"

namespace kiv {
namespace {

TEST(LoggerUtilitiesTest, ListsEverySourceParentsFirst) {
    const LogSourceHandle leaf(String(L"utils.a.b"));
    std::vector<String> names{String(L"kept")};
    LoggerUtilities::getAllLogSourceNames(names);
    EXPECT_TRUE(names[0].equals(L"kept"));  // appended, not replaced
    const auto position = [&](const wchar_t* psz) {
        return std::find(names.begin(), names.end(), String(psz)) - names.begin();
    };
    ASSERT_LT(position(L"utils.a.b"), static_cast<long>(names.size()));
    EXPECT_LT(position(L"utils"), position(L"utils.a"));
    EXPECT_LT(position(L"utils.a"), position(L"utils.a.b"));
    // The default source exists from library load on.
    EXPECT_LT(position(L"kiv.unknown"), static_cast<long>(names.size()));
}

}  // namespace
}  // namespace kiv

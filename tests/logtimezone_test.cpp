// The logging time zone: set through the logger, read by the renderers.
#include "weblogger/internal/logtimezone.h"

#include <gtest/gtest.h>

#include <string>

#include "weblogger/tmlogger.h"
#include "zq/webutil/timezone.h"

namespace kiv {
namespace {

using logger_details::LoggingTimeZone;

TEST(TmLoggerTimeZoneTest, NamesAreEmptyUntilAZoneIsSet) {
    // Each test runs in its own process under ctest; nothing here has set a zone yet.
    if (LoggingTimeZone::getGeneration() != 1) {
        GTEST_SKIP() << "a zone was set earlier in this process";
    }
    EXPECT_TRUE(TmLogger::getTimeZoneShortName(false).empty());
    EXPECT_TRUE(TmLogger::getTimeZoneShortName(true).empty());
}

TEST(TmLoggerTimeZoneTest, SettingTheZoneCachesItsShortNames) {
    TimeZone berlin = TimeZone::utc();
    ASSERT_TRUE(TimeZoneRegistry::getInstance().findTimeZone(String(L"Europe/Berlin"), berlin));
    const std::uint64_t nGeneration = LoggingTimeZone::getGeneration();
    TmLogger::setTimeZone(berlin);
    EXPECT_GT(LoggingTimeZone::getGeneration(), nGeneration);
    EXPECT_TRUE(TmLogger::getTimeZone().getName().equals(L"Europe/Berlin"));
    EXPECT_TRUE(TmLogger::getTimeZoneShortName(false).equals(L"CET"));
    EXPECT_TRUE(TmLogger::getTimeZoneShortName(true).equals(L"CEST"));
    wchar_t arrText[96];
    // 2026-07-01 12:00:00 UTC is 14:00 summer time in Berlin.
    EXPECT_EQ(LoggingTimeZone::formatTimeStamp(1782907200, false, arrText, 96), 24u);
    EXPECT_EQ(std::wstring(arrText), L"2026-07-01 14:00:00 CEST");
    EXPECT_EQ(LoggingTimeZone::formatTimeStamp(1782907200, true, arrText, 50), 25u);
    EXPECT_EQ(std::wstring(arrText), L"2026-07-01T14:00:00+02:00");
    TmLogger::setTimeZone(TimeZone::utc());
    EXPECT_TRUE(TmLogger::getTimeZoneShortName(false).equals(L"UTC"));
    EXPECT_TRUE(TmLogger::getTimeZoneShortName(true).equals(L"UTC"));
}

}  // namespace
}  // namespace kiv

#include "weblogger/commonseverities.h"

#include <gtest/gtest.h>

#include <string>

namespace kiv {
namespace {

TEST(CommonSeveritiesTest, MessageTypesIndexTheThresholds) {
    EXPECT_EQ(LogSeverity::SV_INCIDENT_ERROR, 0);
    EXPECT_EQ(LogSeverity::SV_ERROR, 1);
    EXPECT_EQ(LogSeverity::SV_WARNING, 2);
    EXPECT_EQ(LogSeverity::SV_INFORMATION, 3);
    EXPECT_EQ(LogSeverity::SV_TRACE, 4);
}

TEST(CommonSeveritiesTest, ConfigurationWordsPerType) {
    EXPECT_EQ(std::wstring(arrLogTypesXml[LogSeverity::SV_INCIDENT_ERROR]), L"incident_error");
    EXPECT_EQ(std::wstring(arrLogTypesXml[LogSeverity::SV_ERROR]), L"error");
    EXPECT_EQ(std::wstring(arrLogTypesXml[LogSeverity::SV_WARNING]), L"warning");
    EXPECT_EQ(std::wstring(arrLogTypesXml[LogSeverity::SV_INFORMATION]), L"information");
    EXPECT_EQ(std::wstring(arrLogTypesXml[LogSeverity::SV_TRACE]), L"trace");
}

struct Expected {
    const LogSeverity* pSeverity;
    LogSeverity::MsgType nType;
    std::uint64_t nImportance;
    const char* pszName;
};

TEST(CommonSeveritiesTest, PredefinedSeveritiesAreExactlyAsTabled) {
    const Expected arrExpected[] = {
        {&kSevErrorCorruption, LogSeverity::SV_INCIDENT_ERROR, 1, "kSevErrorCorruption"},
        {&kSevErrorFatal, LogSeverity::SV_ERROR, 1, "kSevErrorFatal"},
        {&kSevErrorUnknown, LogSeverity::SV_ERROR, 5, "kSevErrorUnknown"},
        {&kSevErrorCritical, LogSeverity::SV_ERROR, 10, "kSevErrorCritical"},
        {&kSevError, LogSeverity::SV_ERROR, 16, "kSevError"},
        {&kSevErrorUser, LogSeverity::SV_ERROR, 32, "kSevErrorUser"},
        {&kSevErrorMinor, LogSeverity::SV_ERROR, 32, "kSevErrorMinor"},
        {&kSevWarningCritical, LogSeverity::SV_WARNING, 1, "kSevWarningCritical"},
        {&kSevWarning, LogSeverity::SV_WARNING, 16, "kSevWarning"},
        {&kSevWarningMinor, LogSeverity::SV_WARNING, 32, "kSevWarningMinor"},
        {&kSevSecurityFatal, LogSeverity::SV_INFORMATION, 2, "kSevSecurityFatal"},
        {&kSevSecurityCritical, LogSeverity::SV_INFORMATION, 4, "kSevSecurityCritical"},
        {&kSevSecurity, LogSeverity::SV_INFORMATION, 8, "kSevSecurity"},
        {&kSevSecurityMinor, LogSeverity::SV_INFORMATION, 20, "kSevSecurityMinor"},
        {&kSevInfoCritical, LogSeverity::SV_INFORMATION, 1, "kSevInfoCritical"},
        {&kSevInfo, LogSeverity::SV_INFORMATION, 20, "kSevInfo"},
        {&kSevInfoMinor, LogSeverity::SV_TRACE, 1, "kSevInfoMinor"},
        {&kSevTraceFine, LogSeverity::SV_TRACE, 1, "kSevTraceFine"},
        {&kSevTraceFiner, LogSeverity::SV_TRACE, 16, "kSevTraceFiner"},
        {&kSevTraceFinest, LogSeverity::SV_TRACE, 32, "kSevTraceFinest"},
    };
    for (const Expected& expected : arrExpected) {
        EXPECT_EQ(expected.pSeverity->m_nType, expected.nType) << expected.pszName;
        EXPECT_EQ(expected.pSeverity->m_dwImportance, expected.nImportance) << expected.pszName;
    }
}

TEST(CommonSeveritiesTest, PredefinedSeveritiesAreConstantsOfTheCallersCode) {
    // A guard written with a named severity compares against constants the compiler knows,
    // rather than loading the type and importance from the library.
    constexpr LogSeverity severity = kSevTraceFine;
    static_assert(severity.getType() == LogSeverity::SV_TRACE);
    static_assert(severity.getImportance() == 1);
    static_assert(kSevInfo.getType() == LogSeverity::SV_INFORMATION &&
                  kSevInfo.getImportance() == 20);
    EXPECT_EQ(severity.getImportance(), kSevTraceFine.m_dwImportance);
}

TEST(CommonSeveritiesTest, DeliberateIrregularitiesAreKept) {
    EXPECT_EQ(kSevErrorUser.m_dwImportance, kSevErrorMinor.m_dwImportance);
    EXPECT_EQ(kSevSecurityFatal.getType(), LogSeverity::SV_INFORMATION);
    EXPECT_EQ(kSevInfoMinor.getType(), LogSeverity::SV_TRACE);
    EXPECT_EQ(kSevInfoMinor.getImportance(), 1u);
}

}  // namespace
}  // namespace kiv

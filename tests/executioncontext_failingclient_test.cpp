// Execution context tracking with a client that fails: it refuses every wrapped text, finds no
// stash, cannot clear, and does not export some functions at all (tests/support/
// ctm_failing_client.cpp). The library must never call what is missing, must log the refusals
// the way operators expect, and must not ask the client for what it can answer itself.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "support/test_writer.h"
#include "weblogger/commonseverities.h"
#include "weblogger/executioncontext.h"
#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"
#include "zq/webutil/configreader.h"
#include "zq/webutil/ctmwrapper.h"

namespace kiv::logger {
namespace {

using performance::CTMWrapper;
using test::RecordingWriter;

constexpr short kWriterId = 7;

const ConfigReader& enabledConfig() {
    static const ConfigReader s_reader = ConfigReader::parseString(
        "<Server><ExecutionContext><Enable>true</Enable></ExecutionContext></Server>");
    return s_reader;
}

// The double's call counters, reached through its own handle.
unsigned calls(const char* pszName) {
    static void* const s_hLib = dlopen(WEBCTM_FAILING_CLIENT_PATH, RTLD_NOW | RTLD_LOCAL);
    using CallsFn = unsigned (*)(const char*);
    static const auto s_pfnCalls = reinterpret_cast<CallsFn>(dlsym(s_hLib, "ctmDoubleCalls"));
    return s_pfnCalls(pszName);
}

void resetCalls() {
    static void* const s_hLib = dlopen(WEBCTM_FAILING_CLIENT_PATH, RTLD_NOW | RTLD_LOCAL);
    using ResetFn = void (*)();
    reinterpret_cast<ResetFn>(dlsym(s_hLib, "ctmDoubleReset"))();
}

void openSources() {
    for (const wchar_t* pszName : {L"kiv.ctm.init", L"kiv.ctm.conext.unwrap"}) {
        const LogSourceHandle source{String(pszName)};
        const_cast<LogSource&>(*source).getLogFilter().setLogLevelsForId(
            kWriterId, LogLevels(65534, 65534, 65534, 65534, 65534));
    }
}

bool sameSeverity(const LogSeverity& a, const LogSeverity& b) {
    return a.m_nType == b.m_nType && a.m_dwImportance == b.m_dwImportance;
}

// First in this program, as a host that switches tracking on after a load that found no
// client: nothing has been looked up, so nothing may be called.
TEST(FailingClientTest, EnablingAfterALoadWithoutClientCallsNothing) {
    ASSERT_FALSE(CTMWrapper::isInitialized());
    ExecutionContext::reloadConfig(enabledConfig());  // no client: no lookup
    ASSERT_TRUE(CTMWrapper::initialize(WEBCTM_FAILING_CLIENT_PATH));
    ExecutionContext::enableIfCTMAvailaible();
    resetCalls();

    EXPECT_FALSE(ExecutionContext::createContext());
    EXPECT_FALSE(ExecutionContext::getContext());
    EXPECT_TRUE(ExecutionContext::wrap(true).empty());
    EXPECT_FALSE(ExecutionContext::unwrap(NString("anything"), false));
    EXPECT_FALSE(ExecutionContext::clearContext());
    int nReference = 0;
    EXPECT_FALSE(ExecutionContext::stash(&nReference));
    EXPECT_FALSE(ExecutionContext::restore(&nReference));
    ExecutionContext::periodicCleanup(1);
    {
        ExecutionContextGuard guard;
        guard.initCreateNew();
        EXPECT_EQ(guard.getActionAtDestruct(), ExecutionContextGuard::kNoAction);
    }
    EXPECT_TRUE(ExecutionContext::getCurrentECID().empty());
    for (const char* pszName :
         {"qamContextGet", "qamContextWrap", "qamContextUnwrap", "qamContextClear",
          "qamContextStashCurrent", "qamContextFind", "qamysLocalFree"}) {
        EXPECT_EQ(calls(pszName), 0u) << pszName;
    }
}

class FailingClientLookedUpTest : public ::testing::Test {
protected:
    void SetUp() override {
        openSources();
        ASSERT_TRUE(CTMWrapper::initialize(WEBCTM_FAILING_CLIENT_PATH));
        ExecutionContext::reloadConfig(enabledConfig());
        resetCalls();
        TmLogger::getLogger().addLocalWriter(m_hWriter.get());
    }
    void TearDown() override { TmLogger::getLogger().clearLocalWriters(); }

    Handle<RecordingWriter> m_hWriter{new RecordingWriter(String(L"recorder"), kWriterId,
                                                          LogWriter::WT_SINGLE_THREADED, nullptr)};
};

TEST_F(FailingClientLookedUpTest, UnwrapOfAnEmptyTextNeitherCallsTheClientNorLogs) {
    EXPECT_FALSE(ExecutionContext::unwrap(NString(), false));
    EXPECT_FALSE(ExecutionContext::unwrap(NString(""), true));
    EXPECT_EQ(calls("qamContextUnwrap"), 0u);
    EXPECT_TRUE(m_hWriter->records().empty());
}

TEST_F(FailingClientLookedUpTest, ARefusedUnwrapIsLoggedWithTheWrappedText) {
    EXPECT_FALSE(ExecutionContext::unwrap(NString("ctx-7"), true));
    EXPECT_EQ(calls("qamContextUnwrap"), 1u);
    const auto vecRecords = m_hWriter->records();
    ASSERT_EQ(vecRecords.size(), 1u);
    EXPECT_TRUE(vecRecords[0].text.equals(L"qamContextUnwrap failed for ctx: ctx-7"));
    EXPECT_TRUE(sameSeverity(vecRecords[0].severity, kSevError));
    EXPECT_TRUE(vecRecords[0].source.equals(L"kiv.ctm.conext.unwrap"));
}

TEST_F(FailingClientLookedUpTest, WithoutIdFunctionsAContextGivesAnEmptyEcid) {
    // qamContextGetECID and qamContextGetRID are missing: never called, the ECID stays empty.
    EXPECT_TRUE(ExecutionContext::createContext());
    EXPECT_TRUE(ExecutionContext::getCurrentECID().empty());
    EXPECT_EQ(calls("qamContextGet"), 1u);
    EXPECT_EQ(calls("qamysLocalFree"), 1u);  // the context was released
}

TEST_F(FailingClientLookedUpTest, MissingStashAndExpiryFunctionsAreNeverCalled) {
    int nReference = 0;
    EXPECT_FALSE(ExecutionContext::stash(&nReference));
    ExecutionContext::periodicCleanup(0);
    EXPECT_TRUE(m_hWriter->records().empty());
}

TEST_F(FailingClientLookedUpTest, AWrapTheClientCannotMakeIsEmpty) {
    EXPECT_TRUE(ExecutionContext::wrap(false).empty());
    EXPECT_TRUE(ExecutionContext::wrap(false).empty());
    EXPECT_EQ(calls("qamContextWrap"), 2u);  // nothing was cached
}

TEST_F(FailingClientLookedUpTest, AGuardWhoseRestoreFailsLogsItAndClears) {
    {
        ExecutionContextGuard guard;
        guard.initCreateNew();
        EXPECT_EQ(guard.getActionAtDestruct(), ExecutionContextGuard::kRestoreCtx);
    }
    EXPECT_EQ(calls("qamContextStashCurrent"), 1u);
    EXPECT_EQ(calls("qamContextFind"), 1u);
    EXPECT_EQ(calls("qamContextClear"), 1u);
    const auto vecRecords = m_hWriter->records();
    ASSERT_EQ(vecRecords.size(), 1u);
    EXPECT_TRUE(vecRecords[0].text.equals(L"Failed to restore ctx from reference"));
    EXPECT_TRUE(sameSeverity(vecRecords[0].severity, kSevErrorMinor));
    EXPECT_TRUE(vecRecords[0].source.equals(L"kiv.ctm.conext.unwrap"));
}

TEST_F(FailingClientLookedUpTest, ARefusedClearReportsFailure) {
    EXPECT_FALSE(ExecutionContext::clearContext());
    EXPECT_EQ(calls("qamContextClear"), 1u);
}

}  // namespace
}  // namespace kiv::logger

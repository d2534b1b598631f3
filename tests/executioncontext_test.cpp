// Execution context tracking against the real context-monitoring client, loaded by path.
#include "weblogger/executioncontext.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <thread>

#include "support/ctm_client.h"
#include "support/test_writer.h"
#include "weblogger/commonseverities.h"
#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/configreader.h"
#include "zq/webutil/ctmwrapper.h"

namespace kiv::logger {
namespace {

using performance::CTMWrapper;
using test::CtmClient;
using test::RecordingWriter;

constexpr short kWriterId = 7;

const ConfigReader& configWith(bool bEnable) {
    static const ConfigReader s_on = ConfigReader::parseString(
        "<Server><ExecutionContext><Enable>true</Enable></ExecutionContext></Server>");
    static const ConfigReader s_off = ConfigReader::parseString(
        "<Server><ExecutionContext><Enable>false</Enable></ExecutionContext></Server>");
    return bEnable ? s_on : s_off;
}

std::string ecid() {
    return toUtf8(ExecutionContext::getCurrentECID().view()).std();
}

bool sameSeverity(const LogSeverity& a, const LogSeverity& b) {
    return a.m_nType == b.m_nType && a.m_dwImportance == b.m_dwImportance;
}

bool isEcidText(const std::string& strText) {
    static const std::regex kPattern("[0-9a-f]{32},[0-9a-f]{16}");
    return std::regex_match(strText, kPattern);
}

class ExecutionContextTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const wchar_t* pszName : {L"kiv.ctm.init", L"kiv.ctm.conext.unwrap"}) {
            const LogSourceHandle source{String(pszName)};
            const_cast<LogSource&>(*source).getLogFilter().setLogLevelsForId(
                kWriterId, LogLevels(65534, 65534, 65534, 65534, 65534));
        }
        ASSERT_TRUE(CTMWrapper::initialize(test::ctmLibraryPath()));
        ExecutionContext::reloadConfig(configWith(true));
        m_client.pfnClear();
        TmLogger::getLogger().addLocalWriter(m_hWriter.get());
    }
    void TearDown() override {
        TmLogger::getLogger().clearLocalWriters();
        m_client.pfnClear();
    }

    std::vector<RecordingWriter::Record> records() const { return m_hWriter->records(); }

    const CtmClient& m_client = CtmClient::open();
    Handle<RecordingWriter> m_hWriter{new RecordingWriter(String(L"recorder"), kWriterId,
                                                          LogWriter::WT_SINGLE_THREADED, nullptr)};
};

// ------------------------------------------------------------------ configuration

TEST_F(ExecutionContextTest, LoadWithAnInitialisedClientLogsThatItRanAndTurnsTrackingOn) {
    ExecutionContext::reloadConfig(configWith(true));
    const auto vecRecords = records();
    ASSERT_EQ(vecRecords.size(), 1u);
    EXPECT_TRUE(vecRecords[0].text.equals(L"ExecutionContextImpl::init called"));
    EXPECT_TRUE(sameSeverity(vecRecords[0].severity, kSevInfo));
    EXPECT_TRUE(vecRecords[0].source.equals(L"kiv.ctm.init"));
    EXPECT_TRUE(ExecutionContext::createContext());
}

TEST_F(ExecutionContextTest, LoadWithoutAnInitialisedClientLogsAFineTrace) {
    CTMWrapper::disable();
    ExecutionContext::reloadConfig(configWith(true));
    const auto vecRecords = records();
    ASSERT_EQ(vecRecords.size(), 2u);
    EXPECT_TRUE(vecRecords[1].text.equals(
        L"CTM is not initialized by the calling process, ECID tracking is disabled"));
    EXPECT_TRUE(sameSeverity(vecRecords[1].severity, kSevTraceFine));
    EXPECT_TRUE(vecRecords[1].source.equals(L"kiv.ctm.init"));
    EXPECT_FALSE(ExecutionContext::createContext());
}

TEST_F(ExecutionContextTest, LoadWithEnableFalseLogsAnErrorAndTurnsTrackingOff) {
    ASSERT_TRUE(ExecutionContext::createContext());
    ExecutionContext::reloadConfig(configWith(false));
    const auto vecRecords = records();
    ASSERT_EQ(vecRecords.size(), 2u);
    EXPECT_TRUE(vecRecords[0].text.equals(L"ExecutionContextImpl::init called"));
    EXPECT_TRUE(vecRecords[1].text.equals(L"ECID tracking is disabled by configuration"));
    EXPECT_TRUE(sameSeverity(vecRecords[1].severity, kSevError));
    EXPECT_TRUE(vecRecords[1].source.equals(L"kiv.ctm.init"));
    // A reload that switches tracking off is obeyed at once; one that switches it on again, too.
    EXPECT_FALSE(ExecutionContext::createContext());
    ExecutionContext::reloadConfig(configWith(true));
    EXPECT_TRUE(ExecutionContext::createContext());
}

TEST_F(ExecutionContextTest, WithEnableFalseWrapAndTheEcidAreEmpty) {
    ExecutionContext::reloadConfig(configWith(false));
    std::thread([] {
        EXPECT_FALSE(ExecutionContext::createContext());
        EXPECT_TRUE(ExecutionContext::wrap(false).empty());
        EXPECT_TRUE(ExecutionContext::wrap(true).empty());
        EXPECT_TRUE(ExecutionContext::getCurrentECID().empty());
    }).join();
    // Every other operation reports failure as well.
    EXPECT_FALSE(ExecutionContext::getContext());
    EXPECT_FALSE(ExecutionContext::clearContext());
    EXPECT_FALSE(ExecutionContext::unwrap(
        NString("00-4bf92f3577b34da6a3ce929d0e0e4736-00f067aa0ba902b7-01"), false));
    int nReference = 0;
    EXPECT_FALSE(ExecutionContext::stash(&nReference));
    EXPECT_FALSE(ExecutionContext::restore(&nReference));
    ExecutionContext::periodicCleanup(0);
}

TEST_F(ExecutionContextTest, DisableTurnsTrackingOffUntilTheClientIsBackAndEnableIsAsked) {
    ASSERT_TRUE(ExecutionContext::createContext());
    ExecutionContext::disable();
    EXPECT_FALSE(CTMWrapper::isInitialized());
    EXPECT_FALSE(ExecutionContext::createContext());
    ExecutionContext::enableIfCTMAvailaible();  // the client is still off
    EXPECT_FALSE(ExecutionContext::createContext());
    ASSERT_TRUE(CTMWrapper::initialize(test::ctmLibraryPath()));
    EXPECT_FALSE(ExecutionContext::createContext());  // the flag is still clear
    ExecutionContext::enableIfCTMAvailaible();
    EXPECT_TRUE(ExecutionContext::createContext());
}

// ------------------------------------------------------------------ the thread's ECID

TEST_F(ExecutionContextTest, CreateGivesTheThreadTheClientsNewContextAsEcidCommaRid) {
    ASSERT_TRUE(ExecutionContext::createContext());
    EXPECT_TRUE(isEcidText(ecid())) << ecid();
    EXPECT_EQ(ecid(), m_client.currentEcidText());
    const std::string strFirst = ecid();
    ASSERT_TRUE(ExecutionContext::createContext());
    EXPECT_NE(ecid(), strFirst);
}

TEST_F(ExecutionContextTest, GetContextTakesTheClientsCurrentOneAndFailsWithoutOne) {
    EXPECT_FALSE(ExecutionContext::getContext());
    const std::string strMadeInClient = m_client.createDirectly();
    EXPECT_TRUE(ExecutionContext::getContext());
    EXPECT_EQ(ecid(), strMadeInClient);
}

TEST_F(ExecutionContextTest, ClearEndsTheClientsContextButLeavesTheThreadsEcid) {
    ASSERT_TRUE(ExecutionContext::createContext());
    const std::string strBefore = ecid();
    EXPECT_TRUE(ExecutionContext::clearContext());
    EXPECT_EQ(m_client.currentEcidText(), "");
    EXPECT_EQ(ecid(), strBefore);
}

TEST_F(ExecutionContextTest, EachThreadHasItsOwnEcid) {
    ASSERT_TRUE(ExecutionContext::createContext());
    std::string strThere = "unset";
    std::thread([&] { strThere = ecid(); }).join();
    EXPECT_EQ(strThere, "");
}

// ------------------------------------------------------------------ wrap and unwrap

TEST_F(ExecutionContextTest, WrapIsCachedUntilThisLibraryChangesTheThreadsContext) {
    ASSERT_TRUE(ExecutionContext::createContext());
    const std::string strFirst = ExecutionContext::wrap(false).std();
    EXPECT_EQ(strFirst, m_client.wrapNow());

    // Behind the library's back the client moves on: a cached wrap does not ask it.
    m_client.createDirectly();
    EXPECT_EQ(ExecutionContext::wrap(false).std(), strFirst);
    EXPECT_EQ(ExecutionContext::wrap(false).std(), strFirst);
    // A forced wrap always asks, and its answer is cached from then on.
    const std::string strForced = ExecutionContext::wrap(true).std();
    EXPECT_EQ(strForced, m_client.wrapNow());
    EXPECT_NE(strForced, strFirst);
    m_client.createDirectly();
    EXPECT_EQ(ExecutionContext::wrap(false).std(), strForced);

    // Each update of the thread's context through the library asks again: create...
    ASSERT_TRUE(ExecutionContext::createContext());
    EXPECT_EQ(ExecutionContext::wrap(false).std(), m_client.wrapNow());
    // ... get ...
    m_client.createDirectly();
    ASSERT_TRUE(ExecutionContext::getContext());
    EXPECT_EQ(ExecutionContext::wrap(false).std(), m_client.wrapNow());
    // ... unwrap ...
    const char* pszIncoming = "00-4bf92f3577b34da6a3ce929d0e0e4736-00f067aa0ba902b7-01";
    ASSERT_TRUE(ExecutionContext::unwrap(NString(pszIncoming), true));
    EXPECT_EQ(ExecutionContext::wrap(false).std(), pszIncoming);
    // ... and restore.
    int nReference = 0;
    ASSERT_TRUE(ExecutionContext::stash(&nReference));
    ASSERT_TRUE(ExecutionContext::createContext());
    EXPECT_NE(ExecutionContext::wrap(false).std(), pszIncoming);
    ASSERT_TRUE(ExecutionContext::restore(&nReference));
    EXPECT_EQ(ExecutionContext::wrap(false).std(), pszIncoming);
    m_client.pfnExpire(0);
}

TEST_F(ExecutionContextTest, WrapWithoutAContextIsEmptyAndLeavesTheCacheAlone) {
    EXPECT_TRUE(ExecutionContext::wrap(true).empty());
    ASSERT_TRUE(ExecutionContext::createContext());
    const std::string strCached = ExecutionContext::wrap(false).std();
    m_client.pfnClear();
    EXPECT_TRUE(ExecutionContext::wrap(true).empty());
    EXPECT_EQ(ExecutionContext::wrap(false).std(), strCached);
}

TEST_F(ExecutionContextTest, UnwrapOfAnEmptyTextFailsWithoutLogging) {
    ASSERT_TRUE(ExecutionContext::createContext());
    const std::string strBefore = ecid();
    EXPECT_FALSE(ExecutionContext::unwrap(NString(), false));
    EXPECT_FALSE(ExecutionContext::unwrap(NString(""), true));
    EXPECT_TRUE(records().empty());
    EXPECT_EQ(ecid(), strBefore);
    EXPECT_EQ(m_client.currentEcidText(), strBefore);
}

TEST_F(ExecutionContextTest, UnwrapOfARefusedTextLogsItUnderItsOwnSource) {
    ASSERT_TRUE(ExecutionContext::createContext());
    const std::string strBefore = ecid();
    EXPECT_FALSE(ExecutionContext::unwrap(
        NString("00-4BF92F3577B34DA6A3CE929D0E0E4736-00f067aa0ba902b7-01"), false));
    const auto vecRecords = records();
    ASSERT_EQ(vecRecords.size(), 1u);
    EXPECT_TRUE(
        vecRecords[0].text.equals(L"qamContextUnwrap failed for ctx: "
                                  L"00-4BF92F3577B34DA6A3CE929D0E0E4736-00f067aa0ba902b7-01"));
    EXPECT_TRUE(sameSeverity(vecRecords[0].severity, kSevError));
    EXPECT_TRUE(vecRecords[0].source.equals(L"kiv.ctm.conext.unwrap"));
    EXPECT_EQ(ecid(), strBefore);
}

TEST_F(ExecutionContextTest, AContextWrappedOnOneThreadContinuesItsTraceOnAnother) {
    ASSERT_TRUE(ExecutionContext::createContext());
    const std::string strHere = ecid();
    const NString strWrapped = ExecutionContext::wrap(false);
    std::string strThere;
    std::thread([&] {
        EXPECT_TRUE(ExecutionContext::unwrap(strWrapped, false));
        strThere = ecid();
    }).join();
    ASSERT_TRUE(isEcidText(strThere)) << strThere;
    EXPECT_EQ(strThere.substr(0, 32), strHere.substr(0, 32));
    EXPECT_NE(strThere.substr(33), strHere.substr(33));  // a new span of the same trace
}

// ------------------------------------------------------------------ stash and restore

TEST_F(ExecutionContextTest, AStashedContextIsRestoredOnAnotherThread) {
    int nReference = 0;
    EXPECT_FALSE(ExecutionContext::stash(&nReference));  // nothing to stash
    ASSERT_TRUE(ExecutionContext::createContext());
    const std::string strStashed = ecid();
    ASSERT_TRUE(ExecutionContext::stash(&nReference));
    std::string strThere;
    std::thread([&] {
        EXPECT_TRUE(ExecutionContext::restore(&nReference));
        strThere = ecid();
    }).join();
    EXPECT_EQ(strThere, strStashed);
    ExecutionContext::periodicCleanup(0);
    EXPECT_FALSE(ExecutionContext::restore(&nReference));
}

TEST_F(ExecutionContextTest, ARestoreThatFindsNothingLogsAMinorError) {
    int nReference = 0;
    EXPECT_FALSE(ExecutionContext::restore(nullptr));
    EXPECT_TRUE(records().empty());
    EXPECT_FALSE(ExecutionContext::restore(&nReference));
    const auto vecRecords = records();
    ASSERT_EQ(vecRecords.size(), 1u);
    EXPECT_TRUE(vecRecords[0].text.equals(L"Failed to restore ctx from reference"));
    EXPECT_TRUE(sameSeverity(vecRecords[0].severity, kSevErrorMinor));
    EXPECT_TRUE(vecRecords[0].source.equals(L"kiv.ctm.conext.unwrap"));
}

// ------------------------------------------------------------------ the guard

TEST_F(ExecutionContextTest, AGuardWhoseStashFoundNoContextClearsAtItsEnd) {
    {
        ExecutionContextGuard guard;
        guard.initCreateNew();
        EXPECT_EQ(guard.getActionAtDestruct(), ExecutionContextGuard::kClearCtx);
        EXPECT_TRUE(isEcidText(ecid()));
        EXPECT_EQ(m_client.currentEcidText(), ecid());
    }
    EXPECT_EQ(m_client.currentEcidText(), "");
}

TEST_F(ExecutionContextTest, AGuardThatStashedRestoresTheContextAtItsEnd) {
    ASSERT_TRUE(ExecutionContext::createContext());
    const std::string strOuter = ecid();
    {
        ExecutionContextGuard guard;
        guard.initCreateNew();
        EXPECT_EQ(guard.getActionAtDestruct(), ExecutionContextGuard::kRestoreCtx);
        EXPECT_NE(ecid(), strOuter);
    }
    EXPECT_EQ(ecid(), strOuter);
    EXPECT_EQ(m_client.currentEcidText(), strOuter);
    EXPECT_TRUE(records().empty());
}

TEST_F(ExecutionContextTest, AGuardWhoseRestoreFailsClearsTheContext) {
    ASSERT_TRUE(ExecutionContext::createContext());
    {
        ExecutionContextGuard guard;
        guard.initCreateNew();
        ASSERT_EQ(guard.getActionAtDestruct(), ExecutionContextGuard::kRestoreCtx);
        ExecutionContext::periodicCleanup(0);  // the stash expires inside the block
    }
    EXPECT_EQ(m_client.currentEcidText(), "");
    const auto vecRecords = records();
    ASSERT_EQ(vecRecords.size(), 1u);
    EXPECT_TRUE(vecRecords[0].text.equals(L"Failed to restore ctx from reference"));
}

TEST_F(ExecutionContextTest, NestedGuardsPutBackEachOuterContext) {
    ExecutionContextGuard outer;
    outer.initCreateNew();
    const std::string strOuter = ecid();
    {
        ExecutionContextGuard inner;
        inner.initCreateNew();
        const std::string strInner = ecid();
        {
            ExecutionContextGuard innermost;
            innermost.initCreateNew();
            EXPECT_NE(ecid(), strInner);
        }
        EXPECT_EQ(ecid(), strInner);
    }
    EXPECT_EQ(ecid(), strOuter);
}

TEST_F(ExecutionContextTest, CreateNewIfNotExistsKeepsAnExistingContext) {
    ASSERT_TRUE(ExecutionContext::createContext());
    const std::string strOuter = ecid();
    {
        ExecutionContextGuard guard;
        guard.initCreateNewIfNotExists();
        EXPECT_EQ(guard.getActionAtDestruct(), ExecutionContextGuard::kNoAction);
        EXPECT_EQ(ecid(), strOuter);
    }
    EXPECT_EQ(m_client.currentEcidText(), strOuter);
    m_client.pfnClear();
    {
        ExecutionContextGuard guard;
        guard.initCreateNewIfNotExists();
        EXPECT_EQ(guard.getActionAtDestruct(), ExecutionContextGuard::kClearCtx);
        EXPECT_NE(ecid(), strOuter);
    }
    EXPECT_EQ(m_client.currentEcidText(), "");
}

TEST_F(ExecutionContextTest, AnUnwrapGuardContinuesTheIncomingTraceForItsBlock) {
    ASSERT_TRUE(ExecutionContext::createContext());
    const std::string strOuter = ecid();
    {
        ExecutionContextGuard guard;
        guard.initUnwrap(NString("00-4bf92f3577b34da6a3ce929d0e0e4736-00f067aa0ba902b7-01"));
        EXPECT_EQ(guard.getActionAtDestruct(), ExecutionContextGuard::kRestoreCtx);
        EXPECT_EQ(ecid().substr(0, 32), "4bf92f3577b34da6a3ce929d0e0e4736");
    }
    EXPECT_EQ(ecid(), strOuter);
    {
        ExecutionContextGuard guard;
        guard.initUnwrap(NString("garbage"));
        EXPECT_EQ(guard.getActionAtDestruct(), ExecutionContextGuard::kNoAction);
    }
}

TEST_F(ExecutionContextTest, ARestoreGuardTakesTheStashedContextForItsBlock) {
    int nReference = 0;
    ASSERT_TRUE(ExecutionContext::createContext());
    const std::string strHandedOff = ecid();
    ASSERT_TRUE(ExecutionContext::stash(&nReference));
    m_client.pfnClear();
    std::thread([&] {
        {
            ExecutionContextGuard guard;
            guard.initRestore(&nReference);
            EXPECT_EQ(guard.getActionAtDestruct(), ExecutionContextGuard::kClearCtx);
            EXPECT_EQ(ecid(), strHandedOff);
        }
        EXPECT_EQ(m_client.currentEcidText(), "");
        ExecutionContextGuard unknown;
        int nOther = 0;
        unknown.initRestore(&nOther);
        EXPECT_EQ(unknown.getActionAtDestruct(), ExecutionContextGuard::kNoAction);
    }).join();
    ExecutionContext::periodicCleanup(0);
}

TEST_F(ExecutionContextTest, AGuardDoesNothingWhileTrackingIsOff) {
    ExecutionContext::reloadConfig(configWith(false));
    ExecutionContextGuard guard;
    guard.initCreateNew();
    EXPECT_EQ(guard.getActionAtDestruct(), ExecutionContextGuard::kNoAction);
    guard.initCreateNewIfNotExists();
    EXPECT_EQ(guard.getActionAtDestruct(), ExecutionContextGuard::kNoAction);
}

}  // namespace
}  // namespace kiv::logger

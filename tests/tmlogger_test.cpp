#include "weblogger/tmlogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <iterator>
#include <random>
#include <stdexcept>
#include <thread>

#include "support/alloc_counter.h"
#include "support/keel_logger_double.h"
#include "support/test_writer.h"
#include "weblogger/keelloggerlogimpl.h"
#include "weblogger/logfilterconfig.h"
#include "weblogger/loggermessages.h"
#include "weblogger/logwriters.h"
#include "weblogger/logwritersman.h"
#include "zq/webthreadstorage/threadstatic.h"
#include "zq/webutil/timezone.h"

namespace kiv {
namespace {

using logger_details::LogWritersMan;
using test::KeelLoggerDouble;
using test::RecordingWriter;

constexpr short kWriterId = 6;

// Lets every message through the source's filter for the test writers' id.
void openSource(const LogSource& source) {
    const_cast<LogSource&>(source).getLogFilter().setLogLevelsForId(
        kWriterId, LogLevels(65534, 65534, 65534, 65534, 65534));
}

Handle<RecordingWriter> makeWriter(const wchar_t* pszName,
                                   LogWriter::WriterType type = LogWriter::WT_SINGLE_THREADED) {
    return Handle<RecordingWriter>(new RecordingWriter(String(pszName), kWriterId, type, nullptr));
}

std::vector<String> texts(const RecordingWriter& writer) {
    std::vector<String> vecTexts;
    for (const auto& record : writer.records()) {
        vecTexts.push_back(record.text);
    }
    return vecTexts;
}

std::size_t countRecords(const std::vector<Handle<RecordingWriter>>& vecWriters) {
    std::size_t nRecords = 0;
    for (const Handle<RecordingWriter>& hWriter : vecWriters) {
        nRecords += hWriter->recordCount();
    }
    return nRecords;
}

class TmLoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        openSource(*lsUnspecified);
        openSource(*m_source);
        ASSERT_EQ(logger().getLoggerState().getCurSource(), nullptr);
    }
    void TearDown() override {
        logger().clearLocalWriters();
        LogWritersMan::getLogWritersMan().clearWriters();
        LogWritersMan::getLogWritersMan().versionIncrement();
        while (logger().getLoggerState().getCurSource() != nullptr) {
            logger().popSource();
        }
    }
    static TmLogger& logger() { return TmLogger::getLogger(); }

    LogSourceHandle m_source{String(L"tmtest.request")};
};

// ---------------------------------------------------------------- the thread's state

TEST(LoggerStateTest, FreshStateHasNoCurrentSource) {
    const TmLogger::LoggerState state;
    EXPECT_EQ(state.getCurSource(), nullptr);
    EXPECT_TRUE(state.propertiesMap().empty());
}

TEST(LoggerStateTest, PopOfUnknownOrEmptiedPropertyChangesNothing) {
    TmLogger::LoggerState state;
    state.popProperty(String(L"nothing"));
    EXPECT_TRUE(state.propertiesMap().empty());
    state.pushProperty(String(L"userId"), GDString(L"ann"), 5);
    state.popProperty(String(L"userId"));
    state.popProperty(String(L"userId"));
    ASSERT_EQ(state.propertiesMap().size(), 1u);
    EXPECT_TRUE(state.propertiesMap().find(String(L"userId"))->second.empty());
}

TEST(LoggerStateTest, PopLeavesThePreviousValueCurrent) {
    TmLogger::LoggerState state;
    state.pushProperty(String(L"n"), GDUInteger64(1), 10);
    state.pushProperty(String(L"n"), GDUInteger64(2), 20);
    state.popProperty(String(L"n"));
    const auto& values = state.propertiesMap().find(String(L"n"))->second;
    ASSERT_EQ(values.size(), 1u);
    EXPECT_TRUE(values.back().first->toString().equals(L"1"));
    EXPECT_EQ(values.back().second, 10u);
    EXPECT_GE(values.capacity(), TmLogger::LoggerState::kReservedValues);
}

class DeferredEcid : public GDValueImpl<DeferredEcid>, public IGDStringBufferable {
public:
    void accept(GDValueVisitor& visitor) const override { visitor.visitStringBufferable(*this); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitStringBufferable(*this, buffer, params);
    }
    Kind kind() const noexcept override { return kKindDeferred; }
    int bufferize(StringBufferBaseTemplate<wchar_t>& buffer,
                  TextMessageBase::TextType) const override {
        buffer.append(L"ecid-text");
        return 0;
    }
};

TEST(LoggerStateTest, CopyKeepsOnlyStringAndNumberValues) {
    TmLogger::LoggerState state;
    const String owner(L"by reference");
    const GDString referred(L"referred");
    state.pushProperty(ksExecutionContextIDLogPropName, DeferredEcid(), 0xF0000000u);
    state.pushProperty(String(L"userId"), GDString(L"ann"), 3);
    state.pushProperty(String(L"mixed"), GDUInteger64(7), 1);
    state.pushProperty(String(L"mixed"), GDArray(), 1);
    state.pushProperty(String(L"mixed"), GDValueRef(&referred), 1);
    state.pushProperty(String(L"mixed"), GDValueRef(nullptr), 1);
    const TmLogger::LoggerState copy(state);
    const auto& map = copy.propertiesMap();
    ASSERT_EQ(map.size(), 3u);
    EXPECT_TRUE(map.find(ksExecutionContextIDLogPropName)->second.empty());
    const auto& user = map.find(String(L"userId"))->second;
    ASSERT_EQ(user.size(), 1u);
    EXPECT_TRUE(user[0].first->toString().equals(L"ann"));
    EXPECT_EQ(user[0].second, 3u);
    const auto& mixed = map.find(String(L"mixed"))->second;
    ASSERT_EQ(mixed.size(), 2u);  // the number and the reference to a string, in order
    EXPECT_TRUE(mixed[0].first->toString().equals(L"7"));
    EXPECT_TRUE(mixed[1].first->toString().equals(L"referred"));

    TmLogger::LoggerState assigned;
    assigned = state;
    EXPECT_TRUE(assigned.propertiesMap().find(ksExecutionContextIDLogPropName)->second.empty());
}

TEST(LoggerStateTest, SourcesListInnermostFirst) {
    const LogSourceHandle parent(String(L"tmstate.parent"));
    const LogSourceHandle child(parent, String(L"child"));
    TmLogger::LoggerState state;
    state.pushSource(*parent);
    state.pushSource(*child);
    StringBufferTemplate<128, wchar_t> buffer;
    state.appendLogSources(buffer);
    EXPECT_EQ(buffer.view(), L"tmstate.parent.child\ntmstate.parent\n");
    std::vector<String> names{String(L"stale")};
    state.getLogSourceNames(names);
    ASSERT_EQ(names.size(), 2u);
    EXPECT_TRUE(names[0].equals(L"tmstate.parent.child"));
    EXPECT_TRUE(names[1].equals(L"tmstate.parent"));
    EXPECT_EQ(state.getCurSource(), child.get());
    const TmLogger::LoggerState empty;
    buffer.clear();
    empty.appendLogSources(buffer);
    EXPECT_TRUE(buffer.empty());
}

// ---------------------------------------------------------------- one logger per thread

TEST(TmLoggerThreadsTest, OneLoggerPerThread) {
    TmLogger* pFirst = &TmLogger::getLogger();
    EXPECT_EQ(&TmLogger::getLogger(), pFirst);
    TmLogger* pOther = nullptr;
    std::thread([&] { pOther = &TmLogger::getLogger(); }).join();
    EXPECT_NE(pOther, nullptr);
    EXPECT_NE(pOther, pFirst);
}

TEST(TmLoggerThreadsTest, ThreadEndDestroysItsLogger) {
    TmLogger::getLogger();
    const int nBefore = TmLogger::getLiveLoggerCount();
    std::thread([&] {
        TmLogger::getLogger();
        EXPECT_EQ(TmLogger::getLiveLoggerCount(), nBefore + 1);
    }).join();
    EXPECT_EQ(TmLogger::getLiveLoggerCount(), nBefore);
    std::thread([] {}).join();  // a thread that never logs makes no logger
    EXPECT_EQ(TmLogger::getLiveLoggerCount(), nBefore);
}

// A clean-up of the ending thread that runs after its logger was destroyed, and logs.
struct LogsAtThreadEnd {
    int m_nLiveLoggersSeen = -1;
};
void logAtThreadEnd(LogsAtThreadEnd* pProbe) {
    TmLogger& logger = TmLogger::getLogger();
    logger.logMessage(kSevError, GDString(L"at thread end"));
    pProbe->m_nLiveLoggersSeen = TmLogger::getLiveLoggerCount();
}

TEST(TmLoggerThreadsTest, LoggingAfterTheThreadsLoggerWasDestroyedGetsANewOne) {
    TmLogger::getLogger();
    const int nBefore = TmLogger::getLiveLoggerCount();
    LogsAtThreadEnd probe;
    {
        // Made after the logger's slot, so that its clean-up runs after the logger's.
        ThreadSpecificStatic<LogsAtThreadEnd> lateCleanup(&logAtThreadEnd);
        std::thread([&] {
            lateCleanup.set(&probe);
            EXPECT_EQ(&TmLogger::getLogger(), &TmLogger::getLogger());
            EXPECT_EQ(TmLogger::getLiveLoggerCount(), nBefore + 1);
        }).join();
    }
    // The clean-up ran with a live logger of its own, which went with the thread too.
    EXPECT_EQ(probe.m_nLiveLoggersSeen, nBefore + 1);
    EXPECT_EQ(TmLogger::getLiveLoggerCount(), nBefore);
}

TEST(TmLoggerThreadsTest, NewLoggerHasNoSourceAndOnlyTheEcidProperty) {
    std::thread([] {
        const TmLogger& logger = TmLogger::getLogger();
        EXPECT_EQ(logger.getLoggerState().getCurSource(), nullptr);
        const auto& map = logger.getLoggerState().propertiesMap();
        ASSERT_EQ(map.size(), 1u);
        const auto it = map.find(ksExecutionContextIDLogPropName);
        ASSERT_NE(it, map.end());
        ASSERT_EQ(it->second.size(), 1u);
        EXPECT_EQ(it->second.front().second, 0xF0000000u);
        EXPECT_EQ(it->second.front().first->kind(), GDValue::kKindDeferred);
        EXPECT_FALSE(logger.isInLogCall());
    }).join();
}

TEST(TmLoggerThreadsTest, DefaultSourceIsKivUnknown) {
    EXPECT_TRUE(lsUnspecified->getPath().equals(L"kiv.unknown"));
    EXPECT_TRUE(gdEndOfLine.getString().equals(L"\n"));
    EXPECT_TRUE(ksExecutionContextIDLogPropName.equals(L"ecid"));
}

// ---------------------------------------------------------------- dispatch

// The inline guard answers from the source filter's summary and walks the writers only when
// the summary lets the message through: its answer must be the walk's, for every source and
// severity, whatever the configuration. The one-step logMessage tests the same summary first.
TEST_F(TmLoggerTest, InlineGuardAgreesWithTheFullWalkOnRandomConfigurations) {
    std::vector<Handle<RecordingWriter>> vecWriters;
    for (short nId = 0; nId < kMaxWriterIds; ++nId) {
        vecWriters.emplace_back(
            new RecordingWriter(String(L"id"), nId, LogWriter::WT_SINGLE_THREADED, nullptr));
        logger().addLocalWriter(vecWriters.back().get());
    }
    const wchar_t* const arrPaths[] = {L"guard",       L"guard.a",     L"guard.a.x",
                                       L"guard.a.x.1", L"guard.b",     L"guard.b.y",
                                       L"guard.c",     L"guard.c.z.2", L"guard.c.z.3"};
    std::vector<LogSourceHandle> vecSources;
    for (const wchar_t* pszPath : arrPaths) {
        vecSources.emplace_back(String(pszPath));
    }
    const wchar_t* const arrPatterns[] = {L"guard.*", L"guard.?.x*", L"*.z.*", L"guard.b*"};
    std::mt19937 random(20261123);
    const auto randomThreshold = [&random]() -> std::uint16_t {
        switch (random() % 6) {
            case 0:
                return LogLevels::kNotSet;
            case 1:
                return 0;
            case 2:
                return 65534;
            default:
                return static_cast<std::uint16_t>(random() % 1000);
        }
    };
    const auto randomLevels = [&] {
        return LogLevels(randomThreshold(), randomThreshold(), randomThreshold(), randomThreshold(),
                         randomThreshold());
    };
    int nChecked = 0;
    for (int nRound = 0; nRound < 40; ++nRound) {
        GlobalFilterConfiguration cfg;
        for (int nRecord = static_cast<int>(random() % 6); nRecord > 0; --nRecord) {
            FilterConfigurationRecord*& pRecord =
                cfg.m_lstSetLogLevels[ZQWString(arrPaths[random() % std::size(arrPaths)])];
            if (pRecord == nullptr) {
                pRecord = new FilterConfigurationRecord;
            }
            pRecord->m_ThisFilter.setLogLevelsForId(static_cast<int>(random() % kMaxWriterIds),
                                                    randomLevels());
        }
        for (int nRecord = static_cast<int>(random() % 3); nRecord > 0; --nRecord) {
            auto* pRecord = new FilterConfigurationRecord;
            cfg.m_lstWildCardSetLogLevels.emplace_back(
                ZQWString(arrPatterns[random() % std::size(arrPatterns)]), pRecord);
            pRecord->m_ThisFilter.setLogLevelsForId(static_cast<int>(random() % kMaxWriterIds),
                                                    randomLevels());
        }
        if (nRound % 2 == 0) {
            LogSourcesMan::getLogSourcesMan().applyConfig(cfg);
        } else {
            LogSourcesMan::getLogSourcesMan().applyConfigSettled(cfg);
        }
        if (nRound % 5 == 4) {
            // A host's own change on one node, as start-up code makes it.
            const_cast<LogSource&>(*vecSources[random() % vecSources.size()])
                .getLogFilter()
                .setLogLevelsForId(static_cast<int>(random() % kMaxWriterIds), randomLevels());
        }
        for (const LogSourceHandle& source : vecSources) {
            const LogSource& decoy =
                *vecSources[static_cast<std::size_t>(&source - vecSources.data() + 1) %
                            vecSources.size()];
            logger().pushSource(*source);
            for (int nType = 0; nType < LogSeverity::kMsgTypeCount; ++nType) {
                for (std::uint64_t nImportance :
                     {0ull, 1ull, 499ull, 500ull, 999ull, 65534ull, 65535ull, 70000ull}) {
                    const LogSeverity severity(static_cast<LogSeverity::MsgType>(nType),
                                               nImportance);
                    bool bWalk = false;
                    for (int nId = 0; nId < kMaxWriterIds; ++nId) {
                        bWalk = bWalk || source->getLogFilter().getLogLevels(nId).accepts(severity);
                    }
                    ASSERT_EQ(logger().calcEnabledWriters(severity), bWalk)
                        << source->getPath().c_str() << " type " << nType << " importance "
                        << nImportance << " round " << nRound;
                    if (bWalk) {
                        // Empties the writers the guard enabled, so that the calls below start
                        // from the source's own summary.
                        logger().logToEnabledWriters(severity, GDString(L"guarded"), nullptr);
                    }
                    // The one-step call takes the same shortcut: it writes exactly when the
                    // walk finds a writer, under the current source and for a named source
                    // while another one is current.
                    const std::size_t nBefore = countRecords(vecWriters);
                    logger().logMessage(severity, GDString(L"current"));
                    const std::size_t nAfterCurrent = countRecords(vecWriters);
                    ASSERT_EQ(nAfterCurrent > nBefore, bWalk)
                        << source->getPath().c_str() << " type " << nType << " importance "
                        << nImportance << " round " << nRound;
                    logger().pushSource(decoy);
                    logger().logMessage(severity, GDString(L"named"), source.get());
                    logger().popSource();
                    ASSERT_EQ(countRecords(vecWriters) > nAfterCurrent, bWalk)
                        << source->getPath().c_str() << " named, type " << nType << " importance "
                        << nImportance << " round " << nRound;
                    ++nChecked;
                }
            }
            logger().popSource();
        }
    }
    EXPECT_EQ(nChecked, 40 * 9 * 5 * 8);
}

// A guard gives the answer it remembers while nothing the walk read has changed. After every
// kind of change (a threshold, a writer disabled or enabled, a local writer added or removed,
// the global writers replaced), each guard, the first after the change and the ones after it,
// must enable exactly the writers a walk finds, in the walk's order.
TEST_F(TmLoggerTest, RememberedGuardAnswerFollowsEveryChange) {
    const wchar_t* const arrPaths[] = {L"memo", L"memo.a", L"memo.a.x", L"memo.b"};
    std::vector<LogSourceHandle> vecSources;
    for (const wchar_t* pszPath : arrPaths) {
        vecSources.emplace_back(String(pszPath));
    }
    std::vector<Handle<RecordingWriter>> vecPool;
    for (short nId = 0; nId < 8; ++nId) {
        vecPool.emplace_back(new RecordingWriter(String(L"pool"), static_cast<short>(nId % 4),
                                                 LogWriter::WT_SINGLE_THREADED, nullptr));
    }
    std::vector<Handle<RecordingWriter>> vecLocal;
    std::vector<Handle<RecordingWriter>> vecGlobal;
    std::mt19937 random(20261125);
    const auto expectedWriters = [&](const LogSource& source, const LogSeverity& severity) {
        std::vector<LogWriter*> vecExpected;
        for (const auto* pList : {&vecGlobal, &vecLocal}) {
            for (const Handle<RecordingWriter>& hWriter : *pList) {
                if (hWriter->isEnabled() &&
                    source.getLogFilter().getLogLevels(hWriter->getClassId()).accepts(severity)) {
                    vecExpected.push_back(hWriter.get());
                }
            }
        }
        return vecExpected;
    };
    const auto changeSomething = [&] {
        switch (random() % 6) {
            case 0:
            case 1: {
                const LogSource& source = *vecSources[random() % vecSources.size()];
                const auto nLevel = static_cast<std::uint16_t>(random() % 3 * 500);
                const_cast<LogSource&>(source).getLogFilter().setLogLevelsForId(
                    static_cast<int>(random() % 4),
                    LogLevels(nLevel, nLevel, nLevel, nLevel, nLevel));
                break;
            }
            case 2: {
                RecordingWriter& writer = *vecPool[random() % vecPool.size()];
                writer.setIsEnabled(!writer.isEnabled());
                break;
            }
            case 3:
                vecLocal.push_back(vecPool[random() % vecPool.size()]);
                logger().addLocalWriter(vecLocal.back().get());
                break;
            case 4:
                if (!vecLocal.empty()) {
                    const std::size_t nAt = random() % vecLocal.size();
                    logger().removeLocalWriter(vecLocal[nAt].get());
                    // The first handle to that writer goes.
                    const auto it = std::find(vecLocal.begin(), vecLocal.end(), vecLocal[nAt]);
                    vecLocal.erase(it);
                }
                break;
            default: {
                LogWritersMan& registry = LogWritersMan::getLogWritersMan();
                registry.clearWriters();
                vecGlobal.clear();
                for (int n = static_cast<int>(random() % 3); n > 0; --n) {
                    vecGlobal.emplace_back(new RecordingWriter(String(L"global"),
                                                               static_cast<short>(random() % 4),
                                                               LogWriter::WT_GLOBAL, nullptr));
                }
                registry.versionIncrement();
                break;
            }
        }
    };
    const auto check = [&](const LogSource& source, const LogSeverity& severity) {
        const std::vector<LogWriter*> vecExpected = expectedWriters(source, severity);
        ASSERT_EQ(logger().calcEnabledWriters(severity), !vecExpected.empty());
        ASSERT_EQ(logger().getLogWriters()->getEnabledWriters(), vecExpected)
            << source.getPath().c_str() << " type " << severity.m_nType << " importance "
            << severity.m_dwImportance;
    };
    const std::uint64_t arrImportances[] = {0, 499, 500, 1000, 1001};
    // Each round: a guard (which remembers its answer), a change, then the same guard again
    // and a guard for another source.
    for (int nRound = 0; nRound < 2000; ++nRound) {
        const LogSource& source = *vecSources[random() % vecSources.size()];
        const LogSeverity severity(
            static_cast<LogSeverity::MsgType>(random() % LogSeverity::kMsgTypeCount),
            arrImportances[random() % std::size(arrImportances)]);
        logger().pushSource(source);
        check(source, severity);
        check(source, severity);
        changeSomething();
        check(source, severity);
        check(source, severity);
        logger().popSource();
        const LogSource& other = *vecSources[random() % vecSources.size()];
        logger().pushSource(other);
        check(other, severity);
        logger().popSource();
        if (HasFatalFailure()) {
            FAIL() << "round " << nRound;
        }
    }
    for (const Handle<RecordingWriter>& hWriter : vecPool) {
        hWriter->setIsEnabled(true);
    }
}

TEST_F(TmLoggerTest, RefusedGuardLeavesNothingEnabledFromAnEarlierGuard) {
    const Handle<RecordingWriter> hWriter = makeWriter(L"earlier");
    logger().addLocalWriter(hWriter.get());
    logger().pushSource(*m_source);
    const_cast<LogSource&>(*m_source).getLogFilter().setLogLevelsForId(
        kWriterId, LogLevels(10, 10, 10, 10, 10));
    ASSERT_TRUE(logger().calcEnabledWriters(LogSeverity(LogSeverity::SV_ERROR, 10)));
    // The caller decided not to log after all; the next guard refuses.
    EXPECT_FALSE(logger().calcEnabledWriters(LogSeverity(LogSeverity::SV_ERROR, 11)));
    EXPECT_TRUE(logger().getLogWriters()->getEnabledWriters().empty());
    logger().logToEnabledWriters(LogSeverity(LogSeverity::SV_ERROR, 11), GDString(L"no"), nullptr);
    EXPECT_TRUE(hWriter->records().empty());
    openSource(*m_source);
}

// A writer that tells, when it is destroyed, how many messages it had received.
class MortalWriter : public RecordingWriter {
public:
    MortalWriter(const wchar_t* pszName, WriterType type, int* pnRecordsAtDeath)
        : RecordingWriter(String(pszName), kWriterId, type, nullptr),
          m_pnRecordsAtDeath(pnRecordsAtDeath) {}
    ~MortalWriter() override { *m_pnRecordsAtDeath = static_cast<int>(records().size()); }

private:
    int* m_pnRecordsAtDeath;
};

TEST_F(TmLoggerTest, AGuardKeepsALocalWriterRemovedBeforeTheWriteAliveUntilTheWrite) {
    int nRecordsAtDeath = -1;
    // The thread's local list holds the only reference.
    auto* pWriter = new MortalWriter(L"mortal", LogWriter::WT_SINGLE_THREADED, &nRecordsAtDeath);
    logger().addLocalWriter(pWriter);
    logger().pushSource(*m_source);
    ASSERT_TRUE(logger().calcEnabledWriters(kSevError));
    logger().removeLocalWriter(pWriter);
    EXPECT_EQ(nRecordsAtDeath, -1) << "destroyed while a guard had enabled it";
    logger().logToEnabledWriters(kSevError, GDString(L"still delivered"), nullptr);
    // Written to, then let go with the enabled list.
    EXPECT_EQ(nRecordsAtDeath, 1);
    EXPECT_TRUE(logger().getLogWriters()->getEnabledWriters().empty());
}

TEST_F(TmLoggerTest, AGuardKeepsAGlobalWriterAliveWhenTheThreadsCopyIsReplacedBeforeTheWrite) {
    int nRecordsAtDeath = -1;
    LogWritersMan& registry = LogWritersMan::getLogWritersMan();
    new MortalWriter(L"global", LogWriter::WT_GLOBAL, &nRecordsAtDeath);  // the registry's
    registry.versionIncrement();
    logger().pushSource(*m_source);
    ASSERT_TRUE(logger().calcEnabledWriters(kSevError));
    registry.clearWriters();
    registry.versionIncrement();
    // A one-step message between the guard and its write copies the registry's new (empty)
    // list: the thread's last handle on the writer goes with the old copy.
    logger().logMessage(kSevError, GDString(L"in between"));
    EXPECT_EQ(nRecordsAtDeath, -1) << "destroyed while a guard had enabled it";
    logger().logToEnabledWriters(kSevError, GDString(L"the guarded one"), nullptr);
    EXPECT_EQ(nRecordsAtDeath, 1);
}

TEST_F(TmLoggerTest, AGuardThatIsNotFollowedByAWriteKeepsItsWritersUntilTheNextGuard) {
    int nRecordsAtDeath = -1;
    auto* pWriter = new MortalWriter(L"mortal", LogWriter::WT_SINGLE_THREADED, &nRecordsAtDeath);
    logger().addLocalWriter(pWriter);
    logger().pushSource(*m_source);
    ASSERT_TRUE(logger().calcEnabledWriters(kSevError));
    logger().clearLocalWriters();
    EXPECT_EQ(nRecordsAtDeath, -1);
    EXPECT_FALSE(logger().calcEnabledWriters(kSevError));
    EXPECT_EQ(nRecordsAtDeath, 0);
}

TEST_F(TmLoggerTest, ImportanceBeyondEveryThresholdIsRefusedAlsoAboveTwoToTheSixtyThird) {
    const Handle<RecordingWriter> hWriter = makeWriter(L"huge");
    logger().addLocalWriter(hWriter.get());
    logger().pushSource(*m_source);
    EXPECT_TRUE(logger().calcEnabledWriters(LogSeverity(LogSeverity::SV_ERROR, 65534)));
    EXPECT_FALSE(logger().calcEnabledWriters(LogSeverity(LogSeverity::SV_ERROR, 65535)));
    EXPECT_FALSE(logger().calcEnabledWriters(LogSeverity(LogSeverity::SV_ERROR, 1ull << 63)));
    EXPECT_FALSE(logger().calcEnabledWriters(LogSeverity(LogSeverity::SV_ERROR, ~0ull)));
    EXPECT_TRUE(logger().getLogWriters()->getEnabledWriters().empty());
}

// A writer whose logMessage runs a guard: it runs inside the outer call, under the source the
// call pushed for itself, and the thread's own guard afterwards reads its own source again.
class GuardingWriter : public RecordingWriter {
public:
    using RecordingWriter::RecordingWriter;
    void logMessage(const LogSeverity& severity, const GDValue& message, const LoggerState& state,
                    const FileLocation* pLocation) override {
        m_bInnerGuard = TmLogger::getLogger().calcEnabledWriters(severity);
        RecordingWriter::logMessage(severity, message, state, pLocation);
    }
    bool m_bInnerGuard = false;
};

TEST_F(TmLoggerTest, GuardInsideALogCallLeavesTheThreadsGuardOnItsOwnSource) {
    const Handle<GuardingWriter> hWriter(
        new GuardingWriter(String(L"guarding"), kWriterId, LogWriter::WT_SINGLE_THREADED, nullptr));
    logger().addLocalWriter(hWriter.get());
    // The call's explicit source lets errors through; the thread's own source does not.
    const LogSourceHandle quiet(String(L"tmtest.quiet"));
    const_cast<LogSource&>(*quiet).getLogFilter().setLogLevelsForId(kWriterId,
                                                                    LogLevels(0, 0, 0, 0, 0));
    logger().pushSource(*quiet);
    EXPECT_FALSE(logger().calcEnabledWriters(kSevErrorFatal));
    logger().logMessage(kSevErrorFatal, GDString(L"inside"), m_source.get());
    ASSERT_EQ(hWriter->records().size(), 1u);
    EXPECT_TRUE(hWriter->m_bInnerGuard);
    EXPECT_FALSE(logger().calcEnabledWriters(kSevErrorFatal));
    logger().popSource();
    logger().pushSource(*m_source);
    EXPECT_TRUE(logger().calcEnabledWriters(kSevErrorFatal));
    logger().logToEnabledWriters(kSevErrorFatal, GDString(L"after"), nullptr);
    EXPECT_EQ(hWriter->records().size(), 2u);
}

TEST_F(TmLoggerTest, WithNoWritersNothingIsEnabledAndNothingWritten) {
    EXPECT_FALSE(logger().calcEnabledWriters(kSevErrorFatal));
    logger().logToEnabledWriters(kSevErrorFatal, GDString(L"x"), nullptr);
    logger().logMessage(kSevErrorFatal, GDString(L"x"));
    EXPECT_TRUE(logger().getLogWriters()->getEnabledWriters().empty());
}

TEST_F(TmLoggerTest, DisabledWriterIsSkipped) {
    auto hWriter = makeWriter(L"off");
    hWriter->setIsEnabled(false);
    logger().addLocalWriter(hWriter.get());
    EXPECT_FALSE(logger().calcEnabledWriters(kSevError));
    logger().logMessage(kSevError, GDString(L"x"));
    EXPECT_TRUE(hWriter->records().empty());
}

TEST_F(TmLoggerTest, GlobalWritersFirstThenLocalWritersInOrder) {
    std::vector<String> vecOrder;
    struct OrderWriter : RecordingWriter {
        OrderWriter(const wchar_t* psz, std::vector<String>& order, WriterType type)
            : RecordingWriter(String(psz), kWriterId, type, nullptr), m_order(order) {}
        void logMessage(const LogSeverity& s, const GDValue& m, const TmLogger::LoggerState& st,
                        const TmLogger::FileLocation* l) override {
            m_order.push_back(getName());
            RecordingWriter::logMessage(s, m, st, l);
        }
        std::vector<String>& m_order;
    };
    Handle<LogWriter> hLocal1(new OrderWriter(L"local1", vecOrder, LogWriter::WT_SHARED));
    Handle<LogWriter> hLocal2(new OrderWriter(L"local2", vecOrder, LogWriter::WT_SHARED));
    logger().addLocalWriter(hLocal1.get());
    logger().addLocalWriter(hLocal2.get());
    new OrderWriter(L"global", vecOrder, LogWriter::WT_GLOBAL);
    LogWritersMan::getLogWritersMan().versionIncrement();
    logger().logMessage(kSevError, GDString(L"m"));
    ASSERT_EQ(vecOrder.size(), 3u);
    EXPECT_TRUE(vecOrder[0].equals(L"global"));
    EXPECT_TRUE(vecOrder[1].equals(L"local1"));
    EXPECT_TRUE(vecOrder[2].equals(L"local2"));
    vecOrder.clear();
    ASSERT_TRUE(logger().calcEnabledWriters(kSevError));
    logger().logToEnabledWriters(kSevError, GDString(L"m"), nullptr);
    EXPECT_EQ(vecOrder.size(), 3u);
    EXPECT_TRUE(vecOrder[0].equals(L"global"));
}

TEST_F(TmLoggerTest, SameLocalWriterTwiceReceivesTwice) {
    auto hWriter = makeWriter(L"twice");
    logger().addLocalWriter(hWriter.get());
    logger().addLocalWriter(hWriter.get());
    logger().logMessage(kSevError, GDString(L"a"));
    EXPECT_EQ(hWriter->records().size(), 2u);
    logger().removeLocalWriter(hWriter.get());
    logger().logMessage(kSevError, GDString(L"b"));
    EXPECT_EQ(hWriter->records().size(), 3u);
    logger().removeLocalWriter(hWriter.get());
    logger().removeLocalWriter(hWriter.get());  // none left: nothing happens
    logger().logMessage(kSevError, GDString(L"c"));
    EXPECT_EQ(hWriter->records().size(), 3u);
}

TEST_F(TmLoggerTest, NewGlobalWriterIsSeenAfterTheVersionChanges) {
    logger().logMessage(kSevError, GDString(L"sync"));
    RecordingWriter* pGlobal =
        new RecordingWriter(String(L"late"), kWriterId, LogWriter::WT_GLOBAL, nullptr);
    Handle<LogWriter> hKeep(pGlobal);
    // Entering the list does not bump the version: the copy is still considered current.
    logger().logMessage(kSevError, GDString(L"before"));
    EXPECT_TRUE(pGlobal->records().empty());
    LogWritersMan::getLogWritersMan().versionIncrement();
    EXPECT_TRUE(logger().calcEnabledWriters(kSevError));
    logger().logToEnabledWriters(kSevError, GDString(L"after"), nullptr);
    ASSERT_EQ(pGlobal->records().size(), 1u);
    EXPECT_TRUE(pGlobal->records()[0].text.equals(L"after"));
    std::thread([&] {
        openSource(*lsUnspecified);
        TmLogger::getLogger().logMessage(kSevError, GDString(L"other thread"));
    }).join();
    EXPECT_EQ(pGlobal->records().size(), 2u);
}

TEST_F(TmLoggerTest, CurrentVersionTakesNoLock) {
    logger().calcEnabledWriters(kSevError);  // brings the copy up to date
    LogWritersMan& registry = LogWritersMan::getLogWritersMan();
    std::promise<void> locked;
    std::promise<void> done;
    std::atomic<bool> bHadToRelease{false};
    // Holds the registry's lock until the call returns, but for at most a second: a call that
    // waits for the lock then fails the test instead of hanging it.
    std::thread holder([&] {
        LockGuard<CriticalSection> lock(registry.getMonitor());
        locked.set_value();
        if (done.get_future().wait_for(std::chrono::seconds(1)) == std::future_status::timeout) {
            bHadToRelease = true;
        }
    });
    locked.get_future().wait();
    EXPECT_FALSE(logger().calcEnabledWriters(kSevError));
    done.set_value();
    holder.join();
    EXPECT_FALSE(bHadToRelease.load()) << "calcEnabledWriters waited for the registry's lock";
}

class ReentrantWriter : public RecordingWriter {
public:
    using RecordingWriter::RecordingWriter;
    void logMessage(const LogSeverity& s, const GDValue& m, const TmLogger::LoggerState& st,
                    const TmLogger::FileLocation* l) override {
        RecordingWriter::logMessage(s, m, st, l);
        TmLogger::getLogger().logMessage(kSevError, GDString(L"inner"));
        TmLogger::getLogger().logToEnabledWriters(kSevError, GDString(L"inner2"), nullptr);
    }
};

TEST_F(TmLoggerTest, LoggingInsideALogCallIsDivertedToThePreviousLogger) {
    KeelLoggerDouble previous;
    KeelLogger::setKeelLogger(nullptr);
    KeelLogger::setKeelLogger(&previous);
    KeelLoggerLogImpl::plugMeIn();
    ASSERT_EQ(KeelLoggerLogImpl::getKeelLoggerLogImpl().getPrevKeelLogger(), &previous);

    Handle<LogWriter> hWriter(
        new ReentrantWriter(String(L"re"), kWriterId, LogWriter::WT_SINGLE_THREADED, nullptr));
    logger().addLocalWriter(hWriter.get());
    logger().logMessage(kSevError, GDString(L"outer"));
    const auto& records = static_cast<RecordingWriter&>(*hWriter).records();
    ASSERT_EQ(records.size(), 1u);  // the inner messages never reach our writers
    ASSERT_EQ(previous.m_vecEntries.size(), 2u);
    EXPECT_TRUE(
        previous.m_vecEntries[0].strText.equals(L"Failed to log the following message. inner "));
    EXPECT_EQ(previous.m_vecEntries[0].nType, KeelLogger::kError);
    EXPECT_EQ(previous.m_vecEntries[0].nSeverity, KeelLogger::kSeverityNormal);
    EXPECT_TRUE(previous.m_vecEntries[0].strFile.equals(L"./project/weblogger/tmlogger"));
    EXPECT_EQ(previous.m_vecEntries[0].nLine, 79u);
    EXPECT_EQ(previous.m_vecEntries[1].nLine, 121u);
    EXPECT_FALSE(logger().isInLogCall());

    // With no previous logger the inner message is dropped.
    KeelLogger::setKeelLogger(nullptr);
    KeelLoggerLogImpl::plugMeIn();
    logger().logMessage(kSevError, GDString(L"outer again"));
    EXPECT_EQ(previous.m_vecEntries.size(), 2u);
    EXPECT_EQ(static_cast<RecordingWriter&>(*hWriter).records().size(), 2u);
    KeelLogger::setKeelLogger(nullptr);
}

// Logs, from inside its own log call, a message that every threshold refuses.
class ReentrantRefusedWriter : public RecordingWriter {
public:
    using RecordingWriter::RecordingWriter;
    void logMessage(const LogSeverity& s, const GDValue& m, const TmLogger::LoggerState& st,
                    const TmLogger::FileLocation* l) override {
        RecordingWriter::logMessage(s, m, st, l);
        const LogSeverity refused(LogSeverity::SV_TRACE, 100000);
        ASSERT_FALSE(st.getCurSource()->getLogFilter().mayAccept(refused));
        TmLogger::getLogger().logMessage(refused, GDString(L"refused inner"));
    }
};

TEST_F(TmLoggerTest, OneStepCallInsideALogCallIsDivertedEvenWhenItsSourceRefusesIt) {
    KeelLoggerDouble previous;
    KeelLogger::setKeelLogger(nullptr);
    KeelLogger::setKeelLogger(&previous);
    KeelLoggerLogImpl::plugMeIn();

    Handle<LogWriter> hWriter(new ReentrantRefusedWriter(String(L"re"), kWriterId,
                                                         LogWriter::WT_SINGLE_THREADED, nullptr));
    logger().addLocalWriter(hWriter.get());
    logger().pushSource(*m_source);
    logger().logMessage(kSevError, GDString(L"outer"));
    logger().popSource();
    EXPECT_EQ(static_cast<RecordingWriter&>(*hWriter).records().size(), 1u);
    ASSERT_EQ(previous.m_vecEntries.size(), 1u);
    EXPECT_TRUE(previous.m_vecEntries[0].strText.equals(
        L"Failed to log the following message. refused inner "));
    EXPECT_EQ(previous.m_vecEntries[0].nLine, 79u);
    EXPECT_FALSE(logger().isInLogCall());
    KeelLogger::setKeelLogger(nullptr);
}

class ThrowingWriter : public RecordingWriter {
public:
    using RecordingWriter::RecordingWriter;
    void logMessage(const LogSeverity&, const GDValue&, const TmLogger::LoggerState&,
                    const TmLogger::FileLocation*) override {
        if (m_bStandard) {
            throw std::runtime_error("not ours");
        }
        ZQ_THROW(Exception(GDString(L"writer failed")));
    }
    bool m_bStandard = false;
};

TEST_F(TmLoggerTest, InHouseExceptionStopsTheDispatchAndNeverReachesTheCaller) {
    Handle<ThrowingWriter> hThrowing(
        new ThrowingWriter(String(L"t"), kWriterId, LogWriter::WT_SINGLE_THREADED, nullptr));
    auto hAfter = makeWriter(L"after");
    logger().addLocalWriter(hThrowing.get());
    logger().addLocalWriter(hAfter.get());
    EXPECT_NO_THROW(logger().logMessage(kSevError, GDString(L"m")));
    EXPECT_TRUE(hAfter->records().empty());
    ASSERT_TRUE(logger().calcEnabledWriters(kSevError));
    EXPECT_NO_THROW(logger().logToEnabledWriters(kSevError, GDString(L"m"), nullptr));
    EXPECT_TRUE(hAfter->records().empty());
    // The list was not emptied; the next calculation starts afresh.
    EXPECT_EQ(logger().getLogWriters()->getEnabledWriters().size(), 2u);
    EXPECT_FALSE(logger().isInLogCall());
    EXPECT_EQ(logger().getLoggerState().getCurSource(), nullptr);
}

TEST_F(TmLoggerTest, EmptyWriterHandleNeverReachesTheCaller) {
    auto hBefore = makeWriter(L"before");
    logger().addLocalWriter(hBefore.get());
    logger().addLocalWriter(nullptr);
    bool bEnabled = true;
    EXPECT_NO_THROW(bEnabled = logger().calcEnabledWriters(kSevError));
    EXPECT_FALSE(bEnabled);
    // The failed calculation left nothing enabled: the two-step write goes nowhere.
    EXPECT_NO_THROW(logger().logToEnabledWriters(kSevError, GDString(L"m"), nullptr));
    EXPECT_TRUE(hBefore->records().empty());
    // The one-step write reaches the writers before the empty handle, then stops there.
    EXPECT_NO_THROW(logger().logMessage(kSevError, GDString(L"m")));
    EXPECT_EQ(hBefore->records().size(), 1u);
    EXPECT_FALSE(logger().isInLogCall());
    EXPECT_EQ(logger().getLoggerState().getCurSource(), nullptr);
}

TEST_F(TmLoggerTest, OtherExceptionsPassOnAfterTheCleanUp) {
    Handle<ThrowingWriter> hThrowing(
        new ThrowingWriter(String(L"t"), kWriterId, LogWriter::WT_SINGLE_THREADED, nullptr));
    hThrowing->m_bStandard = true;
    logger().addLocalWriter(hThrowing.get());
    EXPECT_THROW(logger().logMessage(kSevError, GDString(L"m"), m_source.get()),
                 std::runtime_error);
    EXPECT_FALSE(logger().isInLogCall());
    EXPECT_EQ(logger().getLoggerState().getCurSource(), nullptr);
}

TEST_F(TmLoggerTest, WithoutSourceTheMessageIsLoggedUnderKivUnknown) {
    auto hWriter = makeWriter(L"w");
    logger().addLocalWriter(hWriter.get());
    logger().logMessage(kSevError, GDString(L"one-step"));
    ASSERT_TRUE(logger().calcEnabledWriters(kSevError));
    logger().logToEnabledWriters(kSevError, GDString(L"two-step"), nullptr);
    const auto records = hWriter->records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(records[0].source.equals(L"kiv.unknown"));
    EXPECT_TRUE(records[1].source.equals(L"kiv.unknown"));
    EXPECT_EQ(logger().getLoggerState().getCurSource(), nullptr);
}

TEST_F(TmLoggerTest, GivenSourceIsUsedForTheCallOnly) {
    auto hWriter = makeWriter(L"w");
    logger().addLocalWriter(hWriter.get());
    logger().pushSource(*lsUnspecified);
    logger().logMessage(kSevError, GDString(L"x"), m_source.get());
    EXPECT_TRUE(hWriter->records()[0].source.equals(L"tmtest.request"));
    EXPECT_EQ(logger().getLoggerState().getCurSource(), lsUnspecified.get());
}

TEST_F(TmLoggerTest, SourceFilterDecides) {
    const LogSourceHandle closed(String(L"tmtest.closed"));
    auto hWriter = makeWriter(L"w");
    logger().addLocalWriter(hWriter.get());
    logger().logMessage(kSevError, GDString(L"x"), closed.get());
    EXPECT_TRUE(hWriter->records().empty());
    logger().pushSource(*closed);
    EXPECT_FALSE(logger().calcEnabledWriters(kSevError));
}

TEST_F(TmLoggerTest, ExceptionWithLinkedExceptionsIsOneMessage) {
    auto hWriter = makeWriter(L"w");
    logger().addLocalWriter(hWriter.get());
    Exception exception(GDString(L"top"));
    exception.linkException(Exception(GDString(L"first")));
    exception.linkException(Exception(GDString(L"second")));
    logger().logException(exception);
    const auto records = hWriter->records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_TRUE(records[0].text.equals(L"top\nfirst\nsecond"));
    EXPECT_EQ(records[0].severity.m_dwImportance, kSevError.m_dwImportance);
    logger().logException(Exception(GDString(L"alone")), &kSevWarning);
    EXPECT_TRUE(hWriter->records()[1].text.equals(L"alone"));
    EXPECT_EQ(hWriter->records()[1].severity.m_nType, LogSeverity::SV_WARNING);
}

class LocationWriter : public RecordingWriter {
public:
    using RecordingWriter::RecordingWriter;
    void logMessage(const LogSeverity& s, const GDValue& m, const TmLogger::LoggerState& st,
                    const TmLogger::FileLocation* l) override {
        m_strBacktrace =
            l != nullptr && l->getBacktrace() != nullptr ? String(l->getBacktrace()) : String();
        m_nLine = l != nullptr ? l->getLineNumber() : 0;
        RecordingWriter::logMessage(s, m, st, l);
    }
    String m_strBacktrace;
    unsigned m_nLine = 0;
};

TEST_F(TmLoggerTest, ExceptionStackTraceBecomesTheBacktrace) {
    Handle<LocationWriter> hWriter(
        new LocationWriter(String(L"l"), kWriterId, LogWriter::WT_SINGLE_THREADED, nullptr));
    logger().addLocalWriter(hWriter.get());
    try {
        ZQ_THROW(Exception(GDString(L"thrown")));
    } catch (const Exception& e) {
        const TmLogger::FileLocation location(L"caller.cpp", 12);
        logger().logException(e, nullptr, &location);
    }
    EXPECT_FALSE(hWriter->m_strBacktrace.empty());
    EXPECT_EQ(hWriter->m_nLine, 12u);
}

TEST_F(TmLoggerTest, NumberedFormsReferToTheirInserts) {
    auto hWriter = makeWriter(L"w");
    logger().addLocalWriter(hWriter.get());
    const GDString tmpl(L"%1|%2|%3|%4|%5|%6|%7|%8");
    const GDUInteger64 a(1), b(2), c(3), d(4), e(5), f(6), g(7), h(8);
    const TmLogger::FileLocation location(L"f.cpp", 1);
    const auto logAll = [&] {
        logger().calcEnabledWriters(kSevInfo);
        logger().logToEnabledWriters1(kSevInfo, tmpl, a, &location);
        logger().calcEnabledWriters(kSevInfo);
        logger().logToEnabledWriters2(kSevInfo, tmpl, a, b, &location);
        logger().calcEnabledWriters(kSevInfo);
        logger().logToEnabledWriters3(kSevInfo, tmpl, a, b, c, &location);
        logger().calcEnabledWriters(kSevInfo);
        logger().logToEnabledWriters4(kSevInfo, tmpl, a, b, c, d, &location);
        logger().calcEnabledWriters(kSevInfo);
        logger().logToEnabledWriters5(kSevInfo, tmpl, a, b, c, d, e, &location);
        logger().calcEnabledWriters(kSevInfo);
        logger().logToEnabledWriters6(kSevInfo, tmpl, a, b, c, d, e, f, &location);
        logger().calcEnabledWriters(kSevInfo);
        logger().logToEnabledWriters7(kSevInfo, tmpl, a, b, c, d, e, f, g, &location);
        logger().calcEnabledWriters(kSevInfo);
        logger().logToEnabledWriters8(kSevInfo, tmpl, a, b, c, d, e, f, g, h, &location);
    };
    logAll();
    const auto vecTexts = texts(*hWriter);
    ASSERT_EQ(vecTexts.size(), 8u);
    EXPECT_TRUE(vecTexts[0].equals(L"1|%2|%3|%4|%5|%6|%7|%8"));
    EXPECT_TRUE(vecTexts[3].equals(L"1|2|3|4|%5|%6|%7|%8"));
    EXPECT_TRUE(vecTexts[7].equals(L"1|2|3|4|5|6|7|8"));
}

TEST_F(TmLoggerTest, CalcFromInsideALogCallClearsTheFlagAtItsEnd) {
    struct CalcWriter : RecordingWriter {
        using RecordingWriter::RecordingWriter;
        void logMessage(const LogSeverity& s, const GDValue& m, const TmLogger::LoggerState& st,
                        const TmLogger::FileLocation* l) override {
            RecordingWriter::logMessage(s, m, st, l);
            if (m_bCalcInside) {
                m_bEnabledInside = TmLogger::getLogger().calcEnabledWriters(kSevError);
                m_bFlagAfterCalc = TmLogger::getLogger().isInLogCall();
            }
        }
        bool m_bCalcInside = true;
        bool m_bEnabledInside = false;
        bool m_bFlagAfterCalc = true;
    };
    Handle<CalcWriter> hWriter(
        new CalcWriter(String(L"c"), kWriterId, LogWriter::WT_SINGLE_THREADED, nullptr));
    logger().addLocalWriter(hWriter.get());
    logger().logMessage(kSevError, GDString(L"x"));
    EXPECT_TRUE(hWriter->m_bEnabledInside);
    EXPECT_FALSE(hWriter->m_bFlagAfterCalc);

    // The same from a guard that gives the answer it remembers: a guard outside any call walks
    // and keeps its answer for the source and severity, which the guard inside then gives.
    logger().pushSource(*m_source);
    hWriter->m_bCalcInside = false;
    ASSERT_TRUE(logger().calcEnabledWriters(kSevError));
    logger().logToEnabledWriters(kSevError, GDString(L"y"), nullptr);
    hWriter->m_bCalcInside = true;
    hWriter->m_bEnabledInside = false;
    hWriter->m_bFlagAfterCalc = true;
    logger().logMessage(kSevError, GDString(L"z"));
    logger().popSource();
    EXPECT_TRUE(hWriter->m_bEnabledInside);
    EXPECT_FALSE(hWriter->m_bFlagAfterCalc);
    EXPECT_EQ(hWriter->records().size(), 3u);
}

TEST_F(TmLoggerTest, LocalWritersCanBeSavedRestoredAndAppended) {
    auto hFirst = makeWriter(L"first");
    auto hSecond = makeWriter(L"second");
    logger().addLocalWriter(hFirst.get());
    LogWritersState saved;
    logger().getLocalWriters(saved);
    ASSERT_EQ(saved.m_list.size(), 1u);
    LogWritersState other;
    other.m_list.emplace_back(hSecond.get());
    logger().appendLocalWriters(other);
    logger().logMessage(kSevError, GDString(L"both"));
    EXPECT_EQ(hFirst->records().size(), 1u);
    EXPECT_EQ(hSecond->records().size(), 1u);
    logger().setLocalWriters(other);
    logger().logMessage(kSevError, GDString(L"second only"));
    EXPECT_EQ(hFirst->records().size(), 1u);
    EXPECT_EQ(hSecond->records().size(), 2u);
    LogWritersState combined(saved);
    combined.append(other);
    EXPECT_EQ(combined.m_list.size(), 2u);
    combined.swap(saved);
    EXPECT_EQ(saved.m_list.size(), 2u);
    combined.clear();
    EXPECT_TRUE(combined.m_list.empty());
}

// ---------------------------------------------------------------- cost

class NullWriter : public LogWriter {
public:
    using LogWriter::LogWriter;
    bool initialize(const XmlElement*, const XmlElement*) override { return true; }
    void logMessage(const LogSeverity&, const GDValue& msg, const TmLogger::LoggerState&,
                    const TmLogger::FileLocation*) override {
        m_buffer.clear();
        msg.appendText(m_buffer);
    }
    StringBufferTemplate<256, wchar_t> m_buffer;
};

TEST_F(TmLoggerTest, SteadyStateLoggingAllocatesNothing) {
    Handle<LogWriter> hWriter(
        new NullWriter(String(L"n"), kWriterId, LogWriter::WT_SINGLE_THREADED, nullptr));
    logger().addLocalWriter(hWriter.get());
    const GDString tmpl(L"user %1 got %2");
    const GDString user(L"ann");
    const GDUInteger64 count(3);
    logger().logMessage(kSevError, tmpl);
    logger().calcEnabledWriters(kSevError);
    logger().logToEnabledWriters2(kSevError, tmpl, user, count, nullptr);
    test::AllocationScope scope;
    for (int i = 0; i < 100; ++i) {
        logger().logMessage(kSevError, tmpl, m_source.get());
        if (logger().calcEnabledWriters(kSevError)) {
            logger().logToEnabledWriters2(kSevError, tmpl, user, count, nullptr);
        }
        logger().calcEnabledWriters(kSevTraceFinest);  // filtered out
    }
    EXPECT_EQ(scope.count(), 0u);
}

std::size_t heapInUse() {
    return test::liveHeapBytes() + MemAllocNewdel::stats().nLiveBytes;
}

TEST(TmLoggerMemoryTest, OneThreadsLoggerIsSmallAndThreadsLeaveNothingBehind) {
    openSource(*lsUnspecified);
    // Warm up everything process-wide (catalogue, registry, slot) on a first thread.
    std::thread([] { TmLogger::getLogger().logMessage(kSevError, GDString(L"warm")); }).join();

    std::size_t nLoggerBytes = 0;
    std::thread([&] {
        const std::size_t nBefore = heapInUse();
        TmLogger::getLogger().logMessage(kSevError, GDString(L"first"));
        nLoggerBytes = heapInUse() - nBefore;
    }).join();
    std::printf("heap held by one thread's logger after its first message: %zu bytes\n",
                nLoggerBytes);
    EXPECT_LT(nLoggerBytes, 4096u);

    const std::size_t nBefore = heapInUse();
    for (int i = 0; i < 1000; ++i) {
        std::thread([] { TmLogger::getLogger().logMessage(kSevError, GDString(L"once")); }).join();
    }
    const std::size_t nAfter = heapInUse();
    std::printf("heap in use before 1000 threads: %zu, after: %zu\n", nBefore, nAfter);
    EXPECT_EQ(nAfter, nBefore);
}

}  // namespace
}  // namespace kiv

#include "weblogger/logsource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "support/test_writer.h"
#include "weblogger/logfilterconfig.h"
#include "zq/webkeel/assert.h"

namespace kiv {
namespace {

LogSourcesMan& registry() {
    return LogSourcesMan::getLogSourcesMan();
}

std::vector<ZQWString> allNames() {
    std::vector<ZQWString> names;
    registry().getAllLogSourceNames(names);
    return names;
}

std::size_t countWithPrefix(const std::vector<ZQWString>& names, const wchar_t* pszRoot) {
    const ZQWString root(pszRoot);
    const ZQWString prefix = root + L".";
    return static_cast<std::size_t>(
        std::count_if(names.begin(), names.end(),
                      [&](const ZQWString& n) { return n.equals(root) || n.find(prefix) == 0; }));
}

TEST(LogSourceTest, DottedNameCreatesEachLevelOnce) {
    const std::size_t nBefore = allNames().size();
    LogSource* pUnknown = registry().getLogSource(nullptr, ZQWString(L"src1.unknown"));
    ASSERT_NE(pUnknown, nullptr);
    EXPECT_EQ(allNames().size(), nBefore + 2);
    const LogSource* pTop = pUnknown->getParent();
    ASSERT_NE(pTop, nullptr);
    EXPECT_TRUE(pTop->getPath().equals(L"src1"));
    EXPECT_TRUE(pTop->getName().equals(L"src1"));
    EXPECT_EQ(pTop->getParent(), nullptr);
    EXPECT_TRUE(pUnknown->getName().equals(L"unknown"));
    EXPECT_TRUE(pUnknown->getPath().equals(L"src1.unknown"));

    EXPECT_EQ(registry().getLogSource(nullptr, ZQWString(L"src1.unknown")), pUnknown);
    EXPECT_EQ(allNames().size(), nBefore + 2);
    EXPECT_EQ(registry().findLogSource(ZQWString(L"src1.unknown")), pUnknown);
    EXPECT_EQ(registry().findLogSource(ZQWString(L"unknown")), nullptr);
    EXPECT_EQ(registry().findLogSource(ZQWString(L"src1.nothere")), nullptr);
}

TEST(LogSourceTest, RelativeNameNeverConsultsTheTopLevel) {
    LogSource* pRoot = registry().getLogSource(nullptr, ZQWString(L"src2"));
    // A top-level node named "a" must not be picked up by the relative walk.
    LogSource* pTopLevelA = registry().getLogSource(nullptr, ZQWString(L"a"));
    LogSource* pAB = registry().getLogSource(pRoot, ZQWString(L"a.b"));
    ASSERT_NE(pAB, nullptr);
    EXPECT_TRUE(pAB->getPath().equals(L"src2.a.b"));
    EXPECT_NE(pAB->getParent(), pTopLevelA);
    EXPECT_TRUE(pAB->getParent()->getPath().equals(L"src2.a"));
    EXPECT_EQ(pAB->getParent()->getParent(), pRoot);
    EXPECT_EQ(registry().findLogSource(ZQWString(L"a.b")), nullptr);
}

TEST(LogSourceTest, ThePathIsKeptAsUtf8Too) {
    LogSource* pSource =
        registry().getLogSource(nullptr, ZQWString(L"src\u00e9.zw\u00f6lf.\U0001F600"));
    ASSERT_NE(pSource, nullptr);
    EXPECT_EQ(pSource->getPathUtf8().std(), "src\xc3\xa9.zw\xc3\xb6lf.\xf0\x9f\x98\x80");
    EXPECT_EQ(pSource->getParent()->getPathUtf8().std(), "src\xc3\xa9.zw\xc3\xb6lf");
}

TEST(LogSourceTest, TopLevelNamesAreRootsSideBySide) {
    LogSource* pFirst = registry().getLogSource(nullptr, ZQWString(L"src3"));
    LogSource* pSecond = registry().getLogSource(nullptr, ZQWString(L"src3x"));
    EXPECT_EQ(pFirst->getParent(), nullptr);
    EXPECT_EQ(pSecond->getParent(), nullptr);
    EXPECT_NE(pFirst, pSecond);
    const std::vector<ZQWString> names = allNames();
    EXPECT_EQ(std::count(names.begin(), names.end(), ZQWString(L"src3")), 1);
    EXPECT_EQ(std::count(names.begin(), names.end(), ZQWString(L"src3x")), 1);
}

TEST(LogSourceTest, NamesAreCaseSensitiveAndNotTrimmed) {
    LogSource* pLower = registry().getLogSource(nullptr, ZQWString(L"src4.kiv"));
    LogSource* pUpper = registry().getLogSource(nullptr, ZQWString(L"src4.Kiv"));
    LogSource* pSpaced = registry().getLogSource(nullptr, ZQWString(L"src4. kiv"));
    EXPECT_NE(pLower, pUpper);
    EXPECT_NE(pLower, pSpaced);
    EXPECT_TRUE(pSpaced->getName().equals(L" kiv"));
}

TEST(LogSourceTest, AdjacentSeparatorsAreReported) {
    AssertionCapture capture;
    registry().getLogSource(nullptr, ZQWString(L"src5..x"));
    EXPECT_TRUE(capture.contains(
        "iNewCurParseIndex == ZQWString::npos || iNewCurParseIndex > iCurParseIndex"));
    EXPECT_TRUE(capture.contains("!strName.empty()"));
    for (const auto& entry : capture.entries()) {
        EXPECT_EQ(entry.file, "./project/weblogger/logsource");
    }
}

TEST(LogSourceTest, LeadingSeparatorIsReported) {
    AssertionCapture capture;
    registry().getLogSource(nullptr, ZQWString(L".src6"));
    EXPECT_EQ(capture.expressions(), std::vector<std::string>{"!strName.empty()"});
}

TEST(LogSourceTest, TrailingSeparatorIsReported) {
    AssertionCapture capture;
    LogSource* pEmpty = registry().getLogSource(nullptr, ZQWString(L"src7."));
    EXPECT_EQ(capture.expressions(), std::vector<std::string>{"!strName.empty()"});
    // The walk goes on with the empty segment: an empty-named child exists.
    EXPECT_TRUE(pEmpty->getName().empty());
    EXPECT_TRUE(pEmpty->getPath().equals(L"src7."));
}

TEST(LogSourceTest, RelativeNameStartingWithSeparatorIsReported) {
    LogSource* pRoot = registry().getLogSource(nullptr, ZQWString(L"src8"));
    AssertionCapture capture;
    registry().getLogSource(pRoot, ZQWString(L".x"));
    EXPECT_TRUE(capture.contains(
        "iNewCurParseIndex == ZQWString::npos || iNewCurParseIndex > iCurParseIndex"));
}

TEST(LogSourceTest, AllNamesArePreOrderWithEveryNodeOnce) {
    LogSource* pRoot = registry().getLogSource(nullptr, ZQWString(L"src9"));
    registry().getLogSource(pRoot, ZQWString(L"a.b"));
    registry().getLogSource(nullptr, ZQWString(L"src9.unknown"));
    const std::vector<ZQWString> names = allNames();
    EXPECT_EQ(countWithPrefix(names, L"src9"), 4u);
    const auto position = [&](const wchar_t* psz) {
        return std::find(names.begin(), names.end(), ZQWString(psz)) - names.begin();
    };
    EXPECT_LT(position(L"src9"), position(L"src9.a"));
    EXPECT_LT(position(L"src9.a"), position(L"src9.a.b"));
    EXPECT_LT(position(L"src9"), position(L"src9.unknown"));
    const std::set<ZQWString> unique(names.begin(), names.end());
    EXPECT_EQ(unique.size(), names.size());
}

TEST(LogSourceTest, ChildPathIsParentPathDotName) {
    LogSource* pLeaf = registry().getLogSource(nullptr, ZQWString(L"src10.x.y.z"));
    for (const LogSource* p = pLeaf; p->getParent() != nullptr; p = p->getParent()) {
        EXPECT_TRUE(p->getPath().equals(p->getParent()->getPath() + L"." + p->getName()));
    }
    EXPECT_TRUE(pLeaf->toString().equals(L"LogSource(src10.x.y.z)"));
}

TEST(LogSourceTest, DuplicateChildIsReportedAndTheFirstKept) {
    LogSource* pParent = registry().getLogSource(nullptr, ZQWString(L"src11.p"));
    LogSource* pFirst = registry().getLogSource(pParent, ZQWString(L"c"));
    AssertionCapture capture;
    pParent->addChildSource(*pFirst);
    EXPECT_TRUE(
        capture.contains("m_mapChildSources.insert(std::make_pair(src.getName(), &src )).second"));
    EXPECT_EQ(registry().getLogSource(pParent, ZQWString(L"c")), pFirst);
}

TEST(LogSourceTest, DuplicateRegistrationIsReported) {
    LogSource* pNode = registry().getLogSource(nullptr, ZQWString(L"src12"));
    AssertionCapture capture;
    registry().addLogSource(*pNode, true);
    EXPECT_EQ(capture.expressions(), (std::vector<std::string>{"bInserted", "bInserted"}));
    EXPECT_EQ(registry().findLogSource(ZQWString(L"src12")), pNode);
}

TEST(LogSourceTest, NewNodeHasAllThresholdsUnset) {
    const LogSource* pNode = registry().getLogSource(nullptr, ZQWString(L"src13.fresh"));
    for (int nId = 0; nId < 10; ++nId) {
        EXPECT_EQ(pNode->getLogFilter().getLogLevels(nId), LogLevels());
    }
}

TEST(LogSourceHandleTest, HandlesResolveAbsoluteAndRelativeNames) {
    const LogSourceHandle hParent(ZQWString(L"src14.http"));
    const LogSourceHandle hChild(hParent, ZQWString(L"request.body"));
    EXPECT_TRUE(hParent->getPath().equals(L"src14.http"));
    EXPECT_TRUE(hChild->getPath().equals(L"src14.http.request.body"));
    const LogSourceHandle hSame(ZQWString(L"src14.http.request.body"));
    EXPECT_EQ(hSame.get(), hChild.get());
    const LogSourceHandle hCopy = hChild;
    EXPECT_EQ(&*hCopy, hChild.get());
}

// ---- Applying a filter configuration -------------------------------------------------------

constexpr std::uint16_t kU = LogLevels::kNotSet;

LogSource& node(const wchar_t* pszPath) {
    return *registry().getLogSource(nullptr, ZQWString(pszPath));
}

LogLevels levelsOf(const wchar_t* pszPath, int nId) {
    return node(pszPath).getLogFilter().getLogLevels(nId);
}

// Records the way the reader builds them: exact paths merge, each pattern entry is new.
void setExact(GlobalFilterConfiguration& cfg, const wchar_t* pszPath, int nId,
              const LogLevels& levels) {
    FilterConfigurationRecord*& pRecord = cfg.m_lstSetLogLevels[ZQWString(pszPath)];
    if (pRecord == nullptr) {
        pRecord = new FilterConfigurationRecord;
    }
    pRecord->m_ThisFilter.setLogLevelsForId(nId, levels);
}

void addPattern(GlobalFilterConfiguration& cfg, const wchar_t* pszPattern, int nId,
                const LogLevels& levels) {
    auto* pRecord = new FilterConfigurationRecord;
    cfg.m_lstWildCardSetLogLevels.emplace_back(ZQWString(pszPattern), pRecord);
    pRecord->m_ThisFilter.setLogLevelsForId(nId, levels);
}

void expectAllIdsExcept(const wchar_t* pszPath, int nSkippedId, const LogLevels& levels) {
    for (int nId = 0; nId < kMaxWriterIds; ++nId) {
        if (nId != nSkippedId) {
            EXPECT_EQ(levelsOf(pszPath, nId), levels) << "writer " << nId;
        }
    }
}

TEST(ApplyFilterConfigTest, ChildInheritsItsParentsRecordAndEverythingElseIsZero) {
    node(L"kiv.unknown");
    GlobalFilterConfiguration cfg;
    setExact(cfg, L"kiv", 1, LogLevels(kU, 10, kU, kU, kU));
    registry().applyConfig(cfg);
    EXPECT_EQ(levelsOf(L"kiv.unknown", 1), LogLevels(0, 10, 0, 0, 0));
    expectAllIdsExcept(L"kiv.unknown", 1, LogLevels(0, 0, 0, 0, 0));
    EXPECT_EQ(levelsOf(L"kiv", 1), LogLevels(0, 10, 0, 0, 0));
}

TEST(ApplyFilterConfigTest, PatternGovernsTheChildAndTheExactRecordItsOwnPath) {
    node(L"kiv.unknown");
    GlobalFilterConfiguration cfg;
    addPattern(cfg, L"kiv.*", 1, LogLevels(kU, 5, kU, kU, kU));
    setExact(cfg, L"kiv", 1, LogLevels(kU, 10, kU, kU, kU));
    registry().applyConfig(cfg);
    EXPECT_EQ(levelsOf(L"kiv.unknown", 1), LogLevels(0, 5, 0, 0, 0));
    EXPECT_EQ(levelsOf(L"kiv", 1), LogLevels(0, 10, 0, 0, 0));
}

TEST(ApplyFilterConfigTest, ExactRecordBeatsAnEarlierPattern) {
    node(L"kiv.unknown");
    GlobalFilterConfiguration cfg;
    addPattern(cfg, L"kiv.*", 1, LogLevels(kU, 5, kU, kU, kU));
    setExact(cfg, L"kiv.unknown", 1, LogLevels(kU, 9, kU, kU, kU));
    registry().applyConfig(cfg);
    EXPECT_EQ(levelsOf(L"kiv.unknown", 1), LogLevels(0, 9, 0, 0, 0));
}

TEST(ApplyFilterConfigTest, FirstMatchingPatternWinsHoweverSpecificALaterOneIs) {
    node(L"kiv.unknown");
    GlobalFilterConfiguration cfg;
    addPattern(cfg, L"kiv.*", 1, LogLevels(kU, 5, kU, kU, kU));
    addPattern(cfg, L"kiv.u*", 1, LogLevels(kU, 7, kU, kU, kU));
    registry().applyConfig(cfg);
    EXPECT_EQ(levelsOf(L"kiv.unknown", 1), LogLevels(0, 5, 0, 0, 0));
}

TEST(ApplyFilterConfigTest, FirstMatchingPatternSuppliesTheWholeFilter) {
    node(L"kiv.unknown");
    GlobalFilterConfiguration cfg;
    setExact(cfg, L"kiv", 2, LogLevels(kU, 40, kU, kU, kU));
    addPattern(cfg, L"kiv.*", 1, LogLevels(kU, 5, kU, kU, kU));
    addPattern(cfg, L"kiv.*", 2, LogLevels(kU, 6, kU, kU, kU));
    registry().applyConfig(cfg);
    EXPECT_EQ(levelsOf(L"kiv.unknown", 1), LogLevels(0, 5, 0, 0, 0));
    // The second entry never applies: writer 2 is unset in the first and inherits from kiv.
    EXPECT_EQ(levelsOf(L"kiv.unknown", 2), LogLevels(0, 40, 0, 0, 0));
}

TEST(ApplyFilterConfigTest, RecordSettingOnlyErrorInheritsTheOtherTypesFromTheParent) {
    node(L"kiv.unknown");
    GlobalFilterConfiguration cfg;
    setExact(cfg, L"kiv", 1, LogLevels(kU, 10, 20, kU, kU));
    setExact(cfg, L"kiv.unknown", 1, LogLevels(kU, 3, kU, kU, kU));
    registry().applyConfig(cfg);
    EXPECT_EQ(levelsOf(L"kiv.unknown", 1), LogLevels(0, 3, 20, 0, 0));
}

TEST(ApplyFilterConfigTest, EmptyConfigurationLeavesEveryThresholdOfEveryNodeAtZero) {
    node(L"kiv.unknown");
    node(L"apply6.a.b");
    GlobalFilterConfiguration cfg;
    registry().applyConfig(cfg);
    std::vector<ZQWString> vecNames;
    registry().getAllLogSourceNames(vecNames);
    for (const ZQWString& name : vecNames) {
        const LogFilter& filter = registry().findLogSource(name)->getLogFilter();
        for (int nId = 0; nId < kMaxWriterIds; ++nId) {
            EXPECT_EQ(filter.getLogLevels(nId), LogLevels(0, 0, 0, 0, 0));
        }
    }
}

TEST(ApplyFilterConfigTest, ExplicitListRewritesOnlyThatSubtree) {
    node(L"kiv.unknown.deep");
    GlobalFilterConfiguration first;
    setExact(first, L"kiv", 1, LogLevels(kU, 10, kU, kU, kU));
    registry().applyConfig(first);

    GlobalFilterConfiguration second;
    setExact(second, L"kiv", 1, LogLevels(kU, 99, kU, kU, kU));
    setExact(second, L"kiv.unknown", 1, LogLevels(kU, kU, 7, kU, kU));
    const LogSource* arrSources[] = {&node(L"kiv.unknown")};
    registry().applyConfig(second, arrSources, 1);
    EXPECT_EQ(levelsOf(L"kiv", 1), LogLevels(0, 10, 0, 0, 0));
    // The listed node inherits from its parent's filter as it stands.
    EXPECT_EQ(levelsOf(L"kiv.unknown", 1), LogLevels(0, 10, 7, 0, 0));
    EXPECT_EQ(levelsOf(L"kiv.unknown.deep", 1), LogLevels(0, 10, 7, 0, 0));
}

TEST(ApplyFilterConfigTest, ExplicitListOfNoNodesDoesNothing) {
    node(L"apply9");
    GlobalFilterConfiguration first;
    setExact(first, L"apply9", 4, LogLevels(1, 2, 3, 4, 5));
    registry().applyConfig(first);
    GlobalFilterConfiguration empty;
    const LogSource* arrSources[] = {&node(L"apply9")};
    registry().applyConfig(empty, arrSources, 0);
    registry().applyConfig(empty, arrSources, -1);
    EXPECT_EQ(levelsOf(L"apply9", 4), LogLevels(1, 2, 3, 4, 5));
}

TEST(ApplyFilterConfigTest, NothingCarriesOverFromThePreviousConfiguration) {
    node(L"apply10.x");
    GlobalFilterConfiguration first;
    setExact(first, L"apply10", 1, LogLevels(kU, 8, kU, kU, kU));
    setExact(first, L"apply10.x", 1, LogLevels(kU, 4, kU, kU, kU));
    registry().applyConfig(first);
    ASSERT_EQ(levelsOf(L"apply10.x", 1), LogLevels(0, 4, 0, 0, 0));
    GlobalFilterConfiguration second;
    setExact(second, L"apply10", 1, LogLevels(kU, 8, kU, kU, kU));
    registry().applyConfig(second);
    EXPECT_EQ(levelsOf(L"apply10.x", 1), LogLevels(0, 8, 0, 0, 0));
}

TEST(ApplyFilterConfigTest, ExactPathsAndPatternsAreCaseSensitive) {
    node(L"apply11.Kiv");
    node(L"apply11.kiv");
    GlobalFilterConfiguration cfg;
    setExact(cfg, L"apply11.KIV", 1, LogLevels(kU, 1, kU, kU, kU));
    addPattern(cfg, L"apply11.K*", 1, LogLevels(kU, 2, kU, kU, kU));
    registry().applyConfig(cfg);
    EXPECT_EQ(levelsOf(L"apply11.Kiv", 1), LogLevels(0, 2, 0, 0, 0));
    EXPECT_EQ(levelsOf(L"apply11.kiv", 1), LogLevels(0, 0, 0, 0, 0));
}

TEST(ApplyFilterConfigTest, ValueSetMidTreeOverridesAncestorsForItsSubtree) {
    node(L"apply12.a.b.c");
    GlobalFilterConfiguration cfg;
    setExact(cfg, L"apply12", 3, LogLevels(1, 1, 1, 1, 1));
    setExact(cfg, L"apply12.a.b", 3, LogLevels(kU, 9, kU, kU, kU));
    registry().applyConfig(cfg);
    EXPECT_EQ(levelsOf(L"apply12.a", 3), LogLevels(1, 1, 1, 1, 1));
    EXPECT_EQ(levelsOf(L"apply12.a.b", 3), LogLevels(1, 9, 1, 1, 1));
    EXPECT_EQ(levelsOf(L"apply12.a.b.c", 3), LogLevels(1, 9, 1, 1, 1));
}

TEST(ApplyFilterConfigTest, NodeMadeAfterTheConfigurationInheritsOnlyAfterOnConfigChanged) {
    GlobalFilterConfiguration cfg;
    setExact(cfg, L"apply13", 1, LogLevels(kU, 6, kU, kU, kU));
    node(L"apply13");
    registry().applyConfig(cfg);
    LogSource& late = node(L"apply13.late");
    EXPECT_EQ(late.getLogFilter().getLogLevels(1), LogLevels());
    registry().onConfigChanged();
    EXPECT_EQ(late.getLogFilter().getLogLevels(1), LogLevels(0, 6, 0, 0, 0));
}

TEST(ApplyFilterConfigTest, OnConfigChangedForListedNodesTakesTheParentAsItStands) {
    GlobalFilterConfiguration cfg;
    setExact(cfg, L"apply14", 1, LogLevels(kU, 6, kU, kU, kU));
    node(L"apply14");
    node(L"apply14.other");
    registry().applyConfig(cfg);
    LogSource& late = node(L"apply14.late");
    node(L"apply14.late.child");
    const LogSource* arrSources[] = {&late};
    registry().onConfigChanged(arrSources, 1);
    EXPECT_EQ(levelsOf(L"apply14.late", 1), LogLevels(0, 6, 0, 0, 0));
    EXPECT_EQ(levelsOf(L"apply14.late.child", 1), LogLevels(0, 6, 0, 0, 0));
}

TEST(ApplyFilterConfigTest, ResetByGroupUnsetsThoseIdsInTheWholeSubtree) {
    node(L"apply15.a");
    GlobalFilterConfiguration cfg;
    setExact(cfg, L"apply15", 2, LogLevels(2, 2, 2, 2, 2));
    setExact(cfg, L"apply15", 3, LogLevels(3, 3, 3, 3, 3));
    setExact(cfg, L"apply15", 4, LogLevels(4, 4, 4, 4, 4));
    registry().applyConfig(cfg);
    LogWritersGroup group;
    group.add(2);
    group.add(4);
    node(L"apply15").resetSelfAndChildFilters(group);
    for (const wchar_t* pszPath : {L"apply15", L"apply15.a"}) {
        EXPECT_EQ(levelsOf(pszPath, 2), LogLevels());
        EXPECT_EQ(levelsOf(pszPath, 3), LogLevels(3, 3, 3, 3, 3));
        EXPECT_EQ(levelsOf(pszPath, 4), LogLevels());
    }
    registry().onConfigChanged();
    EXPECT_EQ(levelsOf(L"apply15.a", 2), LogLevels(0, 0, 0, 0, 0));
}

TEST(ApplyFilterConfigTest, ResetByWriterUnsetsItsIdOnly) {
    node(L"apply16.a");
    GlobalFilterConfiguration cfg;
    setExact(cfg, L"apply16", 3, LogLevels(3, 3, 3, 3, 3));
    setExact(cfg, L"apply16", 5, LogLevels(5, 5, 5, 5, 5));
    registry().applyConfig(cfg);
    Handle<LogWriter> hWriter(
        new test::RecordingWriter(String(L"w3"), 3, LogWriter::WT_SINGLE_THREADED, nullptr));
    node(L"apply16").resetSelfAndChildFilters(*hWriter);
    EXPECT_EQ(levelsOf(L"apply16.a", 3), LogLevels());
    EXPECT_EQ(levelsOf(L"apply16.a", 5), LogLevels(5, 5, 5, 5, 5));
}

TEST(ApplyFilterConfigTest, ResetByWriterWithIdOutOfRangeIsReportedAndResetsNothing) {
    node(L"apply17");
    GlobalFilterConfiguration cfg;
    setExact(cfg, L"apply17", 3, LogLevels(3, 3, 3, 3, 3));
    registry().applyConfig(cfg);
    AssertionCapture capture;
    Handle<LogWriter> hWriter(
        new test::RecordingWriter(String(L"w12"), 12, LogWriter::WT_SINGLE_THREADED, nullptr));
    capture.clear();
    node(L"apply17").resetSelfAndChildFilters(*hWriter);
    ASSERT_EQ(capture.count(), 1u);
    EXPECT_EQ(capture.entries()[0].expression, "nId < 10");
    EXPECT_EQ(capture.entries()[0].file, "./project/weblogger/logsource");
    for (int nId = 0; nId < kMaxWriterIds; ++nId) {
        EXPECT_EQ(levelsOf(L"apply17", nId),
                  nId == 3 ? LogLevels(3, 3, 3, 3, 3) : LogLevels(0, 0, 0, 0, 0));
    }
}

TEST(ApplyFilterConfigTest, LoggingDecisionFollowsTheAppliedThresholds) {
    node(L"apply18.a");
    GlobalFilterConfiguration cfg;
    setExact(cfg, L"apply18", 1, LogLevels(kU, 16, kU, kU, kU));
    registry().applyConfig(cfg);
    Handle<LogWriter> hWriter(
        new test::RecordingWriter(String(L"w1"), 1, LogWriter::WT_SINGLE_THREADED, nullptr));
    const LogFilter& filter = node(L"apply18.a").getLogFilter();
    EXPECT_TRUE(filter.isLogEnabled(kSevError, hWriter.get()));
    EXPECT_FALSE(filter.isLogEnabled(kSevErrorUser, hWriter.get()));
    EXPECT_FALSE(filter.isLogEnabled(kSevWarningCritical, hWriter.get()));
}

}  // namespace
}  // namespace kiv

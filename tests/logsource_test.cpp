#include "weblogger/logsource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

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

}  // namespace
}  // namespace kiv

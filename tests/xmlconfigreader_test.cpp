#include "weblogger/xmlconfigreader.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>

#include "support/temp_dir.h"
#include "weblogger/loggermessages.h"
#include "weblogger/logsource.h"
#include "zq/webkeel/assert.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

constexpr std::uint16_t kU = LogLevels::kNotSet;

LogSourcesMan& registry() {
    return LogSourcesMan::getLogSourcesMan();
}

XmlDocument parse(const char* pszXml) {
    return XmlDocument::parseString(std::string_view(pszXml));
}

LogWritersGroup groupOf(const wchar_t* pszIds) {
    LogWritersGroup group;
    KivXmlConfigReader::populate(group, ZQWString(pszIds));
    return group;
}

std::vector<int> idsOf(const LogWritersGroup& group) {
    std::vector<int> vecIds;
    for (int nId = 0; nId < kMaxWriterIds; ++nId) {
        if (group.m_arrIsInGroup[nId]) {
            vecIds.push_back(nId);
        }
    }
    return vecIds;
}

template <class F>
std::optional<LoggerException> catchLoggerException(F f) {
    try {
        f();
    } catch (const LoggerException& e) {
        return e;
    }
    return std::nullopt;
}

std::wstring textOf(const GDValue& value) {
    return std::wstring(value.toString().view());
}

LogSource& source(const wchar_t* pszPath) {
    return *registry().getLogSource(nullptr, ZQWString(pszPath));
}

LogLevels levelsOf(const wchar_t* pszPath, int nId) {
    return source(pszPath).getLogFilter().getLogLevels(nId);
}

// What the configuration loader does with the filters of a logging element.
void configureFilters(const XmlElement& root) {
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, root);
    registry().applyConfig(cfg);
}

using TreeSnapshot = std::map<std::wstring, std::vector<LogLevels>>;

TreeSnapshot snapshotTree() {
    std::vector<ZQWString> vecNames;
    registry().getAllLogSourceNames(vecNames);
    TreeSnapshot snapshot;
    for (const ZQWString& name : vecNames) {
        std::vector<LogLevels>& levels = snapshot[std::wstring(name.view())];
        for (int nId = 0; nId < kMaxWriterIds; ++nId) {
            levels.push_back(registry().findLogSource(name)->getLogFilter().getLogLevels(nId));
        }
    }
    return snapshot;
}

// ---- Writer-id lists -------------------------------------------------------------------------

TEST(WriterIdListTest, BlankCommaAndSemicolonSeparateIds) {
    EXPECT_EQ(idsOf(groupOf(L"0, 3;5")), (std::vector<int>{0, 3, 5}));
}

TEST(WriterIdListTest, EmptyListSelectsNothing) {
    EXPECT_TRUE(idsOf(groupOf(L"")).empty());
}

TEST(WriterIdListTest, IdAboveNineThrowsOutOfRangeWithTheNumber) {
    LogWritersGroup group;
    const auto e = catchLoggerException([&] { KivXmlConfigReader::populate(group, L"10"); });
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(textOf(e->getMsg()), L"Failed to load configuration. Class id 10 is out of range.");
    EXPECT_STREQ(e->getFile(), "./project/weblogger/xmlconfigreader");
    EXPECT_GT(e->getLine(), 0u);
}

TEST(WriterIdListTest, TwelveAndMinusOneAreRejectedAsSignedNumbers) {
    LogWritersGroup group;
    auto e = catchLoggerException([&] { KivXmlConfigReader::populate(group, L"1 12"); });
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(textOf(e->getMsg()), L"Failed to load configuration. Class id 12 is out of range.");
    e = catchLoggerException([&] { KivXmlConfigReader::populate(group, L"-1"); });
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(textOf(e->getMsg()), L"Failed to load configuration. Class id -1 is out of range.");
}

TEST(WriterIdListTest, TokenNotBeginningWithADigitSelectsWriterZero) {
    EXPECT_EQ(idsOf(groupOf(L"abc")), (std::vector<int>{0}));
    EXPECT_EQ(idsOf(groupOf(L"1x")), (std::vector<int>{1}));
    EXPECT_EQ(idsOf(groupOf(L"4,4;4")), (std::vector<int>{4}));
}

TEST(WriterIdListTest, LineBreaksAndTabsDoNotSeparateIds) {
    EXPECT_EQ(idsOf(groupOf(L"1\n2")), (std::vector<int>{1}));
    EXPECT_EQ(idsOf(groupOf(L"1\t2")), (std::vector<int>{1}));
    EXPECT_EQ(idsOf(groupOf(L"1\r\n2")), (std::vector<int>{1}));
}

TEST(WriterIdListTest, TokenBeginningWithALineBreakIsReadPastIt) {
    EXPECT_EQ(idsOf(groupOf(L"\n4")), (std::vector<int>{4}));
    // The usual indented layout: the trailing line break is a token of its own and reads as 0.
    EXPECT_EQ(idsOf(groupOf(L"\n  1, 2 \n")), (std::vector<int>{0, 1, 2}));
    // Directly after an id the line break belongs to that id's token and changes nothing.
    EXPECT_EQ(idsOf(groupOf(L"\n  1, 2\n")), (std::vector<int>{1, 2}));
}

// ---- Global records ------------------------------------------------------------------------

TEST(GlobalRecordsTest, RecordsFillOneEntryPerExactPathAndWriterIdOfTheGroup) {
    const XmlDocument doc = parse(R"(<Logging>
        <WriterClassGroups>
            <WriterClassGroup name="Both">1;3</WriterClassGroup>
        </WriterClassGroups>
        <Filters>
            <FilterRecord writerClassGroup="Both" path="kiv" error="32" trace="7"/>
        </Filters></Logging>)");
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement());
    ASSERT_EQ(cfg.m_lstSetLogLevels.size(), 1u);
    EXPECT_TRUE(cfg.m_lstWildCardSetLogLevels.empty());
    const LogFilter& filter = cfg.m_lstSetLogLevels.find(ZQWString(L"kiv"))->second->m_ThisFilter;
    EXPECT_EQ(filter.getLogLevels(1), LogLevels(kU, 32, kU, kU, 7));
    EXPECT_EQ(filter.getLogLevels(3), LogLevels(kU, 32, kU, kU, 7));
    EXPECT_EQ(filter.getLogLevels(0), LogLevels());
    EXPECT_EQ(filter.getLogLevels(2), LogLevels());
}

TEST(GlobalRecordsTest, AllFiveThresholdsAreReadInTypeOrder) {
    const XmlDocument doc = parse(R"(<Logging>
        <WriterClassGroups><WriterClassGroup name="G">0</WriterClassGroup></WriterClassGroups>
        <Filters><FilterRecord writerClassGroup="G" path="p" incident_error="1" error="2"
                               warning="3" information="4" trace="5"/></Filters></Logging>)");
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement());
    EXPECT_EQ(cfg.m_lstSetLogLevels.find(ZQWString(L"p"))->second->m_ThisFilter.getLogLevels(0),
              LogLevels(1, 2, 3, 4, 5));
}

TEST(GlobalRecordsTest, LaterRecordForTheSamePathReplacesAllFiveThresholdsOfItsIds) {
    const XmlDocument doc = parse(R"(<Logging>
        <WriterClassGroups>
            <WriterClassGroup name="One">1</WriterClassGroup>
            <WriterClassGroup name="OneAgain">1</WriterClassGroup>
            <WriterClassGroup name="Two">2</WriterClassGroup>
        </WriterClassGroups>
        <Filters>
            <FilterRecord writerClassGroup="One" path="kiv" error="10"/>
            <FilterRecord writerClassGroup="Two" path="kiv" information="8"/>
            <FilterRecord writerClassGroup="OneAgain" path="kiv" warning="20"/>
        </Filters></Logging>)");
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement());
    ASSERT_EQ(cfg.m_lstSetLogLevels.size(), 1u);
    const LogFilter& filter = cfg.m_lstSetLogLevels.find(ZQWString(L"kiv"))->second->m_ThisFilter;
    EXPECT_EQ(filter.getLogLevels(1), LogLevels(kU, kU, 20, kU, kU));
    // Ids outside the later record's group keep what the earlier records set.
    EXPECT_EQ(filter.getLogLevels(2), LogLevels(kU, kU, kU, 8, kU));
}

TEST(GlobalRecordsTest, PatternWithTwoIdsYieldsOneEntryPerIdInOrder) {
    const XmlDocument doc = parse(R"(<Logging>
        <WriterClassGroups><WriterClassGroup name="G">2, 0</WriterClassGroup></WriterClassGroups>
        <Filters><FilterRecord writerClassGroup="G" path="kiv.*" error="5"/></Filters>
        </Logging>)");
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement());
    EXPECT_TRUE(cfg.m_lstSetLogLevels.empty());
    ASSERT_EQ(cfg.m_lstWildCardSetLogLevels.size(), 2u);
    const auto& first = cfg.m_lstWildCardSetLogLevels[0];
    const auto& second = cfg.m_lstWildCardSetLogLevels[1];
    EXPECT_TRUE(first.first.equals(L"kiv.*"));
    EXPECT_TRUE(second.first.equals(L"kiv.*"));
    EXPECT_EQ(first.second->m_ThisFilter.getLogLevels(0), LogLevels(kU, 5, kU, kU, kU));
    EXPECT_EQ(first.second->m_ThisFilter.getLogLevels(2), LogLevels());
    EXPECT_EQ(second.second->m_ThisFilter.getLogLevels(0), LogLevels());
    EXPECT_EQ(second.second->m_ThisFilter.getLogLevels(2), LogLevels(kU, 5, kU, kU, kU));
}

TEST(GlobalRecordsTest, PatternOfTwoIdsGivesMatchingSourcesOnlyTheLowerIdsThresholds) {
    source(L"rdpat.unknown");
    const XmlDocument doc = parse(R"(<Logging>
        <WriterClassGroups>
            <WriterClassGroup name="G">0, 2</WriterClassGroup>
            <WriterClassGroup name="Parent">2</WriterClassGroup>
        </WriterClassGroups>
        <Filters>
            <FilterRecord writerClassGroup="G" path="rdpat.*" error="5"/>
            <FilterRecord writerClassGroup="Parent" path="rdpat" error="40"/>
        </Filters></Logging>)");
    configureFilters(*doc.getDocumentElement());
    EXPECT_EQ(levelsOf(L"rdpat.unknown", 0), LogLevels(0, 5, 0, 0, 0));
    // Writer 2 is unset in the first matching entry, so it inherits from rdpat.
    EXPECT_EQ(levelsOf(L"rdpat.unknown", 2), LogLevels(0, 40, 0, 0, 0));
}

TEST(GlobalRecordsTest, ThresholdsKeepTheirLowSixteenBits) {
    const XmlDocument doc = parse(R"(<Logging>
        <WriterClassGroups><WriterClassGroup name="G">0</WriterClassGroup></WriterClassGroups>
        <Filters>
            <FilterRecord writerClassGroup="G" path="a" error="65536"/>
            <FilterRecord writerClassGroup="G" path="b" error="-1"/>
            <FilterRecord writerClassGroup="G" path="c" error="65537" warning="65535"/>
            <FilterRecord writerClassGroup="G" path="d" error="" warning=" 12x" trace="abc"/>
        </Filters></Logging>)");
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement());
    auto levels = [&](const wchar_t* pszPath) {
        return cfg.m_lstSetLogLevels.find(ZQWString(pszPath))->second->m_ThisFilter.getLogLevels(0);
    };
    EXPECT_EQ(levels(L"a"), LogLevels(kU, 0, kU, kU, kU));
    EXPECT_EQ(levels(L"b"), LogLevels(kU, kU, kU, kU, kU));
    EXPECT_EQ(levels(L"c"), LogLevels(kU, 1, kU, kU, kU));
    // Empty stays unset; leading blanks are skipped and digits end at the first other
    // character; no digits read as 0.
    EXPECT_EQ(levels(L"d"), LogLevels(kU, kU, 12, kU, 0));
}

TEST(GlobalRecordsTest, UndefinedGroupThrowsNotDefinedWithTheName) {
    const XmlDocument doc = parse(R"(<Logging>
        <WriterClassGroups><WriterClassGroup name="G">0</WriterClassGroup></WriterClassGroups>
        <Filters><FilterRecord writerClassGroup="Missing" path="kiv"/></Filters></Logging>)");
    GlobalFilterConfiguration cfg;
    const auto e =
        catchLoggerException([&] { KivXmlConfigReader::populate(cfg, *doc.getDocumentElement()); });
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(textOf(e->getMsg()),
              L"Failed to load configuration. Writers Class Missing is not defined.");
    EXPECT_STREQ(e->getFile(), "./project/weblogger/xmlconfigreader");
}

TEST(GlobalRecordsTest, GroupDefinedTwiceThrowsWithTheName) {
    const XmlDocument doc = parse(R"(<Logging><WriterClassGroups>
        <WriterClassGroup name="G">0</WriterClassGroup>
        <WriterClassGroup name="G">1</WriterClassGroup></WriterClassGroups></Logging>)");
    GlobalFilterConfiguration cfg;
    const auto e =
        catchLoggerException([&] { KivXmlConfigReader::populate(cfg, *doc.getDocumentElement()); });
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(textOf(e->getMsg()),
              L"Failed to load configuration. Writers Class G is defined more then once.");
    EXPECT_STREQ(e->getFile(), "./project/weblogger/xmlconfigreader");
}

TEST(GlobalRecordsTest, MissingRequiredAttributesAreReportedByTheElement) {
    const char* arrDocs[] = {
        R"(<L><WriterClassGroups><WriterClassGroup>0</WriterClassGroup></WriterClassGroups></L>)",
        R"(<L><WriterClassGroups><WriterClassGroup name="G">0</WriterClassGroup>
           </WriterClassGroups><Filters><FilterRecord path="p"/></Filters></L>)",
        R"(<L><WriterClassGroups><WriterClassGroup name="G">0</WriterClassGroup>
           </WriterClassGroups><Filters><FilterRecord writerClassGroup="G"/></Filters></L>)"};
    for (const char* pszXml : arrDocs) {
        const XmlDocument doc = parse(pszXml);
        GlobalFilterConfiguration cfg;
        EXPECT_THROW(KivXmlConfigReader::populate(cfg, *doc.getDocumentElement()), XmlException)
            << pszXml;
    }
}

TEST(GlobalRecordsTest, NullRecordUnderAnExactPathIsReportedAndReplaced) {
    const XmlDocument doc = parse(R"(<Logging>
        <WriterClassGroups><WriterClassGroup name="G">6</WriterClassGroup></WriterClassGroups>
        <Filters><FilterRecord writerClassGroup="G" path="rdnull" error="2"/></Filters></Logging>)");
    GlobalFilterConfiguration cfg;
    cfg.m_lstSetLogLevels[ZQWString(L"rdnull")] = nullptr;
    AssertionCapture capture;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement());
    ASSERT_EQ(capture.count(), 1u);
    EXPECT_EQ(capture.entries()[0].expression, "pConfig != NULL");
    EXPECT_EQ(capture.entries()[0].file, "./project/weblogger/xmlconfigreader");
    const FilterConfigurationRecord* pRecord =
        cfg.m_lstSetLogLevels.find(ZQWString(L"rdnull"))->second;
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(pRecord->m_ThisFilter.getLogLevels(6), LogLevels(kU, 2, kU, kU, kU));
}

TEST(GlobalRecordsTest, ElementWithoutGroupsOrFiltersReadsNothing) {
    const XmlDocument doc = parse("<Logging><Writers/></Logging>");
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement());
    EXPECT_TRUE(cfg.m_lstSetLogLevels.empty());
    EXPECT_TRUE(cfg.m_lstWildCardSetLogLevels.empty());
}

TEST(GlobalRecordsTest, FileFormsReadTheRootOrTheSelectedElement) {
    test::TempDir dir;
    const std::string strPath = dir.write("logconfig.xml", R"(<Config><Logging>
        <WriterClassGroups><WriterClassGroup name="G">4</WriterClassGroup></WriterClassGroups>
        <Filters><FilterRecord writerClassGroup="G" path="fileform" warning="9"/></Filters>
        </Logging></Config>)");
    const ZQWString file(widen(strPath));
    GlobalFilterConfiguration fromRoot;
    KivXmlConfigReader::populate(fromRoot, file);
    EXPECT_TRUE(fromRoot.m_lstSetLogLevels.empty());
    GlobalFilterConfiguration selected;
    KivXmlConfigReader::populate(selected, file, ZQWString(L"Logging"));
    ASSERT_EQ(selected.m_lstSetLogLevels.size(), 1u);
    EXPECT_EQ(selected.m_lstSetLogLevels.find(ZQWString(L"fileform"))
                  ->second->m_ThisFilter.getLogLevels(4),
              LogLevels(kU, kU, 9, kU, kU));

    AssertionCapture capture;
    GlobalFilterConfiguration missing;
    KivXmlConfigReader::populate(missing, file, ZQWString(L"Nothing"));
    EXPECT_TRUE(capture.contains("lpConfigNode != NULL"));
    EXPECT_TRUE(missing.m_lstSetLogLevels.empty());
}

TEST(GlobalRecordsTest, FailedReadLeavesEveryThresholdOfTheTreeAsItWas) {
    source(L"rdfail.a.b");
    source(L"rdfail.c");
    const XmlDocument good = parse(R"(<Logging>
        <WriterClassGroups><WriterClassGroup name="G">1;2</WriterClassGroup></WriterClassGroups>
        <Filters>
            <FilterRecord writerClassGroup="G" path="rdfail" error="10"/>
            <FilterRecord writerClassGroup="G" path="rdfail.a.*" warning="3"/>
        </Filters></Logging>)");
    configureFilters(*good.getDocumentElement());
    const TreeSnapshot before = snapshotTree();
    ASSERT_EQ(before.at(L"rdfail.a.b")[1], LogLevels(0, 10, 3, 0, 0));

    // Each document has valid records before the failure, which must not reach the tree.
    const char* arrFailing[] = {
        R"(<Logging><WriterClassGroups><WriterClassGroup name="G">1</WriterClassGroup>
           </WriterClassGroups><Filters>
           <FilterRecord writerClassGroup="G" path="rdfail" error="99"/>
           <FilterRecord writerClassGroup="Nope" path="rdfail.c" error="99"/>
           </Filters></Logging>)",
        R"(<Logging><WriterClassGroups><WriterClassGroup name="G">1</WriterClassGroup>
           <WriterClassGroup name="G">2</WriterClassGroup></WriterClassGroups><Filters>
           <FilterRecord writerClassGroup="G" path="rdfail" error="99"/></Filters></Logging>)",
        R"(<Logging><WriterClassGroups><WriterClassGroup name="G">1</WriterClassGroup>
           <WriterClassGroup name="H">3, 11</WriterClassGroup></WriterClassGroups><Filters>
           <FilterRecord writerClassGroup="G" path="rdfail" error="99"/></Filters></Logging>)"};
    for (const char* pszXml : arrFailing) {
        const XmlDocument bad = parse(pszXml);
        EXPECT_THROW(configureFilters(*bad.getDocumentElement()), LoggerException) << pszXml;
        EXPECT_EQ(snapshotTree(), before) << pszXml;
    }
}

// ---- Per-writer records ----------------------------------------------------------------------

TEST(WriterRecordsTest, WriterRecordCreatesTheSourcesItNames) {
    ASSERT_EQ(registry().findLogSource(ZQWString(L"wra")), nullptr);
    const XmlDocument doc = parse(R"(<Writer implementation="CoutWriter" writerClassId="1">
        <Filters><FilterRecord path="wra.b" error="32"/></Filters></Writer>)");
    WriterFilter filter;
    EXPECT_TRUE(KivXmlConfigReader::populate(filter, *doc.getDocumentElement()));
    const LogSource* pA = registry().findLogSource(ZQWString(L"wra"));
    const LogSource* pAB = registry().findLogSource(ZQWString(L"wra.b"));
    ASSERT_NE(pA, nullptr);
    ASSERT_NE(pAB, nullptr);
    EXPECT_EQ(pAB->getParent(), pA);
    ASSERT_NE(filter.findLogLevels(*pAB), nullptr);
    EXPECT_EQ(*filter.findLogLevels(*pAB), LogLevels(kU, 32, kU, kU, kU));
    EXPECT_EQ(filter.findLogLevels(*pA), nullptr);
}

TEST(WriterRecordsTest, LaterRecordForTheSameSourceReplacesTheEntry) {
    const XmlDocument doc = parse(R"(<Writer><Filters>
        <FilterRecord path="wrb" error="1"/><FilterRecord path="wrb" trace="2"/>
        </Filters></Writer>)");
    WriterFilter filter;
    EXPECT_TRUE(KivXmlConfigReader::populate(filter, *doc.getDocumentElement()));
    EXPECT_EQ(filter.size(), 1u);
    EXPECT_EQ(*filter.findLogLevels(source(L"wrb")), LogLevels(kU, kU, kU, kU, 2));
}

TEST(WriterRecordsTest, StarInAWriterPathIsPartOfTheSourceName) {
    const XmlDocument doc = parse(R"(<Writer><Filters>
        <FilterRecord path="wrc.*" error="1"/></Filters></Writer>)");
    WriterFilter filter;
    KivXmlConfigReader::populate(filter, *doc.getDocumentElement());
    const LogSource* pStar = registry().findLogSource(ZQWString(L"wrc.*"));
    ASSERT_NE(pStar, nullptr);
    EXPECT_TRUE(pStar->getName().equals(L"*"));
    EXPECT_EQ(filter.size(), 1u);
}

TEST(WriterRecordsTest, WriterWithoutRecordsReadsNothing) {
    const XmlDocument doc = parse(R"(<Writer implementation="CoutWriter"/>)");
    WriterFilter filter;
    EXPECT_FALSE(KivXmlConfigReader::populate(filter, *doc.getDocumentElement()));
    EXPECT_EQ(filter.size(), 0u);
}

TEST(WriterRecordsTest, WriterRecordWithoutPathIsReportedByTheElement) {
    const XmlDocument doc =
        parse(R"(<Writer><Filters><FilterRecord error="1"/></Filters></Writer>)");
    WriterFilter filter;
    EXPECT_THROW(KivXmlConfigReader::populate(filter, *doc.getDocumentElement()), XmlException);
}

const char* const kGlobalForWriters = R"(<Logging>
    <WriterClassGroups>
        <WriterClassGroup name="Console">1</WriterClassGroup>
        <WriterClassGroup name="Files">2;3</WriterClassGroup>
    </WriterClassGroups>
    <Filters>
        <FilterRecord writerClassGroup="Console" path="wrg.console" error="1"/>
        <FilterRecord writerClassGroup="Files" path="wrg.files" error="2"/>
        <FilterRecord writerClassGroup="Files" path="wrg.files" warning="3"/>
    </Filters></Logging>)";

TEST(WriterRecordsTest, GlobalRecordsOfTheWritersGroupsFillItsFilter) {
    const XmlDocument doc = parse(kGlobalForWriters);
    WriterFilter filter;
    EXPECT_TRUE(KivXmlConfigReader::populate(filter, *doc.getDocumentElement(), ZQWString(L"3")));
    EXPECT_EQ(filter.size(), 1u);
    const LogLevels* pLevels = filter.findLogLevels(source(L"wrg.files"));
    ASSERT_NE(pLevels, nullptr);
    EXPECT_EQ(*pLevels, LogLevels(kU, kU, 3, kU, kU));

    WriterFilter console;
    EXPECT_TRUE(KivXmlConfigReader::populate(console, *doc.getDocumentElement(), ZQWString(L"1")));
    EXPECT_EQ(console.size(), 1u);
    EXPECT_EQ(*console.findLogLevels(source(L"wrg.console")), LogLevels(kU, 1, kU, kU, kU));
}

TEST(WriterRecordsTest, WriterIdInNoGroupStillReportsThatRecordsExist) {
    const XmlDocument doc = parse(kGlobalForWriters);
    WriterFilter filter;
    EXPECT_TRUE(KivXmlConfigReader::populate(filter, *doc.getDocumentElement(), ZQWString(L"7")));
    EXPECT_EQ(filter.size(), 0u);
    const XmlDocument none = parse("<Logging/>");
    EXPECT_FALSE(KivXmlConfigReader::populate(filter, *none.getDocumentElement(), ZQWString(L"1")));
}

TEST(WriterRecordsTest, WriterIdOfTenIsReportedAndSelectsNothing) {
    const XmlDocument doc = parse(kGlobalForWriters);
    WriterFilter filter;
    AssertionCapture capture;
    EXPECT_TRUE(KivXmlConfigReader::populate(filter, *doc.getDocumentElement(), ZQWString(L"10")));
    ASSERT_EQ(capture.count(), 1u);
    EXPECT_EQ(capture.entries()[0].expression, "nId < 10");
    EXPECT_EQ(capture.entries()[0].file, "./project/weblogger/xmlconfigreader");
    EXPECT_EQ(filter.size(), 0u);
}

TEST(WriterRecordsTest, GlobalRecordNamingAnUndefinedGroupThrowsForEveryWriter) {
    const XmlDocument doc = parse(R"(<Logging>
        <WriterClassGroups><WriterClassGroup name="G">1</WriterClassGroup></WriterClassGroups>
        <Filters><FilterRecord writerClassGroup="Other" path="wrh"/></Filters></Logging>)");
    WriterFilter filter;
    const auto e = catchLoggerException(
        [&] { KivXmlConfigReader::populate(filter, *doc.getDocumentElement(), ZQWString(L"1")); });
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(textOf(e->getMsg()),
              L"Failed to load configuration. Writers Class Other is not defined.");
}

TEST(WriterRecordsTest, FileFormsReadTheRootOrTheSelectedWriter) {
    test::TempDir dir;
    const std::string strPath = dir.write("writer.xml", R"(<Writers><Writer>
        <Filters><FilterRecord path="wrfile" information="6"/></Filters></Writer></Writers>)");
    const ZQWString file(widen(strPath));
    WriterFilter fromRoot;
    EXPECT_FALSE(KivXmlConfigReader::populate(fromRoot, file));
    WriterFilter selected;
    EXPECT_TRUE(KivXmlConfigReader::populate(selected, file, ZQWString(L"Writer")));
    EXPECT_EQ(*selected.findLogLevels(source(L"wrfile")), LogLevels(kU, kU, kU, 6, kU));
}

// ---- Diagnostics -----------------------------------------------------------------------------

std::wstring messageOf(const FilterConfigDiagnostic& diagnostic) {
    return textOf(diagnostic.getMessage());
}

TEST(FilterDiagnosticsTest, TokenHoldingALineBreakOrTabIsReportedAndReadAsBefore) {
    source(L"dgtok.x");
    const char* pszXml =
        "<Logging>\n"
        "  <WriterClassGroups>\n"
        "    <WriterClassGroup name=\"G\">1\n2</WriterClassGroup>\n"
        "    <WriterClassGroup name=\"T\">3\t4;5</WriterClassGroup>\n"
        "  </WriterClassGroups>\n"
        "  <Filters>\n"
        "    <FilterRecord writerClassGroup=\"G\" path=\"dgtok\" error=\"10\"/>\n"
        "    <FilterRecord writerClassGroup=\"T\" path=\"dgtok\" error=\"20\"/>\n"
        "  </Filters>\n"
        "</Logging>";
    const XmlDocument doc = parse(pszXml);
    FilterConfigDiagnostics diagnostics(ZQWString(L"logconfig.xml"));
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement(), &diagnostics);
    ASSERT_EQ(diagnostics.getDiagnostics().size(), 2u);
    const FilterConfigDiagnostic& first = diagnostics.getDiagnostics()[0];
    EXPECT_EQ(first.m_nKind, FilterConfigDiagnostic::FD_ID_TOKEN_WHITE_SPACE);
    EXPECT_TRUE(first.m_strFile.equals(L"logconfig.xml"));
    EXPECT_EQ(first.m_nLine, 3u);
    EXPECT_TRUE(first.m_strElement.equals(L"WriterClassGroup"));
    EXPECT_TRUE(first.m_strAttribute.empty());
    EXPECT_TRUE(first.m_strText.equals(L"1\n2"));
    EXPECT_TRUE(first.m_strReadAs.equals(L"1"));
    EXPECT_EQ(messageOf(first),
              L"logconfig.xml:3: the writer id token '1\\n2' in WriterClassGroup holds a line "
              L"break or tab; only blanks, commas and semicolons separate ids, so it is read as "
              L"writer id 1.");
    const FilterConfigDiagnostic& second = diagnostics.getDiagnostics()[1];
    // The line break inside the first group's text moves this one to line 5.
    EXPECT_EQ(second.m_nLine, 5u);
    EXPECT_TRUE(second.m_strText.equals(L"3\t4"));
    EXPECT_TRUE(second.m_strReadAs.equals(L"3"));

    // The groups are {1} and {3, 5}, as without a collector.
    registry().applyConfig(cfg);
    EXPECT_EQ(levelsOf(L"dgtok.x", 1), LogLevels(0, 10, 0, 0, 0));
    EXPECT_EQ(levelsOf(L"dgtok.x", 2), LogLevels(0, 0, 0, 0, 0));
    EXPECT_EQ(levelsOf(L"dgtok.x", 3), LogLevels(0, 20, 0, 0, 0));
    EXPECT_EQ(levelsOf(L"dgtok.x", 4), LogLevels(0, 0, 0, 0, 0));
    EXPECT_EQ(levelsOf(L"dgtok.x", 5), LogLevels(0, 20, 0, 0, 0));
}

TEST(FilterDiagnosticsTest, LeadingLineBreakTokenReadAsTheNextIdIsReported) {
    const XmlDocument doc = parse(
        "<Logging><WriterClassGroups><WriterClassGroup name=\"G\">\n  1, 2 \n"
        "</WriterClassGroup></WriterClassGroups><Filters>"
        "<FilterRecord writerClassGroup=\"G\" path=\"dglead\" error=\"1\"/></Filters></Logging>");
    FilterConfigDiagnostics diagnostics;
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement(), &diagnostics);
    ASSERT_EQ(diagnostics.getDiagnostics().size(), 2u);
    // The first line break reads on to the 1; the last one has nothing after it and reads 0.
    EXPECT_TRUE(diagnostics.getDiagnostics()[0].m_strText.equals(L"\n"));
    EXPECT_TRUE(diagnostics.getDiagnostics()[0].m_strReadAs.equals(L"1"));
    EXPECT_TRUE(diagnostics.getDiagnostics()[1].m_strText.equals(L"\n"));
    EXPECT_TRUE(diagnostics.getDiagnostics()[1].m_strReadAs.equals(L"0"));
    const LogFilter& filter =
        cfg.m_lstSetLogLevels.find(ZQWString(L"dglead"))->second->m_ThisFilter;
    EXPECT_EQ(filter.getLogLevels(0), LogLevels(kU, 1, kU, kU, kU));
    EXPECT_EQ(filter.getLogLevels(1), LogLevels(kU, 1, kU, kU, kU));
    EXPECT_EQ(filter.getLogLevels(2), LogLevels(kU, 1, kU, kU, kU));
}

TEST(FilterDiagnosticsTest, ThresholdThatIsNotAPlainDecimalIsReportedWithWhatItReadAs) {
    source(L"dgdec.x");
    const char* pszXml =
        "<Logging>\n"
        "<WriterClassGroups><WriterClassGroup name=\"G\">1</WriterClassGroup></WriterClassGroups>\n"
        "<Filters>\n"
        "<FilterRecord writerClassGroup=\"G\" path=\"dgdec\" error=\"-1\" warning=\" 7\"\n"
        "              trace=\"5x\" information=\"abc\" incident_error=\"\"/>\n"
        "</Filters></Logging>";
    const XmlDocument doc = parse(pszXml);
    FilterConfigDiagnostics diagnostics(ZQWString(L"cfg.xml"));
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement(), &diagnostics);
    // Attributes in type order; the empty one is simply unset and not reported.
    ASSERT_EQ(diagnostics.getDiagnostics().size(), 4u);
    const FilterConfigDiagnostic& error = diagnostics.getDiagnostics()[0];
    EXPECT_EQ(error.m_nKind, FilterConfigDiagnostic::FD_THRESHOLD_NOT_DECIMAL);
    EXPECT_EQ(error.m_nLine, 4u);
    EXPECT_TRUE(error.m_strElement.equals(L"FilterRecord"));
    EXPECT_TRUE(error.m_strAttribute.equals(L"error"));
    EXPECT_TRUE(error.m_strText.equals(L"-1"));
    EXPECT_TRUE(error.m_strReadAs.equals(L"65535"));
    EXPECT_EQ(messageOf(error),
              L"cfg.xml:4: FilterRecord attribute error='-1' is not a plain decimal number; it "
              L"is read as 65535.");
    EXPECT_EQ(messageOf(diagnostics.getDiagnostics()[1]),
              L"cfg.xml:4: FilterRecord attribute warning=' 7' is not a plain decimal number; "
              L"it is read as 7.");
    EXPECT_EQ(messageOf(diagnostics.getDiagnostics()[2]),
              L"cfg.xml:4: FilterRecord attribute information='abc' is not a plain decimal "
              L"number; it is read as 0.");
    EXPECT_EQ(messageOf(diagnostics.getDiagnostics()[3]),
              L"cfg.xml:4: FilterRecord attribute trace='5x' is not a plain decimal number; it "
              L"is read as 5.");

    registry().applyConfig(cfg);
    // -1 is unset and the top-level default 0 fills it; the others are as read.
    EXPECT_EQ(levelsOf(L"dgdec", 1), LogLevels(0, 0, 7, 0, 5));
    EXPECT_EQ(levelsOf(L"dgdec.x", 1), LogLevels(0, 0, 7, 0, 5));
}

TEST(FilterDiagnosticsTest, ThresholdAbove65535IsReportedWithItsLowSixteenBits) {
    const XmlDocument doc = parse(R"(<Logging>
<WriterClassGroups><WriterClassGroup name="G">2</WriterClassGroup></WriterClassGroups>
<Filters><FilterRecord writerClassGroup="G" path="dgrange" error="65536" warning="65537"
         trace="65535" information="99999999999999999999999"/></Filters></Logging>)");
    FilterConfigDiagnostics diagnostics(ZQWString(L"cfg.xml"));
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement(), &diagnostics);
    ASSERT_EQ(diagnostics.getDiagnostics().size(), 3u);
    const FilterConfigDiagnostic& error = diagnostics.getDiagnostics()[0];
    EXPECT_EQ(error.m_nKind, FilterConfigDiagnostic::FD_THRESHOLD_OUT_OF_RANGE);
    EXPECT_EQ(error.m_nLine, 3u);
    EXPECT_TRUE(error.m_strReadAs.equals(L"0"));
    EXPECT_EQ(messageOf(error),
              L"cfg.xml:3: FilterRecord attribute error='65536' is outside 0 to 65535; only its "
              L"low 16 bits are kept, so it is read as 0.");
    EXPECT_EQ(messageOf(diagnostics.getDiagnostics()[1]),
              L"cfg.xml:3: FilterRecord attribute warning='65537' is outside 0 to 65535; only "
              L"its low 16 bits are kept, so it is read as 1.");
    // Beyond the conversion's range the largest unsigned value is read: not set.
    EXPECT_TRUE(diagnostics.getDiagnostics()[2].m_strAttribute.equals(L"information"));
    EXPECT_TRUE(diagnostics.getDiagnostics()[2].m_strReadAs.equals(L"65535"));
    EXPECT_EQ(
        cfg.m_lstSetLogLevels.find(ZQWString(L"dgrange"))->second->m_ThisFilter.getLogLevels(2),
        LogLevels(kU, 0, 1, kU, kU));
}

TEST(FilterDiagnosticsTest, GroupThatNoRecordNamesIsReported) {
    const XmlDocument doc = parse(R"(<Logging>
<WriterClassGroups>
  <WriterClassGroup name="Used">1</WriterClassGroup>
  <WriterClassGroup name="Spare">0, 3;5</WriterClassGroup>
</WriterClassGroups>
<Filters><FilterRecord writerClassGroup="Used" path="dggroup" error="4"/></Filters></Logging>)");
    FilterConfigDiagnostics diagnostics(ZQWString(L"cfg.xml"));
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement(), &diagnostics);
    ASSERT_EQ(diagnostics.getDiagnostics().size(), 1u);
    const FilterConfigDiagnostic& spare = diagnostics.getDiagnostics()[0];
    EXPECT_EQ(spare.m_nKind, FilterConfigDiagnostic::FD_GROUP_NOT_REFERENCED);
    EXPECT_EQ(spare.m_nLine, 4u);
    EXPECT_TRUE(spare.m_strAttribute.equals(L"name"));
    EXPECT_TRUE(spare.m_strText.equals(L"Spare"));
    EXPECT_TRUE(spare.m_strReadAs.equals(L"0, 3, 5"));
    EXPECT_EQ(messageOf(spare),
              L"cfg.xml:4: WriterClassGroup name='Spare' (writer ids 0, 3, 5) is not "
              L"referenced by any FilterRecord.");
    ASSERT_EQ(cfg.m_lstSetLogLevels.size(), 1u);
    const LogFilter& filter =
        cfg.m_lstSetLogLevels.find(ZQWString(L"dggroup"))->second->m_ThisFilter;
    EXPECT_EQ(filter.getLogLevels(1), LogLevels(kU, 4, kU, kU, kU));
    for (int nId : {0, 3, 5}) {
        EXPECT_EQ(filter.getLogLevels(nId), LogLevels());
    }
}

TEST(FilterDiagnosticsTest, PatternThatMatchesNoExistingSourceIsReported) {
    source(L"dgpat.live");
    const XmlDocument doc = parse(R"(<Logging>
<WriterClassGroups><WriterClassGroup name="G">1,2</WriterClassGroup></WriterClassGroups>
<Filters>
  <FilterRecord writerClassGroup="G" path="dgpat.l?ve" error="6"/>
  <FilterRecord writerClassGroup="G" path="dgpat.gone.*" error="7"/>
  <FilterRecord writerClassGroup="G" path="DGPAT.*" error="8"/>
</Filters></Logging>)");
    FilterConfigDiagnostics diagnostics(ZQWString(L"cfg.xml"));
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement(), &diagnostics);
    ASSERT_EQ(diagnostics.getDiagnostics().size(), 2u);
    const FilterConfigDiagnostic& gone = diagnostics.getDiagnostics()[0];
    EXPECT_EQ(gone.m_nKind, FilterConfigDiagnostic::FD_PATTERN_MATCHES_NO_SOURCE);
    EXPECT_EQ(gone.m_nLine, 5u);
    EXPECT_TRUE(gone.m_strAttribute.equals(L"path"));
    EXPECT_TRUE(gone.m_strText.equals(L"dgpat.gone.*"));
    EXPECT_EQ(messageOf(gone),
              L"cfg.xml:5: FilterRecord path='dgpat.gone.*' (writer ids 1, 2) is a pattern that "
              L"matches no existing log source.");
    // Patterns are case-sensitive like every source name.
    EXPECT_TRUE(diagnostics.getDiagnostics()[1].m_strText.equals(L"DGPAT.*"));

    // The patterns are still kept, two entries each, and the one that matches applies.
    EXPECT_EQ(cfg.m_lstWildCardSetLogLevels.size(), 6u);
    registry().applyConfig(cfg);
    EXPECT_EQ(levelsOf(L"dgpat.live", 1), LogLevels(0, 6, 0, 0, 0));
    EXPECT_EQ(levelsOf(L"dgpat.live", 2), LogLevels(0, 0, 0, 0, 0));
}

TEST(FilterDiagnosticsTest, CollectingChangesNoResult) {
    const XmlDocument doc = parse(R"(<Logging>
<WriterClassGroups><WriterClassGroup name="G">1
2</WriterClassGroup><WriterClassGroup name="S">7</WriterClassGroup></WriterClassGroups>
<Filters>
  <FilterRecord writerClassGroup="G" path="dgsame" error="65536" warning="-1" trace="x"/>
  <FilterRecord writerClassGroup="G" path="dgsame.none.*" error="3"/>
</Filters></Logging>)");
    GlobalFilterConfiguration plain;
    KivXmlConfigReader::populate(plain, *doc.getDocumentElement());
    FilterConfigDiagnostics diagnostics;
    GlobalFilterConfiguration collected;
    KivXmlConfigReader::populate(collected, *doc.getDocumentElement(), &diagnostics);
    EXPECT_EQ(diagnostics.getDiagnostics().size(), 6u);
    ASSERT_EQ(plain.m_lstSetLogLevels.size(), collected.m_lstSetLogLevels.size());
    ASSERT_EQ(plain.m_lstWildCardSetLogLevels.size(), collected.m_lstWildCardSetLogLevels.size());
    for (int nId = 0; nId < kMaxWriterIds; ++nId) {
        EXPECT_EQ(plain.m_lstSetLogLevels.find(ZQWString(L"dgsame"))
                      ->second->m_ThisFilter.getLogLevels(nId),
                  collected.m_lstSetLogLevels.find(ZQWString(L"dgsame"))
                      ->second->m_ThisFilter.getLogLevels(nId));
        EXPECT_EQ(plain.m_lstWildCardSetLogLevels[0].second->m_ThisFilter.getLogLevels(nId),
                  collected.m_lstWildCardSetLogLevels[0].second->m_ThisFilter.getLogLevels(nId));
    }
}

TEST(FilterDiagnosticsTest, FileFormNamesTheFileAndWriterRecordsReportThresholds) {
    test::TempDir dir;
    const std::string strPath = dir.write("logconfig.xml",
                                          "<Writers>\n<Writer>\n<Filters>\n"
                                          "<FilterRecord path=\"dgfile\" error=\"70000\"/>\n"
                                          "</Filters></Writer></Writers>");
    const ZQWString file(widen(strPath));
    FilterConfigDiagnostics diagnostics;
    WriterFilter filter;
    EXPECT_TRUE(KivXmlConfigReader::populate(filter, file, ZQWString(L"Writer"), &diagnostics));
    ASSERT_EQ(diagnostics.getDiagnostics().size(), 1u);
    const FilterConfigDiagnostic& error = diagnostics.getDiagnostics()[0];
    EXPECT_TRUE(error.m_strFile.equals(file));
    EXPECT_EQ(error.m_nLine, 4u);
    EXPECT_EQ(messageOf(error),
              file.view().data() + std::wstring(L":4: FilterRecord attribute error='70000' is "
                                                L"outside 0 to 65535; only its low 16 bits are "
                                                L"kept, so it is read as 4464."));
    EXPECT_EQ(*filter.findLogLevels(source(L"dgfile")), LogLevels(kU, 4464, kU, kU, kU));
}

TEST(FilterDiagnosticsTest, CleanDocumentHasNoDiagnostics) {
    source(L"dgclean.a");
    const XmlDocument doc = parse(R"(<Logging>
<WriterClassGroups><WriterClassGroup name="G">1, 2;3</WriterClassGroup></WriterClassGroups>
<Filters>
  <FilterRecord writerClassGroup="G" path="dgclean" error="0" warning="65535"/>
  <FilterRecord writerClassGroup="G" path="dgclean.*" trace="12"/>
</Filters></Logging>)");
    FilterConfigDiagnostics diagnostics;
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *doc.getDocumentElement(), &diagnostics);
    EXPECT_TRUE(diagnostics.empty());
}

TEST(FilterDiagnosticsTest, OneRecordOrOneGroupIsReadOnItsOwnWithItsColumn) {
    const XmlDocument doc = parse(R"(<Logging>
<WriterClassGroups>  <WriterClassGroup name="G">1,
2 12</WriterClassGroup></WriterClassGroups>
<Filters><FilterRecord writerClassGroup="G" path="dgone" error="7x" trace="3"/></Filters>
</Logging>)");
    const XmlElement* pRecord =
        doc.getDocumentElement()->selectSingleElement(L"Filters/FilterRecord");
    FilterConfigDiagnostics diagnostics;
    EXPECT_EQ(KivXmlConfigReader::readRecordLevels(*pRecord, &diagnostics),
              LogLevels(kU, 7, kU, kU, 3));
    EXPECT_EQ(KivXmlConfigReader::readRecordLevels(*pRecord), LogLevels(kU, 7, kU, kU, 3));
    ASSERT_EQ(diagnostics.getDiagnostics().size(), 1u);
    EXPECT_EQ(diagnostics.getDiagnostics()[0].m_nKind,
              FilterConfigDiagnostic::FD_THRESHOLD_NOT_DECIMAL);
    EXPECT_EQ(diagnostics.getDiagnostics()[0].m_nLine, 4u);
    EXPECT_EQ(diagnostics.getDiagnostics()[0].m_nColumn, 10u);

    // The group's list is diagnosed up to the id that is refused.
    const XmlElement* pGroup =
        doc.getDocumentElement()->selectSingleElement(L"WriterClassGroups/WriterClassGroup");
    LogWritersGroup group;
    const auto e =
        catchLoggerException([&] { KivXmlConfigReader::populate(group, *pGroup, &diagnostics); });
    ASSERT_TRUE(e.has_value());
    ASSERT_EQ(diagnostics.getDiagnostics().size(), 2u);
    EXPECT_EQ(diagnostics.getDiagnostics()[1].m_nKind,
              FilterConfigDiagnostic::FD_ID_TOKEN_WHITE_SPACE);
    EXPECT_EQ(diagnostics.getDiagnostics()[1].m_nColumn, 22u);
    EXPECT_TRUE(group.contains(1));
    EXPECT_TRUE(group.contains(2));
}

}  // namespace
}  // namespace kiv

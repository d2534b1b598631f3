#include "weblogger/configreview.h"

#include <gtest/gtest.h>

#include <string>

#include "support/temp_dir.h"
#include "weblogger/logsource.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

using test::TempDir;

LogSource& source(const wchar_t* pszPath) {
    return *LogSourcesMan::getLogSourcesMan().getLogSource(nullptr, ZQWString(pszPath));
}

ConfigReviewer review(const TempDir& dir, const std::string& xml) {
    return ConfigReviewer(fromUtf8(dir.write("logconfig.xml", xml)), nullptr);
}

TEST(ConfigReviewTest, FindingsCarryTheirPlaceApartFromTheCatalogueText) {
    const TempDir dir;
    ConfigReviewer reviewer = review(dir, R"(<Logging>
  <WriterClassGroups><WriterClassGroup name="G">1</WriterClassGroup></WriterClassGroups>
  <Filters>    <FilterRecord writerClassGroup="H" path="ci.a" error="x"/></Filters>
  <Writers><Writer name="w" implementation="CoutWriter" writerClassId="1" fmtName="Short"/>
  </Writers>
</Logging>)");
    const std::vector<ConfigFinding> vecFindings = reviewer.check();
    // What the loader refuses is an error; what it reads as something else, a warning.
    ASSERT_EQ(vecFindings.size(), 2u);
    EXPECT_EQ(vecFindings[0].m_nSeverity, ConfigFinding::CF_ERROR);
    EXPECT_EQ(vecFindings[0].m_nLine, 3u);
    EXPECT_EQ(vecFindings[0].m_nColumn, 16u);
    EXPECT_TRUE(vecFindings[0].m_strText.equals(
        L"Failed to load configuration. Writers Class H is not defined."));
    EXPECT_TRUE(vecFindings[0].m_strFile.equals(reviewer.getFile()));
    EXPECT_EQ(vecFindings[1].m_nSeverity, ConfigFinding::CF_WARNING);
    EXPECT_EQ(vecFindings[1].m_nLine, 3u);
    EXPECT_EQ(vecFindings[1].m_nColumn, 16u);
    EXPECT_TRUE(vecFindings[1].m_strText.equals(
        L"FilterRecord attribute error='x' is not a plain decimal number; it is read as 0."));
}

TEST(ConfigReviewTest, AFileThatDoesNotParseIsTheOnlyFinding) {
    const TempDir dir;
    ConfigReviewer reviewer = review(dir, "<Logging>\n<a>\n</Logging>\n");
    EXPECT_EQ(reviewer.getRoot(), nullptr);
    const std::vector<ConfigFinding> vecFindings = reviewer.check();
    ASSERT_EQ(vecFindings.size(), 1u);
    EXPECT_EQ(vecFindings[0].m_nSeverity, ConfigFinding::CF_ERROR);
    EXPECT_EQ(vecFindings[0].m_nLine, 3u);
}

TEST(ConfigReviewTest, VariablesAreReplacedBeforeTheDocumentIsRead) {
    const TempDir dir;
    const std::string path = dir.write("logconfig.xml",
                                       "<Logging><Writers><Writer name=\"w\" "
                                       "implementation=\"CoutWriter\" writerClassId=\"{%id%}\" "
                                       "fmtName=\"Short\"/></Writers></Logging>");
    ReplacementMap vars;
    vars.emplace(String(L"id"), String(L"3"));
    ConfigReviewer reviewer(fromUtf8(path), &vars);
    EXPECT_TRUE(reviewer.check().empty());
    ASSERT_EQ(reviewer.getWriters().size(), 1u);
    EXPECT_EQ(ConfigReviewer::writerIdOf(*reviewer.getWriters()[0]), 3);
}

TEST(ConfigReviewTest, ThresholdOriginsFollowExactPathsPatternsAndInheritance) {
    const TempDir dir;
    ConfigReviewer reviewer = review(dir, R"(<Logging>
<WriterClassGroups>
  <WriterClassGroup name="One">1</WriterClassGroup>
  <WriterClassGroup name="Both">0 1</WriterClassGroup>
</WriterClassGroups>
<Filters>
  <FilterRecord writerClassGroup="One" path="ci" error="10" warning="4"/>
  <FilterRecord writerClassGroup="Both" path="ci.p*" error="5"/>
  <FilterRecord writerClassGroup="One" path="ci.x" warning="9"/>
  <FilterRecord writerClassGroup="One" path="ci.x" error="3"/>
</Filters>
</Logging>)");
    reviewer.applyThresholds({ZQWString(L"ci.pay.card"), ZQWString(L"ci.x.y")});
    const std::vector<const XmlElement*> vecRecords =
        reviewer.getRoot()->selectElements(L"Filters/FilterRecord");

    // Writer 1 below ci: the pattern (which matches ci.pay.card itself too) has an entry for
    // writer 0 only, so writer 1 inherits from ci.
    ConfigReviewer::ThresholdOrigin origin =
        reviewer.thresholdOrigin(source(L"ci.pay.card"), 1, LogSeverity::SV_ERROR);
    EXPECT_EQ(origin.m_nThreshold, 10);
    EXPECT_TRUE(origin.m_strSource.equals(L"ci"));
    EXPECT_EQ(origin.m_pRecord, vecRecords[0]);
    // Writer 0 there: the pattern sets it on the source itself.
    origin = reviewer.thresholdOrigin(source(L"ci.pay.card"), 0, LogSeverity::SV_ERROR);
    EXPECT_EQ(origin.m_nThreshold, 5);
    EXPECT_TRUE(origin.m_strSource.equals(L"ci.pay.card"));
    EXPECT_EQ(origin.m_pRecord, vecRecords[1]);
    // The later record for ci.x replaced all five thresholds of writer 1: its warning is unset
    // again and comes from ci.
    origin = reviewer.thresholdOrigin(source(L"ci.x.y"), 1, LogSeverity::SV_WARNING);
    EXPECT_EQ(origin.m_nThreshold, 4);
    EXPECT_TRUE(origin.m_strSource.equals(L"ci"));
    origin = reviewer.thresholdOrigin(source(L"ci.x.y"), 1, LogSeverity::SV_ERROR);
    EXPECT_EQ(origin.m_nThreshold, 3);
    EXPECT_EQ(origin.m_pRecord, vecRecords[3]);
    // Nothing set anywhere: the root's default.
    origin = reviewer.thresholdOrigin(source(L"ci.x.y"), 0, LogSeverity::SV_TRACE);
    EXPECT_EQ(origin.m_nThreshold, 0);
    EXPECT_TRUE(origin.m_strSource.empty());
    EXPECT_EQ(origin.m_pRecord, nullptr);
}

TEST(ConfigReviewTest, WriterFilterOriginNamesTheNearestRecordThatSetsTheType) {
    const TempDir dir;
    ConfigReviewer reviewer = review(dir, R"(<Logging><Writers>
<Writer name="w" implementation="CoutWriter" writerClassId="1" fmtName="Short">
  <Filters>
    <FilterRecord path="cw" error="20"/>
    <FilterRecord path="cw.db" warning="0"/>
  </Filters>
</Writer>
<Writer name="plain" implementation="CoutWriter" writerClassId="2" fmtName="Short"/>
</Writers></Logging>)");
    reviewer.applyThresholds({ZQWString(L"cw.db.pool")});
    const std::vector<const XmlElement*> vecWriters = reviewer.getWriters();
    const XmlElement* pWriter = vecWriters[0];
    const std::vector<const XmlElement*> vecRecords =
        pWriter->selectElements(L"Filters/FilterRecord");

    ConfigReviewer::WriterFilterOrigin origin = reviewer.writerFilterOrigin(
        *pWriter, source(L"cw.db.pool"), LogSeverity(LogSeverity::SV_ERROR, 16));
    EXPECT_TRUE(origin.m_bHasFilter);
    EXPECT_TRUE(origin.m_bPasses);
    EXPECT_TRUE(origin.m_strSource.equals(L"cw"));
    EXPECT_EQ(origin.m_pRecord, vecRecords[0]);
    EXPECT_EQ(origin.m_nThreshold, 20);

    origin = reviewer.writerFilterOrigin(*pWriter, source(L"cw.db.pool"),
                                         LogSeverity(LogSeverity::SV_WARNING, 1));
    EXPECT_FALSE(origin.m_bPasses);
    EXPECT_EQ(origin.m_pRecord, vecRecords[1]);

    origin = reviewer.writerFilterOrigin(*pWriter, source(L"cw.db.pool"),
                                         LogSeverity(LogSeverity::SV_TRACE, 1));
    EXPECT_FALSE(origin.m_bPasses);
    EXPECT_EQ(origin.m_pRecord, nullptr);

    origin = reviewer.writerFilterOrigin(*vecWriters[1], source(L"cw.db.pool"),
                                         LogSeverity(LogSeverity::SV_TRACE, 1));
    EXPECT_FALSE(origin.m_bHasFilter);
    EXPECT_TRUE(origin.m_bPasses);
}

TEST(ConfigReviewTest, FormatsAreFoundInTheDocumentBeforeTheBuiltInOnes) {
    const TempDir dir;
    ConfigReviewer reviewer = review(dir, R"(<Logging><Formats>
<Format name="Short"><MessageText/></Format></Formats></Logging>)");
    const XmlElement* pShort = reviewer.findFormat(String(L"short"));
    ASSERT_NE(pShort, nullptr);
    EXPECT_EQ(pShort->getLine(), 2u);
    EXPECT_NE(reviewer.findFormat(String(L"KLF-Text")), nullptr);
    EXPECT_EQ(reviewer.findFormat(String(L"Nope")), nullptr);
}

}  // namespace
}  // namespace kiv

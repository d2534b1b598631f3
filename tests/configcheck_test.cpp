#include "weblogger/internal/configcheck.h"

#include <gtest/gtest.h>

#include <string>

#include "support/temp_dir.h"
#include "zq/webkeel/transcode.h"

namespace kiv::logger_details {
namespace {

using test::TempDir;

std::string utf8(std::wstring_view text) {
    const NString bytes = toUtf8(text);
    return std::string(bytes.data(), bytes.size());
}

XmlDocument parse(const std::string& xml) {
    return XmlDocument::parseString(std::string_view(xml));
}

bool startsWith(const String& text, const std::string& prefix) {
    return utf8(text.view()).rfind(prefix, 0) == 0;
}

class ConfigCheckTest : public ::testing::Test {
protected:
    std::string problems() const {
        std::string text;
        for (const String& problem : m_vecProblems) {
            text += utf8(problem.view()) + "\n";
        }
        return text;
    }

    SourcePlace m_place{String(L"doc.xml"), 0};
    std::vector<String> m_vecProblems;
    DocumentCheck m_check{m_place, m_vecProblems};
};

TEST_F(ConfigCheckTest, ProblemsAreCollectedWithFileAndLine) {
    const XmlDocument document = parse("<Logging>\n<Writers/>\n</Logging>");
    const XmlElement* pWriters = document.getDocumentElement()->getFirstChildElement();
    ASSERT_NE(pWriters, nullptr);
    m_check.addAt(*pWriters, GDString(L"first"));
    m_check.addMissing(*pWriters, String(L"name"));
    EXPECT_EQ(m_check.count(), 2u);
    EXPECT_TRUE(m_vecProblems[0].equals(L"doc.xml:2: first"));
    EXPECT_TRUE(startsWith(m_vecProblems[1], "doc.xml:2:")) << problems();
}

TEST_F(ConfigCheckTest, SoundGroupsAndRecordsGiveNoProblem) {
    const XmlDocument document = parse(
        "<Logging><WriterClassGroups><WriterClassGroup name='All'>1</WriterClassGroup>"
        "</WriterClassGroups>"
        "<Filters><FilterRecord writerClassGroup='All' path='cfg' error='20'/></Filters>"
        "<Writers><Writer><Filters><FilterRecord path='cfg' error='5'/></Filters></Writer>"
        "</Writers></Logging>");
    m_check.checkGroupsAndRecords(*document.getDocumentElement());
    EXPECT_EQ(m_check.count(), 0u) << problems();
}

TEST_F(ConfigCheckTest, EveryGroupAndRecordProblemIsFoundAtOnce) {
    const XmlDocument document = parse(
        "<Logging>\n"
        "<WriterClassGroups>\n"
        "<WriterClassGroup name='A'>1</WriterClassGroup>\n"
        "<WriterClassGroup name='A'>2</WriterClassGroup>\n"
        "<WriterClassGroup>3</WriterClassGroup>\n"
        "</WriterClassGroups>\n"
        "<Filters>\n"
        "<FilterRecord writerClassGroup='Nobody' path='cfg' error='20'/>\n"
        "<FilterRecord path='cfg' error='20'/>\n"
        "<FilterRecord writerClassGroup='A' error='20'/>\n"
        "</Filters>\n"
        "<Writers><Writer>\n"
        "<Filters><FilterRecord error='5'/></Filters>\n"
        "</Writer></Writers>\n"
        "</Logging>");
    m_check.checkGroupsAndRecords(*document.getDocumentElement());
    ASSERT_EQ(m_check.count(), 6u) << problems();
    const char* const kLines[] = {
        "doc.xml:4:", "doc.xml:5:", "doc.xml:8:", "doc.xml:9:", "doc.xml:10:", "doc.xml:13:"};
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_TRUE(startsWith(m_vecProblems[i], kLines[i])) << kLines[i] << "\n" << problems();
    }
}

TEST_F(ConfigCheckTest, WriterMissingEveryAttributeGetsOneProblemEach) {
    const XmlDocument document = parse("<Writer/>");
    EXPECT_FALSE(m_check.checkWriter(*document.getDocumentElement()));
    EXPECT_EQ(m_check.count(), 3u) << problems();
}

TEST_F(ConfigCheckTest, WriterOfAnUnknownImplementationOrAnInvalidIdIsRefused) {
    const XmlDocument unknown =
        parse("<Writer name='w' implementation='NoSuchWriter' writerClassId='1'/>");
    EXPECT_FALSE(m_check.checkWriter(*unknown.getDocumentElement()));
    EXPECT_EQ(m_check.count(), 1u) << problems();
    const XmlDocument badId =
        parse("<Writer name='w' implementation='FileLogWriter' writerClassId='12'/>");
    EXPECT_FALSE(m_check.checkWriter(*badId.getDocumentElement()));
    EXPECT_EQ(m_check.count(), 2u) << problems();
    const XmlDocument sound =
        parse("<Writer name='w' implementation='FileLogWriter' writerClassId='9'/>");
    EXPECT_TRUE(m_check.checkWriter(*sound.getDocumentElement()));
    EXPECT_EQ(m_check.count(), 2u) << problems();
}

TEST_F(ConfigCheckTest, OversizedAttributesAreEachAProblem) {
    const std::string strLong(kMaxAttributeLength + 1, 'x');
    const XmlDocument document =
        parse("<Logging a='" + strLong + "'><Writer b='" + strLong + "'/></Logging>");
    EXPECT_FALSE(m_check.checkAttributeLengths(*document.getDocumentElement()));
    EXPECT_EQ(m_check.count(), 2u) << problems();
    const XmlDocument fine = parse("<Logging a='short'/>");
    EXPECT_TRUE(m_check.checkAttributeLengths(*fine.getDocumentElement()));
    EXPECT_EQ(m_check.count(), 2u);
}

TEST_F(ConfigCheckTest, WritersAreBuiltUninstalledAndFailuresCollected) {
    const TempDir dir;
    const XmlDocument document = parse(
        "<Logging>\n<Writers>\n"
        "<Writer name='files' implementation='FileLogWriter' writerClassId='1' dir='" +
        dir.path() +
        "'><Filters><FilterRecord path='a' error='5'/><FilterRecord path='b' error='5'/>"
        "</Filters></Writer>\n"
        "<Writer name='ghost' implementation='NoSuchWriter' writerClassId='2'/>\n"
        "<Writer name='nofiles' implementation='FileLogWriter' writerClassId='3' dir='" +
        dir.path() +
        "' filesN='0'/>\n"
        "</Writers>\n</Logging>");
    unsigned nRecords = 0;
    const std::vector<Handle<LogWriter>> vecBuilt =
        buildWritersChecked(*document.getDocumentElement(), m_check, nRecords);
    ASSERT_EQ(vecBuilt.size(), 1u) << problems();
    EXPECT_TRUE(vecBuilt[0]->getName().equals(L"files"));
    EXPECT_EQ(nRecords, 2u);
    ASSERT_EQ(m_check.count(), 2u) << problems();
    EXPECT_TRUE(startsWith(m_vecProblems[0], "doc.xml:4:")) << problems();
    EXPECT_TRUE(startsWith(m_vecProblems[1], "doc.xml:5:")) << problems();
}

}  // namespace
}  // namespace kiv::logger_details

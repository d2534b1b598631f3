#include "zq/webutil/configreader.h"

#include <gtest/gtest.h>

#include <string>

#include "support/temp_dir.h"

namespace kiv {
namespace {

constexpr std::string_view kConfig =
    "<Config version=\" 3 \">\n"
    "  <TimeZone>\n"
    "    <Logging name=\" main \" enabled=\"yes\">\n"
    "      Europe/Berlin  \n"
    "    </Logging>\n"
    "  </TimeZone>\n"
    "  <Flags>\n"
    "    <A>true</A><B> NO </B><C>On</C><D>0</D><E>maybe</E><F/><G>YES</G><H>Off</H>\n"
    "    <I>1</I><J>FALSE</J><K>\t on\n</K>\n"
    "  </Flags>\n"
    "  <Writers><Writer>one</Writer><Writer>two</Writer></Writers>\n"
    "  <Empty></Empty>\n"
    "  <Mixed>a<![CDATA[ b ]]>c</Mixed>\n"
    "</Config>\n";

TEST(ConfigReaderTest, GetStringTrimsTheInnerText) {
    const ConfigReader reader = ConfigReader::parseString(kConfig);
    EXPECT_TRUE(reader.getString(L"TimeZone/Logging").equals(L"Europe/Berlin"));
    EXPECT_TRUE(reader.getString(L"/TimeZone//Logging/").equals(L"Europe/Berlin"));
    EXPECT_TRUE(reader.getString(L"Writers/Writer").equals(L"one"));
    EXPECT_TRUE(reader.getString(L"Mixed").equals(L"a b c"));
    EXPECT_TRUE(reader.getString(L"Flags/K").equals(L"on"));
}

TEST(ConfigReaderTest, GetStringGivesTheDefaultOnlyWhenAbsent) {
    const ConfigReader reader = ConfigReader::parseString(kConfig);
    EXPECT_TRUE(reader.getString(L"TimeZone/Missing", String(L"dflt")).equals(L"dflt"));
    EXPECT_TRUE(reader.getString(L"Missing/Logging", String(L"dflt")).equals(L"dflt"));
    EXPECT_TRUE(reader.getString(L"Missing").empty());
    // Present but empty is not absent.
    EXPECT_TRUE(reader.getString(L"Empty", String(L"dflt")).empty());
    EXPECT_TRUE(reader.getString(L"Flags/F", String(L"dflt")).empty());
    // Paths are relative to the root element, which is not named in them.
    EXPECT_TRUE(reader.getString(L"Config/TimeZone/Logging", String(L"dflt")).equals(L"dflt"));
}

TEST(ConfigReaderTest, AttributePaths) {
    const ConfigReader reader = ConfigReader::parseString(kConfig);
    EXPECT_TRUE(reader.getString(L"TimeZone/Logging/@name").equals(L"main"));
    EXPECT_TRUE(reader.getString(L"TimeZone/Logging/@enabled").equals(L"yes"));
    EXPECT_TRUE(reader.getString(L"@version").equals(L"3"));
    EXPECT_TRUE(reader.getString(L"TimeZone/Logging/@missing", String(L"d")).equals(L"d"));
    EXPECT_TRUE(reader.getString(L"TimeZone/Missing/@name", String(L"d")).equals(L"d"));
    EXPECT_TRUE(reader.getBoolean(L"TimeZone/Logging/@enabled", false));
    EXPECT_FALSE(reader.getBoolean(L"TimeZone/Logging/@missing", false));
    EXPECT_EQ(reader.getElement(L"TimeZone/Logging/@name"), nullptr);
}

TEST(ConfigReaderTest, BooleanWords) {
    const ConfigReader reader = ConfigReader::parseString(kConfig);
    for (const wchar_t* pszPath : {L"Flags/A", L"Flags/C", L"Flags/G", L"Flags/I", L"Flags/K"}) {
        EXPECT_TRUE(reader.getBoolean(pszPath, false)) << pszPath;
    }
    for (const wchar_t* pszPath : {L"Flags/B", L"Flags/D", L"Flags/H", L"Flags/J"}) {
        EXPECT_FALSE(reader.getBoolean(pszPath, true)) << pszPath;
    }
    // Anything else, an empty element and an absent one give the default.
    for (const wchar_t* pszPath : {L"Flags/E", L"Flags/F", L"Flags/Missing", L"TimeZone"}) {
        EXPECT_TRUE(reader.getBoolean(pszPath, true)) << pszPath;
        EXPECT_FALSE(reader.getBoolean(pszPath, false)) << pszPath;
    }
}

TEST(ConfigReaderTest, GetElement) {
    const ConfigReader reader = ConfigReader::parseString(kConfig);
    const XmlElement* pRoot = reader.getRootElement();
    ASSERT_NE(pRoot, nullptr);
    EXPECT_TRUE(pRoot->getName().equals(L"Config"));
    EXPECT_EQ(reader.getElement(L""), pRoot);
    EXPECT_EQ(reader.getElement(PathFilter(String(L"/"))), pRoot);
    const XmlElement* pLogging = reader.getElement(L"TimeZone/Logging");
    ASSERT_NE(pLogging, nullptr);
    EXPECT_TRUE(pLogging->getName().equals(L"Logging"));
    EXPECT_EQ(reader.getElement(PathFilter(String(L"TimeZone/Logging"))), pLogging);
    EXPECT_EQ(reader.getElement(PathFilter(String(L"//TimeZone/Logging//"))), pLogging);
    EXPECT_EQ(reader.getElement(L"TimeZone/Nothing"), nullptr);
    EXPECT_EQ(reader.getElement(PathFilter(String(L"Nothing"))), nullptr);
}

TEST(ConfigReaderTest, PathFilterSegments) {
    const PathFilter filter(String(L"/TimeZone//Logging/"));
    EXPECT_TRUE(filter.getPath().equals(L"/TimeZone//Logging/"));
    ASSERT_EQ(filter.getSegments().size(), 2u);
    EXPECT_TRUE(filter.getSegments()[0].equals(L"TimeZone"));
    EXPECT_TRUE(filter.getSegments()[1].equals(L"Logging"));
    EXPECT_FALSE(filter.isEmpty());

    const PathFilter attribute(String(L"A/@b"));
    ASSERT_EQ(attribute.getSegments().size(), 2u);
    EXPECT_TRUE(attribute.getSegments()[1].equals(L"@b"));

    EXPECT_TRUE(PathFilter(String()).isEmpty());
    EXPECT_TRUE(PathFilter(String(L"///")).isEmpty());
    EXPECT_TRUE(PathFilter(String(L"")).getSegments().empty());
    ASSERT_EQ(PathFilter(String(L"single")).getSegments().size(), 1u);
}

TEST(ConfigReaderTest, DefaultConstructedReaderAnswersWithDefaults) {
    const ConfigReader reader;
    EXPECT_EQ(reader.getRootElement(), nullptr);
    EXPECT_EQ(reader.getElement(L""), nullptr);
    EXPECT_EQ(reader.getElement(L"A/B"), nullptr);
    EXPECT_EQ(reader.getElement(PathFilter(String(L"A"))), nullptr);
    EXPECT_TRUE(reader.getString(L"A", String(L"d")).equals(L"d"));
    EXPECT_TRUE(reader.getString(L"@a", String(L"d")).equals(L"d"));
    EXPECT_TRUE(reader.getString(L"").empty());
    EXPECT_TRUE(reader.getBoolean(L"A", true));
    EXPECT_FALSE(reader.getBoolean(L"A", false));
}

TEST(ConfigReaderTest, LoadFromFile) {
    test::TempDir dir;
    const std::string strPath = dir.write("config.xml", std::string(kConfig));
    const ConfigReader reader = ConfigReader::loadFromFile(NString(strPath.c_str()));
    EXPECT_TRUE(reader.getString(L"TimeZone/Logging").equals(L"Europe/Berlin"));
    EXPECT_TRUE(reader.getBoolean(L"Flags/A", false));

    const ConfigReader fromDocument(XmlDocument::loadFromFile(NString(strPath.c_str())));
    EXPECT_TRUE(fromDocument.getString(L"Writers/Writer").equals(L"one"));
}

TEST(ConfigReaderTest, LoadFromFileFailures) {
    test::TempDir dir;
    const std::string strMissing = dir.file("missing.xml");
    try {
        ConfigReader::loadFromFile(NString(strMissing.c_str()));
        FAIL() << "no exception";
    } catch (const XmlException& e) {
        EXPECT_NE(std::string(e.what()).find(strMissing), std::string::npos);
    }
    const std::string strBad = dir.write("bad.xml", "<Config>\n<A></B>\n</Config>");
    try {
        ConfigReader::loadFromFile(NString(strBad.c_str()));
        FAIL() << "no exception";
    } catch (const XmlException& e) {
        EXPECT_EQ(std::string(e.what()), strBad + ":2:6: mismatched tag");
    }
    EXPECT_THROW(ConfigReader::parseString("<Config>"), XmlException);
}

TEST(ConfigReaderTest, GlobalReader) {
    EXPECT_EQ(ConfigReader::getGlobal(), nullptr);
    const ConfigReader reader = ConfigReader::parseString(kConfig);
    ConfigReader::setGlobal(&reader);
    EXPECT_EQ(ConfigReader::getGlobal(), &reader);
    EXPECT_TRUE(ConfigReader::getGlobal()->getString(L"Writers/Writer").equals(L"one"));
    ConfigReader::setGlobal(nullptr);
    EXPECT_EQ(ConfigReader::getGlobal(), nullptr);
}

}  // namespace
}  // namespace kiv

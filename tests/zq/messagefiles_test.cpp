#include "zq/webutil/messagefiles.h"

#include <gtest/gtest.h>

namespace kiv {
namespace {

TEST(MessageFileTest, FirstChildOfANameWinsAndNestedElementsAreNotRead) {
    const MessageFile file = MessageFile::parseString(
        "<Messages>"
        "<WebMessage name=\"a\"><TEXT>first</TEXT></WebMessage>"
        "<WebMessage name=\"b\"><TEXT>other</TEXT></WebMessage>"
        "<Group><WebMessage name=\"c\"><TEXT>nested</TEXT></WebMessage></Group>"
        "<WebMessage name=\"a\"><TEXT>second</TEXT></WebMessage>"
        "<WebMessage><TEXT>no name</TEXT></WebMessage>"
        "</Messages>");
    ASSERT_EQ(file.size(), 2u);
    const XmlElement* pA = file.findTemplate(L"a");
    ASSERT_NE(pA, nullptr);
    EXPECT_TRUE(pA->getFirstChildElement()->getInnerText().equals(L"first"));
    EXPECT_NE(file.findTemplate(L"b"), nullptr);
    EXPECT_EQ(file.findTemplate(L"c"), nullptr);
}

TEST(MessageFileTest, RootWebMessageIsItsOnlyTemplate) {
    const MessageFile file =
        MessageFile::parseString("<WebMessage name=\"only\"><TEXT>t</TEXT></WebMessage>");
    ASSERT_EQ(file.size(), 1u);
    EXPECT_NE(file.findTemplate(L"only"), nullptr);
}

TEST(MessageFilesRegistryTest, FilesAreRegisteredOnceAndEachChangeBumpsTheGeneration) {
    MessageFilesRegistry& registry = MessageFilesRegistry::getInstance();
    registry.reset();
    const unsigned nStart = registry.getGeneration();
    registry.registerMessageFiles(String(L"x.xml"));
    registry.registerMessageFiles(String(L"x.xml"));
    EXPECT_EQ(registry.getRegisteredFiles().size(), 1u);
    EXPECT_EQ(registry.getGeneration(), nStart + 1);
    registry.addSearchDirectory(NString("/tmp/messages"));
    ASSERT_EQ(registry.getSearchDirectories().size(), 1u);
    EXPECT_EQ(registry.getSearchDirectories()[0], NString("/tmp/messages"));
    EXPECT_EQ(registry.getGeneration(), nStart + 2);
    registry.reset();
    EXPECT_TRUE(registry.getRegisteredFiles().empty());
    EXPECT_TRUE(registry.getSearchDirectories().empty());
}

}  // namespace
}  // namespace kiv

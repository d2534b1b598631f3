// The context-monitoring client library on its own, loaded by path as a host loads it.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>
#include <thread>

#include "support/ctm_client.h"

namespace kiv::test {
namespace {

class WebCtmTest : public ::testing::Test {
protected:
    void SetUp() override { m_client.pfnClear(); }
    const CtmClient& m_client = CtmClient::open();
};

bool isEcidText(const std::string& strText) {
    static const std::regex kPattern("[0-9a-f]{32},[0-9a-f]{16}");
    return std::regex_match(strText, kPattern) && strText.substr(0, 32) != std::string(32, '0') &&
           strText.substr(33) != std::string(16, '0');
}

TEST_F(WebCtmTest, ANewContextHasRandomNonZeroLowerHexIds) {
    std::set<std::string> setSeen;
    for (int i = 0; i < 200; ++i) {
        const std::string strText = m_client.createDirectly();
        EXPECT_TRUE(isEcidText(strText)) << strText;
        setSeen.insert(strText.substr(0, 32));
        setSeen.insert(strText.substr(33));
    }
    EXPECT_EQ(setSeen.size(), 400u);  // no id repeats
}

TEST_F(WebCtmTest, TheQueryLabelAsksForTheCurrentContextAndOtherLabelsForNothing) {
    EXPECT_EQ(m_client.pfnGet("QamContextQuery"), nullptr);
    const std::string strCreated = m_client.createDirectly();
    EXPECT_EQ(m_client.currentEcidText(), strCreated);
    EXPECT_EQ(m_client.pfnGet("SomethingElse"), nullptr);
}

TEST_F(WebCtmTest, ClearingEndsTheCurrentContextAndSucceedsEvenWithoutOne) {
    m_client.createDirectly();
    EXPECT_NE(m_client.pfnClear(), 0);
    EXPECT_EQ(m_client.currentEcidText(), "");
    EXPECT_EQ(m_client.wrapNow(), "");
    EXPECT_NE(m_client.pfnClear(), 0);
}

TEST_F(WebCtmTest, WrapGivesATraceparentOfTheCurrentContext) {
    const std::string strCreated = m_client.createDirectly();
    EXPECT_EQ(m_client.wrapNow(),
              "00-" + strCreated.substr(0, 32) + "-" + strCreated.substr(33) + "-01");
}

TEST_F(WebCtmTest, UnwrapContinuesTheTraceWithANewSpanOrTheSameOne) {
    const char* pszParent = "00-4bf92f3577b34da6a3ce929d0e0e4736-00f067aa0ba902b7-01";
    void* pChild = m_client.pfnUnwrap(pszParent, false);
    ASSERT_NE(pChild, nullptr);
    EXPECT_STREQ(m_client.pfnGetECID(pChild), "4bf92f3577b34da6a3ce929d0e0e4736");
    EXPECT_STRNE(m_client.pfnGetRID(pChild), "00f067aa0ba902b7");
    EXPECT_EQ(m_client.currentEcidText(), m_client.ecidText(pChild));
    m_client.release(pChild);

    void* pSame = m_client.pfnUnwrap(pszParent, true);
    ASSERT_NE(pSame, nullptr);
    EXPECT_EQ(m_client.ecidText(pSame), "4bf92f3577b34da6a3ce929d0e0e4736,00f067aa0ba902b7");
    m_client.release(pSame);
    EXPECT_EQ(m_client.pfnUnwrap(nullptr, false), nullptr);
}

TEST_F(WebCtmTest, AWrappedContextContinuesOnAnotherThread) {
    const std::string strCreated = m_client.createDirectly();
    const std::string strWrapped = m_client.wrapNow();
    std::string strThere;
    std::thread([&] {
        m_client.release(m_client.pfnUnwrap(strWrapped.c_str(), false));
        strThere = m_client.currentEcidText();
    }).join();
    EXPECT_EQ(strThere.substr(0, 32), strCreated.substr(0, 32));
}

TEST_F(WebCtmTest, CreateMakesTheContextOfValidIdsCurrent) {
    void* pContext = m_client.pfnCreate("4bf92f3577b34da6a3ce929d0e0e4736", "00f067aa0ba902b7");
    ASSERT_NE(pContext, nullptr);
    m_client.release(pContext);
    EXPECT_EQ(m_client.currentEcidText(), "4bf92f3577b34da6a3ce929d0e0e4736,00f067aa0ba902b7");
    EXPECT_EQ(m_client.pfnCreate("00000000000000000000000000000000", "00f067aa0ba902b7"), nullptr);
    EXPECT_EQ(m_client.pfnCreate("4bf92f3577b34da6a3ce929d0e0e4736", "00F067AA0BA902B7"), nullptr);
    EXPECT_EQ(m_client.pfnCreate(nullptr, "00f067aa0ba902b7"), nullptr);
}

TEST_F(WebCtmTest, AContextStashedForRestoreIsFoundOnceAndMadeCurrent) {
    int nReference = 0;
    EXPECT_EQ(m_client.pfnStashCurrent(&nReference), 0);  // nothing current
    const std::string strStashed = m_client.createDirectly();
    EXPECT_NE(m_client.pfnStashCurrent(&nReference), 0);
    m_client.createDirectly();
    void* pFound = m_client.pfnFind(&nReference);
    ASSERT_NE(pFound, nullptr);
    EXPECT_EQ(m_client.ecidText(pFound), strStashed);
    m_client.release(pFound);
    EXPECT_EQ(m_client.currentEcidText(), strStashed);
    EXPECT_EQ(m_client.pfnFind(&nReference), nullptr);
}

TEST_F(WebCtmTest, AStashWithoutAContextForgetsWhatWasStashedUnderTheReferenceBefore) {
    int nReference = 0;
    m_client.createDirectly();
    ASSERT_NE(m_client.pfnStashCurrent(&nReference), 0);
    m_client.pfnClear();
    EXPECT_EQ(m_client.pfnStashCurrent(&nReference), 0);
    EXPECT_EQ(m_client.pfnFind(&nReference), nullptr);
}

TEST_F(WebCtmTest, AHandedOffContextIsFoundByAnyThreadUntilItExpires) {
    int nReference = 0;
    EXPECT_EQ(m_client.pfnStash(&nReference), 0);  // nothing current
    const std::string strStashed = m_client.createDirectly();
    ASSERT_NE(m_client.pfnStash(&nReference), 0);
    for (int i = 0; i < 3; ++i) {
        std::string strThere;
        std::thread([&] {
            m_client.release(m_client.pfnFind(&nReference));
            strThere = m_client.currentEcidText();
        }).join();
        EXPECT_EQ(strThere, strStashed);
    }
    m_client.pfnExpire(3600);  // younger than an hour: kept
    void* pFound = m_client.pfnFind(&nReference);
    EXPECT_NE(pFound, nullptr);
    m_client.release(pFound);
    m_client.pfnExpire(0);  // everything is at least 0 seconds old
    EXPECT_EQ(m_client.pfnFind(&nReference), nullptr);
    EXPECT_EQ(m_client.pfnStash(nullptr), 0);
    EXPECT_EQ(m_client.pfnFind(nullptr), nullptr);
}

TEST_F(WebCtmTest, TheContextIsPerThread) {
    const std::string strHere = m_client.createDirectly();
    std::string strThere = "unset";
    std::thread([&] { strThere = m_client.currentEcidText(); }).join();
    EXPECT_EQ(strThere, "");
    EXPECT_EQ(m_client.currentEcidText(), strHere);
}

}  // namespace
}  // namespace kiv::test

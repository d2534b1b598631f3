// The client's traceparent parser, through the exported qamContextUnwrap of the real library:
// the valid and invalid header values of the W3C Trace Context rules, one row each.
#include <gtest/gtest.h>

#include <string>

#include "support/ctm_client.h"

namespace kiv::test {
namespace {

struct Row {
    const char* pszValue;
    bool bValid;
    const char* pszWhy;
};

const Row kRows[] = {
    {"00-4bf92f3577b34da6a3ce929d0e0e4736-00f067aa0ba902b7-01", true, "the standard's example"},
    {"00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-00", true, "not sampled"},
    {"00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-09", true, "unknown flag bits kept"},
    {"01-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01", true, "a later version"},
    {"cc-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01-what-the-future-holds", true,
     "a later version with more fields"},
    {"00-00000000000000000000000000000001-0000000000000001-01", true, "ids with one bit set"},
    {"ff-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01", false, "version ff is invalid"},
    {"00-0AF7651916CD43DD8448EB211C80319C-b7ad6b7169203331-01", false, "upper-case trace id"},
    {"00-0af7651916cd43dd8448eb211c80319c-B7AD6B7169203331-01", false, "upper-case parent id"},
    {"0A-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01", false, "upper-case version"},
    {"00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-0A", false, "upper-case flags"},
    {"00-00000000000000000000000000000000-b7ad6b7169203331-01", false, "all-zero trace id"},
    {"00-0af7651916cd43dd8448eb211c80319c-0000000000000000-01", false, "all-zero parent id"},
    {"00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01-", false,
     "version 00 with something after it"},
    {"00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-010", false, "version 00 too long"},
    {"00-0af7651916cd43dd8448eb211c8031-b7ad6b7169203331-01", false, "trace id too short"},
    {"00-0af7651916cd43dd8448eb211c80319c-b7ad6b71692033-01", false, "parent id too short"},
    {"00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-1", false, "flags too short"},
    {"0-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01", false, "version too short"},
    {"00_0af7651916cd43dd8448eb211c80319c_b7ad6b7169203331_01", false, "wrong separators"},
    {"00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-0g", false, "flags not hex"},
    {"00-0af7651916cd43dd8448eb211c80319z-b7ad6b7169203331-01", false, "trace id not hex"},
    {"01-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01x", false,
     "a later version whose extra text is not a new field"},
    {" 00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01", false, "leading blank"},
    {"", false, "empty"},
};

TEST(TraceparentTableTest, EachValueIsAcceptedOrRefusedAsTheStandardSays) {
    const CtmClient& client = CtmClient::open();
    for (const Row& row : kRows) {
        void* pContext = client.pfnUnwrap(row.pszValue, true);
        EXPECT_EQ(pContext != nullptr, row.bValid) << row.pszWhy << ": " << row.pszValue;
        if (pContext != nullptr) {
            const std::string strValue(row.pszValue);
            EXPECT_EQ(client.pfnGetECID(pContext), strValue.substr(3, 32)) << row.pszWhy;
            EXPECT_EQ(client.pfnGetRID(pContext), strValue.substr(36, 16)) << row.pszWhy;
            client.release(pContext);
        }
    }
}

TEST(TraceparentTableTest, ARefusedValueLeavesTheCurrentContextAsItWas) {
    const CtmClient& client = CtmClient::open();
    const std::string strBefore = client.createDirectly();
    EXPECT_EQ(client.pfnUnwrap("ff-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01", true),
              nullptr);
    EXPECT_EQ(client.currentEcidText(), strBefore);
}

TEST(TraceparentTableTest, WrappingWritesVersion00OfTheCurrentContext) {
    const CtmClient& client = CtmClient::open();
    client.release(
        client.pfnUnwrap("cc-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-09-more", true));
    EXPECT_EQ(client.wrapNow(), "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-09");
}

}  // namespace
}  // namespace kiv::test

#include "zq/webkeel/wildcard.h"

#include <gtest/gtest.h>

namespace kiv {
namespace {

TEST(WildcardTest, StarMatchesAnyRunAcrossDotsButNotTheBareParent) {
    EXPECT_TRUE(matchesWildcard(L"kiv.*", L"kiv.unknown"));
    EXPECT_TRUE(matchesWildcard(L"kiv.*", L"kiv.a.b"));
    EXPECT_TRUE(matchesWildcard(L"kiv.*", L"kiv."));
    EXPECT_FALSE(matchesWildcard(L"kiv.*", L"kiv"));
    EXPECT_FALSE(matchesWildcard(L"kiv.*", L"kivx.a"));
    EXPECT_TRUE(matchesWildcard(L"*", L""));
    EXPECT_TRUE(matchesWildcard(L"*", L"a.b.c"));
    EXPECT_TRUE(matchesWildcard(L"**", L"abc"));
}

TEST(WildcardTest, QuestionMarkMatchesExactlyOneCharacter) {
    EXPECT_TRUE(matchesWildcard(L"kiv.?", L"kiv.a"));
    EXPECT_TRUE(matchesWildcard(L"kiv?a", L"kiv.a"));
    EXPECT_FALSE(matchesWildcard(L"kiv.?", L"kiv.ab"));
    EXPECT_FALSE(matchesWildcard(L"kiv.?", L"kiv."));
    EXPECT_FALSE(matchesWildcard(L"?", L""));
}

TEST(WildcardTest, WholeTextMustMatchWholePattern) {
    EXPECT_TRUE(matchesWildcard(L"kiv.u*", L"kiv.unknown"));
    EXPECT_FALSE(matchesWildcard(L"kiv.u*", L"x.kiv.unknown"));
    EXPECT_TRUE(matchesWildcard(L"*.unknown", L"kiv.unknown"));
    EXPECT_FALSE(matchesWildcard(L"*.unknown", L"kiv.unknown.x"));
    EXPECT_TRUE(matchesWildcard(L"a*b*c", L"axxbyyc"));
    EXPECT_TRUE(matchesWildcard(L"a*b*c", L"abcbc"));
    EXPECT_FALSE(matchesWildcard(L"a*b*c", L"abcbd"));
    EXPECT_TRUE(matchesWildcard(L"*a?", L"aaab"));
    EXPECT_TRUE(matchesWildcard(L"", L""));
    EXPECT_FALSE(matchesWildcard(L"", L"a"));
    EXPECT_TRUE(matchesWildcard(L"kiv", L"kiv"));
}

TEST(WildcardTest, MatchingIsCaseSensitive) {
    EXPECT_FALSE(matchesWildcard(L"kiv.*", L"Kiv.unknown"));
    EXPECT_FALSE(matchesWildcard(L"KIV.?", L"kiv.a"));
    EXPECT_TRUE(matchesWildcard(L"Kiv.*", L"Kiv.unknown"));
}

TEST(WildcardTest, OnlyStarAndQuestionMarkMakeAPattern) {
    EXPECT_TRUE(hasWildcard(L"kiv.*"));
    EXPECT_TRUE(hasWildcard(L"kiv.?"));
    EXPECT_FALSE(hasWildcard(L"kiv.unknown"));
    EXPECT_FALSE(hasWildcard(L"[kiv]+"));
    EXPECT_FALSE(hasWildcard(L""));
}

}  // namespace
}  // namespace kiv

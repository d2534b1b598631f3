#include "weblogger/internal/templatecache.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zq/webkeel/gdvalue.h"

namespace kiv::logger_details {
namespace {

// The compiled template as "text|insert|text|insert|...": each piece and the insert after it.
std::string describe(const Utf8Template& compiled) {
    std::string text;
    for (const Utf8Template::Segment& segment : compiled) {
        text.append(compiled.bytes(segment), segment.nBytes);
        text += "|" + std::to_string(segment.nInsert) + "|";
    }
    return text;
}

TEST(Utf8TemplateTest, CompilesTextToUtf8PiecesEachFollowedByItsInsert) {
    Utf8Template compiled;
    ASSERT_TRUE(compiled.compile(L"request %1 handled in %2 ms by worker %3"));
    EXPECT_EQ(describe(compiled), "request |1| handled in |2| ms by worker |3|");
    ASSERT_TRUE(compiled.compile(L"%2%1 \u00e9\u20ac\U0001F600 end"));
    EXPECT_EQ(describe(compiled), "|2||1| \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80 end|0|");
}

TEST(Utf8TemplateTest, PercentSignsFollowTheFormattersRules) {
    Utf8Template compiled;
    // "%%" is one '%'; a '%' before anything but a digit 1-9 stands as written; so does a
    // trailing one. "%9" is a marker: whether it stands as written depends on the message.
    ASSERT_TRUE(compiled.compile(L"100%% %0 %x %%1 %9 %"));
    EXPECT_EQ(describe(compiled), "100% %0 %x %1 |9| %|0|");
}

TEST(Utf8TemplateTest, AnEmptyTemplateHasNoPieces) {
    Utf8Template compiled;
    ASSERT_TRUE(compiled.compile(L""));
    EXPECT_EQ(compiled.begin(), compiled.end());
}

TEST(Utf8TemplateTest, TemplatesBeyondTheLimitsAreNotCompiled) {
    Utf8Template compiled;
    EXPECT_TRUE(compiled.compile(std::wstring(Utf8Template::kMaxChars, L'a')));
    EXPECT_FALSE(compiled.compile(std::wstring(Utf8Template::kMaxChars + 1, L'a')));
    EXPECT_EQ(compiled.begin(), compiled.end());
    // Few characters, too many bytes: 86 euro signs are 258 bytes.
    EXPECT_FALSE(compiled.compile(std::wstring(86, L'\u20ac')));
    EXPECT_TRUE(compiled.compile(std::wstring(85, L'\u20ac')));
    std::wstring manyInserts;
    for (std::size_t i = 0; i < Utf8Template::kMaxSegments; ++i) {
        manyInserts += L"%1";
    }
    EXPECT_TRUE(compiled.compile(manyInserts));
    EXPECT_FALSE(compiled.compile(manyInserts + L"%1"));
}

TEST(Utf8TemplateCacheTest, FindsTheSameTemplateAgainWithoutCompiling) {
    Utf8TemplateCache cache;
    const std::wstring text = L"a %1 b";
    const Utf8Template* pFirst = cache.find(text);
    ASSERT_NE(pFirst, nullptr);
    EXPECT_TRUE(pFirst->isFor(text));
    EXPECT_EQ(cache.find(text), pFirst);
    EXPECT_EQ(describe(*pFirst), "a |1| b|0|");
}

TEST(Utf8TemplateCacheTest, NewTextAtTheSameAddressIsCompiledAgain) {
    // A template freed and another made in its place: same address, same length, other text.
    Utf8TemplateCache cache;
    std::wstring text = L"old %1 text";
    ASSERT_NE(cache.find(text), nullptr);
    text[0] = L'n';
    text[5] = L'2';
    const Utf8Template* pAgain = cache.find(text);
    ASSERT_NE(pAgain, nullptr);
    EXPECT_EQ(describe(*pAgain), "nld |2| text|0|");
    text = L"old %1 text";
    EXPECT_EQ(describe(*cache.find(text)), "old |1| text|0|");
    // A shorter text at the same address is another template too.
    EXPECT_EQ(describe(*cache.find(std::wstring_view(text).substr(0, 3))), "old|0|");
}

TEST(Utf8TemplateCacheTest, ALiteralIsFoundAgainByItsFingerprint) {
    static constexpr std::wstring_view kLiteral = L"served %1 in %2 ms";
    constexpr std::uint64_t nFingerprint = GDLiteralText::fingerprintOf(kLiteral);
    Utf8TemplateCache cache;
    const Utf8Template* pFirst = cache.find(kLiteral, nFingerprint);
    ASSERT_NE(pFirst, nullptr);
    EXPECT_TRUE(pFirst->isFor(kLiteral, nFingerprint));
    EXPECT_EQ(cache.find(kLiteral, nFingerprint), pFirst);
    EXPECT_EQ(describe(*pFirst), "served |1| in |2| ms|0|");
    // The same text given without its fingerprint is compared and found as well.
    EXPECT_EQ(cache.find(kLiteral), pFirst);
}

TEST(Utf8TemplateCacheTest, ATrustedFingerprintIsTakenWithoutComparingTheText) {
    // What a literal's fingerprint buys: the text is not compared again. Shown here by breaking
    // the rule that a literal never changes: rewritten in place under its first fingerprint, the
    // text is still taken for the first one, as GDLiteralText documents.
    std::wstring text = L"old %1 text";
    const std::uint64_t nFingerprint = GDLiteralText::fingerprintOf(text);
    Utf8TemplateCache cache;
    const Utf8Template* pFirst = cache.find(text, nFingerprint);
    ASSERT_NE(pFirst, nullptr);
    text[5] = L'2';
    EXPECT_TRUE(pFirst->isFor(text, nFingerprint));
    EXPECT_EQ(describe(*cache.find(text, nFingerprint)), "old |1| text|0|");
    // Without the fingerprint the text is compared, and the change is seen.
    EXPECT_FALSE(pFirst->isFor(text));
    EXPECT_EQ(describe(*cache.find(text)), "old |2| text|0|");
}

TEST(Utf8TemplateCacheTest, AnotherLiteralAtTheSameAddressIsCompiledAgain) {
    // A library unloaded and another loaded in its place: same address and length, other text,
    // and so another fingerprint.
    std::wstring text = L"old %1 text";
    Utf8TemplateCache cache;
    ASSERT_NE(cache.find(text, GDLiteralText::fingerprintOf(text)), nullptr);
    text[0] = L'n';
    text[5] = L'2';
    const Utf8Template* pAgain = cache.find(text, GDLiteralText::fingerprintOf(text));
    ASSERT_NE(pAgain, nullptr);
    EXPECT_EQ(describe(*pAgain), "nld |2| text|0|");
}

TEST(Utf8TemplateCacheTest, AFingerprintThatIsNotTheTextsIsNotTrusted) {
    std::wstring text = L"old %1 text";
    const std::uint64_t nWrong = GDLiteralText::fingerprintOf(L"something else");
    Utf8TemplateCache cache;
    const Utf8Template* pFirst = cache.find(text, nWrong);
    ASSERT_NE(pFirst, nullptr);
    EXPECT_EQ(describe(*pFirst), "old |1| text|0|");
    // The entry kept no fingerprint: the text is compared, and a change is seen.
    text[5] = L'2';
    EXPECT_FALSE(pFirst->isFor(text, nWrong));
    EXPECT_EQ(describe(*cache.find(text, nWrong)), "old |2| text|0|");
}

TEST(Utf8TemplateCacheTest, ManyTemplatesTakeTurnsInTheSlotsAndEachStaysRight) {
    Utf8TemplateCache cache;
    std::vector<std::wstring> vecTemplates;
    for (int i = 0; i < 40; ++i) {
        vecTemplates.push_back(L"template " + std::to_wstring(i) + L" with %1");
    }
    for (int nRound = 0; nRound < 3; ++nRound) {
        for (std::size_t i = 0; i < vecTemplates.size(); ++i) {
            const Utf8Template* pCompiled = cache.find(vecTemplates[i]);
            ASSERT_NE(pCompiled, nullptr);
            EXPECT_EQ(describe(*pCompiled), "template " + std::to_string(i) + " with |1|");
        }
    }
}

TEST(Utf8TemplateCacheTest, ATemplateTooLongToKeepIsNotFound) {
    Utf8TemplateCache cache;
    EXPECT_EQ(cache.find(std::wstring(Utf8Template::kMaxChars + 1, L'a')), nullptr);
}

}  // namespace
}  // namespace kiv::logger_details

#include "zq/webkeel/gdvalue.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

#include "support/alloc_counter.h"

namespace kiv {
namespace {

String render(const GDValue& value) {
    return value.toString();
}

class Deferred : public GDValueImpl<Deferred>, public IGDStringBufferable {
public:
    void accept(GDValueVisitor& visitor) const override { visitor.visitStringBufferable(*this); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitStringBufferable(*this, buffer, params);
    }
    Kind kind() const noexcept override { return kKindDeferred; }
    int bufferize(StringBufferBaseTemplate<wchar_t>& buffer,
                  TextMessageBase::TextType type) const override {
        buffer.append(type == TextMessageBase::kXml ? L"deferred-xml" : L"deferred");
        return 0;
    }
};

// A value too large for the variant's inline storage.
class Bulky : public GDValueImpl<Bulky> {
public:
    void accept(GDValueVisitor& visitor) const override { visitor.visitUInteger64(m_arrData[0]); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitUInteger64(m_arrData[0], buffer, params);
    }
    Kind kind() const noexcept override { return kKindNumber; }
    std::uint64_t m_arrData[40] = {7};
};

TEST(GDValueTest, StringsAndNumbersRenderTheirText) {
    EXPECT_TRUE(render(GDString(L"text")).equals(L"text"));
    const String owner(L"caller text");
    EXPECT_TRUE(render(GDStringRef(owner)).equals(L"caller text"));
    EXPECT_TRUE(render(GDUInteger64(18446744073709551615ULL)).equals(L"18446744073709551615"));
    EXPECT_TRUE(render(GDInteger64(-42)).equals(L"-42"));
    EXPECT_TRUE(render(GDStringRef(static_cast<const wchar_t*>(nullptr))).empty());
}

TEST(GDValueTest, StringsHandTheirTextOutAsItStandsAndOtherValuesDoNot) {
    std::wstring_view text;
    const GDString str(String(L"a\0b", 3));
    ASSERT_TRUE(str.readyText(text));
    EXPECT_EQ(text, std::wstring_view(L"a\0b", 3));
    EXPECT_EQ(text.data(), str.getString().data());
    const String owner(L"caller text");
    const GDStringRef ref(owner);
    ASSERT_TRUE(ref.readyText(text));
    EXPECT_EQ(text.data(), owner.data());
    EXPECT_EQ(text.size(), owner.size());
    // Everything else has to be formatted.
    EXPECT_FALSE(GDUInteger64(7).readyText(text));
    EXPECT_FALSE(GDInteger64(-7).readyText(text));
    EXPECT_FALSE(GDUtf8StringRef("x").readyText(text));
    EXPECT_FALSE(GDValueRef(&str).readyText(text));
    // None of the foundation's values keeps a UTF-8 form.
    std::string_view bytes;
    EXPECT_FALSE(str.readyUtf8(bytes));
    EXPECT_FALSE(ref.readyUtf8(bytes));
    EXPECT_FALSE(GDUtf8StringRef("x").readyUtf8(bytes));
    EXPECT_FALSE(GDUInteger64(7).readyUtf8(bytes));
}

TEST(GDValueTest, ALiteralIsAStringThatCarriesItsFingerprint) {
    static constexpr std::wstring_view kText = L"request %1 done";
    constexpr std::uint64_t nFingerprint = GDLiteralText::fingerprintOf(kText);
    static_assert(nFingerprint != 0);
    static_assert(nFingerprint != GDLiteralText::fingerprintOf(L"request %2 done"));
    static_assert(GDLiteralText::fingerprintOf(L"") != 0);
    const GDLiteralText literal(kText, nFingerprint);
    EXPECT_EQ(literal.kind(), GDValue::kKindString);
    EXPECT_EQ(literal.toString(), String(L"request %1 done"));
    std::wstring_view text;
    ASSERT_TRUE(literal.readyText(text));
    EXPECT_EQ(text.data(), kText.data());
    std::uint64_t nGiven = 0;
    ASSERT_TRUE(literal.readyTemplateText(text, nGiven));
    EXPECT_EQ(text.data(), kText.data());
    EXPECT_EQ(text.size(), kText.size());
    EXPECT_EQ(nGiven, nFingerprint);
    // A copy is the same literal.
    const std::unique_ptr<GDValue> pCopy(literal.clone());
    ASSERT_TRUE(pCopy->readyTemplateText(text, nGiven));
    EXPECT_EQ(text.data(), kText.data());
    EXPECT_EQ(nGiven, nFingerprint);
}

TEST(GDValueTest, OtherStringsGiveTheirTemplateTextWithoutAFingerprint) {
    std::wstring_view text;
    std::uint64_t nGiven = 7;
    const GDString str(String(L"owned %1"));
    ASSERT_TRUE(str.readyTemplateText(text, nGiven));
    EXPECT_EQ(text.data(), str.getString().data());
    EXPECT_EQ(nGiven, 0U);
    const String owner(L"caller %1");
    nGiven = 7;
    ASSERT_TRUE(GDStringRef(owner).readyTemplateText(text, nGiven));
    EXPECT_EQ(text.data(), owner.data());
    EXPECT_EQ(nGiven, 0U);
    nGiven = 7;
    EXPECT_FALSE(GDUInteger64(7).readyTemplateText(text, nGiven));
    EXPECT_EQ(nGiven, 0U);
    EXPECT_FALSE(GDUtf8StringRef("x").readyTemplateText(text, nGiven));
}

TEST(GDValueTest, StringRefDoesNotCopyTheText) {
    const String owner(L"abc");
    const GDStringRef ref(owner);
    EXPECT_EQ(ref.view().data(), owner.data());
}

TEST(GDValueTest, KindTestsSeeThroughReferences) {
    const GDString text(L"x");
    const GDUInteger64 number(5);
    const GDArray array;
    EXPECT_TRUE(text.isString());
    EXPECT_FALSE(text.isNumber());
    EXPECT_TRUE(number.isNumber());
    EXPECT_TRUE(GDValueRef(&text).isString());
    EXPECT_TRUE(GDValueRef(&number).isNumber());
    const GDValueRef refToRef(&text);
    EXPECT_TRUE(GDValueRef(&refToRef).isString());
    EXPECT_FALSE(GDValueRef(nullptr).isString());
    EXPECT_FALSE(GDValueRef(nullptr).isNumber());
    EXPECT_FALSE(array.isString());
    EXPECT_FALSE(Deferred().isString());
    EXPECT_TRUE(render(GDValueRef(&text)).equals(L"x"));
    EXPECT_TRUE(render(GDValueRef(nullptr)).empty());
}

TEST(GDValueTest, ArrayRendersConcatenationOfElements) {
    GDArray array;
    array.append(GDString(L"a")).append(GDUInteger64(1)).append(GDString(L"b"));
    GDArray nested;
    nested.append(array).append(GDString(L"!"));
    EXPECT_EQ(array.size(), 3u);
    EXPECT_TRUE(render(array).equals(L"a1b"));
    EXPECT_TRUE(render(nested).equals(L"a1b!"));
    EXPECT_TRUE(render(GDArray()).empty());
}

TEST(GDValueTest, DeferredValueWritesItselfWithTheTextType) {
    const Deferred deferred;
    EXPECT_TRUE(render(deferred).equals(L"deferred"));
    StringBufferTemplate<64, wchar_t> buffer;
    MessageFormatter::getDefault().FormatBuffer(buffer, deferred, TextMessageBase::kXml);
    EXPECT_EQ(buffer.view(), L"deferred-xml");
}

TEST(GDValueTest, PlacementCloneBuildsOnlyWhenItFits) {
    alignas(std::max_align_t) unsigned char arrMemory[256];
    const GDUInteger64 number(9);
    EXPECT_EQ(number.placementClone(arrMemory, 4), 0u);
    const unsigned nSize = number.placementClone(arrMemory, sizeof(arrMemory));
    EXPECT_EQ(nSize, sizeof(GDUInteger64));
    auto* pCopy = std::launder(reinterpret_cast<GDValue*>(arrMemory));
    EXPECT_TRUE(render(*pCopy).equals(L"9"));
    pCopy->~GDValue();
}

TEST(GDValueTest, VariantKeepsSmallValuesInlineAndLargeOnesOnHeap) {
    GDVariant small{GDString(L"userId")};
    EXPECT_TRUE(small.isInline());
    GDVariant large{Bulky()};
    EXPECT_FALSE(large.isInline());
    EXPECT_TRUE(render(*large).equals(L"7"));
    GDVariant copy(small);
    EXPECT_TRUE(render(*copy).equals(L"userId"));
    GDVariant moved(std::move(large));
    EXPECT_TRUE(large.empty());
    EXPECT_TRUE(render(*moved).equals(L"7"));
    copy = moved;
    EXPECT_FALSE(copy.isInline());
    copy.reset();
    EXPECT_TRUE(copy.empty());
    EXPECT_EQ(copy.get(), nullptr);
}

TEST(GDValueTest, CopyingSmallValueIntoVariantDoesNotAllocate) {
    const String owner(L"request-42");
    const GDStringRef ref(owner);
    const GDUInteger64 number(12);
    test::AllocationScope scope;
    GDVariant a{ref};
    GDVariant b{number};
    GDVariant c{a};
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_TRUE(render(*c).equals(L"request-42"));
}

class KindRecorder : public GDValueVisitor {
public:
    void visitString(std::wstring_view) override { m_str += L"s"; }
    void visitUInteger64(std::uint64_t) override { m_str += L"u"; }
    void visitInteger64(std::int64_t) override { m_str += L"i"; }
    void visitArray(const GDArray&) override { m_str += L"a"; }
    void visitReference(const GDValue*) override { m_str += L"r"; }
    void visitStringBufferable(const IGDStringBufferable&) override { m_str += L"d"; }
    String m_str;
};

TEST(GDValueTest, VisitorSeesEachKind) {
    KindRecorder recorder;
    const GDString text(L"x");
    for (const GDValue* p : std::initializer_list<const GDValue*>{
             &text, new GDUInteger64(1), new GDInteger64(-1), new GDArray(), new GDValueRef(&text),
             new Deferred()}) {
        p->accept(recorder);
        if (p != &text) {
            delete p;
        }
    }
    EXPECT_TRUE(recorder.m_str.equals(L"suiard"));
}

TEST(GDValueTest, FormattingIntoReusedBufferDoesNotAllocate) {
    const GDString text(L"value");
    GDArray array;
    array.append(GDString(L"a")).append(GDUInteger64(77));
    StringBufferTemplate<511, wchar_t> buffer;
    test::AllocationScope scope;
    for (int i = 0; i < 100; ++i) {
        buffer.clear();
        MessageFormatter::getDefault().FormatBuffer(buffer, text);
        MessageFormatter::getDefault().FormatBuffer(buffer, array);
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(buffer.view(), L"valuea77");
}

TEST(GDValueTest, FloatShowsTheShortestTextThatReadsBack) {
    EXPECT_TRUE(render(GDFloat(12.5)).equals(L"12.5"));
    EXPECT_TRUE(render(GDFloat(0.1)).equals(L"0.1"));
    EXPECT_TRUE(render(GDFloat(0.1f)).equals(L"0.1"));
    EXPECT_TRUE(render(GDFloat(-3.0)).equals(L"-3"));
    EXPECT_TRUE(render(GDFloat(1e20)).equals(L"1e+20"));
    EXPECT_TRUE(render(GDFloat(-2.2250738585072014e-308)).equals(L"-2.2250738585072014e-308"));
    EXPECT_TRUE(render(GDFloat(-std::numeric_limits<double>::infinity())).equals(L"-inf"));
    EXPECT_TRUE(render(GDFloat(std::numeric_limits<double>::quiet_NaN())).equals(L"nan"));
    EXPECT_TRUE(GDFloat(1.5).isNumber());
    EXPECT_FALSE(GDFloat(1.5).isString());
}

TEST(GDValueTest, FloatCopyInAVariantOwnsItsTextWithoutAllocating) {
    GDVariant copy;
    test::AllocationScope scope;
    {
        const GDFloat number(6.25);
        copy.set(number);
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_TRUE(copy.isInline());
    EXPECT_TRUE(render(*copy).equals(L"6.25"));
}

TEST(GDValueTest, Utf8RefDecodesTheCallersTextWhenRendered) {
    const std::string owner = "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80";  // grüß € 😀
    const GDUtf8StringRef ref(owner);
    EXPECT_EQ(ref.view().data(), owner.data());
    EXPECT_TRUE(render(ref).equals(L"gr\u00FC\u00DF \u20AC \U0001F600"));
    EXPECT_TRUE(render(GDUtf8StringRef("plain")).equals(L"plain"));
    EXPECT_TRUE(render(GDUtf8StringRef(static_cast<const char*>(nullptr))).empty());
    EXPECT_TRUE(render(GDUtf8StringRef(std::string_view("a\xFF"
                                                        "b",
                                                        3)))
                    .equals(L"a\uFFFDb"));
    EXPECT_TRUE(render(GDUtf8StringRef(std::string_view("ab\0c", 4))).equals(String(L"ab\0c", 4)));
}

TEST(GDValueTest, Utf8RefOffersItsBytesToAVisitorThatTakesThem) {
    struct BytesTaker : GDValueVisitor {
        std::string_view m_bytes;
        const IGDStringBufferable* m_pValue = nullptr;
        void visitUtf8Text(std::string_view bytes, const IGDStringBufferable& value) override {
            m_bytes = bytes;
            m_pValue = &value;
        }
    };
    const std::string owner = "caf\xC3\xA9";
    const GDUtf8StringRef ref(owner);
    BytesTaker taker;
    ref.accept(taker);
    EXPECT_EQ(taker.m_bytes.data(), owner.data());
    EXPECT_EQ(taker.m_bytes.size(), 5u);
    EXPECT_EQ(taker.m_pValue, static_cast<const IGDStringBufferable*>(&ref));
}

TEST(GDValueTest, Utf8RefIsADeferredValueForEveryVisitor) {
    const GDUtf8StringRef ref("x");
    EXPECT_EQ(ref.kind(), GDValue::kKindDeferred);
    EXPECT_FALSE(ref.isString());
    KindRecorder recorder;
    ref.accept(recorder);
    EXPECT_TRUE(recorder.m_str.equals(L"d"));
    StringBufferTemplate<16, wchar_t> buffer;
    MessageFormatter::getDefault().FormatBuffer(buffer, ref, TextMessageBase::kXml);
    EXPECT_EQ(buffer.view(), L"x");
}

TEST(GDValueTest, RenderingUtf8RefIntoReusedBufferDoesNotAllocate) {
    const std::string owner(300, 'n');
    const GDUtf8StringRef ref(owner);
    StringBufferTemplate<511, wchar_t> buffer;
    GDVariant copy;
    test::AllocationScope scope;
    copy.set(ref);
    for (int i = 0; i < 100; ++i) {
        buffer.clear();
        MessageFormatter::getDefault().FormatBuffer(buffer, *copy);
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(buffer.view(), std::wstring(300, L'n'));
}

}  // namespace
}  // namespace kiv

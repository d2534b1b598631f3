#include "zq/webkeel/exception.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace kiv {
namespace {

class DerivedException : public Exception {
public:
    explicit DerivedException(const wchar_t* psz) : Exception(GDString(psz)) {}
    ZQ_EXCEPTION_COMMON(DerivedException)
};

TEST(ExceptionTest, CarriesMessageAndRendersWhat) {
    const Exception e(GDString(L"disk \u00FC full"));
    EXPECT_STREQ(e.what(), "disk \xC3\xBC full");
    EXPECT_TRUE(e.getMsg().toString().equals(L"disk \u00FC full"));
    EXPECT_STREQ(e.getFile(), "");
    EXPECT_EQ(e.getLine(), 0u);
    EXPECT_EQ(e.getSeverity(), Exception::kSeverityNotSet);
}

TEST(ExceptionTest, SeverityValuesAreFixed) {
    EXPECT_EQ(Exception::kSeverityUser, 0);
    EXPECT_EQ(Exception::kSeverityNotSet, 1);
    EXPECT_EQ(Exception::kSeverityNormal, 2);
    EXPECT_EQ(Exception::kSeverityCritical, 3);
    EXPECT_EQ(Exception::kSeverityUnknown, 4);
    EXPECT_EQ(Exception::kSeverityFatal, 5);
    EXPECT_EQ(Exception::kSeverityCorruption, 6);
}

TEST(ExceptionTest, PreThrowRecordsFileLineAndStack) {
    unsigned nLine = 0;
    try {
        nLine = __LINE__ + 1;
        ZQ_THROW(DerivedException(L"bad"));
    } catch (const DerivedException& e) {
        EXPECT_NE(std::string(e.getFile()).find("exception_test.cpp"), std::string::npos);
        EXPECT_EQ(e.getLine(), nLine);
        EXPECT_FALSE(e.getStackTrace().empty());
    }
    try {
        preThrow(Exception(GDString(L"x")), "./project/weblogger/xmlconfigreader", 77);
    } catch (const Exception& e) {
        EXPECT_STREQ(e.getFile(), "./project/weblogger/xmlconfigreader");
        EXPECT_EQ(e.getLine(), 77u);
    }
}

TEST(ExceptionTest, LinkedExceptionsFlattenDepthFirstInLinkingOrder) {
    Exception root(GDString(L"root"));
    Exception cause(GDString(L"cause"));
    cause.linkException(Exception(GDString(L"inner")));
    root.linkException(cause);
    root.linkException(DerivedException(L"second"));
    const auto vecFlat = root.getFlattenedListOfLinkedExceptions();
    ASSERT_EQ(vecFlat.size(), 3u);
    EXPECT_STREQ(vecFlat[0]->what(), "cause");
    EXPECT_STREQ(vecFlat[1]->what(), "inner");
    EXPECT_STREQ(vecFlat[2]->what(), "second");
    // Links keep their dynamic type.
    EXPECT_NE(dynamic_cast<const DerivedException*>(vecFlat[2]), nullptr);
    EXPECT_TRUE(Exception(GDString(L"alone")).getFlattenedListOfLinkedExceptions().empty());
}

TEST(ExceptionTest, CopiesAreDeepAndRethrowKeepsType) {
    Exception original(GDString(L"a"), Exception::kSeverityFatal);
    original.linkException(Exception(GDString(L"b")));
    Exception copy = original;
    original = Exception(GDString(L"changed"));
    EXPECT_STREQ(copy.what(), "a");
    EXPECT_EQ(copy.getSeverity(), Exception::kSeverityFatal);
    ASSERT_EQ(copy.getLinkedExceptions().size(), 1u);
    EXPECT_STREQ(copy.getLinkedExceptions()[0]->what(), "b");
    const Exception& base = DerivedException(L"typed");
    EXPECT_THROW(base.rethrow(), DerivedException);
}

TEST(ExceptionTest, StandardExceptionWrapperNamesTypeAndText) {
    const StdException wrapped{std::runtime_error("boom")};
    EXPECT_STREQ(wrapped.what(), "std::runtime_error: boom");
}

TEST(ExceptionTest, ReadableTypeNameDropsLibraryNamespaces) {
    EXPECT_TRUE(readableTypeName(typeid(Exception)).equals(L"Exception"));
    EXPECT_TRUE(readableTypeName(typeid(StringBufferBaseTemplate<wchar_t>))
                    .equals(L"StringBufferBaseTemplate<wchar_t>"));
}

}  // namespace
}  // namespace kiv

#include "zq/webkeel/handle.h"

#include <gtest/gtest.h>

#include "zq/webkeel/exception.h"

namespace kiv {

struct Widget : RefCountedBaseTemplate<MemAllocNewdel> {
    explicit Widget(int* pDestroyed) : m_pDestroyed(pDestroyed) {}
    ~Widget() override { ++*m_pDestroyed; }
    int* m_pDestroyed;
};

struct SpecialWidget : Widget {
    using Widget::Widget;
};

template <class T>
struct Box : RefCountedBaseTemplate<MemAllocNewdel> {};

struct Filter : RefCountedNonVirtualBase {
    explicit Filter(int* pDestroyed) : m_pDestroyed(pDestroyed) {}
    ~Filter() { ++*m_pDestroyed; }
    int* m_pDestroyed;
};

namespace {

TEST(HandleTest, CountStartsAtZeroAndLastReleaseDeletes) {
    int nDestroyed = 0;
    Widget* pWidget = new Widget(&nDestroyed);
    EXPECT_EQ(pWidget->refCount(), 0);
    {
        Handle<Widget> hFirst(pWidget);
        EXPECT_EQ(pWidget->refCount(), 1);
        Handle<Widget> hSecond = hFirst;
        EXPECT_EQ(pWidget->refCount(), 2);
        Handle<Widget> hMoved = std::move(hSecond);
        EXPECT_TRUE(hSecond.isNull());
        EXPECT_EQ(pWidget->refCount(), 2);
        hFirst.reset();
        EXPECT_EQ(nDestroyed, 0);
    }
    EXPECT_EQ(nDestroyed, 1);
}

TEST(HandleTest, ConvertsToBaseAndConstHandles) {
    int nDestroyed = 0;
    Handle<SpecialWidget> hSpecial(new SpecialWidget(&nDestroyed));
    Handle<Widget> hBase = hSpecial;
    Handle<const Widget> hConst = hBase;
    EXPECT_EQ(hConst->refCount(), 3);
    hSpecial.reset();
    hBase.reset();
    EXPECT_EQ(nDestroyed, 0);
    hConst.reset();
    EXPECT_EQ(nDestroyed, 1);
}

TEST(HandleTest, NonVirtualBaseDeletesThroughExactType) {
    int nDestroyed = 0;
    {
        Handle<const Filter> hFilter(new Filter(&nDestroyed));
        Handle<const Filter> hCopy = hFilter;
        EXPECT_EQ(hCopy->refCount(), 2);
    }
    EXPECT_EQ(nDestroyed, 1);
}

TEST(HandleTest, DereferencingEmptyHandleThrowsNamingThePointeeType) {
    Handle<Widget> hEmpty;
    try {
        hEmpty->refCount();
        FAIL() << "no exception";
    } catch (const InvalidHandleException& e) {
        EXPECT_TRUE(e.getTypeName().equals(L"Widget"));
        EXPECT_STREQ(e.what(), "Invalid handle: Widget");
        EXPECT_NE(std::string(e.getFile()).find("exception.cpp"), std::string::npos);
    }
    Handle<const Box<Widget>> hBox;
    try {
        (void)*hBox;
        FAIL() << "no exception";
    } catch (const InvalidHandleException& e) {
        EXPECT_TRUE(e.getTypeName().equals(L"Box<Widget>"));
    }
}

TEST(HandleTest, AssignmentFromRawPointerAndSelfAssignment) {
    int nDestroyed = 0;
    Handle<Widget> h;
    h = new Widget(&nDestroyed);
    Handle<Widget>& hSame = h;
    h = hSame;
    EXPECT_EQ(h->refCount(), 1);
    h = new Widget(&nDestroyed);
    EXPECT_EQ(nDestroyed, 1);
    h = nullptr;
    EXPECT_EQ(nDestroyed, 2);
    EXPECT_TRUE(h == nullptr);
}

}  // namespace
}  // namespace kiv

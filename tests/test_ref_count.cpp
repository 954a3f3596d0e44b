#include "test_support.h"

namespace {

template <class Policy>
struct Counted : CRefCountBase<Policy> {
    explicit Counted(int* aDestroyed) : destroyed(aDestroyed) {}
    ~Counted() override { ++*destroyed; }
    int* destroyed;
    CRefCountAutoPtr<Counted> inner;
};

template <class Policy>
class RefCountPolicy : public testing::Test {};
using Policies = testing::Types<CReferOperatSing, CReferOperatMulti>;
TYPED_TEST_SUITE(RefCountPolicy, Policies);

TYPED_TEST(RefCountPolicy, CountsAndSmartPointerDestroyExactlyOnce) {
    using T = Counted<TypeParam>;
    int destroyedA = 0, destroyedB = 0;
    T* a = new T(&destroyedA);
    EXPECT_EQ(0, a->GetReferCount());
    EXPECT_EQ(1, a->AddReferCount());
    {
        CRefCountAutoPtr<T> p(a);  // 2
        p = a;                     // same pointer: no change
        EXPECT_EQ(2, a->GetReferCount());
        EXPECT_EQ(1, a->ReleaseReferCount());

        T* b = new T(&destroyedB);
        CRefCountAutoPtr<T> q(b);
        CRefCountAutoPtr<T> copy(q);  // a copy is one more owner
        EXPECT_EQ(2, b->GetReferCount());
        q = p;
        EXPECT_EQ(2, a->GetReferCount());
        copy = nullptr;  // the last owner of b lets go
        EXPECT_EQ(1, destroyedB);
        EXPECT_EQ(0, destroyedA);
    }
    EXPECT_EQ(1, destroyedA);

    // The new object is reachable only through the old one, so it must gain its
    // reference before the old one goes (ASan would catch the wrong order).
    int destroyedOuter = 0, destroyedInner = 0;
    T* outer = new T(&destroyedOuter);
    T* inner = new T(&destroyedInner);
    outer->inner = inner;
    CRefCountAutoPtr<T> p(outer);
    p = inner;
    EXPECT_EQ(1, destroyedOuter);
    EXPECT_EQ(1, inner->GetReferCount());
    CRefCountAutoPtr<T> none;
    p = none;
    EXPECT_EQ(1, destroyedInner);
    EXPECT_EQ(nullptr, p.GetPtr());

    struct Recycled : CRefCountBase<TypeParam> {
        void DestroyThis() override { ++recycled; }  // replaces the deletion
        int recycled = 0;
    } obj;
    obj.AddReferCount();
    EXPECT_EQ(0, obj.ReleaseReferCount());
    EXPECT_EQ(1, obj.recycled);
}

TEST(RefCount, SharedCounterReachesZeroOnceAcrossThreads) {
    int destroyed = 0;
    auto* obj = new Counted<CReferOperatMulti>(&destroyed);
    obj->AddReferCount();
    RunThreads(4, [obj](int) {
        for (int i = 0; i < 10000; ++i) {
            CRefCountAutoPtr<Counted<CReferOperatMulti>> p(obj), q;
            q = p;
        }
    });
    EXPECT_EQ(1, obj->GetReferCount());
    EXPECT_EQ(0, obj->ReleaseReferCount());
    EXPECT_EQ(1, destroyed);
}

}  // namespace

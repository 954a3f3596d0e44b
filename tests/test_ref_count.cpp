// Both counting policies and the smart pointer. The shared policy under threads is
// exercised by test_message_block, whose blocks are counted with it.
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
    EXPECT_EQ(1, a->AddReferCount());
    {
        CRefCountAutoPtr<T> p(a);  // 2
        p = a;                     // same pointer: no change
        EXPECT_EQ(2, a->GetReferCount());
        EXPECT_EQ(1, a->ReleaseReferCount());

        CRefCountAutoPtr<T> q(new T(&destroyedB));
        CRefCountAutoPtr<T> copy(q);  // a copy is one more owner
        EXPECT_EQ(2, q->GetReferCount());
        q = p;
        EXPECT_EQ(2, a->GetReferCount());
        copy = nullptr;  // the last owner of the second object lets go
        EXPECT_EQ(1, destroyedB);
        EXPECT_EQ(0, destroyedA);
    }
    EXPECT_EQ(1, destroyedA);

    // The new object lives only through the old one: it must gain its reference first.
    int destroyedOuter = 0, destroyedInner = 0;
    CRefCountAutoPtr<T> p(new T(&destroyedOuter));
    p->inner = new T(&destroyedInner);
    p = p->inner;
    EXPECT_EQ(1, destroyedOuter);
    EXPECT_EQ(1, p->GetReferCount());
    p = nullptr;
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

}  // namespace

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "ComRefCount.h"

namespace {

template <class Policy>
class Counted : public CRefCountBase<Policy> {
public:
    explicit Counted(int* aDestroyed) : m_destroyed(aDestroyed) {}
    ~Counted() override { ++*m_destroyed; }

private:
    int* m_destroyed;
};

// Gives its memory back in its own way instead of being deleted.
class Recycled : public CRefCountBase<CReferOperatMulti> {
public:
    void DestroyThis() override { ++recycled; }
    int recycled = 0;
};

template <class Policy>
class RefCountTest : public testing::Test {};
using Policies = testing::Types<CReferOperatSing, CReferOperatMulti>;
TYPED_TEST_SUITE(RefCountTest, Policies);

TYPED_TEST(RefCountTest, ReleaseToZeroDestroysExactlyOnce) {
    int destroyed = 0;
    auto* obj = new Counted<TypeParam>(&destroyed);
    EXPECT_EQ(0, obj->GetReferCount());
    EXPECT_EQ(1, obj->AddReferCount());
    EXPECT_EQ(2, obj->AddReferCount());
    EXPECT_EQ(1, obj->ReleaseReferCount());
    EXPECT_EQ(0, destroyed);
    EXPECT_EQ(0, obj->ReleaseReferCount());
    EXPECT_EQ(1, destroyed);
}

TYPED_TEST(RefCountTest, AutoPtrTakesAndDropsReferences) {
    int destroyedA = 0, destroyedB = 0;
    auto* a = new Counted<TypeParam>(&destroyedA);
    auto* b = new Counted<TypeParam>(&destroyedB);
    {
        CRefCountAutoPtr<Counted<TypeParam>> empty;
        EXPECT_EQ(nullptr, empty.GetPtr());

        CRefCountAutoPtr<Counted<TypeParam>> p(a);
        EXPECT_EQ(1, a->GetReferCount());
        p = a;  // same pointer: no count changes
        EXPECT_EQ(1, a->GetReferCount());
        EXPECT_EQ(a, p.operator->());

        CRefCountAutoPtr<Counted<TypeParam>> q(b);
        CRefCountAutoPtr<Counted<TypeParam>> copy(q);  // a copy is one more owner
        EXPECT_EQ(2, b->GetReferCount());
        q = p;  // b keeps copy's reference, a gains one
        EXPECT_EQ(2, a->GetReferCount());
        EXPECT_EQ(1, b->GetReferCount());
        copy = nullptr;  // last owner of b lets go
        EXPECT_EQ(1, destroyedB);
        EXPECT_EQ(nullptr, copy.GetPtr());
        EXPECT_EQ(0, destroyedA);
    }
    EXPECT_EQ(1, destroyedA);
    EXPECT_EQ(1, destroyedB);
}

TEST(RefCount, AssignKeepsNewObjectAliveWhenOnlyTheOldOneHeldIt) {
    // The new object is reachable only through the old one: it must gain its
    // reference before the old one (and with it the only other owner) goes.
    struct Holder : CRefCountBase<CReferOperatSing> {
        CRefCountAutoPtr<Holder> inner;
    };
    auto* outer = new Holder;
    Holder* inner = new Holder;
    outer->inner = inner;
    CRefCountAutoPtr<Holder> p(outer);
    p = inner;  // releases outer, which drops its reference to inner
    EXPECT_EQ(1, inner->GetReferCount());
    p = nullptr;  // ASan reports a use after free if the order were wrong
}

TEST(RefCount, DestroyThisOverrideReplacesDeletion) {
    Recycled obj;
    obj.AddReferCount();
    EXPECT_EQ(0, obj.ReleaseReferCount());
    EXPECT_EQ(1, obj.recycled);
}

TEST(RefCount, SharedCounterReachesZeroOnceAcrossThreads) {
    int destroyed = 0;
    auto* obj = new Counted<CReferOperatMulti>(&destroyed);
    const int kThreads = 4, kPerThread = 10000;
    obj->AddReferCount();  // keeps it alive while the threads churn
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([obj] {
            for (int i = 0; i < kPerThread; ++i) {
                CRefCountAutoPtr<Counted<CReferOperatMulti>> p(obj);
                CRefCountAutoPtr<Counted<CReferOperatMulti>> q;
                q = p;
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(1, obj->GetReferCount());
    EXPECT_EQ(0, destroyed);
    EXPECT_EQ(0, obj->ReleaseReferCount());
    EXPECT_EQ(1, destroyed);
}

}  // namespace

#include "orbel/PtrInterface.h"

#include <gtest/gtest.h>

namespace {

class Counted : public Orbel::PtrInterface {
public:
    explicit Counted(int v, int* destroyed = nullptr) : value(v), destroyed_(destroyed) {}
    int value;

protected:
    ~Counted() override {
        if (destroyed_) ++*destroyed_;
    }

private:
    int* destroyed_;
};

class Derived : public Counted {
public:
    using Counted::Counted;

protected:
    ~Derived() override = default;
};

} // namespace

TEST(Ptr, LastReferenceFreesObject) {
    auto before = Orbel::PtrInterface::liveInstances();
    int destroyed = 0;
    {
        Orbel::Ptr<Counted> a = new Counted(1, &destroyed);
        EXPECT_EQ(a->references(), 1u);
        {
            Orbel::Ptr<Counted const> b = a;
            EXPECT_EQ(a->references(), 2u);
        }
        EXPECT_EQ(a->references(), 1u);
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), before + 1);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), before);
}

TEST(Ptr, MoveTransfersWithoutCounting) {
    Orbel::Ptr<Counted> a = new Counted(2);
    Orbel::Ptr<Counted> b = std::move(a);
    EXPECT_FALSE(a);
    EXPECT_EQ(b->references(), 1u);
    Orbel::Ptr<Counted> c;
    c = b;
    EXPECT_EQ(b->references(), 2u);
    c = nullptr;
    EXPECT_EQ(b->references(), 1u);
}

TEST(Ptr, SelfAssignmentKeepsObject) {
    Orbel::Ptr<Counted> a = new Counted(3);
    Orbel::Ptr<Counted>& alias = a;
    a = alias;
    ASSERT_TRUE(a);
    EXPECT_EQ(a->value, 3);
    EXPECT_EQ(a->references(), 1u);
}

TEST(Ptr, DynamicCastChecksType) {
    Orbel::Ptr<Counted> base = new Derived(4);
    Orbel::Ptr<Derived> d = Orbel::dynamicPtrCast<Derived>(base);
    ASSERT_TRUE(d);
    EXPECT_EQ(base->references(), 2u);
    Orbel::Ptr<Counted> plain = new Counted(5);
    EXPECT_FALSE(Orbel::dynamicPtrCast<Derived>(plain));
    EXPECT_FALSE(Orbel::dynamicPtrCast<Derived>(Orbel::Ptr<Counted>()));
}

TEST(Ptr, ComparesByIdentity) {
    Orbel::Ptr<Counted> a = new Counted(1), b = new Counted(1);
    Orbel::Ptr<Counted const> a2 = a;
    EXPECT_TRUE(a == a2);
    EXPECT_FALSE(a == b);
    EXPECT_TRUE(Orbel::Ptr<Counted>() == nullptr);
}

#include "orbel/Activity.h"
#include "orbel/GenericIf.h"
#include "orbel/TypeRegistry.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>
#include <vector>

namespace {

class Target : public Orbel::GenericIf {
public:
    static Orbel::Ptr<Target> make() { return new Target; }
    const Orbel::TypeDescriptor* type() const noexcept override { return Orbel::boolType(); }

private:
    Target() : Orbel::GenericIf(false) {}
};

class Recorder : public Orbel::GenericIf::Notifiee {
public:
    void onAttribute(Orbel::AttributeId id, const Orbel::Ptr<const Orbel::GenericIf>& key) override {
        events.emplace_back(id, key != nullptr);
        if (throwOnAttribute) throw std::runtime_error("generic observer failed");
    }
    void onNotificationException(Orbel::AttributeId id) override {
        exceptions.push_back(id);
        if (throwOnException) throw std::runtime_error("exception handler failed too");
    }
    std::vector<std::pair<Orbel::AttributeId, bool>> events;
    std::vector<Orbel::AttributeId> exceptions;
    bool throwOnAttribute = false;
    bool throwOnException = false;
};

// A pending activity whose own handling throws.
class FailingActivity : public Orbel::PtrInterface::NotifieeConst {
public:
    void handleNotification(Orbel::ActivityConfig*) override {
        ++runs;
        throw std::runtime_error("activity failed");
    }
    void onNotificationException(Orbel::AttributeId id) override { exceptions.push_back(id); }
    int runs = 0;
    std::vector<Orbel::AttributeId> exceptions;
};

class CountingActivity : public Orbel::PtrInterface::NotifieeConst {
public:
    void handleNotification(Orbel::ActivityConfig*) override { ++runs; }
    int runs = 0;
};

} // namespace

TEST(GenericIf, BaseAttributeOpIsNotSupported) {
    auto t = Target::make();
    try {
        t->attributeOp({77, 0}, nullptr, nullptr);
        FAIL();
    } catch (const Orbel::NotSupportedException& e) {
        EXPECT_EQ(e.name().stdString(), "attribute 77");
        EXPECT_EQ(e.op(), 0u);
    }
}

TEST(GenericIf, BoolValueIsRegistered) {
    auto b = Orbel::genericBool(true, true);
    EXPECT_TRUE(b->isConst());
    EXPECT_EQ(b->type()->name(), Orbel::String("bool"));
    EXPECT_TRUE(dynamic_cast<Orbel::GenericIf::Value_<bool>&>(*b).value());
    EXPECT_EQ(Orbel::TypeRegistry::instance().type("bool"), Orbel::boolType());
}

TEST(GenericIf, ImmediateWhenNotDeferred) {
    auto t = Target::make();
    EXPECT_FALSE(t->orbelOnAttribute(5));
    EXPECT_EQ(t->pendingAttribute(), Orbel::GenericIf::attributeNone);
}

TEST(GenericIf, DeferredMarksPendingAndCoalescesToAll) {
    auto& loop = Orbel::ActivityLoop::instance();
    loop.runPending();
    auto t = Target::make();
    Orbel::Ptr<Recorder> r = new Recorder;
    t->genericNotifieeIs(r);
    t->notificationDeferredIs(true);
    EXPECT_TRUE(t->orbelOnAttribute(258));
    EXPECT_EQ(t->pendingAttribute(), 258u);
    EXPECT_TRUE(t->orbelOnAttribute(258));
    EXPECT_EQ(t->pendingAttribute(), 258u);
    EXPECT_EQ(loop.pending(), 1u);
    loop.runPending();
    ASSERT_EQ(r->events.size(), 1u);
    EXPECT_EQ(r->events[0].first, 258u);
    EXPECT_FALSE(r->events[0].second);
    EXPECT_TRUE(t->orbelOnAttribute(258));
    EXPECT_TRUE(t->orbelOnAttribute(259));
    EXPECT_EQ(t->pendingAttribute(), Orbel::GenericIf::attributeAll);
    loop.runPending();
    EXPECT_EQ(r->events.size(), 1u); // the all-code is not told by the default handling
}

TEST(TypeRegistry, TypesInOrderWithAttributes) {
    auto& r = Orbel::TypeRegistry::instance();
    r.namespaceOpen("RegTest");
    auto& a = r.typeOpen("A");
    r.attributeIs({130, "x", "bool", Orbel::AttributeKind::nonInstantiating, 0, 2});
    r.attributeIs({131, "y", "bool", Orbel::AttributeKind::nonInstantiating, 0, 0});
    r.typeClose();
    r.typeOpen("B");
    r.typeClose();
    r.namespaceClose();
    EXPECT_EQ(a.name(), Orbel::String("RegTest::A"));
    ASSERT_EQ(a.attributes().size(), 2u);
    EXPECT_EQ(a.attribute(131)->name, Orbel::String("y"));
    EXPECT_EQ(a.attribute("x")->number, 130u);
    auto all = r.types();
    auto ia = std::find(all.begin(), all.end(), r.type("RegTest::A"));
    auto ib = std::find(all.begin(), all.end(), r.type("RegTest::B"));
    ASSERT_NE(ia, all.end());
    EXPECT_EQ(ia + 1, ib);
    EXPECT_THROW(r.typeOpen("RegTest::A"), Orbel::NameInUseException);
    r.typeClose();
    EXPECT_THROW(r.attributeIs({1, "z", "bool", Orbel::AttributeKind::full, 0, 0}), Orbel::RangeException);
    r.typeDel("RegTest::A");
    r.typeDel("RegTest::B");
    EXPECT_EQ(r.type("RegTest::A"), nullptr);
}

TEST(GenericIf, ImmediateDeliveryGoesOnPastAThrowingObserver) {
    auto t = Target::make();
    Orbel::Ptr<Recorder> first = new Recorder;
    Orbel::Ptr<Recorder> second = new Recorder;
    t->genericNotifieeIs(first);
    t->genericNotifieeIs(second);
    first->throwOnAttribute = true;
    EXPECT_NO_THROW(t->onAttribute(258));
    EXPECT_NO_THROW(t->onAttributeKey(259, Orbel::genericBool(true, true)));
    EXPECT_EQ(second->events, (std::vector<std::pair<Orbel::AttributeId, bool>>{{258, false}, {259, true}}));
    EXPECT_EQ(first->exceptions, (std::vector<Orbel::AttributeId>{258, 259}));
    EXPECT_TRUE(second->exceptions.empty());
}

TEST(GenericIf, ThrowingExceptionHandlerDoesNotStopDelivery) {
    auto t = Target::make();
    Orbel::Ptr<Recorder> first = new Recorder;
    Orbel::Ptr<Recorder> second = new Recorder;
    t->genericNotifieeIs(first);
    t->genericNotifieeIs(second);
    first->throwOnAttribute = true;
    first->throwOnException = true;
    EXPECT_NO_THROW(t->onAttribute(258));
    EXPECT_EQ(second->events.size(), 1u);
    EXPECT_EQ(first->exceptions, std::vector<Orbel::AttributeId>{258});
}

TEST(GenericIf, DeferredDeliveryGoesOnPastAThrowingObserver) {
    auto& loop = Orbel::ActivityLoop::instance();
    loop.runPending();
    auto t = Target::make();
    Orbel::Ptr<Recorder> first = new Recorder;
    Orbel::Ptr<Recorder> second = new Recorder;
    t->genericNotifieeIs(first);
    t->genericNotifieeIs(second);
    t->notificationDeferredIs(true);
    first->throwOnAttribute = true;
    t->orbelOnAttribute(258);
    const auto failures = loop.failures();
    EXPECT_NO_THROW(loop.runPending());
    EXPECT_EQ(second->events, (std::vector<std::pair<Orbel::AttributeId, bool>>{{258, false}}));
    EXPECT_EQ(first->exceptions, std::vector<Orbel::AttributeId>{258});
    EXPECT_EQ(loop.failures(), failures); // contained by the interface, not by the loop
}

TEST(ActivityLoop, FailingActivityDoesNotEscapeNorSkipTheRest) {
    auto& loop = Orbel::ActivityLoop::instance();
    loop.runPending();
    Orbel::Ptr<FailingActivity> failing = new FailingActivity;
    Orbel::Ptr<CountingActivity> after = new CountingActivity;
    loop.pendingIs(failing);
    loop.pendingIs(after);
    const auto failures = loop.failures();
    std::size_t ran = 0;
    EXPECT_NO_THROW(ran = loop.runPending());
    EXPECT_EQ(ran, 2u);
    EXPECT_EQ(failing->runs, 1);
    EXPECT_EQ(after->runs, 1);
    EXPECT_EQ(failing->exceptions, std::vector<Orbel::AttributeId>{0});
    EXPECT_EQ(loop.failures(), failures + 1);
    EXPECT_EQ(loop.pending(), 0u);
}

#include "orbel/Activity.h"
#include "orbel/Entity.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

namespace {

class Thing : public Orbel::Entity {
public:
    static Orbel::Ptr<Thing> make(const char* name) { return new Thing(name); }
    void bump() { versionInc(); }
    void zeroReferencesIs(bool zero) override {
        ++zeroCalls;
        if (onZero) onZero(this);
        (void)zero;
    }
    static inline int zeroCalls = 0;
    static inline std::function<void(Thing*)> onZero;

protected:
    explicit Thing(const char* name) : Orbel::Entity(name) {}
    ~Thing() override = default;
};

struct Node {
    int id;
    Node* next = nullptr;
};

using NodeList = Orbel::ListRaw<Node, &Node::next>;

std::vector<int> ids(const NodeList& l) {
    std::vector<int> out;
    for (Node* n = l.first(); n; n = NodeList::next(n)) out.push_back(n->id);
    return out;
}

class Scheduled : public Orbel::PtrInterface::NotifieeConst {
public:
    void handleNotification(Orbel::ActivityConfig* c) override { passes.push_back(c->pass()); }
    std::vector<std::uint64_t> passes;
};

} // namespace

TEST(Entity, NameAndVersionFromZero) {
    auto t = Thing::make("bgpd");
    EXPECT_EQ(t->name(), Orbel::String("bgpd"));
    EXPECT_EQ(t->version(), 0u);
    t->bump();
    t->bump();
    EXPECT_EQ(t->version(), 2u);
}

TEST(Entity, LastReferenceCallsZeroReferencesThenFrees) {
    auto before = Orbel::PtrInterface::liveInstances();
    Thing::zeroCalls = 0;
    Thing::onZero = nullptr;
    { auto t = Thing::make("x"); }
    EXPECT_EQ(Thing::zeroCalls, 1);
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), before);
}

TEST(Entity, ReferenceTakenDuringZeroReferencesKeepsItAlive) {
    Thing::zeroCalls = 0;
    Orbel::Ptr<Thing> rescued;
    Thing::onZero = [&](Thing* t) {
        if (!rescued) rescued = t;
    };
    { auto t = Thing::make("phoenix"); }
    ASSERT_TRUE(rescued);
    EXPECT_EQ(rescued->name(), Orbel::String("phoenix"));
    Thing::onZero = nullptr;
    rescued = nullptr;
    EXPECT_EQ(Thing::zeroCalls, 2);
}

TEST(Entity, RefStrepNamesTypeAndEntityOrNull) {
    auto t = Thing::make("bgpd");
    std::ostringstream expected;
    expected << "Ref('Test::Thing', 'bgpd', " << static_cast<const void*>(t.ptr()) << ")";
    EXPECT_EQ(Orbel::refStrep("Test::Thing", t.ptr()).stdString(), expected.str());
    EXPECT_EQ(Orbel::refStrep("Test::Thing", nullptr).stdString(), "Ref('Test::Thing', null)");
}

TEST(ListRaw, AppendsInOrderAndCounts) {
    Node a{1}, b{2}, c{3};
    NodeList l;
    l.pushBack(&a);
    l.pushBack(&b);
    l.pushBack(&c);
    EXPECT_EQ(ids(l), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(l.count(), 3u);
    EXPECT_EQ(l.modCount(), 3u);
    EXPECT_EQ(l.last(), &c);
}

TEST(ListRaw, RemovesHeadMiddleTailAndIgnoresAbsent) {
    Node a{1}, b{2}, c{3}, d{4};
    NodeList l;
    l.pushBack(&a);
    l.pushBack(&b);
    l.pushBack(&c);
    auto mod = l.modCount();
    EXPECT_FALSE(l.remove(&d));
    EXPECT_EQ(l.modCount(), mod);
    EXPECT_TRUE(l.remove(&b));
    EXPECT_EQ(ids(l), (std::vector<int>{1, 3}));
    EXPECT_TRUE(l.remove(&c));
    EXPECT_EQ(l.last(), &a);
    l.pushBack(&d);
    EXPECT_EQ(ids(l), (std::vector<int>{1, 4}));
    EXPECT_TRUE(l.remove(&a));
    EXPECT_EQ(l.first(), &d);
    EXPECT_EQ(l.count(), 1u);
}

TEST(ListRaw, ClearUnlinksEveryElement) {
    Node a{1}, b{2};
    NodeList l;
    l.pushBack(&a);
    l.pushBack(&b);
    l.clear();
    EXPECT_EQ(l.count(), 0u);
    EXPECT_EQ(l.first(), nullptr);
    EXPECT_EQ(a.next, nullptr);
}

TEST(ActivityLoop, RunsPendingOnceInOrder) {
    auto& loop = Orbel::ActivityLoop::instance();
    loop.runPending();
    Orbel::Ptr<Scheduled> a = new Scheduled, b = new Scheduled;
    int wakeups = 0;
    loop.wakeupIs([&] { ++wakeups; });
    loop.pendingIs(a);
    loop.pendingIs(b);
    loop.pendingIs(a);
    EXPECT_EQ(loop.pending(), 2u);
    EXPECT_EQ(wakeups, 1);
    EXPECT_EQ(loop.runPending(), 2u);
    EXPECT_EQ(a->passes.size(), 1u);
    EXPECT_EQ(b->passes.size(), 1u);
    EXPECT_EQ(loop.runPending(), 0u);
    loop.wakeupIs(nullptr);
}

// Tests of Orbel::RbTreeMap: differential checks against std::map, replacement on insert,
// iterator behaviour across mutations, bound lookups and reference/lifetime accounting.
#include "orbel/RbTreeMap.h"
#include "orbel/String.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// A row keyed by int with a payload that tells rows with equal keys apart.
class Row : public Orbel::PtrInterface, public Orbel::RbTreeNode<Row> {
public:
    Row(int key, int payload = 0) : key_(key), payload_(payload) {}
    const int& fwkKey() const { return key_; }
    int payload() const { return payload_; }
    // Only for provoking an order violation; keys must not change while linked.
    void corruptKey(int key) { key_ = key; }

protected:
    ~Row() override = default;

private:
    int key_;
    int payload_;
};

using Map = Orbel::RbTreeMap<Row, int>;

Orbel::Ptr<Row> makeRow(int key, int payload = 0) {
    return Orbel::Ptr<Row>(new Row(key, payload));
}

std::vector<int> keysOf(const Map& m) {
    std::vector<int> keys;
    for (Row* r = m.first(); r; r = Map::next(r)) keys.push_back(r->fwkKey());
    return keys;
}

Map* mapWith(Map& m, std::initializer_list<int> keys) {
    for (int k : keys) m.insert(makeRow(k));
    return &m;
}

// Links live in a base class shared by several row kinds.
class BaseRow : public Orbel::PtrInterface, public Orbel::RbTreeNode<BaseRow> {
public:
    explicit BaseRow(Orbel::String name) : name_(std::move(name)) {}
    const Orbel::String& fwkKey() const { return name_; }

protected:
    ~BaseRow() override = default;

private:
    Orbel::String name_;
};

class NamedRow : public BaseRow {
public:
    NamedRow(Orbel::String name, int value) : BaseRow(std::move(name)), value_(value) {}
    int value() const { return value_; }

protected:
    ~NamedRow() override = default;

private:
    int value_;
};

} // namespace

TEST(RbTreeMap, MatchesStdMapUnderRandomOperations) {
    const std::int64_t liveBefore = Orbel::PtrInterface::liveInstances();
    const std::uint32_t seed = 20240611u;
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 rng(seed);
    constexpr int keyRange = 4000;
    constexpr int operations = 120000;
    std::uniform_int_distribution<int> keyDist(-keyRange / 2, keyRange / 2);
    std::uniform_int_distribution<int> opDist(0, 99);

    {
        Map map;
        std::map<int, Orbel::Ptr<Row>> model;
        int payload = 0;
        std::uint64_t inserts = 0, replaces = 0, erasesByKey = 0, erasesByRow = 0;

        for (int i = 1; i <= operations; ++i) {
            int k = keyDist(rng);
            int op = opDist(rng);
            // Grow towards a mid-size tree, then hover around it.
            if (op < 45) {
                auto row = makeRow(k, ++payload);
                std::uint64_t mc = map.modCount();
                auto replaced = map.insert(row);
                ASSERT_GT(map.modCount(), mc);
                auto it = model.find(k);
                if (it == model.end()) {
                    ASSERT_FALSE(replaced);
                    model.emplace(k, row);
                    ++inserts;
                } else {
                    ASSERT_EQ(replaced.ptr(), it->second.ptr());
                    ASSERT_FALSE(replaced->rbInTree());
                    it->second = row;
                    ++replaces;
                }
                ASSERT_TRUE(row->rbInTree());
            } else if (op < 65) {
                auto it = model.find(k);
                std::uint64_t mc = map.modCount();
                auto erased = map.erase(k);
                if (it == model.end()) {
                    ASSERT_FALSE(erased);
                    ASSERT_EQ(map.modCount(), mc);
                } else {
                    ASSERT_EQ(erased.ptr(), it->second.ptr());
                    ASSERT_FALSE(erased->rbInTree());
                    ASSERT_GT(map.modCount(), mc);
                    model.erase(it);
                    ++erasesByKey;
                }
            } else if (op < 80) {
                auto it = model.lower_bound(k);
                if (it != model.end()) {
                    Row* target = it->second.ptr();
                    auto erased = map.erase(target);
                    ASSERT_EQ(erased.ptr(), target);
                    ASSERT_FALSE(target->rbInTree());
                    model.erase(it);
                    ++erasesByRow;
                }
            } else {
                std::uint64_t mc = map.modCount();
                auto exact = model.find(k);
                Row* expectExact = exact == model.end() ? nullptr : exact->second.ptr();
                ASSERT_EQ(map.find(k), expectExact);
                ASSERT_EQ(map[k].ptr(), expectExact);
                auto lb = model.lower_bound(k);
                Row* expectLower = lb == model.end() ? nullptr : lb->second.ptr();
                ASSERT_EQ(map.lowerBound(k), expectLower);
                ASSERT_EQ(map.findExactOrNext(k), expectLower);
                auto ub = model.upper_bound(k);
                ASSERT_EQ(map.upperBound(k), ub == model.end() ? nullptr : ub->second.ptr());
                ASSERT_EQ(map.modCount(), mc);
            }
            ASSERT_EQ(map.size(), model.size());

            // Every step while the tree is young (a broken rule is reported where it
            // happens), then periodically.
            if (i <= 2000 || i % 1000 == 0) {
                ASSERT_NO_THROW(map.checkInvariants()) << "after operation " << i;
            }
            if (i % 5000 == 0) {
                auto it = model.begin();
                for (Row* r = map.first(); r; r = Map::next(r), ++it) {
                    ASSERT_NE(it, model.end());
                    ASSERT_EQ(r, it->second.ptr());
                }
                ASSERT_EQ(it, model.end());
                auto rit = model.rbegin();
                for (Row* r = map.last(); r; r = Map::prev(r), ++rit) {
                    ASSERT_NE(rit, model.rend());
                    ASSERT_EQ(r, rit->second.ptr());
                }
                ASSERT_EQ(rit, model.rend());
            }
        }
        ASSERT_NO_THROW(map.checkInvariants());
        EXPECT_GT(inserts, 10000u);
        EXPECT_GT(replaces, 10000u);
        EXPECT_GT(erasesByKey, 5000u);
        EXPECT_GT(erasesByRow, 5000u);

        // Drain in key order through an iterator that erases behind itself.
        for (auto it = map.begin(); it;) {
            auto current = it++;
            ASSERT_EQ(map.erase(current.ptr()).ptr(), current.ptr());
        }
        EXPECT_TRUE(map.empty());
        EXPECT_NO_THROW(map.checkInvariants());
        model.clear();
    }
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), liveBefore);
}

TEST(RbTreeMap, InsertReplacesEqualKeyAndReturnsOldRow) {
    Map map;
    mapWith(map, {10, 20, 30, 40, 50});
    Row* oldRoot = map.root();
    const int rootKey = oldRoot->fwkKey();
    Orbel::Ptr<Row> held = oldRoot;

    auto newcomer = makeRow(rootKey, 7);
    auto replaced = map.insert(newcomer);
    ASSERT_EQ(replaced.ptr(), oldRoot);
    EXPECT_FALSE(replaced->rbInTree());
    EXPECT_EQ(replaced->fwkKey(), rootKey);
    EXPECT_EQ(replaced->payload(), 0);
    // held, replaced: the map's reference went to replaced.
    EXPECT_EQ(oldRoot->references(), 2u);
    EXPECT_EQ(map.size(), 5u);
    EXPECT_EQ(map.root(), newcomer.ptr()); // takes the old row's position
    EXPECT_EQ(map[rootKey].ptr(), newcomer.ptr());
    EXPECT_TRUE(newcomer->rbInTree());
    EXPECT_EQ(keysOf(map), (std::vector<int>{10, 20, 30, 40, 50}));
    EXPECT_NO_THROW(map.checkInvariants());

    // A leaf replaced as well.
    auto leaf = map.insert(makeRow(50, 9));
    ASSERT_TRUE(leaf);
    EXPECT_EQ(leaf->payload(), 0);
    EXPECT_EQ(leaf->references(), 1u);
    EXPECT_EQ(map.find(50)->payload(), 9);
    EXPECT_NO_THROW(map.checkInvariants());

    // No equal key: null.
    EXPECT_FALSE(map.insert(makeRow(60)));
    EXPECT_EQ(map.size(), 6u);
}

TEST(RbTreeMap, RejectsBrokenPreconditions) {
    Map map;
    mapWith(map, {1, 2, 3});
    Map other;
    mapWith(other, {2});
    const std::uint64_t mc = map.modCount();

    EXPECT_THROW(map.insert(Orbel::Ptr<Row>()), std::invalid_argument);
    EXPECT_THROW(map.insert(Orbel::Ptr<Row>(map.find(2))), std::invalid_argument);
    EXPECT_THROW(map.insert(Orbel::Ptr<Row>(other.find(2))), std::invalid_argument);
    EXPECT_THROW(map.erase(other.find(2)), std::invalid_argument);
    auto loose = makeRow(2);
    EXPECT_THROW(map.erase(loose.ptr()), std::invalid_argument);
    EXPECT_EQ(map.modCount(), mc);
    EXPECT_EQ(map.size(), 3u);
    EXPECT_EQ(other.size(), 1u);
    EXPECT_NO_THROW(map.checkInvariants());
}

TEST(RbTreeMap, CheckInvariantsReportsOrderViolation) {
    Map map;
    mapWith(map, {1, 2, 3, 4, 5});
    Row* r = map.find(2);
    r->corruptKey(9);
    try {
        map.checkInvariants();
        FAIL() << "expected std::logic_error";
    } catch (const std::logic_error& e) {
        EXPECT_NE(std::string(e.what()).find("increasing"), std::string::npos) << e.what();
    }
    r->corruptKey(2);
    EXPECT_NO_THROW(map.checkInvariants());
}

TEST(RbTreeMap, IteratorContinuesAfterItsRowIsErased) {
    Map map;
    mapWith(map, {10, 20, 30});
    auto it = map.iterator(map.find(20));
    Row* twenty = it.ptr();
    auto gone = map.erase(20);
    gone = nullptr;
    EXPECT_EQ(twenty->references(), 1u); // only the iterator holds it
    EXPECT_EQ(it.key(), 20);             // still readable
    EXPECT_FALSE(it->rbInTree());
    const std::int64_t live = Orbel::PtrInterface::liveInstances();
    ++it;
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), live - 1); // the erased row died
    ASSERT_FALSE(it.isEnd());
    EXPECT_EQ(it.key(), 30);
    EXPECT_EQ(it.modCount(), map.modCount());
    ++it;
    EXPECT_TRUE(it.isEnd());
}

TEST(RbTreeMap, IteratorSkipsToStrictlyGreaterKeyWhenItsKeyIsReinserted) {
    Map map;
    mapWith(map, {10, 20, 30});
    auto it = map.iterator(map.find(20));
    map.erase(20);
    map.insert(makeRow(20, 1));
    ++it;
    ASSERT_TRUE(it);
    EXPECT_EQ(it.key(), 30);

    // Replacement of the iterator's row behaves the same way.
    auto it2 = map.iterator(map.find(10));
    auto replaced = map.insert(makeRow(10, 2));
    ASSERT_EQ(replaced.ptr(), it2.ptr());
    ++it2;
    EXPECT_EQ(it2.key(), 20);
}

TEST(RbTreeMap, IteratorSeesOtherRowsErasedAndInsertedAhead) {
    Map map;
    mapWith(map, {10, 20, 30, 40});
    auto it = map.begin();
    ASSERT_EQ(it.key(), 10);
    map.erase(20);
    ++it;
    EXPECT_EQ(it.key(), 30);
    map.insert(makeRow(35));
    map.insert(makeRow(5)); // behind: not visited
    ++it;
    EXPECT_EQ(it.key(), 35);
    ++it;
    EXPECT_EQ(it.key(), 40);
    ++it;
    EXPECT_TRUE(it.isEnd());
}

TEST(RbTreeMap, IteratorGoesToEndWhenMapIsCleared) {
    const std::int64_t liveBefore = Orbel::PtrInterface::liveInstances();
    {
        Map map;
        mapWith(map, {1, 2, 3});
        auto it = map.begin();
        std::uint64_t mc = map.modCount();
        map.clear();
        EXPECT_GT(map.modCount(), mc);
        EXPECT_TRUE(map.empty());
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), liveBefore + 1); // the iterator's row
        EXPECT_EQ(it.key(), 1);
        EXPECT_FALSE(it->rbInTree());
        ++it;
        EXPECT_TRUE(it.isEnd());
        EXPECT_EQ(it, map.end());
    }
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), liveBefore);
}

TEST(RbTreeMap, IteratorAtEndStaysAtEnd) {
    Map map;
    EXPECT_TRUE(map.begin().isEnd());
    EXPECT_EQ(map.begin(), map.end());
    Map::Iterator detached;
    EXPECT_TRUE(detached.isEnd());
    EXPECT_FALSE(detached);
    EXPECT_EQ(detached.map(), nullptr);
    ++detached;
    EXPECT_TRUE(detached.isEnd());

    mapWith(map, {1});
    auto it = map.end();
    EXPECT_EQ(it.map(), &map);
    ++it;
    EXPECT_TRUE(it.isEnd());
    map.insert(makeRow(2));
    ++it;
    EXPECT_TRUE(it.isEnd());
    EXPECT_EQ(it, detached);
}

TEST(RbTreeMap, IteratorCopiesShareTheRow) {
    Map map;
    mapWith(map, {1, 2});
    Row* one = map.find(1);
    EXPECT_EQ(one->references(), 1u);
    auto it = map.begin();
    EXPECT_EQ(one->references(), 2u);
    auto copy = it;
    EXPECT_EQ(one->references(), 3u);
    EXPECT_EQ(copy, it);
    EXPECT_EQ(copy.row().ptr(), one);
    EXPECT_EQ(&*copy, one);
    ++copy;
    EXPECT_EQ(one->references(), 2u);
    EXPECT_EQ(copy.key(), 2);
    EXPECT_FALSE(copy == it);
    it = Map::Iterator();
    EXPECT_EQ(one->references(), 1u);
}

TEST(RbTreeMap, RangeForVisitsRowsInOrder) {
    Map map;
    mapWith(map, {5, 3, 9, 1, 7});
    std::vector<int> seen;
    for (Row& r : map) seen.push_back(r.fwkKey());
    EXPECT_EQ(seen, (std::vector<int>{1, 3, 5, 7, 9}));
    // An unchanged map keeps the iterator on its fast path.
    auto it = map.begin();
    const std::uint64_t mc = it.modCount();
    while (it) ++it;
    EXPECT_EQ(it.modCount(), mc);
}

TEST(RbTreeMap, BoundsAndExactOrNext) {
    Map map;
    mapWith(map, {10, 20, 30});
    EXPECT_EQ(map.findExactOrNext(20)->fwkKey(), 20);
    EXPECT_EQ(map.findExactOrNext(15)->fwkKey(), 20);
    EXPECT_EQ(map.findExactOrNext(-5)->fwkKey(), 10);
    EXPECT_EQ(map.findExactOrNext(31), nullptr);
    EXPECT_EQ(map.upperBound(20)->fwkKey(), 30);
    EXPECT_EQ(map.upperBound(19)->fwkKey(), 20);
    EXPECT_EQ(map.upperBound(30), nullptr);
    EXPECT_EQ(map.lowerBound(20)->fwkKey(), 20);
    EXPECT_EQ(map.lowerBound(21)->fwkKey(), 30);
    EXPECT_EQ(map.lowerBound(31), nullptr);
    EXPECT_EQ(map.find(25), nullptr);
    EXPECT_FALSE(map[25]);
    EXPECT_EQ(map.first()->fwkKey(), 10);
    EXPECT_EQ(map.last()->fwkKey(), 30);
    EXPECT_EQ(Map::prev(map.first()), nullptr);
    EXPECT_EQ(Map::next(map.last()), nullptr);

    Map none;
    EXPECT_EQ(none.findExactOrNext(1), nullptr);
    EXPECT_EQ(none.upperBound(1), nullptr);
    EXPECT_EQ(none.lowerBound(1), nullptr);
    EXPECT_EQ(none.first(), nullptr);
    EXPECT_EQ(none.last(), nullptr);
    EXPECT_EQ(none.root(), nullptr);
}

TEST(RbTreeMap, RowsAreReleasedWithTheMap) {
    const std::int64_t liveBefore = Orbel::PtrInterface::liveInstances();
    Orbel::Ptr<Row> kept;
    Orbel::Ptr<Row> erased;
    {
        Map map;
        for (int k = 0; k < 500; ++k) map.insert(makeRow(k, k * 2));
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), liveBefore + 500);
        kept = map[123];
        erased = map.erase(77);
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), liveBefore + 500);
        map.clear();
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), liveBefore + 2);
        EXPECT_FALSE(kept->rbInTree());
        for (int k = 0; k < 50; ++k) map.insert(makeRow(k));
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), liveBefore + 52);
    }
    // The destructor released the rest; rows held elsewhere stay readable.
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), liveBefore + 2);
    EXPECT_EQ(kept->payload(), 246);
    EXPECT_EQ(erased->fwkKey(), 77);
    EXPECT_EQ(erased->payload(), 154);
    EXPECT_EQ(erased->references(), 1u);
    kept = nullptr;
    erased = nullptr;
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), liveBefore);
}

TEST(RbTreeMap, ModCountChangesOnMutationsOnly) {
    Map map;
    std::uint64_t mc = map.modCount();
    auto bump = [&](const char* what) {
        EXPECT_GT(map.modCount(), mc) << what;
        mc = map.modCount();
    };
    map.insert(makeRow(1));
    bump("insert");
    map.insert(makeRow(2));
    bump("insert");
    map.insert(makeRow(1, 5));
    bump("replace");
    map.erase(2);
    bump("erase by key");
    map.erase(map.find(1));
    bump("erase by row");
    map.clear();
    bump("clear");

    mapWith(map, {1, 2, 3});
    mc = map.modCount();
    (void)map.find(2);
    (void)map[2];
    (void)map.findExactOrNext(2);
    (void)map.lowerBound(2);
    (void)map.upperBound(2);
    (void)map.first();
    (void)map.last();
    for (auto it = map.begin(); it; ++it) {
    }
    map.checkInvariants();
    EXPECT_FALSE(map.erase(42));
    EXPECT_EQ(map.modCount(), mc);
}

TEST(RbTreeMap, LinksMayLiveInABaseClass) {
    const std::int64_t liveBefore = Orbel::PtrInterface::liveInstances();
    {
        Orbel::RbTreeMap<NamedRow, Orbel::String, BaseRow> map;
        for (const char* name : {"delta", "alpha", "kilo", "charlie", "echo"})
            map.insert(Orbel::Ptr<NamedRow>(new NamedRow(name, static_cast<int>(Orbel::String(name).size()))));
        map.checkInvariants();
        std::vector<std::string> names;
        for (auto it = map.begin(); it; ++it) names.push_back(it.key().stdString());
        EXPECT_EQ(names, (std::vector<std::string>{"alpha", "charlie", "delta", "echo", "kilo"}));
        EXPECT_EQ(map.find("kilo")->value(), 4);
        auto gone = map.erase(Orbel::String("charlie"));
        ASSERT_TRUE(gone);
        EXPECT_EQ(gone->value(), 7);
        EXPECT_EQ(map.findExactOrNext("b")->fwkKey(), Orbel::String("delta"));
        map.checkInvariants();
    }
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), liveBefore);
}

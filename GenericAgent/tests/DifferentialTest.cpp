// Long random sequences of changes on all four tables, checked step by step against a
// plain std::map model: rows present and their order, the version counter, and the exact
// per-key notifications two observers receive. A second test walks with an iterator while
// rows come and go around it.
#include "GenericAgent/GenericAgentSnmp.h"
#include "MibTestSupport.h"

#include <gtest/gtest.h>

#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using GenericAgent::daemonMibFactory;

std::string bytes(const char* s, std::size_t n) {
    return std::string(s, n);
}

// Names of the one-component tables: enough to collide often, with lengths and bytes that
// make Snmp::String order differ from plain byte order.
const std::vector<std::string>& singleNames() {
    static const std::vector<std::string> names = {"",
                                                   "a",
                                                   "b",
                                                   "z",
                                                   "\x7f",
                                                   "\x80",
                                                   "\xff",
                                                   bytes("\0", 1),
                                                   "aa",
                                                   "ab",
                                                   "ba",
                                                   "zz",
                                                   bytes("a\0", 2),
                                                   bytes("\0\xff", 2),
                                                   "abc",
                                                   "bgpd",
                                                   "ntpd",
                                                   "isisd",
                                                   "bgpd4",
                                                   "\xff\xff\xff\xff\xff"};
    return names;
}
const std::vector<std::string>& pairNames() {
    static const std::vector<std::string> names = {"", "b", "\x80", "aa", "zz", "bgpd", "ntpd"};
    return names;
}
const std::vector<std::string>& pairKeys() {
    static const std::vector<std::string> keys = {"",   "k",   "\xff", bytes("\0", 1), "kk",
                                                  "id", "asn", "peer", "router-id",    bytes("x\0y", 3)};
    return keys;
}

template <class T>
struct Model {
    struct Row {
        const typename T::Entry* row;
        const typename T::Source* source;
    };
    std::map<RefKey, Row, RefKeyLess> rows;
    std::vector<Orbel::Ptr<typename T::Source>> sources;
};

class Differential {
public:
    explicit Differential(std::uint32_t seed) : rng_(seed) {
        mib_ = daemonMibFactory("daemonMIB");
        a_ = attached(Recorder::make(), mib_);
        b_ = Recorder::make();
        b_->isWeakReferenceIs(true);
        attached(b_, mib_);
        for (const char* n : {"s0", "s1", "s2"}) {
            enabled_.sources.push_back(EnabledTable::source(n));
            option_.sources.push_back(OptionTable::source(n));
            running_.sources.push_back(RunningTable::source(n));
            data_.sources.push_back(DataTable::source(n));
        }
    }

    void run(int steps) {
        for (step_ = 0; step_ < steps; ++step_) {
            expected_.clear();
            switch (rng_() % 4) {
                case 0:
                    stepOn(enabled_);
                    break;
                case 1:
                    stepOn(option_);
                    break;
                case 2:
                    stepOn(running_);
                    break;
                default:
                    stepOn(data_);
                    break;
            }
            if (::testing::Test::HasFailure()) return;
            const bool full = step_ % 64 == 0;
            verify(enabled_, full);
            verify(option_, full);
            verify(running_, full);
            verify(data_, full);
            ASSERT_EQ(mib_->version(), version_) << "step " << step_;
            ASSERT_EQ(a_->events, expected_) << "step " << step_;
            ASSERT_EQ(b_->events, expected_) << "step " << step_;
            a_->events.clear();
            b_->events.clear();
        }
    }

    // Drops every reference but the weak observer's: the container dies and announces its
    // rows to that observer. Returns what it was told.
    std::vector<Event> destroy() {
        expected_.clear();
        expected_.push_back(zeroEvent());
        announce(enabled_);
        announce(option_);
        announce(running_);
        announce(data_);
        mib_ = nullptr;
        a_ = nullptr; // held the last reference
        std::vector<Event> told = b_->events;
        EXPECT_TRUE(b_->name().empty());
        b_ = nullptr;
        enabled_.sources.clear();
        option_.sources.clear();
        running_.sources.clear();
        data_.sources.clear();
        return told;
    }
    const std::vector<Event>& expected() const { return expected_; }

    std::size_t dels = 0, confirms = 0, mismatches = 0, delAlls = 0, iteratorDels = 0;

private:
    template <class T>
    RefKey randomKey() {
        if (T::twoComponents) return {pairNames()[rng_() % pairNames().size()], pairKeys()[rng_() % pairKeys().size()]};
        return {singleNames()[rng_() % singleNames().size()], {}};
    }

    template <class T>
    typename std::map<RefKey, typename Model<T>::Row, RefKeyLess>::iterator randomRow(Model<T>& m) {
        auto it = m.rows.begin();
        std::advance(it, static_cast<std::ptrdiff_t>(rng_() % m.rows.size()));
        return it;
    }

    template <class T>
    const typename T::Source* randomSource(Model<T>& m) {
        const auto i = rng_() % (m.sources.size() + 1);
        return i == m.sources.size() ? nullptr : m.sources[i].ptr();
    }

    template <class T>
    void is(Model<T>& m, const RefKey& k, const typename T::Source* source) {
        const auto key = T::key(k.first, k.second);
        const Orbel::Ptr<typename T::Source const> src(source);
        auto found = m.rows.find(k);
        if (found == m.rows.end()) {
            auto row = T::is(*mib_, key, src);
            ASSERT_TRUE(row);
            EXPECT_EQ(row->fwkKey(), key);
            EXPECT_EQ(T::sourceOf(*row).ptr(), source);
            m.rows[k] = {row.ptr(), source};
            ++version_;
            expected_.push_back(eventFor<T>(k));
        } else if (found->second.source == source) {
            auto row = T::is(*mib_, key, src);
            EXPECT_EQ(row.ptr(), found->second.row) << "step " << step_;
            ++version_;
            ++confirms;
        } else {
            try {
                T::is(*mib_, key, src);
                ADD_FAILURE() << "no exception at step " << step_;
            } catch (const Orbel::NameInUseException& e) {
                EXPECT_EQ(e.message().stdString(),
                          nameInUseText(T::attribute, T::sourceType, source, found->second.source));
            }
            ++mismatches;
        }
    }

    template <class T>
    void stepOn(Model<T>& m) {
        const unsigned op = rng_() % 200;
        if (op < 60) { // Is of a random key with a random pointer
            is(m, randomKey<T>(), randomSource(m));
        } else if (op < 76) { // confirming Is
            if (m.rows.empty()) return;
            auto r = randomRow(m);
            is(m, r->first, r->second.source);
        } else if (op < 88) { // mismatching Is
            if (m.rows.empty()) return;
            auto r = randomRow(m);
            const typename T::Source* other = randomSource(m);
            if (other == r->second.source) other = other ? nullptr : m.sources[0].ptr();
            is(m, r->first, other);
        } else if (op < 132) { // Del by key, mostly of a present one
            const RefKey k = (!m.rows.empty() && rng_() % 10 < 7) ? randomRow(m)->first : randomKey<T>();
            auto removed = T::del(*mib_, T::key(k.first, k.second));
            auto found = m.rows.find(k);
            if (found == m.rows.end()) {
                EXPECT_FALSE(removed) << "step " << step_;
                return;
            }
            EXPECT_EQ(removed.ptr(), found->second.row) << "step " << step_;
            m.rows.erase(found);
            ++version_;
            ++dels;
            expected_.push_back(eventFor<T>(k));
        } else if (op < 172) { // Del by iterator
            if (m.rows.empty() || rng_() % 8 == 0) {
                auto end = T::map(*mib_).end();
                if (rng_() % 2) {
                    end = T::map(*mib_).begin();
                    while (!end.isEnd()) ++end;
                }
                EXPECT_FALSE(T::del(*mib_, end)) << "step " << step_;
                return;
            }
            auto r = randomRow(m);
            const RefKey k = r->first;
            typename T::Map::Iterator it;
            if (rng_() % 2) {
                it = T::map(*mib_).iterator(T::map(*mib_).find(T::key(k.first, k.second)));
            } else {
                it = T::map(*mib_).begin();
                for (auto walker = m.rows.begin(); walker != r; ++walker) ++it;
            }
            ASSERT_EQ(it.ptr(), r->second.row) << "step " << step_;
            auto removed = T::del(*mib_, it);
            EXPECT_EQ(removed.ptr(), r->second.row);
            EXPECT_EQ(it.ptr(), r->second.row);
            m.rows.erase(r);
            ++version_;
            ++iteratorDels;
            expected_.push_back(eventFor<T>(k));
            ++it; // on to the first greater key
            auto next = m.rows.upper_bound(k);
            EXPECT_EQ(it.ptr(), next == m.rows.end() ? nullptr : next->second.row) << "step " << step_;
        } else if (op < 184) { // new: make or replace in place, silently
            const RefKey k = randomKey<T>();
            const typename T::Source* source = randomSource(m);
            auto row = T::make(*mib_, T::key(k.first, k.second), Orbel::Ptr<typename T::Source const>(source));
            ASSERT_TRUE(row);
            m.rows[k] = {row.ptr(), source};
        } else if (op < 198) { // lookup only
            const RefKey k = randomKey<T>();
            auto found = m.rows.find(k);
            EXPECT_EQ(T::lookup(*mib_, T::key(k.first, k.second)).ptr(),
                      found == m.rows.end() ? nullptr : found->second.row);
        } else if (op == 198) { // DelAll
            for (const auto& [k, r] : m.rows) expected_.push_back(eventFor<T>(k));
            version_ += static_cast<std::uint32_t>(m.rows.size());
            m.rows.clear();
            T::delAll(*mib_);
            ++delAlls;
        } else { // Notify of a random key, present or not
            const RefKey k = randomKey<T>();
            T::notify(*mib_, T::key(k.first, k.second));
            expected_.push_back(eventFor<T>(k));
        }
    }

    template <class T>
    void verify(const Model<T>& m, bool full) {
        const auto& map = T::map(*mib_);
        ASSERT_EQ(map.size(), m.rows.size()) << "step " << step_;
        auto it = map.begin();
        for (const auto& [k, r] : m.rows) {
            ASSERT_FALSE(it.isEnd()) << "step " << step_;
            ASSERT_EQ(it.ptr(), r.row) << "step " << step_;
            if (full) {
                ASSERT_EQ(T::refKey(it.key()), k) << "step " << step_;
                ASSERT_EQ(T::sourceOf(*it).ptr(), r.source) << "step " << step_;
            }
            ++it;
        }
        ASSERT_TRUE(it.isEnd()) << "step " << step_;
        if (full) map.checkInvariants();
    }

    template <class T>
    void announce(const Model<T>& m) {
        for (const auto& [k, r] : m.rows) expected_.push_back(eventFor<T>(k));
    }

    std::mt19937 rng_;
    int step_ = 0;
    Orbel::Ptr<DaemonMib> mib_;
    Orbel::Ptr<Recorder> a_, b_;
    std::uint32_t version_ = 0;
    std::vector<Event> expected_;
    Model<EnabledTable> enabled_;
    Model<OptionTable> option_;
    Model<RunningTable> running_;
    Model<DataTable> data_;
};

} // namespace

TEST(DaemonMibDifferential, RandomChangesMatchAReferenceModel) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        Differential d(0x5eed1234u);
        d.run(20000);
        ASSERT_FALSE(::testing::Test::HasFailure());
        // Every kind of step happened often enough to mean something.
        EXPECT_GT(d.dels, 1000u);
        EXPECT_GT(d.iteratorDels, 1000u);
        EXPECT_GT(d.confirms, 500u);
        EXPECT_GT(d.mismatches, 500u);
        EXPECT_GT(d.delAlls, 50u);
        const auto told = d.destroy();
        EXPECT_EQ(told, d.expected());
        EXPECT_GT(told.size(), 20u);
    }
    EXPECT_EQ(LiveCounts::now(), before);
}

TEST(DaemonMibDifferential, WalksFindTheNextGreaterKeyWhileRowsComeAndGo) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        std::mt19937 rng(77u);
        auto mib = daemonMibFactory("daemonMIB");
        std::map<RefKey, const GenericAgent::OptionTableEntry*, RefKeyLess> model;
        auto randomKey = [&] {
            return RefKey{pairNames()[rng() % pairNames().size()], pairKeys()[rng() % pairKeys().size()]};
        };
        auto add = [&](const RefKey& k) {
            auto row = mib->optionTableIs(OptionTable::key(k.first, k.second), nullptr);
            model[k] = row.ptr();
        };
        std::size_t visitedRows = 0;
        for (int walkNo = 0; walkNo < 300; ++walkNo) {
            const int fill = static_cast<int>(rng() % 40);
            for (int i = 0; i < fill; ++i) add(randomKey());
            auto it = mib->optionTable().begin();
            ASSERT_EQ(it.ptr(), model.empty() ? nullptr : model.begin()->second);
            while (!it.isEnd()) {
                ++visitedRows;
                const RefKey here = OptionTable::refKey(it.key());
                const unsigned action = rng() % 10;
                if (action < 3) { // delete the row the iterator stands on
                    EXPECT_EQ(mib->optionTableDel(it).ptr(), it.ptr());
                    model.erase(here);
                } else if (action < 5) { // delete some row, maybe this one, by key
                    const RefKey k = rng() % 4 == 0 ? here : randomKey();
                    mib->optionTableDel(OptionTable::key(k.first, k.second));
                    model.erase(k);
                } else if (action < 7) { // add a row ahead or behind
                    const RefKey k = randomKey();
                    if (!model.count(k)) add(k);
                } else if (action < 8) { // replace a row in place, maybe this one
                    const RefKey k = rng() % 3 == 0 ? here : randomKey();
                    model[k] = mib->newOptionTable(OptionTable::key(k.first, k.second), nullptr).ptr();
                }
                ++it;
                auto next = model.upper_bound(here);
                ASSERT_EQ(it.ptr(), next == model.end() ? nullptr : next->second) << "walk " << walkNo;
            }
            ASSERT_EQ(mib->optionTable().size(), model.size());
            if (rng() % 3 == 0) {
                mib->optionTableDelAll();
                model.clear();
            }
        }
        EXPECT_GT(visitedRows, 3000u);
    }
    EXPECT_EQ(LiveCounts::now(), before);
}

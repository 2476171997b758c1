// The daemon history heard from a real model through a ModelWatch, on a test clock.
#include "agent/history/DaemonHistory.h"

#include "orbel/Activity.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Agent::DaemonFlags;
using Agent::DaemonHistory;
using GenericAgent::Config;
using GenericAgent::Status;
using namespace std::chrono_literals;

struct TestClock {
    std::uint32_t ticks = 100;
    std::chrono::system_clock::time_point wall = std::chrono::system_clock::time_point(1'700'000'000s);
    int asked = 0;
    void advance(std::chrono::milliseconds d) {
        ticks += static_cast<std::uint32_t>(d.count() / 10);
        wall += d;
    }
};

struct Fixture {
    Orbel::Ptr<GenericAgent::DaemonMib> mib = GenericAgent::daemonMibFactory("daemonMIB");
    TestClock clock;
    DaemonHistory history{mib, [this] {
                              ++clock.asked;
                              return DaemonHistory::Stamp{clock.ticks, clock.wall};
                          }};
    Agent::ModelWatch watch{mib, nullptr};
    std::map<std::string, std::pair<Orbel::Ptr<Config>, Orbel::Ptr<Status>>> daemons;

    Fixture() {
        Orbel::ActivityLoop::instance().runPending();
        watch.listenerIs(&history);
    }
    void add(const std::string& name, bool enabled = true, bool running = true) {
        auto c = Config::configFactory(Orbel::Name(name));
        auto s = Status::statusFactory(Orbel::Name(name));
        c->enabledIs(enabled);
        s->runningIs(running);
        mib->enabledTableIs(Snmp::String(name), c);
        mib->runningTableIs(Snmp::String(name), s);
        daemons[name] = {c, s};
    }
    void remove(const std::string& name) {
        mib->enabledTableDel(Snmp::String(name));
        mib->runningTableDel(Snmp::String(name));
        daemons.erase(name);
    }
    Status& status(const std::string& name) { return *daemons.at(name).second; }
    Config& config(const std::string& name) { return *daemons.at(name).first; }
    void run() { Orbel::ActivityLoop::instance().runPending(); }
    const DaemonHistory::Record& row(const std::string& name) {
        const auto* r = history.find(Snmp::String(name));
        if (!r) throw std::runtime_error("no history row for " + name);
        return *r;
    }
    std::vector<std::string> walk() {
        std::vector<std::string> names;
        for (auto* r = history.first(); r; r = history.next(r->name)) names.emplace_back(r->name.view());
        return names;
    }
};

} // namespace

TEST(DaemonHistory, TheStateAtStartCountsNothing) {
    Fixture f;
    f.add("bgpd");
    f.add("ntpd", false, false);
    f.watch.start();
    f.run();
    EXPECT_EQ(f.history.size(), 2u);
    for (const char* n : {"bgpd", "ntpd"}) {
        EXPECT_EQ(f.row(n).runningChanges, 0u) << n;
        EXPECT_EQ(f.row(n).enabledChanges, 0u) << n;
        EXPECT_EQ(f.row(n).lastRunningChange, 0u) << n;
        EXPECT_EQ(f.row(n).lastEnabledChange, 0u) << n;
        EXPECT_FALSE(f.row(n).hasRunningTime()) << n;
    }
    EXPECT_EQ(f.clock.asked, 0);
}

TEST(DaemonHistory, EachAppliedRunningFlipCounts) {
    Fixture f;
    f.add("bgpd");
    f.add("ntpd");
    f.watch.start();
    for (int i = 0; i < 5; ++i) {
        f.clock.advance(1500ms);
        f.status("bgpd").runningIs(i % 2 == 1);
        f.run();
    }
    EXPECT_EQ(f.row("bgpd").runningChanges, 5u);
    EXPECT_EQ(f.row("bgpd").enabledChanges, 0u);
    EXPECT_EQ(f.row("bgpd").lastRunningChange, f.clock.ticks);
    EXPECT_EQ(f.row("bgpd").lastEnabledChange, 0u);
    ASSERT_TRUE(f.row("bgpd").hasRunningTime());
    EXPECT_EQ(f.row("bgpd").lastRunningTime(), f.clock.wall);
    EXPECT_EQ(f.row("ntpd").runningChanges, 0u);
    EXPECT_FALSE(f.row("ntpd").hasRunningTime());
}

TEST(DaemonHistory, EnabledChangesAreCountedApart) {
    Fixture f;
    f.add("bgpd");
    f.watch.start();
    f.clock.advance(2s);
    f.config("bgpd").enabledIs(false);
    f.run();
    EXPECT_EQ(f.row("bgpd").enabledChanges, 1u);
    EXPECT_EQ(f.row("bgpd").lastEnabledChange, f.clock.ticks);
    EXPECT_EQ(f.row("bgpd").runningChanges, 0u);
    EXPECT_FALSE(f.row("bgpd").hasRunningTime());
}

TEST(DaemonHistory, AChangeInTheAgentsFirstHundredthReadsAsOneTickNotNone) {
    Fixture f;
    f.add("bgpd");
    f.watch.start();
    f.clock.ticks = 0;
    f.status("bgpd").runningIs(false);
    f.config("bgpd").enabledIs(false);
    f.run();
    EXPECT_EQ(f.row("bgpd").runningChanges, 1u);
    EXPECT_EQ(f.row("bgpd").lastRunningChange, 1u);
    EXPECT_EQ(f.row("bgpd").lastEnabledChange, 1u);
}

TEST(DaemonHistory, AFlipUndoneBeforeTheWriterIsDoneCountsBothChanges) {
    Fixture f;
    f.add("bgpd");
    f.watch.start();
    f.clock.advance(3s);
    f.status("bgpd").runningIs(false); // a restart seen in one read of the launcher
    f.status("bgpd").runningIs(true);
    f.run();
    EXPECT_EQ(f.row("bgpd").runningChanges, 2u);
    EXPECT_EQ(f.row("bgpd").lastRunningChange, f.clock.ticks);
    EXPECT_TRUE(f.row("bgpd").running());
    EXPECT_EQ(f.row("bgpd").enabledChanges, 0u);
}

TEST(DaemonHistory, RewritingTheSameValueCountsNothing) {
    Fixture f;
    f.add("bgpd");
    f.watch.start();
    f.status("bgpd").runningIs(true);
    f.config("bgpd").enabledIs(true);
    // A writer that replaces the daemon's objects with equal ones.
    auto c = Config::configFactory("bgpd");
    auto s = Status::statusFactory("bgpd");
    c->enabledIs(true);
    s->runningIs(true);
    f.mib->enabledTableDel(Snmp::String("bgpd"));
    f.mib->runningTableDel(Snmp::String("bgpd"));
    f.mib->enabledTableIs(Snmp::String("bgpd"), c);
    f.mib->runningTableIs(Snmp::String("bgpd"), s);
    f.run();
    EXPECT_EQ(f.row("bgpd").runningChanges, 0u);
    EXPECT_EQ(f.row("bgpd").enabledChanges, 0u);
    EXPECT_EQ(f.clock.asked, 0);
}

TEST(DaemonHistory, ARowAppearsAtZeroAndGoesWithItsDaemon) {
    Fixture f;
    f.add("bgpd");
    f.watch.start();
    f.add("ospfd", true, false);
    f.run();
    EXPECT_EQ(f.history.size(), 2u);
    EXPECT_EQ(f.row("ospfd").runningChanges, 0u);
    EXPECT_FALSE(f.row("ospfd").running());
    f.remove("bgpd");
    f.run();
    EXPECT_EQ(f.history.find(Snmp::String("bgpd")), nullptr);
    EXPECT_EQ(f.history.size(), 1u);
    EXPECT_EQ(f.walk(), std::vector<std::string>{"ospfd"});
}

TEST(DaemonHistory, RemovedAndAddedAgainStartsAtZero) {
    Fixture f;
    f.add("bgpd");
    f.add("isisd");
    f.watch.start();
    f.status("bgpd").runningIs(false);
    f.run();
    ASSERT_EQ(f.row("bgpd").runningChanges, 1u);
    f.remove("bgpd");
    f.run();
    f.add("bgpd");
    f.run();
    EXPECT_EQ(f.row("bgpd").runningChanges, 0u);
    EXPECT_EQ(f.row("bgpd").lastRunningChange, 0u);
    EXPECT_FALSE(f.row("bgpd").hasRunningTime());
    EXPECT_EQ(f.history.size(), 2u);
}

TEST(DaemonHistory, WalksInIndexOrderShorterNamesFirst) {
    Fixture f;
    for (const char* n : {"zebra", "bgpd", "a", "ntpd", "isisd"}) f.add(n);
    f.watch.start();
    // Added after start (the side array), and one gone from the main one.
    for (const char* n : {"b", "lldpd", "aa"}) f.add(n);
    f.remove("ntpd");
    f.run();
    EXPECT_EQ(f.walk(), (std::vector<std::string>{"a", "b", "aa", "bgpd", "isisd", "lldpd", "zebra"}));
    EXPECT_EQ(f.history.next(Snmp::String("bgpd"))->name, Snmp::String("isisd"));
    EXPECT_EQ(f.history.next(Snmp::String("ntpd"))->name, Snmp::String("isisd")); // not a row: the one after
    EXPECT_EQ(f.history.next(Snmp::String("zebra")), nullptr);
}

TEST(DaemonHistory, NextFromARowThatMovesWhileMergingFindsTheFollowingRow) {
    Fixture f;
    f.add("a");
    f.watch.start();
    f.add("bb"); // in the side array until a walk merges it
    f.add("ccc");
    f.run();
    const auto* bb = f.history.find(Snmp::String("bb"));
    ASSERT_NE(bb, nullptr);
    const auto* after = f.history.next(bb->name); // merges: bb's record moves
    ASSERT_NE(after, nullptr);
    EXPECT_EQ(after->name, Snmp::String("ccc"));
}

TEST(DaemonHistory, KeysByTheModelsOwnName) {
    Fixture f;
    f.add("bgpd");
    f.watch.start();
    f.add("ospfd");
    f.run();
    for (const char* n : {"bgpd", "ospfd"}) {
        auto row = f.mib->enabledTable(Snmp::String(n));
        EXPECT_TRUE(f.row(n).name.str().sharesBodyWith(row->agentName().str())) << n;
    }
}

TEST(DaemonHistory, ManyComingAndGoingKeepsEveryRowFindableAndInOrder) {
    Fixture f;
    for (int i = 0; i < 300; ++i) f.add("d" + std::to_string(i));
    f.watch.start();
    // Enough to merge the side array and to compact the marked rows several times.
    for (int i = 300; i < 1000; ++i) f.add("d" + std::to_string(i));
    for (int i = 0; i < 1000; i += 3) f.remove("d" + std::to_string(i));
    f.run();
    for (int i = 1; i < 1000; i += 3) f.status("d" + std::to_string(i)).runningIs(false);
    f.run();
    std::size_t n = 0;
    for (int i = 0; i < 1000; ++i) {
        const auto* r = f.history.find(Snmp::String("d" + std::to_string(i)));
        if (i % 3 == 0) {
            EXPECT_EQ(r, nullptr) << i;
            continue;
        }
        ++n;
        ASSERT_NE(r, nullptr) << i;
        EXPECT_EQ(r->runningChanges, i % 3 == 1 ? 1u : 0u) << i;
    }
    EXPECT_EQ(f.history.size(), n);
    const auto names = f.walk();
    EXPECT_EQ(names.size(), n);
    for (std::size_t i = 1; i < names.size(); ++i)
        EXPECT_LT(Snmp::String(names[i - 1]), Snmp::String(names[i])) << names[i];
}

TEST(DaemonHistory, CountersWrapAt32Bits) {
    Fixture f;
    f.add("bgpd");
    f.watch.start();
    auto* r = const_cast<DaemonHistory::Record*>(f.history.find(Snmp::String("bgpd")));
    r->runningChanges = 0xffffffffu;
    f.status("bgpd").runningIs(false);
    f.run();
    EXPECT_EQ(f.row("bgpd").runningChanges, 0u);
}

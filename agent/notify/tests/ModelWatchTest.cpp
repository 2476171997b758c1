// The notifier's view of the model: rows and flags, told once a writer is done.
#include "agent/notify/ModelWatch.h"

#include "orbel/Activity.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Agent::DaemonFlags;
using GenericAgent::Config;
using GenericAgent::Status;

struct Fixture {
    Orbel::Ptr<GenericAgent::DaemonMib> mib = GenericAgent::daemonMibFactory("daemonMIB");
    std::vector<std::pair<std::string, DaemonFlags>> told;
    Agent::ModelWatch watch{mib, [this](const std::string& n, const DaemonFlags& f) { told.emplace_back(n, f); }};

    Fixture() { Orbel::ActivityLoop::instance().runPending(); }
    void add(const std::string& name, const Orbel::Ptr<Config>& c, const Orbel::Ptr<Status>& s) {
        mib->enabledTableIs(Snmp::String(name), c);
        mib->runningTableIs(Snmp::String(name), s);
    }
    void run() { Orbel::ActivityLoop::instance().runPending(); }
};

} // namespace

TEST(ModelWatch, StartReturnsTheStateNowAndTellsNothing) {
    Fixture f;
    auto c = Config::configFactory("bgpd");
    auto s = Status::statusFactory("bgpd");
    c->enabledIs(true);
    f.add("bgpd", c, s);
    auto now = f.watch.start();
    ASSERT_EQ(now.size(), 1u);
    EXPECT_EQ(now[0].first, "bgpd");
    EXPECT_EQ(now[0].second, (DaemonFlags{true, true, false}));
    f.run();
    EXPECT_TRUE(f.told.empty());
    EXPECT_EQ(f.watch.flagObservers(), 2u);
}

TEST(ModelWatch, FlagChangesAreToldOnceTheWriterIsDone) {
    Fixture f;
    auto c = Config::configFactory("bgpd");
    auto s = Status::statusFactory("bgpd");
    f.add("bgpd", c, s);
    f.watch.start();
    s->runningIs(true);
    c->enabledIs(true);
    EXPECT_TRUE(f.told.empty());
    EXPECT_EQ(f.watch.dirty(), 1u);
    f.run();
    ASSERT_EQ(f.told.size(), 1u);
    EXPECT_EQ(f.told[0].second, (DaemonFlags{true, true, true}));
    // A change and its undo before the loop runs tell nothing.
    s->runningIs(false);
    s->runningIs(true);
    f.run();
    EXPECT_EQ(f.told.size(), 1u);
}

TEST(ModelWatch, ReplacedConfigIsFollowedAndNotTakenForTheDaemonGoing) {
    Fixture f;
    f.add("bgpd", nullptr, nullptr);
    f.watch.start();
    auto c = Config::configFactory("bgpd");
    c->enabledIs(true);
    f.mib->enabledTableDel(Snmp::String("bgpd"));
    f.mib->enabledTableIs(Snmp::String("bgpd"), c);
    f.run();
    ASSERT_EQ(f.told.size(), 1u);
    EXPECT_EQ(f.told[0].second, (DaemonFlags{true, true, false}));
    c->enabledIs(false); // the new Config is watched
    f.run();
    ASSERT_EQ(f.told.size(), 2u);
    EXPECT_FALSE(f.told[1].second.enabled);
}

TEST(ModelWatch, DaemonThatGoesIsToldWithItsLastFlagsAndForgotten) {
    Fixture f;
    auto c = Config::configFactory("bgpd");
    auto s = Status::statusFactory("bgpd");
    c->enabledIs(true);
    s->runningIs(true);
    f.add("bgpd", c, s);
    f.watch.start();
    f.mib->enabledTableDel(Snmp::String("bgpd"));
    f.mib->runningTableDel(Snmp::String("bgpd"));
    f.run();
    ASSERT_EQ(f.told.size(), 1u);
    EXPECT_EQ(f.told[0].second, (DaemonFlags{false, true, true}));
    EXPECT_EQ(f.watch.flagObservers(), 0u);
    EXPECT_EQ(c->notifiees(), 0u);
    EXPECT_EQ(c->references(), 1u);
}

TEST(ModelWatch, NewDaemonIsTold) {
    Fixture f;
    f.watch.start();
    auto s = Status::statusFactory("ntpd");
    s->runningIs(true);
    f.add("ntpd", nullptr, s);
    f.run();
    ASSERT_EQ(f.told.size(), 1u);
    EXPECT_EQ(f.told[0].first, "ntpd");
    EXPECT_EQ(f.told[0].second, (DaemonFlags{true, false, true}));
}

TEST(ModelWatch, StopLeavesTheModelAndTellsNothingMore) {
    Fixture f;
    auto c = Config::configFactory("bgpd");
    f.add("bgpd", c, nullptr);
    f.watch.start();
    EXPECT_EQ(f.mib->notifiees(), 1u);
    f.watch.stop();
    EXPECT_EQ(f.mib->notifiees(), 0u);
    EXPECT_EQ(c->notifiees(), 0u);
    c->enabledIs(true);
    f.run();
    EXPECT_TRUE(f.told.empty());
}

namespace {

struct Recorder final : Agent::ModelListener {
    std::vector<std::string>* log;
    explicit Recorder(std::vector<std::string>* l) : log(l) {}
    void baselineIs(const std::vector<std::pair<std::string, DaemonFlags>>& d) override {
        log->push_back("baseline " + std::to_string(d.size()));
    }
    void changed(const std::string& daemon, const DaemonFlags&, const Agent::FlagChanges& seen) override {
        log->push_back("listener " + daemon + " " + std::to_string(seen.running) + "/" + std::to_string(seen.enabled));
    }
};

} // namespace

TEST(ModelWatch, AListenerHearsTheBaselineAndEachChangeBeforeTheCallback) {
    std::vector<std::string> log;
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    Orbel::ActivityLoop::instance().runPending();
    Agent::ModelWatch watch(mib, [&log](const std::string& n, const DaemonFlags&) { log.push_back("callback " + n); });
    Recorder recorder(&log);
    watch.listenerIs(&recorder);
    auto c = Config::configFactory("bgpd");
    auto s = Status::statusFactory("bgpd");
    mib->enabledTableIs(Snmp::String("bgpd"), c);
    mib->runningTableIs(Snmp::String("bgpd"), s);
    watch.start();
    s->runningIs(true);
    Orbel::ActivityLoop::instance().runPending();
    EXPECT_EQ(log, (std::vector<std::string>{"baseline 1", "listener bgpd 1/0", "callback bgpd"}));
    // Stopped and started again before the writer is done: the callback hears nothing, the
    // listener hears two changes of the running flag.
    log.clear();
    s->runningIs(false);
    s->runningIs(true);
    c->enabledIs(true);
    c->enabledIs(false);
    Orbel::ActivityLoop::instance().runPending();
    EXPECT_EQ(log, (std::vector<std::string>{"listener bgpd 2/2"}));
}

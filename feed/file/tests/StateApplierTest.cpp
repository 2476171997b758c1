// The applier: what a difference does to the DaemonMib's rows and observers.
#include "FeedTestSupport.h"

using namespace FeedTest;

namespace {

TEST(StateApplier, AddedDaemonAppearsInEveryTable) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    StateApplier applier(mib);
    LauncherState s;
    s["bgpd"] = daemonWith({{"asn", "65001"}}, true, std::map<std::string, std::string>{{"pid", "4242"}});
    s["bare"] = DaemonState{};
    applyState(applier, s);
    EXPECT_EQ(rowsOf(*mib), (std::vector<std::string>{"D bgpd/pid=4242", "E bare=0", "E bgpd=1", "O bgpd/asn=65001",
                                                      "R bare=0", "R bgpd=1"}));
    EXPECT_EQ(mib->enabledTable("bgpd")->agentConfig().ptr(), applier.config("bgpd").ptr());
    EXPECT_EQ(mib->runningTable("bgpd")->agentStatus().ptr(), applier.status("bgpd").ptr());
    EXPECT_FALSE(mib->enabledTable("bare")->agentConfig());
    EXPECT_FALSE(mib->runningTable("bare")->agentStatus());
    EXPECT_EQ(applier.config("bgpd")->name(), Orbel::String("bgpd"));
}

TEST(StateApplier, RemovedOptionDisappears) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    StateApplier applier(mib);
    LauncherState s;
    s["bgpd"] = daemonWith({{"asn", "65001"}, {"router-id", "10.0.0.1"}});
    applyState(applier, s);
    s["bgpd"].options.erase("asn");
    applyState(applier, s);
    EXPECT_FALSE(mib->optionTable(GenericAgent::OptionTableIndex("bgpd", "asn")));
    EXPECT_EQ(applier.config("bgpd")->option(GenericAgent::AgentKey("asn")), nullptr);
    EXPECT_TRUE(mib->optionTable(GenericAgent::OptionTableIndex("bgpd", "router-id")));
}

TEST(StateApplier, ChangedValueShowsThroughTheSameRowUntold) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    StateApplier applier(mib);
    LauncherState s;
    s["bgpd"] = daemonWith({{"asn", "65001"}}, true, std::map<std::string, std::string>{{"pid", "1"}});
    applyState(applier, s);
    auto option = mib->optionTable(GenericAgent::OptionTableIndex("bgpd", "asn"));
    auto data = mib->dataTable(GenericAgent::DataTableIndex("bgpd", "pid"));
    auto config = applier.config("bgpd");
    auto recorder = listen(mib);
    s["bgpd"].options["asn"] = "65002";
    s["bgpd"].data["pid"] = "2";
    applyState(applier, s);
    EXPECT_EQ(mib->optionTable(GenericAgent::OptionTableIndex("bgpd", "asn")).ptr(), option.ptr());
    EXPECT_EQ(mib->dataTable(GenericAgent::DataTableIndex("bgpd", "pid")).ptr(), data.ptr());
    EXPECT_EQ(option->val(), Orbel::String("65002"));
    EXPECT_EQ(data->val(), Orbel::String("2"));
    EXPECT_EQ(applier.config("bgpd").ptr(), config.ptr());
    EXPECT_TRUE(recorder->heard.empty());
}

TEST(StateApplier, FlagFlipShowsWithoutNewRow) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    StateApplier applier(mib);
    LauncherState s;
    s["bgpd"] = daemonWith({}, true, std::map<std::string, std::string>{}, true);
    applyState(applier, s);
    auto enabled = mib->enabledTable("bgpd");
    auto running = mib->runningTable("bgpd");
    auto recorder = listen(mib);
    s["bgpd"].enabled = false;
    s["bgpd"].running = false;
    applyState(applier, s);
    EXPECT_EQ(mib->enabledTable("bgpd").ptr(), enabled.ptr());
    EXPECT_EQ(mib->runningTable("bgpd").ptr(), running.ptr());
    EXPECT_FALSE(enabled->enabled());
    EXPECT_FALSE(running->running());
    EXPECT_TRUE(recorder->heard.empty());
}

TEST(StateApplier, ConfigAppearingOrDisappearingRemakesTheEnabledRow) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    StateApplier applier(mib);
    LauncherState s;
    s["bgpd"] = DaemonState{};
    applyState(applier, s);
    auto bare = mib->enabledTable("bgpd");
    ASSERT_FALSE(bare->agentConfig());
    auto recorder = listen(mib);

    s["bgpd"] = daemonWith({{"asn", "1"}, {"blank", ""}}, true);
    applyState(applier, s);
    auto withConfig = mib->enabledTable("bgpd");
    EXPECT_NE(withConfig.ptr(), bare.ptr());
    EXPECT_EQ(withConfig->agentConfig().ptr(), applier.config("bgpd").ptr());
    EXPECT_TRUE(withConfig->enabled());
    EXPECT_EQ(recorder->heard, (std::vector<std::string>{"enabled bgpd", "enabled bgpd", "option bgpd/asn"}));

    recorder->heard.clear();
    s["bgpd"] = DaemonState{};
    applyState(applier, s);
    auto without = mib->enabledTable("bgpd");
    EXPECT_NE(without.ptr(), withConfig.ptr());
    EXPECT_FALSE(without->agentConfig());
    EXPECT_FALSE(applier.config("bgpd"));
    EXPECT_EQ(recorder->heard, (std::vector<std::string>{"option bgpd/asn", "enabled bgpd", "enabled bgpd"}));
}

TEST(StateApplier, StatusAppearingRemakesTheRunningRow) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    StateApplier applier(mib);
    LauncherState s;
    s["ntpd"] = daemonWith({}, false);
    applyState(applier, s);
    auto before = mib->runningTable("ntpd");
    auto config = applier.config("ntpd");
    s["ntpd"].hasStatus = true;
    s["ntpd"].running = true;
    s["ntpd"].data = {{"pid", "7"}};
    applyState(applier, s);
    EXPECT_NE(mib->runningTable("ntpd").ptr(), before.ptr());
    EXPECT_EQ(mib->runningTable("ntpd")->agentStatus().ptr(), applier.status("ntpd").ptr());
    EXPECT_EQ(applier.config("ntpd").ptr(), config.ptr()); // the other side stays
}

TEST(StateApplier, EmptyValueHasNoRowButIsKept) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    StateApplier applier(mib);
    auto recorder = listen(mib);
    LauncherState s;
    s["bgpd"] = daemonWith({{"asn", ""}}, true, std::map<std::string, std::string>{{"pid", ""}});
    applyState(applier, s);
    EXPECT_FALSE(mib->optionTable(GenericAgent::OptionTableIndex("bgpd", "asn")));
    EXPECT_FALSE(mib->dataTable(GenericAgent::DataTableIndex("bgpd", "pid")));
    ASSERT_NE(applier.config("bgpd")->option(GenericAgent::AgentKey("asn")), nullptr);
    EXPECT_TRUE(applier.config("bgpd")->option(GenericAgent::AgentKey("asn"))->empty());
    EXPECT_NE(applier.status("bgpd")->data(GenericAgent::AgentKey("pid")), nullptr);

    recorder->heard.clear();
    s["bgpd"].options["asn"] = "65001";
    applyState(applier, s);
    EXPECT_EQ(recorder->heard, (std::vector<std::string>{"option bgpd/asn"}));
    EXPECT_EQ(mib->optionTable(GenericAgent::OptionTableIndex("bgpd", "asn"))->val(), Orbel::String("65001"));

    recorder->heard.clear();
    s["bgpd"].options["asn"] = "";
    applyState(applier, s);
    EXPECT_EQ(recorder->heard, (std::vector<std::string>{"option bgpd/asn"}));
    EXPECT_FALSE(mib->optionTable(GenericAgent::OptionTableIndex("bgpd", "asn")));
    EXPECT_NE(applier.config("bgpd")->option(GenericAgent::AgentKey("asn")), nullptr);
}

TEST(StateApplier, ObserversHearExactlyTheRowsThatComeAndGo) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    StateApplier applier(mib);
    LauncherState s;
    s["bgpd"] = daemonWith({{"asn", "1"}, {"keep", "k"}}, true, std::map<std::string, std::string>{{"pid", "1"}});
    s["ntpd"] = daemonWith({{"server", "a"}});
    applyState(applier, s);
    auto recorder = listen(mib);

    s["bgpd"].options.erase("asn");
    s["bgpd"].options["new"] = "n";
    s["bgpd"].options["keep"] = "changed";
    s["bgpd"].data["uptime"] = "3d";
    s.erase("ntpd");
    s["sshd"] = daemonWith({{"port", "22"}});
    applyState(applier, s);
    std::vector<std::string> heard = recorder->heard;
    std::sort(heard.begin(), heard.end());
    EXPECT_EQ(heard, (std::vector<std::string>{"data bgpd/uptime", "enabled ntpd", "enabled sshd", "option bgpd/asn",
                                               "option bgpd/new", "option ntpd/server", "option sshd/port",
                                               "running ntpd", "running sshd"}));
}

TEST(StateApplier, RemovedDaemonLeavesNoRow) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    StateApplier applier(mib);
    LauncherState s;
    s["bgpd"] = daemonWith({{"asn", "1"}}, true, std::map<std::string, std::string>{{"pid", "1"}});
    applyState(applier, s);
    applyState(applier, {});
    EXPECT_TRUE(rowsOf(*mib).empty());
    EXPECT_FALSE(applier.config("bgpd"));
}

TEST(StateApplier, FollowsRandomSequences) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    StateApplier applier(mib);
    std::mt19937 rng(11);
    for (int i = 0; i < 200; ++i) {
        LauncherState next = randomState(rng);
        // Daemons whose config and status stay keep their objects.
        std::map<std::string, const void*> kept;
        for (const auto& [name, d] : next) {
            auto old = applier.applied().find(name);
            if (old != applier.applied().end() && old->second.hasConfig && d.hasConfig)
                kept[name] = applier.config(name).ptr();
        }
        applyState(applier, next);
        for (const auto& [name, ptr] : kept) EXPECT_EQ(applier.config(name).ptr(), ptr) << name;
        for (const auto& [name, d] : next) {
            EXPECT_EQ(mib->enabledTable(name)->agentConfig().ptr(), applier.config(name).ptr());
            EXPECT_EQ(mib->runningTable(name)->agentStatus().ptr(), applier.status(name).ptr());
            if (d.hasConfig) {
                EXPECT_EQ(applier.config(name)->options().size(), d.options.size());
            }
        }
    }
}

// Each option or data row's key is the very string its daemon's Config or Status stores
// (one copy of the bytes per key), also when a row appears for a key that was kept empty.
TEST(StateApplier, RowsShareTheirKeysWithTheStoredValues) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    StateApplier applier(mib);
    auto expectShared = [&](const std::string& daemon) -> std::size_t {
        std::size_t rows = 0;
        for (auto it = mib->optionTable().begin(); !it.isEnd(); ++it, ++rows) {
            const auto& options = applier.config(daemon)->options();
            auto stored = options.find(GenericAgent::AgentKey(it->key().str()));
            if (stored == options.end()) {
                ADD_FAILURE() << "no option " << it->key();
                continue;
            }
            EXPECT_TRUE(it->key().str().sharesBodyWith(stored->first)) << it->key();
        }
        for (auto it = mib->dataTable().begin(); !it.isEnd(); ++it, ++rows) {
            const auto& data = applier.status(daemon)->data();
            auto stored = data.find(GenericAgent::AgentKey(it->key().str()));
            if (stored == data.end()) {
                ADD_FAILURE() << "no data key " << it->key();
                continue;
            }
            EXPECT_TRUE(it->key().str().sharesBodyWith(stored->first)) << it->key();
        }
        return rows;
    };
    applyState(applier, {{"bgpd", daemonWith({{"asn", "65001"}, {"router-id", ""}}, true, {{{"pid", "42"}}})}});
    EXPECT_EQ(expectShared("bgpd"), 2u);
    applyState(applier, {{"bgpd", daemonWith({{"asn", "65001"}, {"router-id", "10.0.0.1"}}, true, {{{"pid", "42"}}})}});
    EXPECT_EQ(expectShared("bgpd"), 3u);
}

// What the applier serves is read back from the objects; asking for it changes nothing.
TEST(StateApplier, AppliedIsReadBackFromTheObjects) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    StateApplier applier(mib);
    LauncherState s = {{"bgpd", daemonWith({{"asn", "65001"}, {"empty", ""}}, false, {{{"pid", "42"}}}, true)},
                       {"ntpd", DaemonState{}}};
    applier.apply(diffStates(applier.applied(), s));
    auto version = mib->version();
    EXPECT_EQ(applier.applied(), s);
    EXPECT_EQ(&applier.applied(), &applier.applied()); // built once until the next change
    EXPECT_EQ(mib->version(), version);
    applier.apply(diffStates(applier.applied(), {}));
    EXPECT_TRUE(applier.applied().empty());
}

TEST(StateApplier, LeavesNothingBehind) {
    GenericAgent::daemonMibFactory("warm-up"); // registers the types once
    auto instances = Orbel::PtrInterface::liveInstances();
    auto bodies = Orbel::String::liveBodies();
    {
        auto mib = GenericAgent::daemonMibFactory("daemonMIB");
        auto recorder = listen(mib);
        StateApplier applier(mib);
        std::mt19937 rng(5);
        for (int i = 0; i < 20; ++i) applyState(applier, randomState(rng));
        applyState(applier, {});
        EXPECT_TRUE(rowsOf(*mib).empty());
    }
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), instances);
    EXPECT_EQ(Orbel::String::liveBodies(), bodies);
}

TEST(StateApplier, RefusedReloadChangesNothing) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    StateApplier applier(mib);
    LauncherState s = parseState(toJson({{"bgpd", daemonWith({{"asn", "1"}})}}), file);
    applyState(applier, s);
    auto rows = rowsOf(*mib);
    auto version = mib->version();
    std::string bad = toJson({{"bgpd", daemonWith({{"asn", "2"}})}, {"ntpd", daemonWith({{"x", "1"}})}});
    bad.insert(bad.rfind('}'), ", \"extra\": 1");
    EXPECT_THROW(applier.apply(diffStates(applier.applied(), parseState(bad, file))), StateError);
    EXPECT_EQ(applier.applied(), s);
    EXPECT_EQ(rowsOf(*mib), rows);
    EXPECT_EQ(mib->version(), version);
}

// ---------------------------------------------------------------------------------------
// The feed, end to end

} // namespace

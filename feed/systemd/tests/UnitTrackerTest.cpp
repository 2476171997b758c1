// The unit tracker's rules, driven by hand with what systemd would say (no bus).
#include "feed/systemd/UnitTracker.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace {

using Feed::BusCall;
using Feed::ChangedDaemons;
using Feed::DaemonState;
using Feed::ListedFile;
using Feed::ListedUnit;
using Feed::PropertyValues;
using Feed::UnitIface;
using Feed::UnitTracker;

std::string pathOf(const std::string& id) {
    return "/org/freedesktop/systemd1/unit/" + id;
}

ListedUnit loaded(const std::string& id, const std::string& load = "loaded", const std::string& active = "active",
                  const std::string& sub = "running") {
    return {id, id + " description", load, active, sub, pathOf(id)};
}

// What a fake systemd answers: files, loaded units and their properties.
struct FakeSystemd {
    std::vector<ListedFile> files;
    std::vector<ListedUnit> units;
    std::map<std::string, Feed::UnitInfo> props; // by object path
    std::vector<BusCall> sent;

    // Answers every call the tracker asks until it asks nothing more.
    void answer(UnitTracker& t, std::size_t limit = 10000) {
        for (std::size_t i = 0; i < limit; ++i) {
            std::optional<BusCall> c = t.nextCall();
            if (!c) return;
            sent.push_back(*c);
            switch (c->kind) {
                case BusCall::Kind::listFiles:
                    t.listedFiles(c->token, files);
                    break;
                case BusCall::Kind::listUnits: {
                    std::vector<ListedUnit> out;
                    for (const ListedUnit& u : units)
                        if (c->unit.empty() || c->unit == u.id) out.push_back(u);
                    t.listedUnits(c->token, out);
                    break;
                }
                case BusCall::Kind::getAll:
                case BusCall::Kind::get: {
                    auto p = props.find(c->path);
                    if (p == props.end()) {
                        t.failed(c->token);
                        break;
                    }
                    PropertyValues v;
                    v.values = p->second;
                    for (const Feed::UnitProperty& prop : Feed::unitProperties())
                        if (prop.iface == c->iface && (c->kind == BusCall::Kind::getAll || &prop == c->property))
                            v.present.push_back(&prop);
                    t.properties(c->token, v);
                    break;
                }
            }
        }
    }
    Feed::UnitInfo& unit(const std::string& id) {
        Feed::UnitInfo& u = props[pathOf(id)];
        u.id = id;
        return u;
    }
    // A running, enabled service, loaded.
    void running(const std::string& id, std::uint32_t pid) {
        units.push_back(loaded(id));
        Feed::UnitInfo& u = unit(id);
        u.loadState = "loaded";
        u.activeState = "active";
        u.subState = "running";
        u.unitFileState = "enabled";
        u.mainPid = pid;
        u.memoryCurrent = 1000;
        u.result = "success";
        u.inactiveEnterTimestamp = 1795633805000000ull;
    }
    void removeUnit(const std::string& id) {
        std::erase_if(units, [&](const ListedUnit& u) { return u.id == id; });
    }
};

std::map<std::string, std::optional<DaemonState>> byName(const std::optional<ChangedDaemons>& c) {
    std::map<std::string, std::optional<DaemonState>> out;
    if (c)
        for (const auto& [name, d] : *c) out[name] = d;
    return out;
}

struct Fixture {
    FakeSystemd sd;
    UnitTracker t{{{"velmar-*"}, {}, 64}};
    // Answers and flushes until nothing is asked any more; the batches handed over, merged.
    std::optional<ChangedDaemons> settle() {
        std::optional<ChangedDaemons> all;
        for (int i = 0; i < 10; ++i) {
            sd.answer(t);
            if (auto c = t.flush()) {
                if (!all) all = ChangedDaemons{};
                for (auto& d : *c) {
                    std::erase_if(*all, [&](const auto& x) { return x.first == d.first; });
                    all->push_back(std::move(d));
                }
            }
            if (!t.busy()) break;
        }
        if (all) std::sort(all->begin(), all->end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        return all;
    }
    std::optional<ChangedDaemons> sync() {
        t.resync();
        return settle();
    }
    std::optional<ChangedDaemons> step() { return settle(); }
};

TEST(UnitTracker, ADisabledUnitThatNeverRanIsServedFromItsFile) {
    Fixture f;
    f.sd.files = {{"/etc/systemd/system/velmar-off.service", "disabled"}};
    auto first = byName(f.sync());
    ASSERT_EQ(first.size(), 1u);
    const DaemonState& d = *first.at("velmar-off");
    EXPECT_FALSE(d.enabled);
    EXPECT_FALSE(d.running);
    EXPECT_EQ(d.options.at("UnitFileState"), "disabled");
    EXPECT_EQ(d.options.at("FragmentPath"), "/etc/systemd/system/velmar-off.service");
    // A unit that is only a file is never read: that would make systemd load it.
    for (const BusCall& c : f.sd.sent)
        EXPECT_TRUE(c.kind == BusCall::Kind::listFiles || c.kind == BusCall::Kind::listUnits);
}

TEST(UnitTracker, TheFirstResyncGoesOverAsOneBatchEvenWhenEmpty) {
    Fixture f;
    auto first = f.sync();
    ASSERT_TRUE(first.has_value());
    EXPECT_TRUE(first->empty());
    EXPECT_TRUE(f.t.synced());
    EXPECT_FALSE(f.t.flush().has_value());
}

TEST(UnitTracker, NothingGoesOverBeforeTheResyncIsAnswered) {
    Fixture f;
    f.sd.running("velmar-a.service", 10);
    f.t.resync();
    f.sd.answer(f.t, 2); // the unit list and one of the unit's two reads
    EXPECT_FALSE(f.t.flush().has_value());
    auto rest = byName(f.step());
    EXPECT_EQ(rest.size(), 1u);
}

// systemd answers nothing else while it lists unit files: the loaded units go over first,
// and the file list is asked only then.
TEST(UnitTracker, LoadedUnitsGoOverBeforeTheFilesAreListed) {
    Fixture f;
    f.sd.running("velmar-a.service", 10);
    f.sd.files = {{"/etc/systemd/system/velmar-off.service", "disabled"}};
    f.t.resync();
    std::optional<ChangedDaemons> first;
    for (int i = 0; i < 10 && !first; ++i) {
        std::optional<BusCall> c = f.t.nextCall();
        ASSERT_TRUE(c.has_value());
        ASSERT_NE(c->kind, BusCall::Kind::listFiles) << "the files are listed before the loaded units are read";
        f.t.failed(c->token); // quickly: what the call reads is not needed here
        first = f.t.flush();
    }
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(byName(first).count("velmar-off"), 0u);
    std::optional<BusCall> files = f.t.nextCall();
    ASSERT_TRUE(files.has_value());
    EXPECT_EQ(files->kind, BusCall::Kind::listFiles);
    f.t.listedFiles(files->token, f.sd.files);
    EXPECT_EQ(byName(f.t.flush()).count("velmar-off"), 1u);
}

TEST(UnitTracker, AStoppedUnitThatSystemdUnloadsStaysServedNotRunning) {
    Fixture f;
    f.sd.files = {{"/etc/systemd/system/velmar-alpha.service", "disabled"}};
    f.sd.running("velmar-alpha.service", 42);
    auto first = byName(f.sync());
    ASSERT_TRUE(first.at("velmar-alpha")->running);
    EXPECT_EQ(first.at("velmar-alpha")->data.at("MainPID"), "42");
    // Stopped: systemd says so, then unloads it.
    Feed::UnitInfo& u = f.sd.unit("velmar-alpha.service");
    u.activeState = "inactive";
    u.subState = "dead";
    PropertyValues v;
    v.values = u;
    v.present = {Feed::findUnitProperty(UnitIface::unit, "ActiveState"),
                 Feed::findUnitProperty(UnitIface::unit, "SubState")};
    f.t.propertiesChanged(pathOf("velmar-alpha.service"), UnitIface::unit, v, {});
    f.step();
    f.sd.removeUnit("velmar-alpha.service");
    f.t.unitRemoved("velmar-alpha.service", pathOf("velmar-alpha.service"));
    auto after = byName(f.step());
    ASSERT_EQ(after.count("velmar-alpha"), 1u);
    ASSERT_TRUE(after.at("velmar-alpha").has_value()) << "the daemon must stay served";
    const DaemonState& d = *after.at("velmar-alpha");
    EXPECT_FALSE(d.running);
    // What still says something true is kept; what no longer holds is dropped.
    EXPECT_EQ(d.data.at("Result"), "success");
    EXPECT_EQ(d.data.at("InactiveEnterTimestamp"), "2026-11-25T19:10:05Z");
    EXPECT_EQ(d.data.at("ActiveState"), "inactive");
    EXPECT_EQ(d.data.count("MainPID"), 0u);
    EXPECT_EQ(d.data.count("MemoryCurrent"), 0u);
    EXPECT_EQ(d.options.count("LoadState"), 0u);
    EXPECT_EQ(d.options.at("UnitFileState"), "disabled");
}

TEST(UnitTracker, AUnitWithoutAFileGoesWhenUnloaded) {
    Fixture f;
    f.sd.running("velmar-a.service", 7);
    ASSERT_EQ(byName(f.sync()).size(), 1u);
    f.sd.removeUnit("velmar-a.service");
    f.t.unitRemoved("velmar-a.service", pathOf("velmar-a.service"));
    auto after = byName(f.step());
    ASSERT_EQ(after.count("velmar-a"), 1u);
    EXPECT_FALSE(after.at("velmar-a").has_value());
    EXPECT_EQ(f.t.units(), 0u);
}

TEST(UnitTracker, ATransientUnitGoesWhenItEnds) {
    Fixture f;
    f.sd.files = {{"/run/systemd/transient/velmar-run.service", "transient"}};
    f.sd.running("velmar-run.service", 9);
    f.sd.unit("velmar-run.service").unitFileState = "transient";
    auto first = byName(f.sync());
    EXPECT_TRUE(first.at("velmar-run")->enabled);
    f.sd.removeUnit("velmar-run.service");
    f.t.unitRemoved("velmar-run.service", pathOf("velmar-run.service"));
    auto after = byName(f.step());
    ASSERT_EQ(after.count("velmar-run"), 1u);
    EXPECT_FALSE(after.at("velmar-run").has_value());
}

TEST(UnitTracker, AFileRemovedAndUnloadedGoesAfterAReload) {
    Fixture f;
    f.sd.files = {{"/etc/systemd/system/velmar-gone.service", "disabled"}};
    ASSERT_EQ(byName(f.sync()).size(), 1u);
    f.sd.files.clear();
    f.t.reloading(true);
    f.t.reloading(false);
    auto after = byName(f.step());
    ASSERT_EQ(after.count("velmar-gone"), 1u);
    EXPECT_FALSE(after.at("velmar-gone").has_value());
}

TEST(UnitTracker, AFileRemovedWhileLoadedStaysUntilUnloaded) {
    Fixture f;
    f.sd.files = {{"/etc/systemd/system/velmar-a.service", "enabled"}};
    f.sd.running("velmar-a.service", 5);
    f.sync();
    f.sd.files.clear();
    f.t.unitFilesChanged();
    auto after = byName(f.step());
    if (after.count("velmar-a")) {
        EXPECT_TRUE(after.at("velmar-a").has_value());
    }
    f.sd.removeUnit("velmar-a.service");
    f.t.unitRemoved("velmar-a.service", pathOf("velmar-a.service"));
    auto gone = byName(f.step());
    ASSERT_EQ(gone.count("velmar-a"), 1u);
    EXPECT_FALSE(gone.at("velmar-a").has_value());
}

TEST(UnitTracker, UnitFilesChangedListsTheFilesAgain) {
    Fixture f;
    f.sync();
    f.sd.files = {{"/etc/systemd/system/velmar-new.service", "enabled"}};
    f.t.unitFilesChanged();
    auto after = byName(f.step());
    ASSERT_EQ(after.count("velmar-new"), 1u);
    EXPECT_TRUE(after.at("velmar-new")->enabled);
}

TEST(UnitTracker, ATemplateFileIsNotADaemonItsInstanceIs) {
    Fixture f;
    f.sd.files = {{"/etc/systemd/system/velmar-worker@.service", "static"}};
    f.sd.running("velmar-worker@one.service", 11);
    auto first = byName(f.sync());
    EXPECT_EQ(first.count("velmar-worker@"), 0u);
    ASSERT_EQ(first.count("velmar-worker@one"), 1u);
    EXPECT_TRUE(first.at("velmar-worker@one")->running);
}

TEST(UnitTracker, UnitsThatFailedToLoadAreServedWithTheirLoadStateAndError) {
    Fixture f;
    for (const char* load : {"bad-setting", "error", "not-found", "masked"}) {
        const std::string id = std::string("velmar-") + load + ".service";
        f.sd.units.push_back(loaded(id, load, "inactive", "dead"));
        Feed::UnitInfo& u = f.sd.unit(id);
        u.loadState = load;
        u.loadError = std::string("why ") + load;
    }
    auto first = byName(f.sync());
    ASSERT_EQ(first.size(), 4u);
    for (const char* load : {"bad-setting", "error", "not-found", "masked"}) {
        SCOPED_TRACE(load);
        const DaemonState& d = *first.at(std::string("velmar-") + load);
        EXPECT_FALSE(d.running);
        EXPECT_EQ(d.options.at("LoadState"), load);
        EXPECT_EQ(d.options.at("LoadError"), std::string("why ") + load);
    }
}

TEST(UnitTracker, AMaskedFileIsADaemonNotEnabled) {
    Fixture f;
    f.sd.files = {{"/etc/systemd/system/velmar-off.service", "masked"}};
    auto first = byName(f.sync());
    const DaemonState& d = *first.at("velmar-off");
    EXPECT_FALSE(d.enabled);
    EXPECT_EQ(d.options.at("UnitFileState"), "masked");
}

TEST(UnitTracker, EnabledFollowsTheUnitFileState) {
    Fixture f;
    const std::map<std::string, bool> table{
        {"enabled", true},   {"enabled-runtime", true}, {"linked", false},         {"linked-runtime", false},
        {"alias", false},    {"masked", false},         {"masked-runtime", false}, {"static", false},
        {"indirect", false}, {"disabled", false},       {"generated", false},      {"transient", true},
        {"bad", false}};
    int i = 0;
    std::map<std::string, std::string> names;
    for (const auto& [state, enabled] : table) {
        const std::string name = "velmar-" + std::to_string(i++);
        names[name] = state;
        f.sd.files.push_back({"/etc/systemd/system/" + name + ".service", state});
    }
    auto first = byName(f.sync());
    ASSERT_EQ(first.size(), table.size());
    for (const auto& [name, state] : names) EXPECT_EQ(first.at(name)->enabled, table.at(state)) << state;
}

TEST(UnitTracker, AReplyForAnOlderGenerationIsDropped) {
    Fixture f;
    f.sd.running("velmar-a.service", 1);
    f.sync();
    // A read is asked, then the unit is unloaded before the answer comes.
    PropertyValues none;
    f.t.propertiesChanged(pathOf("velmar-a.service"), UnitIface::service, none, {"MainPID"});
    std::optional<BusCall> c = f.t.nextCall();
    ASSERT_TRUE(c.has_value());
    f.t.unitRemoved("velmar-a.service", pathOf("velmar-a.service"));
    PropertyValues v;
    v.values.mainPid = 99;
    v.present = {Feed::findUnitProperty(UnitIface::service, "MainPID")};
    f.t.properties(c->token, v);
    auto after = byName(f.t.flush());
    ASSERT_EQ(after.count("velmar-a"), 1u);
    EXPECT_FALSE(after.at("velmar-a").has_value());
}

TEST(UnitTracker, NoUnitIsReadUntilAListShowsItLoaded) {
    Fixture f;
    f.sync();
    f.sd.sent.clear();
    f.t.unitNew("velmar-new.service", pathOf("velmar-new.service"));
    std::optional<BusCall> c = f.t.nextCall();
    ASSERT_TRUE(c.has_value());
    EXPECT_EQ(c->kind, BusCall::Kind::listUnits);
    EXPECT_EQ(c->unit, "velmar-new.service");
    // Not listed (gone again): nothing is read.
    f.t.listedUnits(c->token, {});
    EXPECT_FALSE(f.t.nextCall().has_value());
}

TEST(UnitTracker, UnitSignalsDuringAReloadAreLeftToTheResync) {
    Fixture f;
    f.sd.running("velmar-a.service", 1);
    f.sync();
    f.t.reloading(true);
    f.t.unitRemoved("velmar-a.service", pathOf("velmar-a.service"));
    f.t.unitNew("velmar-a.service", pathOf("velmar-a.service"));
    f.t.reloading(false);
    auto after = f.step();
    // Still loaded and unchanged after the resync: nothing to hand over.
    EXPECT_TRUE(!after || byName(after).empty());
}

TEST(UnitTracker, InvalidatedPropertiesAreReadAgainButNotTheCommandLine) {
    Fixture f;
    f.sd.running("velmar-a.service", 1);
    f.sync();
    f.sd.sent.clear();
    f.sd.unit("velmar-a.service").mainPid = 2;
    PropertyValues none;
    f.t.propertiesChanged(pathOf("velmar-a.service"), UnitIface::service, none, {"MainPID", "ExecStart", "Unknown"});
    auto after = byName(f.step());
    ASSERT_EQ(f.sd.sent.size(), 1u);
    EXPECT_EQ(f.sd.sent[0].property->name, "MainPID");
    EXPECT_EQ(after.at("velmar-a")->data.at("MainPID"), "2");
}

TEST(UnitTracker, AtMostOneRefreshRoundIsOutstanding) {
    Fixture f;
    f.sd.running("velmar-a.service", 1);
    f.sd.running("velmar-b.service", 2);
    f.sync();
    EXPECT_TRUE(f.t.refresh());
    const std::size_t round = f.t.queued();
    EXPECT_EQ(round, 6u); // three counters of two units
    for (int i = 0; i < 100; ++i) EXPECT_FALSE(f.t.refresh());
    EXPECT_EQ(f.t.queued(), round);
    EXPECT_EQ(f.t.refreshesSkipped(), 100u);
    f.step();
    EXPECT_TRUE(f.t.refresh());
}

TEST(UnitTracker, OutstandingCallsAreBounded) {
    FakeSystemd sd;
    UnitTracker t{{{"velmar-*"}, {}, 4}};
    for (int i = 0; i < 20; ++i) sd.running("velmar-" + std::to_string(i) + ".service", 100 + i);
    t.resync();
    // Lists answered; then no answers at all (a systemd that hangs).
    sd.answer(t, 2);
    int sent = 0;
    while (t.nextCall()) ++sent;
    EXPECT_EQ(sent, 4);
    EXPECT_EQ(t.outstanding(), 4u);
    t.forgetCalls();
    EXPECT_EQ(t.outstanding(), 0u);
    EXPECT_EQ(t.queued(), 0u);
}

TEST(UnitTracker, ANameTooLongIsSkippedAndSaidOnce) {
    Fixture f;
    f.sd.files = {{"/etc/systemd/system/velmar-a-service-whose-name-is-well-over-32-bytes.service", "enabled"}};
    auto first = f.sync();
    EXPECT_TRUE(first && first->empty());
    EXPECT_EQ(f.t.skippedNow(), 1u);
    auto lines = f.t.takeLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].second.find("skipped: its name is"), std::string::npos);
    f.t.unitFilesChanged();
    f.step();
    EXPECT_TRUE(f.t.takeLines().empty());
}

TEST(UnitTracker, AnUnchangedDaemonIsNotHandedOverAgain) {
    Fixture f;
    f.sd.running("velmar-a.service", 1);
    f.sync();
    auto again = f.sync();
    EXPECT_FALSE(again.has_value());
}

TEST(UnitTracker, WholeCommandLinesOnlyWhenAsked) {
    for (bool whole : {false, true}) {
        FakeSystemd sd;
        UnitTracker t{{{"velmar-*"}, {whole}, 64}};
        sd.running("velmar-db.service", 3);
        sd.unit("velmar-db.service").execPath = "/usr/bin/db";
        sd.unit("velmar-db.service").execStart = {"/usr/bin/db", "--db-password=hunter2"};
        t.resync();
        sd.answer(t);
        auto d = byName(t.flush());
        EXPECT_EQ(d.at("velmar-db")->options.at("ExecStart"),
                  whole ? "/usr/bin/db --db-password=hunter2" : "/usr/bin/db");
    }
}

} // namespace

// Every batch flush hands over until it has none, in turn; no calls are answered.
std::vector<ChangedDaemons> batches(UnitTracker& t) {
    std::vector<ChangedDaemons> out;
    for (int i = 0; i < 20; ++i) {
        std::optional<ChangedDaemons> c = t.flush();
        if (!c) break;
        out.push_back(std::move(*c));
    }
    return out;
}

// The running flag of name in each batch that names it, in order.
std::vector<bool> runningSeen(const std::vector<ChangedDaemons>& all, const std::string& name) {
    std::vector<bool> out;
    for (const ChangedDaemons& batch : all) {
        int named = 0;
        for (const auto& [n, d] : batch)
            if (n == name) {
                ++named;
                out.push_back(d && d->running);
            }
        EXPECT_LE(named, 1) << "a batch names a daemon once";
    }
    return out;
}

// systemd's PropertiesChanged on the unit interface with the unit's state as it is now.
void announce(Fixture& f, const std::string& id, std::vector<const char*> names) {
    PropertyValues v;
    v.values = f.sd.unit(id);
    for (const char* n : names) v.present.push_back(Feed::findUnitProperty(UnitIface::unit, n));
    f.t.propertiesChanged(pathOf(id), UnitIface::unit, v, {});
}

// systemd announcing the unit's new ActiveState and SubState.
void becomes(Fixture& f, const std::string& id, const char* active, const char* sub) {
    Feed::UnitInfo& u = f.sd.unit(id);
    u.activeState = active;
    u.subState = sub;
    announce(f, id, {"ActiveState", "SubState"});
}

TEST(UnitTracker, AStopGoesOverAtOnceWhileTheReadsItStartedAreOutstanding) {
    Fixture f;
    f.sd.running("velmar-a.service", 42);
    f.sync();
    becomes(f, "velmar-a.service", "deactivating", "stop-sigterm");
    EXPECT_GT(f.t.queued(), 0u) << "an ActiveState change reads the counters";
    EXPECT_EQ(runningSeen(batches(f.t), "velmar-a"), std::vector<bool>{false});
    // Running again before any read was answered: that goes over too.
    becomes(f, "velmar-a.service", "active", "running");
    EXPECT_EQ(runningSeen(batches(f.t), "velmar-a"), std::vector<bool>{true});
    // The reads answered change nothing that matters: nothing more goes over.
    f.sd.answer(f.t);
    EXPECT_TRUE(runningSeen(batches(f.t), "velmar-a").empty());
}

TEST(UnitTracker, AStopAndAStartBetweenTwoFlushesGoOverInTurn) {
    Fixture f;
    f.sd.running("velmar-a.service", 42);
    f.sd.running("velmar-b.service", 43);
    f.sync();
    Feed::UnitInfo& u = f.sd.unit("velmar-a.service");
    u.activeState = "inactive";
    u.subState = "dead";
    u.inactiveEnterTimestamp += 1000000;
    announce(f, "velmar-a.service", {"ActiveState", "SubState", "InactiveEnterTimestamp"});
    becomes(f, "velmar-a.service", "active", "running");
    f.sd.answer(f.t);
    const std::vector<ChangedDaemons> all = batches(f.t);
    EXPECT_EQ(runningSeen(all, "velmar-a"), (std::vector<bool>{false, true}));
    EXPECT_TRUE(runningSeen(all, "velmar-b").empty()) << "a unit that did not change is not handed over";
}

TEST(UnitTracker, ARestartAnnouncedOnlyOnceItIsOverGoesOverStoppedThenRunning) {
    Fixture f;
    f.sd.running("velmar-a.service", 42);
    f.sync();
    // One signal after the restart: still active and running, but it entered inactive
    // since the last one, under a new main process.
    Feed::UnitInfo& u = f.sd.unit("velmar-a.service");
    u.inactiveEnterTimestamp += 1000000;
    u.mainPid = 77;
    announce(f, "velmar-a.service", {"ActiveState", "SubState", "InactiveEnterTimestamp"});
    PropertyValues pid;
    pid.values = u;
    pid.present = {Feed::findUnitProperty(UnitIface::service, "MainPID")};
    f.t.propertiesChanged(pathOf("velmar-a.service"), UnitIface::service, pid, {});
    f.sd.answer(f.t);
    const std::vector<ChangedDaemons> all = batches(f.t);
    // Stopped, then running (and running again with the new MainPID, which came in a
    // signal of its own: no running change).
    const std::vector<bool> seen = runningSeen(all, "velmar-a");
    ASSERT_GE(seen.size(), 2u);
    EXPECT_FALSE(seen[0]);
    for (std::size_t i = 1; i < seen.size(); ++i) EXPECT_TRUE(seen[i]) << i;
    const DaemonState& stopped = *all.front().front().second;
    EXPECT_EQ(stopped.data.at("ActiveState"), "inactive");
    EXPECT_EQ(stopped.data.count("MainPID"), 0u);
    const DaemonState& again = *all.back().front().second;
    EXPECT_EQ(again.data.at("MainPID"), "77");
}

TEST(UnitTracker, ASignalThatChangesNoRunningFlagHoldsTheUnitUntilItsReadsAreAnswered) {
    Fixture f;
    f.sd.running("velmar-a.service", 42);
    f.sync();
    becomes(f, "velmar-a.service", "reloading", "reload");
    EXPECT_TRUE(batches(f.t).empty()) << "still running: the change waits for its counters";
    f.sd.answer(f.t);
    EXPECT_EQ(runningSeen(batches(f.t), "velmar-a"), std::vector<bool>{true});
}

TEST(UnitTracker, AUnitThatFlapsFasterThanTheFlushesKeepsItsLatestChangesInPairs) {
    Fixture f;
    f.sd.running("velmar-a.service", 42);
    f.sync();
    for (int i = 0; i < 50; ++i)
        becomes(f, "velmar-a.service", i % 2 ? "active" : "inactive", i % 2 ? "running" : "dead");
    f.sd.answer(f.t);
    const std::vector<bool> seen = runningSeen(batches(f.t), "velmar-a");
    ASSERT_EQ(seen.size(), 16u);
    for (std::size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i], i % 2 == 1) << i;
}

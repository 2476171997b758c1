// The file source end to end: a state file in a directory of its own, fed into a DaemonMib.
#include "FeedTestSupport.h"

using namespace FeedTest;

namespace {

// A directory of its own, a state file's path in it, a DaemonMib, and the feed's log.
class FileFeed : public testing::Test {
protected:
    // A feed of the file at statePath into mib; its lines go to log unless withLog is false.
    StateFeed& makeFeed(const fs::path& statePath, bool withLog = true) {
        StateFeed::Log sink;
        if (withLog) sink = [this](Severity, const std::string& line) { log.push_back(line); };
        feed_ = std::make_unique<StateFeed>(std::make_unique<FileSource>(statePath.string()), mib, sink);
        return *feed_;
    }

    // A feed of sub/state.json, holding one daemon, loaded, started and watching.
    StateFeed& watchingIn(const fs::path& sub) {
        fs::create_directory(sub);
        writeFile(sub / "state.json", toJson({{"bgpd", DaemonState{}}}));
        StateFeed& feed = makeFeed(sub / "state.json");
        feed.loadInitial();
        feed.start();
        EXPECT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 2; })); // watching
        return feed;
    }

    TempDir dir;
    fs::path path = dir.path() / "state.json";
    Orbel::Ptr<DaemonMib> mib = GenericAgent::daemonMibFactory("daemonMIB");
    std::vector<std::string> log;

private:
    std::unique_ptr<StateFeed> feed_; // last: stops before the rest goes
};

TEST_F(FileFeed, LoadsInitiallyAndAppliesARenamedFile) {
    LauncherState first = {{"bgpd", daemonWith({{"asn", "65001"}})}};
    writeFile(path, toJson(first));
    StateFeed& feed = makeFeed(path);
    feed.loadInitial();
    EXPECT_EQ(feed.applied(), first);
    EXPECT_EQ(log, (std::vector<std::string>{"state file " + path.string() +
                                             ": applied 3 changes (daemons: 1 added, 0 removed; rows: 3 added, 0 "
                                             "removed; 0 changed in place); serving 1 daemon, 3 rows"}));
    feed.start();

    LauncherState second = {{"bgpd", daemonWith({{"asn", "65002"}})}, {"ntpd", DaemonState{}}};
    replaceFile(path, toJson(second));
    ASSERT_TRUE(readable(feed.eventFd(), 5000));
    EXPECT_TRUE(pumpUntil(feed, [&] { return feed.applied() == second; }));
    EXPECT_EQ(rowsOf(*mib), expectedRows(second));
    EXPECT_EQ(log.back(), "state file " + path.string() +
                              ": applied 3 changes (daemons: 1 added, 0 removed; rows: 2 added, 0 removed; 1 changed "
                              "in place); serving 2 daemons, 5 rows");
    EXPECT_EQ(feed.refused(), 0u);
    feed.stop();
    feed.stop(); // again: nothing
}

// The worker diffs each file against its packed copy of the last one: through any sequence
// of files the rows served are exactly those of the last file.
TEST_F(FileFeed, FollowsRandomSequencesOfFiles) {
    std::mt19937 rng(23);
    writeFile(path, toJson(randomState(rng)));
    StateFeed& feed = makeFeed(path, false);
    feed.loadInitial();
    feed.start();
    for (int i = 0; i < 40; ++i) {
        LauncherState next = randomState(rng);
        replaceFile(path, toJson(next));
        ASSERT_TRUE(pumpUntil(feed, [&] { return feed.applied() == next; })) << "file " << i;
        EXPECT_EQ(rowsOf(*mib), expectedRows(next)) << "file " << i;
    }
    feed.stop();
    EXPECT_EQ(feed.refused(), 0u);
}

TEST_F(FileFeed, AppliesAFileWrittenInPlace) {
    writeFile(path, toJson({}));
    StateFeed& feed = makeFeed(path, false);
    feed.loadInitial();
    feed.start();
    LauncherState next = {{"lldpd", daemonWith({{"tx-interval", "30"}})}};
    writeFile(path, toJson(next));
    EXPECT_TRUE(pumpUntil(feed, [&] { return feed.applied() == next; }));
}

TEST_F(FileFeed, RefusesABadFileAndKeepsServing) {
    LauncherState good = {{"bgpd", daemonWith({{"asn", "65001"}})}};
    writeFile(path, toJson(good));
    StateFeed& feed = makeFeed(path);
    feed.loadInitial();
    feed.start();
    ASSERT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 2; }));
    auto rows = rowsOf(*mib);
    auto version = mib->version();

    // A wrong top level refuses the whole file, good daemons included.
    replaceFile(path, "{\"daemons\": {\"bgpd\": {\"config\": {\"enabled\": false}}}, \"version\": 2}");
    EXPECT_TRUE(pumpUntil(feed, [&] { return feed.refused() == 1 && log.size() == 2; }));
    EXPECT_EQ(log.back(),
              "state file " + path.string() + ": top level: unknown member \"version\", expected \"daemons\" (line 1)");
    EXPECT_EQ(feed.applied(), good);
    EXPECT_EQ(rowsOf(*mib), rows);
    EXPECT_EQ(mib->version(), version);
    EXPECT_EQ(feed.source().health().state, SourceState::refused);
    EXPECT_EQ(feed.source().health().lastRefusal, log.back());

    // A good file afterwards is applied as usual, and the recovery is said after it.
    LauncherState next = {{"bgpd", daemonWith({{"asn", "65002"}})}};
    replaceFile(path, toJson(next));
    EXPECT_TRUE(pumpUntil(feed, [&] { return feed.applied() == next && log.size() == 4; }));
    EXPECT_EQ(log[3], "state file " + path.string() + ": recovered; it was refused");
    EXPECT_EQ(feed.source().health().state, SourceState::ok);
}

// One bad daemon entry: every other daemon is applied, the bad one keeps its last good
// state (or is not served when new), and each is said in one line.
TEST_F(FileFeed, PartlyBadReloadAppliesEveryGoodDaemonAndKeepsTheBadOnesLastState) {
    LauncherState good = {{"bgpd", daemonWith({{"asn", "65001"}})},
                          {"ntpd", daemonWith({{"server", "a"}})},
                          {"sshd", daemonWith({{"port", "22"}})}};
    writeFile(path, toJson(good));
    StateFeed& feed = makeFeed(path);
    feed.loadInitial();
    feed.start();
    ASSERT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 2; }));
    log.clear();

    // bgpd: a value of the wrong type; ntpd and sshd changed; lldpd new but with an
    // over-long key, so never served.
    const std::string key65(65, 'k');
    replaceFile(path,
                "{\"daemons\": {\n"
                "\"bgpd\": {\"config\": {\"enabled\": true, \"options\": {\"asn\": 65002}}},\n"
                "\"ntpd\": {\"config\": {\"enabled\": true, \"options\": {\"server\": \"b\"}}},\n"
                "\"lldpd\": {\"status\": {\"data\": {\"" +
                    key65 +
                    "\": \"1\"}}},\n"
                    "\"sshd\": {\"config\": {\"enabled\": false, \"options\": {\"port\": \"22\"}}}}}");
    LauncherState expected = good;
    expected["ntpd"].options["server"] = "b";
    expected["sshd"].enabled = false;
    ASSERT_TRUE(pumpUntil(feed, [&] { return feed.applied() == expected && log.size() == 3; }));
    const std::string p = "state file " + path.string() + ": ";
    EXPECT_EQ(log[0], p + "daemon \"bgpd\" option \"asn\": value must be a string, not a number (line 2); "
                          "serving its last good state");
    EXPECT_EQ(log[1], p + "daemon \"lldpd\" data \"" + std::string(64, 'k') +
                          "...\": key is 65 bytes, more than 64 (line 4); not served");
    EXPECT_EQ(log[2], p + "applied 2 changes (daemons: 0 added, 0 removed; rows: 0 added, 0 removed; 2 changed in "
                          "place); serving 3 daemons, 9 rows");
    EXPECT_EQ(rowsOf(*mib), expectedRows(expected));
    SourceHealth health = feed.source().health();
    EXPECT_EQ(health.state, SourceState::ok);
    EXPECT_EQ(health.reloads, 2u); // the initial load and the change, not the read at start
    EXPECT_EQ(health.refused, 0u);
    EXPECT_EQ(health.skipped, 2u);
    EXPECT_EQ(health.skippedNow, 2u);
    EXPECT_EQ(health.lastSkip, log[1]);

    // bgpd's last good state stays through a reload that drops it from the file no more:
    // a reload that leaves bgpd bad and changes nothing else changes nothing.
    replaceFile(path,
                "{\"daemons\": {\"bgpd\": [],\n"
                "\"ntpd\": {\"config\": {\"enabled\": true, \"options\": {\"server\": \"b\"}}},\n"
                "\"sshd\": {\"config\": {\"enabled\": false, \"options\": {\"port\": \"22\"}}}}}");
    ASSERT_TRUE(pumpUntil(feed, [&] { return log.size() == 4; }));
    EXPECT_EQ(log[3], p + "daemon \"bgpd\": must be an object, not an array (line 1); serving its last good state");
    EXPECT_EQ(feed.applied(), expected);

    // Once bgpd is good again, it is applied; a daemon left out of the file goes.
    LauncherState last = expected;
    last["bgpd"].options["asn"] = "65002";
    last.erase("sshd");
    replaceFile(path, toJson(last));
    ASSERT_TRUE(pumpUntil(feed, [&] { return feed.applied() == last; }));
    EXPECT_EQ(rowsOf(*mib), expectedRows(last));
    EXPECT_EQ(feed.source().health().skippedNow, 0u);
    EXPECT_EQ(feed.source().health().skipped, 3u);
}

// Many bad entries in one read: twenty lines, then one with the rest's count; all counted.
TEST_F(FileFeed, ManySkippedEntriesAreSaidInTwentyLinesAndACount) {
    std::string text = "{\"daemons\": {\"good\": {}";
    for (int i = 0; i < 25; ++i) text += ",\n\"bad" + std::to_string(100 + i) + "\": 1";
    text += "}}";
    writeFile(path, text);
    StateFeed& feed = makeFeed(path);
    feed.loadInitial();
    ASSERT_EQ(log.size(), 22u);
    const std::string p = "state file " + path.string() + ": ";
    EXPECT_EQ(log[0], p + "daemon \"bad100\": must be an object, not a number (line 2); not served");
    EXPECT_EQ(log[19], p + "daemon \"bad119\": must be an object, not a number (line 21); not served");
    EXPECT_EQ(log[20], p + "5 more daemon entries skipped");
    EXPECT_EQ(log[21].rfind(p + "applied ", 0), 0u) << log[21];
    EXPECT_EQ(feed.applied(), (LauncherState{{"good", DaemonState{}}}));
    SourceHealth health = feed.source().health();
    EXPECT_EQ(health.skippedNow, 25u);
    EXPECT_EQ(health.skipped, 25u);
    EXPECT_EQ(health.lastSkip, p + "daemon \"bad124\": must be an object, not a number (line 26); not served");
}

TEST_F(FileFeed, InitialLoadOfABadFileThrowsAndServesNothing) {
    StateFeed& feed = makeFeed(path);
    try {
        feed.loadInitial();
        FAIL() << "accepted a missing file";
    } catch (const StateError& e) {
        EXPECT_EQ(std::string(e.what()), "state file " + path.string() + ": cannot open: No such file or directory");
    }
    EXPECT_EQ(feed.refused(), 1u);
    EXPECT_TRUE(log.empty());
    EXPECT_TRUE(rowsOf(*mib).empty());

    // Started anyway, the feed picks the file up once it is written.
    feed.start();
    EXPECT_TRUE(pumpUntil(feed, [&] { return feed.refused() == 2; })); // still missing at start
    LauncherState s = {{"bgpd", DaemonState{}}};
    replaceFile(path, toJson(s));
    EXPECT_TRUE(pumpUntil(feed, [&] { return feed.applied() == s; }));
}

TEST_F(FileFeed, SurvivesItsDirectoryBeingRemovedAndMadeAgain) {
    fs::path sub = dir.path() / "run";
    fs::path path = sub / "state.json";
    StateFeed& feed = watchingIn(sub);

    fs::remove_all(sub);
    EXPECT_TRUE(pumpUntil(feed, [&] { return contains(log, " is gone;"); })) << testing::PrintToString(log);
    EXPECT_EQ(feed.applied().size(), 1u); // still served

    fs::create_directory(sub);
    LauncherState next = {{"ntpd", daemonWith({{"server", "a"}})}};
    replaceFile(path, toJson(next));
    EXPECT_TRUE(pumpUntil(feed, [&] { return feed.applied() == next; }));
    EXPECT_TRUE(contains(log, "watching directory " + sub.string() + " again"));
    EXPECT_EQ(rowsOf(*mib), expectedRows(next));

    // And it keeps watching the new directory.
    LauncherState third = {{"ntpd", daemonWith({{"server", "b"}})}};
    replaceFile(path, toJson(third));
    EXPECT_TRUE(pumpUntil(feed, [&] { return feed.applied() == third; }));
}

TEST_F(FileFeed, FollowsADirectoryReplacedByRename) {
    fs::path sub = dir.path() / "run";
    fs::path path = sub / "state.json";
    StateFeed& feed = watchingIn(sub);

    // A new directory, with its file, takes the old one's place.
    fs::path next = dir.path() / "run.next";
    fs::create_directory(next);
    LauncherState s = {{"ntpd", daemonWith({{"server", "a"}})}};
    writeFile(next / "state.json", toJson(s));
    fs::rename(sub, dir.path() / "run.old");
    fs::rename(next, sub);
    EXPECT_TRUE(pumpUntil(feed, [&] { return feed.applied() == s; })) << testing::PrintToString(log);

    // Changes in the old directory no longer count; those in the new one do.
    writeFile(dir.path() / "run.old" / "state.json", toJson({}));
    LauncherState third = {{"ntpd", daemonWith({{"server", "b"}})}};
    replaceFile(path, toJson(third));
    EXPECT_TRUE(pumpUntil(feed, [&] { return feed.applied() == third; }));
    EXPECT_EQ(feed.refused(), 0u);
}

TEST_F(FileFeed, WaitsForAMissingDirectory) {
    fs::path sub = dir.path() / "later";
    fs::path path = sub / "state.json";
    StateFeed& feed = makeFeed(path);
    feed.start();
    EXPECT_TRUE(pumpUntil(feed, [&] { return !log.empty(); }));
    EXPECT_EQ(log.front(), "state file " + path.string() + ": cannot watch directory " + sub.string() +
                               ": No such file or directory; serving the last state, trying again every 200 ms");
    fs::create_directory(sub);
    LauncherState s = {{"bgpd", daemonWith({{"asn", "1"}})}};
    replaceFile(path, toJson(s));
    EXPECT_TRUE(pumpUntil(feed, [&] { return feed.applied() == s; }));
}

TEST_F(FileFeed, RemovedFileLeavesTheStateServed) {
    LauncherState s = {{"bgpd", daemonWith({{"asn", "1"}})}};
    writeFile(path, toJson(s));
    StateFeed& feed = makeFeed(path);
    feed.loadInitial();
    feed.start();
    ASSERT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 2; })); // the reload at start
    fs::remove(path);
    EXPECT_TRUE(pumpUntil(feed, [&] { return log.size() == 2; }));
    EXPECT_EQ(log.back(),
              "state file " + path.string() + ": removed; serving the last state until it is written again");
    EXPECT_EQ(feed.applied(), s);
    EXPECT_EQ(feed.refused(), 0u);
}

TEST_F(FileFeed, InotifyInstancesExhaustedAtStartNameTheLimit) {
    writeFile(path, toJson({{"bgpd", DaemonState{}}}));
    StateFeed& feed = makeFeed(path);
    feed.loadInitial();
    InotifyFaults::initErrno = EMFILE;
    try {
        feed.start();
        ADD_FAILURE() << "started without an inotify instance";
    } catch (const std::system_error& e) {
        EXPECT_NE(std::string(e.what()).find("state file " + path.string() + ": cannot watch directory " +
                                             path.parent_path().string() +
                                             ": the inotify instances are exhausted (EMFILE): raise "
                                             "fs.inotify.max_user_instances"),
                  std::string::npos)
            << e.what();
    }
    InotifyFaults::initErrno = 0;
}

TEST_F(FileFeed, InotifyWatchesExhaustedNameTheLimitAndRecover) {
    writeFile(path, toJson({{"bgpd", DaemonState{}}}));
    StateFeed& feed = makeFeed(path);
    feed.loadInitial();
    InotifyFaults::addWatchErrno = ENOSPC;
    feed.start();
    const std::string said = "state file " + path.string() + ": cannot watch directory " + path.parent_path().string() +
                             ": the inotify watches are exhausted (ENOSPC): raise fs.inotify.max_user_watches; "
                             "serving the last state";
    EXPECT_TRUE(pumpUntil(feed, [&] {
        return std::any_of(log.begin(), log.end(), [&](const std::string& l) { return l.rfind(said, 0) == 0; });
    }));
    for (const auto& l : log) EXPECT_EQ(l.find("is gone"), std::string::npos) << l;
    InotifyFaults::addWatchErrno = 0;
    const std::string again =
        "state file " + path.string() + ": watching directory " + path.parent_path().string() + " again";
    EXPECT_TRUE(pumpUntil(feed, [&] { return std::find(log.begin(), log.end(), again) != log.end(); }));
}

TEST_F(FileFeed, InitialLoadCountsAsOneReload) {
    writeFile(path, toJson({{"bgpd", daemonWith({{"asn", "1"}})}}));
    StateFeed& feed = makeFeed(path, false);
    feed.loadInitial();
    feed.start();
    ASSERT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 2; })); // watching
    EXPECT_EQ(feed.reloads(), 1u);
    replaceFile(path, toJson({{"bgpd", daemonWith({{"asn", "2"}})}}));
    EXPECT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 3; }));
    EXPECT_EQ(feed.reloads(), 2u);
}

TEST_F(FileFeed, UnchangedFileAppliesNothing) {
    LauncherState s = {{"bgpd", daemonWith({{"asn", "1"}})}};
    writeFile(path, toJson(s));
    StateFeed& feed = makeFeed(path, false);
    feed.loadInitial();
    feed.start();
    EXPECT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 2; })); // the reload at start
    replaceFile(path, toJson(s));
    EXPECT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 3; }));
    EXPECT_EQ(feed.handleEvent(), 0u);
    EXPECT_EQ(feed.applies(), 1u); // only loadInitial's
}

// The worker keeps only digests of the last accepted file; the loop diffs each reported
// daemon against what it serves when it applies. Reloads queued before the loop runs must
// therefore still apply one after the other: a change, its undoing, a removal and a
// return, all waiting at once.
TEST_F(FileFeed, QueuedReloadsApplyInOrderAgainstWhatIsServed) {
    LauncherState a = {{"bgpd", daemonWith({{"asn", "1"}, {"mtu", "1500"}})}, {"ntpd", daemonWith({{"server", "a"}})}};
    LauncherState b = a;
    b["bgpd"].options["asn"] = "2";
    LauncherState c = b;
    c.erase("ntpd");
    writeFile(path, toJson(a));
    StateFeed& feed = makeFeed(path);
    feed.loadInitial();
    feed.start();
    auto reloaded = [&](std::uint64_t n) {
        auto deadline = std::chrono::steady_clock::now() + 5s;
        while (reads(feed) < n && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(5ms);
        return reads(feed) >= n;
    };
    ASSERT_TRUE(reloaded(2)); // the reload at start
    std::uint64_t n = 2;
    for (const LauncherState* s : {&b, &a, &c, &a}) {
        replaceFile(path, toJson(*s));
        ASSERT_TRUE(reloaded(++n));
    }
    log.clear();
    EXPECT_EQ(feed.handleEvent(), 4u);
    EXPECT_EQ(feed.applied(), a);
    const std::string p = "state file " + path.string() + ": ";
    EXPECT_EQ(log,
              (std::vector<std::string>{
                  p + "applied 1 change (daemons: 0 added, 0 removed; rows: 0 added, 0 removed; 1 changed in place); "
                      "serving 2 daemons, 7 rows",
                  p + "applied 1 change (daemons: 0 added, 0 removed; rows: 0 added, 0 removed; 1 changed in place); "
                      "serving 2 daemons, 7 rows",
                  // c drops ntpd (enabled, running and one option row) and keeps b's asn
                  p + "applied 4 changes (daemons: 0 added, 1 removed; rows: 0 added, 3 removed; 1 changed in place); "
                      "serving 1 daemon, 4 rows",
                  p + "applied 4 changes (daemons: 1 added, 0 removed; rows: 3 added, 0 removed; 1 changed in place); "
                      "serving 2 daemons, 7 rows",
              }));
    ASSERT_NE(mib->optionTable(GenericAgent::OptionTableIndex(Orbel::String("bgpd"), Orbel::String("asn"))), nullptr);
    EXPECT_EQ(mib->optionTable(GenericAgent::OptionTableIndex(Orbel::String("bgpd"), Orbel::String("asn")))->val(),
              GenericAgent::AgentVal(Orbel::String("1")));
}

// A reload drops an unchanged daemon's keys as soon as it has been read, keeping its name:
// a later daemon of the same name is still told, and the daemon named twice keeps its
// last good state (and digest) while the other changes are applied.
TEST_F(FileFeed, ReloadSkipsADuplicateOfAnUnchangedDaemonAndKeepsItsDigest) {
    LauncherState good = {{"bgpd", daemonWith({{"asn", "65001"}})}, {"ntpd", daemonWith({{"server", "a"}})}};
    writeFile(path, toJson(good));
    StateFeed& feed = makeFeed(path);
    feed.loadInitial();
    feed.start();
    ASSERT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 2; }));

    // bgpd unchanged, ntpd changed, then bgpd again, different.
    replaceFile(path,
                "{\"daemons\": {\"bgpd\": {\"config\": {\"enabled\": true, \"options\": {\"asn\": \"65001\"}}},\n"
                "\"ntpd\": {\"config\": {\"enabled\": true, \"options\": {\"server\": \"b\"}}},\n"
                "\"bgpd\": {}}}");
    LauncherState next = good;
    next["ntpd"].options["server"] = "b";
    ASSERT_TRUE(pumpUntil(feed, [&] { return feed.applied() == next && log.size() == 3; }));
    EXPECT_EQ(log[1],
              "state file " + path.string() + ": daemon \"bgpd\": appears twice (line 3); serving its last good state");
    EXPECT_EQ(feed.refused(), 0u);

    // bgpd's digest is the one of the last good file: writing that file again changes
    // nothing for bgpd, and a changed bgpd is applied.
    replaceFile(path, toJson(next));
    ASSERT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 4; }));
    EXPECT_EQ(log.size(), 3u) << log.back();
    LauncherState last = next;
    last["bgpd"].options["asn"] = "65002";
    replaceFile(path, toJson(last));
    ASSERT_TRUE(pumpUntil(feed, [&] { return feed.applied() == last; }));
    EXPECT_EQ(log.back(), "state file " + path.string() +
                              ": applied 1 change (daemons: 0 added, 0 removed; rows: 0 added, 0 removed; 1 changed in "
                              "place); serving 2 daemons, 6 rows");
}

} // namespace

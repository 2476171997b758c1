// The unit -> daemon mapping, over plain values (no bus).
#include "feed/systemd/UnitMapping.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Feed::UnitInfo;

// A running simple service as systemd describes it.
UnitInfo runningService() {
    UnitInfo u;
    u.id = "ssh.service";
    u.description = "OpenBSD Secure Shell server";
    u.loadState = "loaded";
    u.activeState = "active";
    u.subState = "running";
    u.unitFileState = "enabled";
    u.unitFilePreset = "enabled";
    u.fragmentPath = "/lib/systemd/system/ssh.service";
    u.type = "notify";
    u.restart = "on-failure";
    u.execStart = {"/usr/sbin/sshd", "-D", "$SSHD_OPTS"};
    u.result = "success";
    u.mainPid = 612;
    u.nRestarts = 0;
    u.activeEnterTimestamp = 1795633805000000ull; // 2026-11-25T19:10:05Z
    u.memoryCurrent = 5439488;
    u.cpuUsageNSec = 51234000;
    u.tasksCurrent = 1;
    return u;
}

TEST(UnitMapping, RunningServiceIsEnabledAndRunningWithItsOptionsAndData) {
    Feed::DaemonState d = Feed::daemonStateOf(runningService());
    EXPECT_TRUE(d.hasConfig);
    EXPECT_TRUE(d.enabled);
    EXPECT_TRUE(d.hasStatus);
    EXPECT_TRUE(d.running);
    std::map<std::string, std::string> options{{"Description", "OpenBSD Secure Shell server"},
                                               {"LoadState", "loaded"},
                                               {"UnitFileState", "enabled"},
                                               {"UnitFilePreset", "enabled"},
                                               {"FragmentPath", "/lib/systemd/system/ssh.service"},
                                               {"Type", "notify"},
                                               {"Restart", "on-failure"},
                                               {"ExecStart", "/usr/sbin/sshd"}};
    EXPECT_EQ(d.options, options);
    std::map<std::string, std::string> data{
        {"ActiveState", "active"},    {"SubState", "running"},      {"Result", "success"},
        {"MainPID", "612"},           {"NRestarts", "0"},           {"ActiveEnterTimestamp", "2026-11-25T19:10:05Z"},
        {"MemoryCurrent", "5439488"}, {"CPUUsageNSec", "51234000"}, {"TasksCurrent", "1"}};
    EXPECT_EQ(d.data, data);
}

// Arguments can hold secrets: only the executable unless the operator asks for the line.
TEST(UnitMapping, ExecStartIsTheExecutableUnlessWholeLinesAreAsked) {
    UnitInfo u = runningService();
    u.execPath = "/usr/sbin/sshd";
    u.execStart = {"sshd", "-D", "--db-password=hunter2"};
    EXPECT_EQ(Feed::daemonStateOf(u).options.at("ExecStart"), "/usr/sbin/sshd");
    EXPECT_EQ(Feed::daemonStateOf(u, {.wholeCommandLines = true}).options.at("ExecStart"),
              "sshd -D --db-password=hunter2");
}

TEST(UnitMapping, EnabledForEnabledEnabledRuntimeAndTransient) {
    struct Case {
        const char* state;
        bool enabled;
    };
    for (Case c : {Case{"enabled", true}, Case{"enabled-runtime", true}, Case{"disabled", false}, Case{"static", false},
                   Case{"masked", false}, Case{"masked-runtime", false}, Case{"linked", false}, Case{"indirect", false},
                   Case{"generated", false}, Case{"transient", true}, Case{"alias", false},
                   Case{"linked-runtime", false}, Case{"bad", false}, Case{"", false}}) {
        SCOPED_TRACE(c.state);
        UnitInfo u = runningService();
        u.unitFileState = c.state;
        EXPECT_EQ(Feed::daemonStateOf(u).enabled, c.enabled);
    }
}

TEST(UnitMapping, RunningOnlyWhileTheMainProcessRuns) {
    struct Case {
        const char* active;
        const char* sub;
        bool running;
    };
    for (Case c : {Case{"active", "running", true}, Case{"reloading", "reload", true}, Case{"active", "exited", false},
                   Case{"inactive", "dead", false}, Case{"failed", "failed", false}, Case{"activating", "start", false},
                   Case{"activating", "start-pre", false}, Case{"activating", "auto-restart", false},
                   Case{"deactivating", "stop-sigterm", false}, Case{"deactivating", "stop", false}}) {
        SCOPED_TRACE(std::string(c.active) + "/" + c.sub);
        UnitInfo u = runningService();
        u.activeState = c.active;
        u.subState = c.sub;
        Feed::DaemonState d = Feed::daemonStateOf(u);
        EXPECT_EQ(d.running, c.running);
        EXPECT_EQ(d.data.at("SubState"), c.sub);
    }
}

TEST(UnitMapping, OneshotThatRemainsAfterExitIsNotRunning) {
    UnitInfo u = runningService();
    u.type = "oneshot";
    u.subState = "exited";
    u.mainPid = 0;
    u.execMainExitTimestamp = 1795633806000000ull;
    u.execMainStatus = 0;
    Feed::DaemonState d = Feed::daemonStateOf(u);
    EXPECT_FALSE(d.running);
    EXPECT_EQ(d.data.count("MainPID"), 0u);
    EXPECT_EQ(d.data.at("ExecMainStatus"), "0");
    EXPECT_EQ(d.data.at("ExecMainExitTimestamp"), "2026-11-25T19:10:06Z");
}

TEST(UnitMapping, UnsetValuesHaveNoRow) {
    UnitInfo u;
    u.id = "idle.service";
    u.loadState = "loaded";
    u.activeState = "inactive";
    u.subState = "dead";
    Feed::DaemonState d = Feed::daemonStateOf(u);
    EXPECT_TRUE(d.hasConfig);
    EXPECT_FALSE(d.enabled);
    EXPECT_TRUE(d.hasStatus);
    EXPECT_FALSE(d.running);
    // Empty strings, PID 0, zero timestamps, "infinity" counters and an exit status
    // before any exit have no row.
    std::map<std::string, std::string> data{{"ActiveState", "inactive"}, {"SubState", "dead"}, {"NRestarts", "0"}};
    EXPECT_EQ(d.data, data);
    std::map<std::string, std::string> options{{"LoadState", "loaded"}};
    EXPECT_EQ(d.options, options);
}

TEST(UnitMapping, InfinityTimestampHasNoRow) {
    UnitInfo u = runningService();
    u.inactiveEnterTimestamp = Feed::unitInfinity;
    EXPECT_EQ(Feed::daemonStateOf(u).data.count("InactiveEnterTimestamp"), 0u);
}

TEST(UnitMapping, NonZeroCountersAndZeroCountersAreRows) {
    UnitInfo u = runningService();
    u.nRestarts = 7;
    u.memoryCurrent = 0;
    u.tasksCurrent = 0;
    Feed::DaemonState d = Feed::daemonStateOf(u);
    EXPECT_EQ(d.data.at("NRestarts"), "7");
    EXPECT_EQ(d.data.at("MemoryCurrent"), "0");
    EXPECT_EQ(d.data.at("TasksCurrent"), "0");
}

TEST(UnitMapping, FailedExitStatusIsShownAfterTheExit) {
    UnitInfo u = runningService();
    u.activeState = "failed";
    u.subState = "failed";
    u.result = "exit-code";
    u.mainPid = 0;
    u.execMainStatus = 3;
    u.execMainCode = 1; // CLD_EXITED
    u.execMainExitTimestamp = 1795633807500000ull;
    Feed::DaemonState d = Feed::daemonStateOf(u);
    EXPECT_EQ(d.data.at("ExecMainStatus"), "3");
    EXPECT_EQ(d.data.at("ExecMainCode"), "exited");
    EXPECT_EQ(d.data.at("Result"), "exit-code");
    u.execMainCode = 2; // CLD_KILLED: the status is the signal
    EXPECT_EQ(Feed::daemonStateOf(u).data.at("ExecMainCode"), "killed");
    u.execMainExitTimestamp = 0; // started again: no exit yet
    EXPECT_EQ(Feed::daemonStateOf(u).data.count("ExecMainStatus"), 0u);
    EXPECT_EQ(Feed::daemonStateOf(u).data.count("ExecMainCode"), 0u);
}

// A unit that failed to load is served, not running, with systemd's reason.
TEST(UnitMapping, UnitThatFailedToLoadIsNotRunningAndSaysWhy) {
    for (const char* load : {"bad-setting", "error", "not-found", "masked"}) {
        SCOPED_TRACE(load);
        UnitInfo u = runningService(); // even with a main process still running
        u.loadState = load;
        u.loadError = "Unit ssh.service has a bad unit file setting.";
        Feed::DaemonState d = Feed::daemonStateOf(u);
        EXPECT_FALSE(d.running);
        EXPECT_EQ(d.options.at("LoadState"), load);
        EXPECT_EQ(d.options.at("LoadError"), "Unit ssh.service has a bad unit file setting.");
    }
}

TEST(UnitMapping, AUnitThatIsOnlyAFileHasItsStateAndPath) {
    Feed::DaemonState d = Feed::daemonStateOfFile("disabled", "/etc/systemd/system/off.service");
    EXPECT_TRUE(d.hasConfig);
    EXPECT_FALSE(d.enabled);
    EXPECT_TRUE(d.hasStatus);
    EXPECT_FALSE(d.running);
    EXPECT_EQ(d.options, (std::map<std::string, std::string>{{"UnitFileState", "disabled"},
                                                             {"FragmentPath", "/etc/systemd/system/off.service"}}));
    EXPECT_TRUE(d.data.empty());
    EXPECT_TRUE(Feed::daemonStateOfFile("enabled", "/x.service").enabled);
}

TEST(UnitMapping, TemplatesDoNotMatchTheirInstancesDo) {
    const std::vector<std::string> all{"*.service"};
    EXPECT_FALSE(Feed::unitMatches("velmar-worker@.service", all));
    EXPECT_TRUE(Feed::unitMatches("velmar-worker@one.service", all));
    EXPECT_TRUE(Feed::isTemplateUnit("getty@.service"));
    EXPECT_FALSE(Feed::isTemplateUnit("getty@tty1.service"));
}

TEST(UnitMapping, DropInPathsAreSpaceSeparated) {
    UnitInfo u = runningService();
    u.dropInPaths = {"/etc/systemd/system/ssh.service.d/a.conf", "/run/systemd/system/ssh.service.d/b.conf"};
    EXPECT_EQ(Feed::daemonStateOf(u).options.at("DropInPaths"),
              "/etc/systemd/system/ssh.service.d/a.conf /run/systemd/system/ssh.service.d/b.conf");
}

TEST(UnitMapping, LoadStatesThatAreDaemons) {
    struct Case {
        const char* load;
        bool daemon;
    };
    for (Case c : {Case{"loaded", true}, Case{"masked", true}, Case{"bad-setting", true}, Case{"error", true},
                   Case{"not-found", true}, Case{"stub", false}, Case{"merged", false}, Case{"", false}}) {
        SCOPED_TRACE(c.load);
        UnitInfo u = runningService();
        u.loadState = c.load;
        EXPECT_EQ(Feed::unitIsDaemon(u), c.daemon);
    }
}

TEST(UnitMapping, MaskedUnitIsADaemonThatIsNotEnabled) {
    UnitInfo u;
    u.id = "off.service";
    u.loadState = "masked";
    u.unitFileState = "masked";
    u.activeState = "inactive";
    u.subState = "dead";
    ASSERT_TRUE(Feed::unitIsDaemon(u));
    Feed::DaemonState d = Feed::daemonStateOf(u);
    EXPECT_FALSE(d.enabled);
    EXPECT_EQ(d.options.at("UnitFileState"), "masked");
}

TEST(UnitMapping, DaemonNameIsTheUnitNameWithoutService) {
    EXPECT_EQ(Feed::daemonNameOf("ssh.service"), "ssh");
    EXPECT_EQ(Feed::daemonNameOf("getty@tty1.service"), "getty@tty1");
    EXPECT_EQ(Feed::daemonNameOf("a.b.service"), "a.b");
    EXPECT_EQ(Feed::daemonNameOf("ssh.socket"), std::nullopt);
    EXPECT_EQ(Feed::daemonNameOf(".service"), std::nullopt);
    EXPECT_EQ(Feed::daemonNameOf("service"), std::nullopt);
}

TEST(UnitMapping, NameFitsUpTo32Bytes) {
    EXPECT_TRUE(Feed::daemonNameFits(std::string(32, 'a')));
    EXPECT_FALSE(Feed::daemonNameFits(std::string(33, 'a')));
    EXPECT_FALSE(Feed::daemonNameFits(""));
    EXPECT_FALSE(
        Feed::daemonNameFits(*Feed::daemonNameOf("velmar-a-service-whose-name-is-well-over-32-bytes.service")));
}

TEST(UnitMapping, EveryKeyFitsTheIndex) {
    for (auto keys : {Feed::unitOptionKeys(), Feed::unitDataKeys()})
        for (std::string_view k : keys) EXPECT_LE(k.size(), GenericAgent::maxIndexKeyBytes) << k;
}

TEST(UnitMapping, ProducedKeysAreTheListedOnes) {
    UnitInfo u = runningService();
    u.user = "sshd";
    u.dropInPaths = {"/x.conf"};
    u.execMainExitTimestamp = 1;
    u.execMainCode = 1;
    u.loadError = "Unit ssh.service has a bad unit file setting.";
    u.inactiveEnterTimestamp = 2000000;
    Feed::DaemonState d = Feed::daemonStateOf(u);
    std::vector<std::string_view> options, data;
    for (const auto& [k, v] : d.options) options.push_back(k);
    for (const auto& [k, v] : d.data) data.push_back(k);
    std::vector<std::string_view> wantOptions = Feed::unitOptionKeys();
    std::vector<std::string_view> wantData = Feed::unitDataKeys();
    std::sort(wantOptions.begin(), wantOptions.end());
    std::sort(wantData.begin(), wantData.end());
    EXPECT_EQ(options, wantOptions);
    EXPECT_EQ(data, wantData);
}

TEST(UnitMapping, IsoTimestampsInUtcToTheSecond) {
    EXPECT_EQ(Feed::isoTimestamp(0), "");
    EXPECT_EQ(Feed::isoTimestamp(Feed::unitInfinity), "");
    EXPECT_EQ(Feed::isoTimestamp(1), "1970-01-01T00:00:00Z");
    EXPECT_EQ(Feed::isoTimestamp(1795633805999999ull), "2026-11-25T19:10:05Z");
    EXPECT_EQ(Feed::isoTimestamp(951782400000000ull), "2000-02-29T00:00:00Z");
}

TEST(UnitMapping, CommandLineQuotesWhatNeedsIt) {
    struct Case {
        std::vector<std::string> argv;
        const char* text;
    };
    for (const Case& c : {Case{{"/bin/sleep", "infinity"}, "/bin/sleep infinity"},
                          Case{{"/bin/sh", "-c", "sleep 1; exit 3"}, "/bin/sh -c \"sleep 1; exit 3\""},
                          Case{{"/bin/echo", ""}, "/bin/echo \"\""},
                          Case{{"/bin/echo", "a\"b", "c\\d"}, "/bin/echo \"a\\\"b\" \"c\\\\d\""},
                          Case{{"/bin/echo", "it's"}, "/bin/echo \"it's\""},
                          Case{{"/bin/echo", "tab\there"}, "/bin/echo \"tab\there\""}, Case{{}, ""}}) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(Feed::commandLineText(c.argv), c.text);
    }
}

TEST(UnitMapping, LongValuesAreCutAtACharacterBoundary) {
    std::string s(Feed::maxValueBytes - 1, 'a');
    s += "\xc3\xa9"; // a two-byte character across the limit
    s += "tail";
    std::string cut = Feed::cutToBytes(s, Feed::maxValueBytes);
    EXPECT_EQ(cut.size(), Feed::maxValueBytes - 1);
    EXPECT_TRUE(Feed::validUtf8(cut));
    EXPECT_EQ(Feed::cutToBytes("short", 10), "short");

    UnitInfo u = runningService();
    u.description = s;
    EXPECT_LE(Feed::daemonStateOf(u).options.at("Description").size(), Feed::maxValueBytes);
}

TEST(UnitMapping, PatternsAreCommaSeparatedGlobs) {
    std::vector<std::string> p = Feed::parseUnitPatterns(" ssh* , getty@*.service,velmar-?.service ");
    EXPECT_EQ(p, (std::vector<std::string>{"ssh*", "getty@*.service", "velmar-?.service"}));
    EXPECT_TRUE(Feed::unitMatches("ssh.service", p));
    EXPECT_FALSE(Feed::unitMatches("ssh.socket", p)); // services only
    EXPECT_TRUE(Feed::unitMatches("getty@tty1.service", p));
    EXPECT_TRUE(Feed::unitMatches("velmar-1.service", p));
    EXPECT_FALSE(Feed::unitMatches("velmar-12.service", p));
    EXPECT_FALSE(Feed::unitMatches("cron.service", p));
    std::vector<std::string> all = Feed::parseUnitPatterns(Feed::defaultUnitPatterns);
    EXPECT_TRUE(Feed::unitMatches("cron.service", all));
    EXPECT_FALSE(Feed::unitMatches("cron.timer", all));
}

TEST(UnitMapping, EmptyPatternsAreRefusedNamingTheItem) {
    EXPECT_THROW(Feed::parseUnitPatterns(""), std::invalid_argument);
    EXPECT_THROW(Feed::parseUnitPatterns("  "), std::invalid_argument);
    try {
        Feed::parseUnitPatterns("ssh*,,cron*");
        FAIL() << "no exception";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "unit patterns: item 2 is empty");
    }
}

} // namespace

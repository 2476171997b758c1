// The supervisor source's parts without a supervisord: XML-RPC decoding, the process ->
// daemon mapping, the tracker of what was handed over, and the listener's note format.
#include "feed/supervisor/EventNote.h"
#include "feed/supervisor/ProcessMapping.h"
#include "feed/supervisor/ProcessTracker.h"
#include "feed/supervisor/SupervisorClient.h"
#include "feed/supervisor/XmlRpc.h"

#include <gtest/gtest.h>

namespace {

using Feed::XmlRpc::Value;

std::string response(const std::string& value) {
    return "<?xml version='1.0'?>\n<methodResponse><params><param>" + value + "</param></params></methodResponse>\n";
}

Value str(std::string s) {
    return Value{std::move(s)};
}
Value num(std::int64_t i) {
    return Value{i};
}
Value flag(bool b) {
    return Value{b};
}

Value configEntry(const std::string& group, const std::string& name) {
    Feed::XmlRpc::Struct s{
        {"name", str(name)},
        {"group", str(group)},
        {"inuse", flag(true)},
        {"autostart", flag(true)},
        {"command", str("/bin/sleep 1000")},
        {"directory", str("none")},
        {"uid", str("none")},
        {"startsecs", num(1)},
        {"startretries", num(3)},
        {"stopsignal", num(15)},
        {"process_prio", num(999)},
    };
    return Value{s};
}

Feed::ProcessConfig config(const std::string& group, const std::string& name) {
    return Feed::processConfigOf(configEntry(group, name));
}

Feed::ProcessInfo info(const std::string& group, const std::string& name, std::int64_t state = 20) {
    Feed::ProcessInfo i;
    i.group = group;
    i.name = name;
    i.state = state;
    i.statename = state == 20 ? "RUNNING" : "STOPPED";
    i.pid = state == 20 ? 4242 : 0;
    i.start = 1700000000;
    return i;
}

TEST(XmlRpcDecode, ReadsEveryValueType) {
    Value v =
        Feed::XmlRpc::decodeResponse(response("<value><struct>"
                                              "<member><name>s</name><value><string>a &amp; b</string></value></member>"
                                              "<member><name>bare</name><value>plain</value></member>"
                                              "<member><name>i</name><value><int>-7</int></value></member>"
                                              "<member><name>i4</name><value><i4>12</i4></value></member>"
                                              "<member><name>b</name><value><boolean>1</boolean></value></member>"
                                              "<member><name>d</name><value><double>1.5</double></value></member>"
                                              "<member><name>n</name><value><nil/></value></member>"
                                              "<member><name>a</name><value><array><data><value><int>1</int></"
                                              "value><value>x</value></data></array></value></member>"
                                              "</struct></value>"));
    ASSERT_TRUE(v.structure());
    EXPECT_EQ(*v.member("s")->string(), "a & b");
    EXPECT_EQ(*v.member("bare")->string(), "plain");
    EXPECT_EQ(*v.member("i")->integer(), -7);
    EXPECT_EQ(*v.member("i4")->integer(), 12);
    EXPECT_EQ(*v.member("b")->boolean(), true);
    EXPECT_TRUE(v.member("n")->isNil());
    ASSERT_TRUE(v.member("a")->array());
    EXPECT_EQ(v.member("a")->array()->size(), 2u);
    EXPECT_EQ(v.member("missing"), nullptr);
}

TEST(XmlRpcDecode, FaultIsThrownWithCodeAndString) {
    std::string body =
        "<?xml version='1.0'?><methodResponse><fault><value><struct>"
        "<member><name>faultCode</name><value><int>10</int></value></member>"
        "<member><name>faultString</name><value><string>BAD_NAME: web:web_9</string></value></member>"
        "</struct></value></fault></methodResponse>";
    try {
        Feed::XmlRpc::decodeResponse(body);
        FAIL() << "no fault thrown";
    } catch (const Feed::XmlRpc::Fault& f) {
        EXPECT_EQ(f.code(), 10);
        EXPECT_EQ(f.text(), "BAD_NAME: web:web_9");
    }
}

TEST(XmlRpcDecode, RefusesWhatIsNotAResponse) {
    const char* bad[] = {
        "",
        "<methodResponse><params><param><value><int>1</int></value></param>", // not closed
        "<methodCall><params/></methodCall>",                                 // not a response
        "<methodResponse><params></params></methodResponse>",                 // no param
        "<methodResponse><params><param><value><int>x</int></value></param></params></methodResponse>",
        "<methodResponse><params><param><value><boolean>2</boolean></value></param></params></methodResponse>",
        "<methodResponse><params><param><value><blob/></value></param></params></methodResponse>",
        "<!DOCTYPE x [<!ENTITY a "
        "'b'>]><methodResponse><params><param><value>&a;</value></param></params></methodResponse>",
    };
    for (const char* body : bad) {
        SCOPED_TRACE(body);
        EXPECT_THROW(Feed::XmlRpc::decodeResponse(body), Feed::XmlRpc::BadReply);
    }
}

TEST(XmlRpcDecode, NotWellFormedSaysWhere) {
    try {
        Feed::XmlRpc::decodeResponse("<methodResponse>\n<params><param></params>");
        FAIL();
    } catch (const Feed::XmlRpc::BadReply& e) {
        EXPECT_NE(std::string(e.what()).find("line 2"), std::string::npos) << e.what();
    }
}

TEST(XmlRpcCall, EscapesParameters) {
    std::string body = Feed::XmlRpc::callBody("supervisor.getProcessInfo", {"a<b&c"});
    EXPECT_NE(body.find("<methodName>supervisor.getProcessInfo</methodName>"), std::string::npos);
    EXPECT_NE(body.find("<string>a&lt;b&amp;c</string>"), std::string::npos);
}

TEST(SupervisorEndpoint, ParsesSocketsAndUrls) {
    auto s = Feed::SupervisorEndpoint::parse("/run/supervisor.sock");
    EXPECT_EQ(s.socketPath, "/run/supervisor.sock");
    EXPECT_EQ(s.text(), "unix:///run/supervisor.sock");
    auto u = Feed::SupervisorEndpoint::parse("unix:///tmp/s.sock");
    EXPECT_EQ(u.socketPath, "/tmp/s.sock");
    auto h = Feed::SupervisorEndpoint::parse("http://127.0.0.1:9001");
    EXPECT_TRUE(h.socketPath.empty());
    EXPECT_EQ(h.url, "http://127.0.0.1:9001/RPC2");
    EXPECT_EQ(Feed::SupervisorEndpoint::parse("http://h:1/x").url, "http://h:1/x");
    EXPECT_THROW(Feed::SupervisorEndpoint::parse(""), std::invalid_argument);
    EXPECT_THROW(Feed::SupervisorEndpoint::parse("https://h:1"), std::invalid_argument);
    EXPECT_THROW(Feed::SupervisorEndpoint::parse("http://"), std::invalid_argument);
}

TEST(SupervisorClient, UnreachableSocketIsUnreachable) {
    Feed::SupervisorClient c(Feed::SupervisorEndpoint::parse("/nonexistent-dir/supervisor.sock"), {});
    try {
        c.call("supervisor.getState");
        FAIL();
    } catch (const Feed::SupervisorCallError& e) {
        EXPECT_EQ(e.kind(), Feed::SupervisorCallError::Kind::unreachable) << e.what();
        EXPECT_NE(std::string(e.what()).find("supervisor.getState"), std::string::npos);
    }
}

TEST(ProcessMapping, DaemonNameIsGroupColonNameUnlessTheyAreEqual) {
    EXPECT_EQ(Feed::processDaemonName("web", "web"), "web");
    EXPECT_EQ(Feed::processDaemonName("pool", "worker_00"), "pool:worker_00");
    EXPECT_EQ(Feed::processCallName("web", "web"), "web:web");
}

TEST(ProcessMapping, PatternsMatchNameOrGroupColonName) {
    auto p = Feed::parseProcessPatterns("web*, pool:*");
    EXPECT_TRUE(Feed::processMatches("web", "web", p));
    EXPECT_TRUE(Feed::processMatches("pool", "worker_01", p));
    EXPECT_FALSE(Feed::processMatches("other", "db", p));
    EXPECT_THROW(Feed::parseProcessPatterns(" "), std::invalid_argument);
    EXPECT_THROW(Feed::parseProcessPatterns("a,,b"), std::invalid_argument);
}

TEST(ProcessMapping, CommandExecutableIsTheFirstWordUnquoted) {
    struct Case {
        const char* command;
        const char* exe;
    };
    Case cases[] = {
        {"/bin/sleep 1000", "/bin/sleep"},
        {"  /usr/bin/env  A=1 prog", "/usr/bin/env"},
        {"'/opt/my app/run' -x", "/opt/my app/run"},
        {"\"/opt/a \\\"b\\\"\" --p=secret", "/opt/a \"b\""},
        {"/opt/my\\ app/run --token x", "/opt/my app/run"},
        {"prog", "prog"},
        {"", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.command);
        EXPECT_EQ(Feed::commandExecutable(c.command), c.exe);
    }
}

TEST(ProcessMapping, ConfigAndStatusOfARunningProcess) {
    Feed::ProcessConfig c = config("web", "web");
    c.directory = "/srv/web";
    c.uid = "33";
    c.command = "/usr/bin/web --password hunter2";
    Feed::ProcessInfo i = info("web", "web");
    i.description = "pid 4242, uptime 0:00:05";
    Feed::DaemonState d = Feed::daemonStateOf(&c, &i, Feed::CommandShown::executable);
    EXPECT_TRUE(d.hasConfig);
    EXPECT_TRUE(d.enabled);
    std::map<std::string, std::string> options{
        {"command", "/usr/bin/web"}, {"directory", "/srv/web"}, {"user", "33"},      {"startsecs", "1"},
        {"startretries", "3"},       {"stopsignal", "TERM"},    {"priority", "999"}, {"group", "web"}};
    EXPECT_EQ(d.options, options);
    EXPECT_TRUE(d.hasStatus);
    EXPECT_TRUE(d.running);
    std::map<std::string, std::string> data{
        {"statename", "RUNNING"}, {"pid", "4242"}, {"start", "2023-11-14T22:13:20Z"}};
    EXPECT_EQ(d.data, data);

    Feed::DaemonState whole = Feed::daemonStateOf(&c, &i, Feed::CommandShown::whole);
    EXPECT_EQ(whole.options.at("command"), "/usr/bin/web --password hunter2");
}

TEST(ProcessMapping, AnExitedProcessHasExitStatusAndStop) {
    Feed::ProcessConfig c = config("crash", "crash");
    c.autostart = false;
    c.autorestart = "unexpected";
    Feed::ProcessInfo i = info("crash", "crash", Feed::processExited);
    i.statename = "EXITED";
    i.stop = 1700000060;
    i.exitstatus = 3;
    i.description = "Nov 14 10:14 PM";
    Feed::DaemonState d = Feed::daemonStateOf(&c, &i, Feed::CommandShown::executable);
    EXPECT_FALSE(d.enabled);
    EXPECT_FALSE(d.running);
    EXPECT_EQ(d.options.at("autorestart"), "unexpected");
    EXPECT_EQ(d.data.at("statename"), "EXITED");
    EXPECT_EQ(d.data.at("exitstatus"), "3");
    EXPECT_EQ(d.data.at("stop"), "2023-11-14T22:14:20Z");
    EXPECT_EQ(d.data.at("description"), i.description);
    EXPECT_EQ(d.data.count("pid"), 0u);
}

TEST(ProcessMapping, BackoffHasSpawnErrorAndNoExitStatus) {
    Feed::ProcessInfo i = info("flap", "flap", 30);
    i.statename = "BACKOFF";
    i.stop = 1700000060;
    i.exitstatus = 0; // supervisord's "none"
    i.spawnerr = "Exited too quickly (process log may have details)";
    i.description = i.spawnerr;
    Feed::DaemonState d = Feed::daemonStateOf(nullptr, &i, Feed::CommandShown::executable);
    EXPECT_EQ(d.data.at("spawnerr"), i.spawnerr);
    EXPECT_EQ(d.data.count("exitstatus"), 0u);
    i.state = Feed::processRunning; // started again after a stop: no exit status
    i.statename = "RUNNING";
    i.pid = 77;
    EXPECT_EQ(Feed::daemonStateOf(nullptr, &i, Feed::CommandShown::executable).data.count("exitstatus"), 0u);
}

TEST(ProcessMapping, ANeverStartedProcessHasNoTimesNorExitStatus) {
    Feed::ProcessInfo i = info("idle", "idle", 0);
    i.start = 0;
    i.description = "Not started";
    Feed::DaemonState d = Feed::daemonStateOf(nullptr, &i, Feed::CommandShown::executable);
    EXPECT_FALSE(d.hasConfig);
    EXPECT_EQ(d.data, (std::map<std::string, std::string>{{"statename", "STOPPED"}, {"description", "Not started"}}));
}

TEST(ProcessMapping, EntryWithoutAMemberNamesIt) {
    Feed::XmlRpc::Value e = configEntry("a", "a");
    std::get<Feed::XmlRpc::Struct>(e.v).erase("startsecs");
    try {
        Feed::processConfigOf(e);
        FAIL();
    } catch (const std::invalid_argument& x) {
        EXPECT_NE(std::string(x.what()).find("startsecs"), std::string::npos);
    }
}

TEST(ProcessMapping, SignalAndTimeText) {
    EXPECT_EQ(Feed::signalText(15), "TERM");
    EXPECT_EQ(Feed::signalText(9), "KILL");
    EXPECT_EQ(Feed::signalText(999), "999");
    EXPECT_EQ(Feed::isoSeconds(0), "");
    EXPECT_EQ(Feed::isoSeconds(86400), "1970-01-02T00:00:00Z");
}

TEST(ProcessTracker, FullReadHandsOverEveryDaemonThenOnlyChanges) {
    Feed::ProcessTracker t({"*"}, Feed::CommandShown::executable);
    std::vector<Feed::ProcessConfig> cs{config("web", "web"), config("pool", "w_00"), config("pool", "w_01")};
    std::vector<Feed::ProcessInfo> is{info("web", "web"), info("pool", "w_00"), info("pool", "w_01")};
    auto r = t.replaceAll(cs, is);
    ASSERT_EQ(r.changed.size(), 3u);
    EXPECT_EQ(r.changed[0].first, "pool:w_00");
    EXPECT_EQ(r.changed[1].first, "pool:w_01");
    EXPECT_EQ(r.changed[2].first, "web");
    EXPECT_TRUE(t.replaceAll(cs, is).changed.empty());

    is[0] = info("web", "web", 0);
    r = t.replaceAll(cs, is);
    ASSERT_EQ(r.changed.size(), 1u);
    EXPECT_EQ(r.changed[0].first, "web");
    EXPECT_FALSE(r.changed[0].second->running);
}

TEST(ProcessTracker, ProcessMissingFromAFullReadGoes) {
    Feed::ProcessTracker t({"*"}, Feed::CommandShown::executable);
    t.replaceAll({config("a", "a"), config("b", "b")}, {info("a", "a"), info("b", "b")});
    auto r = t.replaceAll({config("b", "b")}, {info("b", "b")});
    ASSERT_EQ(r.changed.size(), 1u);
    EXPECT_EQ(r.changed[0].first, "a");
    EXPECT_FALSE(r.changed[0].second.has_value());
    EXPECT_EQ(t.daemons(), 1u);
}

TEST(ProcessTracker, ConfigNotInUseIsNoDaemon) {
    Feed::ProcessTracker t({"*"}, Feed::CommandShown::executable);
    Feed::ProcessConfig later = config("new", "new");
    later.inUse = false;
    auto r = t.replaceAll({config("a", "a"), later}, {info("a", "a")});
    ASSERT_EQ(r.changed.size(), 1u);
    EXPECT_EQ(r.changed[0].first, "a");
}

TEST(ProcessTracker, UpdateOfOneProcessHandsOverOnlyWhenItDiffers) {
    Feed::ProcessTracker t({"*"}, Feed::CommandShown::executable);
    t.replaceAll({config("a", "a")}, {info("a", "a")});
    EXPECT_TRUE(t.update(info("a", "a")).changed.empty());
    auto r = t.update(info("a", "a", 0));
    ASSERT_EQ(r.changed.size(), 1u);
    EXPECT_FALSE(r.changed[0].second->running);
    EXPECT_TRUE(r.changed[0].second->hasConfig);
    EXPECT_TRUE(t.update(info("zz", "zz")).needFullRead);
}

TEST(ProcessTracker, RemoveHandsOverAGoneDaemonOnce) {
    Feed::ProcessTracker t({"*"}, Feed::CommandShown::executable);
    t.replaceAll({config("a", "a")}, {info("a", "a")});
    auto r = t.remove("a", "a");
    ASSERT_EQ(r.changed.size(), 1u);
    EXPECT_FALSE(r.changed[0].second);
    EXPECT_TRUE(t.remove("a", "a").changed.empty());
}

TEST(ProcessTracker, PatternsLeaveOtherProcessesOut) {
    Feed::ProcessTracker t({"pool:*"}, Feed::CommandShown::executable);
    auto r = t.replaceAll({config("a", "a"), config("pool", "w")}, {info("a", "a"), info("pool", "w")});
    ASSERT_EQ(r.changed.size(), 1u);
    EXPECT_EQ(r.changed[0].first, "pool:w");
    EXPECT_TRUE(t.update(info("a", "a", 0)).changed.empty());
    EXPECT_FALSE(t.update(info("a", "a", 0)).needFullRead);
}

TEST(ProcessTracker, LongNamesAreSkippedSaidOnceAndCounted) {
    Feed::ProcessTracker t({"*"}, Feed::CommandShown::executable);
    std::string longName(33, 'x');
    auto r = t.replaceAll({config(longName, longName), config("a", "a")}, {info(longName, longName), info("a", "a")});
    ASSERT_EQ(r.changed.size(), 1u);
    ASSERT_EQ(r.lines.size(), 1u);
    EXPECT_NE(r.lines[0].find("33 bytes, more than 32"), std::string::npos) << r.lines[0];
    EXPECT_EQ(t.skippedNow(), 1u);
    r = t.replaceAll({config(longName, longName), config("a", "a")}, {info(longName, longName), info("a", "a")});
    EXPECT_TRUE(r.lines.empty());
    EXPECT_EQ(t.skippedNow(), 1u);
    std::string fits(32, 'y');
    r = t.replaceAll({config(fits, fits)}, {info(fits, fits)});
    EXPECT_EQ(t.skippedNow(), 0u);
    EXPECT_EQ(r.changed.size(), 2u); // "a" goes, the 32-byte name comes
}

TEST(EventNote, RoundTrips) {
    using K = Feed::EventNote::Kind;
    Feed::EventNote notes[] = {
        {K::process, "pool", "w_00"}, {K::group, "web", ""}, {K::tick, "", ""}, {K::hello, "", ""}, {K::bye, "", ""}};
    for (const auto& n : notes) {
        SCOPED_TRACE(Feed::encodeNote(n));
        EXPECT_EQ(Feed::decodeNote(Feed::encodeNote(n)), n);
    }
    EXPECT_FALSE(Feed::decodeNote("process\nonlygroup"));
    EXPECT_FALSE(Feed::decodeNote("process\n\nname"));
    EXPECT_FALSE(Feed::decodeNote("something"));
    EXPECT_FALSE(Feed::decodeNote("group\n"));
}

TEST(EventNote, EventsOfSupervisord) {
    auto n =
        Feed::noteForEvent("PROCESS_STATE_RUNNING", "processname:w_00 groupname:pool from_state:STARTING pid:2766");
    ASSERT_TRUE(n);
    EXPECT_EQ(n->kind, Feed::EventNote::Kind::process);
    EXPECT_EQ(n->group, "pool");
    EXPECT_EQ(n->name, "w_00");
    auto g = Feed::noteForEvent("PROCESS_GROUP_REMOVED", "groupname:web\n");
    ASSERT_TRUE(g);
    EXPECT_EQ(g->kind, Feed::EventNote::Kind::group);
    EXPECT_EQ(g->group, "web");
    EXPECT_EQ(Feed::noteForEvent("TICK_5", "when:1700000000")->kind, Feed::EventNote::Kind::tick);
    EXPECT_FALSE(Feed::noteForEvent("PROCESS_LOG_STDOUT", "processname:a groupname:a"));
    EXPECT_FALSE(Feed::noteForEvent("PROCESS_STATE_EXITED", "groupname:a"));
    auto header = Feed::eventTokens("ver:3.0 server:supervisor serial:21 eventname:TICK_5 len:15\n");
    EXPECT_EQ(header.at("len"), "15");
    EXPECT_EQ(header.at("eventname"), "TICK_5");
}

} // namespace

namespace {

TEST(ProcessTracker, PidsAreThoseOfKnownProcessesThatHaveOne) {
    Feed::ProcessTracker t({"*"}, Feed::CommandShown::executable);
    t.replaceAll({config("a", "a"), config("b", "b")}, {info("a", "a"), info("b", "b", 0)});
    auto pids = t.pids();
    ASSERT_EQ(pids.size(), 1u);
    EXPECT_EQ(pids[0].pid, 4242);
    EXPECT_EQ(pids[0].name, "a");
    ASSERT_NE(t.info("b", "b"), nullptr);
    EXPECT_EQ(t.info("b", "b")->statename, "STOPPED");
    EXPECT_EQ(t.info("zz", "zz"), nullptr);
}

} // namespace

// The state file reader: what it accepts, what it refuses and why.
#include "FeedTestSupport.h"

using namespace FeedTest;

namespace {

TEST(StateParse, DemoState) {
    LauncherState s = loadStateFile(VELMAR_SOURCE_DIR "/examples/demo-state.json");
    EXPECT_EQ(s.size(), 13u);
    const DaemonState& bgpd = s.at("bgpd");
    EXPECT_TRUE(bgpd.hasConfig);
    EXPECT_TRUE(bgpd.enabled);
    EXPECT_EQ(bgpd.options.size(), 5u);
    EXPECT_EQ(bgpd.options.at("asn"), "65001");
    EXPECT_TRUE(bgpd.hasStatus);
    EXPECT_TRUE(bgpd.running);
    EXPECT_EQ(bgpd.data.at("pid"), "4242");
    EXPECT_FALSE(s.at("ntpd").enabled);
    EXPECT_EQ(s.at("ntpd").data.at("last-exit"), "stopped by launcher");
    EXPECT_TRUE(s.at("sflowd").hasConfig);
    EXPECT_FALSE(s.at("sflowd").hasStatus);
    EXPECT_TRUE(s.at("vrrpd").hasConfig);
    EXPECT_TRUE(s.at("vrrpd").options.empty());
    EXPECT_FALSE(s.at("watchdogd").hasConfig);
    EXPECT_EQ(s.at("watchdogd").data.size(), 3u);
}

TEST(StateParse, AbsentMembersMeanFalseAndNothing) {
    LauncherState s =
        parseState(R"J({"daemons": {"a": {}, "b": {"config": {}}, "c": {"status": {"data": {}}}}})J", file);
    ASSERT_EQ(s.size(), 3u);
    EXPECT_EQ(s.at("a"), DaemonState{});
    EXPECT_TRUE(s.at("b").hasConfig);
    EXPECT_FALSE(s.at("b").enabled);
    EXPECT_FALSE(s.at("b").hasStatus);
    EXPECT_TRUE(s.at("c").hasStatus);
    EXPECT_FALSE(s.at("c").running);
    EXPECT_TRUE(parseState(R"J({"daemons": {}})J", file).empty());
}

TEST(StateParse, KeepsEmptyValuesEscapesAndUtf8) {
    LauncherState s = parseState(
        R"J({"daemons": {"r\u00e9seau": {"config": {"enabled": true, "options": {"": "", "e": "", "q": "a\"b\\c\n\u20ac\ud83d\ude00"}}}}})J",
        file);
    const DaemonState& d = s.at("r\xc3\xa9seau");
    EXPECT_EQ(d.options.size(), 3u);
    EXPECT_EQ(d.options.at(""), "");
    EXPECT_EQ(d.options.at("e"), "");
    EXPECT_EQ(d.options.at("q"), "a\"b\\c\n\xe2\x82\xac\xf0\x9f\x98\x80");
}

TEST(StateParse, LimitsAreInclusive) {
    std::string name32(32, 'n'), key64(64, 'k'), value10240(10240, 'v');
    LauncherState s = parseState(
        oneDaemon(name32, R"J({"config": {"options": {")J" + key64 + R"J(": ")J" + value10240 + R"J("}}})J"), file);
    EXPECT_EQ(s.at(name32).options.at(key64).size(), 10240u);
}

TEST(StateParse, RoundTripsRandomStates) {
    std::mt19937 rng(7);
    for (int i = 0; i < 50; ++i) {
        LauncherState s = randomState(rng);
        EXPECT_EQ(parseState(toJson(s), file), s);
    }
}

// Every refusal of the reader: the file's text and the one line that refuses it.
TEST(StateParse, RefusesEachBadFileWithItsLine) {
    const std::string name33(33, 'n');
    const std::string key65(65, 'k');
    const std::string key1025(1025, 'k');
    const std::string value10241(10241, 'v');
    struct Case {
        const char* what;
        std::string text;
        std::string message;
    };
    const Case cases[] = {
        {"JSON syntax", "{\n  \"daemons\": {\n    \"bgpd\" {}\n  }\n}",
         "state file /x/state.json: line 3, column 12: invalid JSON: missing a colon after a name of object member"},
        {"JSON syntax", "{\"daemons\": {},}",
         "state file /x/state.json: line 1, column 16: invalid JSON: missing a name for object member"},
        {"JSON syntax", "{\"daemons\": {\"a\": {}}",
         "state file /x/state.json: line 1, column 22: invalid JSON: missing a comma or '}' after an object member"},
        {"JSON syntax", "{\"daemons\": {}} {}",
         "state file /x/state.json: line 1, column 17: invalid JSON: the document root must not be followed by other "
         "values"},
        {"JSON syntax", "{\"daemons\": {\"a\": {\"config\": {\"enabled\": tru}}}}",
         "state file /x/state.json: line 1, column 45: invalid JSON: invalid value"},
        {"JSON syntax", "{\"daemons\": {\"a\nb\": {}}}",
         "state file /x/state.json: line 1, column 16: invalid JSON: control character in a string (write it as an "
         "escape)"},
        {"JSON syntax", std::string("{\"daemons\":\n {}}\0", 17),
         "state file /x/state.json: line 2, column 5: invalid JSON: NUL byte"},
        {"wrong type", "[]", "state file /x/state.json: top level: must be an object, not an array (line 1)"},
        {"wrong type", "\"x\"", "state file /x/state.json: top level: must be an object, not a string (line 1)"},
        {"wrong type", "{\"daemons\": []}",
         "state file /x/state.json: \"daemons\": must be an object, not an array (line 1)"},
        {"wrong type", oneDaemon("bgpd", "true"),
         "state file /x/state.json: daemon \"bgpd\": must be an object, not a boolean (line 1)"},
        {"wrong type", oneDaemon("bgpd", R"J({"config": "on"})J"),
         "state file /x/state.json: daemon \"bgpd\" config: must be an object, not a string (line 1)"},
        {"wrong type", oneDaemon("bgpd", R"J({"config": {"enabled": "yes"}})J"),
         "state file /x/state.json: daemon \"bgpd\" config \"enabled\": must be true or false, not a string (line 1)"},
        {"wrong type", oneDaemon("bgpd", R"J({"status": {"running": 1}})J"),
         "state file /x/state.json: daemon \"bgpd\" status \"running\": must be true or false, not a number (line 1)"},
        {"wrong type", oneDaemon("bgpd", R"J({"config": {"options": ["asn"]}})J"),
         "state file /x/state.json: daemon \"bgpd\" config \"options\": must be an object, not an array (line 1)"},
        {"wrong type", oneDaemon("bgpd", R"J({"config": {"options": {"asn": 65001}}})J"),
         "state file /x/state.json: daemon \"bgpd\" option \"asn\": value must be a string, not a number (line 1)"},
        {"wrong type", oneDaemon("bgpd", "{\n\"status\": {\n\"data\": {\n\"pid\": null}}}"),
         "state file /x/state.json: daemon \"bgpd\" data \"pid\": value must be a string, not null (line 4)"},
        {"wrong type", oneDaemon("bgpd", R"J({"status": {"data": {"pid": {"n": "1"}}}})J"),
         "state file /x/state.json: daemon \"bgpd\" data \"pid\": value must be a string, not an object (line 1)"},
        // Numbers of any size are refused as numbers, not as JSON errors.
        {"wrong type", oneDaemon("bgpd", R"J({"config": {"options": {"big": 1e999}}})J"),
         "state file /x/state.json: daemon \"bgpd\" option \"big\": value must be a string, not a number (line 1)"},
        {"unknown member", R"J({"daemons": {}, "version": 2})J",
         "state file /x/state.json: top level: unknown member \"version\", expected \"daemons\" (line 1)"},
        {"unknown member", oneDaemon("bgpd", R"J({"confg": {}})J"),
         "state file /x/state.json: daemon \"bgpd\": unknown member \"confg\", expected \"config\" or \"status\" (line "
         "1)"},
        {"unknown member", oneDaemon("bgpd", R"J({"config": {"enable": true}})J"),
         "state file /x/state.json: daemon \"bgpd\" config: unknown member \"enable\", expected \"enabled\" or "
         "\"options\" (line 1)"},
        {"unknown member", oneDaemon("bgpd", R"J({"status": {"options": {}}})J"),
         "state file /x/state.json: daemon \"bgpd\" status: unknown member \"options\", expected \"running\" or "
         "\"data\" (line 1)"},
        {"missing or empty", "{}", "state file /x/state.json: top level: no \"daemons\" member (line 1)"},
        {"byte-order mark", "\xEF\xBB\xBF{\"daemons\": {}}",
         "state file /x/state.json: starts with a UTF-8 byte-order mark (EF BB BF), which JSON does not allow: write "
         "the file without it"},
        {"missing or empty", "", "state file /x/state.json: file is empty"},
        {"missing or empty", " \n\t\r\n", "state file /x/state.json: file is empty"},
        {"twice", "{\"daemons\": {}, \"daemons\": {}}",
         "state file /x/state.json: top level: member \"daemons\" appears twice (line 1)"},
        {"twice", "{\"daemons\": {\n\"bgpd\": {},\n\"ntpd\": {},\n\"bgpd\": {}}}",
         "state file /x/state.json: daemon \"bgpd\": appears twice (line 4)"},
        {"twice", oneDaemon("bgpd", R"J({"config": {}, "status": {}, "config": {}})J"),
         "state file /x/state.json: daemon \"bgpd\": member \"config\" appears twice (line 1)"},
        {"twice", oneDaemon("bgpd", R"J({"config": {"enabled": true, "enabled": false}})J"),
         "state file /x/state.json: daemon \"bgpd\" config: member \"enabled\" appears twice (line 1)"},
        {"twice", oneDaemon("bgpd", "{\"config\": {\"options\": {\n\"asn\": \"1\",\n\"asn\": \"2\"}}}"),
         "state file /x/state.json: daemon \"bgpd\" option \"asn\": appears twice (line 3)"},
        {"twice", oneDaemon("bgpd", R"J({"status": {"data": {"pid": "", "pid": ""}}})J"),
         "state file /x/state.json: daemon \"bgpd\" data \"pid\": appears twice (line 1)"},
        {"too long", oneDaemon(name33, "{}"),
         "state file /x/state.json: daemon \"" + name33 + "\": name is 33 bytes, more than 32 (line 1)"},
        {"too long", oneDaemon("", "{}"), "state file /x/state.json: daemon \"\": name is empty (line 1)"},
        {"too long", oneDaemon("bgpd", R"J({"config": {"options": {")J" + key65 + R"J(": "1"}}})J"),
         "state file /x/state.json: daemon \"bgpd\" option \"" + std::string(64, 'k') +
             "...\": key is 65 bytes, more than 64 (line 1)"},
        {"too long", oneDaemon("bgpd", R"J({"status": {"data": {")J" + key1025 + R"J(": "1"}}})J"),
         "state file /x/state.json: daemon \"bgpd\" data \"" + std::string(64, 'k') +
             "...\": key is 1025 bytes, more than 64 (line 1)"},
        {"too long", oneDaemon("bgpd", "{\"config\": {\"options\": {\n\"asn\": \"" + value10241 + "\"}}}"),
         "state file /x/state.json: daemon \"bgpd\" option \"asn\": value is 10241 bytes, more than 10240 (line 2)"},
        {"not UTF-8",
         oneDaemon("b\xff"
                   "d",
                   "{}"),
         "state file /x/state.json: daemon \"b\\xffd\": name is not valid UTF-8 (line 1)"},
        {"not UTF-8", oneDaemon("bgpd", "{\"config\": {\"options\": {\"a\xc3\": \"1\"}}}"),
         "state file /x/state.json: daemon \"bgpd\" option \"a\\xc3\": key is not valid UTF-8 (line 1)"},
        {"not UTF-8", oneDaemon("bgpd", "{\"status\": {\"data\": {\"pid\": \"\xc0\xaf\"}}}"),
         "state file /x/state.json: daemon \"bgpd\" data \"pid\": value is not valid UTF-8 (line 1)"},
        // A lone surrogate written as an escape is not a character either.
        {"not UTF-8", oneDaemon("bgpd", R"J({"status": {"data": {"pid": "\udc00"}}})J"),
         "state file /x/state.json: daemon \"bgpd\" data \"pid\": value is not valid UTF-8 (line 1)"},
        {"not UTF-8", oneDaemon("bgpd", R"J({"status": {"data": {"pid": "\ud800x"}}})J"),
         "state file /x/state.json: line 1, column 51: invalid JSON: the surrogate pair in string is invalid"},
        // Names in messages stay on one line.
        {"not UTF-8", oneDaemon("a\\n\\u0001\\\"b", "[]"),
         "state file /x/state.json: daemon \"a\\n\\x01\\\"b\": must be an object, not an array (line 1)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.what) + ": " + c.text.substr(0, 80));
        EXPECT_EQ(refusal(c.text), c.message);
    }
}

TEST(StateParse, SkipsBadDaemonEntriesWhenAsked) {
    const std::string name33(33, 'n');
    SkippedDaemons skipped;
    LauncherState s = parseState(
        "{\"daemons\": {\n"
        "\"a\": {\"config\": {\"enabled\": \"yes\", \"options\": {\"x\": [1, {\"y\": 2}]}}},\n"
        "\"b\": {\"config\": {\"enabled\": true}},\n"
        "\"" +
            name33 +
            "\": {\"status\": {}},\n"
            "\"c\": \"on\",\n"
            "\"b\": {},\n"
            "\"\": {},\n"
            "\"d\": {\"status\": {\"runing\": true}},\n"
            "\"b\": {},\n"
            "\"e\": {\"status\": {\"running\": true}}}}",
        file, skipped);
    DaemonState e;
    e.hasStatus = true;
    e.running = true;
    EXPECT_EQ(s, (LauncherState{{"e", e}}));
    const std::string p = "state file /x/state.json: ";
    ASSERT_EQ(skipped.size(), 7u);
    EXPECT_EQ(skipped[0].name, "a");
    EXPECT_TRUE(skipped[0].indexable);
    EXPECT_EQ(skipped[0].message, p + "daemon \"a\" config \"enabled\": must be true or false, not a string (line 2)");
    EXPECT_EQ(skipped[1].name, name33);
    EXPECT_FALSE(skipped[1].indexable);
    EXPECT_EQ(skipped[1].message, p + "daemon \"" + name33 + "\": name is 33 bytes, more than 32 (line 4)");
    EXPECT_EQ(skipped[2].message, p + "daemon \"c\": must be an object, not a string (line 5)");
    EXPECT_EQ(skipped[3].name, "b");
    EXPECT_EQ(skipped[3].message, p + "daemon \"b\": appears twice (line 6)");
    EXPECT_FALSE(skipped[4].indexable);
    EXPECT_EQ(skipped[4].message, p + "daemon \"\": name is empty (line 7)");
    EXPECT_EQ(skipped[5].message,
              p + "daemon \"d\" status: unknown member \"runing\", expected \"running\" or \"data\" (line 8)");
    EXPECT_EQ(skipped[6].message, p + "daemon \"b\": appears twice (line 9)");

    // The file as a whole is still refused for its syntax and its top level.
    EXPECT_THROW(parseState("{\"daemons\": {\"a\": {\"config\": 1}, }}", file, skipped), StateError);
    EXPECT_THROW(parseState("{\"daemons\": {\"a\": {}}, \"x\": 1}", file, skipped), StateError);
    EXPECT_THROW(parseState("{\"daemons\": []}", file, skipped), StateError);
    // Without a place for skipped daemons, a bad one refuses the file.
    EXPECT_THROW(parseState("{\"daemons\": {\"c\": \"on\"}}", file), StateError);
}

TEST(StateLoad, RefusesMissingUnreadableAndOddFiles) {
    TempDir dir;
    std::string missing = (dir.path() / "none.json").string();
    EXPECT_EQ(loadRefusal(missing), "state file " + missing + ": cannot open: No such file or directory");
    EXPECT_EQ(loadRefusal(dir.path().string()), "state file " + dir.path().string() + ": not a regular file");

    fs::path empty = dir.path() / "empty.json";
    writeFile(empty, "");
    EXPECT_EQ(loadRefusal(empty.string()), "state file " + empty.string() + ": file is empty");

    fs::path huge = dir.path() / "huge.json"; // sparse: takes no room
    writeFile(huge, "");
    fs::resize_file(huge, maxStateFileBytes + 1);
    EXPECT_EQ(loadRefusal(huge.string()),
              "state file " + huge.string() + ": file is 268435457 bytes, more than 268435456");

    fs::path good = dir.path() / "good.json";
    writeFile(good, "{\"daemons\": {\"bgpd\": {}}}");
    EXPECT_EQ(loadStateFile(good.string()).size(), 1u);
    if (::geteuid() != 0) { // root reads anything
        ::chmod(good.c_str(), 0);
        EXPECT_EQ(loadRefusal(good.string()), "state file " + good.string() + ": cannot open: Permission denied");
    }
}

// ---------------------------------------------------------------------------------------
// Differences

} // namespace

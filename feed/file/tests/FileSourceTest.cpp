#include "feed/core/StateFeed.h"
#include "feed/file/FileSource.h"
#include "InotifyFaults.h"
#include "feed/file/StateReader.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

using namespace Feed;
using GenericAgent::DaemonMib;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const std::string file = "/x/state.json";

// The message of the refusal of text, or "accepted".
std::string refusal(std::string_view text) {
    try {
        parseState(text, file);
        return "accepted";
    } catch (const StateError& e) {
        return e.what();
    }
}

std::string loadRefusal(const std::string& path) {
    try {
        loadStateFile(path);
        return "accepted";
    } catch (const StateError& e) {
        return e.what();
    }
}

// A daemon's JSON wrapped in a whole file.
std::string oneDaemon(const std::string& name, const std::string& body) {
    return "{\"daemons\": {\"" + name + "\": " + body + "}}";
}

std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
        unsigned char u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", u);
            out += buf;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string jsonKeys(const std::map<std::string, std::string>& keys) {
    std::string out = "{";
    for (const auto& [k, v] : keys) out += (out.size() > 1 ? ", " : "") + jsonString(k) + ": " + jsonString(v);
    return out + "}";
}

// The file text of a state (one daemon per line).
std::string toJson(const LauncherState& state) {
    std::string out = "{\"daemons\": {";
    bool first = true;
    for (const auto& [name, d] : state) {
        out += first ? "\n  " : ",\n  ";
        first = false;
        out += jsonString(name) + ": {";
        if (d.hasConfig)
            out += "\"config\": {\"enabled\": " + std::string(d.enabled ? "true" : "false") +
                   ", \"options\": " + jsonKeys(d.options) + "}";
        if (d.hasStatus)
            out += std::string(d.hasConfig ? ", " : "") + "\"status\": {\"running\": " +
                   (d.running ? "true" : "false") + ", \"data\": " + jsonKeys(d.data) + "}";
        out += "}";
    }
    return out + "\n}}\n";
}

DaemonState daemonWith(std::map<std::string, std::string> options, bool enabled = true,
                   std::optional<std::map<std::string, std::string>> data = std::nullopt, bool running = true) {
    DaemonState d;
    d.hasConfig = true;
    d.enabled = enabled;
    d.options = std::move(options);
    if (data) {
        d.hasStatus = true;
        d.running = running;
        d.data = std::move(*data);
    }
    return d;
}

// Every row of the model as text, sorted: "E name=flag", "O name/key=value", ...
std::vector<std::string> rowsOf(const DaemonMib& mib) {
    std::vector<std::string> out;
    for (auto it = mib.enabledTable().begin(); !it.isEnd(); ++it)
        out.push_back("E " + it->agentName().str().stdString() + "=" + (it->enabled() ? "1" : "0"));
    for (auto it = mib.optionTable().begin(); !it.isEnd(); ++it)
        out.push_back("O " + it->agentName().str().stdString() + "/" + it->key().str().stdString() + "=" +
                      it->val().stdString());
    for (auto it = mib.runningTable().begin(); !it.isEnd(); ++it)
        out.push_back("R " + it->agentName().str().stdString() + "=" + (it->running() ? "1" : "0"));
    for (auto it = mib.dataTable().begin(); !it.isEnd(); ++it)
        out.push_back("D " + it->agentName().str().stdString() + "/" + it->key().str().stdString() + "=" +
                      it->val().stdString());
    std::sort(out.begin(), out.end());
    return out;
}

// The rows a state should be served as.
std::vector<std::string> expectedRows(const LauncherState& state) {
    std::vector<std::string> out;
    for (const auto& [name, d] : state) {
        out.push_back("E " + name + "=" + (d.enabled ? "1" : "0"));
        out.push_back("R " + name + "=" + (d.running ? "1" : "0"));
        for (const auto& [k, v] : d.options)
            if (!v.empty()) out.push_back("O " + name + "/" + k + "=" + v);
        for (const auto& [k, v] : d.data)
            if (!v.empty()) out.push_back("D " + name + "/" + k + "=" + v);
    }
    std::sort(out.begin(), out.end());
    return out;
}

// Hears every row added or removed.
class Recorder : public DaemonMib::NotifieeConst {
public:
    using DaemonMib::NotifieeConst::onDataTable;
    using DaemonMib::NotifieeConst::onEnabledTable;
    using DaemonMib::NotifieeConst::onOptionTable;
    using DaemonMib::NotifieeConst::onRunningTable;
    std::vector<std::string> heard;
    void onEnabledTable(Snmp::String n) override { heard.push_back("enabled " + n.str().stdString()); }
    void onOptionTable(const GenericAgent::OptionTableIndex& i) override {
        heard.push_back("option " + i.agentName().str().stdString() + "/" + i.key().str().stdString());
    }
    void onRunningTable(Snmp::String n) override { heard.push_back("running " + n.str().stdString()); }
    void onDataTable(const GenericAgent::DataTableIndex& i) override {
        heard.push_back("data " + i.agentName().str().stdString() + "/" + i.key().str().stdString());
    }
};

Orbel::Ptr<Recorder> listen(const Orbel::Ptr<DaemonMib>& mib) {
    Orbel::Ptr<Recorder> r = new Recorder;
    r->notifierIs(mib);
    r->isRegisteredNotifieeIs(true);
    return r;
}

// Applies the difference to `to` and checks what is served.
void applyState(StateApplier& applier, const LauncherState& to) {
    applier.apply(diffStates(applier.applied(), to));
    ASSERT_EQ(applier.applied(), to);
    ASSERT_EQ(rowsOf(*applier.mib()), expectedRows(to));
}

// A temporary directory, removed with everything in it.
class TempDir {
public:
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "statefeed-test-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

// Writes beside the file and renames over it, as the launcher does.
void replaceFile(const fs::path& path, const std::string& text) {
    fs::path tmp = path;
    tmp += ".tmp";
    writeFile(tmp, text);
    fs::rename(tmp, path);
}

// Accepted reads of the feed's file source, the one when the watch is armed included.
std::uint64_t reads(StateFeed& feed) { return dynamic_cast<FileSource&>(feed.source()).reads(); }

// Handles the feed's events until pred() holds; false when 5 s pass first.
template <class Pred>
bool pumpUntil(StateFeed& feed, Pred pred) {
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (!pred()) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd p{feed.eventFd(), POLLIN, 0};
        ::poll(&p, 1, static_cast<int>(std::min<long>(left.count(), 100)));
        if (p.revents & POLLIN) feed.handleEvent();
    }
    return true;
}

bool readable(int fd, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, timeoutMs) == 1 && (p.revents & POLLIN);
}

bool contains(const std::vector<std::string>& lines, const std::string& part) {
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.find(part) != std::string::npos; });
}

// A random state over a small name space, so that successive ones overlap.
LauncherState randomState(std::mt19937& rng) {
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    const std::vector<std::string> values = {"", "1", "2", "a longer value", "x"};
    LauncherState s;
    for (int i = 0; i < 8; ++i) {
        if (pick(3) == 0) continue;
        DaemonState d;
        if (pick(4) != 0) {
            d.hasConfig = true;
            d.enabled = pick(2) == 0;
            for (int k = 0; k < 5; ++k)
                if (pick(2) == 0) d.options["opt" + std::to_string(k)] = values[static_cast<std::size_t>(pick(5))];
        }
        if (pick(4) != 0) {
            d.hasStatus = true;
            d.running = pick(2) == 0;
            for (int k = 0; k < 5; ++k)
                if (pick(2) == 0) d.data["key" + std::to_string(k)] = values[static_cast<std::size_t>(pick(5))];
        }
        s["d" + std::to_string(i)] = d;
    }
    return s;
}

} // namespace

// ---------------------------------------------------------------------------------------
// Parsing

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
    LauncherState s = parseState(R"J({"daemons": {"a": {}, "b": {"config": {}}, "c": {"status": {"data": {}}}}})J", file);
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
         "state file /x/state.json: line 1, column 17: invalid JSON: the document root must not be followed by other values"},
        {"JSON syntax", "{\"daemons\": {\"a\": {\"config\": {\"enabled\": tru}}}}",
         "state file /x/state.json: line 1, column 45: invalid JSON: invalid value"},
        {"JSON syntax", "{\"daemons\": {\"a\nb\": {}}}",
         "state file /x/state.json: line 1, column 16: invalid JSON: control character in a string (write it as an escape)"},
        {"JSON syntax", std::string("{\"daemons\":\n {}}\0", 17),
         "state file /x/state.json: line 2, column 5: invalid JSON: NUL byte"},
        {"wrong type", "[]",
         "state file /x/state.json: top level: must be an object, not an array (line 1)"},
        {"wrong type", "\"x\"",
         "state file /x/state.json: top level: must be an object, not a string (line 1)"},
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
         "state file /x/state.json: daemon \"bgpd\": unknown member \"confg\", expected \"config\" or \"status\" (line 1)"},
        {"unknown member", oneDaemon("bgpd", R"J({"config": {"enable": true}})J"),
         "state file /x/state.json: daemon \"bgpd\" config: unknown member \"enable\", expected \"enabled\" or \"options\" (line 1)"},
        {"unknown member", oneDaemon("bgpd", R"J({"status": {"options": {}}})J"),
         "state file /x/state.json: daemon \"bgpd\" status: unknown member \"options\", expected \"running\" or \"data\" (line 1)"},
        {"missing or empty", "{}",
         "state file /x/state.json: top level: no \"daemons\" member (line 1)"},
        {"byte-order mark", "\xEF\xBB\xBF{\"daemons\": {}}",
         "state file /x/state.json: starts with a UTF-8 byte-order mark (EF BB BF), which JSON does not allow: write "
         "the file without it"},
        {"missing or empty", "",
         "state file /x/state.json: file is empty"},
        {"missing or empty", " \n\t\r\n",
         "state file /x/state.json: file is empty"},
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
        {"too long", oneDaemon("", "{}"),
         "state file /x/state.json: daemon \"\": name is empty (line 1)"},
        {"too long", oneDaemon("bgpd", R"J({"config": {"options": {")J" + key65 + R"J(": "1"}}})J"),
         "state file /x/state.json: daemon \"bgpd\" option \"" + std::string(64, 'k') + "...\": key is 65 bytes, more than 64 (line 1)"},
        {"too long", oneDaemon("bgpd", R"J({"status": {"data": {")J" + key1025 + R"J(": "1"}}})J"),
         "state file /x/state.json: daemon \"bgpd\" data \"" + std::string(64, 'k') + "...\": key is 1025 bytes, more than 64 (line 1)"},
        {"too long", oneDaemon("bgpd", "{\"config\": {\"options\": {\n\"asn\": \"" + value10241 + "\"}}}"),
         "state file /x/state.json: daemon \"bgpd\" option \"asn\": value is 10241 bytes, more than 10240 (line 2)"},
        {"not UTF-8", oneDaemon("b\xff" "d", "{}"),
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

TEST(StateLoad, RefusesMissingUnreadableAndOddFiles) {
    TempDir dir;
    std::string missing = (dir.path() / "none.json").string();
    EXPECT_EQ(loadRefusal(missing), "state file " + missing + ": cannot open: No such file or directory");
    EXPECT_EQ(loadRefusal(dir.path().string()), "state file " + dir.path().string() + ": not a regular file");

    fs::path empty = dir.path() / "empty.json";
    writeFile(empty, "");
    EXPECT_EQ(loadRefusal(empty.string()), "state file " + empty.string() + ": file is empty");

    fs::path huge = dir.path() / "huge.json";   // sparse: takes no room
    writeFile(huge, "");
    fs::resize_file(huge, maxStateFileBytes + 1);
    EXPECT_EQ(loadRefusal(huge.string()),
              "state file " + huge.string() + ": file is 268435457 bytes, more than 268435456");

    fs::path good = dir.path() / "good.json";
    writeFile(good, "{\"daemons\": {\"bgpd\": {}}}");
    EXPECT_EQ(loadStateFile(good.string()).size(), 1u);
    if (::geteuid() != 0) {   // root reads anything
        ::chmod(good.c_str(), 0);
        EXPECT_EQ(loadRefusal(good.string()), "state file " + good.string() + ": cannot open: Permission denied");
    }
}

// ---------------------------------------------------------------------------------------
// Differences

TEST(StateDiff, EqualStatesDifferInNothing) {
    std::mt19937 rng(3);
    LauncherState s = randomState(rng);
    StateDiff d = diffStates(s, s);
    EXPECT_TRUE(d.empty());
    EXPECT_EQ(d.changes(), 0u);
}

TEST(StateDiff, CountsWhatApplyingDoes) {
    LauncherState a, b;
    a["kept"] = daemonWith({{"same", "1"}, {"changed", "1"}, {"emptied", "1"}, {"gone", "1"}, {"blank", ""}}, true);
    a["old"] = daemonWith({{"x", "1"}}, false, std::map<std::string, std::string>{{"pid", "1"}});
    b["kept"] = daemonWith({{"same", "1"}, {"changed", "2"}, {"emptied", ""}, {"new", "1"}, {"blank2", ""}}, false);
    b["new"] = DaemonState{};
    StateDiff d = diffStates(a, b);
    ASSERT_EQ(d.daemons.size(), 3u);
    EXPECT_EQ(d.daemons[0].name, "kept");
    const SectionChange& c = d.daemons[0].config;
    EXPECT_TRUE(c.before && c.after);
    EXPECT_EQ(c.flag, std::optional<bool>(false));
    std::vector<KeyChange> keys = {
        {"blank", std::nullopt, false, false}, {"blank2", "", false, false}, {"changed", "2", true, true},
        {"emptied", "", true, false},          {"gone", std::nullopt, true, false}, {"new", "1", false, true},
    };
    EXPECT_EQ(c.keys, keys);
    EXPECT_TRUE(d.daemons[0].status.empty());
    EXPECT_FALSE(d.daemons[1].before);   // "new"
    EXPECT_FALSE(d.daemons[2].after);    // "old"

    StateDiff::Counts counts = d.counts();
    EXPECT_EQ(counts.daemonsAdded, 1u);
    EXPECT_EQ(counts.daemonsRemoved, 1u);
    EXPECT_EQ(counts.rowsAdded, 1u + 2u);               // option "new"; new's enabled and running
    EXPECT_EQ(counts.rowsRemoved, 2u + 4u);             // "emptied", "gone"; old's four rows
    EXPECT_EQ(counts.inPlace, 1u + 3u);                 // the flag; "changed", "blank", "blank2"
    EXPECT_EQ(d.changes(), 13u);
    EXPECT_EQ(d.summary(), "applied 13 changes (daemons: 1 added, 1 removed; rows: 3 added, 6 removed; 4 changed in place)");
}

// ---------------------------------------------------------------------------------------
// Applying

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
    EXPECT_EQ(applier.config("ntpd").ptr(), config.ptr());   // the other side stays
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
    EXPECT_EQ(&applier.applied(), &applier.applied());   // built once until the next change
    EXPECT_EQ(mib->version(), version);
    applier.apply(diffStates(applier.applied(), {}));
    EXPECT_TRUE(applier.applied().empty());
}

TEST(StateApplier, LeavesNothingBehind) {
    GenericAgent::daemonMibFactory("warm-up");   // registers the types once
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
        EXPECT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 2; }));   // watching
        return feed;
    }

    TempDir dir;
    fs::path path = dir.path() / "state.json";
    Orbel::Ptr<DaemonMib> mib = GenericAgent::daemonMibFactory("daemonMIB");
    std::vector<std::string> log;

private:
    std::unique_ptr<StateFeed> feed_;   // last: stops before the rest goes
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
    feed.stop();   // again: nothing
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
    EXPECT_EQ(log.back(), "state file " + path.string() +
                              ": top level: unknown member \"version\", expected \"daemons\" (line 1)");
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
    replaceFile(path, "{\"daemons\": {\n"
                      "\"bgpd\": {\"config\": {\"enabled\": true, \"options\": {\"asn\": 65002}}},\n"
                      "\"ntpd\": {\"config\": {\"enabled\": true, \"options\": {\"server\": \"b\"}}},\n"
                      "\"lldpd\": {\"status\": {\"data\": {\"" + key65 + "\": \"1\"}}},\n"
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
    EXPECT_EQ(health.reloads, 2u);   // the initial load and the change, not the read at start
    EXPECT_EQ(health.refused, 0u);
    EXPECT_EQ(health.skipped, 2u);
    EXPECT_EQ(health.skippedNow, 2u);
    EXPECT_EQ(health.lastSkip, log[1]);

    // bgpd's last good state stays through a reload that drops it from the file no more:
    // a reload that leaves bgpd bad and changes nothing else changes nothing.
    replaceFile(path, "{\"daemons\": {\"bgpd\": [],\n"
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

TEST(StateParse, SkipsBadDaemonEntriesWhenAsked) {
    const std::string name33(33, 'n');
    SkippedDaemons skipped;
    LauncherState s = parseState("{\"daemons\": {\n"
                                 "\"a\": {\"config\": {\"enabled\": \"yes\", \"options\": {\"x\": [1, {\"y\": 2}]}}},\n"
                                 "\"b\": {\"config\": {\"enabled\": true}},\n"
                                 "\"" + name33 + "\": {\"status\": {}},\n"
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
    EXPECT_EQ(skipped[5].message, p + "daemon \"d\" status: unknown member \"runing\", expected \"running\" or \"data\" (line 8)");
    EXPECT_EQ(skipped[6].message, p + "daemon \"b\": appears twice (line 9)");

    // The file as a whole is still refused for its syntax and its top level.
    EXPECT_THROW(parseState("{\"daemons\": {\"a\": {\"config\": 1}, }}", file, skipped), StateError);
    EXPECT_THROW(parseState("{\"daemons\": {\"a\": {}}, \"x\": 1}", file, skipped), StateError);
    EXPECT_THROW(parseState("{\"daemons\": []}", file, skipped), StateError);
    // Without a place for skipped daemons, a bad one refuses the file.
    EXPECT_THROW(parseState("{\"daemons\": {\"c\": \"on\"}}", file), StateError);
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
    EXPECT_TRUE(pumpUntil(feed, [&] { return feed.refused() == 2; }));   // still missing at start
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
    EXPECT_EQ(feed.applied().size(), 1u);   // still served

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
    ASSERT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 2; }));   // the reload at start
    fs::remove(path);
    EXPECT_TRUE(pumpUntil(feed, [&] { return log.size() == 2; }));
    EXPECT_EQ(log.back(), "state file " + path.string() + ": removed; serving the last state until it is written again");
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
    const std::string said = "state file " + path.string() + ": cannot watch directory " +
                             path.parent_path().string() +
                             ": the inotify watches are exhausted (ENOSPC): raise fs.inotify.max_user_watches; "
                             "serving the last state";
    EXPECT_TRUE(pumpUntil(feed, [&] {
        return std::any_of(log.begin(), log.end(), [&](const std::string& l) { return l.rfind(said, 0) == 0; });
    }));
    for (const auto& l : log) EXPECT_EQ(l.find("is gone"), std::string::npos) << l;
    InotifyFaults::addWatchErrno = 0;
    const std::string again = "state file " + path.string() + ": watching directory " + path.parent_path().string() + " again";
    EXPECT_TRUE(pumpUntil(feed, [&] { return std::find(log.begin(), log.end(), again) != log.end(); }));
}

TEST_F(FileFeed, InitialLoadCountsAsOneReload) {
    writeFile(path, toJson({{"bgpd", daemonWith({{"asn", "1"}})}}));
    StateFeed& feed = makeFeed(path, false);
    feed.loadInitial();
    feed.start();
    ASSERT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 2; }));   // watching
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
    EXPECT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 2; }));   // the reload at start
    replaceFile(path, toJson(s));
    EXPECT_TRUE(pumpUntil(feed, [&] { return reads(feed) == 3; }));
    EXPECT_EQ(feed.handleEvent(), 0u);
    EXPECT_EQ(feed.applies(), 1u);   // only loadInitial's
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
    ASSERT_TRUE(reloaded(2));   // the reload at start
    std::uint64_t n = 2;
    for (const LauncherState* s : {&b, &a, &c, &a}) {
        replaceFile(path, toJson(*s));
        ASSERT_TRUE(reloaded(++n));
    }
    log.clear();
    EXPECT_EQ(feed.handleEvent(), 4u);
    EXPECT_EQ(feed.applied(), a);
    const std::string p = "state file " + path.string() + ": ";
    EXPECT_EQ(log, (std::vector<std::string>{
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
    replaceFile(path, "{\"daemons\": {\"bgpd\": {\"config\": {\"enabled\": true, \"options\": {\"asn\": \"65001\"}}},\n"
                      "\"ntpd\": {\"config\": {\"enabled\": true, \"options\": {\"server\": \"b\"}}},\n"
                      "\"bgpd\": {}}}");
    LauncherState next = good;
    next["ntpd"].options["server"] = "b";
    ASSERT_TRUE(pumpUntil(feed, [&] { return feed.applied() == next && log.size() == 3; }));
    EXPECT_EQ(log[1], "state file " + path.string() + ": daemon \"bgpd\": appears twice (line 3); serving its last good state");
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

// What the feed tests share: states as JSON, the rows a DaemonMib serves, files in a
// directory of their own, and pumping a feed until something holds.
#pragma once

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

namespace FeedTest {

inline const std::string file = "/x/state.json";

// The message of the refusal of text, or "accepted".
inline std::string refusal(std::string_view text) {
    try {
        parseState(text, file);
        return "accepted";
    } catch (const StateError& e) {
        return e.what();
    }
}

inline std::string loadRefusal(const std::string& path) {
    try {
        loadStateFile(path);
        return "accepted";
    } catch (const StateError& e) {
        return e.what();
    }
}

// A daemon's JSON wrapped in a whole file.
inline std::string oneDaemon(const std::string& name, const std::string& body) {
    return "{\"daemons\": {\"" + name + "\": " + body + "}}";
}

inline std::string jsonString(const std::string& s) {
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

inline std::string jsonKeys(const std::map<std::string, std::string>& keys) {
    std::string out = "{";
    for (const auto& [k, v] : keys) out += (out.size() > 1 ? ", " : "") + jsonString(k) + ": " + jsonString(v);
    return out + "}";
}

// The file text of a state (one daemon per line).
inline std::string toJson(const LauncherState& state) {
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
            out += std::string(d.hasConfig ? ", " : "") +
                   "\"status\": {\"running\": " + (d.running ? "true" : "false") + ", \"data\": " + jsonKeys(d.data) +
                   "}";
        out += "}";
    }
    return out + "\n}}\n";
}

inline DaemonState daemonWith(std::map<std::string, std::string> options, bool enabled = true,
                              std::optional<std::map<std::string, std::string>> data = std::nullopt,
                              bool running = true) {
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
inline std::vector<std::string> rowsOf(const DaemonMib& mib) {
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
inline std::vector<std::string> expectedRows(const LauncherState& state) {
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

inline Orbel::Ptr<Recorder> listen(const Orbel::Ptr<DaemonMib>& mib) {
    Orbel::Ptr<Recorder> r = new Recorder;
    r->notifierIs(mib);
    r->isRegisteredNotifieeIs(true);
    return r;
}

// Applies the difference to `to` and checks what is served.
inline void applyState(StateApplier& applier, const LauncherState& to) {
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

inline void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

// Writes beside the file and renames over it, as the launcher does.
inline void replaceFile(const fs::path& path, const std::string& text) {
    fs::path tmp = path;
    tmp += ".tmp";
    writeFile(tmp, text);
    fs::rename(tmp, path);
}

// Accepted reads of the feed's file source, the one when the watch is armed included.
inline std::uint64_t reads(StateFeed& feed) {
    return dynamic_cast<FileSource&>(feed.source()).reads();
}

// Handles the feed's events until pred() holds; false when 5 s pass first.
template <class Pred>
inline bool pumpUntil(StateFeed& feed, Pred pred) {
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

inline bool readable(int fd, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, timeoutMs) == 1 && (p.revents & POLLIN);
}

inline bool contains(const std::vector<std::string>& lines, const std::string& part) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& l) { return l.find(part) != std::string::npos; });
}

// A random state over a small name space, so that successive ones overlap.
inline LauncherState randomState(std::mt19937& rng) {
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

} // namespace FeedTest

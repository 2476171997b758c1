#include "BenchRows.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace Bench {

namespace {

const char* const daemonWords[] = {
    "bgpd",        "ospfd",      "ntpd",          "sshd",       "lldpd",         "lacpd",           "stpd",
    "vrrpd",       "snmpd",      "sflowd",        "syslogd",    "watchdogd",     "dhcp-relay",      "isisd",
    "pimd",        "bfdd",       "zebra",         "evpn-agent", "mlag-sync",     "telemetry-agent", "route-reflector",
    "acl-manager", "qos-shaper", "port-security", "ptp4l",      "igmp-snooping", "vxlan-tunnel",    "nat-gateway",
};

const char* const keyWords[] = {
    "mtu",
    "vrf",
    "port",
    "log-level",
    "router-id",
    "asn",
    "timeout",
    "interval",
    "servers",
    "priority",
    "mode",
    "rate",
    "description",
    "hold-time",
    "keepalive",
    "max-paths",
    "source-address",
    "community",
    "auth-key",
    "retries",
    "pid",
    "uptime",
    "restarts",
    "last-exit",
    "sessions",
    "peers-established",
    "prefixes-received",
};

const char* const valueWords[] = {
    "true",
    "false",
    "info",
    "warning",
    "fast",
    "slow",
    "rstp",
    "mgmt",
    "default",
    "enabled",
    "disabled",
    "up",
    "down",
    "exit code 1",
    "stopped by launcher",
    "no upstream interface is up",
};

std::string daemonName(Random& r, std::size_t i) {
    const std::string word = daemonWords[r.below(std::size(daemonWords))];
    char suffix[24];
    switch (r.below(4)) {
        case 0:
            std::snprintf(suffix, sizeof suffix, "%zu", i);
            break; // bgpd17
        case 1:
            std::snprintf(suffix, sizeof suffix, "-vrf%04zu", i);
            break; // bgpd-vrf0017
        case 2:
            std::snprintf(suffix, sizeof suffix, "-%zu-%zu", i % 97, i);
            break; // bgpd-17-17
        default:
            std::snprintf(suffix, sizeof suffix, "@%zx", i * 2654435761u % 0xffffff);
            break;
    }
    std::string name = word + suffix;
    if (name.size() > 32) name.resize(32);
    return name;
}

std::string keyName(Random& r, std::size_t i) {
    char b[80];
    switch (r.below(6)) {
        case 0: // a plain word: "mtu"
            return std::string(keyWords[r.below(std::size(keyWords))]) + (i ? std::to_string(i) : "");
        case 1: // neighbor.10.12.0.7.remote-as
            std::snprintf(b, sizeof b, "neighbor.10.%zu.%zu.%zu.%s", r.below(256), r.below(256), i % 256,
                          keyWords[r.below(std::size(keyWords))]);
            return b;
        case 2: // interface.Ethernet1/12/3.description
            std::snprintf(b, sizeof b, "interface.Ethernet%zu/%zu/%zu.%s", r.below(4) + 1, r.below(48) + 1, i % 4 + 1,
                          keyWords[r.below(std::size(keyWords))]);
            return b;
        case 3: // vlan412
            std::snprintf(b, sizeof b, "vlan%zu", i + 1);
            return b;
        case 4: // k7
            std::snprintf(b, sizeof b, "k%zu", i);
            return b;
        default: // counters.rx.queue-3.dropped-packets
            std::snprintf(b, sizeof b, "counters.%s.queue-%zu.%s", r.below(2) ? "rx" : "tx", i,
                          keyWords[r.below(std::size(keyWords))]);
            return b;
    }
}

std::string valueText(Random& r) {
    char b[160];
    switch (r.below(6)) {
        case 0:
            return std::to_string(r.below(100000));
        case 1:
            return valueWords[r.below(std::size(valueWords))];
        case 2:
            std::snprintf(b, sizeof b, "192.0.2.%zu,192.0.2.%zu,198.51.100.%zu", r.below(256), r.below(256),
                          r.below(256));
            return b;
        case 3:
            return std::to_string(r.below(2));
        case 4:
            std::snprintf(b, sizeof b, "%zud%zuh%zum", r.below(30), r.below(24), r.below(60));
            return b;
        default: {
            // A line of text of 20 to 120 bytes.
            std::string s = "uplink to spine";
            const std::size_t n = 20 + r.below(101);
            while (s.size() < n) s += std::string(" ") + valueWords[r.below(std::size(valueWords))];
            s.resize(n);
            return s;
        }
    }
}

// Appends s as a JSON string (the generator writes only printable ASCII).
void jsonString(std::string& out, const std::string& s) {
    out += '"';
    for (char c : s) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    out += '"';
}

bool indexLess(const Row& a, const Row& b) {
    if (a.name.size() != b.name.size()) return a.name.size() < b.name.size();
    if (a.name != b.name) return a.name < b.name;
    if (a.key.size() != b.key.size()) return a.key.size() < b.key.size();
    return a.key < b.key;
}

} // namespace

Feed::LauncherState makeState(const StateShape& shape) {
    Random r(shape.seed);
    Feed::LauncherState state;
    std::size_t options = 0, data = 0;
    for (std::size_t d = 0; options < shape.optionRows || data < shape.dataRows; ++d) {
        std::string name = daemonName(r, d);
        while (state.count(name)) name = daemonName(r, d + 1000003 * (1 + r.below(1000)));
        Feed::DaemonState& s = state[name];
        s.hasConfig = true;
        s.enabled = r.below(4) != 0;
        s.hasStatus = true;
        s.running = r.below(3) != 0;
        const std::size_t spread = 2 * shape.meanKeys - 1;
        for (std::size_t want = std::min(1 + r.below(spread), shape.optionRows - options), i = 0;
             s.options.size() < want; ++i) {
            std::string key = keyName(r, i);
            if (key.size() > 64) key.resize(64);
            s.options.emplace(std::move(key), valueText(r));
        }
        for (std::size_t want = std::min(1 + r.below(spread), shape.dataRows - data), i = 0; s.data.size() < want;
             ++i) {
            std::string key = keyName(r, i);
            if (key.size() > 64) key.resize(64);
            s.data.emplace(std::move(key), valueText(r));
        }
        options += s.options.size();
        data += s.data.size();
    }
    return state;
}

std::string stateJson(const Feed::LauncherState& state) {
    std::string out = "{\n  \"daemons\": {";
    bool firstDaemon = true;
    for (const auto& [name, s] : state) {
        out += firstDaemon ? "\n    " : ",\n    ";
        firstDaemon = false;
        jsonString(out, name);
        out += ": {";
        auto section = [&](const char* title, bool present, const char* flagName, bool flag, const char* mapName,
                           const std::map<std::string, std::string>& keys, bool comma) {
            if (!present) return;
            out += "\n      \"";
            out += title;
            out += "\": {\n        \"";
            out += flagName;
            out += flag ? "\": true,\n        \"" : "\": false,\n        \"";
            out += mapName;
            out += "\": {";
            bool first = true;
            for (const auto& [k, v] : keys) {
                out += first ? "\n          " : ",\n          ";
                first = false;
                jsonString(out, k);
                out += ": ";
                jsonString(out, v);
            }
            out += keys.empty() ? "}\n      }" : "\n        }\n      }";
            if (comma) out += ',';
        };
        section("config", s.hasConfig, "enabled", s.enabled, "options", s.options, s.hasStatus);
        section("status", s.hasStatus, "running", s.running, "data", s.data, false);
        out += "\n    }";
    }
    out += firstDaemon ? "}\n}\n" : "\n  }\n}\n";
    return out;
}

std::vector<Row> optionRows(const Feed::LauncherState& state) {
    std::vector<Row> rows;
    for (const auto& [name, s] : state)
        for (const auto& [k, v] : s.options)
            if (!v.empty()) rows.push_back({name, k, v});
    std::sort(rows.begin(), rows.end(), indexLess);
    return rows;
}

std::vector<unsigned long> indexOid(const std::string& name, const std::string& key) {
    std::vector<unsigned long> o;
    o.reserve(name.size() + key.size() + 2);
    o.push_back(name.size());
    for (unsigned char c : name) o.push_back(c);
    o.push_back(key.size());
    for (unsigned char c : key) o.push_back(c);
    return o;
}

std::size_t stringBytes(const Feed::LauncherState& state) {
    std::size_t n = 0;
    for (const auto& [name, s] : state) {
        n += name.size();
        for (const auto& [k, v] : s.options)
            if (!v.empty()) n += k.size() + v.size();
        for (const auto& [k, v] : s.data)
            if (!v.empty()) n += k.size() + v.size();
    }
    return n;
}

std::size_t rowStringBytes(const Feed::LauncherState& state) {
    std::size_t n = 0;
    for (const auto& [name, s] : state) {
        for (const auto& [k, v] : s.options)
            if (!v.empty()) n += name.size() + k.size() + v.size();
        for (const auto& [k, v] : s.data)
            if (!v.empty()) n += name.size() + k.size() + v.size();
    }
    return n;
}

std::size_t modelRows(const Feed::LauncherState& state) {
    std::size_t n = 0;
    for (const auto& [name, s] : state) {
        n += 2;
        for (const auto& kv : s.options) n += !kv.second.empty();
        for (const auto& kv : s.data) n += !kv.second.empty();
    }
    return n;
}

} // namespace Bench

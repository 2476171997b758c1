// velmar-bench-client: drives the workloads against one agent and reports, per way of
// serving and per workload, the agent's CPU time and its own separately, so that the
// client is never what is measured. One long-running process on Net-SNMP's library,
// numeric OIDs only, no MIB loaded.
//
//   velmar-bench-client --peer udp:127.0.0.1:16100 --pids 1234 --rows 10000
//       --way module=1.3.6.1.4.1.32473.3.17.1.2 --way container=1.3.6.1.4.1.32473.99.2.1.2
//       --workloads bulk10,bulk50,getnext,get,absent --gets 2000 --absent 50 [--repeat 3]
//       [--limit naive=500] [--get-limit naive=100] [--repeat-way naive=1]
//
// Workloads, each timed on its own:
//   bulk10, bulk50  a walk of the whole table with GETBULK, max-repetitions 10 or 50; the
//                   last request asks only for the rows that remain, so no way pays for
//                   the subtree after it
//   getnext         the same walk one GETNEXT per row
//   get             GETs of existing rows in random order, one varbind each
//   absent          GETs of rows that do not exist (a key with one byte more), one varbind each
// The first way's first walk is the reference: it supplies the rows the GETs ask for, and
// every other way's walk must return the same indexes and values (a checksum).
//
// Agent CPU: the sum over every thread of every agent process (--pids; for AgentX both
// snmpd and the subagent) of the run time in /proc/PID/task/TID/schedstat, in nanoseconds,
// read before and after each workload. Client CPU: CLOCK_PROCESS_CPUTIME_ID.
//
// Output: one JSON object per line on standard output.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <dirent.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr const char* appName = "velmar-bench-client";

[[noreturn]] void fail(const std::string& why) {
    std::cerr << appName << ": " << why << std::endl;
    std::exit(1);
}

std::vector<oid> parseOid(const std::string& text) {
    std::vector<oid> o;
    std::stringstream s(text);
    for (std::string part; std::getline(s, part, '.');)
        if (!part.empty()) o.push_back(std::stoul(part));
    return o;
}

std::vector<std::string> split(const std::string& text, char sep) {
    std::vector<std::string> out;
    std::stringstream s(text);
    for (std::string part; std::getline(s, part, sep);)
        if (!part.empty()) out.push_back(part);
    return out;
}

// Run time of every thread of the process, in nanoseconds.
std::uint64_t processRunNs(int pid) {
    std::uint64_t total = 0;
    const std::string taskDir = "/proc/" + std::to_string(pid) + "/task";
    DIR* d = opendir(taskDir.c_str());
    if (!d) fail("cannot read " + taskDir);
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream f(taskDir + "/" + e->d_name + "/schedstat");
        std::uint64_t ns = 0;
        if (f >> ns) total += ns;
    }
    closedir(d);
    return total;
}

double clientCpu() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Way {
    std::string name;
    std::vector<oid> root; // the table; rows are root.1.3.<index>
    std::size_t limit = 0; // walk at most this many varbinds (0: the whole table)
};

// A sample of agent and client clocks.
struct Clocks {
    std::vector<std::uint64_t> agentNs;
    double client = 0;
    double wall = 0;
};

class Client {
public:
    Client(const std::string& peer, const std::string& community, std::vector<int> pids, long timeoutUs)
        : pids_(std::move(pids)) {
        netsnmp_session s;
        snmp_sess_init(&s);
        s.version = SNMP_VERSION_2c;
        s.peername = const_cast<char*>(peer.c_str());
        s.community = reinterpret_cast<u_char*>(const_cast<char*>(community.c_str()));
        s.community_len = community.size();
        s.timeout = timeoutUs;
        s.retries = 0;
        session_ = snmp_sess_open(&s);
        if (!session_) fail("cannot open a session to " + peer);
    }
    ~Client() { snmp_sess_close(session_); }

    Clocks clocks() const {
        Clocks c;
        for (int pid : pids_) c.agentNs.push_back(processRunNs(pid));
        c.client = clientCpu();
        c.wall = now();
        return c;
    }

    // Sends pdu and returns the response (null on timeout or error; the caller frees it).
    netsnmp_pdu* exchange(netsnmp_pdu* pdu) {
        netsnmp_pdu* response = nullptr;
        const int status = snmp_sess_synch_response(session_, pdu, &response);
        if (status != STAT_SUCCESS || !response) {
            if (response) snmp_free_pdu(response);
            return nullptr;
        }
        return response;
    }

    const std::vector<int>& pids() const noexcept { return pids_; }

private:
    void* session_ = nullptr;
    std::vector<int> pids_;
};

struct WalkResult {
    std::size_t varbinds = 0;
    std::size_t requests = 0;
    bool complete = false; // every row came back and nothing else
    std::uint64_t checksum = 1469598103934665603ull;
    std::vector<std::vector<oid>> indexes; // when asked to keep them
    std::string problem;
};

void mix(std::uint64_t& h, const void* p, std::size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (std::size_t i = 0; i < n; ++i) {
        h ^= b[i];
        h *= 1099511628211ull;
    }
}

// Walks the way's table: GETBULK with maxRepetitions, or GETNEXT when it is 0.
WalkResult walk(Client& client, const Way& way, std::size_t rows, long maxRepetitions, bool keepIndexes) {
    WalkResult w;
    const std::size_t want = way.limit ? std::min(way.limit, rows) : rows;
    std::vector<oid> column = way.root;
    column.push_back(1);
    column.push_back(3);
    std::vector<oid> cursor = way.root;
    while (w.varbinds < want) {
        netsnmp_pdu* pdu = snmp_pdu_create(maxRepetitions ? SNMP_MSG_GETBULK : SNMP_MSG_GETNEXT);
        if (maxRepetitions) {
            pdu->non_repeaters = 0;
            pdu->max_repetitions = std::min<long>(maxRepetitions, static_cast<long>(want - w.varbinds));
        }
        snmp_add_null_var(pdu, cursor.data(), cursor.size());
        netsnmp_pdu* response = client.exchange(pdu);
        ++w.requests;
        if (!response) {
            w.problem = "no response after " + std::to_string(w.varbinds) + " varbinds";
            return w;
        }
        if (response->errstat != SNMP_ERR_NOERROR) {
            w.problem = std::string("error ") + snmp_errstring(response->errstat);
            snmp_free_pdu(response);
            return w;
        }
        bool left = false;
        for (netsnmp_variable_list* v = response->variables; v && w.varbinds < want; v = v->next_variable) {
            if (v->type == SNMP_ENDOFMIBVIEW || v->name_length <= column.size() ||
                snmp_oidtree_compare(column.data(), column.size(), v->name, v->name_length) != 0) {
                left = true;
                break;
            }
            ++w.varbinds;
            mix(w.checksum, v->name + column.size(), (v->name_length - column.size()) * sizeof(oid));
            mix(w.checksum, v->val.string, v->val_len);
            if (keepIndexes) w.indexes.emplace_back(v->name + column.size(), v->name + v->name_length);
            cursor.assign(v->name, v->name + v->name_length);
        }
        snmp_free_pdu(response);
        if (left) break;
    }
    w.complete = w.varbinds == want;
    if (!w.complete && w.problem.empty())
        w.problem = "the table ended after " + std::to_string(w.varbinds) + " of " + std::to_string(want) + " rows";
    return w;
}

struct GetResult {
    std::size_t requests = 0;
    std::size_t answered = 0;      // a value came back
    std::size_t noSuch = 0;        // noSuchInstance / noSuchObject
    std::vector<double> latencies; // seconds, one per request
    std::string problem;
};

GetResult gets(Client& client, const Way& way, const std::vector<std::vector<oid>>& indexes) {
    GetResult g;
    g.latencies.reserve(indexes.size());
    std::vector<oid> name = way.root;
    name.push_back(1);
    name.push_back(3);
    const std::size_t base = name.size();
    for (const auto& index : indexes) {
        name.resize(base);
        name.insert(name.end(), index.begin(), index.end());
        netsnmp_pdu* pdu = snmp_pdu_create(SNMP_MSG_GET);
        snmp_add_null_var(pdu, name.data(), name.size());
        const auto t0 = std::chrono::steady_clock::now();
        netsnmp_pdu* response = client.exchange(pdu);
        g.latencies.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
        ++g.requests;
        if (!response) {
            g.problem = "no response";
            return g;
        }
        if (response->variables) {
            const u_char t = response->variables->type;
            if (t == SNMP_NOSUCHINSTANCE || t == SNMP_NOSUCHOBJECT)
                ++g.noSuch;
            else if (t == ASN_OCTET_STR)
                ++g.answered;
        }
        snmp_free_pdu(response);
    }
    return g;
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const std::size_t i = std::min(v.size() - 1, static_cast<std::size_t>(p * (v.size() - 1) + 0.5));
    return v[i];
}

std::string jsonEscape(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

// One result line.
void report(const std::string& way, const std::string& workload, std::size_t rows, const Clocks& before,
            const Clocks& after, const std::vector<int>& pids, std::size_t varbinds, std::size_t requests,
            const std::string& extra) {
    std::uint64_t agentNs = 0;
    std::ostringstream perPid;
    for (std::size_t i = 0; i < pids.size(); ++i) {
        const std::uint64_t d = after.agentNs[i] - before.agentNs[i];
        agentNs += d;
        perPid << (i ? ", " : "") << "\"" << pids[i] << "\": " << d * 1e-9;
    }
    std::printf(
        "{\"way\": \"%s\", \"workload\": \"%s\", \"rows\": %zu, \"varbinds\": %zu, \"requests\": %zu, "
        "\"agent_cpu_s\": %.9f, \"agent_cpu_by_pid_s\": {%s}, \"client_cpu_s\": %.9f, \"wall_s\": %.9f%s}\n",
        way.c_str(), workload.c_str(), rows, varbinds, requests, agentNs * 1e-9, perPid.str().c_str(),
        after.client - before.client, after.wall - before.wall, extra.c_str());
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    std::string peer, community = "public";
    std::vector<int> pids;
    std::vector<Way> ways;
    std::vector<std::string> workloads = {"bulk10", "bulk50", "getnext", "get", "absent"};
    std::size_t rows = 0, getCount = 1000, absentCount = 50, repeat = 1;
    std::map<std::string, std::size_t> limits, getLimits, repeats;
    long timeoutMs = 60000;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) fail(a + " needs a value");
            return argv[++i];
        };
        if (a == "--peer")
            peer = value();
        else if (a == "--community")
            community = value();
        else if (a == "--pids")
            for (const auto& p : split(value(), ',')) pids.push_back(std::stoi(p));
        else if (a == "--rows")
            rows = std::stoul(value());
        else if (a == "--way") {
            const std::string v = value();
            const auto eq = v.find('=');
            if (eq == std::string::npos) fail("--way NAME=OID");
            ways.push_back({v.substr(0, eq), parseOid(v.substr(eq + 1))});
        } else if (a == "--workloads")
            workloads = split(value(), ',');
        else if (a == "--gets")
            getCount = std::stoul(value());
        else if (a == "--absent")
            absentCount = std::stoul(value());
        else if (a == "--repeat")
            repeat = std::max<std::size_t>(1, std::stoul(value()));
        else if (a == "--limit" || a == "--get-limit" || a == "--repeat-way") {
            const std::string v = value();
            const auto eq = v.find('=');
            if (eq == std::string::npos) fail(a + " NAME=COUNT");
            (a == "--limit"       ? limits
             : a == "--get-limit" ? getLimits
                                  : repeats)[v.substr(0, eq)] = std::stoul(v.substr(eq + 1));
        } else if (a == "--timeout-ms")
            timeoutMs = std::stol(value());
        else
            fail("unknown argument " + a);
    }
    if (peer.empty() || pids.empty() || ways.empty() || rows == 0)
        fail("--peer, --pids, --rows and --way are required");
    for (Way& w : ways)
        if (limits.count(w.name)) w.limit = limits[w.name];

    // No MIB files, no configuration files: numeric OIDs only.
    setenv("MIBS", "", 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
    netsnmp_set_mib_directory("/nonexistent");
    init_snmp(appName);
    Client client(peer, community, pids, timeoutMs * 1000);

    // The reference walk: the first way, whole, with GETBULK 50 (not reported).
    WalkResult reference = walk(client, Way{ways[0].name, ways[0].root, 0}, rows, 50, true);
    if (!reference.complete) fail("reference walk of " + ways[0].name + ": " + reference.problem);

    // The rows to GET: existing ones in random order, and absent ones (each an existing
    // row's key with one byte more: that name has rows, that key none).
    std::vector<std::vector<oid>> present, absent;
    std::uint64_t seed = 0x5eed;
    auto random = [&](std::size_t n) {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<std::size_t>((seed >> 33) % n);
    };
    for (std::size_t i = 0; i < getCount; ++i) present.push_back(reference.indexes[random(reference.indexes.size())]);
    for (std::size_t i = 0; i < absentCount; ++i) {
        std::vector<oid> index = reference.indexes[random(reference.indexes.size())];
        const std::size_t keyAt = 1 + index[0];
        if (index[keyAt] < 64) {
            index[keyAt] += 1;
            index.push_back('~');
        } else {
            index.back() = '~';
        }
        absent.push_back(std::move(index));
    }
    reference.indexes.clear();
    reference.indexes.shrink_to_fit();

    // Ways take turns within each workload and repetition, so that a change in the
    // machine's load falls on all of them alike.
    for (const std::string& workload : workloads) {
        const bool isWalk = workload == "bulk10" || workload == "bulk50" || workload == "getnext";
        if (!isWalk && workload != "get" && workload != "absent") fail("unknown workload " + workload);
        for (std::size_t r = 0; r < (isWalk ? repeat : 1); ++r) {
            for (const Way& way : ways) {
                if (isWalk && repeats.count(way.name) && r >= repeats[way.name]) continue;
                if (isWalk) {
                    const long reps = workload == "bulk10" ? 10 : workload == "bulk50" ? 50 : 0;
                    const Clocks before = client.clocks();
                    WalkResult w = walk(client, way, rows, reps, false);
                    const Clocks after = client.clocks();
                    char extra[512];
                    const bool sampled = way.limit && way.limit < rows;
                    std::snprintf(extra, sizeof extra,
                                  ", \"complete\": %s, \"sampled\": %s, \"checksum_matches\": %s, \"problem\": \"%s\"",
                                  w.complete ? "true" : "false", sampled ? "true" : "false",
                                  sampled ? "null" : (w.checksum == reference.checksum ? "true" : "false"),
                                  jsonEscape(w.problem).c_str());
                    report(way.name, workload, rows, before, after, client.pids(), w.varbinds, w.requests, extra);
                } else {
                    std::vector<std::vector<oid>> which = workload == "get" ? present : absent;
                    if (getLimits.count(way.name) && getLimits[way.name] < which.size())
                        which.resize(getLimits[way.name]);
                    const Clocks before = client.clocks();
                    GetResult g = gets(client, way, which);
                    const Clocks after = client.clocks();
                    char extra[512];
                    std::snprintf(extra, sizeof extra,
                                  ", \"answered\": %zu, \"no_such\": %zu, \"latency_median_s\": %.9f, "
                                  "\"latency_p90_s\": %.9f, \"latency_p10_s\": %.9f, \"problem\": \"%s\"",
                                  g.answered, g.noSuch, percentile(g.latencies, 0.5), percentile(g.latencies, 0.9),
                                  percentile(g.latencies, 0.1), jsonEscape(g.problem).c_str());
                    report(way.name, workload, rows, before, after, client.pids(), g.requests, g.requests, extra);
                }
            }
        }
    }
    snmp_shutdown(appName);
    return 0;
}

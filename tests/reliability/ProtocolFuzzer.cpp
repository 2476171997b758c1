// velmar-protocol-fuzz: a request fuzzer for velmar-snmp-agent (or any agent serving the
// daemon MIB). It sends random and mutated requests to a running agent and checks every
// answer against a walk of the agent taken before it starts, so that a wrong answer counts
// as much as a crash:
//
//   velmar-protocol-fuzz --port 1161 --requests 200000 --seed 7
//       --v3-auth authpass-fuzz --v3-priv privpass-fuzz --agent-pid 1234
//
// The agent must be configured with (the names can be changed on the command line):
//   rocommunity public 127.0.0.1        rocommunity private 127.0.0.1
//   createUser fuzzro SHA AUTH AES PRIV  rouser fuzzro priv
//   createUser fuzzrw SHA AUTH AES PRIV  rouser fuzzrw auth
//   createUser fuzzbad SHA OTHER AES OTHER  rouser fuzzbad priv   (we send wrong passwords)
// and its state must not change during the run.
//
// Requests, each made from its own seed (seed, number) so that one can be sent again alone
// with --only NUMBER:
//   - through Net-SNMP's library (which matches and decodes answers, v3 included): GET,
//     GETNEXT, GETBULK (max-repetitions and non-repeaters from 0 to 2^31-1 and negative) and
//     SET (every ASN type, on every column and beside them), over v1, v2c with the read and
//     the write community, and v3: authPriv read and write users, authNoPriv, noAuthNoPriv, a
//     wrong password, an unknown user. OIDs: rows of the walk, and those rows mutated (wrong
//     length prefixes, truncated and extended indexes, sub-identifiers above 255 where an
//     octet-string index needs bytes, other columns and entries), random indexes, the
//     subtree's structure nodes, and random OIDs.
//   - as raw UDP datagrams: v1/v2c messages encoded here (over-long OIDs past 128
//     sub-identifiers, GETBULK in v1, unknown PDU tags and versions, exception values in a
//     SET, wrong communities), v3 messages with forged security parameters, all of them
//     also with bytes flipped, cut, inserted or duplicated, and random bytes.
//
// Every answer is checked: with no error status, each value in the tables equals the
// walk's (type and bytes); a GET of a row of the walk returns it, of anything else under the
// subtree an exception; a GETNEXT or each GETBULK repetition from inside the tables returns
// the next row of the walk; no SET ever succeeds; and v2c and v3 reads with good
// credentials inside the subtree get no error status but tooBig. After every batch the
// fuzzer waits for all answers, GETs known rows and checks their values, and checks that
// the agent process is still there. At the end it walks the subtree again and compares.
//
// Prints the figures (requests sent, answered, timeouts, outcomes by kind) and exits 0 when
// every check held, 1 when one failed, 2 for a bad command line or when the agent cannot
// be reached at the start.
#include "Ber.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Ber::Bytes;
using Ber::Oid;
using Ber::operator+;
using Clock = std::chrono::steady_clock;

#ifndef VELMAR_ENTERPRISE_NUMBER
#define VELMAR_ENTERPRISE_NUMBER 32473
#endif
const Oid root{1, 3, 6, 1, 4, 1, VELMAR_ENTERPRISE_NUMBER, 3, 17};
// From here on the subtree holds what the agent serves beside the four tables: the daemons'
// history (counts and times of their changes) and the health of its feed (ages, counts).
// Those change by themselves, so their values are not compared with the walk.
const Oid liveObjects{1, 3, 6, 1, 4, 1, VELMAR_ENTERPRISE_NUMBER, 3, 17, 2, 3};

// ---------------------------------------------------------------------------------------
// Random numbers: xoshiro256** seeded through splitmix64, one generator per request.

struct Rng {
    std::uint64_t s[4];
    explicit Rng(std::uint64_t seed) {
        for (auto& x : s) {
            seed += 0x9E3779B97F4A7C15ull;
            std::uint64_t z = seed;
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
            x = z ^ (z >> 31);
        }
    }
    static std::uint64_t rotl(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    std::uint64_t next() {
        const std::uint64_t result = rotl(s[1] * 5, 7) * 9;
        const std::uint64_t t = s[1] << 17;
        s[2] ^= s[0];
        s[3] ^= s[1];
        s[1] ^= s[2];
        s[0] ^= s[3];
        s[2] ^= t;
        s[3] = rotl(s[3], 45);
        return result;
    }
    std::uint64_t below(std::uint64_t n) { return n ? next() % n : 0; }
    std::int64_t range(std::int64_t lo, std::int64_t hi) { return lo + static_cast<std::int64_t>(below(hi - lo + 1)); }
    bool chance(double p) { return (next() >> 11) * (1.0 / 9007199254740992.0) < p; }
    template <class T>
    const T& pick(const std::vector<T>& v) {
        return v[below(v.size())];
    }
};

// Sub-identifier values that sit on boundaries.
std::uint32_t edgeSubId(Rng& r) {
    static const std::vector<std::uint32_t> edges{0,    1,     2,     3,          4,           31,         32,  33,
                                                  63,   64,    65,    127,        128,         129,        255, 256,
                                                  1000, 65535, 65536, 0x7FFFFFFF, 0x80000000u, 0xFFFFFFFFu};
    return r.pick(edges);
}

// ---------------------------------------------------------------------------------------
// Values as the checks compare them: a tag and the bytes (integers as decimal text).

struct Value {
    std::uint8_t tag = 0;
    std::string bytes;
    friend bool operator==(const Value&, const Value&) = default;
};

std::string show(const Oid& o) {
    std::string s;
    for (auto x : o) s += "." + std::to_string(x);
    return s;
}

std::string show(const Value& v) {
    std::ostringstream out;
    out << "tag 0x" << std::hex << int(v.tag) << std::dec << " ";
    if (v.tag == Ber::integer) return out.str() + v.bytes;
    out << v.bytes.size() << " bytes \"";
    for (unsigned char c : v.bytes.substr(0, 40)) {
        if (c >= 0x20 && c < 0x7F)
            out << c;
        else
            out << "\\x" << std::hex << int(c) << std::dec;
    }
    out << "\"";
    return out.str();
}

Oid toOid(const oid* name, std::size_t len) {
    return Oid(name, name + len);
}

Value valueOf(const netsnmp_variable_list* v) {
    Value out;
    out.tag = v->type;
    switch (v->type) {
        case ASN_INTEGER:
            out.bytes = std::to_string(*v->val.integer);
            break;
        case ASN_NULL:
        case SNMP_NOSUCHOBJECT:
        case SNMP_NOSUCHINSTANCE:
        case SNMP_ENDOFMIBVIEW:
            break;
        default:
            if (v->val.string && v->val_len) out.bytes.assign(reinterpret_cast<const char*>(v->val.string), v->val_len);
    }
    return out;
}

Value valueOf(const Ber::Answer::Varbind& v) {
    Value out;
    out.tag = v.tag;
    if (v.tag == Ber::integer && !v.value.empty() && v.value.size() <= 8) {
        std::uint64_t u = (v.value[0] & 0x80) ? ~0ull : 0;
        for (auto b : v.value) u = (u << 8) | b;
        out.bytes = std::to_string(static_cast<std::int64_t>(u));
    } else if (v.tag != Ber::nullTag && v.tag != Ber::noSuchObject && v.tag != Ber::noSuchInstance &&
               v.tag != Ber::endOfMibView) {
        out.bytes.assign(v.value.begin(), v.value.end());
    }
    return out;
}

bool isException(std::uint8_t tag) {
    return tag == SNMP_NOSUCHOBJECT || tag == SNMP_NOSUCHINSTANCE || tag == SNMP_ENDOFMIBVIEW;
}

bool under(const Oid& o, const Oid& prefix) {
    return o.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), o.begin());
}

// Under the subtree and before its live objects: the rows whose values the walk fixes.
bool inTables(const Oid& o) {
    return under(o, root) && o < liveObjects;
}

const char* errorName(long e) {
    static const char* names[] = {"noError",
                                  "tooBig",
                                  "noSuchName",
                                  "badValue",
                                  "readOnly",
                                  "genErr",
                                  "noAccess",
                                  "wrongType",
                                  "wrongLength",
                                  "wrongEncoding",
                                  "wrongValue",
                                  "noCreation",
                                  "inconsistentValue",
                                  "resourceUnavailable",
                                  "commitFailed",
                                  "undoFailed",
                                  "authorizationError",
                                  "notWritable",
                                  "inconsistentName"};
    return e >= 0 && e <= 18 ? names[e] : "errorStatusOutOfRange";
}

std::string reportName(const Oid& o) {
    static const std::map<Oid, const char*> names{
        {{1, 3, 6, 1, 6, 3, 15, 1, 1, 1, 0}, "usmStatsUnsupportedSecLevels"},
        {{1, 3, 6, 1, 6, 3, 15, 1, 1, 2, 0}, "usmStatsNotInTimeWindows"},
        {{1, 3, 6, 1, 6, 3, 15, 1, 1, 3, 0}, "usmStatsUnknownUserNames"},
        {{1, 3, 6, 1, 6, 3, 15, 1, 1, 4, 0}, "usmStatsUnknownEngineIDs"},
        {{1, 3, 6, 1, 6, 3, 15, 1, 1, 5, 0}, "usmStatsWrongDigests"},
        {{1, 3, 6, 1, 6, 3, 15, 1, 1, 6, 0}, "usmStatsDecryptionErrors"},
        {{1, 3, 6, 1, 6, 3, 11, 2, 1, 1, 0}, "snmpUnknownSecurityModels"},
        {{1, 3, 6, 1, 6, 3, 11, 2, 1, 2, 0}, "snmpInvalidMsgs"},
        {{1, 3, 6, 1, 6, 3, 11, 2, 1, 3, 0}, "snmpUnknownPDUHandlers"},
    };
    auto it = names.find(o);
    return it != names.end() ? it->second : show(o);
}

// ---------------------------------------------------------------------------------------
// The command line.

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    std::uint64_t requests = 10000;
    std::uint64_t seed = 1;
    std::uint64_t batch = 1000;
    int window = 16;
    int timeoutMs = 500;
    std::string community = "public", writeCommunity = "private";
    std::string roUser = "fuzzro", rwUser = "fuzzrw", badUser = "fuzzbad";
    std::string auth = "authpass-fuzz", priv = "privpass-fuzz";
    long agentPid = 0;
    std::int64_t only = -1;
    bool verbose = false;
};

void usage() {
    std::cerr << "usage: velmar-protocol-fuzz --port PORT [--host 127.0.0.1] [--requests N] [--seed S] [--batch N]\n"
                 "         [--window N] [--timeout-ms MS] [--community C] [--write-community C]\n"
                 "         [--v3-user U] [--v3-write-user U] [--v3-bad-user U] [--v3-auth PASS] [--v3-priv PASS]\n"
                 "         [--agent-pid PID] [--only NUMBER] [--verbose]\n";
}

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--verbose") {
            o.verbose = true;
            continue;
        }
        if (i + 1 >= argc) return false;
        std::string v = argv[++i];
        try {
            if (a == "--host")
                o.host = v;
            else if (a == "--port")
                o.port = std::stoi(v);
            else if (a == "--requests")
                o.requests = std::stoull(v);
            else if (a == "--seed")
                o.seed = std::stoull(v);
            else if (a == "--batch")
                o.batch = std::max<std::uint64_t>(1, std::stoull(v));
            else if (a == "--window")
                o.window = std::max(1, std::stoi(v));
            else if (a == "--timeout-ms")
                o.timeoutMs = std::max(10, std::stoi(v));
            else if (a == "--community")
                o.community = v;
            else if (a == "--write-community")
                o.writeCommunity = v;
            else if (a == "--v3-user")
                o.roUser = v;
            else if (a == "--v3-write-user")
                o.rwUser = v;
            else if (a == "--v3-bad-user")
                o.badUser = v;
            else if (a == "--v3-auth")
                o.auth = v;
            else if (a == "--v3-priv")
                o.priv = v;
            else if (a == "--agent-pid")
                o.agentPid = std::stol(v);
            else if (a == "--only")
                o.only = std::stoll(v);
            else
                return false;
        } catch (const std::exception&) {
            return false;
        }
    }
    return o.port > 0 && o.port < 65536;
}

// ---------------------------------------------------------------------------------------
// Sessions: one per way of asking.

enum class Via {
    v1,
    v2c,
    v2cWrite,
    v3ro,
    v3rw,
    v3rwAuthNoPriv,
    v3roAuthNoPriv,
    v3roNoAuth,
    v3badPassword,
    v3unknownUser,
    count
};
const char* viaName[] = {"v1 read community",
                         "v2c read community",
                         "v2c write community",
                         "v3 authPriv read user",
                         "v3 authPriv write user",
                         "v3 authNoPriv write user",
                         "v3 authNoPriv read user (too low)",
                         "v3 noAuthNoPriv read user (too low)",
                         "v3 wrong passwords",
                         "v3 unknown user"};
// Credentials that the agent accepts for reading the tables: no error status is expected.
bool goodReader(Via v) {
    return v == Via::v2c || v == Via::v2cWrite || v == Via::v3ro || v == Via::v3rw || v == Via::v3rwAuthNoPriv;
}
bool isV3(Via v) {
    return v >= Via::v3ro;
}

netsnmp_session* openSession(const Options& o, Via via, int timeoutMs, int retries) {
    netsnmp_session s;
    snmp_sess_init(&s);
    std::string peer = "udp:" + o.host + ":" + std::to_string(o.port);
    s.peername = const_cast<char*>(peer.c_str());
    s.timeout = timeoutMs * 1000L;
    s.retries = retries;
    std::string community, user, auth = o.auth, priv = o.priv;
    int level = SNMP_SEC_LEVEL_AUTHPRIV;
    switch (via) {
        case Via::v1:
            s.version = SNMP_VERSION_1;
            community = o.community;
            break;
        case Via::v2c:
            s.version = SNMP_VERSION_2c;
            community = o.community;
            break;
        case Via::v2cWrite:
            s.version = SNMP_VERSION_2c;
            community = o.writeCommunity;
            break;
        case Via::v3ro:
            user = o.roUser;
            break;
        case Via::v3rw:
            user = o.rwUser;
            break;
        case Via::v3rwAuthNoPriv:
            user = o.rwUser;
            level = SNMP_SEC_LEVEL_AUTHNOPRIV;
            break;
        case Via::v3roAuthNoPriv:
            user = o.roUser;
            level = SNMP_SEC_LEVEL_AUTHNOPRIV;
            break;
        case Via::v3roNoAuth:
            user = o.roUser;
            level = SNMP_SEC_LEVEL_NOAUTH;
            break;
        case Via::v3badPassword:
            user = o.badUser;
            auth = o.auth + "-wrong";
            priv = o.priv + "-wrong";
            break;
        case Via::v3unknownUser:
            user = "nobody-here";
            level = SNMP_SEC_LEVEL_NOAUTH;
            break;
        case Via::count:
            return nullptr;
    }
    if (!isV3(via)) {
        s.community = reinterpret_cast<u_char*>(community.data());
        s.community_len = community.size();
    } else {
        s.version = SNMP_VERSION_3;
        s.securityName = user.data();
        s.securityNameLen = user.size();
        s.securityLevel = level;
        s.securityModel = SNMP_SEC_MODEL_USM;
        if (level != SNMP_SEC_LEVEL_NOAUTH) {
            s.securityAuthProto = usmHMACSHA1AuthProtocol;
            s.securityAuthProtoLen = USM_AUTH_PROTO_SHA_LEN;
            s.securityAuthKeyLen = USM_AUTH_KU_LEN;
            if (generate_Ku(s.securityAuthProto, s.securityAuthProtoLen, reinterpret_cast<u_char*>(auth.data()),
                            auth.size(), s.securityAuthKey, &s.securityAuthKeyLen) != SNMPERR_SUCCESS)
                return nullptr;
        }
        if (level == SNMP_SEC_LEVEL_AUTHPRIV) {
            s.securityPrivProto = usmAESPrivProtocol;
            s.securityPrivProtoLen = USM_PRIV_PROTO_AES_LEN;
            s.securityPrivKeyLen = USM_PRIV_KU_LEN;
            if (generate_Ku(s.securityAuthProto, s.securityAuthProtoLen, reinterpret_cast<u_char*>(priv.data()),
                            priv.size(), s.securityPrivKey, &s.securityPrivKeyLen) != SNMPERR_SUCCESS)
                return nullptr;
        }
    }
    return snmp_open(&s); // copies everything it keeps; probes the engine ID for v3
}

// ---------------------------------------------------------------------------------------
// The figures.

struct Stats {
    std::uint64_t sent = 0, answered = 0, timeouts = 0, sendFailed = 0, unencodable = 0, repeatedCallbacks = 0;
    std::uint64_t resends = 0;
    std::vector<std::uint64_t> timedOut; // the first requests that timed out, to send again alone
    std::uint64_t viaLibrary = 0, raw = 0, rawAnswers = 0, rawV3Answers = 0, rawUndecoded = 0;
    std::map<std::string, std::uint64_t> outcomes; // by error status, or report
    std::map<std::string, std::uint64_t> rawOutcomes;
    std::map<std::string, std::uint64_t> exceptions; // varbind exceptions in answers
    std::map<std::string, std::uint64_t> byVia, byKind, setTypes;
    std::uint64_t checkedValues = 0, checkedNext = 0;
    std::uint64_t batches = 0, knownGets = 0, knownGetFailures = 0;
    std::uint64_t anomalies = 0;
    std::vector<std::string> anomalyNotes;

    void anomaly(std::uint64_t number, const std::string& what) {
        ++anomalies;
        if (anomalyNotes.size() < 30) anomalyNotes.push_back("request " + std::to_string(number) + ": " + what);
    }
};

// ---------------------------------------------------------------------------------------
// The fuzzer.

struct Record {
    std::uint64_t number = 0;
    Via via = Via::v2c;
    int command = 0;
    long nonRepeaters = 0, maxRepetitions = 0;
    std::vector<Oid> oids;
};

class Fuzzer {
public:
    explicit Fuzzer(Options o) : opts_(std::move(o)) {}
    int run();

private:
    // Requests.
    Oid genOid(Rng& r, bool allowOverlong);
    Oid genAnyOid(Rng& r, bool allowOverlong);
    Oid mutateRow(Rng& r, Oid o, bool allowOverlong);
    Oid randomIndexRow(Rng& r);
    void addSetValue(Rng& r, netsnmp_pdu* pdu, const Oid& name, int type);
    Bytes berValue(Rng& r);
    Bytes rawCommunityMessage(Rng& r);
    Bytes rawV3Message(Rng& r);
    void mutate(Rng& r, Bytes& b);
    bool sendLibrary(std::uint64_t number, Rng& r);
    bool sendRaw(std::uint64_t number, Rng& r);
    bool sendOne(std::uint64_t number);

    // Answers.
    static int onAnswer(int op, netsnmp_session*, int, netsnmp_pdu* pdu, void* magic);
    void checkAnswer(const Record& rec, const netsnmp_pdu* pdu);
    void checkServed(std::uint64_t number, const Oid& name, const Value& v);
    std::optional<std::size_t> nextRow(const Oid& o) const;
    void pump(int maxWaitMs);
    void readRaw();
    void drain();

    // Checks.
    bool takeBaseline();
    std::vector<std::pair<Oid, Value>> walk(std::string& error);
    bool knownGets(Rng& r);
    bool agentAlive() const;
    void report(double seconds) const;

    Options opts_;
    netsnmp_session* sessions_[static_cast<int>(Via::count)] = {};
    netsnmp_session* check_ = nullptr;
    int rawFd_ = -1;
    sockaddr_in agentAddr_{};
    std::string engineId_;
    std::vector<std::pair<Oid, Value>> baseline_;
    std::map<Oid, Value> baselineMap_;
    std::vector<Oid> structure_;
    int outstanding_ = 0;
    std::map<Record*, std::unique_ptr<Record>> live_; // requests waiting for their callback
    std::deque<Clock::time_point> rawRecent_;
    Stats stats_;
};

// OIDs ------------------------------------------------------------------------------------

Oid Fuzzer::randomIndexRow(Rng& r) {
    static const std::vector<std::pair<Oid, std::uint32_t>> tables{{{1, 1}, 2}, {{1, 2}, 3}, {{2, 1}, 2}, {{2, 2}, 3}};
    const auto& [sub, valueColumn] = r.pick(tables);
    Oid o = root;
    o.insert(o.end(), sub.begin(), sub.end());
    o.push_back(1);
    o.push_back(r.chance(0.7) ? valueColumn : static_cast<std::uint32_t>(r.range(0, 5)));
    int components = static_cast<int>(r.range(0, 3));
    for (int c = 0; c < components; ++c) {
        std::uint32_t len = r.chance(0.8) ? static_cast<std::uint32_t>(r.range(0, 40)) : edgeSubId(r);
        std::uint32_t bytes = std::min<std::uint32_t>(len, 60);
        if (r.chance(0.2)) bytes = static_cast<std::uint32_t>(r.range(0, 60)); // prefix and bytes disagree
        o.push_back(len);
        for (std::uint32_t i = 0; i < bytes && o.size() < 128; ++i)
            o.push_back(r.chance(0.9) ? static_cast<std::uint32_t>(r.range(0x20, 0x7e))
                                      : (r.chance(0.5) ? static_cast<std::uint32_t>(r.below(256)) : edgeSubId(r)));
    }
    if (o.size() > 128) o.resize(128);
    return o;
}

Oid Fuzzer::mutateRow(Rng& r, Oid o, bool allowOverlong) {
    const std::size_t indexAt = root.size() + 4; // first sub-identifier of the index
    if (o.size() <= indexAt) {                   // cut short by an earlier mutation: only lengthen it
        o.push_back(static_cast<std::uint32_t>(r.below(256)));
        return o;
    }
    switch (r.below(9)) {
        case 0: // another column
            o[root.size() + 3] = r.chance(0.7) ? static_cast<std::uint32_t>(r.range(0, 5)) : edgeSubId(r);
            break;
        case 1: // another entry or table
            o[root.size() + (r.chance(0.5) ? 2 : 1)] = static_cast<std::uint32_t>(r.range(0, 4));
            break;
        case 2: { // a wrong length prefix (of the name, or of the key when there is one)
            std::size_t at = indexAt;
            if (o.size() > indexAt + o[indexAt] + 1 && r.chance(0.5)) at = indexAt + o[indexAt] + 1;
            if (at < o.size()) {
                std::int64_t delta = r.chance(0.7) ? r.range(-3, 3) : 0;
                o[at] = delta ? static_cast<std::uint32_t>(std::max<std::int64_t>(0, std::int64_t(o[at]) + delta))
                              : edgeSubId(r);
            }
            break;
        }
        case 3: // truncated
            if (o.size() > 1) o.resize(static_cast<std::size_t>(r.range(1, static_cast<std::int64_t>(o.size()) - 1)));
            break;
        case 4: { // extended (over 128 sub-identifiers only where the encoder is ours)
            std::size_t limit = allowOverlong && r.chance(0.5) ? static_cast<std::size_t>(r.range(129, 300)) : 128;
            std::size_t extra = static_cast<std::size_t>(r.range(1, r.chance(0.3) ? 200 : 10));
            for (std::size_t i = 0; i < extra && o.size() < limit; ++i)
                o.push_back(r.chance(0.8) ? static_cast<std::uint32_t>(r.below(256)) : edgeSubId(r));
            break;
        }
        case 5: // a byte of the index that is not a byte
            if (o.size() > indexAt + 1)
                o[static_cast<std::size_t>(r.range(indexAt + 1, o.size() - 1))] =
                    r.chance(0.5) ? static_cast<std::uint32_t>(r.range(256, 70000)) : edgeSubId(r);
            break;
        case 6: // one step on, or back, in the last sub-identifier
            if (r.chance(0.5))
                ++o.back();
            else if (o.back() > 0)
                --o.back();
            else
                o.pop_back();
            break;
        case 7: // a trailing zero, or trailing 255s
            o.push_back(r.chance(0.5) ? 0 : 255);
            break;
        default: // a random byte of the index changed
            if (o.size() > indexAt)
                o[static_cast<std::size_t>(r.range(indexAt, o.size() - 1))] = static_cast<std::uint32_t>(r.below(256));
    }
    return o;
}

Oid Fuzzer::genOid(Rng& r, bool allowOverlong) {
    Oid o = genAnyOid(r, allowOverlong);
    // Net-SNMP's library encodes up to 128 sub-identifiers (the agent drops longer ones
    // unanswered); longer ones go out as raw datagrams only.
    if (!allowOverlong && o.size() > 128) o.resize(128);
    return o;
}

Oid Fuzzer::genAnyOid(Rng& r, bool allowOverlong) {
    const std::uint64_t k = r.below(100);
    if (k < 30 && !baseline_.empty()) return r.pick(baseline_).first;
    if (k < 55 && !baseline_.empty()) {
        Oid o = r.pick(baseline_).first;
        int times = r.chance(0.8) ? 1 : static_cast<int>(r.range(2, 4));
        for (int i = 0; i < times; ++i) o = mutateRow(r, o, allowOverlong);
        return o;
    }
    if (k < 80) return randomIndexRow(r);
    if (k < 90) return r.pick(structure_);
    // Anywhere: random OIDs of random lengths, a few of them huge.
    Oid o;
    std::size_t n =
        r.chance(0.9) ? static_cast<std::size_t>(r.range(1, 40)) : static_cast<std::size_t>(r.range(41, 128));
    if (allowOverlong && r.chance(0.1)) n = static_cast<std::size_t>(r.range(129, 400));
    o.push_back(static_cast<std::uint32_t>(r.below(3)));
    while (o.size() < n) o.push_back(r.chance(0.7) ? static_cast<std::uint32_t>(r.below(40)) : edgeSubId(r));
    if (o.size() >= 2 && o[0] < 2 && o[1] > 39) o[1] %= 40; // encodable as the first two
    return o;
}

// SET values of every type --------------------------------------------------------------

const std::vector<int> setTypes{ASN_INTEGER,   ASN_OCTET_STR, ASN_OBJECT_ID, ASN_IPADDRESS, ASN_COUNTER, ASN_GAUGE,
                                ASN_TIMETICKS, ASN_OPAQUE,    ASN_COUNTER64, ASN_NULL,      ASN_BIT_STR};

const char* typeName(int t) {
    switch (t) {
        case ASN_INTEGER:
            return "INTEGER";
        case ASN_OCTET_STR:
            return "OCTET STRING";
        case ASN_OBJECT_ID:
            return "OBJECT IDENTIFIER";
        case ASN_IPADDRESS:
            return "IpAddress";
        case ASN_COUNTER:
            return "Counter32";
        case ASN_GAUGE:
            return "Gauge32";
        case ASN_TIMETICKS:
            return "TimeTicks";
        case ASN_OPAQUE:
            return "Opaque";
        case ASN_COUNTER64:
            return "Counter64";
        case ASN_NULL:
            return "NULL";
        case ASN_BIT_STR:
            return "BITS";
    }
    return "?";
}

void Fuzzer::addSetValue(Rng& r, netsnmp_pdu* pdu, const Oid& name, int type) {
    std::vector<oid> n(name.begin(), name.end());
    switch (type) {
        case ASN_INTEGER: {
            static const std::vector<long> edges{1, 2, 0, -1, 3, LONG_MIN, LONG_MAX, INT_MIN, INT_MAX};
            long v = r.chance(0.7) ? r.pick(edges) : static_cast<long>(r.next());
            snmp_pdu_add_variable(pdu, n.data(), n.size(), ASN_INTEGER, &v, sizeof v);
            break;
        }
        case ASN_COUNTER:
        case ASN_GAUGE:
        case ASN_TIMETICKS: {
            u_long v = r.chance(0.5) ? static_cast<u_long>(r.below(3)) : static_cast<u_long>(r.next() & 0xFFFFFFFFu);
            snmp_pdu_add_variable(pdu, n.data(), n.size(), static_cast<u_char>(type), &v, sizeof v);
            break;
        }
        case ASN_COUNTER64: {
            counter64 v{static_cast<u_long>(r.next() & 0xFFFFFFFFu), static_cast<u_long>(r.next() & 0xFFFFFFFFu)};
            snmp_pdu_add_variable(pdu, n.data(), n.size(), ASN_COUNTER64, &v, sizeof v);
            break;
        }
        case ASN_OBJECT_ID: {
            Oid o = genOid(r, false);
            std::vector<oid> ov(o.begin(), o.end());
            snmp_pdu_add_variable(pdu, n.data(), n.size(), ASN_OBJECT_ID, ov.data(), ov.size() * sizeof(oid));
            break;
        }
        case ASN_NULL:
            snmp_pdu_add_variable(pdu, n.data(), n.size(), ASN_NULL, nullptr, 0);
            break;
        default: { // octet strings: text, bytes, empty, the longest value and one byte more
            std::size_t len = static_cast<std::size_t>(
                r.chance(0.8) ? r.range(0, 40) : r.pick(std::vector<std::int64_t>{0, 4, 64, 65, 1024, 10240, 10241}));
            if (type == ASN_IPADDRESS && r.chance(0.7)) len = 4;
            std::string s(len, 'x');
            for (auto& c : s) c = static_cast<char>(r.chance(0.8) ? r.range(0x20, 0x7e) : r.below(256));
            snmp_pdu_add_variable(pdu, n.data(), n.size(), static_cast<u_char>(type),
                                  reinterpret_cast<const u_char*>(s.data()), s.size());
        }
    }
}

// Raw datagrams ---------------------------------------------------------------------------

Bytes Fuzzer::berValue(Rng& r) {
    switch (r.below(12)) {
        case 0:
            return Ber::signedInt(r.chance(0.5) ? r.range(0, 3) : static_cast<std::int64_t>(r.next()));
        case 1: {
            std::string s(static_cast<std::size_t>(r.range(0, 64)), 'v');
            return Ber::octets(s);
        }
        case 2:
            return Ber::oid(genOid(r, true));
        case 3:
            return Ber::octets(Bytes{127, 0, 0, 1}, Ber::ipAddress);
        case 4:
            return Ber::unsignedInt(r.next() & 0xFFFFFFFFu, Ber::counter32);
        case 5:
            return Ber::unsignedInt(r.next(), Ber::counter64);
        case 6:
            return Ber::unsignedInt(r.next() & 0xFFFFFFFFu, r.chance(0.5) ? Ber::gauge32 : Ber::timeTicks);
        case 7:
            return Ber::octets(Bytes(static_cast<std::size_t>(r.range(0, 16)), 0x9f), Ber::opaque);
        case 8:
            return Ber::null(static_cast<std::uint8_t>(Ber::noSuchObject + r.below(3))); // exceptions as values
        case 9:
            return Ber::octets(Bytes{0, 0xff}, Ber::bitString);
        case 10: { // an unknown tag
            Bytes b(static_cast<std::size_t>(r.range(0, 8)));
            for (auto& x : b) x = static_cast<std::uint8_t>(r.below(256));
            return Ber::tlv(static_cast<std::uint8_t>(r.below(256)), b);
        }
        default:
            return Ber::null();
    }
}

Bytes Fuzzer::rawCommunityMessage(Rng& r) {
    static const std::vector<std::uint8_t> tags{Ber::getRequest,
                                                Ber::getNextRequest,
                                                Ber::getBulkRequest,
                                                Ber::setRequest,
                                                Ber::response,
                                                Ber::trapV1,
                                                Ber::informRequest,
                                                Ber::trapV2,
                                                Ber::report,
                                                0xA9,
                                                0xAF,
                                                0xBF,
                                                0x30};
    std::uint8_t tag = r.chance(0.85) ? r.pick(std::vector<std::uint8_t>{Ber::getRequest, Ber::getNextRequest,
                                                                         Ber::getBulkRequest, Ber::setRequest})
                                      : r.pick(tags);
    std::vector<Bytes> vbs;
    std::size_t n = static_cast<std::size_t>(r.chance(0.9) ? r.range(0, 6) : r.range(7, 400));
    for (std::size_t i = 0; i < n; ++i)
        vbs.push_back(
            Ber::varbind(genOid(r, true), tag == Ber::setRequest || r.chance(0.1) ? berValue(r) : Ber::null()));
    static const std::vector<std::int64_t> counts{0,     1,         2,  10,        100,       101,
                                                  65535, INT32_MAX, -1, INT32_MIN, INT64_MAX, INT64_MIN};
    std::int64_t a = r.chance(0.6) ? r.range(0, 5) : r.pick(counts);
    std::int64_t b = r.chance(0.6) ? r.range(0, 50) : r.pick(counts);
    std::int64_t version = r.chance(0.9) ? static_cast<std::int64_t>(r.below(2))
                                         : r.pick(std::vector<std::int64_t>{2, 3, -1, 99, INT64_MAX});
    std::string community = opts_.community;
    switch (r.below(10)) {
        case 0:
            community = opts_.writeCommunity;
            break;
        case 1:
            community = "wrong-community";
            break;
        case 2:
            community = "";
            break;
        case 3:
            community = std::string(static_cast<std::size_t>(r.range(100, 600)), 'c');
            break;
        default:
            break;
    }
    auto reqId = static_cast<std::int64_t>(r.next() & 0x7FFFFFFF);
    return Ber::message(version, community, Ber::pdu(tag, reqId, a, b, vbs));
}

Bytes Fuzzer::rawV3Message(Rng& r) {
    // msgFlags: reportable, with or without auth and priv; the security parameters forged.
    std::uint8_t flags = r.chance(0.85) ? static_cast<std::uint8_t>(0x04 | r.pick(std::vector<std::uint8_t>{0, 1, 3}))
                                        : static_cast<std::uint8_t>(r.below(256));
    std::int64_t msgId = static_cast<std::int64_t>(r.next() & 0x7FFFFFFF);
    std::int64_t maxSize = r.chance(0.8) ? 65507 : r.pick(std::vector<std::int64_t>{0, 484, 483, -1, INT32_MAX});
    std::int64_t model = r.chance(0.9) ? 3 : r.pick(std::vector<std::int64_t>{0, 1, 2, 4, -1});
    Bytes global = Ber::tlv(Ber::sequence, Ber::signedInt(msgId) + Ber::signedInt(maxSize) + Ber::octets(Bytes{flags}) +
                                               Ber::signedInt(model));
    std::string user = r.pick(
        std::vector<std::string>{opts_.roUser, opts_.rwUser, opts_.badUser, "", "nobody-here", std::string(40, 'u')});
    std::string engine = r.chance(0.8) ? engineId_ : (r.chance(0.5) ? std::string() : std::string(40, 'e'));
    Bytes authParams((flags & 1) ? 12 : 0), privParams((flags & 2) ? 8 : 0);
    if (r.chance(0.2)) authParams.resize(static_cast<std::size_t>(r.range(0, 40)));
    for (auto& x : authParams) x = static_cast<std::uint8_t>(r.below(256));
    for (auto& x : privParams) x = static_cast<std::uint8_t>(r.below(256));
    Bytes usm = Ber::tlv(Ber::sequence, Ber::octets(engine) + Ber::signedInt(r.chance(0.8) ? 1 : r.range(-1, 5)) +
                                            Ber::signedInt(r.chance(0.8) ? r.range(0, 100) : INT32_MAX) +
                                            Ber::octets(user) + Ber::octets(authParams) + Ber::octets(privParams));
    std::vector<Bytes> vbs;
    std::size_t n = static_cast<std::size_t>(r.range(0, 5));
    for (std::size_t i = 0; i < n; ++i) vbs.push_back(Ber::varbind(genOid(r, true), Ber::null()));
    Bytes p = Ber::pdu(
        r.pick(std::vector<std::uint8_t>{Ber::getRequest, Ber::getNextRequest, Ber::getBulkRequest, Ber::setRequest}),
        static_cast<std::int64_t>(r.next() & 0x7FFFFFFF), r.range(0, 3), r.range(0, 20), vbs);
    Bytes scoped;
    if ((flags & 2) && r.chance(0.8)) { // "encrypted": bytes that decrypt to nothing valid
        Bytes junk(static_cast<std::size_t>(r.range(0, 200)));
        for (auto& x : junk) x = static_cast<std::uint8_t>(r.below(256));
        scoped = Ber::octets(junk);
    } else {
        scoped = Ber::tlv(Ber::sequence, Ber::octets(engine) + Ber::octets(r.chance(0.9) ? "" : "other") + p);
    }
    return Ber::tlv(Ber::sequence, Ber::signedInt(3) + global + Ber::octets(usm) + scoped);
}

void Fuzzer::mutate(Rng& r, Bytes& b) {
    int ops = static_cast<int>(r.range(1, 4));
    for (int i = 0; i < ops; ++i) {
        if (b.empty()) {
            b.push_back(static_cast<std::uint8_t>(r.below(256)));
            continue;
        }
        std::size_t at = static_cast<std::size_t>(r.below(b.size()));
        switch (r.below(9)) {
            case 0:
                b[at] ^= static_cast<std::uint8_t>(1u << r.below(8));
                break;
            case 1:
                b[at] = r.pick(std::vector<std::uint8_t>{0x00, 0x01, 0x7F, 0x80, 0x81, 0x82, 0x84, 0xFF});
                break;
            case 2:
                b.resize(at);
                break; // cut short
            case 3:
                b.erase(b.begin() + static_cast<std::ptrdiff_t>(at),
                        b.begin() + static_cast<std::ptrdiff_t>(std::min(b.size(), at + 1 + r.below(8))));
                break;
            case 4: { // random bytes in
                Bytes junk(static_cast<std::size_t>(r.range(1, 16)));
                for (auto& x : junk) x = static_cast<std::uint8_t>(r.below(256));
                b.insert(b.begin() + static_cast<std::ptrdiff_t>(at), junk.begin(), junk.end());
                break;
            }
            case 5: { // a slice duplicated
                std::size_t len = std::min<std::size_t>(b.size() - at, 1 + r.below(64));
                Bytes slice(b.begin() + static_cast<std::ptrdiff_t>(at),
                            b.begin() + static_cast<std::ptrdiff_t>(at + len));
                b.insert(b.begin() + static_cast<std::ptrdiff_t>(at), slice.begin(), slice.end());
                break;
            }
            case 6: { // a long-form length claiming far too much
                Bytes huge{0x84, 0x7F, 0xFF, 0xFF, 0xFF};
                if (r.chance(0.5)) huge = {0x84, 0xFF, 0xFF, 0xFF, 0xFF};
                if (r.chance(0.3)) huge = {0x80}; // indefinite length
                b.erase(b.begin() + static_cast<std::ptrdiff_t>(at));
                b.insert(b.begin() + static_cast<std::ptrdiff_t>(at), huge.begin(), huge.end());
                break;
            }
            case 7:
                std::swap(b[at], b[static_cast<std::size_t>(r.below(b.size()))]);
                break;
            default:
                b.push_back(static_cast<std::uint8_t>(r.below(256)));
        }
    }
    if (b.size() > 65507) b.resize(65507);
}

// Sending ---------------------------------------------------------------------------------

bool Fuzzer::sendLibrary(std::uint64_t number, Rng& r) {
    static const std::vector<std::pair<Via, int>> weights{
        {Via::v1, 10},           {Via::v2c, 25},           {Via::v2cWrite, 15},      {Via::v3ro, 18},
        {Via::v3rw, 10},         {Via::v3rwAuthNoPriv, 5}, {Via::v3roAuthNoPriv, 4}, {Via::v3roNoAuth, 5},
        {Via::v3badPassword, 4}, {Via::v3unknownUser, 4}};
    std::int64_t w = r.range(0, 99);
    Via via = Via::v2c;
    for (const auto& [v, weight] : weights) {
        if (w < weight) {
            via = v;
            break;
        }
        w -= weight;
    }
    auto rec = std::make_unique<Record>();
    rec->number = number;
    rec->via = via;
    const std::uint64_t k = r.below(100);
    int command = k < 25 ? SNMP_MSG_GET : k < 50 ? SNMP_MSG_GETNEXT : k < 70 ? SNMP_MSG_GETBULK : SNMP_MSG_SET;
    if (via == Via::v1 && command == SNMP_MSG_GETBULK) command = SNMP_MSG_GETNEXT;
    rec->command = command;
    netsnmp_pdu* pdu = snmp_pdu_create(command);
    std::size_t n = static_cast<std::size_t>(r.chance(0.93) ? r.range(1, 6) : r.range(7, 60));
    int setType = 0;
    for (std::size_t i = 0; i < n; ++i) {
        Oid o;
        if (command == SNMP_MSG_SET && r.chance(0.5) && !baseline_.empty()) {
            // Every column of a served row, and the columns beside it.
            o = r.pick(baseline_).first;
            o[root.size() + 3] = static_cast<std::uint32_t>(r.range(0, 5));
        } else {
            o = genOid(r, false);
        }
        rec->oids.push_back(o);
        if (command == SNMP_MSG_SET) {
            setType = r.pick(setTypes);
            if (via == Via::v1 && setType == ASN_COUNTER64) setType = ASN_COUNTER;
            addSetValue(r, pdu, o, setType);
            ++stats_.setTypes[typeName(setType)];
        } else {
            std::vector<oid> name(o.begin(), o.end());
            snmp_add_null_var(pdu, name.data(), name.size());
        }
    }
    if (command == SNMP_MSG_GETBULK) {
        static const std::vector<long> extremes{0, 1, 100, 101, 1000, 65535, INT_MAX, -1, INT_MIN, LONG_MAX};
        pdu->non_repeaters = r.chance(0.7) ? static_cast<long>(r.range(0, 3)) : r.pick(extremes);
        pdu->max_repetitions = r.chance(0.6) ? static_cast<long>(r.range(0, 60)) : r.pick(extremes);
        rec->nonRepeaters = pdu->non_repeaters;
        rec->maxRepetitions = pdu->max_repetitions;
    }
    if (opts_.verbose) {
        std::cerr << "request " << number << " sent: command 0x" << std::hex << command << std::dec << " via "
                  << viaName[static_cast<int>(via)] << ", non-repeaters " << pdu->non_repeaters << ", max-repetitions "
                  << pdu->max_repetitions << "\n";
        for (auto* v = pdu->variables; v; v = v->next_variable)
            std::cerr << "  sent " << show(toOid(v->name, v->name_length)) << " = " << show(valueOf(v)) << "\n";
    }
    netsnmp_session* s = sessions_[static_cast<int>(via)];
    Record* key = rec.get();
    live_[key] = std::move(rec);
    ++outstanding_;
    if (!snmp_async_send(s, pdu, &Fuzzer::onAnswer, key)) {
        // The library refuses to encode some requests (a Counter64 in v1, a message too
        // long): it may have called back already (SEND_FAILED), which ended the record.
        snmp_free_pdu(pdu);
        if (live_.erase(key)) --outstanding_;
        ++stats_.unencodable;
        return false;
    }
    ++stats_.viaLibrary;
    ++stats_.byVia[viaName[static_cast<int>(via)]];
    ++stats_.byKind[command == SNMP_MSG_GET       ? "GET"
                    : command == SNMP_MSG_GETNEXT ? "GETNEXT"
                    : command == SNMP_MSG_GETBULK ? "GETBULK"
                                                  : "SET"];
    return true;
}

bool Fuzzer::sendRaw(std::uint64_t number, Rng& r) {
    (void)number;
    Bytes b;
    const std::uint64_t k = r.below(100);
    const char* kind;
    if (k < 30) {
        b = rawCommunityMessage(r);
        kind = "raw v1/v2c message, unusual";
    } else if (k < 75) {
        b = rawCommunityMessage(r);
        mutate(r, b);
        kind = "raw v1/v2c message, mutated";
    } else if (k < 85) {
        b = rawV3Message(r);
        kind = "raw v3 message, forged";
    } else if (k < 95) {
        b = rawV3Message(r);
        mutate(r, b);
        kind = "raw v3 message, mutated";
    } else {
        b.resize(static_cast<std::size_t>(r.chance(0.9) ? r.range(0, 300) : r.range(301, 65507)));
        for (auto& x : b) x = static_cast<std::uint8_t>(r.below(256));
        if (!b.empty() && r.chance(0.5)) b[0] = 0x30;
        kind = "raw random bytes";
    }
    ssize_t n =
        ::sendto(rawFd_, b.data(), b.size(), 0, reinterpret_cast<const sockaddr*>(&agentAddr_), sizeof agentAddr_);
    if (n < 0) {
        ++stats_.sendFailed;
        return false;
    }
    ++stats_.raw;
    ++stats_.byKind[kind];
    rawRecent_.push_back(Clock::now());
    return true;
}

bool Fuzzer::sendOne(std::uint64_t number) {
    Rng r(opts_.seed * 0x100000001B3ull + number);
    bool ok = r.chance(0.7) ? sendLibrary(number, r) : sendRaw(number, r);
    if (ok) ++stats_.sent;
    return ok;
}

// Answers ---------------------------------------------------------------------------------

int Fuzzer::onAnswer(int op, netsnmp_session* session, int, netsnmp_pdu* pdu, void* magic) {
    auto* self = static_cast<Fuzzer*>(session->myvoid);
    if (op == NETSNMP_CALLBACK_OP_RESEND) { // sent again (after a time-window report): still waiting
        ++self->stats_.resends;
        return 1;
    }
    // The library may call back more than once for one request (an answer after a report,
    // say): only the first call counts.
    auto live = self->live_.find(static_cast<Record*>(magic));
    if (live == self->live_.end()) {
        ++self->stats_.repeatedCallbacks;
        return 1;
    }
    std::unique_ptr<Record> rec = std::move(live->second);
    self->live_.erase(live);
    --self->outstanding_;
    if (op == NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE) {
        ++self->stats_.answered;
        self->checkAnswer(*rec, pdu);
    } else if (op == NETSNMP_CALLBACK_OP_TIMED_OUT) {
        ++self->stats_.timeouts;
        ++self->stats_.outcomes[std::string("timeout: ") + viaName[static_cast<int>(rec->via)]];
        if (self->stats_.timedOut.size() < 20) self->stats_.timedOut.push_back(rec->number);
    } else if (op == NETSNMP_CALLBACK_OP_SEC_ERROR) {
        ++self->stats_.answered; // an answer the library refused on security grounds
        ++self->stats_.outcomes[std::string("answer refused by the library's security check: ") +
                                viaName[static_cast<int>(rec->via)]];
    } else if (op != NETSNMP_CALLBACK_OP_SEND_FAILED) { // SEND_FAILED: counted as not encodable
        ++self->stats_.outcomes["callback op " + std::to_string(op)];
    }
    return 1;
}

std::optional<std::size_t> Fuzzer::nextRow(const Oid& o) const {
    // Only from inside the tables (between the subtree and the last row) is the next row
    // certain: before the subtree or after the last row the agent may serve other MIBs.
    if (baseline_.empty() || o < root || !(o < baseline_.back().first)) return std::nullopt;
    auto it = std::upper_bound(baseline_.begin(), baseline_.end(), o,
                               [](const Oid& a, const std::pair<Oid, Value>& b) { return a < b.first; });
    return static_cast<std::size_t>(it - baseline_.begin());
}

void Fuzzer::checkServed(std::uint64_t number, const Oid& name, const Value& v) {
    if (!inTables(name) || isException(v.tag)) return;
    ++stats_.checkedValues;
    auto it = baselineMap_.find(name);
    if (it == baselineMap_.end()) {
        stats_.anomaly(number, "value for " + show(name) + " which is no row: " + show(v));
    } else if (!(it->second == v)) {
        stats_.anomaly(number, "value for " + show(name) + " is " + show(v) + ", not " + show(it->second));
    }
}

void Fuzzer::checkAnswer(const Record& rec, const netsnmp_pdu* pdu) {
    if (opts_.verbose) {
        std::cerr << "request " << rec.number << ": command 0x" << std::hex << rec.command << std::dec << " via "
                  << viaName[static_cast<int>(rec.via)] << ", non-repeaters " << rec.nonRepeaters
                  << ", max-repetitions " << rec.maxRepetitions << "\n";
        for (const Oid& o : rec.oids) std::cerr << "  asked " << show(o) << "\n";
        std::cerr << "  answer: command 0x" << std::hex << pdu->command << std::dec << ", " << errorName(pdu->errstat)
                  << " index " << pdu->errindex << "\n";
        for (auto* v = pdu->variables; v; v = v->next_variable)
            std::cerr << "  got " << show(toOid(v->name, v->name_length)) << " = " << show(valueOf(v)) << "\n";
    }
    if (pdu->command == SNMP_MSG_REPORT) {
        std::string what =
            pdu->variables ? reportName(toOid(pdu->variables->name, pdu->variables->name_length)) : "empty";
        ++stats_.outcomes["report " + what];
        return;
    }
    ++stats_.outcomes[errorName(pdu->errstat)];
    std::vector<std::pair<Oid, Value>> vbs;
    for (auto* v = pdu->variables; v; v = v->next_variable) {
        vbs.emplace_back(toOid(v->name, v->name_length), valueOf(v));
        if (isException(v->type))
            ++stats_.exceptions[v->type == SNMP_NOSUCHOBJECT     ? "noSuchObject"
                                : v->type == SNMP_NOSUCHINSTANCE ? "noSuchInstance"
                                                                 : "endOfMibView"];
    }
    if (rec.command == SNMP_MSG_SET) {
        if (pdu->errstat == SNMP_ERR_NOERROR) stats_.anomaly(rec.number, "a SET was accepted");
        return;
    }
    if (pdu->errstat != SNMP_ERR_NOERROR) {
        bool inside = std::all_of(rec.oids.begin(), rec.oids.end(), [](const Oid& o) { return under(o, root); });
        if (goodReader(rec.via) && inside && pdu->errstat != SNMP_ERR_TOOBIG)
            stats_.anomaly(rec.number, std::string("error status ") + errorName(pdu->errstat) + " for a " +
                                           viaName[static_cast<int>(rec.via)] + " read inside the subtree");
        return;
    }
    for (const auto& [name, value] : vbs) checkServed(rec.number, name, value);
    if (rec.command == SNMP_MSG_GET) {
        for (std::size_t i = 0; i < vbs.size() && i < rec.oids.size(); ++i) {
            const Oid& asked = rec.oids[i];
            if (!inTables(asked)) continue;
            if (vbs[i].first != asked) {
                stats_.anomaly(rec.number, "GET of " + show(asked) + " answered for " + show(vbs[i].first));
                continue;
            }
            if (!baselineMap_.count(asked) && !isException(vbs[i].second.tag))
                stats_.anomaly(rec.number,
                               "GET of " + show(asked) + " which is no row returned " + show(vbs[i].second));
            if (baselineMap_.count(asked) && isException(vbs[i].second.tag))
                stats_.anomaly(rec.number, "GET of row " + show(asked) + " returned an exception");
        }
        return;
    }
    // GETNEXT, and GETBULK as non-repeaters followed by repetitions of the rest.
    const std::size_t n = rec.oids.size();
    std::size_t nonRep = n, repeaters = 0;
    if (rec.command == SNMP_MSG_GETBULK) {
        nonRep = static_cast<std::size_t>(std::clamp<long>(rec.nonRepeaters, 0, static_cast<long>(n)));
        repeaters = n - nonRep;
        if (rec.maxRepetitions <= 0) repeaters = 0;
    }
    // An endOfMibView in a repetition carries a name that Net-SNMP 5.9 takes from the
    // varbind non-repeaters places before it (Debian's snmpd does the same), so its name is
    // not checked, and the column it ends is followed only by endOfMibView.
    std::vector<bool> ended(repeaters, false);
    for (std::size_t p = 0; p < vbs.size(); ++p) {
        Oid prev;
        std::size_t column = SIZE_MAX;
        if (p < nonRep) {
            prev = rec.oids[p];
        } else if (repeaters) {
            std::size_t k = (p - nonRep) / repeaters;
            column = (p - nonRep) % repeaters;
            prev = k == 0 ? rec.oids[nonRep + column] : vbs[p - repeaters].first;
        } else {
            stats_.anomaly(rec.number, "more varbinds in the answer than asked for");
            break;
        }
        const auto& [name, value] = vbs[p];
        if (column != SIZE_MAX && ended[column]) {
            if (value.tag != SNMP_ENDOFMIBVIEW)
                stats_.anomaly(rec.number, "a value after endOfMibView in a repetition: " + show(name));
            continue;
        }
        auto next = nextRow(prev);
        if (value.tag == SNMP_ENDOFMIBVIEW) {
            if (column != SIZE_MAX) ended[column] = true;
            if (next)
                stats_.anomaly(rec.number,
                               "endOfMibView after " + show(prev) + ", not " + show(baseline_[*next].first));
            continue;
        }
        if (!next) continue;
        ++stats_.checkedNext;
        if (name != baseline_[*next].first || !(value == baseline_[*next].second))
            stats_.anomaly(rec.number, "next after " + show(prev) + " is " + show(name) + " = " + show(value) +
                                           ", not " + show(baseline_[*next].first));
    }
}

void Fuzzer::readRaw() {
    std::uint8_t buf[65536];
    for (;;) {
        ssize_t n = ::recv(rawFd_, buf, sizeof buf, MSG_DONTWAIT);
        if (n < 0) return;
        ++stats_.rawAnswers;
        if (Ber::isVersion3(buf, static_cast<std::size_t>(n))) {
            ++stats_.rawV3Answers;
            ++stats_.rawOutcomes["v3 answer (report)"];
            continue;
        }
        auto a = Ber::readAnswer(buf, static_cast<std::size_t>(n));
        if (!a) {
            ++stats_.rawUndecoded;
            continue;
        }
        ++stats_.rawOutcomes[errorName(static_cast<long>(a->errorStatus))];
        if (a->pduTag != Ber::response) stats_.anomaly(0, "a raw answer that is not a response PDU");
        if (a->errorStatus == 0)
            for (const auto& v : a->varbinds) checkServed(0, v.name, valueOf(v));
    }
}

void Fuzzer::pump(int maxWaitMs) {
    int numfds = 0, block = 1;
    fd_set fds;
    FD_ZERO(&fds);
    timeval tv{0, 0};
    snmp_select_info(&numfds, &fds, &tv, &block);
    FD_SET(rawFd_, &fds);
    numfds = std::max(numfds, rawFd_ + 1);
    timeval limit{maxWaitMs / 1000, (maxWaitMs % 1000) * 1000};
    if (block || timercmp(&limit, &tv, <)) tv = limit;
    int count = ::select(numfds, &fds, nullptr, nullptr, &tv);
    if (count > 0) {
        if (FD_ISSET(rawFd_, &fds)) readRaw();
        snmp_read(&fds);
    } else if (count == 0) {
        snmp_timeout();
    }
    snmp_timeout(); // answers that never come still end on time under a steady stream
}

void Fuzzer::drain() {
    auto deadline = Clock::now() + std::chrono::milliseconds(opts_.timeoutMs * 3 + 2000);
    while (outstanding_ > 0 && Clock::now() < deadline) pump(50);
    // Raw datagrams have no count of answers to wait for: give the agent a moment.
    auto quiet = Clock::now() + std::chrono::milliseconds(30);
    while (Clock::now() < quiet) pump(10);
    rawRecent_.clear();
}

// Checks ----------------------------------------------------------------------------------

std::vector<std::pair<Oid, Value>> Fuzzer::walk(std::string& error) {
    std::vector<std::pair<Oid, Value>> out;
    Oid cur = root;
    for (int guard = 0; guard < 1000000; ++guard) {
        netsnmp_pdu* pdu = snmp_pdu_create(SNMP_MSG_GETNEXT);
        std::vector<oid> name(cur.begin(), cur.end());
        snmp_add_null_var(pdu, name.data(), name.size());
        netsnmp_pdu* answer = nullptr;
        int st = snmp_synch_response(check_, pdu, &answer);
        if (st != STAT_SUCCESS || !answer || answer->errstat != SNMP_ERR_NOERROR || !answer->variables) {
            error = st == STAT_TIMEOUT ? "timeout" : answer ? errorName(answer->errstat) : "no answer";
            if (answer) snmp_free_pdu(answer);
            return out;
        }
        Oid got = toOid(answer->variables->name, answer->variables->name_length);
        Value v = valueOf(answer->variables);
        snmp_free_pdu(answer);
        if (!inTables(got) || v.tag == SNMP_ENDOFMIBVIEW) return out;
        if (!(cur < got)) {
            error = "OID not increasing at " + show(got);
            return out;
        }
        out.emplace_back(got, v);
        cur = got;
    }
    error = "walk does not end";
    return out;
}

bool Fuzzer::takeBaseline() {
    std::string error;
    baseline_ = walk(error);
    if (!error.empty() || baseline_.empty()) {
        std::cerr << "velmar-protocol-fuzz: cannot walk the agent at " << opts_.host << ":" << opts_.port << ": "
                  << (error.empty() ? "no rows" : error) << "\n";
        return false;
    }
    for (const auto& [o, v] : baseline_) baselineMap_[o] = v;
    // The subtree's own nodes and its neighbours.
    for (std::size_t len = 1; len <= root.size(); ++len) structure_.emplace_back(root.begin(), root.begin() + len);
    for (Oid tail :
         std::vector<Oid>{{0},       {1},       {2},          {3},          {4},          {1, 0},       {1, 1},
                          {1, 2},    {1, 3},    {2, 1},       {2, 2},       {2, 3},       {1, 1, 1},    {1, 2, 1},
                          {2, 1, 1}, {2, 2, 1}, {1, 1, 1, 1}, {1, 1, 1, 2}, {1, 2, 1, 3}, {2, 1, 1, 2}, {2, 2, 1, 3},
                          {1, 1, 2}, {2, 2, 0}, {3, 1},       {3, 2}}) {
        Oid o = root;
        o.insert(o.end(), tail.begin(), tail.end());
        structure_.push_back(o);
    }
    Oid before = root, after = root;
    before.back() -= 1;
    after.back() += 1;
    structure_.push_back(before);
    structure_.push_back(after);
    structure_.push_back({1, 3, 6, 1, 2, 1, 1, 1, 0});
    structure_.push_back({1, 3, 6, 1, 6, 3, 15, 1, 1, 1, 0});
    structure_.push_back({1, 3, 6, 1, 6, 3, 10, 2, 1, 1, 0});
    structure_.push_back({0, 0});
    structure_.push_back({2, 999});
    return true;
}

bool Fuzzer::knownGets(Rng& r) {
    // The first row of each table, the last row, and two at random: one GET each.
    std::vector<std::size_t> picks{0, baseline_.size() - 1, static_cast<std::size_t>(r.below(baseline_.size())),
                                   static_cast<std::size_t>(r.below(baseline_.size()))};
    for (std::size_t i = 1; i < baseline_.size(); ++i)
        if (!std::equal(baseline_[i].first.begin(),
                        baseline_[i].first.begin() + static_cast<std::ptrdiff_t>(root.size() + 2),
                        baseline_[i - 1].first.begin()))
            picks.push_back(i);
    bool ok = true;
    for (std::size_t i : picks) {
        const auto& [name, value] = baseline_[i];
        netsnmp_pdu* pdu = snmp_pdu_create(SNMP_MSG_GET);
        std::vector<oid> n(name.begin(), name.end());
        snmp_add_null_var(pdu, n.data(), n.size());
        netsnmp_pdu* answer = nullptr;
        int st = snmp_synch_response(check_, pdu, &answer);
        ++stats_.knownGets;
        bool good = st == STAT_SUCCESS && answer && answer->errstat == SNMP_ERR_NOERROR && answer->variables &&
                    toOid(answer->variables->name, answer->variables->name_length) == name &&
                    valueOf(answer->variables) == value;
        if (!good) {
            ++stats_.knownGetFailures;
            std::cerr << "velmar-protocol-fuzz: known GET of " << show(name) << " failed after batch " << stats_.batches
                      << (st == STAT_TIMEOUT ? " (timeout)" : "") << "\n";
            ok = false;
        }
        if (answer) snmp_free_pdu(answer);
    }
    return ok;
}

bool Fuzzer::agentAlive() const {
    if (opts_.agentPid <= 0) return true;
    if (::kill(static_cast<pid_t>(opts_.agentPid), 0) != 0) return false;
    std::ifstream stat("/proc/" + std::to_string(opts_.agentPid) + "/stat");
    std::string pid, comm, state;
    stat >> pid >> comm >> state;
    return state != "Z" && state != "X";
}

void Fuzzer::report(double seconds) const {
    auto& out = std::cout;
    out << "velmar-protocol-fuzz: seed " << opts_.seed << ", " << stats_.batches << " batches of " << opts_.batch
        << ", " << seconds << " s\n";
    out << "  requests sent:         " << stats_.sent << " (" << stats_.viaLibrary << " through the library, "
        << stats_.raw << " raw datagrams)\n";
    out << "  library requests answered: " << stats_.answered << ", timed out: " << stats_.timeouts
        << ", not encodable (skipped, not counted): " << stats_.unencodable << ", send failures: " << stats_.sendFailed
        << ", sent again by the library: " << stats_.resends
        << ", repeated callbacks ignored: " << stats_.repeatedCallbacks << "\n";
    if (!stats_.timedOut.empty()) {
        out << "  first requests timed out (--only NUMBER):";
        for (auto n : stats_.timedOut) out << " " << n;
        out << "\n";
    }
    out << "  raw datagrams answered:    " << stats_.rawAnswers << " (" << stats_.rawV3Answers << " v3, "
        << stats_.rawUndecoded << " undecodable)\n";
    out << "  answered in all:       " << stats_.answered + stats_.rawAnswers << "\n";
    auto table = [&](const char* title, const std::map<std::string, std::uint64_t>& m) {
        out << "  " << title << ":\n";
        for (const auto& [k, v] : m) out << "    " << k << ": " << v << "\n";
    };
    table("library answers by outcome", stats_.outcomes);
    table("raw answers by outcome", stats_.rawOutcomes);
    table("varbind exceptions in library answers", stats_.exceptions);
    table("requests by kind", stats_.byKind);
    table("library requests by credentials", stats_.byVia);
    table("SET varbinds by type", stats_.setTypes);
    out << "  values checked against the walk: " << stats_.checkedValues
        << "; next rows checked: " << stats_.checkedNext << "\n";
    out << "  known GETs after batches: " << stats_.knownGets << ", failed: " << stats_.knownGetFailures << "\n";
    out << "  anomalies: " << stats_.anomalies << "\n";
    for (const auto& a : stats_.anomalyNotes) out << "    " << a << "\n";
}

int Fuzzer::run() {
    for (int i = 0; i < static_cast<int>(Via::count); ++i) {
        sessions_[i] = openSession(opts_, static_cast<Via>(i), opts_.timeoutMs, 0);
        if (sessions_[i]) sessions_[i]->myvoid = this;
        // A v3 session probes the engine at opening; the two refused ones may fail here.
        if (!sessions_[i] && static_cast<Via>(i) != Via::v3badPassword && static_cast<Via>(i) != Via::v3unknownUser) {
            std::cerr << "velmar-protocol-fuzz: cannot open a session for " << viaName[i] << ": "
                      << snmp_api_errstring(snmp_errno) << "\n";
            return 2;
        }
    }
    for (int i = static_cast<int>(Via::v3badPassword); i <= static_cast<int>(Via::v3unknownUser); ++i)
        if (!sessions_[i]) sessions_[i] = sessions_[static_cast<int>(Via::v3roNoAuth)];
    netsnmp_session* v3 = sessions_[static_cast<int>(Via::v3ro)];
    engineId_.assign(reinterpret_cast<const char*>(v3->securityEngineID), v3->securityEngineIDLen);
    check_ = openSession(opts_, Via::v2c, 2000, 3);
    if (!check_) return 2;

    rawFd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    agentAddr_.sin_family = AF_INET;
    agentAddr_.sin_port = htons(static_cast<std::uint16_t>(opts_.port));
    if (rawFd_ < 0 || ::inet_pton(AF_INET, opts_.host.c_str(), &agentAddr_.sin_addr) != 1) {
        std::cerr << "velmar-protocol-fuzz: bad host " << opts_.host << "\n";
        return 2;
    }
    if (!takeBaseline()) return 2;
    std::cerr << "velmar-protocol-fuzz: " << baseline_.size() << " rows in the walk; sending "
              << (opts_.only >= 0 ? 1 : opts_.requests) << " requests, seed " << opts_.seed << "\n";

    const auto start = Clock::now();
    bool ok = true;
    std::uint64_t number = opts_.only >= 0 ? static_cast<std::uint64_t>(opts_.only) : 0;
    const std::uint64_t total = opts_.only >= 0 ? 1 : opts_.requests;
    while (stats_.sent < total && ok) {
        const std::uint64_t batchEnd = std::min(total, stats_.sent + opts_.batch);
        while (stats_.sent < batchEnd) {
            // Raw datagrams hold a place in the window for a millisecond: enough not to
            // overrun the agent's socket, with no answer to wait for.
            for (;;) {
                auto now = Clock::now();
                while (!rawRecent_.empty() && now - rawRecent_.front() > std::chrono::milliseconds(1))
                    rawRecent_.pop_front();
                if (outstanding_ + static_cast<int>(rawRecent_.size()) < opts_.window) break;
                pump(1);
            }
            if (opts_.verbose) std::cerr << "request " << number << "\n";
            sendOne(number);
            if (opts_.only >= 0) break;
            ++number;
            pump(0);
        }
        drain();
        ++stats_.batches;
        Rng r(opts_.seed ^ (0xC0FFEEull + stats_.batches));
        if (!knownGets(r)) ok = false;
        if (!agentAlive()) {
            std::cerr << "velmar-protocol-fuzz: the agent (pid " << opts_.agentPid << ") is gone after batch "
                      << stats_.batches << "\n";
            ok = false;
        }
        if (stats_.batches % 10 == 0)
            std::cerr << "velmar-protocol-fuzz: " << stats_.sent << " sent, " << stats_.answered + stats_.rawAnswers
                      << " answered, " << stats_.timeouts << " timeouts, " << stats_.anomalies << " anomalies\n";
    }
    // Nothing that was sent changed what the agent serves.
    std::string error;
    auto after = ok ? walk(error) : decltype(baseline_){};
    bool same = ok && error.empty() && after == baseline_;
    if (ok && !same)
        std::cerr << "velmar-protocol-fuzz: the walk at the end differs from the walk at the start"
                  << (error.empty() ? "" : ": " + error) << "\n";
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    report(seconds);
    std::cout << "  walk at the end equals the walk at the start: " << (same ? "yes" : "NO") << " (" << after.size()
              << " rows)\n";
    std::cout << "  agent alive at the end: " << (agentAlive() ? "yes" : "NO") << "\n";
    ::close(rawFd_);
    // Closing calls back for what is still waiting: while this object is still here.
    std::set<netsnmp_session*> open(std::begin(sessions_), std::end(sessions_));
    open.insert(check_);
    for (netsnmp_session* s : open)
        if (s) snmp_close(s);
    return ok && same && stats_.anomalies == 0 && stats_.knownGetFailures == 0 && agentAlive() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    Options opts;
    if (!parse(argc, argv, opts)) {
        usage();
        return 2;
    }
    // A client with no configuration, no MIB files and no persistent state of its own.
    setenv("MIBS", "", 1);
    // An empty private directory in $TMPDIR (or /tmp), removed with its contents at exit.
    std::string dir = (std::filesystem::temp_directory_path() / "velmar-protocol-fuzz.XXXXXX").string();
    if (!::mkdtemp(dir.data())) return 2;
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR, dir.c_str());
    netsnmp_set_mib_directory(dir.c_str());
    snmp_disable_log();
    init_snmp("velmar-protocol-fuzz");
    int rc = Fuzzer(std::move(opts)).run();
    snmp_shutdown("velmar-protocol-fuzz");
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return rc;
}

// Fuzz target: the launcher state file, Feed::parseState, and what is done with a state
// that it accepts (diffStates and StateApplier on a real DaemonMib).
//
// What must hold, besides running clean under AddressSanitizer and UBSan:
//   - a refused file raises Feed::StateError, never anything else, with one line of
//     valid UTF-8 that starts "state file <name>: ";
//   - an accepted state keeps the documented limits: names 1 to 32 bytes, keys at most 64,
//     values at most 10240, all valid UTF-8; no flag and no keys without their section;
//   - an accepted state written back as JSON (once plainly, once with every non-ASCII
//     character as a \u escape, members reordered and spaced out) parses back equal;
//   - diffStates: a state differs from itself in nothing; the difference from a to b
//     applied to a gives b (both ways, for b derived from a by removing, adding and
//     changing daemons, sections, flags and keys); its counts add up to the rows that
//     come and go;
//   - StateApplier serves exactly the rows of each state it is taken through (empty, a,
//     b, empty) and leaves no object or string behind.
#include "FuzzCheck.h"

#include "feed/core/StateFeed.h"
#include "feed/file/FileSource.h"
#include "feed/file/StateReader.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <string>
#include <vector>

namespace {

using Feed::DaemonState;
using Feed::LauncherState;
using Keys = std::map<std::string, std::string>;

const std::string fileName = "fuzz/state.json";

// --- Writing a state as JSON -------------------------------------------------------------

void appendUtf16Escape(std::string& out, unsigned unit) {
    static const char hex[] = "0123456789abcdef";
    out += "\\u";
    for (int shift = 12; shift >= 0; shift -= 4) out += hex[(unit >> shift) & 15];
}

// A JSON string of valid UTF-8 text. Plain: only what JSON requires is escaped. Escaped:
// every character outside printable ASCII is a \u escape (a surrogate pair above U+FFFF),
// short escapes are used where JSON has them, and '/' is written "\/".
std::string jsonString(std::string_view s, bool escapeAll) {
    std::string out = "\"";
    auto p = reinterpret_cast<const unsigned char*>(s.data());
    for (std::size_t i = 0; i < s.size();) {
        unsigned char c = p[i];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
            ++i;
            continue;
        }
        if (c < 0x20) {
            const char* shortForm = c == '\n'   ? "\\n"
                                    : c == '\t' ? "\\t"
                                    : c == '\r' ? "\\r"
                                    : c == '\b' ? "\\b"
                                    : c == '\f' ? "\\f"
                                                : nullptr;
            if (escapeAll && shortForm)
                out += shortForm;
            else
                appendUtf16Escape(out, c);
            ++i;
            continue;
        }
        if (c < 0x80 || !escapeAll) {
            if (escapeAll && c == '/')
                out += "\\/";
            else
                out += static_cast<char>(c);
            ++i;
            continue;
        }
        std::size_t len = (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : 4;
        unsigned cp = c & (len == 2 ? 0x1F : len == 3 ? 0x0F : 0x07);
        for (std::size_t k = 1; k < len; ++k) cp = (cp << 6) | (p[i + k] & 0x3F);
        if (cp >= 0x10000) {
            cp -= 0x10000;
            appendUtf16Escape(out, 0xD800 + (cp >> 10));
            appendUtf16Escape(out, 0xDC00 + (cp & 0x3FF));
        } else {
            appendUtf16Escape(out, cp);
        }
        i += len;
    }
    return out + "\"";
}

std::string jsonKeys(const Keys& keys, bool escapeAll) {
    std::string out = "{";
    const char* sep = escapeAll ? ",\n        " : ",";
    bool first = true;
    for (const auto& [k, v] : keys) {
        if (!first) out += sep;
        first = false;
        out += jsonString(k, escapeAll) + (escapeAll ? " :\t" : ":") + jsonString(v, escapeAll);
    }
    return out + "}";
}

// The plain form writes members in the documented order; the other form reverses every
// pair of members and adds white space everywhere JSON allows it.
std::string toJson(const LauncherState& state, bool escapeAll) {
    std::string out = escapeAll ? "\r\n{ \"daemons\" : {" : "{\"daemons\":{";
    bool first = true;
    for (const auto& [name, d] : state) {
        if (!first) out += escapeAll ? " ,\n  " : ",";
        first = false;
        out += jsonString(name, escapeAll) + (escapeAll ? " : { " : ":{");
        std::string config, status;
        if (d.hasConfig) {
            std::string flag = std::string("\"enabled\":") + (d.enabled ? "true" : "false");
            std::string keys = "\"options\":" + jsonKeys(d.options, escapeAll);
            config = "\"config\":{" + (escapeAll ? keys + " , " + flag : flag + "," + keys) + "}";
        }
        if (d.hasStatus) {
            std::string flag = std::string("\"running\":") + (d.running ? "true" : "false");
            std::string keys = "\"data\":" + jsonKeys(d.data, escapeAll);
            status = "\"status\":{" + (escapeAll ? keys + " , " + flag : flag + "," + keys) + "}";
        }
        if (escapeAll) std::swap(config, status);
        out += config;
        if (!config.empty() && !status.empty()) out += ",";
        out += status;
        out += escapeAll ? " }" : "}";
    }
    return out + (escapeAll ? "\n}\t}\n\n" : "}}");
}

// --- The rows a state should be served as -------------------------------------------------

std::vector<std::string> expectedRows(const LauncherState& state) {
    std::vector<std::string> out;
    for (const auto& [name, d] : state) {
        out.push_back("E " + name + "=" + (d.hasConfig && d.enabled ? "1" : "0"));
        out.push_back("R " + name + "=" + (d.hasStatus && d.running ? "1" : "0"));
        if (d.hasConfig)
            for (const auto& [k, v] : d.options)
                if (!v.empty()) out.push_back("O " + name + "\x01" + k + "=" + v);
        if (d.hasStatus)
            for (const auto& [k, v] : d.data)
                if (!v.empty()) out.push_back("D " + name + "\x01" + k + "=" + v);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<std::string> servedRows(const GenericAgent::DaemonMib& mib) {
    std::vector<std::string> out;
    for (auto it = mib.enabledTable().begin(); !it.isEnd(); ++it)
        out.push_back("E " + it->agentName().str().stdString() + "=" + (it->enabled() ? "1" : "0"));
    for (auto it = mib.runningTable().begin(); !it.isEnd(); ++it)
        out.push_back("R " + it->agentName().str().stdString() + "=" + (it->running() ? "1" : "0"));
    for (auto it = mib.optionTable().begin(); !it.isEnd(); ++it)
        out.push_back("O " + it->agentName().str().stdString() + "\x01" + it->key().str().stdString() + "=" +
                      it->val().stdString());
    for (auto it = mib.dataTable().begin(); !it.isEnd(); ++it)
        out.push_back("D " + it->agentName().str().stdString() + "\x01" + it->key().str().stdString() + "=" +
                      it->val().stdString());
    std::sort(out.begin(), out.end());
    return out;
}

std::size_t rowsWithValues(const LauncherState& state) {
    std::size_t n = 0;
    for (const auto& [name, d] : state) {
        if (d.hasConfig)
            for (const auto& [k, v] : d.options) n += !v.empty();
        if (d.hasStatus)
            for (const auto& [k, v] : d.data) n += !v.empty();
    }
    return n;
}

// --- Differences, applied here independently of StateApplier ------------------------------

void applySection(const Feed::SectionChange& c, bool& has, bool& flag, Keys& keys) {
    has = c.after;
    if (c.flag) flag = *c.flag;
    for (const Feed::KeyChange& k : c.keys) {
        if (k.value)
            keys[k.key] = *k.value;
        else
            keys.erase(k.key);
    }
    if (!has) flag = false;
}

LauncherState applied(LauncherState state, const Feed::StateDiff& diff) {
    for (const Feed::DaemonChange& d : diff.daemons) {
        if (!d.after) {
            state.erase(d.name);
            continue;
        }
        DaemonState& s = state[d.name];
        applySection(d.config, s.hasConfig, s.enabled, s.options);
        applySection(d.status, s.hasStatus, s.running, s.data);
    }
    return state;
}

// Another state derived from a: daemons removed, sections dropped and added, flags
// flipped, keys removed, emptied, refilled, changed and added, one daemon added.
LauncherState derived(const LauncherState& a) {
    LauncherState b;
    std::size_t i = 0;
    auto changeKeys = [](Keys& keys, std::size_t salt) {
        Keys out;
        std::size_t j = salt;
        for (auto& [k, v] : keys) {
            switch (j++ % 3) {
                case 0:
                    break; // removed
                case 1:
                    out[k] = v.empty() ? "x" : "";
                    break; // filled or emptied
                default:
                    out[k] = v.size() < 10240 ? v + "y" : "z"; // changed in place
            }
        }
        out["fz" + std::to_string(salt)] = "new";
        keys = std::move(out);
    };
    for (const auto& [name, d] : a) {
        DaemonState s = d;
        switch (i++ % 4) {
            case 0:
                continue; // removed
            case 1:
                if (s.hasConfig) {
                    s = DaemonState{false, false, {}, s.hasStatus, !s.running, s.data};
                } else {
                    s.hasConfig = true;
                    s.enabled = true;
                    s.options = {{"added", "1"}, {"empty", ""}};
                }
                if (!s.hasStatus) s.data.clear(), s.running = false;
                break;
            case 2:
                if (s.hasConfig) s.enabled = !s.enabled, changeKeys(s.options, i);
                if (s.hasStatus)
                    changeKeys(s.data, i + 1);
                else
                    s.hasStatus = true, s.running = true, s.data = {{"pid", "1"}};
                break;
            default:
                break; // unchanged
        }
        b.emplace(name, std::move(s));
    }
    b.try_emplace("fuzz-added", DaemonState{true, true, {{"k", "v"}}, true, false, {{"d", ""}}});
    return b;
}

// --- Checks -------------------------------------------------------------------------------

void checkRefusal(const Fuzz::Case& c, const Feed::StateError& e) {
    std::string_view m = e.what();
    std::string prefix = "state file " + fileName + ": ";
    c.check(m.substr(0, prefix.size()) == prefix, "a refusal does not start with the file prefix", m);
    c.check(m.size() > prefix.size(), "a refusal says nothing after the prefix", m);
    c.check(m.find('\n') == std::string_view::npos && m.find('\r') == std::string_view::npos,
            "a refusal is more than one line", m);
    c.check(Fuzz::isUtf8(m), "a refusal is not valid UTF-8", m);
    c.check(m.size() < 1024, "a refusal is unreasonably long", m);
}

void checkLimits(const Fuzz::Case& c, const LauncherState& s) {
    for (const auto& [name, d] : s) {
        c.check(!name.empty() && name.size() <= 32, "an accepted daemon name is outside 1 to 32 bytes", name);
        c.check(Fuzz::isUtf8(name), "an accepted daemon name is not UTF-8", name);
        c.check(d.hasConfig || (!d.enabled && d.options.empty()), "flag or options without config", name);
        c.check(d.hasStatus || (!d.running && d.data.empty()), "flag or data without status", name);
        for (const Keys* keys : {&d.options, &d.data}) {
            for (const auto& [k, v] : *keys) {
                c.check(k.size() <= 64, "an accepted key is over 64 bytes", k);
                c.check(v.size() <= 10240, "an accepted value is over 10240 bytes", k);
                c.check(Fuzz::isUtf8(k), "an accepted key is not UTF-8", k);
                c.check(Fuzz::isUtf8(v), "an accepted value is not UTF-8", v);
            }
        }
    }
}

void checkReparse(const Fuzz::Case& c, const LauncherState& s, bool escapeAll) {
    std::string json = toJson(s, escapeAll);
    LauncherState back;
    try {
        back = Feed::parseState(json, fileName);
    } catch (const std::exception& e) {
        c.finding(escapeAll ? "an accepted state written with escapes is refused"
                            : "an accepted state written back is refused",
                  json.substr(0, 2048) + " -> " + e.what());
    }
    c.check(back == s,
            escapeAll ? "an accepted state written with escapes parses to another state"
                      : "an accepted state written back parses to another state",
            json);
}

void checkDiffs(const Fuzz::Case& c, const LauncherState& a, const LauncherState& b) {
    c.check(Feed::diffStates(a, a).empty(), "a state differs from itself");
    Feed::StateDiff ab = Feed::diffStates(a, b);
    c.check(ab.empty() == (a == b), "an empty difference between unequal states, or the reverse");
    c.check(applied(a, ab) == b, "the difference from a to b applied to a is not b");
    c.check(applied(b, Feed::diffStates(b, a)) == a, "the difference from b to a applied to b is not a");

    // Rows come and go as the counts say: enabled and running rows, one per daemon each,
    // and a row per non-empty value.
    auto rows = [](const LauncherState& s) { return static_cast<long long>(2 * s.size() + rowsWithValues(s)); };
    Feed::StateDiff::Counts counts = ab.counts();
    c.check(static_cast<long long>(counts.rowsAdded) - static_cast<long long>(counts.rowsRemoved) == rows(b) - rows(a),
            "the counts of a difference do not add up to the rows it makes and removes", ab.summary());
    c.check(ab.changes() == counts.rowsAdded + counts.rowsRemoved + counts.inPlace,
            "changes() is not the sum of the counts", ab.summary());
    c.check(ab.empty() == (ab.changes() == 0 && counts.daemonsAdded == 0 && counts.daemonsRemoved == 0),
            "a difference with no change is not empty, or the reverse", ab.summary());

    Feed::StateDiff::Counts fresh = Feed::diffStates({}, a).counts();
    c.check(fresh.daemonsAdded == a.size() && fresh.daemonsRemoved == 0 &&
                fresh.rowsAdded == 2 * a.size() + rowsWithValues(a) && fresh.rowsRemoved == 0 && fresh.inPlace == 0,
            "the counts of a first load do not match its rows", Feed::diffStates({}, a).summary());
    Feed::StateDiff::Counts gone = Feed::diffStates(a, {}).counts();
    c.check(gone.daemonsRemoved == a.size() && gone.rowsRemoved == 2 * a.size() + rowsWithValues(a) &&
                gone.rowsAdded == 0 && gone.inPlace == 0,
            "the counts of removing everything do not match the rows", Feed::diffStates(a, {}).summary());
}

void checkApplier(const Fuzz::Case& c, const LauncherState& a, const LauncherState& b) {
    auto instances = Orbel::PtrInterface::liveInstances();
    auto bodies = Orbel::String::liveBodies();
    {
        auto mib = GenericAgent::daemonMibFactory("daemonMIB");
        Feed::StateApplier applier(mib);
        for (const LauncherState* next : {&a, &b, &a}) {
            applier.apply(Feed::diffStates(applier.applied(), *next));
            c.check(applier.applied() == *next, "the applier records another state than it was given");
            c.check(servedRows(*mib) == expectedRows(*next), "the served rows differ from the state's rows");
        }
        applier.apply(Feed::diffStates(applier.applied(), {}));
        c.check(servedRows(*mib).empty(), "rows are left after the state is emptied");
    }
    c.check(Orbel::PtrInterface::liveInstances() == instances, "objects are left behind after the model goes");
    c.check(Orbel::String::liveBodies() == bodies, "strings are left behind after the model goes");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Registers the model's types and warms every lazily made object up, so that the
    // counts of live objects compare equal across one input.
    auto mib = GenericAgent::daemonMibFactory("warm-up");
    Feed::StateApplier applier(mib);
    LauncherState s;
    s["w"] = DaemonState{true, true, {{"k", "v"}}, true, true, {{"d", "v"}}};
    applier.apply(Feed::diffStates({}, s));
    applier.apply(Feed::diffStates(s, {}));
    return 0;
}

// The parse that skips bad daemon entries: what it keeps is within the limits and reads
// back the same; when the strict parse accepted the file, it keeps all of it and skips
// nothing; every skipped entry has a message with the file prefix, and none of its names
// is kept.
void checkSkipping(const Fuzz::Case& c, const std::optional<LauncherState>& strict) {
    Feed::SkippedDaemons skipped;
    LauncherState kept;
    try {
        kept = Feed::parseState(c.bytes(), fileName, skipped);
    } catch (const Feed::StateError& e) {
        checkRefusal(c, e);
        c.check(!strict, "a file accepted whole is refused when bad entries may be skipped", e.what());
        return;
    }
    if (strict) {
        c.check(kept == *strict, "the skipping parse keeps other daemons than the strict one", "");
        c.check(skipped.empty(), "a file accepted whole has skipped entries",
                skipped.empty() ? "" : skipped[0].message);
    }
    const std::string prefix = "state file " + fileName + ": daemon ";
    for (const Feed::SkippedDaemon& d : skipped) {
        c.check(d.message.compare(0, prefix.size(), prefix) == 0, "a skipped entry's message does not name the daemon",
                d.message);
        c.check(d.message.find('\n') == std::string::npos, "a skipped entry's message spans lines", d.message);
        c.check(kept.count(d.name) == 0, "a skipped daemon is kept", d.name);
    }
    checkLimits(c, kept);
    checkReparse(c, kept, false);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int initialised = LLVMFuzzerInitialize(nullptr, nullptr);
    (void)initialised;
    Fuzz::Case c(data, size);
    struct Skipping {
        const Fuzz::Case& c;
        std::optional<LauncherState>& strict;
        ~Skipping() {
            try {
                checkSkipping(c, strict);
            } catch (const std::exception& e) {
                c.finding("the skipping parse raised something that is not Feed::StateError", e.what());
            }
        }
    };

    std::optional<LauncherState> state;
    Skipping skipping{c, state}; // checked last, whatever the strict parse did
    try {
        state = Feed::parseState(c.bytes(), fileName);
    } catch (const Feed::StateError& e) {
        checkRefusal(c, e);
        return 0;
    } catch (const std::exception& e) {
        c.finding("parseState raised an exception that is not Feed::StateError", e.what());
    } catch (...) {
        c.finding("parseState raised something that is not an exception");
    }

    try {
        checkLimits(c, *state);
        checkReparse(c, *state, false);
        checkReparse(c, *state, true);
        LauncherState other = derived(*state);
        checkDiffs(c, *state, other);
        checkApplier(c, *state, other);
    } catch (const std::exception& e) {
        c.finding("an accepted state made something raise", e.what());
    }
    return 0;
}

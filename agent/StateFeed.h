// The launcher state feed: turns the launcher's JSON state file into rows of the daemon
// MIB, and keeps them current while the file is replaced.
//
//   auto mib = GenericAgent::daemonMibFactory("daemonMIB");
//   Agent::StateFeed feed("/run/launcher/state.json", mib, [](const std::string& line) { ... });
//   feed.loadInitial();                  // throws Agent::StateError for a bad file
//   feed.start();                        // worker thread: watches, parses, diffs
//   // in the event loop: watch feed.eventFd() for reading (with Net-SNMP, for example,
//   // register_readfd), and when it is readable:
//   feed.handleEvent();                  // applies what the worker found
//
// The file (written by the launcher, replaced atomically by write + rename):
//
//   { "daemons": {
//       "bgpd": { "config": { "enabled": true,  "options": { "asn": "65001" } },
//                 "status": { "running": true,  "data":    { "pid": "4242" } } },
//       "ntpd": { "config": { "enabled": false, "options": {} } } } }
//
// What is accepted:
//   - The top level is an object with exactly one member, "daemons" (required), an object
//     of daemons by name. A daemon is an object with the optional members "config" and
//     "status". "config" is an object with the optional members "enabled" (true or
//     false; absent means false) and "options" (an object of strings; absent means none).
//     "status" likewise has "running" and "data".
//   - Any other member at any level is refused ("unknown member"): a misspelt member would
//     otherwise silently do nothing. So is a member or key that appears twice in one
//     object, a value of another type (numbers and null included), and every JSON syntax
//     error. No arrays appear anywhere.
//   - A daemon name is 1 to 32 bytes, an option or data key at most 64 bytes (the longest
//     names the SNMP indexes carry; the 1024-byte limit of GenericAgent::AgentKey is
//     therefore never reached), a value at most 10240 bytes. Names, keys and values are
//     valid UTF-8 (escaped surrogates must pair up). Empty keys and empty values are
//     accepted.
//   - A file of at most 256 MiB; an empty one (or only white space) is refused.
//
// How it is served (GenericAgent::DaemonMib):
//   - Every daemon has an enabled row and a running row. With "config", the enabled row
//     reads a GenericAgent::Config holding "enabled" and every option; without, the row
//     holds no Config (reads false). Likewise "status", the running row and a
//     GenericAgent::Status.
//   - Every option (data) key with a non-empty value has an option (data) row. A key with
//     an empty value is kept in the Config (Status) but has no row: the module answers an
//     empty value with an error, which would end every walk of the table there.
//   - A reload is validated whole; a refused one changes nothing. An accepted one is
//     applied as its difference from what is served: each daemon keeps its Config and
//     Status objects, changed flags and values are written into them in place (the rows
//     show them at once and nobody is told), and only rows that come or go go through the
//     DaemonMib mutators, so the DaemonMib's observers hear exactly those keys. When a
//     daemon's config (status) appears or disappears, its enabled (running) row is deleted
//     and created again with the new pointer.
//
// Messages (StateError::what() and every line given to the log callback) are one line
// each and start with `state file PATH: `; refusals name the daemon and key where there
// is one and the line, or the line and column for JSON syntax, e.g.
//   state file /x/state.json: daemon "bgpd" option "asn": value is 10241 bytes, more than 10240 (line 7)
//   state file /x/state.json: line 3, column 14: invalid JSON: missing a colon after a name of object member
// Lines and columns count from 1; a column counts bytes. Names and keys in messages are
// quoted, with `"`, `\`, control characters and bytes that are not UTF-8 escaped (`\"`,
// `\\`, `\n`, `\xHH`), and cut after 64 bytes (`...`).
//
// Threads: parseState, loadStateFile and diffStates touch no model object and may run on
// any thread. StateApplier, StateFeed::loadInitial and StateFeed::handleEvent touch the
// model: call them only on the thread that owns the DaemonMib (the agent's event loop).
// The feed assumes it is the only writer of the four tables of its DaemonMib.
#pragma once

#include "GenericAgent/GenericAgentSnmp.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>
#include <utility>

namespace Agent {

// One daemon as the file describes it.
struct DaemonState {
    bool hasConfig = false;                        // "config" is present
    bool enabled = false;                          // false without config
    std::map<std::string, std::string> options;    // empty without config
    bool hasStatus = false;                        // "status" is present
    bool running = false;                          // false without status
    std::map<std::string, std::string> data;       // empty without status

    friend bool operator==(const DaemonState&, const DaemonState&) = default;
};

// Every daemon of a file, by name.
using LauncherState = std::map<std::string, DaemonState>;

// A state file refused; what() is the one-line message.
class StateError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The largest file loadStateFile reads.
inline constexpr std::size_t maxStateFileBytes = 256u << 20;

// Parses and validates a whole file's text (see the top of this file). fileName is used
// only in messages. Throws StateError.
LauncherState parseState(std::string_view json, const std::string& fileName);

// Reads the file at path (refused when it is missing, unreadable, not a regular file,
// larger than maxStateFileBytes or empty) and parses it. Throws StateError.
LauncherState loadStateFile(const std::string& path);

// ---------------------------------------------------------------------------------------
// Differences between two states.

// One option or data key that differs.
struct KeyChange {
    std::string key;
    std::optional<std::string> value;   // the value afterwards; none: the key goes away
    bool rowBefore = false;             // it had a row (its old value was non-empty)
    bool rowAfter = false;              // it has a row afterwards (its new value is non-empty)

    friend bool operator==(const KeyChange&, const KeyChange&) = default;
};

// What differs in one daemon's config (enabled and options) or status (running and data).
struct SectionChange {
    bool before = false;                // present in the old state
    bool after = false;                 // present in the new state
    std::optional<bool> flag;           // the flag to write: it differs, or the section appears
    std::vector<KeyChange> keys;        // in key order; when the section appears or
                                        // disappears, every key it has or had

    bool empty() const noexcept { return before == after && !flag && keys.empty(); }
    friend bool operator==(const SectionChange&, const SectionChange&) = default;
};

// What differs for one daemon.
struct DaemonChange {
    std::string name;
    bool before = false;                // known in the old state (false: added)
    bool after = false;                 // known in the new state (false: removed)
    SectionChange config;
    SectionChange status;

    friend bool operator==(const DaemonChange&, const DaemonChange&) = default;
};

// The changes that turn one state into another, daemon by daemon in name order; only
// daemons that differ appear.
struct StateDiff {
    std::vector<DaemonChange> daemons;

    // What applying the difference does to the model.
    struct Counts {
        std::size_t daemonsAdded = 0;
        std::size_t daemonsRemoved = 0;
        std::size_t rowsAdded = 0;      // rows made (a re-created enabled/running row counts here
        std::size_t rowsRemoved = 0;    // and here)
        std::size_t inPlace = 0;        // flags and values written into a kept Config or Status
                                        // without a row coming or going
        friend bool operator==(const Counts&, const Counts&) = default;
    };

    bool empty() const noexcept { return daemons.empty(); }
    Counts counts() const;
    // rowsAdded + rowsRemoved + inPlace.
    std::size_t changes() const;
    // "applied 3 changes (1 daemon added, 0 removed; 3 rows added, 0 removed; 0 in place)".
    std::string summary() const;
};

// The difference from `from` to `to` (pure; runs on any thread).
StateDiff diffStates(const LauncherState& from, const LauncherState& to);

// ---------------------------------------------------------------------------------------
// Applying differences to the model (event-loop thread only).

class StateApplier {
public:
    // Serves into mib, which should hold no daemon rows yet.
    explicit StateApplier(Orbel::Ptr<GenericAgent::DaemonMib> mib);
    StateApplier(const StateApplier&) = delete;
    StateApplier& operator=(const StateApplier&) = delete;

    // Applies a difference computed from applied() (or from a state equal to it): only
    // through the DaemonMib's mutators and in-place changes of the Config and Status
    // objects. Leaves the rows it made in the DaemonMib when the applier goes.
    void apply(const StateDiff& diff);

    // What is being served, read back from the daemons' Config and Status objects (which
    // hold every key, empty values included). Built on the first call after a change and
    // kept until the next apply(): the applier keeps no second copy of the state while
    // nobody asks for one.
    const LauncherState& applied() const;
    // One daemon as it is served, read back the same way; none when it is not served.
    std::optional<DaemonState> served(const std::string& daemon) const;
    const Orbel::Ptr<GenericAgent::DaemonMib>& mib() const noexcept { return mib_; }
    // The daemon's Config and Status objects (null when it has none, or is unknown).
    Orbel::Ptr<GenericAgent::Config> config(const std::string& daemon) const;
    Orbel::Ptr<GenericAgent::Status> status(const std::string& daemon) const;

private:
    struct Objects {
        Orbel::String name;             // shared by every index of the daemon
        Orbel::Ptr<GenericAgent::Config> config;
        Orbel::Ptr<GenericAgent::Status> status;
    };
    void applyDaemon(const DaemonChange& change);
    static DaemonState readBack(const Objects& objects);

    Orbel::Ptr<GenericAgent::DaemonMib> mib_;
    std::map<std::string, Objects> objects_;
    mutable std::optional<LauncherState> applied_;   // applied(), once asked for
};

// ---------------------------------------------------------------------------------------
// The feed: one file, watched and reloaded.
//
// The worker thread watches the file's directory with inotify (the file is replaced by
// rename, so its own inode cannot be watched) and reloads on a write being closed or a
// file being moved in under the file's name. When the directory itself goes (removed,
// renamed or unmounted) the worker looks for it again every 200 ms and reloads once it is
// back. Each reload reads, parses and validates the file, and compares each daemon with a
// digest of it in the last accepted file; the daemons that differ (or a line to log) are
// queued for the loop, and eventFd() becomes readable. The loop diffs those daemons
// against what it serves and applies the difference. A file that is deleted and not
// replaced leaves the state served as it was. A reload that yields no difference is
// counted but not logged.
//
// The log callback is called on the loop thread only (from loadInitial and handleEvent),
// one line per call:
//   state file X: applied 5 changes (daemons: 1 added, 0 removed; rows: 4 added, 1 removed; 0 changed in place)
//   state file X: <why it was refused>                   (and nothing changes)
//   state file X: removed; serving the last state until it is written again
//   state file X: directory D is gone; serving the last state, looking for it every 200 ms
//   state file X: cannot watch directory D: <error>; serving the last state, trying again every 200 ms
//   state file X: watching directory D again
// X is the path as given to the constructor; D is the absolute directory. A file is
// read by its absolute path, fixed at construction.
class StateFeed {
public:
    using Log = std::function<void(const std::string&)>;

    StateFeed(std::string path, Orbel::Ptr<GenericAgent::DaemonMib> mib, Log log);
    // Stops the worker.
    ~StateFeed();
    StateFeed(const StateFeed&) = delete;
    StateFeed& operator=(const StateFeed&) = delete;

    // Loads the file now, on the calling thread, and applies it (logging the applied line).
    // Throws StateError (not logged) when the file is refused; nothing changes then.
    // Call before start().
    void loadInitial();

    // Starts the worker. Its first act is a reload, which catches any change made since
    // loadInitial (without loadInitial, it is the first load, and a missing file is
    // refused; after it, a missing file is logged as removed). Throws std::system_error
    // when inotify or the thread cannot be had; std::logic_error when already started.
    void start();
    // Stops and joins the worker; does nothing when it is not running. Differences already
    // queued can still be applied with handleEvent.
    void stop();

    // Readable (non-blocking eventfd) while differences or log lines wait for handleEvent.
    int eventFd() const noexcept { return eventFd_; }
    // On the loop thread: applies every waiting difference in order and logs every waiting
    // line; returns the number of differences applied.
    std::size_t handleEvent();

    // Files accepted (including loadInitial and reloads that changed nothing).
    std::uint64_t reloads() const noexcept { return reloads_.load(); }
    // Files refused (including a refused loadInitial).
    std::uint64_t refused() const noexcept { return refused_.load(); }
    // Differences applied on the loop.
    std::uint64_t applies() const noexcept { return applies_.load(); }

    const std::string& path() const noexcept { return path_; }
    // What is being served (loop thread).
    const LauncherState& applied() const { return applier_.applied(); }
    const StateApplier& applier() const noexcept { return applier_; }

private:
    // The daemons of a reloaded file that differ from the last accepted one, in name order,
    // as the file has them now (none: the daemon is gone).
    using Changed = std::vector<std::pair<std::string, std::optional<DaemonState>>>;
    struct Item {
        std::optional<Changed> changed; // to diff against what is served, apply and log
        std::string line;               // to log
    };
    // What a reload does when the file is not there.
    enum class IfMissing { refuse, ignore, sayRemoved };
    void run();
    void reload(IfMissing ifMissing);
    void post(Item item);
    std::string removedLine() const;
    StateDiff diffServed(Changed& changed) const;
    void remember(const LauncherState& accepted);

    std::string path_;
    std::string dir_;                   // absolute directory of the file
    std::string name_;                  // file name inside it
    StateApplier applier_;
    Log log_;

    int eventFd_ = -1;                  // worker -> loop
    int stopFd_ = -1;                   // stop() -> worker
    int inotifyFd_ = -1;
    std::thread worker_;
    bool loadedInitial_ = false;

    // What the worker knows of the last accepted file: per daemon, in name order, a 128-bit
    // digest of its flags, keys and values. The state itself lives only in the model; a
    // daemon whose digest moved is diffed there, on the loop.
    struct DaemonDigest {
        std::string name;
        std::uint64_t low = 0;
        std::uint64_t high = 0;
    };
    std::vector<DaemonDigest> workerState_;
    bool releasePending_ = false;       // the worker has memory to hand back once idle

    std::mutex mutex_;
    std::deque<Item> queue_;

    std::atomic<std::uint64_t> reloads_{0};
    std::atomic<std::uint64_t> refused_{0};
    std::atomic<std::uint64_t> applies_{0};
};

} // namespace Agent

// What the systemd source knows of the units, and the rules that turn it into daemons,
// with no bus: the shell (SystemdSource) feeds it what systemd said, sends the calls it
// asks for, and hands over the daemons it says changed. Unit-tested without systemd.
//
//   Feed::UnitTracker t({.patterns = {"*.service"}});
//   t.resync();                                   // lists unit files and loaded units
//   while (auto call = t.nextCall()) send(*call); // at most maxOutstanding at a time
//   t.listedFiles(token, files); t.listedUnits(token, units); t.properties(token, values, present);
//   if (auto changed = t.flush()) post(std::move(*changed));
//
// The rules:
//   - a daemon is every service unit whose unit file matches the patterns
//     (ListUnitFilesByPatterns, any UnitFileState) together with every loaded service unit
//     that matches (ListUnitsByPatterns, UnitNew) in any load state but "stub"; template
//     files ("foo@.service") are not daemons, their loaded instances are;
//   - a loaded unit is read in full (GetAll of its Unit and Service interfaces) and served
//     with daemonStateOf; properties are never read from a unit that no list showed
//     loaded (that would make systemd load it);
//   - a unit that is only a file is served from the file list: daemonStateOfFile;
//   - when systemd unloads a unit that still has a file, the daemon stays: not running,
//     the values that stay true kept, those that no longer hold (keptWhenUnloaded false:
//     MainPID, the counters, LoadState, LoadError) dropped;
//   - a daemon goes when it has neither a file nor a loaded unit, and when a transient unit
//     is unloaded (its file goes with it);
//   - UnitFilesChanged lists the files again and reads the file state of loaded units;
//     Reloading(false) resyncs; UnitNew and UnitRemoved between Reloading(true) and
//     (false) are left to that resync;
//   - PropertiesChanged values are taken as sent; invalidated properties of the table are
//     read again (not ExecStart, which changes only with a reload); an ActiveState change
//     reads the counters;
//   - a change of the running flag goes over at once, in a batch of its own, ahead of the
//     reads it starts and of whatever systemd says next: every stop and every start reaches
//     the model (and the history and the notifications), however fast they follow each
//     other; a unit that runs before and after a signal that moves its
//     InactiveEnterTimestamp stopped in between (systemd can announce a quick restart only
//     once it is over), and goes over stopped, then running;
//   - a resync (start, reload, reconnect, an operator's reread) hands its loaded units over
//     as one batch, once their list and every read it started have been answered; the
//     unit files follow when their list comes (systemd can take seconds to make it);
//   - replies carry the generation of their unit: a reply to a call made before the unit
//     was unloaded or read again is dropped;
//   - refresh() reads the counters of the units that may have some, and starts no round
//     while the last one is not answered.
//
// Threads: one thread at a time (the source's loop, then its worker).
#pragma once

#include "UnitMapping.h"
#include "UnitProperties.h"

#include "feed/core/Source.h"

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Feed {

// A call the tracker wants made.
struct BusCall {
    enum class Kind {
        listFiles, // ListUnitFilesByPatterns(states: any, patterns)
        listUnits, // ListUnitsByPatterns(states: any, patterns, or the one unit named)
        getAll,    // Properties.GetAll(iface) on path
        get,       // Properties.Get(iface, property) on path
    };
    Kind kind = Kind::listUnits;
    std::uint64_t token = 0;                // hand it back with the answer
    std::string unit;                       // listUnits: one unit only; empty: the patterns
    std::string path;                       // getAll, get: the unit's object path
    UnitIface iface = UnitIface::unit;      // getAll, get
    const UnitProperty* property = nullptr; // get
};

// A loaded unit as ListUnitsByPatterns lists it.
struct ListedUnit {
    std::string id, description, loadState, activeState, subState, path;
};
// A unit file as ListUnitFilesByPatterns lists it.
struct ListedFile {
    std::string path;  // "/etc/systemd/system/ssh.service"
    std::string state; // its UnitFileState
};

// Properties read from a reply or a signal: values in a UnitInfo, and which were sent.
struct PropertyValues {
    UnitInfo values;
    std::vector<const UnitProperty*> present;
};

class UnitTracker {
public:
    struct Options {
        std::vector<std::string> patterns{std::string(defaultUnitPatterns)};
        MappingOptions mapping;
        std::size_t maxOutstanding = 64; // the system bus allows 128 pending replies
    };
    explicit UnitTracker(Options options);

    // --- what systemd says
    // Lists the files and the loaded units again; the daemons go over as one batch.
    void resync();
    void unitFilesChanged();
    void reloading(bool active);
    void unitNew(const std::string& id, const std::string& path);
    void unitRemoved(const std::string& id, const std::string& path);
    // PropertiesChanged on path's interface: the values sent, and the names invalidated.
    void propertiesChanged(const std::string& path, UnitIface iface, const PropertyValues& changed,
                           const std::vector<std::string>& invalidated);
    // Answers to calls, by token. An answer to a call forgotten, or made for an older
    // generation of its unit, is dropped.
    void listedFiles(std::uint64_t token, const std::vector<ListedFile>& files);
    void listedUnits(std::uint64_t token, const std::vector<ListedUnit>& units);
    void properties(std::uint64_t token, const PropertyValues& values);
    // The call failed or timed out: what it would have read stays as it was.
    void failed(std::uint64_t token);

    // Reads the counters of every loaded unit that may have some, unless the last round
    // is still outstanding (then returns false and counts it in refreshesSkipped()).
    bool refresh();
    // Drops every call queued or outstanding (the connection went, or systemd did); what
    // is known of the units stays served.
    void forgetCalls();

    // --- what the shell does
    // The next call to send, when fewer than maxOutstanding are outstanding.
    std::optional<BusCall> nextCall();
    // The daemons that changed since the last flush, in name order (none: nothing changed,
    // or a resync is still being read). An empty batch once after the first resync. A
    // batch names a daemon once: call again until it returns none, and hand the batches
    // over in turn (a daemon that stopped and started again goes over twice).
    std::optional<ChangedDaemons> flush();
    // Lines to log (units skipped for their name), in order; empties them.
    std::vector<std::pair<Severity, std::string>> takeLines();

    // True while a resync or any read is under way.
    bool busy() const noexcept { return !outstanding_.empty() || !queue_.empty() || listing_ > 0; }
    std::size_t outstanding() const noexcept { return outstanding_.size(); }
    std::size_t queued() const noexcept { return queue_.size(); }
    std::size_t daemons() const noexcept { return handed_.size(); }
    std::size_t units() const noexcept { return units_.size(); }
    // Matching units not served because their name is too long for an SNMP index.
    std::size_t skippedNow() const noexcept { return skippedNow_; }
    std::uint64_t refreshesSkipped() const noexcept { return refreshesSkipped_; }
    // The first full resync has been handed over.
    bool synced() const noexcept { return synced_; }

private:
    struct Unit {
        std::optional<ListedFile> file; // in the last file list
        bool loaded = false;            // listed loaded, not removed since
        bool read = false;              // info holds what a loaded read said
        std::string path;               // object path while loaded
        UnitInfo info;
        std::uint64_t generation = 0;
        int pending = 0;                // reads outstanding or queued for this generation
        std::deque<DaemonState> passed; // running changes not handed over yet, oldest first
    };
    struct Call {
        BusCall call;
        std::string id; // the unit, for getAll and get
        std::uint64_t generation = 0;
        bool refresh = false;
        bool full = false; // a list of a resync
    };

    Unit* byPath(const std::string& path);
    void touch(const std::string& id) { touched_.insert(id); }
    void enqueue(BusCall call, const std::string& id, bool refresh = false, bool full = false);
    void startLists();
    void listAnswered(const Call& call);
    void readAll(const std::string& id, Unit& unit);
    void read(const std::string& id, Unit& unit, const UnitProperty& property, bool refresh = false);
    void loadedAs(const ListedUnit& listed);
    void unload(const std::string& id, Unit& unit);
    // Takes the values sent (those of one interface, when only is given) and notes a change
    // of the running flag they make.
    void take(Unit& unit, const PropertyValues& values, std::optional<UnitIface> only = std::nullopt);
    void noteRunning(Unit& unit, bool wasRunning, std::uint64_t inactiveBefore);
    std::optional<Call> answered(std::uint64_t token);
    std::optional<DaemonState> served(const std::string& id, const Unit& unit);
    bool resyncSettled() const;

    Options options_;
    std::map<std::string, Unit> units_;                                               // by unit id
    std::unordered_map<std::string, std::string> paths_;                              // object path -> unit id
    std::set<std::string> touched_;                                                   // ids to look at in flush()
    std::unordered_map<std::string, std::pair<std::uint64_t, std::uint64_t>> handed_; // name -> digest
    std::set<std::string> skippedNames_;                                              // said once each
    std::vector<std::pair<Severity, std::string>> lines_;
    std::deque<Call> queue_;
    std::unordered_map<std::uint64_t, Call> outstanding_;
    std::uint64_t nextToken_ = 1;
    std::uint64_t nextGeneration_ = 1;
    int listing_ = 0;              // full lists (files, units) asked and not answered
    bool listingUnits_ = false;    // the full list of loaded units is not answered
    bool filesAfterUnits_ = false; // list the unit files once the loaded units are read
    bool resyncing_ = false;
    bool resyncAgain_ = false; // a resync asked for while one lists
    bool reloading_ = false;
    bool synced_ = false;
    bool saidFirst_ = false;         // the first batch has gone over
    std::size_t refreshPending_ = 0; // refresh reads queued or outstanding
    std::uint64_t refreshesSkipped_ = 0;
    std::size_t skippedNow_ = 0;
};

} // namespace Feed

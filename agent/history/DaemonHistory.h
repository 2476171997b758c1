// How often each served daemon's running and enabled flags changed, and when they last
// did: what a poller that reads the flags misses between two polls. It hears the model
// through a ModelWatch (as a ModelListener) and knows nothing of SNMP; the agent serves
// it as velmarDaemonHistoryTable (HistoryMib).
//
//   Agent::DaemonHistory history(mib, [] { return Agent::DaemonHistory::Stamp{uptimeTicks(), system_clock::now()}; });
//   watch.listenerIs(&history);
//   watch.start();                          // the daemons now: rows at 0, nothing counted
//   // ... the model changes; the watch tells the history ...
//   if (const auto* r = history.find("bgpd")) r->runningChanges;
//   for (auto* r = history.first(); r; r = history.next(r->name)) ...;   // in SNMP index order
//
// Rules:
//   - A row lives exactly while its daemon is served (has a row in the enabled table): it
//     appears with the daemon, with every count at 0, and goes with it. A daemon removed
//     and added again starts at 0.
//   - The state at start counts nothing; a write that leaves a flag as it was (a reload
//     that rewrites the same value) counts nothing for that flag. A flag set to a new value
//     and back before the writer is done (a restart seen in one read) counts both changes.
//   - Counts are 32 bits and wrap, as SNMP counters do.
//
// Memory: one 32-byte record per daemon in a sorted array (no node, no hash slot). The
// name is the model's own counted string, shared, never copied. A daemon that comes is
// first put into a small sorted side array, merged into the main one once that grows past
// the square root of the daemon count; a daemon that goes is marked and the array is
// compacted once a quarter of it is marked. So a reload that adds or removes k of n
// daemons costs about k times the square root of n record moves, and lookups stay binary
// searches.
//
// Threads: the thread that owns the model (the agent's event loop), only.
#pragma once

#include "agent/notify/ModelWatch.h"

#include "GenericAgent/GenericAgentSnmp.h"
#include "snmp/SnmpString.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Agent {

class DaemonHistory final : public ModelListener {
public:
    // When a change was heard: the agent's sysUpTime (hundredths of a second since it
    // started) and the wall clock.
    struct Stamp {
        std::uint32_t ticks = 0;
        std::chrono::system_clock::time_point wall{};
    };
    using Now = std::function<Stamp()>;

    // One daemon's history. 32 bytes.
    struct Record {
        Snmp::String name; // the model's counted name (shared)
        std::uint32_t runningChanges = 0;
        std::uint32_t enabledChanges = 0;
        std::uint32_t lastRunningChange = 0;  // ticks, at least 1; 0: none since the row appeared
        std::uint32_t lastEnabledChange = 0;  // ticks; 0: none
        std::uint32_t lastRunningSeconds = 0; // wall time of the last running change, UTC
        std::uint16_t lastRunningMillis = 0;  //   (seconds since 1970 and milliseconds)
        std::uint8_t bits = 0;                // see the flags below

        static constexpr std::uint8_t enabledBit = 1, runningBit = 2, hasRunningTimeBit = 4, goneBit = 8;
        bool enabled() const noexcept { return bits & enabledBit; }
        bool running() const noexcept { return bits & runningBit; }
        // Whether a running change happened since the row appeared (its wall time is known).
        bool hasRunningTime() const noexcept { return bits & hasRunningTimeBit; }
        // The wall time of the last running change; meaningful only when hasRunningTime().
        std::chrono::system_clock::time_point lastRunningTime() const noexcept;
        bool gone() const noexcept { return bits & goneBit; }
    };

    // Keeps a reference to mib (where it takes each daemon's counted name from). now is
    // asked once per change that counts.
    DaemonHistory(Orbel::Ptr<const GenericAgent::DaemonMib> mib, Now now);
    DaemonHistory(const DaemonHistory&) = delete;
    DaemonHistory& operator=(const DaemonHistory&) = delete;

    // ModelListener: rows at 0 for the daemons served now (replacing any there were).
    void baselineIs(const std::vector<std::pair<std::string, DaemonFlags>>& daemons) override;
    // Counts what changed (each change seen, also those undone before the writer was done);
    // adds the row of a daemon that appeared, drops that of one gone.
    void changed(const std::string& daemon, const DaemonFlags& flags, const FlagChanges& seen) override;

    // The daemon's row, or null. Pointers returned by find(), first() and next() are good
    // until the next change or the next call of first() or next().
    const Record* find(const Snmp::String& name) const;
    // The first row in SNMP index order (shorter names first, then bytes), or null.
    const Record* first() const;
    // The first row whose name comes after name in that order, or null. Takes name by value:
    // it may be a row's own, and rows may move here (what came since is merged in).
    const Record* next(Snmp::String name) const;

    // Rows served.
    std::size_t size() const noexcept { return live_; }
    // Bytes the rows take (the arrays' capacity; names are the model's).
    std::size_t bytes() const noexcept;

private:
    Record* lookup(const Snmp::String& name);
    void settle() const; // merges the side array into the main one
    void compact();
    void insert(Record r);

    Orbel::Ptr<const GenericAgent::DaemonMib> mib_;
    Now now_;
    mutable std::vector<Record> rows_;  // sorted; may hold rows marked gone
    mutable std::vector<Record> added_; // sorted; small
    mutable std::size_t gone_ = 0;      // rows_ marked gone
    std::size_t live_ = 0;
};

static_assert(sizeof(DaemonHistory::Record) == 32, "a history record is 32 bytes");

} // namespace Agent

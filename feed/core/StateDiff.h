// The difference between two launcher states, daemon by daemon: what a source's changes
// mean for the model, and what the applier writes.
//
//   Feed::StateDiff diff = Feed::diffStates(applier.applied(), next);
//   applier.apply(diff);
//   log(diff.summary());   // "applied 3 changes (daemons: 1 added, ...)"
//
// Pure values: nothing here touches the model, so differences may be computed on any
// thread.
#pragma once

#include "LauncherState.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Feed {

// One option or data key that differs.
struct KeyChange {
    std::string key;
    std::optional<std::string> value; // the value afterwards; none: the key goes away
    bool rowBefore = false;           // it had a row (its old value was non-empty)
    bool rowAfter = false;            // it has a row afterwards (its new value is non-empty)

    friend bool operator==(const KeyChange&, const KeyChange&) = default;
};

// What differs in one daemon's config (enabled and options) or status (running and data).
struct SectionChange {
    bool before = false;         // present in the old state
    bool after = false;          // present in the new state
    std::optional<bool> flag;    // the flag to write: it differs, or the section appears
    std::vector<KeyChange> keys; // in key order; when the section appears or
                                 // disappears, every key it has or had

    bool empty() const noexcept { return before == after && !flag && keys.empty(); }
    friend bool operator==(const SectionChange&, const SectionChange&) = default;
};

// What differs for one daemon.
struct DaemonChange {
    std::string name;
    bool before = false; // known in the old state (false: added)
    bool after = false;  // known in the new state (false: removed)
    SectionChange config;
    SectionChange status;

    // Nothing differs: the daemon is as it was.
    bool empty() const noexcept { return before == after && config.empty() && status.empty(); }
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
        std::size_t rowsAdded = 0;   // rows made (a re-created enabled/running row counts here
        std::size_t rowsRemoved = 0; // and here)
        std::size_t inPlace = 0;     // flags and values written into a kept Config or Status
                                     // without a row coming or going
        friend bool operator==(const Counts&, const Counts&) = default;
    };

    bool empty() const noexcept { return daemons.empty(); }
    Counts counts() const;
    // rowsAdded + rowsRemoved + inPlace.
    std::size_t changes() const;
    // Daemons, option keys and data keys that the difference names.
    std::size_t keys() const;
    // "applied 3 changes (daemons: 1 added, 0 removed; rows: 3 added, 0 removed; 0 changed in place)".
    std::string summary() const;
};

// The difference from `from` to `to`.
StateDiff diffStates(const LauncherState& from, const LauncherState& to);

// The difference for one daemon; before or after null: the daemon is unknown on that side.
// The result may be empty().
DaemonChange diffDaemon(const std::string& name, const DaemonState* before, const DaemonState* after);

} // namespace Feed

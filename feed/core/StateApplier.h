// Writes differences of launcher state into the daemon MIB: the one writer of the model,
// whichever source the state came from.
//
//   Feed::StateApplier applier(mib);
//   applier.apply(Feed::diffStates(applier.applied(), next));
//
// How state is served (GenericAgent::DaemonMib):
//   - Every daemon has an enabled row and a running row. With a config, the enabled row
//     reads a GenericAgent::Config holding the enabled flag and every option; without, the
//     row holds no Config (reads false). Likewise the status, the running row and a
//     GenericAgent::Status.
//   - Every option (data) key with a non-empty value has an option (data) row. A key with
//     an empty value is kept in the Config (Status) but has no row: the module answers an
//     empty value with an error, which would end every walk of the table there.
//   - A difference is applied in place where it can be: each daemon keeps its Config and
//     Status objects, changed flags and values are written into them (the rows show them at
//     once, and the objects' own observers hear flag changes), and only rows that come or go
//     go through the DaemonMib mutators, so the DaemonMib's observers hear exactly those
//     keys. When a daemon's config (status) appears or disappears, its enabled (running) row
//     is deleted and created again with the new pointer.
//
// Threads: only on the thread that owns the DaemonMib (the agent's event loop). The
// applier assumes it is the only writer of the four tables of its DaemonMib, and that
// every name and key fits the SNMP indexes (the sources keep to that).
#pragma once

#include "StateDiff.h"

#include "GenericAgent/GenericAgentSnmp.h"

#include <map>
#include <optional>
#include <string>

namespace Feed {

class StateApplier {
public:
    // Serves into mib, which should hold no daemon rows yet. Keeps a reference to it.
    // Throws std::invalid_argument for a null mib.
    explicit StateApplier(Orbel::Ptr<GenericAgent::DaemonMib> mib);
    StateApplier(const StateApplier&) = delete;
    StateApplier& operator=(const StateApplier&) = delete;

    // Applies a difference computed from applied() (or from a state equal to it): only
    // through the DaemonMib's mutators and in-place changes of the Config and Status
    // objects. Leaves the rows it made in the DaemonMib when the applier goes. Throws
    // std::logic_error for a difference that adds a daemon already served or changes one
    // that is not.
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
    // Daemons served.
    std::size_t daemons() const noexcept { return objects_.size(); }

private:
    struct Objects {
        Orbel::String name; // shared by every index of the daemon
        Orbel::Ptr<GenericAgent::Config> config;
        Orbel::Ptr<GenericAgent::Status> status;
    };
    void applyDaemon(const DaemonChange& change);
    static DaemonState readBack(const Objects& objects);

    Orbel::Ptr<GenericAgent::DaemonMib> mib_;
    std::map<std::string, Objects> objects_;
    mutable std::optional<LauncherState> applied_; // applied(), once asked for
};

} // namespace Feed

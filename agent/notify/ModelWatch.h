// Hears the daemon MIB change, whoever writes it: which daemons appear or go (the enabled
// table's rows, through the DaemonMib's observers) and their flags (observers of each
// daemon's GenericAgent::Config and GenericAgent::Status). Changes are collected while a
// writer works and told once it is done, from the framework's activity loop, one call per
// daemon whose flags differ from what was told before.
//
//   Agent::ModelWatch watch(mib, [](const std::string& daemon, const Agent::DaemonFlags& f) { ... });
//   for (auto& [name, flags] : watch.start()) ...;   // the state now: the baseline
//   // ... the model changes; Orbel::ActivityLoop::instance().runPending() tells them ...
//   watch.stop();
//
// A writer that replaces a daemon's Config or Status deletes and re-creates its row; the
// watch follows the row to the new object, and since it tells only after the writer is
// done, such a replacement is not taken for the daemon going and coming back.
//
// Threads: the thread that owns the model (the agent's event loop), only.
#pragma once

#include "NotifyScheduler.h"

#include "GenericAgent/GenericAgentSnmp.h"
#include "launcher/AgentState.h"

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Agent {

// How often a daemon's flags were set to a new value since the watch last told about it:
// a writer that stops and starts a daemon before it is done leaves the flags as they were
// and still changed them twice.
struct FlagChanges {
    std::uint32_t running = 0;
    std::uint32_t enabled = 0;
};

// Something else that hears what a ModelWatch tells (the daemon history): the state at
// start, then each change, always before the watch's own callback, so that what the
// callback does (a notification) can rely on the listener being up to date.
class ModelListener {
public:
    // The state as it was when the watch started, in name order: nothing changed.
    virtual void baselineIs(const std::vector<std::pair<std::string, DaemonFlags>>& daemons) = 0;
    // One daemon's flags differ from what was told before (or it appeared, or went), or
    // were changed and changed back (the callback hears nothing of those). seen counts the
    // changes of each flag on the daemon's Config and Status objects; a flag that differs
    // only because the writer replaced the object counts none there.
    virtual void changed(const std::string& daemon, const DaemonFlags& flags, const FlagChanges& seen) = 0;

protected:
    ~ModelListener() = default;
};

class ModelWatch {
public:
    using Changed = std::function<void(const std::string& daemon, const DaemonFlags& flags)>;

    // Keeps a reference to mib. Listens only from start() on.
    ModelWatch(Orbel::Ptr<GenericAgent::DaemonMib> mib, Changed changed);
    // Stops.
    ~ModelWatch();
    ModelWatch(const ModelWatch&) = delete;
    ModelWatch& operator=(const ModelWatch&) = delete;

    // Starts listening and returns every daemon's flags now, in name order. Nothing is
    // told for the state as it is. Starting again does nothing (and returns nothing).
    std::vector<std::pair<std::string, DaemonFlags>> start();
    // Stops listening: the observers leave the model, and what was collected is dropped.
    void stop();
    bool started() const noexcept { return started_; }

    // Also tells listener (not owned; null: none) the baseline at start() and every change
    // before the callback. Set it before start(); it must outlive the watch or be reset.
    void listenerIs(ModelListener* listener) noexcept { listener_ = listener; }

    // Tells what was collected now (the activity loop does it otherwise).
    void flush();
    // Daemons with a change collected and not yet told.
    std::size_t dirty() const noexcept { return dirty_.size(); }
    // Observers on Config and Status objects (two per daemon at most).
    std::size_t flagObservers() const noexcept;

private:
    class MibWatch;
    class ConfigWatch;
    class StatusWatch;
    class Flush;
    struct Daemon {
        Orbel::Ptr<ConfigWatch> config;
        Orbel::Ptr<StatusWatch> status;
        DaemonFlags told;
        FlagChanges seen; // since last told
    };

    void rowChanged(const std::string& name);
    void markDirty(const std::string& name);
    void flagChanged(const std::string& name, bool running);
    DaemonFlags flagsNow(const std::string& name, const Daemon& d) const;
    Daemon& follow(const std::string& name);

    Orbel::Ptr<GenericAgent::DaemonMib> mib_;
    Changed changed_;
    ModelListener* listener_ = nullptr;
    Orbel::Ptr<MibWatch> mibWatch_;
    Orbel::Ptr<Flush> flush_;
    std::map<std::string, Daemon> daemons_;
    std::set<std::string> dirty_;
    bool started_ = false;
};

} // namespace Agent

// What every process that serves the daemon MIB does, whoever owns the Net-SNMP agent:
// puts a DaemonMib into the state tree where the module looks for it, fills it from a
// launcher source through the feed, loads the module through the plugin layer, hooks the
// feed into Net-SNMP's select loop, and takes all of that down again.
// velmar-snmp-agent (which owns its agent) and the snmpd dlmod bridge (a guest in
// snmpd's) share it.
//
//   Agent::Host host([](Feed::Severity, const std::string& line) { std::cerr << line << "\n"; });
//   host.loadState(std::make_unique<Feed::FileSource>("/run/launcher/state.json"));  // Feed::StateError
//   // ... Net-SNMP initialised (init_agent, init_snmp) ...
//   host.loadModule("/usr/lib/velmar/modules/VelmarDaemonMIB.so", {});  // Orbel::Exception
//   host.startFeed();                             // reloads now reach the select loop
//   // ... the select loop runs ...
//   host.stopServing();                           // feed stopped, contexts withdrawn
//   snmp_shutdown("app");                         // when the process owns Net-SNMP
//   host.release();                               // module unloaded, state tree cleared
//
// Threads: every method runs on the thread of Net-SNMP's select loop, which is the one
// thread that touches the model. The feed's worker thread is started with every signal
// blocked, so that signals meant for the select loop (SIGTERM, SIGHUP) wake that loop.
// The host knows sources only through Feed::Source.
#pragma once

#include "FeedHealthMib.h"
#include "HistoryMib.h"
#include "ReplySize.h"

#include "feed/core/StateFeed.h"

#include "GenericAgent/GenericAgentSnmp.h"
#include "snmp/HandlerRegistration.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Agent {

class Host {
public:
    // log receives the feed's lines (one per call, on the loop thread).
    explicit Host(Feed::StateFeed::Log log);
    // Does what stopServing() and release() have not done yet.
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Makes the DaemonMib, puts it at GenericAgent::daemonMibStatePath in the state tree
    // (replacing any entry there) and has source load its launcher's state into it. Keeps
    // source. Throws Feed::StateError (naming the source); the DaemonMib then stays in the
    // tree, empty, until release(). Precondition: no state loaded yet (std::logic_error
    // otherwise).
    void loadState(std::unique_ptr<Feed::Source> source);

    // Loads the module library and initialises it in the default context and then in each
    // of contexts, serves the feed's health and the daemon history beside it (FeedHealthMib,
    // HistoryMib; default context, when state is loaded), and keeps every reply of the agent within what its transport
    // carries (ReplySizeLimit). Needs Net-SNMP's agent library initialised (handlers are registered). Throws
    // Orbel::Exception when the library cannot be loaded; nothing stays loaded then. Precondition: no module loaded yet
    // (std::logic_error otherwise).
    void loadModule(const std::string& modulePath, const std::vector<std::string>& contexts);

    // Registers the feed's descriptor with Net-SNMP's select loop (register_readfd; each
    // wake-up applies what the source found) and starts the source. Throws
    // std::system_error when the source cannot start; nothing stays registered then.
    // Precondition: loadState() succeeded.
    void startFeed();

    // For a host that does not drive the loop itself (snmpd): runs the framework's activity
    // loop from Net-SNMP's select loop whenever work is deferred to it (a wake-up eventfd,
    // registered with register_readfd, that the activity loop writes to). A host with its
    // own loop calls Orbel::ActivityLoop::instance().runPending() after each turn instead.
    // Throws std::system_error when no eventfd can be had.
    void runActivitiesFromSelectLoop();

    // Stops the source, takes the feed's and the activity loop's descriptors out of the
    // select loop, removes the reply size limit, the feed's health objects and the history
    // table (the history itself stays until release()), withdraws
    // the module from every context and removes what the module left registered (the
    // library stays loaded, so that Net-SNMP may still free what it holds of it). Safe to
    // repeat.
    //
    // Who frees what the module allocates: the module registers its tables with column,
    // table and iterator information it callocs. In an extra context it hands their
    // ownership to the agent library (which frees them on unregistration) and frees the
    // column chains itself when it leaves that context. In the default context it records
    // nothing to leave with and hands over no ownership, so its registrations outlive
    // unregister_VelmarDaemonMIB(""); here, and only here, they are unregistered and
    // their iterator information is freed with them (withdrawModuleLeftovers in Host.cpp).
    void stopServing();

    // Unloads the module, drops the feed and clears the state tree (the DaemonMib with it).
    // Calls stopServing() first when that has not happened. Safe to repeat.
    void release();

    const Orbel::Ptr<GenericAgent::DaemonMib>& mib() const noexcept { return mib_; }
    // The daemon history served (made by loadModule when state is loaded; null before, and
    // after release()). It counts once it listens to the model: give it to the Notifier
    // (Notifier::historyIs) before the Notifier starts.
    DaemonHistory* history() const noexcept { return history_.get(); }
    Feed::StateFeed* feed() const noexcept { return feed_.get(); }
    Snmp::ModuleLoader* module() const noexcept { return module_.get(); }
    // The feed's eventfd is on the select loop.
    bool feedStarted() const noexcept { return feedRegistered_; }

private:
    static void onFeedEvent(int fd, void* host);
    static void onActivityWakeup(int fd, void* host);

    Feed::StateFeed::Log log_;
    Orbel::Ptr<GenericAgent::DaemonMib> mib_;
    std::unique_ptr<Feed::StateFeed> feed_;
    std::unique_ptr<Snmp::ModuleLoader> module_;
    std::unique_ptr<ReplySizeLimit> replyLimit_;
    std::unique_ptr<FeedHealthMib> health_;
    std::unique_ptr<DaemonHistory> history_;
    std::unique_ptr<HistoryMib> historyMib_;
    std::string modulePath_; // the module's library: the leftovers are what leads into it
    bool feedRegistered_ = false;
    int activityFd_ = -1; // wake-up eventfd of the activity loop (runActivitiesFromSelectLoop)
};

// "enterprises.32473.3.17" with the build's enterprise number: the subtree served.
const std::string& subtreeText();

} // namespace Agent

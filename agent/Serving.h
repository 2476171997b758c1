// One way to serve the daemon MIB, for both of its hosts: velmar-snmp-agent (main.cpp, which
// owns its Net-SNMP agent) and the snmpd dlmod bridge (dlmod/, a guest in snmpd's agent).
// Each host reads its settings its own way (a command line, snmpd directives) and hands
// them over here; from then on both do the same: build the launcher source, load its state
// (Host), load the module, start the feed, its health and the notifier, and say what is
// served in the same words.
//
//   Agent::Serving serving(settings, feedLog, notifyLog);
//   serving.loadState();          // Feed::StateError, std::invalid_argument: names the source
//   // ... Net-SNMP initialised ...
//   serving.loadModule();         // Orbel::Exception: names the library
//   serving.start(false);         // feed on the select loop, then the notifier
//   log(serving.servingLine("on udp:127.0.0.1:161"));
//   // ... the select loop runs ...
//   serving.stop();               // notifier, feed, module withdrawn (before snmp_shutdown)
//   serving.release();            // module unloaded, state tree cleared (the destructor too)
//
// Where things join:
//   - a piece that serves beside the tables (the notifier, which keeps the host's daemon history up to date
//     before each notification) is one member here,
//     started in start() after the initial load and stopped in stop() before the feed;
//   - a launcher source is a field of SourceSettings and a case in makeSource() and
//     sourceText();
//   - what the host knows of its place in Net-SNMP (a subagent registered with its master
//     or waiting) is the host's adapter's to watch (main.cpp's loop); the lines for both
//     states are here (servingLine, waitingLine).
//
// Threads: the thread of Net-SNMP's select loop only.
#pragma once

#include "Host.h"
#include "agent/notify/Notifier.h"

#include "feed/core/Source.h"
#include "feed/core/StateFeed.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

// Where the launcher's state comes from: a JSON state file, systemd's service units, or a
// supervisord's processes.
struct SourceSettings {
    std::string stateFile;                       // without systemd: the launcher's state file
    bool systemd = false;                        // systemd's service units instead
    std::string units;                           // their patterns as given; empty: every service
    std::optional<std::chrono::seconds> refresh; // between counter readings; empty: the source's default
    std::string systemBus;                       // empty: $DBUS_SYSTEM_BUS_ADDRESS, else the system bus
    bool supervisor = false;                     // a supervisord's processes instead (SupervisorSettings.h)
    std::string supervisorAddress;               // socket path, unix://PATH or http://HOST:PORT; empty: the default
    std::string supervisorEvents;                // the listener's datagram socket; empty: polled only
    std::string supervisorAuth;                  // a USER:PASSWORD file; empty: none
    bool serveCommandLines = false;              // whole command lines, not just the executable
};

// The source the settings name. Throws std::invalid_argument ("units PATTERNS: why") for a
// bad pattern list.
std::unique_ptr<Feed::Source> makeSource(const SourceSettings& settings);

// What the start line says the agent serves from: "state file PATH", or
// "systemd (system bus unix:path=/run/dbus/system_bus_socket, units *.service)".
std::string sourceText(const SourceSettings& settings);

// What is served now: "42 daemons, 630 rows (enabled 42, ...)" (Served.h), with "; 1 unit
// skipped (name over 32 bytes)" and "; not connected to systemd yet, trying again" from a
// systemd source when so.
std::string servedText(const Feed::StateFeed& feed);

// velmar-snmp-agent and its version, as the lines and sysDescr name it.
extern const char* const agentName;
extern const char* const agentVersion;

class Serving {
public:
    struct Settings {
        SourceSettings source;
        std::string modulePath;            // the module library
        std::vector<std::string> contexts; // initialised besides the default context
        NotifyScheduler::Settings notify;
        std::vector<std::string> notifyData; // data keys a running change carries (NotifyData.h)
    };

    // feedLog receives the feed's lines, notifyLog the notifier's (on the loop thread).
    Serving(Settings settings, Feed::StateFeed::Log feedLog, Notifier::Log notifyLog);
    // Stops and releases what is still up.
    ~Serving();
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;

    // Builds the source and loads its state (Host::loadState). Throws as makeSource and
    // Host::loadState do.
    void loadState();
    // Loads the module in the default context and in each extra one (Host::loadModule).
    // Needs Net-SNMP's agent library initialised.
    void loadModule();
    // Starts the feed on the select loop and, for a host whose loop is not its own
    // (snmpd), the activity loop from it; then the notifier, which takes the state as
    // loaded as what receivers know. Throws std::system_error when the source cannot start
    // (the notifier is not started then).
    void start(bool activitiesFromSelectLoop);
    // Stops the notifier and the feed and withdraws the module (Host::stopServing), before
    // Net-SNMP frees what it holds. Safe to repeat.
    void stop();
    // Unloads the module and clears the state tree (Host::release). Safe to repeat.
    void release();

    const Settings& settings() const noexcept { return settings_; }
    Host& host() noexcept { return host_; }
    const Feed::StateFeed& feed() const;

    // The agent's lines.
    //   "velmar-snmp-agent 0.1.0 serving VELMAR-DAEMON-MIB (enterprises.N.3.17) from <source>
    //    on udp:127.0.0.1:161: <served>"  (where: "on ADDRESSES", "as AgentX subagent of SOCKET")
    std::string servingLine(const std::string& where) const;
    //   "velmar-snmp-agent 0.1.0: waiting for the master at SOCKET to register ... from <source>: <served>"
    std::string waitingLine(const std::string& master) const;
    // The bridge's line inside snmpd (whose log already names the process):
    //   "serving VELMAR-DAEMON-MIB (enterprises.N.3.17) from PATH with MODULE (also initialised
    //    in contexts a, b): 3 daemons"
    std::string guestServingLine() const;

private:
    Settings settings_;
    Notifier::Log notifyLog_;
    Host host_;
    std::unique_ptr<Notifier> notifier_; // sends through the process's sinks or master
};

} // namespace Agent

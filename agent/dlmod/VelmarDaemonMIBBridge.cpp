// velmar_daemon_mib: serves the daemon MIB from a stock snmpd, which loads this library
// through its dlmod directive. It brings no agent of its own: it takes its settings from
// snmpd.conf, and once snmpd has read its configuration it does inside snmpd what
// velmar-snmp-agent does in its own process (Agent::Serving): the DaemonMib in the state
// tree, the launcher state feed on snmpd's select loop, the module VelmarDaemonMIB loaded
// through the plugin layer, and the notifier. This file is the adapter: snmpd's directives
// and callbacks on one side, Agent::Serving on the other.
//
//   dlmod velmar_daemon_mib /usr/lib/velmar/dlmod/velmar_daemon_mib.so
//   velmarStateFile /run/launcher/state.json      # the launcher's state file, or
//   velmarSystemd *.service                       # systemd's service units matching the patterns
//                                                 # (comma-separated, e.g. ssh.service,getty@*)
//                                                 # over $DBUS_SYSTEM_BUS_ADDRESS or the system
//                                                 # bus. snmpd refuses a directive without a
//                                                 # word, so the patterns are always given
//   velmarSupervisor /var/run/supervisor.sock     # or a supervisord's processes (a socket path,
//                                                 # unix://PATH or http://HOST:PORT); exactly
//                                                 # one of the three sources
//   velmarSupervisorUnits bgpd,worker*            # which of its processes (default: all)
//   velmarSupervisorEvents /run/snmpd/supervisor-events.sock
//                                                 # the socket velmar-supervisor-events sends to
//                                                 # (none: every process is read each 10 s)
//   velmarSupervisorAuth /etc/snmp/supervisor.auth  # USER:PASSWORD, when supervisord asks
//   velmarServeCommandLines yes                   # serve whole command lines (default no: the
//                                                 # executable's path; arguments can hold secrets)
//   velmarModule /usr/lib/velmar/modules/VelmarDaemonMIB.so
//                                                 # default: ../modules/VelmarDaemonMIB.so
//                                                 # beside this library (build tree or install)
//   velmarContext NAME                            # repeatable: also initialise the module in NAME
//   velmarTrace Snmp/0-2,8                        # trace levels, as the TRACE variable
//   velmarNotifyHolddown 1000                     # ms a daemon's further changes are held after
//                                                 # a notification about it (0..3600000)
//   velmarNotifyRate 100                          # notifications per second at most (1..1000000)
//   velmarNotifyData Result,ExecMainStatus        # data keys a running change also carries;
//                                                 # default Result,ExecMainCode,ExecMainStatus
//                                                 # with velmarSystemd, none with a state file;
//                                                 # "none": none
//
// The velmar* lines must come after the dlmod line: snmpd learns them only when it loads
// this library, which it does while reading that line. A line given twice counts the last
// time (velmarContext adds up); BridgeDirectives.h reads them. Access to the subtree is
// snmpd's own configuration.
//
// Life inside snmpd, all on its one thread:
//   init_velmar_daemon_mib      the dlmod line: registers the directives and two callbacks
//   after the configuration     (SNMP_CALLBACK_POST_READ_CONFIG) starts serving; a missing
//                               or bad setting is one LOG_ERR line naming the directive and
//                               the file, and then nothing is served (snmpd runs on)
//   snmp_shutdown               (SNMP_CALLBACK_SHUTDOWN, ahead of snmpd's modules) stops
//                               serving and withdraws the directives and callbacks, while
//                               the agent is still whole
//   deinit_velmar_daemon_mib    the library is unloaded (SIGHUP, the dlmod table, exit):
//                               does whatever the shutdown callback has not done
// SIGHUP makes snmpd unload every dlmod library and read its configuration again, which
// loads this one afresh: the settings are read again and the state file loaded anew.
#include "BridgeDirectives.h"

#include "agent/Serving.h"
#include "agent/notify/NotifyData.h"

#include "orbel/Exception.h"
#include "orbel/TraceHandle.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#define VELMAR_DLMOD_EXPORT extern "C" __attribute__((visibility("default")))

// snmpd calls these by name (dlsym of "init_" and "deinit_" followed by the dlmod name).
VELMAR_DLMOD_EXPORT void init_velmar_daemon_mib(void);
VELMAR_DLMOD_EXPORT void deinit_velmar_daemon_mib(void);

namespace {

constexpr const char* bridgeName = "velmar_daemon_mib";

// Everything the bridge holds while it is loaded.
struct Loaded {
    Bridge::Settings settings;               // what the velmar* lines said (BridgeDirectives.h)
    std::unique_ptr<Agent::Serving> serving; // while serving; notifications through snmpd's sinks
    bool withdrawn = false;                  // directives and callbacks are unregistered
};

// Made by init, deleted by deinit. A plain pointer: the library may be unloaded while
// snmpd runs, and nothing of it may be left for static destruction.
Loaded* bridge = nullptr;

// ../modules/VelmarDaemonMIB.so beside this library, where the build tree and an install
// both put it. (Load the library by its real path: its RUNPATH, $ORIGIN/.., finds the
// platform libraries only from there, not through a symbolic link.)
std::string defaultModulePath() {
    Dl_info info{};
    if (!::dladdr(reinterpret_cast<void*>(&init_velmar_daemon_mib), &info) || !info.dli_fname)
        return "VelmarDaemonMIB.so";
    std::error_code ec;
    std::filesystem::path self = std::filesystem::canonical(info.dli_fname, ec);
    if (ec) self = info.dli_fname;
    const std::filesystem::path module = self.parent_path() / ".." / "modules" / "VelmarDaemonMIB.so";
    std::filesystem::path p = std::filesystem::weakly_canonical(module, ec);
    return (ec ? module : p).string();
}

void logLine(int priority, const std::string& line) {
    snmp_log(priority, "%s: %s\n", bridgeName, line.c_str());
}

// Stops serving: the notifier, the feed and the module withdrawn from snmpd, including
// what it left registered (Host.h says who frees what), the module unloaded and the state
// tree cleared, all before the module's code goes (snmpd runs on after SIGHUP).
void stopServing(bool announce = true) {
    if (!bridge || !bridge->serving) return;
    bridge->serving->release();
    bridge->serving.reset();
    if (announce) logLine(LOG_INFO, "stopped serving");
}

// Starts serving with the settings read; on a bad one logs why and serves nothing.
void startServing() {
    if (!bridge || bridge->serving) return;
    const Bridge::Settings& s = bridge->settings;
    if (s.stateFile.empty() && !s.systemdUnits && !s.supervisor) {
        logLine(LOG_ERR, std::string("no ") + Bridge::stateFileToken + " line and no usable " + Bridge::systemdToken +
                             " or " + Bridge::supervisorToken + " line after the dlmod line (" +
                             Bridge::stateFileToken + " PATH names the launcher's state file, " + Bridge::systemdToken +
                             " PATTERNS serves systemd's service units, *.service for all, " + Bridge::supervisorToken +
                             " SOCKET|URL a supervisord's processes); serving nothing");
        return;
    }
    if (int(!s.stateFile.empty()) + int(s.systemdUnits.has_value()) + int(s.supervisor.has_value()) > 1) {
        logLine(LOG_ERR, std::string(Bridge::stateFileToken) + ", " + Bridge::systemdToken + " and " +
                             Bridge::supervisorToken +
                             " exclude each other (snmpd named the file and line above); serving nothing");
        return;
    }
    const bool systemd = s.systemdUnits.has_value();
    const bool supervisor = s.supervisor.has_value();
    const char* sourceToken = supervisor ? Bridge::supervisorToken
                              : systemd  ? Bridge::systemdToken
                                         : Bridge::stateFileToken;
    const std::string sourceWord = supervisor ? *s.supervisor : systemd ? *s.systemdUnits : s.stateFile;
    const bool defaultModule = s.modulePath.empty();

    Agent::Serving::Settings settings;
    settings.source.stateFile = s.stateFile;
    settings.source.systemd = systemd;
    settings.source.units = supervisor ? s.supervisorUnits : s.systemdUnits.value_or("");
    settings.source.supervisor = supervisor;
    settings.source.supervisorAddress = s.supervisor.value_or("");
    settings.source.supervisorEvents = s.supervisorEvents;
    settings.source.supervisorAuth = s.supervisorAuth;
    settings.source.serveCommandLines = s.serveCommandLines;
    settings.modulePath = defaultModule ? defaultModulePath() : s.modulePath;
    settings.contexts = s.contexts;
    settings.notify = s.notify;
    settings.notifyData = s.notifyData ? *s.notifyData : Agent::notifyDataKeys(Agent::defaultNotifyData(systemd));
    bridge->serving = std::make_unique<Agent::Serving>(
        std::move(settings),
        [](Feed::Severity severity, const std::string& line) {
            logLine(severity == Feed::Severity::error     ? LOG_ERR
                    : severity == Feed::Severity::warning ? LOG_WARNING
                                                          : LOG_NOTICE,
                    line);
        },
        [](const std::string& line) { logLine(LOG_NOTICE, line); });
    Agent::Serving& serving = *bridge->serving;
    try {
        serving.loadState();
    } catch (const std::exception& e) {
        logLine(LOG_ERR, std::string(sourceToken) + ": " + e.what() + "; serving nothing"); // names the file or bus
        stopServing(false);
        return;
    }
    try {
        serving.loadModule();
    } catch (const std::exception& e) {
        // The message names the file.
        logLine(LOG_ERR, std::string(Bridge::moduleToken) +
                             (defaultModule ? " (not given; the default beside this library)" : "") + ": " + e.what() +
                             "; serving nothing");
        stopServing(false);
        return;
    }
    try {
        serving.start(true);
    } catch (const std::exception& e) {
        logLine(LOG_ERR,
                std::string(sourceToken) + " " + sourceWord + ": cannot watch it: " + e.what() + "; serving nothing");
        stopServing(false);
        return;
    }
    logLine(LOG_INFO, serving.guestServingLine());
}

int onConfigRead(int, int, void*, void*) {
    try {
        startServing();
    } catch (const std::exception& e) {
        logLine(LOG_ERR, std::string("cannot start: ") + e.what() + "; serving nothing");
        try {
            stopServing(false);
        } catch (...) {
        }
    } catch (...) {
        logLine(LOG_ERR, "cannot start; serving nothing");
    }
    return SNMPERR_SUCCESS;
}

int onShutdown(int, int, void*, void*);

// Unregisters the directives and callbacks.
//
// At shutdown snmpd unloads this library from inside the removal of its own dlmod
// directive, which has already noted the entry after it in the list of directives; removing
// our directives there could free that very entry. So the shutdown callback, which runs
// first (highest priority), withdraws everything, and deinit finds nothing left to do.
// From inside the shutdown callback that callback itself stays registered (the library
// holds the lock of its list while it runs it): it is never called again, and the library
// frees its entry when it clears its callbacks. On SIGHUP, deinit runs while snmpd frees
// its configuration, where removing our entries is safe, and withdraws everything itself.
void withdraw(bool inShutdownCallback) {
    if (!bridge || bridge->withdrawn) return;
    bridge->withdrawn = true;
    Bridge::unregisterDirectives();
    snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, onConfigRead, nullptr, 1);
    if (!inShutdownCallback)
        snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_SHUTDOWN, onShutdown, nullptr, 1);
}

int onShutdown(int, int, void*, void*) {
    try {
        stopServing();
        withdraw(true);
    } catch (const std::exception& e) {
        logLine(LOG_ERR, std::string("stopping: ") + e.what());
    } catch (...) {
    }
    return SNMPERR_SUCCESS;
}

} // namespace

void init_velmar_daemon_mib(void) {
    if (bridge) return; // a second dlmod line for the same library
    try {
        bridge = new Loaded;
        Bridge::registerDirectives(bridge->settings);
        // No client argument: the library frees client arguments with free() when it clears
        // its callbacks.
        snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, onConfigRead, nullptr);
        // Ahead of snmpd's own shutdown of its modules, which unloads this library from inside
        // its list of directives (see withdraw).
        netsnmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_SHUTDOWN, onShutdown, nullptr,
                                  NETSNMP_CALLBACK_HIGHEST_PRIORITY);
        DEBUGMSGTL((bridgeName, "loaded; waiting for the end of the configuration\n"));
    } catch (const std::exception& e) {
        logLine(LOG_ERR, std::string("cannot initialise: ") + e.what());
    }
}

void deinit_velmar_daemon_mib(void) {
    if (!bridge) return;
    try {
        stopServing();
        withdraw(false);
        if (bridge->settings.traceBefore) Orbel::traceConfigIs(*bridge->settings.traceBefore);
    } catch (const std::exception& e) {
        logLine(LOG_ERR, std::string("unloading: ") + e.what());
    } catch (...) {
    }
    delete bridge;
    bridge = nullptr;
    DEBUGMSGTL((bridgeName, "unloaded\n"));
}

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
// time (velmarContext adds up). Access to the subtree is snmpd's own configuration.
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
#include "agent/Serving.h"
#include "feed/supervisor/SupervisorClient.h"
#include "agent/notify/NotifyData.h"
#include "feed/systemd/SystemdSource.h"

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

// What snmpd.conf said.
struct Settings {
    std::string stateFile;
    std::optional<std::string> systemdUnits; // velmarSystemd's patterns
    std::optional<std::string> supervisor;   // velmarSupervisor's address
    std::string supervisorEvents;
    std::string supervisorAuth;
    bool serveCommandLines = false; // velmarServeCommandLines
    std::string modulePath;
    std::vector<std::string> contexts;
    Agent::NotifyScheduler::Settings notify;
    std::optional<std::vector<std::string>> notifyData; // velmarNotifyData's keys
};

// Everything the bridge holds while it is loaded.
struct Bridge {
    Settings settings;
    std::unique_ptr<Agent::Serving> serving; // while serving; notifications through snmpd's sinks
    std::optional<std::string> traceBefore;  // the trace configuration velmarTrace replaced
    bool withdrawn = false;                  // directives and callbacks are unregistered
};

// Made by init, deleted by deinit. A plain pointer: the library may be unloaded while
// snmpd runs, and nothing of it may be left for static destruction.
Bridge* bridge = nullptr;

constexpr const char* stateFileToken = "velmarStateFile";
constexpr const char* systemdToken = "velmarSystemd";
constexpr const char* supervisorToken = "velmarSupervisor";
constexpr const char* supervisorEventsToken = "velmarSupervisorEvents";
constexpr const char* supervisorAuthToken = "velmarSupervisorAuth";
constexpr const char* moduleToken = "velmarModule";
constexpr const char* contextToken = "velmarContext";
constexpr const char* traceToken = "velmarTrace";
constexpr const char* holddownToken = "velmarNotifyHolddown";
constexpr const char* rateToken = "velmarNotifyRate";
constexpr const char* commandLinesToken = "velmarServeCommandLines";
constexpr const char* notifyDataToken = "velmarNotifyData";

// The one word of a directive's argument (double quotes allowed, as elsewhere in
// snmpd.conf). Reports a missing or second word through config_perror, which names the
// file and the line, and returns nothing then.
std::optional<std::string> oneWord(const char* token, char* line, const char* what) {
    char word[4096];
    if (!line || !*line) {
        config_perror((std::string(token) + " needs " + what).c_str());
        return std::nullopt;
    }
    const char* rest = copy_nword(line, word, sizeof word);
    if (!*word) {
        config_perror((std::string(token) + " needs " + what).c_str());
        return std::nullopt;
    }
    if (rest && *rest) {
        config_perror((std::string(token) + " takes one word (" + what + "), not \"" + line + "\"").c_str());
        return std::nullopt;
    }
    return std::string(word);
}

// Runs a directive's parser; nothing may escape into snmpd's C code.
template <class F>
void guarded(const char* token, F parse) noexcept {
    try {
        parse();
    } catch (const std::exception& e) {
        config_perror((std::string(token) + ": " + e.what()).c_str());
    } catch (...) {
        config_perror(token);
    }
}

// The two launcher sources exclude each other; the second one named is reported with its
// file and line (and nothing is served, see startServing).
void reportSecondSource(const char* token) {
    config_perror((std::string(token) + ": " + stateFileToken + ", " + systemdToken + " and " + supervisorToken +
                   " exclude each other; give one launcher source")
                      .c_str());
}

void parseStateFile(const char* token, char* line) {
    guarded(token, [&] {
        if (auto w = oneWord(token, line, "the path of the launcher's state file"); w && bridge) {
            if (bridge->settings.systemdUnits || bridge->settings.supervisor) reportSecondSource(token);
            bridge->settings.stateFile = *w;
        }
    });
}

void parseSystemd(const char* token, char* line) {
    guarded(token, [&] {
        auto w = oneWord(token, line, "comma-separated unit patterns such as *.service or ssh.service,getty@*");
        if (!w) return;
        try {
            Feed::parseUnitPatterns(*w);
        } catch (const std::invalid_argument& e) {
            config_perror((std::string(token) + " " + *w + ": " + e.what()).c_str());
            return;
        }
        if (!bridge) return;
        if (!bridge->settings.stateFile.empty() || bridge->settings.supervisor) reportSecondSource(token);
        bridge->settings.systemdUnits = *w;
    });
}

void parseCommandLines(const char* token, char* line) {
    guarded(token, [&] {
        auto w = oneWord(token, line, "yes or no");
        if (!w) return;
        if (*w != "yes" && *w != "no")
            return config_perror((std::string(token) + " takes yes or no, not " + *w).c_str());
        if (bridge) bridge->settings.serveCommandLines = *w == "yes";
    });
}

void parseSupervisor(const char* token, char* line) {
    guarded(token, [&] {
        auto w = oneWord(token, line, "supervisord's socket path, unix://PATH or http://HOST:PORT");
        if (!w) return;
        try {
            Feed::SupervisorEndpoint::parse(*w);
        } catch (const std::invalid_argument& e) {
            config_perror((std::string(token) + ": " + e.what()).c_str());
            return;
        }
        if (!bridge) return;
        if (!bridge->settings.stateFile.empty() || bridge->settings.systemdUnits) reportSecondSource(token);
        bridge->settings.supervisor = *w;
    });
}

void parseSupervisorEvents(const char* token, char* line) {
    guarded(token, [&] {
        if (auto w = oneWord(token, line, "the Unix socket velmar-supervisor-events sends to"); w && bridge)
            bridge->settings.supervisorEvents = *w;
    });
}

void parseSupervisorAuth(const char* token, char* line) {
    guarded(token, [&] {
        if (auto w = oneWord(token, line, "a file whose first line is USER:PASSWORD"); w && bridge)
            bridge->settings.supervisorAuth = *w;
    });
}

void parseModule(const char* token, char* line) {
    guarded(token, [&] {
        if (auto w = oneWord(token, line, "the path of VelmarDaemonMIB.so"); w && bridge)
            bridge->settings.modulePath = *w;
    });
}

void parseContext(const char* token, char* line) {
    guarded(token, [&] {
        if (auto w = oneWord(token, line, "an SNMP context name"); w && bridge) bridge->settings.contexts.push_back(*w);
    });
}

void parseTrace(const char* token, char* line) {
    guarded(token, [&] {
        auto w = oneWord(token, line, "trace levels such as Snmp/0-2,8");
        if (!w || !bridge) return;
        const std::string before = Orbel::traceConfig();
        try {
            Orbel::traceConfigIs(*w);
        } catch (const Orbel::Exception& e) {
            config_perror((std::string(token) + " " + *w + ": " + e.what()).c_str());
            return;
        }
        if (!bridge->traceBefore) bridge->traceBefore = before;
    });
}

// A whole number in [low, high] from a directive's one word, or nothing (reported).
std::optional<long> number(const char* token, char* line, const char* what, long low, long high) {
    auto w = oneWord(token, line, what);
    if (!w) return std::nullopt;
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(w->c_str(), &end, 10);
    if (errno || end == w->c_str() || *end || v < low || v > high) {
        config_perror((std::string(token) + " " + *w + ": not a whole number from " + std::to_string(low) + " to " +
                       std::to_string(high))
                          .c_str());
        return std::nullopt;
    }
    return v;
}

void parseHolddown(const char* token, char* line) {
    guarded(token, [&] {
        if (auto v = number(token, line, "milliseconds, e.g. 1000", 0, 3600000); v && bridge)
            bridge->settings.notify.holddown = std::chrono::milliseconds(*v);
    });
}

void parseRate(const char* token, char* line) {
    guarded(token, [&] {
        if (auto v = number(token, line, "notifications per second, e.g. 100", 1, 1000000); v && bridge)
            bridge->settings.notify.rate = static_cast<unsigned>(*v);
    });
}

void parseNotifyData(const char* token, char* line) {
    guarded(token, [&] {
        auto w = oneWord(token, line, "comma-separated data keys such as Result,ExecMainStatus, or none");
        if (!w) return;
        try {
            auto keys = *w == "none" ? std::vector<std::string>{} : Agent::notifyDataKeys(*w);
            if (bridge) bridge->settings.notifyData = std::move(keys);
        } catch (const std::invalid_argument& e) {
            config_perror((std::string(token) + " " + *w + ": " + e.what()).c_str());
        }
    });
}

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
    const Settings& s = bridge->settings;
    if (s.stateFile.empty() && !s.systemdUnits && !s.supervisor) {
        logLine(LOG_ERR, std::string("no ") + stateFileToken + " line and no usable " + systemdToken + " or " +
                             supervisorToken + " line after the dlmod line (" + stateFileToken +
                             " PATH names the launcher's state file, " + systemdToken +
                             " PATTERNS serves systemd's service units, *.service for all, " + supervisorToken +
                             " SOCKET|URL a supervisord's processes); serving nothing");
        return;
    }
    if (int(!s.stateFile.empty()) + int(s.systemdUnits.has_value()) + int(s.supervisor.has_value()) > 1) {
        logLine(LOG_ERR, std::string(stateFileToken) + ", " + systemdToken + " and " + supervisorToken +
                             " exclude each other (snmpd named the file and line above); serving nothing");
        return;
    }
    const bool systemd = s.systemdUnits.has_value();
    const bool supervisor = s.supervisor.has_value();
    const char* sourceToken = supervisor ? supervisorToken : systemd ? systemdToken : stateFileToken;
    const std::string sourceWord = supervisor ? *s.supervisor : systemd ? *s.systemdUnits : s.stateFile;
    const bool defaultModule = s.modulePath.empty();

    Agent::Serving::Settings settings;
    settings.source.stateFile = s.stateFile;
    settings.source.systemd = systemd;
    settings.source.units = s.systemdUnits.value_or("");
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
        logLine(LOG_ERR, std::string(moduleToken) +
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
    for (const char* token :
         {stateFileToken, systemdToken, supervisorToken, supervisorEventsToken, supervisorAuthToken, moduleToken,
          contextToken, traceToken, holddownToken, rateToken, notifyDataToken, commandLinesToken})
        snmpd_unregister_config_handler(token);
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
        bridge = new Bridge;
        snmpd_register_config_handler(stateFileToken, parseStateFile, nullptr, "PATH (the launcher's state file)");
        snmpd_register_config_handler(systemdToken, parseSystemd, nullptr,
                                      "PATTERNS (systemd's service units, *.service for all)");
        snmpd_register_config_handler(supervisorToken, parseSupervisor, nullptr,
                                      "SOCKET|URL (a supervisord's processes)");
        snmpd_register_config_handler(supervisorEventsToken, parseSupervisorEvents, nullptr,
                                      "SOCKET (where velmar-supervisor-events sends)");
        snmpd_register_config_handler(supervisorAuthToken, parseSupervisorAuth, nullptr, "FILE (USER:PASSWORD)");
        snmpd_register_config_handler(moduleToken, parseModule, nullptr, "PATH (VelmarDaemonMIB.so)");
        snmpd_register_config_handler(contextToken, parseContext, nullptr, "NAME (an extra SNMP context)");
        snmpd_register_config_handler(traceToken, parseTrace, nullptr, "LEVELS (e.g. Snmp/0-2,8)");
        snmpd_register_config_handler(holddownToken, parseHolddown, nullptr,
                                      "MS (notification hold-down, default 1000)");
        snmpd_register_config_handler(rateToken, parseRate, nullptr,
                                      "N (notifications per second at most, default 100)");
        snmpd_register_config_handler(notifyDataToken, parseNotifyData, nullptr,
                                      "KEYS (data keys a running change carries)");
        snmpd_register_config_handler(commandLinesToken, parseCommandLines, nullptr,
                                      "yes|no (whole command lines, default no)");
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
        if (bridge->traceBefore) Orbel::traceConfigIs(*bridge->traceBefore);
    } catch (const std::exception& e) {
        logLine(LOG_ERR, std::string("unloading: ") + e.what());
    } catch (...) {
    }
    delete bridge;
    bridge = nullptr;
    DEBUGMSGTL((bridgeName, "unloaded\n"));
}

// velmar_daemon_mib: serves the daemon MIB from a stock snmpd, which loads this library
// through its dlmod directive. It brings no agent of its own: it takes its settings from
// snmpd.conf, and once snmpd has read its configuration it does inside snmpd what
// velmar-snmp-agent does in its own process (Agent::Host): the DaemonMib in the state tree,
// the launcher state feed on snmpd's select loop, and the module VelmarDaemonMIB loaded
// through the plugin layer.
//
//   dlmod velmar_daemon_mib /usr/lib/velmar/dlmod/velmar_daemon_mib.so
//   velmarStateFile /run/launcher/state.json      # the launcher's state file, or
//   velmarSystemd *.service                       # systemd's service units matching the patterns
//                                                 # (comma-separated, e.g. ssh.service,getty@*)
//                                                 # over $DBUS_SYSTEM_BUS_ADDRESS or the system
//                                                 # bus; exactly one of the two. snmpd refuses
//                                                 # a directive without a word, so the patterns
//                                                 # are always given
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
#include "agent/Host.h"
#include "agent/notify/Notifier.h"
#include "feed/file/FileSource.h"
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
    std::optional<std::string> systemdUnits;  // velmarSystemd's patterns
    Feed::SourceSettings source;              // velmarServeCommandLines
    std::string modulePath;
    std::vector<std::string> contexts;
    Agent::NotifyScheduler::Settings notify;
};

// Everything the bridge holds while it is loaded.
struct Bridge {
    Settings settings;
    std::unique_ptr<Agent::Host> host;
    std::unique_ptr<Agent::Notifier> notifier;   // through snmpd's sinks
    std::string modulePath;                   // the module the host loaded
    std::optional<std::string> traceBefore;   // the trace configuration velmarTrace replaced
    bool withdrawn = false;                   // directives and callbacks are unregistered
};

// Made by init, deleted by deinit. A plain pointer: the library may be unloaded while
// snmpd runs, and nothing of it may be left for static destruction.
Bridge* bridge = nullptr;

constexpr const char* stateFileToken = "velmarStateFile";
constexpr const char* systemdToken = "velmarSystemd";
constexpr const char* moduleToken = "velmarModule";
constexpr const char* contextToken = "velmarContext";
constexpr const char* traceToken = "velmarTrace";
constexpr const char* holddownToken = "velmarNotifyHolddown";
constexpr const char* rateToken = "velmarNotifyRate";
constexpr const char* commandLinesToken = "velmarServeCommandLines";

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
    config_perror((std::string(token) + ": " + stateFileToken + " and " + systemdToken +
                   " exclude each other; give one launcher source").c_str());
}

void parseStateFile(const char* token, char* line) {
    guarded(token, [&] {
        if (auto w = oneWord(token, line, "the path of the launcher's state file"); w && bridge) {
            if (bridge->settings.systemdUnits) reportSecondSource(token);
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
        if (!bridge->settings.stateFile.empty()) reportSecondSource(token);
        bridge->settings.systemdUnits = *w;
    });
}

void parseCommandLines(const char* token, char* line) {
    guarded(token, [&] {
        auto w = oneWord(token, line, "yes or no");
        if (!w) return;
        if (*w != "yes" && *w != "no") return config_perror((std::string(token) + " takes yes or no, not " + *w).c_str());
        if (bridge) bridge->settings.source.serveCommandLines = *w == "yes";
    });
}

void parseModule(const char* token, char* line) {
    guarded(token, [&] {
        if (auto w = oneWord(token, line, "the path of VelmarDaemonMIB.so"); w && bridge) bridge->settings.modulePath = *w;
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
                       std::to_string(high)).c_str());
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

// ../modules/VelmarDaemonMIB.so beside this library, where the build tree and an install
// both put it. (Load the library by its real path: its RUNPATH, $ORIGIN/.., finds the
// platform libraries only from there, not through a symbolic link.)
std::string defaultModulePath() {
    Dl_info info{};
    if (!::dladdr(reinterpret_cast<void*>(&init_velmar_daemon_mib), &info) || !info.dli_fname) return "VelmarDaemonMIB.so";
    std::error_code ec;
    std::filesystem::path self = std::filesystem::canonical(info.dli_fname, ec);
    if (ec) self = info.dli_fname;
    const std::filesystem::path module = self.parent_path() / ".." / "modules" / "VelmarDaemonMIB.so";
    std::filesystem::path p = std::filesystem::weakly_canonical(module, ec);
    return (ec ? module : p).string();
}

void logLine(int priority, const std::string& line) { snmp_log(priority, "%s: %s\n", bridgeName, line.c_str()); }

// The registrations in snmpd's registry, in every context, with a handler whose code lives
// in the library file at `library`.
std::vector<netsnmp_handler_registration*> registrationsInto(const std::string& library) {
    std::vector<netsnmp_handler_registration*> found;
    std::vector<std::pair<std::string, bool>> files;   // file name -> is the library
    auto inLibrary = [&](Netsnmp_Node_Handler* fn) {
        Dl_info info{};
        if (!fn || !::dladdr(reinterpret_cast<void*>(fn), &info) || !info.dli_fname) return false;
        for (const auto& [file, same] : files)
            if (file == info.dli_fname) return same;
        std::error_code ec;
        const bool same = std::filesystem::equivalent(info.dli_fname, library, ec) && !ec;
        files.emplace_back(info.dli_fname, same);
        return same;
    };
    for (subtree_context_cache* c = get_top_context_cache(); c; c = c->next)
        for (netsnmp_subtree* s = c->first_subtree; s; s = s->next)
            for (netsnmp_subtree* t = s; t; t = t->children) {
                netsnmp_handler_registration* reg = t->reginfo;
                if (!reg || std::find(found.begin(), found.end(), reg) != found.end()) continue;
                for (netsnmp_mib_handler* h = reg->handler; h; h = h->next)
                    if (inLibrary(h->access_method)) {
                        found.push_back(reg);
                        break;
                    }
            }
    return found;
}

// Stops the feed, withdraws the module from snmpd, unloads it and clears the state tree.
// The module leaves its default-context tables registered when it leaves that context (an
// agent that owns its process frees them in snmp_shutdown); snmpd runs on after the bridge
// unloads the module (SIGHUP, the dlmod table), so every registration that still leads into
// the module's code is removed here, before the code goes.
void stopServing(bool announce = true) {
    if (!bridge || !bridge->host) return;
    bridge->notifier.reset();
    bridge->host->stopServing();
    if (!bridge->modulePath.empty()) {
        const auto left = registrationsInto(bridge->modulePath);
        for (netsnmp_handler_registration* reg : left) {
            // The module hands its default-context iterator, table and column information
            // (calloc'd) to the agent library without the iterator's ownership flag: an
            // agent that exits keeps them to the end. Unregistered here they would be lost,
            // so the iterator's handler frees them with itself.
            for (netsnmp_mib_handler* h = reg->handler; h; h = h->next)
                if (h->handler_name && std::strcmp(h->handler_name, TABLE_ITERATOR_NAME) == 0 && h->myvoid && !h->data_free)
                    h->data_free = [](void* p) {
                        auto* iinfo = static_cast<netsnmp_iterator_info*>(p);
                        if (iinfo->table_reginfo) {
                            for (netsnmp_column_info* c = iinfo->table_reginfo->valid_columns; c;) {
                                netsnmp_column_info* next = c->next;
                                free(c);
                                c = next;
                            }
                            iinfo->table_reginfo->valid_columns = nullptr;
                        }
                        netsnmp_iterator_delete_table(iinfo);
                    };
            netsnmp_unregister_handler(reg);
        }
        DEBUGMSGTL((bridgeName, "removed %u registrations the module left\n", static_cast<unsigned>(left.size())));
    }
    bridge->host->release();
    bridge->host.reset();
    bridge->modulePath.clear();
    if (announce) logLine(LOG_INFO, "stopped serving");
}

// Starts serving with the settings read; on a bad one logs why and serves nothing.
void startServing() {
    if (!bridge || bridge->host) return;
    const Settings& s = bridge->settings;
    if (s.stateFile.empty() && !s.systemdUnits) {
        logLine(LOG_ERR, std::string("no ") + stateFileToken + " line and no usable " + systemdToken +
                             " line after the dlmod line (" + stateFileToken + " PATH names the launcher's state file, " +
                             systemdToken + " PATTERNS serves systemd's service units, *.service for all); serving nothing");
        return;
    }
    if (!s.stateFile.empty() && s.systemdUnits) {
        logLine(LOG_ERR, std::string(stateFileToken) + " " + s.stateFile + " and " + systemdToken + " " + *s.systemdUnits +
                             " exclude each other (snmpd named the file and line above); serving nothing");
        return;
    }
    const bool systemd = s.systemdUnits.has_value();
    const char* sourceToken = systemd ? systemdToken : stateFileToken;
    const bool defaultModule = s.modulePath.empty();
    const std::string modulePath = defaultModule ? defaultModulePath() : s.modulePath;

    bridge->host = std::make_unique<Agent::Host>([](Feed::Severity severity, const std::string& line) {
        logLine(severity == Feed::Severity::error     ? LOG_ERR
                : severity == Feed::Severity::warning ? LOG_WARNING
                                                      : LOG_NOTICE,
                line);
    });
    Agent::Host& host = *bridge->host;
    try {
        if (systemd) {
            Feed::SystemdSource::Options o;
            o.patterns = Feed::parseUnitPatterns(*s.systemdUnits);
            o.settings = s.source;
            host.loadState(std::make_unique<Feed::SystemdSource>(o));
        } else {
            host.loadState(std::make_unique<Feed::FileSource>(s.stateFile));
        }
    } catch (const std::exception& e) {
        logLine(LOG_ERR, std::string(sourceToken) + ": " + e.what() + "; serving nothing");   // names the file or bus
        stopServing(false);
        return;
    }
    bridge->modulePath = modulePath;   // from here on, what the module registers is withdrawn with it
    try {
        host.loadModule(modulePath, s.contexts);
    } catch (const std::exception& e) {
        // The message names the file.
        logLine(LOG_ERR, std::string(moduleToken) + (defaultModule ? " (not given; the default beside this library)" : "") +
                             ": " + e.what() + "; serving nothing");
        stopServing(false);
        return;
    }
    try {
        host.startFeed();
        host.runActivitiesFromSelectLoop();
    } catch (const std::exception& e) {
        logLine(LOG_ERR, std::string(sourceToken) + " " + (systemd ? *s.systemdUnits : s.stateFile) + ": cannot watch it: " +
                             e.what() + "; serving nothing");
        stopServing(false);
        return;
    }

    // After the initial load: the state as loaded is what receivers are taken to know.
    bridge->notifier = std::make_unique<Agent::Notifier>(host.mib(), s.notify,
                                                         [](const std::string& line) { logLine(LOG_NOTICE, line); });
    bridge->notifier->start();

    std::string contexts;
    for (const auto& c : s.contexts) contexts += (contexts.empty() ? "" : ", ") + c;
    std::string from = s.stateFile;
    if (systemd) {
        from = "systemd (system bus " + Feed::SystemdSource::busAddressFor({}) + ", units " + *s.systemdUnits + ")";
        if (!host.feed()->source().health().connected) from += ", not connected yet, trying again";
    }
    const std::size_t daemons = host.feed()->applied().size();
    logLine(LOG_INFO, "serving VELMAR-DAEMON-MIB (" + Agent::subtreeText() + ") from " + from + " with " + modulePath +
                          (contexts.empty() ? "" : " (also initialised in contexts " + contexts + ")") + ": " +
                          std::to_string(daemons) + (daemons == 1 ? " daemon" : " daemons"));
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
    for (const char* token : {stateFileToken, systemdToken, moduleToken, contextToken, traceToken, holddownToken, rateToken, commandLinesToken})
        snmpd_unregister_config_handler(token);
    snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, onConfigRead, nullptr, 1);
    if (!inShutdownCallback) snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_SHUTDOWN, onShutdown, nullptr, 1);
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
    if (bridge) return;   // a second dlmod line for the same library
    try {
        bridge = new Bridge;
        snmpd_register_config_handler(stateFileToken, parseStateFile, nullptr, "PATH (the launcher's state file)");
        snmpd_register_config_handler(systemdToken, parseSystemd, nullptr, "PATTERNS (systemd's service units, *.service for all)");
        snmpd_register_config_handler(moduleToken, parseModule, nullptr, "PATH (VelmarDaemonMIB.so)");
        snmpd_register_config_handler(contextToken, parseContext, nullptr, "NAME (an extra SNMP context)");
        snmpd_register_config_handler(traceToken, parseTrace, nullptr, "LEVELS (e.g. Snmp/0-2,8)");
        snmpd_register_config_handler(holddownToken, parseHolddown, nullptr, "MS (notification hold-down, default 1000)");
        snmpd_register_config_handler(rateToken, parseRate, nullptr, "N (notifications per second at most, default 100)");
        snmpd_register_config_handler(commandLinesToken, parseCommandLines, nullptr, "yes|no (whole command lines, default no)");
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

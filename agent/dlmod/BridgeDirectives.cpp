#include "BridgeDirectives.h"

#include "agent/notify/NotifyData.h"
#include "feed/supervisor/ProcessMapping.h"
#include "feed/supervisor/SupervisorClient.h"
#include "feed/systemd/SystemdSource.h"

#include "orbel/Exception.h"
#include "orbel/TraceHandle.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <stdexcept>

namespace Bridge {

namespace {

// Where the lines go while the directives are registered. A plain pointer: the bridge owns
// the settings, and the library may be unloaded while snmpd runs.
Settings* target = nullptr;

constexpr const char* supervisorUnitsToken = "velmarSupervisorUnits";
constexpr const char* supervisorEventsToken = "velmarSupervisorEvents";
constexpr const char* supervisorAuthToken = "velmarSupervisorAuth";
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
        if (auto w = oneWord(token, line, "the path of the launcher's state file"); w && target) {
            if (target->systemdUnits || target->supervisor) reportSecondSource(token);
            target->stateFile = *w;
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
        if (!target) return;
        if (!target->stateFile.empty() || target->supervisor) reportSecondSource(token);
        target->systemdUnits = *w;
    });
}

void parseCommandLines(const char* token, char* line) {
    guarded(token, [&] {
        auto w = oneWord(token, line, "yes or no");
        if (!w) return;
        if (*w != "yes" && *w != "no")
            return config_perror((std::string(token) + " takes yes or no, not " + *w).c_str());
        if (target) target->serveCommandLines = *w == "yes";
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
        if (!target) return;
        if (!target->stateFile.empty() || target->systemdUnits) reportSecondSource(token);
        target->supervisor = *w;
    });
}

void parseSupervisorUnits(const char* token, char* line) {
    guarded(token, [&] {
        auto w = oneWord(token, line, "comma-separated process name patterns such as bgpd,ospfd or worker*");
        if (!w) return;
        try {
            Feed::parseProcessPatterns(*w);
        } catch (const std::invalid_argument& e) {
            config_perror((std::string(token) + " " + *w + ": " + e.what()).c_str());
            return;
        }
        if (target) target->supervisorUnits = *w;
    });
}

void parseSupervisorEvents(const char* token, char* line) {
    guarded(token, [&] {
        if (auto w = oneWord(token, line, "the Unix socket velmar-supervisor-events sends to"); w && target)
            target->supervisorEvents = *w;
    });
}

void parseSupervisorAuth(const char* token, char* line) {
    guarded(token, [&] {
        if (auto w = oneWord(token, line, "a file whose first line is USER:PASSWORD"); w && target)
            target->supervisorAuth = *w;
    });
}

void parseModule(const char* token, char* line) {
    guarded(token, [&] {
        if (auto w = oneWord(token, line, "the path of VelmarDaemonMIB.so"); w && target) target->modulePath = *w;
    });
}

void parseContext(const char* token, char* line) {
    guarded(token, [&] {
        if (auto w = oneWord(token, line, "an SNMP context name"); w && target) target->contexts.push_back(*w);
    });
}

void parseTrace(const char* token, char* line) {
    guarded(token, [&] {
        auto w = oneWord(token, line, "trace levels such as Snmp/0-2,8");
        if (!w || !target) return;
        const std::string before = Orbel::traceConfig();
        try {
            Orbel::traceConfigIs(*w);
        } catch (const Orbel::Exception& e) {
            config_perror((std::string(token) + " " + *w + ": " + e.what()).c_str());
            return;
        }
        if (!target->traceBefore) target->traceBefore = before;
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
        if (auto v = number(token, line, "milliseconds, e.g. 1000", 0, 3600000); v && target)
            target->notify.holddown = std::chrono::milliseconds(*v);
    });
}

void parseRate(const char* token, char* line) {
    guarded(token, [&] {
        if (auto v = number(token, line, "notifications per second, e.g. 100", 1, 1000000); v && target)
            target->notify.rate = static_cast<unsigned>(*v);
    });
}

void parseNotifyData(const char* token, char* line) {
    guarded(token, [&] {
        auto w = oneWord(token, line, "comma-separated data keys such as Result,ExecMainStatus, or none");
        if (!w) return;
        try {
            auto keys = *w == "none" ? std::vector<std::string>{} : Agent::notifyDataKeys(*w);
            if (target) target->notifyData = std::move(keys);
        } catch (const std::invalid_argument& e) {
            config_perror((std::string(token) + " " + *w + ": " + e.what()).c_str());
        }
    });
}

struct Directive {
    const char* token;
    void (*parse)(const char*, char*);
    const char* help;
};

const Directive directives[] = {
    {stateFileToken, parseStateFile, "PATH (the launcher's state file)"},
    {systemdToken, parseSystemd, "PATTERNS (systemd's service units, *.service for all)"},
    {supervisorToken, parseSupervisor, "SOCKET|URL (a supervisord's processes)"},
    {supervisorUnitsToken, parseSupervisorUnits, "PATTERNS (supervisord's processes to serve, default all)"},
    {supervisorEventsToken, parseSupervisorEvents, "SOCKET (where velmar-supervisor-events sends)"},
    {supervisorAuthToken, parseSupervisorAuth, "FILE (USER:PASSWORD)"},
    {moduleToken, parseModule, "PATH (VelmarDaemonMIB.so)"},
    {contextToken, parseContext, "NAME (an extra SNMP context)"},
    {traceToken, parseTrace, "LEVELS (e.g. Snmp/0-2,8)"},
    {holddownToken, parseHolddown, "MS (notification hold-down, default 1000)"},
    {rateToken, parseRate, "N (notifications per second at most, default 100)"},
    {notifyDataToken, parseNotifyData, "KEYS (data keys a running change carries)"},
    {commandLinesToken, parseCommandLines, "yes|no (whole command lines, default no)"},
};

} // namespace

void registerDirectives(Settings& settings) {
    target = &settings;
    for (const Directive& d : directives) snmpd_register_config_handler(d.token, d.parse, nullptr, d.help);
}

void unregisterDirectives() {
    if (!target) return;
    for (const Directive& d : directives) snmpd_unregister_config_handler(d.token);
    target = nullptr;
}

} // namespace Bridge

// velmar-snmp-agent: serves the daemon MIB over SNMP, either as a master agent listening on
// its own addresses or as an AgentX subagent of a running snmpd, with the launcher's state
// fed live from a JSON file or from systemd (SourceChoice.h).
//
// One thread touches the model: Net-SNMP's select loop serves requests, applies state
// changes handed over by the feed's worker thread, and runs the framework's activity loop.
#include "AccessConfig.h"
#include "AgentOptions.h"
#include "Diagnose.h"
#include "Host.h"
#include "Log.h"
#include "Readiness.h"
#include "SourceChoice.h"
#include "SystemGroup.h"
#include "agent/notify/Notifier.h"

#include "orbel/Activity.h"
#include "orbel/TraceHandle.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>

extern "C" {
// Net-SNMP's VACM configuration tokens (community, view, access, rouser, ...).
void init_vacm_conf(void);
// The AgentX subagent's session with its master; null while it has none.
extern netsnmp_session* main_session;
}

#ifndef VELMAR_VERSION
#define VELMAR_VERSION "unknown"
#endif

namespace {

constexpr const char* appName = "velmar-snmp-agent";
constexpr const char* appVersion = VELMAR_VERSION;

using Agent::Log::Level;

void logLine(Level level, const std::string& text) { Agent::Log::write(level, text); }

int signalPipe[2] = {-1, -1};
volatile sig_atomic_t stopRequested = 0;

// SIGINT and SIGTERM stop the loop; SIGHUP and SIGUSR1 are written into the pipe and
// handled on the loop's thread (onSignalPipe), never by default (which would end the process).
void onSignal(int sig) {
    char c = 's';
    if (sig == SIGHUP) c = 'h';
    else if (sig == SIGUSR1) c = 'u';
    else stopRequested = 1;
    [[maybe_unused]] ssize_t n = ::write(signalPipe[1], &c, 1);
}

} // namespace

// The host, for the signal handlers on the loop thread.
Agent::Host* servingHost = nullptr;

namespace {

void onSignalPipe(int fd, void*) {
    char buf[16];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0) {
        for (ssize_t i = 0; i < n; ++i) {
            if (buf[i] == 'h') {
                // The log file first, so that this line is the first in a rotated one.
                if (std::string err = Agent::Log::reopen(); !err.empty()) logLine(Level::error, "SIGHUP: " + err);
                else if (Agent::Log::destination().rfind("file:", 0) == 0) logLine(Level::notice, "SIGHUP: log file reopened");
                if (servingHost && servingHost->feed()) {
                    logLine(Level::notice, "SIGHUP: reading the " + servingHost->feed()->source().description() + " again");
                    servingHost->feed()->source().reread();
                }
            } else if (buf[i] == 'u') {
                logLine(Level::notice, "SIGUSR1: ignored");
            }
        }
    }
}

void installSignals() {
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("pipe: " + std::string(strerror(errno)));
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: select returns at once
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    sigaction(SIGUSR1, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

// A private directory for Net-SNMP's configuration search path and persistent files, so
// that no system-wide snmpd configuration leaks into this agent.
struct PrivateDir {
    std::filesystem::path path;
    bool remove = false;
    ~PrivateDir() {
        std::error_code ec;
        if (remove && !path.empty()) std::filesystem::remove_all(path, ec);
    }
};

std::string readableError(const std::string& what, const std::string& path) {
    std::ifstream f(path);
    if (!f) return what + " " + path + ": " + std::strerror(errno);
    return {};
}

// sysDescr: the agent, its version, what it serves and the system it runs on.
std::string systemDescription() {
    std::string text = std::string(appName) + " " + appVersion + ": VELMAR-DAEMON-MIB, the launcher's daemon state";
    struct utsname u {};
    if (::uname(&u) == 0) text += std::string(" (") + u.sysname + " " + u.release + " " + u.machine + ")";
    return text;
}

// The line that says the agent serves, and what.
// Net-SNMP's access directives, which only a master agent reads.
constexpr const char* accessTokens[] = {"rocommunity", "rwcommunity", "rocommunity6", "rwcommunity6", "rouser",
                                        "rwuser", "com2sec", "com2sec6", "group", "view", "access", "authcommunity",
                                        "authuser", "authgroup", "authaccess", "setaccess", "createUser"};

std::string servingText(const Agent::AgentOptions& opts, const Agent::Host& host) {
    const bool subagent = !opts.agentx.empty();
    return std::string(appName) + " " + appVersion + " serving VELMAR-DAEMON-MIB (" + Agent::subtreeText() + ") from " +
           Agent::sourceText(opts) + (subagent ? " as AgentX subagent of " : " on ") +
           (subagent ? opts.agentx : Agent::joined(opts.listen)) + ": " + Agent::servedText(*host.feed());
}

} // namespace

int main(int argc, char** argv) {
    Agent::AgentOptions opts;
    {
        int rc = Agent::parseOptions(argc, argv, opts);
        if (rc >= 0) return rc;
    }
    if (std::string err = Agent::Log::open(opts.log); !err.empty()) {
        std::cerr << appName << ": " << err << " (see --help)\n";
        return 2;
    }
    for (const auto& [what, path] : {std::pair<std::string, std::string>{"state file", opts.stateFile},
                                     {"config file", opts.configFile},
                                     {"module", opts.modulePath}}) {
        if (path.empty()) continue;
        std::string err = readableError(what, path);
        if (!err.empty()) {
            logLine(Level::error, "cannot read " + err);
            return 2;
        }
    }
    if (!opts.configFile.empty()) {
        bool refused = false;
        for (const auto& f : Agent::checkAccessConfig(opts.configFile)) {
            logLine(f.refused ? Level::error : Level::warning, (f.refused ? "--config refused: " : "--config: ") + f.text);
            refused = refused || f.refused;
        }
        if (refused) return 2;
    }
    if (!opts.trace.empty()) {
        try {
            Orbel::traceConfigIs(opts.trace);
        } catch (const Orbel::Exception& e) {
            logLine(Level::error, "--trace: " + e.message().stdString());
            return 2;
        }
    }

    // The state model, at the path the module looks for it.
    // Warnings and errors of the source (a daemon entry skipped, a file refused) fail --check.
    std::size_t sourceProblems = 0;
    Agent::Host host([&sourceProblems](Feed::Severity severity, const std::string& line) {
        static constexpr Level levels[] = {Level::error, Level::warning, Level::notice, Level::info};
        if (severity == Feed::Severity::error || severity == Feed::Severity::warning) ++sourceProblems;
        logLine(levels[static_cast<int>(severity)], line);
    });
    try {
        host.loadState(Agent::makeSource(opts));
    } catch (const std::exception& e) {
        logLine(Level::error, e.what());
        return opts.check ? 2 : 1;
    }

    // Net-SNMP: only our own configuration. Its search path is a private directory of its
    // own, never the persistent directory: Net-SNMP reads the persistent file from both, and
    // reading it twice corrupts the stored engine ID (the v3 engine then changes and every
    // second start refuses v3 requests).
    PrivateDir dir;
    {
        char tmpl[] = "/tmp/velmar-snmp-agent.XXXXXX";
        if (!::mkdtemp(tmpl)) {
            logLine(Level::error, std::string("cannot create a private directory: ") + std::strerror(errno));
            return 1;
        }
        dir.path = tmpl;
        dir.remove = true;
    }
    std::filesystem::path persistentDir = dir.path;
    if (!opts.persistentDir.empty()) {
        std::error_code ec;
        persistentDir = std::filesystem::absolute(opts.persistentDir, ec);
        if (!ec) std::filesystem::create_directories(persistentDir, ec);
        if (ec || !std::filesystem::is_directory(persistentDir)) {
            logLine(Level::error, "--persistent-dir " + opts.persistentDir + ": " +
                                      (ec ? ec.message() : std::string("not a directory")));
            return 2;
        }
    }
    const bool subagent = !opts.agentx.empty();
    {
        // Net-SNMP announces creating this one on every start; having it already is quieter.
        std::error_code ec;
        std::filesystem::create_directories(persistentDir / "cert_indexes", ec);
    }
    std::string configFile = opts.configFile;
    if (configFile.empty() && !subagent) {
        // The safe default: read-only community "public", from 127.0.0.1 only.  A subagent
        // has no access control of its own (the master applies it), so it gets no default.
        configFile = (dir.path / "default-access.conf").string();
        std::ofstream(configFile) << "rocommunity public 127.0.0.1\nrocommunity6 public ::1\n";
    }
    Agent::Log::routeNetSnmp();
    // What Net-SNMP says about the configuration and the addresses, kept to refuse with.
    std::optional<Agent::NetSnmpComplaints> complaints(std::in_place);
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_CONFIGURATION_DIR, dir.path.c_str());
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR, persistentDir.c_str());
    if (!configFile.empty()) netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_OPTIONALCONFIG, configFile.c_str());
    netsnmp_set_mib_directory(dir.path.c_str());  // the agent itself loads no MIB files
    setenv("MIBS", "", 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 1);  // alarms from the loop
    if (!opts.debug.empty()) {
        debug_register_tokens(opts.debug.c_str());
        snmp_set_do_debugging(1);
    }
    if (subagent && !opts.check) {
        netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
        netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, opts.agentx.c_str());
    } else if (!subagent) {
        std::string ports;
        for (const auto& l : opts.listen) ports += (ports.empty() ? "" : ",") + l;
        netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, ports.c_str());
    }
    {
        // Debian's agent library starts SMUX in init_agent: a TCP listener on port 199 of
        // every address. This agent has no SMUX peers and listens only where --listen says.
        char noSmux[] = "-smux";
        add_to_init_list(noSmux);
    }
    init_agent(appName);
    // After init_agent: its AgentX set-up resets the ping interval to the library's default
    // of 15 s.  The interval also paces reconnection attempts after the master goes away.
    if (subagent) netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, opts.agentxPing);
    if (!subagent) {
        // The system group and the engine's objects; a master of a subagent has its own.
        Agent::initSystemGroup(systemDescription(), dir.path);
        init_vacm_conf();
    }
    init_snmp(appName);
    if (!opts.configFile.empty()) {
        // A directive Net-SNMP does not know or cannot use would otherwise leave an agent
        // that answers nobody the way its operator meant.
        const auto problems = complaints->aboutFile(opts.configFile);
        if (!problems.empty()) {
            for (const auto& p : problems) {
                // A subagent reads no access directives: the master applies access control.
                const bool access = subagent && p.find("Unknown token: ") != std::string::npos &&
                                    std::any_of(std::begin(accessTokens), std::end(accessTokens), [&](const char* t) {
                                        return p.find(std::string("Unknown token: ") + t + ".") != std::string::npos;
                                    });
                logLine(Level::error, "--config refused: " + p +
                                          (access ? " (an AgentX subagent takes no access control: the master's "
                                                    "configuration says who may read)"
                                                  : ""));
            }
            Agent::shutdownSystemGroup();
            snmp_shutdown(appName);
            return 2;
        }
    }
    if (opts.check) {
        int rc = 0;
        if (sourceProblems > 0) {
            logLine(Level::error, "--check: the " + host.feed()->source().description() + " has " +
                                      std::to_string(sourceProblems) + (sourceProblems == 1 ? " problem" : " problems") +
                                      " (above)");
            rc = 2;
        }
        std::string addresses;
        if (subagent) {
            addresses = "would register with the AgentX master at " + opts.agentx;
        } else {
            for (const auto& l : opts.listen) {
                if (std::string why = Agent::addressSyntaxProblem(l); !why.empty()) {
                    logLine(Level::error, "--listen " + l + ": " + why);
                    rc = 2;
                }
            }
            addresses = "would listen on " + Agent::joined(opts.listen);
        }
        if (rc == 0) {
            std::cout << appName << " " << appVersion << " check passed\n"
                      << Agent::sourceText(opts) << ": " << Agent::servedText(*host.feed())
                      << "\n"
                      << "config: " << (opts.configFile.empty() ? std::string("none (read-only community public from localhost)") : opts.configFile + ": accepted")
                      << "\n"
                      << addresses << "\n"
                      << "log: " << Agent::Log::destination() << std::endl;
        }
        complaints.reset();
        Agent::shutdownSystemGroup();
        snmp_shutdown(appName);
        host.release();
        return rc;
    }
    if (!subagent && init_master_agent() != 0) {
        const std::string failed = complaints->failedEndpoint().value_or(opts.listen.front());
        std::string why = Agent::whyCannotListen(failed);
        if (why.empty()) why = "Net-SNMP could not open it (see the lines above)";
        logLine(Level::error, "cannot listen on " + failed + ": " + why);
        complaints.reset();
        Agent::shutdownSystemGroup();
        snmp_shutdown(appName);
        return 1;
    }
    complaints.reset();

    int status = 0;
    try {
        host.loadModule(opts.modulePath, opts.contexts);
    } catch (const std::exception& e) {
        logLine(Level::error, e.what());
        Agent::shutdownSystemGroup();
        snmp_shutdown(appName);
        return 1;
    }

    try {
        installSignals();
    } catch (const std::exception& e) {
        logLine(Level::error, e.what());
        return 1;
    }
    servingHost = &host;
    register_readfd(signalPipe[0], onSignalPipe, nullptr);
    try {
        host.startFeed();
    } catch (const std::exception& e) {
        logLine(Level::error, e.what());
        unregister_readfd(signalPipe[0]);
        host.stopServing();
        Agent::shutdownSystemGroup();
        snmp_shutdown(appName);
        return 1;
    }

    // After the initial load: the state as loaded is what receivers are taken to know.
    Agent::Notifier notifier(host.mib(), {std::chrono::milliseconds(opts.notifyHolddownMs), unsigned(opts.notifyRate)},
                             [](const std::string& line) { logLine(Level::notice, line); });
    notifier.start();

    // A subagent serves only once its master has its registrations: until then (and
    // whenever the master is gone) it says it is waiting.
    bool registered = false;
    auto sayWhereWeStand = [&] {
        const bool now = !subagent || main_session != nullptr;
        if (now == registered) return;
        registered = now;
        if (now) {
            const std::string line = servingText(opts, host);
            logLine(Level::notice, line);
            Agent::Readiness::ready(line);
        } else {
            const std::string line = std::string(appName) + " " + appVersion + ": waiting for the master at " +
                                     opts.agentx + " to register VELMAR-DAEMON-MIB (" + Agent::subtreeText() +
                                     ") from " + Agent::sourceText(opts) + ": " + Agent::servedText(*host.feed());
            logLine(Level::notice, line);
            Agent::Readiness::status(line);
        }
    };
    if (subagent && main_session == nullptr) {
        registered = true;   // so that the first call says "waiting"
    }
    sayWhereWeStand();
    if (std::uint64_t usec = Agent::Readiness::startWatchdog())
        logLine(Level::info, "watchdog: keep-alive every " + std::to_string(usec / 2000) + " ms");

    while (!stopRequested) {
        agent_check_and_process(1);
        Orbel::ActivityLoop::instance().runPending();
        sayWhereWeStand();
    }
    Agent::Readiness::stopping();
    logLine(Level::notice, "stopping");

    notifier.stop();
    unregister_readfd(signalPipe[0]);
    servingHost = nullptr;
    // The feed stops and the module leaves every context while it is loaded; the agent
    // library then frees the registrations it still holds, and only after that is the
    // module unloaded and the state tree cleared.
    host.stopServing();
    Agent::shutdownSystemGroup();
    snmp_shutdown(appName);
    host.release();
    ::close(signalPipe[0]);
    ::close(signalPipe[1]);
    return status;
}

// velmar-snmp-agent: serves the daemon MIB over SNMP, either as a master agent listening on
// its own addresses or as an AgentX subagent of a running snmpd, with the launcher's state
// fed live from a JSON file or from systemd (SourceChoice.h).
//
// This file is the adapter of the process: its command line, its signals and its loop.
// What is served and how is Serving.h, shared with the snmpd dlmod bridge; Net-SNMP's
// set-up and shutdown in a process of its own is Standalone.h.
//
// One thread touches the model: Net-SNMP's select loop serves requests, applies state
// changes handed over by the feed's worker thread, and runs the framework's activity loop.
#include "AccessConfig.h"
#include "AgentOptions.h"
#include "AgentxStanding.h"
#include "Diagnose.h"
#include "Log.h"
#include "Readiness.h"
#include "Serving.h"
#include "SourceChoice.h"
#include "Standalone.h"

#include "orbel/Activity.h"
#include "orbel/TraceHandle.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <stdexcept>

extern "C" {
// The AgentX subagent's session with its master; null while it has none.
extern netsnmp_session* main_session;
}

namespace {

using Agent::agentName;
using Agent::agentVersion;

using Agent::Log::Level;

void logLine(Level level, const std::string& text) {
    Agent::Log::write(level, text);
}

int signalPipe[2] = {-1, -1};
volatile sig_atomic_t stopRequested = 0;

// SIGINT and SIGTERM stop the loop; SIGHUP and SIGUSR1 are written into the pipe and
// handled on the loop's thread (onSignalPipe), never by default (which would end the process).
void onSignal(int sig) {
    char c = 's';
    if (sig == SIGHUP)
        c = 'h';
    else if (sig == SIGUSR1)
        c = 'u';
    else
        stopRequested = 1;
    [[maybe_unused]] ssize_t n = ::write(signalPipe[1], &c, 1);
}

// What is served, for the signal handlers on the loop thread.
Agent::Serving* servingNow = nullptr;

void onSignalPipe(int fd, void*) {
    char buf[16];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0) {
        for (ssize_t i = 0; i < n; ++i) {
            if (buf[i] == 'h') {
                // The log file first, so that this line is the first in a rotated one.
                if (std::string err = Agent::Log::reopen(); !err.empty())
                    logLine(Level::error, "SIGHUP: " + err);
                else if (Agent::Log::destination().rfind("file:", 0) == 0)
                    logLine(Level::notice, "SIGHUP: log file reopened");
                if (servingNow && servingNow->host().feed()) {
                    logLine(Level::notice,
                            "SIGHUP: reading the " + servingNow->host().feed()->source().description() + " again");
                    servingNow->host().feed()->source().reread();
                }
            } else if (buf[i] == 'u') {
                logLine(Level::notice, "SIGUSR1: ignored");
            }
        }
    }
}

void installSignals() {
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        throw std::runtime_error("pipe: " + std::string(strerror(errno)));
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0; // no SA_RESTART: select returns at once
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    sigaction(SIGUSR1, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

std::string readableError(const std::string& what, const std::string& path) {
    std::ifstream f(path);
    if (!f) return what + " " + path + ": " + std::strerror(errno);
    return {};
}

// The serving piece's settings from the command line.
Agent::Serving::Settings servingSettings(const Agent::AgentOptions& opts) {
    Agent::Serving::Settings s;
    s.source = Agent::sourceSettings(opts);
    s.modulePath = opts.modulePath;
    s.contexts = opts.contexts;
    s.notify = {std::chrono::milliseconds(opts.notifyHolddownMs), unsigned(opts.notifyRate)};
    s.notifyData = opts.notifyData;
    return s;
}

// The log opened and what the command line names checked before anything starts: the
// files readable, the access configuration accepted, the trace levels understood. The exit
// status when something is wrong (said in one line), nothing when all is well.
std::optional<int> preflight(const Agent::AgentOptions& opts) {
    if (std::string err = Agent::Log::open(opts.log); !err.empty()) {
        std::cerr << agentName << ": " << err << " (see --help)\n";
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
            logLine(f.refused ? Level::error : Level::warning,
                    (f.refused ? "--config refused: " : "--config: ") + f.text);
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
    return std::nullopt;
}

// --check: what would be served, where, with which access and log, on standard output;
// exit status 2 when the source or an address has a problem (said above).
int check(const Agent::AgentOptions& opts, const Agent::Serving& serving, std::size_t sourceProblems) {
    const bool subagent = !opts.agentx.empty();
    int rc = 0;
    if (sourceProblems > 0) {
        logLine(Level::error, "--check: the " + serving.feed().source().description() + " has " +
                                  std::to_string(sourceProblems) + (sourceProblems == 1 ? " problem" : " problems") +
                                  " (above)");
        rc = 2;
    }
    std::string addresses;
    if (subagent) {
        addresses = "would register with the AgentX master at " + opts.agentx;
        // Not contacted (a registration would take the subtree), but a socket that cannot be
        // reached now is worth saying.
        if (std::string why = Agent::AgentxStanding::whyUnreachable(opts.agentx); !why.empty())
            logLine(Level::warning, "--check: the AgentX master at " + opts.agentx + " cannot be reached now: " + why);
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
        std::cout << agentName << " " << agentVersion << " check passed\n"
                  << Agent::sourceText(opts) << ": " << Agent::servedText(serving.feed()) << "\n"
                  << "config: "
                  << (opts.configFile.empty() ? std::string("none (read-only community public from localhost)")
                                              : opts.configFile + ": accepted")
                  << "\n"
                  << addresses << "\n"
                  << "log: " << Agent::Log::destination() << std::endl;
    }
    return rc;
}

// Says where the agent stands whenever that changes: serving (the start line, and ready to
// systemd), or, for a subagent, waiting for its master or refused by it.
class StandingReport {
public:
    StandingReport(const Agent::AgentOptions& opts, const Agent::Serving& serving, Agent::AgentxStanding* standing)
        : opts_(opts), serving_(serving), standing_(standing) {}

    void operator()() {
        using Standing = Agent::AgentxStanding::State;
        const Standing now = standing_ ? standing_->poll(std::chrono::steady_clock::now()) : Standing::registered;
        if (stood_ == now) return;
        stood_ = now;
        if (now == Standing::registered) {
            const std::string line = serving_.servingLine(standing_ ? "as AgentX subagent of " + opts_.agentx
                                                                    : "on " + Agent::joined(opts_.listen));
            logLine(Level::notice, line);
            Agent::Readiness::ready(line);
        } else if (now == Standing::noSession) {
            const std::string line = serving_.waitingLine(opts_.agentx);
            logLine(Level::notice, line);
            Agent::Readiness::status(line);
        } else {
            const std::string line = std::string(agentName) + " " + agentVersion + ": " + standing_->refusalText();
            logLine(Level::warning, line);
            Agent::Readiness::status(line);
        }
    }

private:
    const Agent::AgentOptions& opts_;
    const Agent::Serving& serving_;
    Agent::AgentxStanding* standing_; // null: a master agent, which serves from the start
    std::optional<Agent::AgentxStanding::State> stood_;
};

} // namespace

int main(int argc, char** argv) {
    Agent::AgentOptions opts;
    {
        int rc = Agent::parseOptions(argc, argv, opts);
        if (rc >= 0) return rc;
    }
    if (std::optional<int> rc = preflight(opts)) return *rc;

    // The state model, at the path the module looks for it.
    // Warnings and errors of the source (a daemon entry skipped, a file refused) fail --check.
    std::size_t sourceProblems = 0;
    Agent::Serving serving(
        servingSettings(opts),
        [&sourceProblems](Feed::Severity severity, const std::string& line) {
            static constexpr Level levels[] = {Level::error, Level::warning, Level::notice, Level::info};
            if (severity == Feed::Severity::error || severity == Feed::Severity::warning) ++sourceProblems;
            logLine(levels[static_cast<int>(severity)], line);
        },
        [](const std::string& line) { logLine(Level::notice, line); });
    try {
        serving.loadState();
    } catch (const std::exception& e) {
        logLine(Level::error, e.what());
        return opts.check ? 2 : 1;
    }

    std::optional<Agent::PrivateDir> dir;
    try {
        dir.emplace();
    } catch (const std::exception& e) {
        logLine(Level::error, e.what());
        return 1;
    }
    if (std::string err = Agent::configureNetSnmp(opts, dir->path()); !err.empty()) {
        logLine(Level::error, err);
        return 2;
    }
    const bool subagent = !opts.agentx.empty();
    // What Net-SNMP says about the configuration and the addresses, kept to refuse with.
    std::optional<Agent::NetSnmpComplaints> complaints(std::in_place);
    init_agent(agentName);
    // From here on, every way out shuts Net-SNMP down (before the serving piece is released).
    Agent::NetSnmpShutdown netSnmp;
    // After init_agent: its AgentX set-up resets the ping interval to the library's default
    // of 15 s.  The interval also paces reconnection attempts after the master goes away.
    if (subagent) netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, opts.agentxPing);
    // The system group and the engine's objects; a master of a subagent has its own.
    if (!subagent) Agent::initMasterObjects(dir->path());
    init_snmp(agentName);
    if (!Agent::configAccepted(*complaints, opts)) return 2;
    if (opts.check) {
        const int rc = check(opts, serving, sourceProblems);
        complaints.reset();
        return rc;
    }
    if (!subagent && init_master_agent() != 0) {
        const std::string failed = complaints->failedEndpoint().value_or(opts.listen.front());
        std::string why = Agent::whyCannotListen(failed);
        if (why.empty()) why = "Net-SNMP could not open it (see the lines above)";
        logLine(Level::error, "cannot listen on " + failed + ": " + why);
        complaints.reset();
        return 1;
    }
    complaints.reset();
    // A subagent hears what its master makes of its registrations from here on.
    std::optional<Agent::AgentxStanding> standing;
    if (subagent)
        standing.emplace(opts.agentx, [](bool warning, const std::string& line) {
            logLine(warning ? Level::warning : Level::notice, line);
        });

    try {
        serving.loadModule();
        installSignals();
    } catch (const std::exception& e) {
        logLine(Level::error, e.what());
        return 1;
    }
    servingNow = &serving;
    register_readfd(signalPipe[0], onSignalPipe, nullptr);
    try {
        // The feed on the select loop, then the notifier: the state as loaded is what
        // receivers are taken to know.
        serving.start(false);
    } catch (const std::exception& e) {
        logLine(Level::error, e.what());
        unregister_readfd(signalPipe[0]);
        servingNow = nullptr;
        serving.stop();
        return 1;
    }

    // A subagent serves only once its master accepted its registrations: until then (and
    // whenever the master is gone or refuses them) it says so.
    StandingReport sayWhereWeStand{opts, serving, standing ? &*standing : nullptr};
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
    if (standing) standing->stopping();

    unregister_readfd(signalPipe[0]);
    servingNow = nullptr;
    // The notifier and the feed stop and the module leaves every context while it is
    // loaded; Net-SNMP then frees the registrations it still holds (netSnmp, on return),
    // and only after that is the module unloaded and the state tree cleared (serving).
    serving.stop();
    ::close(signalPipe[0]);
    ::close(signalPipe[1]);
    return 0;
}

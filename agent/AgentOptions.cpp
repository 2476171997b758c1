#include "AgentOptions.h"
#include "Host.h"
#include "OptionHints.h"
#include "SourceChoice.h"
#include "agent/notify/NotifyData.h"

#include <CLI/CLI.hpp>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iostream>

#ifndef VELMAR_ENTERPRISE_NUMBER
#error "VELMAR_ENTERPRISE_NUMBER must be defined by the build"
#endif
#ifndef VELMAR_VERSION
#define VELMAR_VERSION "unknown"
#endif

namespace Agent {

namespace {

std::filesystem::path executableDir() {
    std::error_code ec;
    auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path(".") : exe.parent_path();
}

// The first existing candidate, or the first one when none exists (the error then names it).
std::string firstExisting(const std::vector<std::filesystem::path>& candidates) {
    for (const auto& c : candidates)
        if (std::filesystem::exists(c)) return c.lexically_normal().string();
    return candidates.front().lexically_normal().string();
}

std::string defaultModule() {
    auto dir = executableDir();
    return firstExisting({dir / "../lib/velmar/modules/VelmarDaemonMIB.so", dir / "../modules/VelmarDaemonMIB.so"});
}

// Why a --listen value cannot be placed, or nothing when it can: a network transport
// (udp, udp6, tcp, tcp6) with an address or port, or an explicit unix: socket path that is
// not an existing file other than a socket (Net-SNMP would replace that file).
std::string listenProblem(const std::string& value) {
    const auto colon = value.find(':');
    if (colon == std::string::npos || colon + 1 == value.size())
        return "--listen " + value +
               ": give a transport and an address or port, e.g. udp:127.0.0.1:1161, "
               "udp6:[::1]:1161, tcp:127.0.0.1:1161";
    std::string transport = value.substr(0, colon);
    for (auto& c : transport) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const std::string rest = value.substr(colon + 1);
    if (transport == "unix") {
        std::error_code ec;
        const auto st = std::filesystem::symlink_status(rest, ec);
        if (!ec && std::filesystem::exists(st) && st.type() != std::filesystem::file_type::socket)
            return "--listen " + value + ": " + rest + " exists and is not a socket; it would be replaced";
        return {};
    }
    if (transport != "udp" && transport != "udp6" && transport != "tcp" && transport != "tcp6")
        return "--listen " + value + ": unknown transport \"" + transport + "\" (udp, udp6, tcp, tcp6 or unix)";
    return {};
}

void build(CLI::App& app, AgentOptions& o) {
    app.description(
        "Serves the launcher's daemon state as the four read-only tables of VELMAR-DAEMON-MIB (" + subtreeText() +
        "): enabled, option, running and data. Runs as a master agent on its own addresses, or as an AgentX "
        "subagent of a running snmpd. The launcher is a state file, watched so that every valid change is served at "
        "once, or systemd, whose service units are followed over the system bus, or supervisord, read over its "
        "XML-RPC interface and woken by its event listener velmar-supervisor-events.");
    app.add_option("--listen", o.listen,
                   "Master mode: a transport address to listen on (repeatable, one per --listen): udp, udp6, tcp or "
                   "tcp6 with an address or port, e.g. udp:127.0.0.1:1161, udp6:[::1]:1161, tcp:127.0.0.1:1161; "
                   "a Unix socket only with unix:PATH")
        ->allow_extra_args(false)
        ->default_str("udp:127.0.0.1:1161 and udp6:[::1]:1161");
    app.add_option("--agentx", o.agentx,
                   "Subagent mode: the AgentX Unix socket of a running snmpd master, e.g. /var/agentx/master; a TCP "
                   "address (tcp:127.0.0.1:705) only with --allow-tcp-agentx");
    app.add_flag("--allow-tcp-agentx", o.allowTcpAgentx,
                 "Accept a TCP address for --agentx. AgentX has no authentication: any local user can connect to a "
                 "TCP master, register this subtree before the agent does (after a master restart, say) and answer "
                 "for it; a Unix socket is guarded by its file permissions (snmpd's agentXPerms)");
    app.add_option("--agentx-ping", o.agentxPing,
                   "Seconds between pings of the AgentX master; a lost master is reconnected on the next ping")
        ->check(CLI::Range(1, 3600))
        ->default_val(5);
    app.add_option("--state", o.stateFile,
                   "The launcher state file (JSON), watched for changes (this, --systemd or --supervisor)");
    addSourceOptions(app, o);
    app.add_option("--config", o.configFile,
                   "Access configuration in Net-SNMP snmpd.conf syntax (rocommunity, createUser, rouser, view, "
                   "access...) and notification sinks (trap2sink, informsink, trapsess); default: read-only community "
                   "public from 127.0.0.1 (and ::1) only");
    app.add_option("--persistent-dir", o.persistentDir,
                   "Directory for Net-SNMP's persistent files (v3 engine boots); default: a private temporary one");
    app.add_option("--context", o.contexts,
                   "Also initialise the module in this SNMP context (repeatable); tables are served only in the "
                   "default context");
    app.add_option("--module", o.modulePath, "The module library to load")
        ->default_str("VelmarDaemonMIB.so beside the agent");
    app.add_option("--trace", o.trace,
                   "Trace levels per facility, e.g. Snmp/0-2,8 or Snmp/* (the TRACE variable does the same; lines go "
                   "to standard error or to the file named by TRACEFILE)");
    app.add_option("--notify-holddown", o.notifyHolddownMs,
                   "Milliseconds a daemon's further changes are held after a notification about it; at the end its "
                   "current state is sent if it differs from what was sent (0: no hold-down)")
        ->check(CLI::Range(0, 3600000))
        ->default_val(1000);
    app.add_option("--notify-rate", o.notifyRate,
                   "Notifications sent per second at most, all daemons together; the rest wait, one per daemon with "
                   "its latest state")
        ->check(CLI::Range(1, 1000000))
        ->default_val(100);
    app.add_option("--notify-data", o.notifyDataText,
                   "Data keys, comma-separated, whose values a running-change notification also carries "
                   "(velmarDaemonDataValue, when the daemon has the key), after the daemon's count of running "
                   "changes; default: Result,ExecMainCode,ExecMainStatus with --systemd, none with --state; an empty "
                   "string: none");
    app.add_option("--debug", o.debug, "Net-SNMP debug tokens, e.g. VelmarDaemonMIB,trace");
    app.add_option("--log", o.log,
                   "Where every log line goes, Net-SNMP's included: stderr (with timestamps and levels), journal "
                   "(standard error with the journal's priority prefixes, no timestamps), syslog (facility daemon), "
                   "file:PATH (appended, reopened on SIGHUP), or auto: journal when standard error is the journal's "
                   "stream (JOURNAL_STREAM), stderr otherwise")
        ->default_val("auto");
    app.add_flag("--check", o.check,
                 "Load and validate the launcher source, the --config file and the addresses, print what would be "
                 "served (daemons, rows, addresses) and exit: 0 when all is good, 2 otherwise. Opens no address");
    app.set_version_flag("--version", std::string("velmar-snmp-agent ") + VELMAR_VERSION);
    app.get_formatter()->column_width(28);
}

} // namespace

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const auto& i : items) out += (out.empty() ? "" : ",") + i;
    return out;
}

std::string helpText() {
    CLI::App app("", "velmar-snmp-agent");
    AgentOptions o;
    build(app, o);
    return app.help();
}

int parseOptions(int argc, char** argv, AgentOptions& opts) {
    CLI::App app("", "velmar-snmp-agent");
    build(app, opts);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        // A mistyped option: name the one that was probably meant.
        std::vector<std::string> known;
        for (const CLI::Option* opt : app.get_options())
            for (const auto& n : opt->get_lnames()) known.push_back(n);
        for (int i = 1; i < argc; ++i) {
            const std::string arg = argv[i];
            if (arg == "--") break;
            if (arg.rfind("--", 0) != 0 || arg.size() < 3) continue;
            const std::string name =
                arg.substr(2, arg.find('=') == std::string::npos ? std::string::npos : arg.find('=') - 2);
            if (std::find(known.begin(), known.end(), name) != known.end()) continue;
            const std::string hint = closestOption(arg, known);
            std::cerr << "velmar-snmp-agent: unknown option --" << name
                      << (hint.empty() ? std::string() : ": did you mean " + hint + "?") << " (see --help)\n";
            return 2;
        }
        std::cerr << "velmar-snmp-agent: " << e.what() << " (see --help)\n";
        return 2;
    }
    if (!opts.agentx.empty() && !opts.listen.empty()) {
        std::cerr << "velmar-snmp-agent: --listen and --agentx exclude each other (see --help)\n";
        return 2;
    }
    for (const char* name : {"--state", "--config", "--persistent-dir", "--module", "--agentx"}) {
        const CLI::Option* opt = app.get_option(name);
        if (opt->count() > 0 && opt->as<std::string>().empty()) {
            std::cerr << "velmar-snmp-agent: " << name << " needs a value, not an empty string (see --help)\n";
            return 2;
        }
    }
    for (const auto& l : opts.listen) {
        if (std::string problem = listenProblem(l); !problem.empty()) {
            std::cerr << "velmar-snmp-agent: " << problem << "\n";
            return 2;
        }
    }
    if (!opts.agentx.empty() && !opts.allowTcpAgentx && opts.agentx.front() != '/' &&
        opts.agentx.rfind("unix:", 0) != 0) {
        std::cerr << "velmar-snmp-agent: --agentx " << opts.agentx
                  << ": not a Unix socket; over TCP any local user can register this subtree at the master first and "
                     "answer for it (AgentX has no authentication). Use snmpd's Unix socket (agentXSocket), or give "
                     "--allow-tcp-agentx if you mean it\n";
        return 2;
    }
    for (std::size_t i = 0; i < opts.listen.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            if (opts.listen[i] == opts.listen[j]) {
                std::cerr << "velmar-snmp-agent: --listen " << opts.listen[i]
                          << " is given twice (each address once)\n";
                return 2;
            }
    if (std::string problem = sourceProblem(app, opts); !problem.empty()) {
        std::cerr << "velmar-snmp-agent: " << problem << "\n";
        return 2;
    }
    try {
        const bool given = app.get_option("--notify-data")->count() > 0;
        opts.notifyData = notifyDataKeys(given ? opts.notifyDataText : defaultNotifyData(opts.systemd));
    } catch (const std::invalid_argument& e) {
        std::cerr << "velmar-snmp-agent: --notify-data: " << e.what() << " (see --help)\n";
        return 2;
    }
    if (opts.listen.empty() && opts.agentx.empty()) opts.listen = {"udp:127.0.0.1:1161", "udp6:[::1]:1161"};
    if (opts.modulePath.empty()) opts.modulePath = defaultModule();
    return -1;
}

} // namespace Agent

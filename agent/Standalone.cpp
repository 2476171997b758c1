#include "Standalone.h"
#include "Log.h"
#include "Serving.h"
#include "SystemGroup.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

extern "C" {
// Net-SNMP's VACM configuration tokens (community, view, access, rouser, ...).
void init_vacm_conf(void);
}

namespace Agent {

namespace {

// sysDescr: the agent, its version, what it serves and the system it runs on.
std::string systemDescription() {
    std::string text = std::string(agentName) + " " + agentVersion + ": VELMAR-DAEMON-MIB, the launcher's daemon state";
    struct utsname u {};
    if (::uname(&u) == 0) text += std::string(" (") + u.sysname + " " + u.release + " " + u.machine + ")";
    return text;
}

// Net-SNMP's access directives, which only a master agent reads.
constexpr const char* accessTokens[] = {"rocommunity", "rwcommunity",   "rocommunity6", "rwcommunity6", "rouser",
                                        "rwuser",      "com2sec",       "com2sec6",     "group",        "view",
                                        "access",      "authcommunity", "authuser",     "authgroup",    "authaccess",
                                        "setaccess",   "createUser"};

} // namespace

PrivateDir::PrivateDir() {
    char tmpl[] = "/tmp/velmar-snmp-agent.XXXXXX";
    if (!::mkdtemp(tmpl))
        throw std::runtime_error(std::string("cannot create a private directory: ") + std::strerror(errno));
    path_ = tmpl;
}

PrivateDir::~PrivateDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string configureNetSnmp(const AgentOptions& opts, const std::filesystem::path& dir) {
    // Only our own configuration. Its search path is a private directory of its own, never
    // the persistent directory: Net-SNMP reads the persistent file from both, and reading
    // it twice corrupts the stored engine ID (the v3 engine then changes and every second
    // start refuses v3 requests).
    std::filesystem::path persistentDir = dir;
    if (!opts.persistentDir.empty()) {
        std::error_code ec;
        persistentDir = std::filesystem::absolute(opts.persistentDir, ec);
        if (!ec) std::filesystem::create_directories(persistentDir, ec);
        if (ec || !std::filesystem::is_directory(persistentDir))
            return "--persistent-dir " + opts.persistentDir + ": " +
                   (ec ? ec.message() : std::string("not a directory"));
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
        configFile = (dir / "default-access.conf").string();
        std::ofstream(configFile) << "rocommunity public 127.0.0.1\nrocommunity6 public ::1\n";
    }
    Log::routeNetSnmp();
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_CONFIGURATION_DIR, dir.c_str());
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR, persistentDir.c_str());
    if (!configFile.empty())
        netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_OPTIONALCONFIG, configFile.c_str());
    netsnmp_set_mib_directory(dir.c_str()); // the agent itself loads no MIB files
    setenv("MIBS", "", 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 1); // alarms from the loop
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
    return {};
}

void initMasterObjects(const std::filesystem::path& dir) {
    initSystemGroup(systemDescription(), dir);
    init_vacm_conf();
}

bool configAccepted(const NetSnmpComplaints& complaints, const AgentOptions& opts) {
    if (opts.configFile.empty()) return true;
    // A directive Net-SNMP does not know or cannot use would otherwise leave an agent that
    // answers nobody the way its operator meant.
    const auto problems = complaints.aboutFile(opts.configFile);
    const bool subagent = !opts.agentx.empty();
    for (const auto& p : problems) {
        // A subagent reads no access directives: the master applies access control.
        const bool access = subagent && p.find("Unknown token: ") != std::string::npos &&
                            std::any_of(std::begin(accessTokens), std::end(accessTokens), [&](const char* t) {
                                return p.find(std::string("Unknown token: ") + t + ".") != std::string::npos;
                            });
        Log::write(Log::Level::error, "--config refused: " + p +
                                          (access ? " (an AgentX subagent takes no access control: the master's "
                                                    "configuration says who may read)"
                                                  : ""));
    }
    return problems.empty();
}

NetSnmpShutdown::~NetSnmpShutdown() {
    shutdownSystemGroup();
    snmp_shutdown(agentName);
}

} // namespace Agent

#include "SystemGroup.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/agent/agent_sysORTable.h>

#include <fstream>

#ifndef VELMAR_ENTERPRISE_NUMBER
#error "VELMAR_ENTERPRISE_NUMBER must be defined by the build"
#endif

extern "C" {
// Net-SNMP's MIB modules (libnetsnmpmibs); their headers are not installed.
void init_system_mib(void);
void init_sysORTable(void);
void shutdown_sysORTable(void);
void init_snmpEngine(void);
void init_snmpMPDStats(void);
void init_usmStats(void);
}

namespace Agent {

namespace {

// velmarDaemonMIB: enterprises.N.3.17.
oid daemonMibOid[] = {1, 3, 6, 1, 4, 1, VELMAR_ENTERPRISE_NUMBER, 3, 17};
bool daemonMibListed = false;

} // namespace

const std::string& agentObjectIdText() {
    static const std::string text = ".1.3.6.1.4.1." + std::to_string(VELMAR_ENTERPRISE_NUMBER) + ".4.1";
    return text;
}

void initSystemGroup(const std::string& description, const std::filesystem::path& configDir) {
    init_system_mib();
    init_sysORTable();
    init_snmpEngine();
    init_snmpMPDStats();
    init_usmStats();
    // The defaults as a configuration file of the search path: Net-SNMP reads it before
    // the optional file (--config), whose directives then win.
    std::ofstream(configDir / "velmar-snmp-agent.conf") << "sysdescr " << description << "\n"
                                                        << "sysobjectid " << agentObjectIdText() << "\n";
    register_sysORTable(daemonMibOid, OID_LENGTH(daemonMibOid),
                        "VELMAR-DAEMON-MIB: the launcher's daemons, their configuration and status");
    daemonMibListed = true;
}

void shutdownSystemGroup() {
    if (!daemonMibListed) return;
    unregister_sysORTable(daemonMibOid, OID_LENGTH(daemonMibOid));
    shutdown_sysORTable();
    daemonMibListed = false;
}

} // namespace Agent

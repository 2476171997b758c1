// The SNMPv2-MIB objects a standalone agent answers for itself, with Net-SNMP's own
// implementations (libnetsnmpmibs): the system group (sysDescr, sysObjectID, sysUpTime,
// sysContact, sysName, sysLocation, sysServices, sysORLastChange), sysORTable with an
// entry for the daemon MIB, the snmpEngine group (snmpEngineID, Boots, Time,
// MaxMessageSize) and the SNMPv3 statistics (snmpMPDStats, usmStats).
//
//   init_agent("velmar-snmp-agent");
//   Agent::initSystemGroup("velmar-snmp-agent 1.0 ...", privateConfigDir);   // before init_snmp
//   init_snmp("velmar-snmp-agent");                          // reads sysLocation etc.
//   ...
//   Agent::shutdownSystemGroup();                            // before snmp_shutdown
//
// A subagent does none of this: its master serves these objects.
// sysContact, sysName and sysLocation come from the usual configuration directives
// (syscontact, sysname, syslocation) of --config; sysdescr and sysobjectid there replace
// the defaults set here.
#pragma once

#include <filesystem>
#include <string>

namespace Agent {

// Registers the objects, and makes sysDescr description and sysObjectID the agent's own
// OID (velmarSnmpAgent) by writing them into velmar-snmp-agent.conf in configDir, the
// private directory that is Net-SNMP's configuration search path. Call once, after
// init_agent and before init_snmp.
void initSystemGroup(const std::string& description, const std::filesystem::path& configDir);

// Withdraws the daemon MIB's sysORTable entry and frees the table.
void shutdownSystemGroup();

// ".1.3.6.1.4.1.32473.4.1" with the build's enterprise number: velmarSnmpAgent.
const std::string& agentObjectIdText();

} // namespace Agent

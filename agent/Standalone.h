// Net-SNMP in velmar-snmp-agent, the host that owns its agent (the dlmod bridge is a guest
// in snmpd's and does none of this): a private configuration directory, the library's
// settings from the command line, the agent's start, and its shutdown on every path out.
//
//   Agent::PrivateDir dir;                         // throws std::runtime_error
//   if (auto err = Agent::configureNetSnmp(opts, dir.path()); !err.empty()) { log(err); return 2; }
//   Agent::NetSnmpComplaints complaints;
//   init_agent(Agent::agentName);
//   Agent::NetSnmpShutdown netSnmp;                // from here on, every return shuts it down
//   Agent::initMasterObjects(dir.path());          // a master: system group and VACM
//   init_snmp(Agent::agentName);
//   if (!Agent::configAccepted(complaints, opts)) return 2;
#pragma once

#include "AgentOptions.h"
#include "Diagnose.h"

#include <filesystem>
#include <string>

namespace Agent {

// A private directory for Net-SNMP's configuration search path and persistent files, so
// that no system-wide snmpd configuration leaks into this agent. Removed with everything
// in it when it goes.
class PrivateDir {
public:
    // Throws std::runtime_error ("cannot create a private directory: why").
    PrivateDir();
    ~PrivateDir();
    PrivateDir(const PrivateDir&) = delete;
    PrivateDir& operator=(const PrivateDir&) = delete;
    const std::filesystem::path& path() const noexcept { return path_; }

private:
    std::filesystem::path path_;
};

// Sets Net-SNMP's directories, configuration file (the safe default of a master agent
// without --config: read-only community "public" from localhost), ports or AgentX socket,
// debug tokens and loop-driven alarms, and keeps SMUX from starting. Before init_agent.
// Returns an error line naming the option, or empty.
std::string configureNetSnmp(const AgentOptions& opts, const std::filesystem::path& privateDir);

// A master agent's own objects (the system group, with sysDescr naming the agent, and
// VACM's configuration tokens). After init_agent, before init_snmp.
void initMasterObjects(const std::filesystem::path& privateDir);

// Whether Net-SNMP took --config without complaint; logs each complaint (with a word on
// access directives in a subagent, which takes none) and returns false otherwise.
bool configAccepted(const NetSnmpComplaints& complaints, const AgentOptions& opts);

// Net-SNMP's shutdown in a process that owns its agent: the system group's entry, then
// snmp_shutdown. Made right after init_agent, it runs on every path out, once; the
// serving piece must have stopped before (Serving::stop), and is released after.
class NetSnmpShutdown {
public:
    NetSnmpShutdown() = default;
    ~NetSnmpShutdown();
    NetSnmpShutdown(const NetSnmpShutdown&) = delete;
    NetSnmpShutdown& operator=(const NetSnmpShutdown&) = delete;
};

} // namespace Agent

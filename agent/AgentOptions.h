// The command line of velmar-snmp-agent: one source for parsing, --help and the man page.
#pragma once

#include <string>
#include <vector>

namespace Agent {

struct AgentOptions {
    std::vector<std::string> listen;     // master mode: transport addresses
    std::string agentx;                  // subagent mode: the master's AgentX socket
    bool allowTcpAgentx = false;         // a TCP AgentX address is meant (any local user can reach it)
    int agentxPing = 5;                  // seconds between pings of the master (reconnects)
    std::string stateFile;               // launcher state (JSON)
    bool systemd = false;                // or systemd's service units (SourceChoice.h)
    std::string units;                   // with systemd: unit patterns; empty: every service
    int refresh = 10;                    // with systemd: seconds between counter readings; 0: never
    std::string systemBus;               // with systemd: the bus address; empty: the default
    bool supervisorOn = false;           // or a supervisord's processes (SupervisorChoice.h)
    std::string supervisor;              // with it: socket path or URL; empty: the default socket
    std::string supervisorEvents;        // with it: the listener's datagram socket; empty: poll
    std::string supervisorAuth;          // with it: a USER:PASSWORD file; empty: none
    bool serveCommandLines = false;      // whole command lines, not just the executable
    std::string configFile;              // Net-SNMP configuration syntax: communities, users, access
    std::string persistentDir;           // Net-SNMP persistent files; a private temporary one if empty
    std::vector<std::string> contexts;   // extra SNMP contexts to initialise
    std::string modulePath;              // the module library
    std::string trace;                   // trace levels, e.g. Snmp/0-2,8
    std::string debug;                   // Net-SNMP debug tokens
    std::string log = "auto";            // log destination: auto, stderr, journal, syslog, file:PATH
    bool check = false;                  // validate source and configuration, print, exit
    int notifyHolddownMs = 1000;         // per daemon: changes after a notification held this long
    int notifyRate = 100;                // notifications per second, all daemons together
    std::string notifyDataText;          // --notify-data as given
    std::vector<std::string> notifyData; // its keys, or the source's default
};

// Parses argv into opts and fills defaults. Returns -1 to go on, or the exit code when
// the process should stop (0 after --help or --version, 2 after a bad command line, with
// one line on standard error).
int parseOptions(int argc, char** argv, AgentOptions& opts);

// The --help text.
std::string helpText();

std::string joined(const std::vector<std::string>& items);

} // namespace Agent

// What the agent itself checks in an access configuration (--config) before Net-SNMP reads
// it: nothing may grant write access, and directives that would leave the operator with an
// agent that does not do what they wrote are named.
//
//   for (const auto& f : Agent::checkAccessConfig("/etc/velmar/access.conf"))
//       log(f.refused ? error : warning, f.text);     // "FILE: line 3: rwcommunity ..."
//
// Refused (the agent does not start):
//   - write access: rwcommunity, rwcommunity6, rwuser; access or setaccess with a write view
//     or type; authcommunity, authuser, authgroup, authaccess with the write type. Nothing
//     the agent serves is writable, and Net-SNMP's own system objects (sysName, sysContact,
//     sysLocation) would otherwise accept a SET and keep it in the persistent directory;
//   - agentaddress: the agent listens only where --listen says;
//   - includeFile, includeDir, includeSearch: every directive must be in the file checked.
// Warned about (the agent starts):
//   - rouser NAME with no createUser NAME in the file: unless the persistent directory
//     already knows the user, nobody can query as NAME.
// Directive names are matched without regard to case, as Net-SNMP does.
#pragma once

#include <string>
#include <vector>

namespace Agent {

struct AccessFinding {
    bool refused;     // false: a warning
    std::string text; // "PATH: line N: what and why"
};

// Reads path; a file that cannot be read gives one refused finding saying why.
std::vector<AccessFinding> checkAccessConfig(const std::string& path);

} // namespace Agent

// Reasons for the two ways a start goes wrong in Net-SNMP's hands: a configuration file
// it complains about, and an address it cannot open. Net-SNMP reports both only in its
// log; these turn that into a refusal that says why.
//
//   Agent::NetSnmpComplaints complaints;       // from now on, Net-SNMP's errors are kept
//   init_snmp("velmar-snmp-agent");
//   for (auto& l : complaints.aboutFile(configPath)) ...;   // "FILE: line 3: Error: ..."
//   if (init_master_agent() != 0) {
//       std::string why = Agent::whyCannotListen(complaints.failedEndpoint().value_or(first));
//   }
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace Agent {

// Keeps every warning and error Net-SNMP logs while it lives (Log::observeNetSnmp; one
// at a time). Complaints about lines of a configuration file are kept and not logged: the
// caller refuses the file with them, once each. Net-SNMP's block about no access being
// configured becomes one line of our own. Other lines are still logged as usual.
class NetSnmpComplaints {
public:
    NetSnmpComplaints();
    ~NetSnmpComplaints();
    NetSnmpComplaints(const NetSnmpComplaints&) = delete;
    NetSnmpComplaints& operator=(const NetSnmpComplaints&) = delete;

    // The complaints about lines of the configuration file path: "PATH: line N: Error: ..."
    // or "PATH: line N: Warning: Unknown token: ...".
    std::vector<std::string> aboutFile(const std::string& path) const;
    // The address named by Net-SNMP's last "Error opening ... endpoint" line, if any.
    std::optional<std::string> failedEndpoint() const;

private:
    std::vector<std::string> lines_;
    bool noAccessSaid_ = false;
    bool inNoAccessBlock_ = false;
};

// Why Net-SNMP cannot listen on a transport address (udp:ADDR:PORT, udp6:[ADDR]:PORT,
// tcp..., unix:PATH), found by trying what it tries: parsing the address the way
// Net-SNMP does and binding a socket of the same kind. "address in use", "not an address
// of this host", "permission denied ...", "not a valid address ..."; empty when the probe
// finds nothing wrong.
std::string whyCannotListen(const std::string& address);

// Whether Net-SNMP can parse a transport address (for --check, which binds nothing):
// empty, or why not.
std::string addressSyntaxProblem(const std::string& address);

} // namespace Agent

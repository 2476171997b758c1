// Where an AgentX subagent stands with its master, as the master sees it: no session yet,
// a session in which the master refused some of its registrations, or a session in which
// the master accepted them all. Only the last is "serving".
//
//   Agent::AgentxStanding standing("/var/agentx/master", log);   // after init_snmp
//   for (;;) {
//       agent_check_and_process(1);
//       switch (standing.poll(std::chrono::steady_clock::now())) { ... }
//   }
//   standing.stopping();                     // before the session is closed
//
// Net-SNMP sends each registration to the master from its registration callback and only
// logs a refusal ("registering pdu failed: 263!": the master has that subtree already, from
// another subagent or from the dlmod bridge), and it never tries again in that session.
// This class hears those lines (the log's observer: they are not written) and, with a
// registration callback that runs after Net-SNMP's, keeps the registrations the master
// refused; poll() sends them again with a backoff of 1 s doubling to 60 s, and the master's
// acceptance of the last one makes the subagent registered. A new session (after the
// master went away) registers everything again, so the list starts afresh.
//
// It also says, in its own words, why the master cannot be reached: once, then at most
// once a minute (Net-SNMP says the same empty line at every attempt), and keeps Net-SNMP's
// reconnection lines quiet once the agent is stopping.
//
// Threads: the select loop's only. One instance at a time.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace Agent {

class AgentxStanding {
public:
    enum class State { noSession, refused, registered };
    using Log = std::function<void(bool warning, const std::string& line)>;

    // master: the --agentx address as given. log: the lines this class says itself.
    AgentxStanding(std::string master, Log log);
    ~AgentxStanding();
    AgentxStanding(const AgentxStanding&) = delete;
    AgentxStanding& operator=(const AgentxStanding&) = delete;

    // Sends refused registrations again when their time has come; returns where the
    // subagent stands now.
    State poll(std::chrono::steady_clock::time_point now);

    // Registrations the master refused in this session and not accepted since.
    std::size_t refused() const noexcept;

    // "the master at M refused 5 registrations of VELMAR-DAEMON-MIB (...): the master already
    // has this subtree: another subagent or the dlmod bridge; trying again in 4 s"
    std::string refusalText() const;

    // The agent stops: closes the session with the master first (an AgentX Close, reason
    // shutdown), so that withdrawing the registrations afterwards sends nothing to a master
    // that may be stopping too; Net-SNMP's lines about reconnecting are not written.
    void stopping() noexcept;

    // Why a subagent cannot connect to master (a Unix socket path, or unix:PATH): "no such
    // file", "permission denied", "nothing listens there (a socket left by a stopped
    // master)"; empty when a connection succeeds or master is not a Unix socket.
    static std::string whyUnreachable(const std::string& master);

    struct Impl;

private:
    Impl* impl_;
};

} // namespace Agent

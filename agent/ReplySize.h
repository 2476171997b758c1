// Keeps every reply within what its transport carries, whoever owns the Net-SNMP agent
// (velmar-snmp-agent, or snmpd with the dlmod bridge).
//
//   Agent::ReplySizeLimit limit;   // after init_agent: installs the limit for every request
//   // ... the select loop runs ...
//   // destroyed (or remove()d) before the code that holds it may go (dlmod unload)
//
// Why: Net-SNMP's agent plans a reply by the request's msgMaxSize. An SNMPv3 request states
// one, and the library lowers it to what the session may send; a v1 or v2c request states
// none, and the library leaves it at 2^31 - 1. A GETBULK over large values then grows past
// the 65,507 bytes a UDP datagram holds, sendto fails, and the manager gets no reply at all.
// With the request's msgMaxSize lowered to what its transport carries, the agent's own
// GETBULK processing stops gathering where the reply would not fit and drops the trailing
// varbinds (RFC 3416, 4.2.3), and a GET or GETNEXT too large for one datagram is answered
// tooBig instead of nothing.
#pragma once

#include <cstddef>

struct snmp_pdu;

namespace Agent {

// The largest UDP payload over IPv4 (65,535 less the IP and UDP headers): what Net-SNMP's
// UDP transports announce, and at most what a UDP/IPv6 datagram holds without jumbograms.
inline constexpr std::size_t maxUdpReply = 65507;

// The largest reply that may be sent in answer to `request`: for a request that came over
// UDP (IPv4 or IPv6) the smaller of maxUdpReply and the library's sendMessageMaxSize
// setting; for other transports (TCP, Unix sockets) the library's setting alone, or 0 when
// there is no limit to apply. Looks only; keeps nothing.
std::size_t replyLimitFor(const snmp_pdu& request);

// Lowers request.msgMaxSize to replyLimitFor(request) when that is smaller. Returns whether
// it changed anything.
bool limitReplySize(snmp_pdu& request);

// Applies limitReplySize to every request the agent receives, through Net-SNMP's access
// check callback (SNMPD_CALLBACK_ACM_CHECK_INITIAL, which the agent calls for each request
// before it plans the reply). Install after init_agent; only one may exist at a time.
class ReplySizeLimit {
public:
    ReplySizeLimit();
    ~ReplySizeLimit();
    ReplySizeLimit(const ReplySizeLimit&) = delete;
    ReplySizeLimit& operator=(const ReplySizeLimit&) = delete;

    // Unregisters the callback. Safe to repeat.
    void remove();

private:
    bool installed_ = false;
};

} // namespace Agent

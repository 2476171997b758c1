#include "ReplySize.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/agent/agent_callbacks.h>

#include <algorithm>
#include <stdexcept>

namespace Agent {

namespace {

// The transport domains of a request that came as a UDP datagram: snmpUDPDomain (RFC 3417)
// and transportDomainUdpIpv6 (RFC 3419), as Net-SNMP puts them into pdu->tDomain.
constexpr oid udpDomain[] = {1, 3, 6, 1, 6, 1, 1};
constexpr oid udp6Domain[] = {1, 3, 6, 1, 2, 1, 100, 1, 2};

template <std::size_t N>
bool isDomain(const snmp_pdu& pdu, const oid (&domain)[N]) {
    return pdu.tDomain && snmp_oid_compare(pdu.tDomain, pdu.tDomainLen, domain, N) == 0;
}

bool installed = false;

int onAccessCheck(int, int, void* serverArg, void*) {
    auto* params = static_cast<view_parameters*>(serverArg);
    if (params && params->pdu) limitReplySize(*params->pdu);
    return SNMPERR_SUCCESS; // an access decision is not ours: errorcode stays as it is
}

} // namespace

std::size_t replyLimitFor(const snmp_pdu& request) {
    const int configured = netsnmp_max_send_msg_size(); // sendMessageMaxSize, or 2^31 - 1
    std::size_t limit = configured > 0 ? static_cast<std::size_t>(configured) : 0;
    if (isDomain(request, udpDomain) || isDomain(request, udp6Domain))
        limit = limit ? std::min(limit, maxUdpReply) : maxUdpReply;
    return limit;
}

bool limitReplySize(snmp_pdu& request) {
    const std::size_t limit = replyLimitFor(request);
    if (limit == 0) return false;
    if (request.msgMaxSize > 0 && static_cast<std::size_t>(request.msgMaxSize) <= limit) return false;
    request.msgMaxSize = static_cast<long>(limit);
    return true;
}

ReplySizeLimit::ReplySizeLimit() {
    if (installed) throw std::logic_error("ReplySizeLimit: already installed");
    if (snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_ACM_CHECK_INITIAL, onAccessCheck, nullptr) !=
        SNMPERR_SUCCESS)
        throw std::runtime_error("cannot register the reply size limit with the agent");
    installed = installed_ = true;
}

ReplySizeLimit::~ReplySizeLimit() {
    remove();
}

void ReplySizeLimit::remove() {
    if (!installed_) return;
    snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_ACM_CHECK_INITIAL, onAccessCheck, nullptr, 1);
    installed = installed_ = false;
}

} // namespace Agent

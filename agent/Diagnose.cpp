#include "Diagnose.h"

#include "Log.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/library/snmpIPv4BaseDomain.h>
#include <net-snmp/library/snmpIPv6BaseDomain.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace Agent {

namespace {

// "PATH: line N: ..." as Net-SNMP's configuration parser says it.
bool aboutAConfigLine(const std::string& line) {
    const auto at = line.find(": line ");
    return at != std::string::npos && at + 7 < line.size() && std::isdigit(static_cast<unsigned char>(line[at + 7]));
}

} // namespace

NetSnmpComplaints::NetSnmpComplaints() {
    Log::observeNetSnmp([this](int priority, const std::string& line) {
        if (priority > LOG_WARNING) return false;
        lines_.push_back(line);
        // The caller refuses the file with these lines, once each and in its own words.
        if (aboutAConfigLine(line)) return true;
        // Net-SNMP's warning when nothing grants access comes as a block of four lines, twice,
        // with advice about a tool and a file name that do not apply here: one line instead.
        if (line.rfind("Warning: no access control information configured", 0) == 0) {
            if (!noAccessSaid_)
                Log::write(Log::Level::warning,
                           "no access configuration (rocommunity, rouser with createUser, or access): no manager can "
                           "query this agent");
            noAccessSaid_ = true;
            inNoAccessBlock_ = true;
            return true;
        }
        if (inNoAccessBlock_ && line.rfind("  ", 0) == 0) return true;
        // Said with its reason once the agent watches its master (AgentxStanding).
        if (line.rfind("Warning: Failed to connect to the agentx master agent", 0) == 0) return true;
        inNoAccessBlock_ = false;
        return false;
    });
}

NetSnmpComplaints::~NetSnmpComplaints() {
    Log::observeNetSnmp({});
}

std::vector<std::string> NetSnmpComplaints::aboutFile(const std::string& path) const {
    std::vector<std::string> out;
    const std::string prefix = path + ": line ";
    for (const auto& l : lines_)
        // Net-SNMP reads the file in more than one pass and may say the same thing twice.
        if (l.rfind(prefix, 0) == 0 && std::find(out.begin(), out.end(), l) == out.end()) out.push_back(l);
    return out;
}

std::optional<std::string> NetSnmpComplaints::failedEndpoint() const {
    // Net-SNMP's line: Error opening ... endpoint "ADDRESS"
    const std::string opening = "Error opening ", endpoint = " endpoint \"";
    std::optional<std::string> found;
    for (const auto& l : lines_) {
        auto at = l.find(opening);
        if (at == std::string::npos) continue;
        at = l.find(endpoint, at + opening.size());
        if (at == std::string::npos) continue;
        auto start = at + endpoint.size();
        auto end = l.find('"', start);
        if (end != std::string::npos) found = l.substr(start, end - start);
    }
    return found;
}

namespace {

struct Parsed {
    std::string transport; // lower case
    std::string rest;      // what follows "transport:"
};

Parsed split(const std::string& address) {
    Parsed p;
    const auto colon = address.find(':');
    if (colon == std::string::npos) {
        p.transport = "udp";
        p.rest = address;
        return p;
    }
    p.transport = address.substr(0, colon);
    for (auto& c : p.transport) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    p.rest = address.substr(colon + 1);
    return p;
}

bool isIpv6(const std::string& transport) {
    return transport == "udp6" || transport == "tcp6" || transport == "udpv6" || transport == "tcpv6";
}
bool isTcp(const std::string& transport) {
    return transport.rfind("tcp", 0) == 0;
}

// Fills the socket address as Net-SNMP would for a local (listening) address.
bool parseInet(const Parsed& p, sockaddr_storage& ss, socklen_t& len) {
    std::memset(&ss, 0, sizeof ss);
    if (isIpv6(p.transport)) {
        auto* sin6 = reinterpret_cast<sockaddr_in6*>(&ss);
        len = sizeof *sin6;
        return netsnmp_sockaddr_in6_2(sin6, p.rest.c_str(), nullptr) == 1;
    }
    auto* sin = reinterpret_cast<sockaddr_in*>(&ss);
    len = sizeof *sin;
    return netsnmp_sockaddr_in2(sin, p.rest.c_str(), nullptr) == 1;
}

std::string bindReason(int err) {
    switch (err) {
        case EADDRINUSE:
            return "address in use (another process is listening there)";
        case EADDRNOTAVAIL:
            return "not an address of this host";
        case EACCES:
        case EPERM:
            return "permission denied (ports below 1024 need root or CAP_NET_BIND_SERVICE)";
        case EAFNOSUPPORT:
            return "this address family is not available on this host";
        default:
            return std::strerror(err);
    }
}

bool inetTransport(const std::string& t) {
    return t == "udp" || t == "tcp" || isIpv6(t);
}

} // namespace

std::string addressSyntaxProblem(const std::string& address) {
    const Parsed p = split(address);
    if (p.transport == "unix") return p.rest.empty() ? "no socket path" : std::string();
    if (!inetTransport(p.transport)) return "unknown transport \"" + p.transport + "\"";
    sockaddr_storage ss;
    socklen_t len;
    if (!parseInet(p, ss, len)) return "not a valid address (bad syntax or a host name that does not resolve)";
    return {};
}

std::string whyCannotListen(const std::string& address) {
    const Parsed p = split(address);
    if (p.transport == "unix") {
        std::filesystem::path path(p.rest);
        std::error_code ec;
        auto dir = path.parent_path().empty() ? std::filesystem::path(".") : path.parent_path();
        if (!std::filesystem::is_directory(dir, ec)) return "directory " + dir.string() + " does not exist";
        if (::access(dir.c_str(), W_OK) != 0) return "permission denied on directory " + dir.string();
        return {};
    }
    if (std::string syntax = addressSyntaxProblem(address); !syntax.empty()) return syntax;
    sockaddr_storage ss;
    socklen_t len;
    parseInet(p, ss, len);
    const int family = isIpv6(p.transport) ? AF_INET6 : AF_INET;
    const int fd = ::socket(family, (isTcp(p.transport) ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
    if (fd < 0) return bindReason(errno);
    int one = 1;
    if (isTcp(p.transport)) ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one); // as Net-SNMP does
    if (family == AF_INET6) ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
    std::string why;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&ss), len) != 0) why = bindReason(errno);
    ::close(fd);
    return why;
}

} // namespace Agent

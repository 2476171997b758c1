#include "AgentxStanding.h"

#include "Host.h"
#include "Log.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/agent/agent_callbacks.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

extern "C" {
// The AgentX subagent's session with its master; null while it has none.
extern netsnmp_session* main_session;
// Net-SNMP's AgentX client (agent/mibgroup/agentx/client.h, not installed): 1 when the
// master accepted the registration.
int agentx_close_session(netsnmp_session* ss, int why);
void agentx_unregister_callbacks(netsnmp_session* ss);
int agentx_register(netsnmp_session* ss, oid start[], size_t startlen, int priority, int range_subid, oid range_ubound,
                    int timeout, u_char flags, const char* contextName);
}

namespace Agent {

namespace {

constexpr int agentxCloseShutdown = 5; // RFC 2741 6.2.2, reasonShutdown
constexpr auto firstRetry = std::chrono::seconds(1);
constexpr auto lastRetry = std::chrono::seconds(60);
constexpr auto unreachableRepeat = std::chrono::seconds(60);

struct Registration {
    std::vector<oid> name;
    int priority = 0;
    int rangeSubid = 0;
    oid rangeUbound = 0;
    int timeout = 0;
    u_char flags = 0;
    std::string context;

    bool same(const register_parameters& p) const {
        return name.size() == p.namelen && std::equal(name.begin(), name.end(), p.name) &&
               rangeSubid == p.range_subid && context == (p.contextName ? p.contextName : "");
    }
};

AgentxStanding::Impl* instance = nullptr;

} // namespace

struct AgentxStanding::Impl {
    std::string master;
    Log log;
    unsigned pendingRefusals = 0; // refusal lines not yet matched with a registration
    long lastRefusalCode = 0;
    std::vector<Registration> refused;
    bool hadSession = false;
    bool saidRefused = false;
    bool stopping = false;
    std::chrono::seconds backoff = firstRetry;
    std::chrono::steady_clock::time_point nextRetry{};
    std::chrono::steady_clock::time_point lastUnreachable{};
    bool saidUnreachable = false;

    bool onLine(int, const std::string& line) {
        long code = 0;
        if (std::sscanf(line.c_str(), "registering pdu failed: %ld!", &code) == 1) {
            ++pendingRefusals;
            lastRefusalCode = code;
            return true;
        }
        if (line.rfind("Warning: Failed to connect to the agentx master agent", 0) == 0) {
            const auto now = std::chrono::steady_clock::now();
            if (!saidUnreachable || now - lastUnreachable >= unreachableRepeat) {
                std::string why = whyUnreachable(master);
                if (why.empty()) why = "the connection failed";
                log(true, "cannot reach the AgentX master at " + master + ": " + why +
                              "; trying again (said again every " + std::to_string(unreachableRepeat.count()) +
                              " s while it lasts)");
                saidUnreachable = true;
                lastUnreachable = now;
            }
            return true;
        }
        if (stopping && line.rfind("AgentX master disconnected us", 0) == 0) return true;
        return false;
    }

    void onRegister(int minor, const register_parameters& p) {
        if (minor == SNMPD_CALLBACK_UNREGISTER_OID) {
            refused.erase(
                std::remove_if(refused.begin(), refused.end(), [&](const Registration& r) { return r.same(p); }),
                refused.end());
            return;
        }
        if (pendingRefusals == 0) return;
        pendingRefusals = 0;
        Registration r;
        r.name.assign(p.name, p.name + p.namelen);
        r.priority = p.priority;
        r.rangeSubid = p.range_subid;
        r.rangeUbound = p.range_ubound;
        r.timeout = p.timeout;
        r.flags = p.flags;
        r.context = p.contextName ? p.contextName : "";
        refused.push_back(std::move(r));
    }
};

namespace {

int onRegisterCallback(int, int minor, void* serverArg, void*) {
    if (instance && serverArg) instance->onRegister(minor, *static_cast<register_parameters*>(serverArg));
    return SNMPERR_SUCCESS;
}

} // namespace

AgentxStanding::AgentxStanding(std::string master, Log log) : impl_(new Impl) {
    if (instance) {
        delete impl_;
        impl_ = nullptr;
        throw std::logic_error("AgentxStanding: one at a time");
    }
    impl_->master = std::move(master);
    impl_->log = std::move(log);
    instance = impl_;
    Agent::Log::observeNetSnmp([this](int priority, const std::string& line) { return impl_->onLine(priority, line); });
    // After Net-SNMP's own AgentX callbacks (default priority), also those of a later session.
    netsnmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, onRegisterCallback, nullptr,
                              NETSNMP_CALLBACK_LOWEST_PRIORITY);
    netsnmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_UNREGISTER_OID, onRegisterCallback, nullptr,
                              NETSNMP_CALLBACK_LOWEST_PRIORITY);
    // The first attempt was made while Net-SNMP read its configuration.
    if (main_session == nullptr) impl_->onLine(LOG_WARNING, "Warning: Failed to connect to the agentx master agent");
}

AgentxStanding::~AgentxStanding() {
    snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, onRegisterCallback, nullptr, 1);
    snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_UNREGISTER_OID, onRegisterCallback, nullptr, 1);
    Agent::Log::observeNetSnmp({});
    instance = nullptr;
    delete impl_;
}

std::size_t AgentxStanding::refused() const noexcept {
    return impl_->refused.size();
}

void AgentxStanding::stopping() noexcept {
    impl_->stopping = true;
    netsnmp_session* session = main_session;
    if (!session) return;
    // Net-SNMP's callbacks for this session go first, so that nothing more is sent on it.
    agentx_unregister_callbacks(session);
    remove_trap_session(session);
    agentx_close_session(session, agentxCloseShutdown);
    snmp_close(session);
    main_session = nullptr;
}

std::string AgentxStanding::refusalText() const {
    const std::size_t n = impl_->refused.size();
    const auto wait = std::max<long long>(
        1,
        std::chrono::duration_cast<std::chrono::seconds>(impl_->nextRetry - std::chrono::steady_clock::now()).count());
    return "the master at " + impl_->master + " refused " + std::to_string(n) +
           (n == 1 ? " registration" : " registrations") + " of VELMAR-DAEMON-MIB (" + subtreeText() +
           "): the master already has this subtree: another subagent or the dlmod bridge; not serving, trying again "
           "in " +
           std::to_string(wait) + " s and then less and less often";
}

AgentxStanding::State AgentxStanding::poll(std::chrono::steady_clock::time_point now) {
    Impl& d = *impl_;
    if (main_session == nullptr) {
        // A new session registers everything again.
        d.refused.clear();
        d.pendingRefusals = 0;
        d.hadSession = false;
        d.saidRefused = false;
        d.backoff = firstRetry;
        return State::noSession;
    }
    if (!d.hadSession) {
        d.hadSession = true;
        d.saidUnreachable = false;
        d.nextRetry = now + d.backoff;
    }
    if (d.refused.empty()) return State::registered;
    if (now >= d.nextRetry) {
        for (auto it = d.refused.begin(); it != d.refused.end();) {
            d.pendingRefusals = 0;
            const int ok = agentx_register(main_session, it->name.data(), it->name.size(), it->priority, it->rangeSubid,
                                           it->rangeUbound, it->timeout, it->flags,
                                           it->context.empty() ? nullptr : it->context.c_str());
            d.pendingRefusals = 0;
            if (ok == 1)
                it = d.refused.erase(it);
            else
                ++it;
            if (main_session == nullptr) return State::noSession;
        }
        d.backoff = std::min<std::chrono::seconds>(d.backoff * 2, lastRetry);
        d.nextRetry = now + d.backoff;
        if (d.refused.empty()) {
            d.backoff = firstRetry;
            d.saidRefused = false;
            return State::registered;
        }
    }
    return State::refused;
}

std::string AgentxStanding::whyUnreachable(const std::string& master) {
    std::string path = master;
    if (path.rfind("unix:", 0) == 0) path = path.substr(5);
    if (path.empty() || path[0] != '/') return {};
    sockaddr_un addr{};
    if (path.size() >= sizeof addr.sun_path) return "the socket path is too long";
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return std::strerror(errno);
    const int rc = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    const int e = errno;
    ::close(fd);
    if (rc == 0) return {};
    switch (e) {
        case ENOENT:
            return "no such file (" + path + "): is snmpd running with \"master agentx\" and this agentXSocket?";
        case EACCES:
            return "permission denied on " + path +
                   " (or a directory above it): agentXPerms in snmpd's configuration "
                   "decide who may connect";
        case ECONNREFUSED:
            return "nothing listens on " + path + " (a socket left by a stopped master?)";
        case ENOTSOCK:
            return path + " is not a socket";
        default:
            return std::strerror(e);
    }
}

} // namespace Agent

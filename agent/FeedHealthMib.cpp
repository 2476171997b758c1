#include "FeedHealthMib.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <ctime>
#include <stdexcept>

#ifndef VELMAR_ENTERPRISE_NUMBER
#error "VELMAR_ENTERPRISE_NUMBER must be defined by the build"
#endif

namespace Agent {

namespace {

enum Column : oid {
    source = 1,
    state = 2,
    changeAge = 3,
    readAge = 4,
    lastChange = 5,
    lastRead = 6,
    lastRefusal = 7,
    daemons = 8,
    rows = 9,
    reloads = 10,
    refusals = 11,
    skippedNow = 12,
    skipped = 13,
    lastSkip = 14,
};

void setText(netsnmp_variable_list* vb, const std::string& s) {
    const std::string t = FeedHealthMib::text(s);
    snmp_set_var_typed_value(vb, ASN_OCTET_STR, t.data(), t.size());
}

void setUnsigned(netsnmp_variable_list* vb, u_char type, std::uint64_t v) {
    // Counter32 wraps as counters do; a gauge this large stays at its maximum.
    const u_long value = type == ASN_COUNTER ? static_cast<u_long>(v & 0xffffffffu)
                                             : static_cast<u_long>(v > 0xffffffffu ? 0xffffffffu : v);
    snmp_set_var_typed_value(vb, type, &value, sizeof value);
}

int handle(netsnmp_mib_handler*, netsnmp_handler_registration* reg, netsnmp_agent_request_info* reqinfo,
           netsnmp_request_info* requests) {
    if (reqinfo->mode != MODE_GET) return SNMP_ERR_NOERROR; // the scalar group turns GETNEXT into GET
    const auto* health = static_cast<const FeedHealthMib*>(reg->my_reg_void);
    const Feed::StateFeed& feed = health->feed();
    const Feed::SourceHealth h = feed.source().health();
    const auto now = std::chrono::system_clock::now();
    for (netsnmp_request_info* r = requests; r; r = r->next) {
        if (r->processed) continue;
        netsnmp_variable_list* vb = r->requestvb;
        // The scalar group hands each request on under a registration of the scalar itself:
        // the column follows the group's OID.
        const std::size_t at = FeedHealthMib::subtree().size();
        if (vb->name_length <= at) {
            netsnmp_set_request_error(reqinfo, r, SNMP_NOSUCHOBJECT);
            continue;
        }
        switch (vb->name[at]) {
            case source:
                setText(vb, feed.source().description());
                break;
            case state: {
                const long v = FeedHealthMib::stateValue(h.state);
                snmp_set_var_typed_value(vb, ASN_INTEGER, &v, sizeof v);
                break;
            }
            case changeAge:
                setUnsigned(vb, ASN_GAUGE, FeedHealthMib::ageSeconds(feed.lastChange(), now));
                break;
            case readAge:
                setUnsigned(vb, ASN_GAUGE, FeedHealthMib::ageSeconds(h.lastRead, now));
                break;
            case lastChange: {
                const std::string d = FeedHealthMib::dateAndTime(feed.lastChange());
                snmp_set_var_typed_value(vb, ASN_OCTET_STR, d.data(), d.size());
                break;
            }
            case lastRead: {
                const std::string d = FeedHealthMib::dateAndTime(h.lastRead);
                snmp_set_var_typed_value(vb, ASN_OCTET_STR, d.data(), d.size());
                break;
            }
            case lastRefusal:
                setText(vb, h.lastRefusal);
                break;
            case daemons:
                setUnsigned(vb, ASN_GAUGE, feed.daemons());
                break;
            case rows:
                setUnsigned(vb, ASN_GAUGE, feed.rows());
                break;
            case reloads:
                setUnsigned(vb, ASN_COUNTER, h.reloads);
                break;
            case refusals:
                setUnsigned(vb, ASN_COUNTER, h.refused);
                break;
            case skippedNow:
                setUnsigned(vb, ASN_GAUGE, h.skippedNow);
                break;
            case skipped:
                setUnsigned(vb, ASN_COUNTER, h.skipped);
                break;
            case lastSkip:
                setText(vb, h.lastSkip);
                break;
            default:
                netsnmp_set_request_error(reqinfo, r, SNMP_NOSUCHOBJECT);
                break;
        }
    }
    return SNMP_ERR_NOERROR;
}

} // namespace

const std::vector<unsigned long>& FeedHealthMib::subtree() {
    static const std::vector<unsigned long> oid = {1, 3, 6, 1, 4, 1, VELMAR_ENTERPRISE_NUMBER, 3, 17, 4};
    return oid;
}

std::uint32_t FeedHealthMib::ageSeconds(std::chrono::system_clock::time_point since,
                                        std::chrono::system_clock::time_point now) {
    if (since == std::chrono::system_clock::time_point{}) return never;
    const auto s = std::chrono::duration_cast<std::chrono::seconds>(now - since).count();
    if (s < 0) return 0; // the clock was set back
    return s >= static_cast<long long>(never) ? never - 1 : static_cast<std::uint32_t>(s);
}

std::string FeedHealthMib::dateAndTime(std::chrono::system_clock::time_point t) {
    if (t == std::chrono::system_clock::time_point{}) return std::string(8, '\0');
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
    const std::time_t secs = static_cast<std::time_t>(ms / 1000);
    std::tm tm{};
    ::gmtime_r(&secs, &tm);
    const int year = tm.tm_year + 1900;
    const char bytes[11] = {static_cast<char>(year >> 8),
                            static_cast<char>(year & 0xff),
                            static_cast<char>(tm.tm_mon + 1),
                            static_cast<char>(tm.tm_mday),
                            static_cast<char>(tm.tm_hour),
                            static_cast<char>(tm.tm_min),
                            static_cast<char>(tm.tm_sec > 59 ? 59 : tm.tm_sec),
                            static_cast<char>((ms % 1000) / 100),
                            '+',
                            0,
                            0};
    return std::string(bytes, sizeof bytes);
}

std::string FeedHealthMib::text(const std::string& s) {
    if (s.size() <= maxTextBytes) return s;
    std::size_t n = maxTextBytes;
    // Back to the start of a character: never leave half a UTF-8 sequence.
    while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xc0) == 0x80) --n;
    return s.substr(0, n);
}

long FeedHealthMib::stateValue(Feed::SourceState state) {
    switch (state) {
        case Feed::SourceState::ok:
            return 1;
        case Feed::SourceState::refused:
            return 2;
        case Feed::SourceState::gone:
            return 3;
        case Feed::SourceState::busLost:
            return 4;
        case Feed::SourceState::notLoaded:
            return 5;
        case Feed::SourceState::unresponsive:
            return 6;
    }
    return 5;
}

FeedHealthMib::FeedHealthMib(const Feed::StateFeed& feed) : feed_(feed) {
    std::vector<oid> root(subtree().begin(), subtree().end());
    netsnmp_handler_registration* reg =
        netsnmp_create_handler_registration("velmarDaemonFeed", handle, root.data(), root.size(), HANDLER_CAN_RONLY);
    if (!reg) throw std::runtime_error("cannot register the feed's health objects (velmarDaemonMIB.4)");
    reg->my_reg_void = this;
    if (netsnmp_register_scalar_group(reg, source, lastSkip) != MIB_REGISTERED_OK)
        // Net-SNMP has freed reg.
        throw std::runtime_error("cannot register the feed's health objects (velmarDaemonMIB.4): the subtree is taken");
    registration_ = reg;
}

FeedHealthMib::~FeedHealthMib() {
    if (registration_) netsnmp_unregister_handler(registration_);
}

} // namespace Agent

#include "HistoryMib.h"

#include "FeedHealthMib.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <algorithm>
#include <optional>
#include <stdexcept>

#ifndef VELMAR_ENTERPRISE_NUMBER
#error "VELMAR_ENTERPRISE_NUMBER must be defined by the build"
#endif

namespace Agent {

namespace {

constexpr oid entry = 1;
constexpr oid firstColumn = 2; // column 1 is the index, not served
constexpr oid lastColumn = 6;
constexpr oid runningChanges = 2, enabledChanges = 3, lastRunningChange = 4, lastEnabledChange = 5,
              lastRunningChangeTime = 6;

using Record = DaemonHistory::Record;

bool hasInstance(const Record& r, oid column) {
    return column != lastRunningChangeTime || r.hasRunningTime();
}

// The first row at or after (or strictly after) name that has an instance in column.
const Record* rowFrom(const DaemonHistory& h, const Record* r, oid column) {
    while (r && !hasInstance(*r, column)) r = h.next(r->name);
    return r;
}

struct Instance {
    oid column;
    const Record* row;
};

// The instance that follows the OID part after the table's entry (rest = column, index...),
// or none when the table has nothing after it. The index is a length-prefixed name; the
// part given may be cut short or hold values no name has (over 255): the order compared is
// always that of the OIDs.
std::optional<Instance> nextAfter(const DaemonHistory& h, const oid* rest, std::size_t n) {
    oid column = firstColumn;
    const Record* row = nullptr;
    bool fromFirst = true;
    if (n >= 1 && rest[0] >= firstColumn) {
        column = rest[0];
        if (column > lastColumn) return std::nullopt;
        if (n >= 2) {
            fromFirst = false;
            const oid len = rest[1];
            if (len <= 255) {
                std::string key;
                bool cut = false; // a value over 255: rows equal so far are before the request
                std::size_t i = 0;
                for (; i < len && 2 + i < n; ++i) {
                    if (rest[2 + i] > 255) {
                        cut = true;
                        break;
                    }
                    key.push_back(static_cast<char>(rest[2 + i]));
                }
                if (cut) {
                    key.append(len - key.size(), '\xff');
                    row = h.next(Snmp::String(key));
                } else if (key.size() < len) {
                    // Cut short: rows that begin with it come after it.
                    key.append(len - key.size(), '\0');
                    const Snmp::String k(key);
                    row = h.find(k);
                    if (!row) row = h.next(k);
                } else {
                    row = h.next(Snmp::String(key)); // the row itself is at or before the request
                }
                row = rowFrom(h, row, column);
            }
        }
    }
    if (fromFirst) row = rowFrom(h, h.first(), column);
    while (!row) {
        if (++column > lastColumn) return std::nullopt;
        row = rowFrom(h, h.first(), column);
    }
    return Instance{column, row};
}

// The row an exact instance names (rest = column, len, bytes), or null.
const Record* exactRow(const DaemonHistory& h, const oid* rest, std::size_t n) {
    if (n < 2 || rest[1] != n - 2) return nullptr;
    std::string key;
    for (std::size_t i = 2; i < n; ++i) {
        if (rest[i] > 255) return nullptr;
        key.push_back(static_cast<char>(rest[i]));
    }
    return h.find(Snmp::String(key));
}

void setValue(netsnmp_variable_list* vb, oid column, const Record& r) {
    switch (column) {
        case runningChanges:
        case enabledChanges: {
            const u_long v = column == runningChanges ? r.runningChanges : r.enabledChanges;
            snmp_set_var_typed_value(vb, ASN_COUNTER, &v, sizeof v);
            break;
        }
        case lastRunningChange:
        case lastEnabledChange: {
            const u_long v = column == lastRunningChange ? r.lastRunningChange : r.lastEnabledChange;
            snmp_set_var_typed_value(vb, ASN_TIMETICKS, &v, sizeof v);
            break;
        }
        case lastRunningChangeTime: {
            const std::string d = FeedHealthMib::dateAndTime(r.lastRunningTime());
            snmp_set_var_typed_value(vb, ASN_OCTET_STR, d.data(), d.size());
            break;
        }
    }
}

int handle(netsnmp_mib_handler*, netsnmp_handler_registration* reg, netsnmp_agent_request_info* reqinfo,
           netsnmp_request_info* requests) {
    const auto* mib = static_cast<const HistoryMib*>(reg->my_reg_void);
    const DaemonHistory& h = mib->history();
    const std::vector<unsigned long>& table = HistoryMib::table();
    for (netsnmp_request_info* r = requests; r; r = r->next) {
        if (r->processed) continue;
        netsnmp_variable_list* vb = r->requestvb;
        const int cmp = snmp_oid_compare(vb->name, std::min<std::size_t>(vb->name_length, table.size()), table.data(),
                                         table.size());
        // After the table's OID: entry, then column and index.
        const oid* rest = vb->name + table.size();
        std::size_t n = vb->name_length > table.size() ? vb->name_length - table.size() : 0;
        switch (reqinfo->mode) {
            case MODE_GET: {
                const Record* row = nullptr;
                oid column = 0;
                if (cmp == 0 && n >= 2 && rest[0] == entry) {
                    column = rest[1];
                    row = exactRow(h, rest + 1, n - 1);
                }
                if (column < firstColumn || column > lastColumn)
                    netsnmp_set_request_error(reqinfo, r, SNMP_NOSUCHOBJECT);
                else if (!row || !hasInstance(*row, column))
                    netsnmp_set_request_error(reqinfo, r, SNMP_NOSUCHINSTANCE);
                else
                    setValue(vb, column, *row);
                break;
            }
            case MODE_GETNEXT: {
                std::optional<Instance> next;
                if (cmp < 0 || n == 0 || (cmp == 0 && rest[0] < entry))
                    next = nextAfter(h, nullptr, 0);
                else if (cmp == 0 && rest[0] == entry)
                    next = nextAfter(h, rest + 1, n - 1);
                if (!next) break; // nothing here: the agent goes on to what follows the table
                std::vector<oid> name(table.begin(), table.end());
                name.push_back(entry);
                name.push_back(next->column);
                name.push_back(next->row->name.size());
                for (unsigned char c : next->row->name.view()) name.push_back(c);
                snmp_set_var_objid(vb, name.data(), name.size());
                setValue(vb, next->column, *next->row);
                break;
            }
            default:
                break; // a read-only registration: the agent refuses writes before this
        }
    }
    return SNMP_ERR_NOERROR;
}

} // namespace

const std::vector<unsigned long>& HistoryMib::table() {
    // velmarDaemonStatus.3: velmarDaemonMIB.2.3.
    static const std::vector<unsigned long> oid = {1, 3, 6, 1, 4, 1, VELMAR_ENTERPRISE_NUMBER, 3, 17, 2, 3};
    return oid;
}

HistoryMib::HistoryMib(const DaemonHistory& history) : history_(history) {
    std::vector<oid> root(table().begin(), table().end());
    netsnmp_handler_registration* reg = netsnmp_create_handler_registration(
        "velmarDaemonHistoryTable", handle, root.data(), root.size(), HANDLER_CAN_RONLY);
    if (!reg) throw std::runtime_error("cannot register velmarDaemonHistoryTable (velmarDaemonMIB.2.3)");
    reg->my_reg_void = this;
    if (netsnmp_register_handler(reg) != MIB_REGISTERED_OK)
        // Net-SNMP has freed reg.
        throw std::runtime_error(
            "cannot register velmarDaemonHistoryTable (velmarDaemonMIB.2.3): the subtree is taken");
    registration_ = reg;
}

HistoryMib::~HistoryMib() {
    if (registration_) netsnmp_unregister_handler(registration_);
}

} // namespace Agent

#include "Baselines.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/agent/table_container.h>
#include <net-snmp/library/container.h>

#include <cstring>
#include <stdexcept>

#ifndef VELMAR_ENTERPRISE_NUMBER
#error "VELMAR_ENTERPRISE_NUMBER must be defined by the build"
#endif

namespace Bench {

namespace {

constexpr oid valueColumn = 3;

netsnmp_table_registration_info* twoStringIndexes() {
    auto* info = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
    netsnmp_table_helper_add_indexes(info, ASN_OCTET_STR, ASN_OCTET_STR, 0);
    info->min_column = valueColumn;
    info->max_column = valueColumn;
    return info;
}

// ---------------------------------------------------------------------------------------
// The container baseline.

// A row as the container keeps it: the netsnmp_index first (the container compares rows
// through it), then the index sub-identifiers it points to and the value.
struct ContainerRow {
    netsnmp_index index;
    char* value;
    std::size_t valueLength;
    oid oids[1]; // index sub-identifiers, allocated to length
};

int containerHandler(netsnmp_mib_handler*, netsnmp_handler_registration*, netsnmp_agent_request_info* reqinfo,
                     netsnmp_request_info* requests) {
    if (reqinfo->mode != MODE_GET) return SNMP_ERR_NOERROR;
    for (netsnmp_request_info* request = requests; request; request = request->next) {
        if (request->processed) continue;
        auto* row = static_cast<ContainerRow*>(netsnmp_container_table_row_extract(request));
        netsnmp_table_request_info* info = netsnmp_extract_table_info(request);
        if (!row || !info) {
            netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
            continue;
        }
        if (info->colnum != valueColumn) {
            netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
            continue;
        }
        snmp_set_var_typed_value(request->requestvb, ASN_OCTET_STR, row->value, row->valueLength);
    }
    return SNMP_ERR_NOERROR;
}

// ---------------------------------------------------------------------------------------
// The generated-code iterator baseline.

struct ListRow {
    std::string name;
    std::string key;
    std::string value;
    ListRow* next;
};

netsnmp_variable_list* naiveGetNext(void** loopContext, void** dataContext, netsnmp_variable_list* put,
                                    netsnmp_iterator_info*) {
    auto* row = static_cast<ListRow*>(*loopContext);
    if (!row) return nullptr;
    netsnmp_variable_list* v = put;
    snmp_set_var_typed_value(v, ASN_OCTET_STR, row->name.data(), row->name.size());
    v = v->next_variable;
    snmp_set_var_typed_value(v, ASN_OCTET_STR, row->key.data(), row->key.size());
    *dataContext = row;
    *loopContext = row->next;
    return put;
}

netsnmp_variable_list* naiveGetFirst(void** loopContext, void** dataContext, netsnmp_variable_list* put,
                                     netsnmp_iterator_info* info) {
    *loopContext = info->myvoid; // the head of the list
    return naiveGetNext(loopContext, dataContext, put, info);
}

int naiveHandler(netsnmp_mib_handler*, netsnmp_handler_registration*, netsnmp_agent_request_info* reqinfo,
                 netsnmp_request_info* requests) {
    if (reqinfo->mode != MODE_GET) return SNMP_ERR_NOERROR;
    for (netsnmp_request_info* request = requests; request; request = request->next) {
        if (request->processed) continue;
        auto* row = static_cast<ListRow*>(netsnmp_extract_iterator_context(request));
        netsnmp_table_request_info* info = netsnmp_extract_table_info(request);
        if (!row || !info) {
            netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
            continue;
        }
        if (info->colnum != valueColumn) {
            netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
            continue;
        }
        snmp_set_var_typed_value(request->requestvb, ASN_OCTET_STR, row->value.data(), row->value.size());
    }
    return SNMP_ERR_NOERROR;
}

// ---------------------------------------------------------------------------------------
// The floor.

struct Floor {
    std::vector<oid> first;  // root.1.3.<series start>
    std::vector<oid> prefix; // first without its last sub-identifier
    std::string value;
};

int floorHandler(netsnmp_mib_handler* handler, netsnmp_handler_registration*, netsnmp_agent_request_info* reqinfo,
                 netsnmp_request_info* requests) {
    const auto* floor = static_cast<const Floor*>(handler->myvoid);
    for (netsnmp_request_info* request = requests; request; request = request->next) {
        if (request->processed) continue;
        netsnmp_variable_list* vb = request->requestvb;
        if (reqinfo->mode == MODE_GETNEXT) {
            const std::size_t n = floor->first.size();
            if (vb->name_length == n && std::memcmp(vb->name, floor->prefix.data(), (n - 1) * sizeof(oid)) == 0) {
                // The next one of the series: count the last sub-identifier up, in place.
                vb->name[n - 1] += 1;
            } else {
                snmp_set_var_objid(vb, floor->first.data(), n);
            }
        } else if (reqinfo->mode != MODE_GET) {
            continue;
        }
        snmp_set_var_typed_value(vb, ASN_OCTET_STR, floor->value.data(), floor->value.size());
    }
    return SNMP_ERR_NOERROR;
}

netsnmp_handler_registration* registration(const char* name, Netsnmp_Node_Handler* handler,
                                           const std::vector<oid>& root) {
    netsnmp_handler_registration* reg =
        netsnmp_create_handler_registration(name, handler, root.data(), root.size(), HANDLER_CAN_RONLY);
    if (!reg) throw std::runtime_error(std::string("cannot create the registration ") + name);
    return reg;
}

} // namespace

std::vector<oid> baselineRoot(unsigned n) {
    return {1, 3, 6, 1, 4, 1, 32473, 99, n, 1, 2};
}

std::vector<oid> moduleOptionRoot() {
    return {1, 3, 6, 1, 4, 1, VELMAR_ENTERPRISE_NUMBER, 3, 17, 1, 2};
}

void registerContainerTable(const std::vector<oid>& root, const std::vector<Row>& rows) {
    netsnmp_container* container = netsnmp_container_find("velmarBenchContainer:table_container");
    if (!container) throw std::runtime_error("no table_container container");
    // Rows are unique: skip the duplicate search on every insert, which would sort the
    // array again each time.
    int rc = 0;
    CONTAINER_SET_OPTIONS(container, CONTAINER_KEY_ALLOW_DUPLICATES, rc);
    if (rc == -1) throw std::runtime_error("the table_container container takes no options");
    for (const Row& r : rows) {
        const std::vector<unsigned long> index = indexOid(r.name, r.key);
        auto* row = static_cast<ContainerRow*>(std::calloc(1, sizeof(ContainerRow) + index.size() * sizeof(oid)));
        std::memcpy(row->oids, index.data(), index.size() * sizeof(oid));
        row->index.oids = row->oids;
        row->index.len = index.size();
        row->value = static_cast<char*>(std::malloc(r.value.size()));
        std::memcpy(row->value, r.value.data(), r.value.size());
        row->valueLength = r.value.size();
        if (CONTAINER_INSERT(container, row) != 0) throw std::runtime_error("container insert failed");
    }
    // Sorted once now rather than on the first request.
    if (!rows.empty()) {
        netsnmp_index probe{};
        probe.oids = reinterpret_cast<ContainerRow*>(CONTAINER_FIRST(container))->oids;
        probe.len = 1;
        (void)CONTAINER_NEXT(container, &probe);
    }
    netsnmp_handler_registration* reg = registration("velmarBenchContainer", containerHandler, root);
    if (netsnmp_container_table_register(reg, twoStringIndexes(), container, TABLE_CONTAINER_KEY_NETSNMP_INDEX) !=
        SNMPERR_SUCCESS)
        throw std::runtime_error("cannot register the container baseline");
}

void registerNaiveIteratorTable(const std::vector<oid>& root, const std::vector<Row>& rows) {
    ListRow* head = nullptr;
    for (auto it = rows.rbegin(); it != rows.rend(); ++it) head = new ListRow{it->name, it->key, it->value, head};
    auto* iinfo = SNMP_MALLOC_TYPEDEF(netsnmp_iterator_info);
    iinfo->get_first_data_point = naiveGetFirst;
    iinfo->get_next_data_point = naiveGetNext;
    iinfo->myvoid = head;
    iinfo->table_reginfo = twoStringIndexes();
    netsnmp_handler_registration* reg = registration("velmarBenchNaive", naiveHandler, root);
    if (netsnmp_register_table_iterator(reg, iinfo) != SNMPERR_SUCCESS)
        throw std::runtime_error("cannot register the iterator baseline");
}

void registerFloorHandler(const std::vector<oid>& root, std::size_t indexLength, const std::string& constantValue) {
    auto* floor = new Floor;
    floor->first = root;
    floor->first.push_back(1);
    floor->first.push_back(valueColumn);
    for (std::size_t i = 0; i < indexLength; ++i) floor->first.push_back(i == 0 ? indexLength - 1 : 'a');
    floor->prefix.assign(floor->first.begin(), floor->first.end() - 1);
    floor->value = constantValue;
    netsnmp_handler_registration* reg = registration("velmarBenchFloor", floorHandler, root);
    reg->handler->myvoid = floor;
    if (netsnmp_register_handler(reg) != SNMPERR_SUCCESS) throw std::runtime_error("cannot register the floor");
}

} // namespace Bench

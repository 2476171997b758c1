// VelmarDaemonMIB: the loadable module that serves the daemon MIB's four read-only tables
// (enabled, option, running, data) under enterprises.E.3.17 from the GenericAgent::DaemonMib
// at "snmp/launcher/daemonMIB".
//
// The four tables are one mechanism with different constants: the traits types below hold
// what differs (names, column, key type, value conversion), and the templates after them
// hold the logic once. Every named function of the module (velmarDaemonOptionTable_handler,
// initialize_table_velmarDaemonDataTable, ...) is a one-line forward to that mechanism, so
// symbols and traces carry the table's own names.
//
// Handler chain of each table, from the agent inwards: serialize, table, table_iterator
// (sorted, with the row-iteration callbacks here), and the table's request handler. The
// module holds no lock: the agent calls it on one thread.
#include <iostream>

#include "GenericAgent/GenericAgentSnmp.h"
#include "orbel/Exception.h"
#include "orbel/TraceHandle.h"
#include "snmp/Converters.h"
#include "snmp/HandlerRegistration.h"
#include "snmp/SnmpUtil.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <assert.h>
#ifdef NDEBUG
// <assert.h> declares the failure routine only for builds with assertions; set-up failures
// stop the process through it in every build type.
extern "C" [[noreturn]] void __assert_fail(const char* assertion, const char* file, unsigned int line,
                                           const char* function) noexcept;
#endif

#include <cstdlib>
#include <list>
#include <map>
#include <string>

#ifndef VELMAR_ENTERPRISE_NUMBER
#error "VELMAR_ENTERPRISE_NUMBER must be defined by the build"
#endif

#define VELMAR_EXPORT __attribute__((visibility("default")))

// Entry points and handlers, exported under their C++ (type-encoding) names.
VELMAR_EXPORT void init_VelmarDaemonMIB(Orbel::String8 context);
VELMAR_EXPORT void unregister_VelmarDaemonMIB(Orbel::String8 context);
VELMAR_EXPORT void initialize_table_velmarDaemonEnabledTable(Orbel::String8 context);
VELMAR_EXPORT void initialize_table_velmarDaemonOptionTable(Orbel::String8 context);
VELMAR_EXPORT void initialize_table_velmarDaemonRunningTable(Orbel::String8 context);
VELMAR_EXPORT void initialize_table_velmarDaemonDataTable(Orbel::String8 context);
VELMAR_EXPORT int velmarDaemonEnabledTable_handler(netsnmp_mib_handler*, netsnmp_handler_registration*,
                                                   netsnmp_agent_request_info*, netsnmp_request_info*);
VELMAR_EXPORT int velmarDaemonOptionTable_handler(netsnmp_mib_handler*, netsnmp_handler_registration*,
                                                  netsnmp_agent_request_info*, netsnmp_request_info*);
VELMAR_EXPORT int velmarDaemonRunningTable_handler(netsnmp_mib_handler*, netsnmp_handler_registration*,
                                                   netsnmp_agent_request_info*, netsnmp_request_info*);
VELMAR_EXPORT int velmarDaemonDataTable_handler(netsnmp_mib_handler*, netsnmp_handler_registration*,
                                                netsnmp_agent_request_info*, netsnmp_request_info*);

namespace {

using GenericAgent::DaemonMib;

// Source file name that traces and assertions carry.
constexpr const char* sourceFile = "VelmarDaemonMIB";
// Where the state model lives in the state tree.
constexpr const char* statebasePath = GenericAgent::daemonMibStatePath;
// The anticipated-exception id of Orbel::RangeException.
constexpr int rangeExceptionId = Orbel::Exception::range;

// The module's one trace facility.
Orbel::TraceHandle& _defaultTraceHandle() {
    static Orbel::TraceHandle handle("Snmp", false);
    return handle;
}

#define VELMAR_TRACE(level, function, parts) ORBEL_TRACE_AT(_defaultTraceHandle(), level, sourceFile, function, parts)

// One debug message through the agent library's token debugging, preceded by the
// "trace" position line.
void debugLine(const char* function, int line, const char* format, const char* argument) {
    if (!snmp_get_do_debugging()) return;
    debugmsgtoken("trace", "%s(): %s, %d:\n", function, sourceFile, line);
    debugmsg("trace", "%s(): %s, %d:\n", function, sourceFile, line);
    debugmsgtoken("VelmarDaemonMIB", format, argument);
    debugmsg("VelmarDaemonMIB", format, argument);
}

// Stops the process through a failed assertion, in every build type.
[[noreturn]] void assertionFailed(const char* expression, unsigned line, const char* function) {
    __assert_fail(expression, sourceFile, line, function);
}

// The ledgers that unregistration walks, per context.
std::map<Orbel::String8, std::list<netsnmp_handler_registration*>> registrationsByContext;
std::map<Orbel::String8, std::list<netsnmp_column_info*>> columnInfosByContext;

// ---------------------------------------------------------------------------------------
// Row contexts: the loop and data contexts of the table iterator, each one iterator over
// its table's map (holding a counted reference to its row).

struct velmarDaemonEnabledTable_entry {
    DaemonMib::EnabledTableMap::Iterator iterator;
};
struct velmarDaemonOptionTable_entry {
    DaemonMib::OptionTableMap::Iterator iterator;
};
struct velmarDaemonRunningTable_entry {
    DaemonMib::RunningTableMap::Iterator iterator;
};
struct velmarDaemonDataTable_entry {
    DaemonMib::DataTableMap::Iterator iterator;
};

// Index helpers: write a row's index into the index varbinds (defined below).
netsnmp_variable_list* velmarDaemonEnabledTableIterationHelper(velmarDaemonEnabledTable_entry* c,
                                                               netsnmp_variable_list* v);
netsnmp_variable_list* velmarDaemonOptionTableIterationHelper(velmarDaemonOptionTable_entry* c,
                                                              netsnmp_variable_list* v);
netsnmp_variable_list* velmarDaemonRunningTableIterationHelper(velmarDaemonRunningTable_entry* c,
                                                               netsnmp_variable_list* v);
netsnmp_variable_list* velmarDaemonDataTableIterationHelper(velmarDaemonDataTable_entry* c, netsnmp_variable_list* v);

// ---------------------------------------------------------------------------------------
// What differs between the four tables.

// The names a table's functions, traces and registration carry, from its short name.
#define VELMAR_TABLE_NAMES(Name)                                                                   \
    static constexpr const char* table = "velmarDaemon" #Name "Table";                             \
    static constexpr const char* registrationPrefix = "velmarDaemon" #Name "Table_";               \
    static constexpr const char* getFirst = "velmarDaemon" #Name "Table_get_first_data_point";     \
    static constexpr const char* getNext = "velmarDaemon" #Name "Table_get_next_data_point";       \
    static constexpr const char* makeData = "velmarDaemon" #Name "Table_make_data_context";        \
    static constexpr const char* freeData = "velmarDaemon" #Name "Table_free_data_context";        \
    static constexpr const char* freeLoop = "velmarDaemon" #Name "Table_free_loop_context_at_end"; \
    static constexpr const char* helper = "velmarDaemon" #Name "TableIterationHelper";             \
    static constexpr const char* handler = "velmarDaemon" #Name "Table_handler";                   \
    static constexpr const char* initialize = "initialize_table_velmarDaemon" #Name "Table";       \
    static constexpr const char* initializeSignature =                                             \
        "void initialize_table_velmarDaemon" #Name "Table(Orbel::String)";

struct EnabledTable {
    using Entry = GenericAgent::EnabledTableEntry;
    using Key = Snmp::String;
    using Map = DaemonMib::EnabledTableMap;
    using Context = velmarDaemonEnabledTable_entry;
    static constexpr auto namedHelper = velmarDaemonEnabledTableIterationHelper;
    VELMAR_TABLE_NAMES(Enabled)
    static const Map& map(const DaemonMib& m) { return m.enabledTable(); }
    static constexpr oid subtree[2] = {1, 1};
    static constexpr unsigned components = 1;
    static constexpr const char* nameComponent = "velmarDaemonEnabledAgentName";
    static constexpr const char* keyComponent = nullptr;
    static constexpr const char* keyTypeWord = "Snmp::String";
    static constexpr unsigned column = 2;
    static constexpr const char* columnName = "velmarDaemonEnabled";
    static constexpr std::size_t indexBuffer = GenericAgent::maxDaemonNameBytes;
    static Key keyOf(const Snmp::String& name, const Snmp::String&) { return name; }
    static const Snmp::String& printedKey(const Entry& row) { return row.agentName(); }
    // The value: the enabled flag as a TruthValue.
    static constexpr bool stringValue = false;
    static constexpr std::size_t valueBuffer = 1024;
    static constexpr u_char asnType = ASN_INTEGER;
    static constexpr const char* conversionFailed =
        "handle_velmarDaemonEnabledTable - BoolToAsnInteger failed for: enabled";
    static constexpr const char* lengthOutOfRange = nullptr;
    static int convert(const Entry& row, unsigned char* buffer) {
        return Snmp::BoolToAsnIntegerF()(row.enabled(), buffer, static_cast<int>(valueBuffer));
    }
};

struct OptionTable {
    using Entry = GenericAgent::OptionTableEntry;
    using Key = GenericAgent::OptionTableIndex;
    using Map = DaemonMib::OptionTableMap;
    using Context = velmarDaemonOptionTable_entry;
    static constexpr auto namedHelper = velmarDaemonOptionTableIterationHelper;
    VELMAR_TABLE_NAMES(Option)
    static const Map& map(const DaemonMib& m) { return m.optionTable(); }
    static constexpr oid subtree[2] = {1, 2};
    static constexpr unsigned components = 2;
    static constexpr const char* nameComponent = "velmarDaemonOptionAgentName";
    static constexpr const char* keyComponent = "velmarDaemonOptionKey";
    static constexpr const char* keyTypeWord = "GenericAgent::OptionTableIndex";
    static constexpr unsigned column = 3;
    static constexpr const char* columnName = "velmarDaemonOptionValue";
    static constexpr std::size_t indexBuffer = GenericAgent::maxIndexKeyBytes;
    static Key keyOf(const Snmp::String& name, const Snmp::String& key) { return Key(name, key); }
    static Key printedKey(const Entry& row) { return row.index(); }
    // The value: the option's value as an octet string of 1 to 10240 bytes.
    static constexpr bool stringValue = true;
    static constexpr std::size_t valueBuffer = 10240;
    static constexpr u_char asnType = ASN_OCTET_STR;
    static constexpr const char* conversionFailed =
        "handle_velmarDaemonOptionTable - StringToAsnOctetString failed for: val";
    static constexpr const char* lengthOutOfRange =
        "handle_velmarDaemonOptionTable - entity /<sysname>/snmp/launcher/daemonMIB length out of range: val (";
    static int convert(const Entry& row, unsigned char* buffer) {
        return Snmp::StringToAsnOctetStringF()(row.val(), buffer, static_cast<int>(valueBuffer));
    }
};

struct RunningTable {
    using Entry = GenericAgent::RunningTableEntry;
    using Key = Snmp::String;
    using Map = DaemonMib::RunningTableMap;
    using Context = velmarDaemonRunningTable_entry;
    static constexpr auto namedHelper = velmarDaemonRunningTableIterationHelper;
    VELMAR_TABLE_NAMES(Running)
    static const Map& map(const DaemonMib& m) { return m.runningTable(); }
    static constexpr oid subtree[2] = {2, 1};
    static constexpr unsigned components = 1;
    static constexpr const char* nameComponent = "velmarDaemonRunningAgentName";
    static constexpr const char* keyComponent = nullptr;
    static constexpr const char* keyTypeWord = "Snmp::String";
    static constexpr unsigned column = 2;
    static constexpr const char* columnName = "velmarDaemonRunning";
    static constexpr std::size_t indexBuffer = GenericAgent::maxDaemonNameBytes;
    static Key keyOf(const Snmp::String& name, const Snmp::String&) { return name; }
    static const Snmp::String& printedKey(const Entry& row) { return row.agentName(); }
    static constexpr bool stringValue = false;
    static constexpr std::size_t valueBuffer = 1024;
    static constexpr u_char asnType = ASN_INTEGER;
    static constexpr const char* conversionFailed =
        "handle_velmarDaemonRunningTable - BoolToAsnInteger failed for: running";
    static constexpr const char* lengthOutOfRange = nullptr;
    static int convert(const Entry& row, unsigned char* buffer) {
        return Snmp::BoolToAsnIntegerF()(row.running(), buffer, static_cast<int>(valueBuffer));
    }
};

struct DataTable {
    using Entry = GenericAgent::DataTableEntry;
    using Key = GenericAgent::DataTableIndex;
    using Map = DaemonMib::DataTableMap;
    using Context = velmarDaemonDataTable_entry;
    static constexpr auto namedHelper = velmarDaemonDataTableIterationHelper;
    VELMAR_TABLE_NAMES(Data)
    static const Map& map(const DaemonMib& m) { return m.dataTable(); }
    static constexpr oid subtree[2] = {2, 2};
    static constexpr unsigned components = 2;
    static constexpr const char* nameComponent = "velmarDaemonDataAgentName";
    static constexpr const char* keyComponent = "velmarDaemonDataKey";
    static constexpr const char* keyTypeWord = "GenericAgent::DataTableIndex";
    static constexpr unsigned column = 3;
    static constexpr const char* columnName = "velmarDaemonDataValue";
    static constexpr std::size_t indexBuffer = GenericAgent::maxIndexKeyBytes;
    static Key keyOf(const Snmp::String& name, const Snmp::String& key) { return Key(name, key); }
    static Key printedKey(const Entry& row) { return row.index(); }
    static constexpr bool stringValue = true;
    static constexpr std::size_t valueBuffer = 10240;
    static constexpr u_char asnType = ASN_OCTET_STR;
    static constexpr const char* conversionFailed =
        "handle_velmarDaemonDataTable - StringToAsnOctetString failed for: val";
    static constexpr const char* lengthOutOfRange =
        "handle_velmarDaemonDataTable - entity /<sysname>/snmp/launcher/daemonMIB length out of range: val (";
    static int convert(const Entry& row, unsigned char* buffer) {
        return Snmp::StringToAsnOctetStringF()(row.val(), buffer, static_cast<int>(valueBuffer));
    }
};

// ---------------------------------------------------------------------------------------
// Row iteration.

// Writes the row's index into the index varbinds, or returns null at the end.
template <class T>
netsnmp_variable_list* iterationHelper(typename T::Context* context, netsnmp_variable_list* v) {
    if (context->iterator.isEnd()) {
        VELMAR_TRACE(2, T::helper, T::helper << " - iterator is at end");
        return nullptr;
    }
    const typename T::Entry& row = *context->iterator;
    VELMAR_TRACE(2, T::helper, T::helper << " - iterator has another value: agentName=" << row.agentName());
    unsigned char buffer[T::indexBuffer];
    // Deliberate: the converter's result goes to Net-SNMP unchecked; the model's writers keep
    // names and keys within the index limits (GenericAgentSnmp.h), so it is never negative.
    int n =
        Snmp::StringToAsnOctetStringF()(row.agentName(), buffer, static_cast<int>(GenericAgent::maxDaemonNameBytes));
    snmp_set_var_typed_value(v, ASN_OCTET_STR, buffer, n);
    if constexpr (T::components == 2) {
        netsnmp_variable_list* w = v->next_variable;
        VELMAR_TRACE(2, T::helper, T::helper << " - iterator has another value: key=" << row.key());
        n = Snmp::StringToAsnOctetStringF()(row.key(), buffer, static_cast<int>(GenericAgent::maxIndexKeyBytes));
        snmp_set_var_typed_value(w, ASN_OCTET_STR, buffer, n);
    }
    return v;
}

// Converts one octet-string hint component; traces and returns false when it cannot.
template <class T>
bool hintComponent(const netsnmp_variable_list* v, const char* component, Snmp::String& out) {
    try {
        Orbel::Expect anticipated(rangeExceptionId);
        out = Snmp::AsnOctetStringToSnmpString(v->val.string, static_cast<unsigned>(v->val_len));
        VELMAR_TRACE(2, T::getFirst, "hint component " << component << " is '" << out << "'");
        return true;
    } catch (const Orbel::RangeException& e) {
        VELMAR_TRACE(0, T::getFirst, "hint for index " << component << " of " << T::table << " is out of range! " << e);
        return false;
    }
}

template <class T>
netsnmp_variable_list* getFirstDataPoint(void** loopContext, void**, netsnmp_variable_list* put,
                                         netsnmp_iterator_info* info) {
    const auto* mib = static_cast<const DaemonMib*>(info->myvoid);
    const auto* hint = static_cast<const netsnmp_table_request_info*>(*loopContext);
    VELMAR_TRACE(2, T::getFirst,
                 T::getFirst << " - *hint = " << static_cast<const void*>(hint)
                             << ", number_indexes = " << (hint ? hint->number_indexes : 0u));
    const typename T::Map& map = T::map(*mib);
    bool hintMatched = false;
    typename T::Context* context = nullptr;

    if (hint && hint->number_indexes == T::components) {
        unsigned found = 0;
        bool search = false;
        Snmp::String name, key;
        if (const netsnmp_variable_list* v = hint->indexes) {
            if (v->type == ASN_OCTET_STR) {
                if (hintComponent<T>(v, T::nameComponent, name)) found = 1;
            } else {
                VELMAR_TRACE(0, T::getFirst,
                             "hint for " << T::nameComponent << " has incorrect type! Expecting " << 4 << " but got "
                                         << static_cast<int>(v->type));
            }
            if constexpr (T::components == 1) {
                search = found == 1;
            } else if (const netsnmp_variable_list* w = v->next_variable) {
                if (w->type != ASN_OCTET_STR) {
                    VELMAR_TRACE(0, T::getFirst,
                                 "hint for " << T::keyComponent << " has incorrect type! Expecting " << 4 << " but got "
                                             << static_cast<int>(w->type));
                } else if (hintComponent<T>(w, T::keyComponent, key)) {
                    ++found;
                    search = found == 2;
                }
            }
        }
        if (search) {
            try {
                Orbel::Expect anticipated(rangeExceptionId);
                const typename T::Key k = T::keyOf(name, key);
                typename T::Entry* row = map.findExactOrNext(k);
                if (row && row->fwkKey() == k) {
                    context = new typename T::Context{map.iterator(row)};
                    hintMatched = true;
                } else {
                    VELMAR_TRACE(2, T::getFirst, T::getFirst << " - key '" << k << "' not found in table");
                }
            } catch (const Orbel::RangeException& e) {
                VELMAR_TRACE(0, T::getFirst,
                             "Bad hint for " << T::table << ": " << T::keyTypeWord << " ctor threw exception: " << e);
            }
        } else {
            VELMAR_TRACE(2, T::getFirst,
                         T::getFirst << " - needed " << T::components << " components, "
                                     << "found only " << found);
        }
    }
    if (!context) context = new typename T::Context{map.begin()};
    VELMAR_TRACE(2, T::getFirst,
                 T::getFirst << " - allocated new loop context " << static_cast<const void*>(context)
                             << ", hintMatched=" << hintMatched);
    *loopContext = context;
    return T::namedHelper(context, put);
}

template <class T>
netsnmp_variable_list* getNextDataPoint(void** loopContext, void** dataContext, netsnmp_variable_list* put,
                                        netsnmp_iterator_info*) {
    auto* context = static_cast<typename T::Context*>(*loopContext);
    if (!context || context->iterator.isEnd()) {
        VELMAR_TRACE(2, T::getNext, T::getNext << " - at end of loop context " << static_cast<const void*>(context));
        return nullptr;
    }
    auto* data = static_cast<typename T::Context*>(dataContext ? *dataContext : nullptr);
    VELMAR_TRACE(2, T::getNext,
                 T::getNext << " - advancing loop context " << static_cast<const void*>(context) << " ; data context "
                            << static_cast<const void*>(data));
    ++context->iterator;
    if (data) *data = *context;
    return T::namedHelper(context, put);
}

template <class T>
void* makeDataContext(void* loopContext, netsnmp_iterator_info*) {
    auto* data = new typename T::Context(*static_cast<typename T::Context*>(loopContext));
    VELMAR_TRACE(2, T::makeData,
                 T::makeData << " - allocated data context " << static_cast<const void*>(data) << " for loop context "
                             << static_cast<const void*>(loopContext));
    return data;
}

template <class T>
void freeDataContext(void* dataContext, netsnmp_iterator_info*) {
    VELMAR_TRACE(2, T::freeData, T::freeData << " " << static_cast<const void*>(dataContext));
    delete static_cast<typename T::Context*>(dataContext);
}

template <class T>
void freeLoopContextAtEnd(void* loopContext, netsnmp_iterator_info*) {
    VELMAR_TRACE(2, T::freeLoop, T::freeLoop << " " << static_cast<const void*>(loopContext));
    delete static_cast<typename T::Context*>(loopContext);
}

// ---------------------------------------------------------------------------------------
// Request handling.

template <class T>
unsigned columnOf(netsnmp_request_info* request) {
    const netsnmp_table_request_info* info = netsnmp_extract_table_info(request);
    return info ? info->colnum : 0;
}

template <class T>
int handleRequests(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
    VELMAR_TRACE(2, T::handler, T::handler);
    VELMAR_TRACE(2, T::handler, T::handler << ": request mode " << static_cast<int>(reqinfo->mode));
    if (reqinfo->mode == MODE_GET) {
        for (netsnmp_request_info* request = requests; request; request = request->next) {
            if (request->processed) {
                VELMAR_TRACE(2, T::handler,
                             T::handler << ": request " << static_cast<const void*>(request) << " already processed");
                continue;
            }
            auto* context = static_cast<typename T::Context*>(netsnmp_extract_iterator_context(request));
            if (!context) {
                VELMAR_TRACE(2, T::handler, T::handler << ": null data context in request");
                return SNMP_ERR_NOERROR;
            }
            const unsigned column = columnOf<T>(request);
            if (column != T::column) {
                VELMAR_TRACE(0, T::handler, T::table << " invalid column " << column);
                netsnmp_request_set_error(request, SNMP_NOSUCHOBJECT);
                return SNMP_ERR_NOERROR;
            }
            const typename T::Entry& row = *context->iterator;
            VELMAR_TRACE(2, T::handler,
                         T::handler << ": request GET for column " << T::columnName << ", key " << T::printedKey(row));
            unsigned char buffer[T::valueBuffer];
            const int n = T::convert(row, buffer);
            // Deliberate: for the flag tables this branch cannot run with this platform (a
            // TruthValue always fits the buffer); it is kept so that every table answers alike.
            if (n < 0) {
                VELMAR_TRACE(2, T::handler, T::conversionFailed);
                netsnmp_request_set_error(requests, SNMP_ERR_GENERR);
                return SNMP_ERR_GENERR;
            }
            // Deliberate, here and above: the error is set on the first request of the list,
            // not on the one that failed, and the handler stops there.
            if constexpr (T::stringValue) {
                if (n < 1 || n > static_cast<int>(T::valueBuffer)) {
                    VELMAR_TRACE(2, T::handler, T::lengthOutOfRange << n << ")");
                    netsnmp_request_set_error(requests, SNMP_ERR_GENERR);
                    return SNMP_ERR_GENERR;
                }
            }
            snmp_set_var_typed_value(request->requestvb, T::asnType, buffer, static_cast<size_t>(n));
        }
        return SNMP_ERR_NOERROR;
    }
    // The tables have no writable column: the first request not yet answered is refused.
    for (netsnmp_request_info* request = requests; request; request = request->next) {
        if (request->processed) {
            VELMAR_TRACE(2, T::handler,
                         T::handler << ": request " << static_cast<const void*>(request) << " already processed");
            continue;
        }
        VELMAR_TRACE(0, T::handler, T::table << " invalid column " << columnOf<T>(request));
        netsnmp_request_set_error(request, SNMP_ERR_NOTWRITABLE);
        return SNMP_ERR_NOERROR;
    }
    return SNMP_ERR_NOERROR;
}

// ---------------------------------------------------------------------------------------
// Table set-up.

// The row-iteration callbacks of a table by their own names (filled in below).
template <class T>
struct Callbacks;

std::string oidText(const oid* name, size_t length) {
    char buffer[200];
    snprint_objid(buffer, sizeof buffer, name, length);
    return buffer;
}

template <class T>
void initializeTable(const Orbel::String8& context, Netsnmp_Node_Handler* handler) {
    static unsigned int validColumns[1] = {T::column};
    const oid root[11] = {1, 3, 6, 1, 4, 1, VELMAR_ENTERPRISE_NUMBER, 3, 17, T::subtree[0], T::subtree[1]};
    VELMAR_TRACE(1, T::initialize,
                 T::initialize << " initializing oid " << oidText(root, 11) << " in context \"" << context << "\"");

    netsnmp_handler_registration* reg;
    {
        const std::string name = T::registrationPrefix + context.stdString();
        reg = netsnmp_create_handler_registration(name.c_str(), handler, root, 11, HANDLER_CAN_RONLY);
    }
    const std::string path = statebasePath;
    if (!context.empty()) {
        netsnmp_handler_registration_free(reg);
        VELMAR_TRACE(2, T::initialize,
                     T::initialize << " in context \"" << context << "\" statebasePathWithContext not specified ");
        return;
    }
    Orbel::Ptr<Orbel::Entity> entity = SnmpUtil::getEntityRelative(path.c_str());
    if (!entity) {
        std::cerr << "Can not getEntityRelative( " << path << " ) for table " << T::table << ". Is this path correct?"
                  << std::endl;
        std::cerr.flush();
        assertionFailed("e", __LINE__, T::initializeSignature);
    }
    auto* mib = dynamic_cast<DaemonMib*>(entity.ptr());
    if (!mib) {
        std::cerr << path << " does not appear to be of type GenericAgent::DaemonMib." << std::endl;
        assertionFailed("ptr", __LINE__, T::initializeSignature);
    }
    // Not owned: the state tree keeps the DaemonMib alive.
    reg->my_reg_void = mib;

    // Column, table and iterator information: allocated here, owned by the agent library.
    auto* columns = static_cast<netsnmp_column_info*>(calloc(1, sizeof(netsnmp_column_info)));
    columns->isRange = 0;
    columns->list_count = 1;
    columns->details.list = validColumns;
    columns->next = nullptr;

    auto* tableInfo = static_cast<netsnmp_table_registration_info*>(calloc(1, sizeof(netsnmp_table_registration_info)));
    if (!snmp_varlist_add_variable(&tableInfo->indexes, nullptr, 0, ASN_OCTET_STR, nullptr, 0))
        VELMAR_TRACE(
            0, T::initialize,
            "Failed to set up " << T::nameComponent << " in netsnmp table_info in context \"" << context << "\"");
    if constexpr (T::components == 2) {
        if (!snmp_varlist_add_variable(&tableInfo->indexes, nullptr, 0, ASN_OCTET_STR, nullptr, 0))
            VELMAR_TRACE(
                0, T::initialize,
                "Failed to set up " << T::keyComponent << " in netsnmp table_info in context \"" << context << "\"");
    }
    tableInfo->min_column = T::column;
    tableInfo->max_column = T::column;
    tableInfo->valid_columns = columns;

    auto* iinfo = static_cast<netsnmp_iterator_info*>(calloc(1, sizeof(netsnmp_iterator_info)));
    iinfo->get_first_data_point = Callbacks<T>::getFirst;
    iinfo->get_next_data_point = Callbacks<T>::getNext;
    iinfo->make_data_context = Callbacks<T>::makeData;
    iinfo->free_data_context = Callbacks<T>::freeData;
    iinfo->free_loop_context_at_end = Callbacks<T>::freeLoop;
    iinfo->myvoid = reg->my_reg_void;
    iinfo->flags = NETSNMP_ITERATOR_FLAG_SORTED;
    iinfo->table_reginfo = tableInfo;

    if (!context.empty()) {
        iinfo->flags |= NETSNMP_HANDLER_OWNS_IINFO;
        iinfo->refcnt = 0;
        columnInfosByContext[context].push_back(columns);
    }

    const int result = netsnmp_register_table_iterator(reg, iinfo);
    if (result != 0) assertionFailed("result == 0", __LINE__, T::initializeSignature);
    // The iterator registration does not add serialize; without it the layers below could
    // see several requests at once.
    const int injected = netsnmp_inject_handler(reg, netsnmp_get_serialize_handler());
    if (injected != 0) assertionFailed("injected == (0)", __LINE__, T::initializeSignature);

    VELMAR_TRACE(8, T::initialize, "Initialized table " << T::table << " in context \"" << context << "\"");
}

// ---------------------------------------------------------------------------------------
// The named callbacks, each forwarding to the mechanism with its table's constants.

netsnmp_variable_list* velmarDaemonEnabledTableIterationHelper(velmarDaemonEnabledTable_entry* c,
                                                               netsnmp_variable_list* v) {
    return iterationHelper<EnabledTable>(c, v);
}
netsnmp_variable_list* velmarDaemonEnabledTable_get_first_data_point(void** l, void** d, netsnmp_variable_list* v,
                                                                     netsnmp_iterator_info* i) {
    return getFirstDataPoint<EnabledTable>(l, d, v, i);
}
netsnmp_variable_list* velmarDaemonEnabledTable_get_next_data_point(void** l, void** d, netsnmp_variable_list* v,
                                                                    netsnmp_iterator_info* i) {
    return getNextDataPoint<EnabledTable>(l, d, v, i);
}
void* velmarDaemonEnabledTable_make_data_context(void* l, netsnmp_iterator_info* i) {
    return makeDataContext<EnabledTable>(l, i);
}
void velmarDaemonEnabledTable_free_data_context(void* d, netsnmp_iterator_info* i) {
    freeDataContext<EnabledTable>(d, i);
}
void velmarDaemonEnabledTable_free_loop_context_at_end(void* l, netsnmp_iterator_info* i) {
    freeLoopContextAtEnd<EnabledTable>(l, i);
}

netsnmp_variable_list* velmarDaemonOptionTableIterationHelper(velmarDaemonOptionTable_entry* c,
                                                              netsnmp_variable_list* v) {
    return iterationHelper<OptionTable>(c, v);
}
netsnmp_variable_list* velmarDaemonOptionTable_get_first_data_point(void** l, void** d, netsnmp_variable_list* v,
                                                                    netsnmp_iterator_info* i) {
    return getFirstDataPoint<OptionTable>(l, d, v, i);
}
netsnmp_variable_list* velmarDaemonOptionTable_get_next_data_point(void** l, void** d, netsnmp_variable_list* v,
                                                                   netsnmp_iterator_info* i) {
    return getNextDataPoint<OptionTable>(l, d, v, i);
}
void* velmarDaemonOptionTable_make_data_context(void* l, netsnmp_iterator_info* i) {
    return makeDataContext<OptionTable>(l, i);
}
void velmarDaemonOptionTable_free_data_context(void* d, netsnmp_iterator_info* i) {
    freeDataContext<OptionTable>(d, i);
}
void velmarDaemonOptionTable_free_loop_context_at_end(void* l, netsnmp_iterator_info* i) {
    freeLoopContextAtEnd<OptionTable>(l, i);
}

netsnmp_variable_list* velmarDaemonRunningTableIterationHelper(velmarDaemonRunningTable_entry* c,
                                                               netsnmp_variable_list* v) {
    return iterationHelper<RunningTable>(c, v);
}
netsnmp_variable_list* velmarDaemonRunningTable_get_first_data_point(void** l, void** d, netsnmp_variable_list* v,
                                                                     netsnmp_iterator_info* i) {
    return getFirstDataPoint<RunningTable>(l, d, v, i);
}
netsnmp_variable_list* velmarDaemonRunningTable_get_next_data_point(void** l, void** d, netsnmp_variable_list* v,
                                                                    netsnmp_iterator_info* i) {
    return getNextDataPoint<RunningTable>(l, d, v, i);
}
void* velmarDaemonRunningTable_make_data_context(void* l, netsnmp_iterator_info* i) {
    return makeDataContext<RunningTable>(l, i);
}
void velmarDaemonRunningTable_free_data_context(void* d, netsnmp_iterator_info* i) {
    freeDataContext<RunningTable>(d, i);
}
void velmarDaemonRunningTable_free_loop_context_at_end(void* l, netsnmp_iterator_info* i) {
    freeLoopContextAtEnd<RunningTable>(l, i);
}

netsnmp_variable_list* velmarDaemonDataTableIterationHelper(velmarDaemonDataTable_entry* c, netsnmp_variable_list* v) {
    return iterationHelper<DataTable>(c, v);
}
netsnmp_variable_list* velmarDaemonDataTable_get_first_data_point(void** l, void** d, netsnmp_variable_list* v,
                                                                  netsnmp_iterator_info* i) {
    return getFirstDataPoint<DataTable>(l, d, v, i);
}
netsnmp_variable_list* velmarDaemonDataTable_get_next_data_point(void** l, void** d, netsnmp_variable_list* v,
                                                                 netsnmp_iterator_info* i) {
    return getNextDataPoint<DataTable>(l, d, v, i);
}
void* velmarDaemonDataTable_make_data_context(void* l, netsnmp_iterator_info* i) {
    return makeDataContext<DataTable>(l, i);
}
void velmarDaemonDataTable_free_data_context(void* d, netsnmp_iterator_info* i) {
    freeDataContext<DataTable>(d, i);
}
void velmarDaemonDataTable_free_loop_context_at_end(void* l, netsnmp_iterator_info* i) {
    freeLoopContextAtEnd<DataTable>(l, i);
}

#define VELMAR_CALLBACKS(T, prefix)                                                               \
    template <>                                                                                   \
    struct Callbacks<T> {                                                                         \
        static constexpr Netsnmp_First_Data_Point* getFirst = prefix##_get_first_data_point;      \
        static constexpr Netsnmp_Next_Data_Point* getNext = prefix##_get_next_data_point;         \
        static constexpr Netsnmp_Make_Data_Context* makeData = prefix##_make_data_context;        \
        static constexpr Netsnmp_Free_Data_Context* freeData = prefix##_free_data_context;        \
        static constexpr Netsnmp_Free_Loop_Context* freeLoop = prefix##_free_loop_context_at_end; \
    };
VELMAR_CALLBACKS(EnabledTable, velmarDaemonEnabledTable)
VELMAR_CALLBACKS(OptionTable, velmarDaemonOptionTable)
VELMAR_CALLBACKS(RunningTable, velmarDaemonRunningTable)
VELMAR_CALLBACKS(DataTable, velmarDaemonDataTable)
#undef VELMAR_CALLBACKS

// ---------------------------------------------------------------------------------------
// Registration with the plugin layer.

class VelmarDaemonMIB_HandlerRegistration : public Snmp::HandlerRegistration {
public:
    ~VelmarDaemonMIB_HandlerRegistration() override = default;
    void initHandler(Orbel::String8 context) override {
        Orbel::String8 copy = context;
        init_VelmarDaemonMIB(copy);
    }
};

VelmarDaemonMIB_HandlerRegistration handlerRegistration;
Snmp::AutoRegistree autoRegistree(&handlerRegistration);

} // namespace

// ---------------------------------------------------------------------------------------
// Exported entry points.

void init_VelmarDaemonMIB(Orbel::String8 context) {
    debugLine(__func__, __LINE__, "Initializing in context \"%s\"\n", context.cStr());
    initialize_table_velmarDaemonEnabledTable(context);
    initialize_table_velmarDaemonOptionTable(context);
    initialize_table_velmarDaemonRunningTable(context);
    initialize_table_velmarDaemonDataTable(context);
}

void unregister_VelmarDaemonMIB(Orbel::String8 context) {
    VELMAR_TRACE(2, __func__, "Unregistering VelmarDaemonMIB in context \"" << context << "\"");
    const std::list<netsnmp_handler_registration*> registrations = registrationsByContext[context];
    for (netsnmp_handler_registration* reg : registrations) netsnmp_unregister_handler(reg);
    registrationsByContext.erase(context);
    const std::list<netsnmp_column_info*> columns = columnInfosByContext[context];
    for (netsnmp_column_info* chain : columns) {
        while (chain) {
            netsnmp_column_info* next = chain->next;
            free(chain);
            chain = next;
        }
    }
    columnInfosByContext.erase(context);
}

void initialize_table_velmarDaemonEnabledTable(Orbel::String8 context) {
    initializeTable<EnabledTable>(context, velmarDaemonEnabledTable_handler);
}
void initialize_table_velmarDaemonOptionTable(Orbel::String8 context) {
    initializeTable<OptionTable>(context, velmarDaemonOptionTable_handler);
}
void initialize_table_velmarDaemonRunningTable(Orbel::String8 context) {
    initializeTable<RunningTable>(context, velmarDaemonRunningTable_handler);
}
void initialize_table_velmarDaemonDataTable(Orbel::String8 context) {
    initializeTable<DataTable>(context, velmarDaemonDataTable_handler);
}

int velmarDaemonEnabledTable_handler(netsnmp_mib_handler*, netsnmp_handler_registration*,
                                     netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
    return handleRequests<EnabledTable>(reqinfo, requests);
}
int velmarDaemonOptionTable_handler(netsnmp_mib_handler*, netsnmp_handler_registration*,
                                    netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
    return handleRequests<OptionTable>(reqinfo, requests);
}
int velmarDaemonRunningTable_handler(netsnmp_mib_handler*, netsnmp_handler_registration*,
                                     netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
    return handleRequests<RunningTable>(reqinfo, requests);
}
int velmarDaemonDataTable_handler(netsnmp_mib_handler*, netsnmp_handler_registration*,
                                  netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
    return handleRequests<DataTable>(reqinfo, requests);
}

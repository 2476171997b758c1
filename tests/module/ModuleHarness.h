// In-process harness for the VelmarDaemonMIB module tests: the agent library initialised
// without a network, the module loaded through the plugin layer, its registrations and
// internal callbacks found through the agent's registry, hand-built request lists, and
// capture of the module's trace lines and token debug output.
//
//   ModuleTest::Module& m = ModuleTest::Module::instance();   // loaded, default context set up
//   netsnmp_iterator_info* ii = m.iterator(ModuleTest::Table::option);
//   ModuleTest::TraceCapture trace("Snmp/0-2,8");
//   ModuleTest::RequestList list(MODE_GET);
//   list.addForHandler(ModuleTest::rowOid(Table::option, 3, "bgpd", "asn"), 3, dataContext);
//   m.handler(Table::option)(nullptr, nullptr, list.info(), list.head());
#pragma once

#include "GenericAgent/GenericAgentSnmp.h"
#include "orbel/TraceHandle.h"
#include "snmp/HandlerRegistration.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#ifndef VELMAR_MODULE_PATH
#error "VELMAR_MODULE_PATH must name the built module"
#endif
#ifndef VELMAR_ENTERPRISE_NUMBER
#error "VELMAR_ENTERPRISE_NUMBER must be defined by the build"
#endif

namespace ModuleTest {

inline constexpr const char* modulePath = VELMAR_MODULE_PATH;
inline constexpr const char* statePath = "snmp/launcher/daemonMIB";
inline constexpr const char* sourceFile = "VelmarDaemonMIB";

// ---------------------------------------------------------------------------------------
// The four tables and what the tests need to know about each.

enum class Table { enabled, option, running, data };

struct TableFacts {
    Table table;
    const char* name;          // "velmarDaemonOptionTable"
    oid major, minor;          // enterprises.E.3.17.<major>.<minor>
    unsigned column;           // the one column served
    unsigned components;       // index components
    const char* nameComponent; // "velmarDaemonOptionAgentName"
    const char* keyComponent;  // "velmarDaemonOptionKey" or null
    const char* columnName;    // "velmarDaemonOptionValue"
    const char* keyTypeWord;   // "GenericAgent::OptionTableIndex" or "Snmp::String"

    std::string fn(const char* suffix) const { return std::string(name) + suffix; }
    std::string handlerName() const { return fn("_handler"); }
    std::string getFirst() const { return fn("_get_first_data_point"); }
    std::string getNext() const { return fn("_get_next_data_point"); }
    std::string makeData() const { return fn("_make_data_context"); }
    std::string freeData() const { return fn("_free_data_context"); }
    std::string freeLoop() const { return fn("_free_loop_context_at_end"); }
    std::string helper() const { return fn("IterationHelper"); }
    std::string initialize() const { return "initialize_table_" + std::string(name); }
};

const TableFacts& facts(Table t);
inline const Table allTables[] = {Table::enabled, Table::option, Table::running, Table::data};

// 1.3.6.1.4.1.E.3.17.<major>.<minor> (11 sub-identifiers).
std::vector<oid> tableOid(Table t);
// The instance of column `column` of the row (name[, key]): table, entry 1, column, then
// each index component as a length-prefixed octet string.
std::vector<oid> rowOid(Table t, unsigned column, std::string_view name, std::optional<std::string_view> key = {});
// snprint_objid's text for an identifier (not counted as a call by the module).
std::string oidText(const std::vector<oid>& name);

// The stream form the module uses for a pointer.
std::string ptr(const void* p);
template <class T>
std::string streamed(const T& v) {
    std::ostringstream os;
    os << v;
    return os.str();
}

// ---------------------------------------------------------------------------------------
// Symbols of the module.

// "_Z<len><name>N5Orbel6StringE": a module function taking one Orbel::String.
std::string stringFunctionSymbol(const std::string& name);
// The mangled name of a table's request handler.
std::string handlerSymbol(Table t);

using ContextFunction = void(Orbel::String8);

// ---------------------------------------------------------------------------------------
// The module, loaded once per process and set up in the default context with an empty
// DaemonMib at "snmp/launcher/daemonMIB". The first set-up runs with every Snmp trace
// level on and the agent library's token debugging on for "VelmarDaemonMIB" and "trace";
// what it produced is kept for the tests. Never unloaded: the agent keeps the default
// context's registrations, whose handlers live in the module.
struct Line {
    std::string facility;
    unsigned level;
    std::string file;
    std::string function;
    std::string text;
};

class Module {
public:
    static Module& instance();
    // True once instance() has loaded the module in this process.
    static bool created();

    GenericAgent::DaemonMib& mib() const { return *mib_; }
    const Orbel::Ptr<GenericAgent::DaemonMib>& mibPtr() const { return mib_; }
    Snmp::ModuleLoader& loader() const { return *loader_; }
    void* symbol(const std::string& mangled) const;

    void init(const Orbel::String8& context) const;
    void unregister(const Orbel::String8& context) const;
    void initializeTable(Table t, const Orbel::String8& context) const;

    // The table's registration in the default context (found through the agent's registry).
    netsnmp_handler_registration* registration(Table t) const;
    netsnmp_iterator_info* iterator(Table t) const;
    netsnmp_table_registration_info* tableInfo(Table t) const;
    Netsnmp_Node_Handler* handler(Table t) const;

    // What the first set-up traced (all levels) and wrote as token debug output.
    const std::vector<Line>& initTrace() const { return initTrace_; }
    const std::string& initDebug() const { return initDebug_; }
    std::size_t announcedByLoad() const { return announcedByLoad_; }

    // Removes every row of every table.
    void clearTables() const;

private:
    Module();
    Orbel::Ptr<GenericAgent::DaemonMib> mib_;
    Snmp::ModuleLoader* loader_ = nullptr;
    void* handle_ = nullptr;
    std::vector<Line> initTrace_;
    std::string initDebug_;
    std::size_t announcedByLoad_ = 0;
};

// ---------------------------------------------------------------------------------------
// Trace capture: sets the trace configuration and collects every line that reaches the
// sink (enabled levels only). Restores an all-off configuration and the default sink.

class TraceCapture {
public:
    explicit TraceCapture(const std::string& config);
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    const std::vector<Line>& lines() const { return *lines_; }
    std::vector<std::string> texts() const;
    std::vector<std::string> textsAt(unsigned level) const;
    std::vector<std::string> textsFrom(std::string_view function) const;
    // Lines whose text starts with prefix.
    std::size_t count(std::string_view prefix) const;
    bool has(std::string_view text) const;
    void clear() { lines_->clear(); }

private:
    std::shared_ptr<std::vector<Line>> lines_;
};

// Token debug output of the agent library while it lives: debugging on, the tokens
// "VelmarDaemonMIB" and "trace" registered, every log message collected in order.
class DebugCapture {
public:
    DebugCapture();
    ~DebugCapture();
    DebugCapture(const DebugCapture&) = delete;
    DebugCapture& operator=(const DebugCapture&) = delete;
    const std::string& text() const { return text_; }

private:
    static int onLog(int major, int minor, void* serverArg, void* clientArg);
    netsnmp_log_handler* handler_ = nullptr;
    std::string text_;
};

// Log messages of the agent library while it lives (debugging stays as it is).
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    const std::string& text() const { return text_; }

private:
    static int onLog(int major, int minor, void* serverArg, void* clientArg);
    netsnmp_log_handler* handler_ = nullptr;
    std::string text_;
};

// ---------------------------------------------------------------------------------------
// Calls the module made to library functions, counted by interposers in this executable
// (only calls whose return address lies in the module count).

struct ModuleCalls {
    std::size_t snprintObjid = 0;          // identifiers formatted
    std::size_t traceHelper = 0;           // trace texts composed and handed on
    std::vector<std::size_t> valueLengths; // lengths handed to snmp_set_var_typed_value
};
ModuleCalls& moduleCalls();
void resetModuleCalls();
// Lengths above this are refused by the interposer as a failed allocation would be,
// instead of reaching the library (which would wrap len + 1 to 0 and corrupt the heap).
inline constexpr std::size_t refusedLength = 0x7fffffff;

// ---------------------------------------------------------------------------------------
// Request lists built by hand, freed with everything attached to them.

class RequestList {
public:
    explicit RequestList(int mode);
    ~RequestList();
    RequestList(const RequestList&) = delete;
    RequestList& operator=(const RequestList&) = delete;

    // A request for `name` with a null varbind, as the agent hands it to a chain.
    netsnmp_request_info* add(const std::vector<oid>& name);
    // A request as the table and iterator helpers leave it for the request handler:
    // parsed table information with `column`, and the data context (if not null). The
    // data context stays the caller's.
    netsnmp_request_info* addForHandler(const std::vector<oid>& name, unsigned column, void* dataContext,
                                        bool processed = false);

    netsnmp_agent_request_info* info() { return &info_; }
    netsnmp_request_info* head() const { return requests_.empty() ? nullptr : requests_.front(); }
    netsnmp_request_info* at(std::size_t i) const { return requests_.at(i); }
    std::size_t size() const { return requests_.size(); }

    // Sends the list through the table's whole handler chain (serialize first).
    int callChain(netsnmp_handler_registration* reg);

private:
    netsnmp_agent_request_info info_{};
    std::vector<netsnmp_request_info*> requests_;
    std::vector<std::unique_ptr<netsnmp_table_request_info>> tableInfos_;
};

// The value of a varbind as text (octet string) or number (integer).
std::string octets(const netsnmp_variable_list* vb);
long integer(const netsnmp_variable_list* vb);
std::vector<oid> nameOf(const netsnmp_variable_list* vb);

// A hint as the table helper parses it: number_indexes and a list of index varbinds.
class Hint {
public:
    explicit Hint(unsigned numberIndexes);
    ~Hint();
    Hint(const Hint&) = delete;
    Hint& operator=(const Hint&) = delete;
    Hint& octets(std::string_view bytes);
    Hint& integer(long value);
    netsnmp_variable_list* last() const;
    netsnmp_table_request_info* info() { return &info_; }

private:
    netsnmp_table_request_info info_{};
};

// One pass of a table's row-iteration callbacks, driven directly.
class Pass {
public:
    // Copies the table's index list as the helper's put_index_data.
    explicit Pass(netsnmp_iterator_info* ii);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

    netsnmp_variable_list* first(netsnmp_table_request_info* hint);
    netsnmp_variable_list* next();
    void* makeData();
    void freeLoop();
    void* loopContext() const { return loop_; }
    netsnmp_variable_list* put() const { return put_; }

private:
    netsnmp_iterator_info* ii_;
    netsnmp_variable_list* put_ = nullptr;
    void* loop_ = nullptr;
    bool freed_ = true;
};

// A data context for the row (name[, key]) of a table, made as the iterator helper makes
// one (first-row call with an exact hint, then make_data_context) and freed through the
// table's free_data_context when it goes.
class RowContext {
public:
    RowContext(netsnmp_iterator_info* ii, std::string_view name, std::optional<std::string_view> key = {});
    ~RowContext();
    RowContext(const RowContext&) = delete;
    RowContext& operator=(const RowContext&) = delete;
    void* get() const { return context_; }

private:
    netsnmp_iterator_info* ii_;
    void* context_ = nullptr;
};

// Test fixture: the module set up in the default context, empty tables, traces off and
// the counters of module calls reset. Tables are emptied again afterwards.
class ModuleFixture : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    Module& module() const { return *module_; }
    GenericAgent::DaemonMib& mib() const { return module_->mib(); }

    // Rows with a Config or Status made here; the objects are kept for the test.
    Orbel::Ptr<GenericAgent::Config> config(const char* daemon);
    Orbel::Ptr<GenericAgent::Status> status(const char* daemon);

private:
    Module* module_ = nullptr;
};

} // namespace ModuleTest

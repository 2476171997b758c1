#include "ModuleHarness.h"

#include "launcher/AgentState.h"
#include "statebase/Statebase.h"

#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>

namespace ModuleTest {

namespace {

// The agent library, initialised once per process as a master agent without network,
// configuration files or persistent state. Death tests re-run the executable
// ("threadsafe"), so each starts from this state with nothing loaded.
class AgentEnvironment : public testing::Environment {
public:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        Orbel::traceConfigIs("");
        setenv("MIBS", "", 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 0);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
        init_agent("velmar-module-test");
        init_snmp("velmar-module-test");
    }
};

[[maybe_unused]] testing::Environment* const agentEnvironment = testing::AddGlobalTestEnvironment(new AgentEnvironment);

const TableFacts tableFacts[] = {
    {Table::enabled, "velmarDaemonEnabledTable", 1, 1, 2, 1, "velmarDaemonEnabledAgentName", nullptr,
     "velmarDaemonEnabled", "Snmp::String"},
    {Table::option, "velmarDaemonOptionTable", 1, 2, 3, 2, "velmarDaemonOptionAgentName", "velmarDaemonOptionKey",
     "velmarDaemonOptionValue", "GenericAgent::OptionTableIndex"},
    {Table::running, "velmarDaemonRunningTable", 2, 1, 2, 1, "velmarDaemonRunningAgentName", nullptr,
     "velmarDaemonRunning", "Snmp::String"},
    {Table::data, "velmarDaemonDataTable", 2, 2, 3, 2, "velmarDaemonDataAgentName", "velmarDaemonDataKey",
     "velmarDaemonDataValue", "GenericAgent::DataTableIndex"},
};

bool moduleCreated = false;

Line lineOf(const Orbel::TraceLine& l) {
    return Line{l.facility.stdString(), l.level, l.file ? l.file : "", l.function ? l.function : "", l.text};
}

} // namespace

const TableFacts& facts(Table t) {
    return tableFacts[static_cast<int>(t)];
}

std::vector<oid> tableOid(Table t) {
    const TableFacts& f = facts(t);
    return {1, 3, 6, 1, 4, 1, VELMAR_ENTERPRISE_NUMBER, 3, 17, f.major, f.minor};
}

std::vector<oid> rowOid(Table t, unsigned column, std::string_view name, std::optional<std::string_view> key) {
    std::vector<oid> o = tableOid(t);
    o.push_back(1);
    o.push_back(column);
    auto component = [&o](std::string_view s) {
        o.push_back(s.size());
        for (char c : s) o.push_back(static_cast<unsigned char>(c));
    };
    component(name);
    if (key) component(*key);
    return o;
}

std::string oidText(const std::vector<oid>& name) {
    char buffer[200];
    snprint_objid(buffer, sizeof buffer, name.data(), name.size());
    return buffer;
}

std::string ptr(const void* p) {
    return streamed(p);
}

std::string stringFunctionSymbol(const std::string& name) {
    return "_Z" + std::to_string(name.size()) + name + "N5Orbel6StringE";
}

std::string handlerSymbol(Table t) {
    const std::string name = facts(t).handlerName();
    return "_Z" + std::to_string(name.size()) + name +
           "P21netsnmp_mib_handler_sP30netsnmp_handler_registration_sP28netsnmp_agent_request_info_sP22netsnmp_"
           "request_info_s";
}

// ---------------------------------------------------------------------------------------

Module& Module::instance() {
    static Module* m = new Module; // never destroyed, see the header
    return *m;
}

bool Module::created() {
    return moduleCreated;
}

Module::Module() {
    mib_ = GenericAgent::daemonMibFactory("daemonMIB");
    Statebase::root()->entityIs(statePath, mib_);
    const std::size_t before = Snmp::PluginRegistry::instance().announced();
    {
        DebugCapture debug;
        TraceCapture trace("Snmp/*");
        loader_ = new Snmp::ModuleLoader(modulePath);
        announcedByLoad_ = Snmp::PluginRegistry::instance().announced() - before;
        loader_->initContext("");
        initTrace_ = trace.lines();
        initDebug_ = debug.text();
    }
    handle_ = dlopen(modulePath, RTLD_NOW | RTLD_NOLOAD);
    if (!handle_) throw std::runtime_error(std::string("module not loaded: ") + modulePath);
    moduleCreated = true;
}

void* Module::symbol(const std::string& mangled) const {
    void* s = dlsym(handle_, mangled.c_str());
    if (!s) throw std::runtime_error("module does not export " + mangled);
    return s;
}

void Module::init(const Orbel::String8& context) const {
    reinterpret_cast<ContextFunction*>(symbol(stringFunctionSymbol("init_VelmarDaemonMIB")))(context);
}

void Module::unregister(const Orbel::String8& context) const {
    reinterpret_cast<ContextFunction*>(symbol(stringFunctionSymbol("unregister_VelmarDaemonMIB")))(context);
}

void Module::initializeTable(Table t, const Orbel::String8& context) const {
    reinterpret_cast<ContextFunction*>(symbol(stringFunctionSymbol(facts(t).initialize())))(context);
}

netsnmp_handler_registration* Module::registration(Table t) const {
    const std::vector<oid> o = tableOid(t);
    netsnmp_subtree* s = netsnmp_subtree_find(o.data(), o.size(), nullptr, "");
    return s ? s->reginfo : nullptr;
}

netsnmp_iterator_info* Module::iterator(Table t) const {
    netsnmp_handler_registration* reg = registration(t);
    netsnmp_mib_handler* h = reg ? netsnmp_find_handler_by_name(reg, TABLE_ITERATOR_NAME) : nullptr;
    return h ? static_cast<netsnmp_iterator_info*>(h->myvoid) : nullptr;
}

netsnmp_table_registration_info* Module::tableInfo(Table t) const {
    netsnmp_handler_registration* reg = registration(t);
    netsnmp_mib_handler* h = reg ? netsnmp_find_handler_by_name(reg, TABLE_HANDLER_NAME) : nullptr;
    return h ? static_cast<netsnmp_table_registration_info*>(h->myvoid) : nullptr;
}

Netsnmp_Node_Handler* Module::handler(Table t) const {
    return reinterpret_cast<Netsnmp_Node_Handler*>(symbol(handlerSymbol(t)));
}

void Module::clearTables() const {
    mib_->enabledTableDelAll();
    mib_->optionTableDelAll();
    mib_->runningTableDelAll();
    mib_->dataTableDelAll();
}

// ---------------------------------------------------------------------------------------

TraceCapture::TraceCapture(const std::string& config) : lines_(std::make_shared<std::vector<Line>>()) {
    Orbel::traceConfigIs(config);
    std::shared_ptr<std::vector<Line>> sink = lines_;
    Orbel::traceSinkIs([sink](const Orbel::TraceLine& l) { sink->push_back(lineOf(l)); });
}

TraceCapture::~TraceCapture() {
    Orbel::traceSinkIs(nullptr);
    Orbel::traceConfigIs("");
}

std::vector<std::string> TraceCapture::texts() const {
    std::vector<std::string> out;
    for (const Line& l : *lines_) out.push_back(l.text);
    return out;
}

std::vector<std::string> TraceCapture::textsAt(unsigned level) const {
    std::vector<std::string> out;
    for (const Line& l : *lines_)
        if (l.level == level) out.push_back(l.text);
    return out;
}

std::vector<std::string> TraceCapture::textsFrom(std::string_view function) const {
    std::vector<std::string> out;
    for (const Line& l : *lines_)
        if (l.function == function) out.push_back(l.text);
    return out;
}

std::size_t TraceCapture::count(std::string_view prefix) const {
    std::size_t n = 0;
    for (const Line& l : *lines_)
        if (std::string_view(l.text).substr(0, prefix.size()) == prefix) ++n;
    return n;
}

bool TraceCapture::has(std::string_view text) const {
    for (const Line& l : *lines_)
        if (l.text == text) return true;
    return false;
}

// ---------------------------------------------------------------------------------------

DebugCapture::DebugCapture() {
    snmp_set_do_debugging(1);
    debug_register_tokens("VelmarDaemonMIB,trace");
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, &DebugCapture::onLog, this);
    handler_ = netsnmp_register_loghandler(NETSNMP_LOGHANDLER_CALLBACK, LOG_DEBUG);
}

DebugCapture::~DebugCapture() {
    if (handler_) netsnmp_remove_loghandler(handler_);
    snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, &DebugCapture::onLog, this, 1);
    snmp_set_do_debugging(0);
}

int DebugCapture::onLog(int, int, void* serverArg, void* clientArg) {
    const auto* m = static_cast<const snmp_log_message*>(serverArg);
    if (m && m->msg) static_cast<DebugCapture*>(clientArg)->text_ += m->msg;
    return 0;
}

LogCapture::LogCapture() {
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, &LogCapture::onLog, this);
    handler_ = netsnmp_register_loghandler(NETSNMP_LOGHANDLER_CALLBACK, LOG_DEBUG);
}

LogCapture::~LogCapture() {
    if (handler_) netsnmp_remove_loghandler(handler_);
    snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, &LogCapture::onLog, this, 1);
}

int LogCapture::onLog(int, int, void* serverArg, void* clientArg) {
    const auto* m = static_cast<const snmp_log_message*>(serverArg);
    if (m && m->msg) static_cast<LogCapture*>(clientArg)->text_ += m->msg;
    return 0;
}

// ---------------------------------------------------------------------------------------

RequestList::RequestList(int mode) {
    info_.mode = mode;
}

RequestList::~RequestList() {
    for (netsnmp_request_info* r : requests_) {
        netsnmp_free_request_data_sets(r);
        snmp_free_varbind(r->requestvb);
        free(r);
    }
}

netsnmp_request_info* RequestList::add(const std::vector<oid>& name) {
    auto* r = static_cast<netsnmp_request_info*>(calloc(1, sizeof(netsnmp_request_info)));
    netsnmp_variable_list* vb = nullptr;
    snmp_varlist_add_variable(&vb, name.data(), name.size(), ASN_NULL, nullptr, 0);
    r->requestvb = vb;
    r->agent_req_info = &info_;
    r->index = static_cast<int>(requests_.size()) + 1;
    if (!requests_.empty()) {
        requests_.back()->next = r;
        r->prev = requests_.back();
    }
    requests_.push_back(r);
    return r;
}

netsnmp_request_info* RequestList::addForHandler(const std::vector<oid>& name, unsigned column, void* dataContext,
                                                 bool processed) {
    netsnmp_request_info* r = add(name);
    auto table = std::make_unique<netsnmp_table_request_info>();
    table->colnum = column;
    netsnmp_request_add_list_data(r, netsnmp_create_data_list(TABLE_HANDLER_NAME, table.get(), nullptr));
    tableInfos_.push_back(std::move(table));
    if (dataContext)
        netsnmp_request_add_list_data(r, netsnmp_create_data_list(TABLE_ITERATOR_NAME, dataContext, nullptr));
    r->processed = processed ? 1 : 0;
    return r;
}

int RequestList::callChain(netsnmp_handler_registration* reg) {
    return netsnmp_call_handlers(reg, &info_, head());
}

std::string octets(const netsnmp_variable_list* vb) {
    if (!vb || !vb->val.string) return {};
    return std::string(reinterpret_cast<const char*>(vb->val.string), vb->val_len);
}

long integer(const netsnmp_variable_list* vb) {
    return vb && vb->val.integer ? *vb->val.integer : -999;
}

std::vector<oid> nameOf(const netsnmp_variable_list* vb) {
    return std::vector<oid>(vb->name, vb->name + vb->name_length);
}

// ---------------------------------------------------------------------------------------

Hint::Hint(unsigned numberIndexes) {
    info_.number_indexes = numberIndexes;
}

Hint::~Hint() {
    snmp_free_varbind(info_.indexes);
}

Hint& Hint::octets(std::string_view bytes) {
    snmp_varlist_add_variable(&info_.indexes, nullptr, 0, ASN_OCTET_STR, bytes.data(), bytes.size());
    return *this;
}

Hint& Hint::integer(long value) {
    snmp_varlist_add_variable(&info_.indexes, nullptr, 0, ASN_INTEGER, &value, sizeof value);
    return *this;
}

netsnmp_variable_list* Hint::last() const {
    netsnmp_variable_list* v = info_.indexes;
    while (v && v->next_variable) v = v->next_variable;
    return v;
}

Pass::Pass(netsnmp_iterator_info* ii) : ii_(ii) {
    put_ = snmp_clone_varbind(ii->table_reginfo->indexes);
}

Pass::~Pass() {
    if (!freed_) freeLoop();
    snmp_free_varbind(put_);
}

netsnmp_variable_list* Pass::first(netsnmp_table_request_info* hint) {
    loop_ = hint;
    void* data = nullptr;
    netsnmp_variable_list* r = ii_->get_first_data_point(&loop_, &data, put_, ii_);
    freed_ = false;
    return r;
}

netsnmp_variable_list* Pass::next() {
    void* data = nullptr;
    return ii_->get_next_data_point(&loop_, &data, put_, ii_);
}

void* Pass::makeData() {
    return ii_->make_data_context(loop_, ii_);
}

void Pass::freeLoop() {
    ii_->free_loop_context_at_end(loop_, ii_);
    freed_ = true;
}

RowContext::RowContext(netsnmp_iterator_info* ii, std::string_view name, std::optional<std::string_view> key)
    : ii_(ii) {
    Hint hint(key ? 2 : 1);
    hint.octets(name);
    if (key) hint.octets(*key);
    Pass pass(ii);
    if (pass.first(hint.info())) context_ = pass.makeData();
    pass.freeLoop();
}

RowContext::~RowContext() {
    if (context_) ii_->free_data_context(context_, ii_);
}

// ---------------------------------------------------------------------------------------

void ModuleFixture::SetUp() {
    module_ = &Module::instance();
    module_->clearTables();
    Orbel::traceConfigIs("");
    resetModuleCalls();
}

void ModuleFixture::TearDown() {
    Orbel::traceSinkIs(nullptr);
    Orbel::traceConfigIs("");
    if (module_) module_->clearTables();
}

Orbel::Ptr<GenericAgent::Config> ModuleFixture::config(const char* daemon) {
    return GenericAgent::Config::configFactory(daemon);
}

Orbel::Ptr<GenericAgent::Status> ModuleFixture::status(const char* daemon) {
    return GenericAgent::Status::statusFactory(daemon);
}

} // namespace ModuleTest

// velmar-bench-model: microbenchmarks (Google Benchmark) of the state model and of the
// module's hot callbacks, at 100 to 1,000,000 rows of the option table.
//
//   DaemonMib/Insert     optionTableIs of every row into an empty container, per row
//   DaemonMib/Lookup     optionTable().find of an existing key, in random order
//   DaemonMib/Delete     optionTableDel of every row, per row
//   DaemonMib/Iterate    a walk of the whole map with its iterator, per row
//   Module/FirstRowHint  the first-row callback with an exact hint (a random existing
//                        row), then the free-at-end callback: what a GET or a GETNEXT of
//                        an existing row costs the module before the handler
//   Module/FirstRowNoHint the same without a hint (the walk starts at the first row)
//   Module/HandlerGet    the request handler answering a GET from a data context
//   Trace/LevelOff       a trace call whose level is off (its argument is never evaluated)
//
// The module is loaded through the plugin layer into an agent library initialised without
// network, exactly as in the module tests. Rows are the generated ones (BenchRows.h).
//
//   velmar-bench-model [--max-rows N] [Google Benchmark flags, e.g. --benchmark_min_time=0.1]
#include "BenchRows.h"

#include "GenericAgent/GenericAgentSnmp.h"
#include "feed/core/StateFeed.h"
#include "feed/file/FileSource.h"
#include "feed/file/StateReader.h"
#include "orbel/TraceHandle.h"
#include "snmp/HandlerRegistration.h"
#include "statebase/Statebase.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#ifndef VELMAR_MODULE_PATH
#error "VELMAR_MODULE_PATH must name the built module"
#endif

namespace {

using GenericAgent::DaemonMib;
using GenericAgent::OptionTableIndex;

std::size_t maxRows = 1000000;

// Generated option rows of every size asked for, made once.
const std::vector<Bench::Row>& rowsOf(std::size_t n) {
    static std::map<std::size_t, std::vector<Bench::Row>> cache;
    auto it = cache.find(n);
    if (it == cache.end()) {
        Bench::StateShape shape;
        shape.optionRows = n;
        shape.dataRows = 0;
        it = cache.emplace(n, Bench::optionRows(Bench::makeState(shape))).first;
    }
    return it->second;
}

// The rows as model keys, and one Config they all refer to.
struct Keys {
    std::vector<OptionTableIndex> keys;
    std::vector<std::size_t> order; // a random permutation
    Orbel::Ptr<GenericAgent::Config> config = GenericAgent::Config::configFactory("bench");
};

const Keys& keysOf(std::size_t n) {
    static std::map<std::size_t, std::unique_ptr<Keys>> cache;
    auto it = cache.find(n);
    if (it == cache.end()) {
        auto k = std::make_unique<Keys>();
        for (const Bench::Row& r : rowsOf(n)) k->keys.emplace_back(Snmp::String(r.name), Snmp::String(r.key));
        k->order.resize(n);
        for (std::size_t i = 0; i < n; ++i) k->order[i] = i;
        Bench::Random rnd(11);
        for (std::size_t i = n; i > 1; --i) std::swap(k->order[i - 1], k->order[rnd.below(i)]);
        it = cache.emplace(n, std::move(k)).first;
    }
    return *it->second;
}

Orbel::Ptr<DaemonMib> filledMib(const Keys& k) {
    Orbel::Ptr<DaemonMib> mib = GenericAgent::daemonMibFactory("bench");
    for (const OptionTableIndex& key : k.keys) mib->optionTableIs(key, k.config);
    return mib;
}

void DaemonMibInsert(benchmark::State& state) {
    const Keys& k = keysOf(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        Orbel::Ptr<DaemonMib> mib = GenericAgent::daemonMibFactory("bench");
        state.ResumeTiming();
        for (std::size_t i : k.order) mib->optionTableIs(k.keys[i], k.config);
        state.PauseTiming();
        mib = nullptr;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(k.keys.size()));
}

void DaemonMibLookup(benchmark::State& state) {
    const Keys& k = keysOf(static_cast<std::size_t>(state.range(0)));
    Orbel::Ptr<DaemonMib> mib = filledMib(k);
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(mib->optionTable().find(k.keys[k.order[i]]));
        if (++i == k.order.size()) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}

void DaemonMibDelete(benchmark::State& state) {
    const Keys& k = keysOf(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        Orbel::Ptr<DaemonMib> mib = filledMib(k);
        state.ResumeTiming();
        for (std::size_t i : k.order) benchmark::DoNotOptimize(mib->optionTableDel(k.keys[i]));
        state.PauseTiming();
        mib = nullptr;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(k.keys.size()));
}

void DaemonMibIterate(benchmark::State& state) {
    const Keys& k = keysOf(static_cast<std::size_t>(state.range(0)));
    Orbel::Ptr<DaemonMib> mib = filledMib(k);
    for (auto _ : state) {
        std::size_t n = 0;
        for (auto it = mib->optionTable().begin(); !it.isEnd(); ++it) n += it->key().size();
        benchmark::DoNotOptimize(n);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(k.keys.size()));
}

// ---------------------------------------------------------------------------------------
// The module, loaded once; its DaemonMib refilled for each size.

class ModuleFixture {
public:
    static ModuleFixture& instance() {
        static ModuleFixture f;
        return f;
    }

    // Serves exactly the generated state of n option rows.
    void rowsAre(std::size_t n) {
        if (n == rows_) return;
        applier_.reset();
        mib_->enabledTableDelAll();
        mib_->optionTableDelAll();
        mib_->runningTableDelAll();
        mib_->dataTableDelAll();
        Bench::StateShape shape;
        shape.optionRows = n;
        shape.dataRows = 0;
        const Feed::LauncherState s = Bench::makeState(shape);
        applier_ = std::make_unique<Feed::StateApplier>(mib_);
        applier_->apply(Feed::diffStates({}, s));
        rows_ = n;
    }

    netsnmp_iterator_info* iterator() const { return iinfo_; }
    Netsnmp_Node_Handler* handler() const { return handler_; }
    const DaemonMib& mib() const { return *mib_; }

private:
    ModuleFixture() {
        setenv("MIBS", "", 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 0);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
        init_agent("velmar-bench-model");
        init_snmp("velmar-bench-model");
        mib_ = GenericAgent::daemonMibFactory("daemonMIB");
        Statebase::root()->entityIs(GenericAgent::daemonMibStatePath, mib_);
        loader_ = std::make_unique<Snmp::ModuleLoader>(VELMAR_MODULE_PATH);
        loader_->initContext("");
        const std::vector<oid> root = {1, 3, 6, 1, 4, 1, VELMAR_ENTERPRISE_NUMBER, 3, 17, 1, 2};
        netsnmp_subtree* s = netsnmp_subtree_find(root.data(), root.size(), nullptr, "");
        netsnmp_mib_handler* h = s ? netsnmp_find_handler_by_name(s->reginfo, TABLE_ITERATOR_NAME) : nullptr;
        if (!h) throw std::runtime_error("the option table is not registered");
        iinfo_ = static_cast<netsnmp_iterator_info*>(h->myvoid);
        void* module = dlopen(VELMAR_MODULE_PATH, RTLD_NOW | RTLD_NOLOAD);
        const std::string name = "velmarDaemonOptionTable_handler";
        const std::string symbol = "_Z" + std::to_string(name.size()) + name +
                                   "P21netsnmp_mib_handler_sP30netsnmp_handler_registration_sP28netsnmp_agent_"
                                   "request_info_sP22netsnmp_request_info_s";
        handler_ = module ? reinterpret_cast<Netsnmp_Node_Handler*>(dlsym(module, symbol.c_str())) : nullptr;
        if (!handler_) throw std::runtime_error("the module does not export " + symbol);
    }

    Orbel::Ptr<DaemonMib> mib_;
    std::unique_ptr<Snmp::ModuleLoader> loader_;
    std::unique_ptr<Feed::StateApplier> applier_;
    std::size_t rows_ = static_cast<std::size_t>(-1);
    netsnmp_iterator_info* iinfo_ = nullptr;
    Netsnmp_Node_Handler* handler_ = nullptr;
};

// A parsed index as the table helper hands it over (the hint).
struct Hint {
    netsnmp_table_request_info info{};
    Hint(const std::string& name, const std::string& key) {
        info.number_indexes = 2;
        snmp_varlist_add_variable(&info.indexes, nullptr, 0, ASN_OCTET_STR, name.data(), name.size());
        snmp_varlist_add_variable(&info.indexes, nullptr, 0, ASN_OCTET_STR, key.data(), key.size());
    }
    ~Hint() { snmp_free_varbind(info.indexes); }
    Hint(const Hint&) = delete;
    Hint& operator=(const Hint&) = delete;
};

std::vector<std::unique_ptr<Hint>> hintsOf(std::size_t n, std::size_t count) {
    const std::vector<Bench::Row>& rows = rowsOf(n);
    std::vector<std::unique_ptr<Hint>> hints;
    Bench::Random r(5);
    for (std::size_t i = 0; i < count; ++i) {
        const Bench::Row& row = rows[r.below(rows.size())];
        hints.push_back(std::make_unique<Hint>(row.name, row.key));
    }
    return hints;
}

void firstRow(benchmark::State& state, bool withHint) {
    const std::size_t n = static_cast<std::size_t>(state.range(0));
    ModuleFixture& f = ModuleFixture::instance();
    f.rowsAre(n);
    netsnmp_iterator_info* ii = f.iterator();
    netsnmp_variable_list* put = snmp_clone_varbind(ii->table_reginfo->indexes);
    const auto hints = hintsOf(n, 1024);
    std::size_t i = 0;
    for (auto _ : state) {
        void* loop = withHint ? static_cast<void*>(&hints[i]->info) : nullptr;
        void* data = nullptr;
        benchmark::DoNotOptimize(ii->get_first_data_point(&loop, &data, put, ii));
        ii->free_loop_context_at_end(loop, ii);
        i = (i + 1) & 1023;
    }
    snmp_free_varbind(put);
    state.SetItemsProcessed(state.iterations());
}

void ModuleFirstRowHint(benchmark::State& state) {
    firstRow(state, true);
}
void ModuleFirstRowNoHint(benchmark::State& state) {
    firstRow(state, false);
}

void ModuleHandlerGet(benchmark::State& state) {
    const std::size_t n = static_cast<std::size_t>(state.range(0));
    ModuleFixture& f = ModuleFixture::instance();
    f.rowsAre(n);
    netsnmp_iterator_info* ii = f.iterator();
    netsnmp_variable_list* put = snmp_clone_varbind(ii->table_reginfo->indexes);
    // 1024 requests as the iterator leaves them for the handler: table information with
    // the column, and a data context on a random row.
    constexpr std::size_t count = 1024;
    const auto hints = hintsOf(n, count);
    std::vector<netsnmp_request_info*> requests;
    std::vector<std::unique_ptr<netsnmp_table_request_info>> tables;
    std::vector<void*> contexts;
    netsnmp_agent_request_info reqinfo{};
    reqinfo.mode = MODE_GET;
    const oid name[] = {1, 3, 6, 1, 4, 1, VELMAR_ENTERPRISE_NUMBER, 3, 17, 1, 2, 1, 3, 1, 97, 1, 98};
    for (std::size_t i = 0; i < count; ++i) {
        void* loop = &hints[i]->info;
        void* data = nullptr;
        ii->get_first_data_point(&loop, &data, put, ii);
        contexts.push_back(ii->make_data_context(loop, ii));
        ii->free_loop_context_at_end(loop, ii);
        auto* r = static_cast<netsnmp_request_info*>(calloc(1, sizeof(netsnmp_request_info)));
        snmp_varlist_add_variable(&r->requestvb, name, sizeof name / sizeof name[0], ASN_NULL, nullptr, 0);
        r->agent_req_info = &reqinfo;
        auto table = std::make_unique<netsnmp_table_request_info>();
        table->colnum = 3;
        netsnmp_request_add_list_data(r, netsnmp_create_data_list(TABLE_HANDLER_NAME, table.get(), nullptr));
        netsnmp_request_add_list_data(r, netsnmp_create_data_list(TABLE_ITERATOR_NAME, contexts.back(), nullptr));
        tables.push_back(std::move(table));
        requests.push_back(r);
    }
    std::size_t i = 0;
    for (auto _ : state) {
        requests[i]->processed = 0;
        benchmark::DoNotOptimize(f.handler()(nullptr, nullptr, &reqinfo, requests[i]));
        i = (i + 1) & (count - 1);
    }
    for (std::size_t j = 0; j < count; ++j) {
        netsnmp_free_request_data_sets(requests[j]);
        snmp_free_varbind(requests[j]->requestvb);
        free(requests[j]);
        ii->free_data_context(contexts[j], ii);
    }
    snmp_free_varbind(put);
    state.SetItemsProcessed(state.iterations());
}

// ---------------------------------------------------------------------------------------

int sideEffects = 0;
int sideEffect() {
    return ++sideEffects;
}

void TraceLevelOff(benchmark::State& state) {
    static Orbel::TraceHandle handle("VelmarBench", false);
    for (auto _ : state) {
        ORBEL_TRACE(handle, 2, "row " << sideEffect() << " of " << state.iterations());
        benchmark::ClobberMemory();
    }
    if (sideEffects != 0) state.SkipWithError("a trace argument was evaluated with its level off");
    state.SetItemsProcessed(state.iterations());
}

void sizes(benchmark::internal::Benchmark* b) {
    for (std::size_t n = 100; n <= maxRows; n *= 10) b->Arg(static_cast<std::int64_t>(n));
}

} // namespace

int main(int argc, char** argv) {
    // Our own flag first; the rest is Google Benchmark's.
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--max-rows") == 0 && i + 1 < argc) {
            maxRows = std::stoul(argv[++i]);
            continue;
        }
        rest.push_back(argv[i]);
    }
    int restCount = static_cast<int>(rest.size());
    Orbel::traceConfigIs("");
    benchmark::RegisterBenchmark("DaemonMib/Insert", DaemonMibInsert)->Apply(sizes)->Unit(benchmark::kNanosecond);
    benchmark::RegisterBenchmark("DaemonMib/Lookup", DaemonMibLookup)->Apply(sizes);
    benchmark::RegisterBenchmark("DaemonMib/Delete", DaemonMibDelete)->Apply(sizes);
    benchmark::RegisterBenchmark("DaemonMib/Iterate", DaemonMibIterate)->Apply(sizes);
    benchmark::RegisterBenchmark("Module/FirstRowHint", ModuleFirstRowHint)->Apply(sizes);
    benchmark::RegisterBenchmark("Module/FirstRowNoHint", ModuleFirstRowNoHint)->Apply(sizes);
    benchmark::RegisterBenchmark("Module/HandlerGet", ModuleHandlerGet)->Apply(sizes);
    benchmark::RegisterBenchmark("Trace/LevelOff", TraceLevelOff);
    benchmark::Initialize(&restCount, rest.data());
    if (benchmark::ReportUnrecognizedArguments(restCount, rest.data())) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

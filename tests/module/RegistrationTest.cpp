// The module's front door: announcement to the plugin layer at load, initialisation per
// context, and unregistration.
#include "ModuleHarness.h"

#include <gmock/gmock.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>

using namespace ModuleTest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

// The source line of the initialisation debug message.
int initDebugSourceLine() {
    std::ifstream in(VELMAR_MODULE_SOURCE);
    std::string line;
    for (int n = 1; std::getline(in, line); ++n)
        if (line.find("debugLine(__func__, __LINE__, \"Initializing in context") != std::string::npos) return n;
    return -1;
}

std::string refusal(Table t, const char* context) {
    return facts(t).initialize() + " in context \"" + context + "\" statebasePathWithContext not specified ";
}

} // namespace

// Loads the module and unloads it again, reporting on standard error what the plugin
// layer saw, and ends the process.
[[noreturn]] void loadAndUnloadAndReport() {
    Snmp::PluginRegistry& registry = Snmp::PluginRegistry::instance();
    const std::size_t announced = registry.announced(), withdrawn = registry.withdrawn();
    const std::size_t present = registry.registrations().size();
    Snmp::ModuleLoader loader(modulePath);
    const std::size_t a1 = registry.announced() - announced, w1 = registry.withdrawn() - withdrawn;
    const std::size_t n1 = registry.registrations().size() - present;
    const std::size_t mine = loader.registrations().size();
    const bool listed = mine == 1 && registry.registrations().back() == loader.registrations().front();
    loader.unload();
    const std::size_t a2 = registry.announced() - announced, w2 = registry.withdrawn() - withdrawn;
    const std::size_t n2 = registry.registrations().size() - present;
    std::fprintf(stderr, "loaded: announced +%zu withdrawn +%zu listed +%zu loader %zu %s\n", a1, w1, n1, mine,
                 listed ? "same" : "other");
    std::fprintf(stderr, "unloaded: announced +%zu withdrawn +%zu listed +%zu\n", a2, w2, n2);
    std::fflush(stderr);
    _exit(0);
}

// Runs in a fresh process (the module must not be loaded yet): loading announces exactly
// one registration, unloading withdraws it.
TEST(ModuleLoad, AnnouncesOneRegistrationAndUnloadingWithdrawsIt) {
    EXPECT_EXIT(loadAndUnloadAndReport(), testing::ExitedWithCode(0),
                "loaded: announced \\+1 withdrawn \\+0 listed \\+1 loader 1 same\n"
                "unloaded: announced \\+1 withdrawn \\+1 listed \\+0\n");
}

TEST_F(ModuleFixture, LoadingAnnouncedOneRegistration) {
    EXPECT_EQ(module().announcedByLoad(), 1u);
}

TEST_F(ModuleFixture, DefaultContextSetsUpTheFourTablesInOrder) {
    std::vector<std::string> expected;
    for (Table t : allTables) {
        expected.push_back(facts(t).initialize() + " initializing oid " + oidText(tableOid(t)) + " in context \"\"");
        expected.push_back(std::string("Initialized table ") + facts(t).name + " in context \"\"");
    }
    std::vector<std::string> seen;
    std::vector<unsigned> levels;
    for (const Line& l : module().initTrace()) {
        seen.push_back(l.text);
        levels.push_back(l.level);
    }
    EXPECT_EQ(seen, expected);
    EXPECT_THAT(levels, ElementsAre(1, 8, 1, 8, 1, 8, 1, 8));
    for (Table t : allTables) EXPECT_NE(module().registration(t), nullptr) << facts(t).name;
}

TEST_F(ModuleFixture, DebugOutputShowsTracePositionBeforeTheInitialisationLine) {
    const int line = initDebugSourceLine();
    ASSERT_GT(line, 0) << "initialisation debug call not found in " << VELMAR_MODULE_SOURCE;
    const std::string expected = "trace: init_VelmarDaemonMIB(): VelmarDaemonMIB, " + std::to_string(line) +
                                 ":\nVelmarDaemonMIB: Initializing in context \"\"\n";
    const std::string& debug = module().initDebug();
    EXPECT_EQ(debug.substr(0, expected.size()), expected) << debug;
    // One message under the module's token, nothing else of the module's.
    EXPECT_EQ(debug.find("VelmarDaemonMIB: "), debug.rfind("VelmarDaemonMIB: "));
}

TEST_F(ModuleFixture, NamedContextWritesTheDebugLineAndRegistersNothing) {
    std::string debug;
    TraceCapture trace("Snmp/0-2,8");
    {
        DebugCapture capture;
        module().init("ctxA");
        debug = capture.text();
    }
    const std::string expected = "trace: init_VelmarDaemonMIB(): VelmarDaemonMIB, " +
                                 std::to_string(initDebugSourceLine()) +
                                 ":\nVelmarDaemonMIB: Initializing in context \"ctxA\"\n";
    EXPECT_EQ(debug.substr(0, expected.size()), expected) << debug;

    std::vector<std::string> refusals;
    for (Table t : allTables) refusals.push_back(refusal(t, "ctxA"));
    EXPECT_EQ(trace.textsAt(2), refusals);
    EXPECT_TRUE(trace.textsAt(0).empty());
    EXPECT_TRUE(trace.textsAt(8).empty());
    for (Table t : allTables) {
        const std::vector<oid> o = tableOid(t);
        EXPECT_EQ(netsnmp_subtree_find(o.data(), o.size(), nullptr, "ctxA"), nullptr) << facts(t).name;
    }
}

TEST_F(ModuleFixture, DebuggingOffWritesNoDebugLine) {
    LogCapture log;
    ASSERT_EQ(snmp_get_do_debugging(), 0);
    module().init("quiet");
    EXPECT_THAT(log.text(), Not(HasSubstr("Initializing in context")));
    EXPECT_THAT(log.text(), Not(HasSubstr("init_VelmarDaemonMIB")));
}

TEST_F(ModuleFixture, UnregisteringTheDefaultContextLeavesTheTablesRegistered) {
    netsnmp_handler_registration* before[4];
    for (Table t : allTables) before[static_cast<int>(t)] = module().registration(t);

    auto cfg = config("bgpd");
    cfg->enabledIs(true);
    mib().enabledTableIs("bgpd", cfg);

    TraceCapture trace("Snmp/0-2,8");
    module().unregister("");
    ASSERT_EQ(trace.lines().size(), 1u);
    EXPECT_EQ(trace.lines()[0].level, 2u);
    EXPECT_EQ(trace.lines()[0].function, "unregister_VelmarDaemonMIB");
    EXPECT_EQ(trace.lines()[0].text, "Unregistering VelmarDaemonMIB in context \"\"");

    for (Table t : allTables) EXPECT_EQ(module().registration(t), before[static_cast<int>(t)]) << facts(t).name;
    // Still answering.
    RequestList list(MODE_GET);
    netsnmp_request_info* r = list.add(rowOid(Table::enabled, 2, "bgpd"));
    EXPECT_EQ(list.callChain(module().registration(Table::enabled)), SNMP_ERR_NOERROR);
    EXPECT_EQ(r->requestvb->type, ASN_INTEGER);
    EXPECT_EQ(integer(r->requestvb), 1);
}

TEST_F(ModuleFixture, UnregisteringAnUnknownContextReturnsQuietly) {
    netsnmp_handler_registration* before[4];
    for (Table t : allTables) before[static_cast<int>(t)] = module().registration(t);
    TraceCapture trace("Snmp/0-2,8");
    // Through the plugin layer, which finds the entry point by its symbol.
    module().loader().unregisterContext("neverInitialised");
    EXPECT_THAT(trace.texts(), ElementsAre("Unregistering VelmarDaemonMIB in context \"neverInitialised\""));
    EXPECT_EQ(trace.lines().at(0).level, 2u);
    for (Table t : allTables) EXPECT_EQ(module().registration(t), before[static_cast<int>(t)]) << facts(t).name;
    // And again: nothing was left behind for it.
    trace.clear();
    module().unregister("neverInitialised");
    EXPECT_EQ(trace.texts().size(), 1u);
}

TEST(ModuleInitDeathTest, SecondDefaultContextInitialisationStopsTheProcess) {
    EXPECT_DEATH({ Module::instance().init(""); },
                 "VelmarDaemonMIB:[0-9]+: void initialize_table_velmarDaemonEnabledTable\\(Orbel::String\\): "
                 "Assertion `result == 0' failed");
}

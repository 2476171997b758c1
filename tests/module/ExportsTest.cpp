// The module's dynamic symbol table: the entry points, the set-up functions and the
// request handlers, under names that encode their argument types, and nothing else.
#include "ModuleHarness.h"

#include <gmock/gmock.h>

#include <sys/wait.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <vector>

using namespace ModuleTest;

namespace {

// Runs a command and returns its standard output and exit status.
std::pair<std::string, int> run(const std::string& command) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (!p) return {out, -1};
    char buffer[4096];
    while (std::fgets(buffer, sizeof buffer, p)) out += buffer;
    const int status = pclose(p);
    return {out, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

struct Symbol {
    char type;
    std::string name;
};

// The defined dynamic symbols, from "ADDRESS TYPE NAME" lines (the name may hold spaces).
std::vector<Symbol> definedSymbols(const std::string& nmOutput) {
    std::vector<Symbol> symbols;
    std::istringstream in(nmOutput);
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t first = line.find(' ');
        if (first == std::string::npos || first + 3 > line.size() || line[first + 2] != ' ') continue;
        symbols.push_back({line[first + 1], line.substr(first + 3)});
    }
    return symbols;
}

} // namespace

TEST(ModuleExports, OnlyEntryPointsSetUpFunctionsAndHandlersAreExported) {
    if (run("command -v nm >/dev/null 2>&1").second != 0) GTEST_SKIP() << "nm is not installed; cannot list exports";
    const auto [out, status] = run(std::string("nm -C -D --defined-only '") + modulePath + "'");
    ASSERT_EQ(status, 0) << out;
    const std::string handlerArgs =
        "(netsnmp_mib_handler_s*, netsnmp_handler_registration_s*, "
        "netsnmp_agent_request_info_s*, netsnmp_request_info_s*)";
    const std::set<std::string> expected = {
        "init_VelmarDaemonMIB(Orbel::String)",
        "unregister_VelmarDaemonMIB(Orbel::String)",
        "initialize_table_velmarDaemonEnabledTable(Orbel::String)",
        "initialize_table_velmarDaemonOptionTable(Orbel::String)",
        "initialize_table_velmarDaemonRunningTable(Orbel::String)",
        "initialize_table_velmarDaemonDataTable(Orbel::String)",
        "velmarDaemonEnabledTable_handler" + handlerArgs,
        "velmarDaemonOptionTable_handler" + handlerArgs,
        "velmarDaemonRunningTable_handler" + handlerArgs,
        "velmarDaemonDataTable_handler" + handlerArgs,
    };
    // Objects that the standard library's headers define with vague linkage and default
    // visibility (std::piecewise_construct in an unoptimised build) come out as unique
    // globals ('u') whenever the compiler keeps them; they are the library's, not entry
    // points of the module, and are left out of the comparison.
    std::set<std::string> names;
    for (const Symbol& s : definedSymbols(out)) {
        if (s.type == 'u' && s.name.rfind("std::", 0) == 0) continue;
        names.insert(s.name);
    }
    EXPECT_EQ(names, expected) << out;
    for (const std::string& n : names) {
        EXPECT_EQ(n.find("_data_point"), std::string::npos) << n;
        EXPECT_EQ(n.find("_data_context"), std::string::npos) << n;
        EXPECT_EQ(n.find("IterationHelper"), std::string::npos) << n;
    }
}

TEST(ModuleExports, PluginLayerFindsTheUnregisterEntryPointBySymbol) {
    if (run("command -v nm >/dev/null 2>&1").second != 0) GTEST_SKIP() << "nm is not installed; cannot list exports";
    const auto [out, status] = run(std::string("nm -D --defined-only '") + modulePath + "'");
    ASSERT_EQ(status, 0) << out;
    EXPECT_NE(out.find(" T " + Snmp::unregisterSymbol("VelmarDaemonMIB") + "\n"), std::string::npos) << out;
    EXPECT_NE(out.find(" T " + stringFunctionSymbol("init_VelmarDaemonMIB") + "\n"), std::string::npos) << out;
    for (Table t : allTables) EXPECT_NE(out.find(" T " + handlerSymbol(t) + "\n"), std::string::npos) << out;
}

// A minimal master agent for tests that need rows the state feed never serves (such as an
// option whose value is empty): builds the DaemonMib straight from a fixture, with a row
// for every key, loads the module through the plugin loader and serves on one UDP port
// of 127.0.0.1 until SIGTERM.
//
//   velmar-test-host MODULE FIXTURE PORT [CONTEXT...]
#include "feed/core/StateFeed.h"
#include "feed/file/FileSource.h"
#include "feed/file/StateReader.h"

#include "GenericAgent/GenericAgentSnmp.h"
#include "snmp/HandlerRegistration.h"
#include "statebase/Statebase.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

extern "C" void init_vacm_conf(void);

namespace {
volatile sig_atomic_t stop = 0;
void onSignal(int) {
    stop = 1;
}
} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::cerr << "usage: velmar-test-host MODULE FIXTURE PORT [CONTEXT...]\n";
        return 2;
    }
    std::ifstream in(argv[2]);
    std::stringstream text;
    text << in.rdbuf();
    Feed::LauncherState state;
    try {
        state = Feed::parseState(text.str(), argv[2]);
    } catch (const std::exception& e) {
        std::cerr << e.what() << "\n";
        return 1;
    }
    using namespace GenericAgent;
    auto mib = daemonMibFactory("daemonMIB");
    Statebase::root()->entityIs(GenericAgent::daemonMibStatePath, mib);
    for (const auto& [name, d] : state) {
        Orbel::Ptr<Config> cfg;
        Orbel::Ptr<Status> st;
        if (d.hasConfig) {
            cfg = Config::configFactory(Orbel::Name(name));
            cfg->enabledIs(d.enabled);
            for (const auto& [k, v] : d.options) {
                cfg->optionIs(AgentKey(Orbel::String(k)), AgentVal(Orbel::String(v)));
                mib->optionTableIs(OptionTableIndex(Snmp::String(name), Snmp::String(k)), cfg);
            }
        }
        if (d.hasStatus) {
            st = Status::statusFactory(Orbel::Name(name));
            st->runningIs(d.running);
            for (const auto& [k, v] : d.data) {
                st->dataIs(AgentKey(Orbel::String(k)), AgentVal(Orbel::String(v)));
                mib->dataTableIs(DataTableIndex(Snmp::String(name), Snmp::String(k)), st);
            }
        }
        mib->enabledTableIs(Snmp::String(name), cfg);
        mib->runningTableIs(Snmp::String(name), st);
    }

    // A private directory in $TMPDIR (or /tmp) for the configuration and Net-SNMP's
    // persistent files; removed with everything in it at exit.
    std::string dir = (std::filesystem::temp_directory_path() / "velmar-test-host.XXXXXX").string();
    if (!mkdtemp(dir.data())) return 1;
    const std::string conf = dir + "/access.conf";
    std::ofstream(conf) << "rocommunity public 127.0.0.1\nrwcommunity private 127.0.0.1\n";
    setenv("MIBS", "", 1);
    snmp_enable_stderrlog();
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_CONFIGURATION_DIR, dir.c_str());
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR, dir.c_str());
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_OPTIONALCONFIG, conf.c_str());
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS, 1);
    const std::string port = std::string("udp:127.0.0.1:") + argv[3];
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, port.c_str());
    init_agent("velmar-test-host");
    init_vacm_conf();
    init_snmp("velmar-test-host");
    if (init_master_agent() != 0) {
        std::cerr << "cannot listen on " << port << "\n";
        return 1;
    }
    int status = 0;
    {
        Snmp::ModuleLoader module(argv[1]);
        module.initContext("");
        for (int i = 4; i < argc; ++i) module.initContext(argv[i]);
        struct sigaction sa {};
        sa.sa_handler = onSignal; // no SA_RESTART, so the select loop wakes up
        sigaction(SIGTERM, &sa, nullptr);
        sigaction(SIGINT, &sa, nullptr);
        std::cout << "velmar-test-host: serving on " << port << std::endl;
        while (!stop) agent_check_and_process(1);
        while (!module.contexts().empty()) module.unregisterContext(module.contexts().back());
        snmp_shutdown("velmar-test-host");
        module.unload();
    }
    Statebase::root()->entityDelAll();
    std::error_code ec;
    std::filesystem::remove_all(dir, ec); // snmp_shutdown saved velmar-test-host.conf there
    return status;
}

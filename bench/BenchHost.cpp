// velmar-bench-host: one agent process that serves the same launcher state four ways, so
// that a client can measure them side by side on equal terms:
//
//   module     VelmarDaemonMIB.so, loaded through the plugin layer over a DaemonMib filled
//              by the state feed (exactly what velmar-snmp-agent does): enterprises.E.3.17
//   container  the table_container baseline over the same option rows: enterprises.32473.99.2.1.2
//   naive      the generated-code iterator baseline (rows shuffled):   enterprises.32473.99.3.1.2
//   floor      the constant handler (no lookup):                       enterprises.32473.99.4.1.2
//
// Standalone it listens on its own addresses with read-only community "public" from
// 127.0.0.1 and a view of everything; with --agentx it is a subagent of a running snmpd.
// It prints "ready" on standard output once it serves, and stops on SIGTERM or SIGINT.
//
//   velmar-bench-host --state rows.json --module build/release/modules/VelmarDaemonMIB.so
//       --listen udp:127.0.0.1:16100 [--ways module,container,naive,floor]
#include "Baselines.h"
#include "BenchRows.h"

#include "feed/core/StateFeed.h"
#include "feed/file/FileSource.h"
#include "feed/file/StateReader.h"
#include "orbel/Activity.h"
#include "snmp/HandlerRegistration.h"
#include "statebase/Statebase.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <numeric>
#include <set>
#include <sstream>
#include <string>

extern "C" {
void init_vacm_conf(void);
}

namespace {

constexpr const char* appName = "velmar-bench-host";
volatile sig_atomic_t stopRequested = 0;

void onSignal(int) {
    stopRequested = 1;
}

[[noreturn]] void usage(const std::string& why) {
    std::cerr << appName << ": " << why << "\n"
              << "usage: " << appName
              << " --state FILE --module PATH (--listen ADDR | --agentx SOCKET) [--ways LIST] [--dir DIR]\n";
    std::exit(2);
}

// The typical length of a row index (sub-identifiers), for the floor's series.
std::size_t typicalIndexLength(const std::vector<Bench::Row>& rows) {
    if (rows.empty()) return 16;
    std::size_t total = 0;
    for (const Bench::Row& r : rows) total += r.name.size() + r.key.size() + 2;
    return total / rows.size();
}

std::string typicalValue(const std::vector<Bench::Row>& rows) {
    std::size_t total = 0;
    for (const Bench::Row& r : rows) total += r.value.size();
    const std::size_t n = rows.empty() ? 8 : std::max<std::size_t>(1, total / rows.size());
    return std::string(n, 'v');
}

} // namespace

int main(int argc, char** argv) {
    std::string stateFile, modulePath, listen, agentx, dir;
    std::set<std::string> ways = {"module", "container", "naive", "floor"};
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) usage(a + " needs a value");
            return argv[++i];
        };
        if (a == "--state")
            stateFile = value();
        else if (a == "--module")
            modulePath = value();
        else if (a == "--listen")
            listen = value();
        else if (a == "--agentx")
            agentx = value();
        else if (a == "--dir")
            dir = value();
        else if (a == "--ways") {
            ways.clear();
            std::stringstream s(value());
            for (std::string w; std::getline(s, w, ',');) ways.insert(w);
        } else
            usage("unknown argument " + a);
    }
    if (stateFile.empty() || modulePath.empty() || listen.empty() == agentx.empty()) usage("missing arguments");
    const bool subagent = !agentx.empty();

    // The model, filled by the state feed exactly as velmar-snmp-agent fills it.
    Orbel::Ptr<GenericAgent::DaemonMib> mib = GenericAgent::daemonMibFactory("daemonMIB");
    Statebase::root()->entityIs(GenericAgent::daemonMibStatePath, mib);
    auto feed = std::make_unique<Feed::StateFeed>(
        std::make_unique<Feed::FileSource>(stateFile), mib,
        [](Feed::Severity, const std::string& line) { std::cerr << appName << ": " << line << std::endl; });
    try {
        feed->loadInitial();
    } catch (const std::exception& e) {
        std::cerr << appName << ": " << e.what() << "\n";
        return 1;
    }
    const std::vector<Bench::Row> rows = Bench::optionRows(feed->applied());

    // Net-SNMP: only our configuration, in a private directory.
    if (dir.empty()) {
        char tmpl[] = "/tmp/velmar-bench-host.XXXXXX";
        if (!::mkdtemp(tmpl)) usage("cannot create a private directory");
        dir = tmpl;
    }
    std::filesystem::create_directories(std::filesystem::path(dir) / "cert_indexes");
    const std::string config = dir + "/bench-access.conf";
    if (!subagent) std::ofstream(config) << "rocommunity public 127.0.0.1\n";
    snmp_disable_log();
    snmp_enable_stderrlog();
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_CONFIGURATION_DIR, dir.c_str());
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR, dir.c_str());
    if (!subagent) netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_OPTIONALCONFIG, config.c_str());
    netsnmp_set_mib_directory(dir.c_str());
    setenv("MIBS", "", 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS, 1);
    if (subagent) {
        netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
        netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, agentx.c_str());
    } else {
        netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, listen.c_str());
    }
    init_agent(appName);
    if (!subagent) init_vacm_conf();
    init_snmp(appName);
    if (!subagent && init_master_agent() != 0) {
        std::cerr << appName << ": cannot listen on " << listen << "\n";
        return 1;
    }

    std::unique_ptr<Snmp::ModuleLoader> module;
    try {
        if (ways.count("module")) {
            module = std::make_unique<Snmp::ModuleLoader>(modulePath);
            module->initContext("");
        }
        if (ways.count("container")) Bench::registerContainerTable(Bench::baselineRoot(2), rows);
        if (ways.count("naive")) {
            // The generated code keeps rows in the order they arrive: here, shuffled.
            std::vector<Bench::Row> shuffled = rows;
            Bench::Random r(7);
            for (std::size_t i = shuffled.size(); i > 1; --i) std::swap(shuffled[i - 1], shuffled[r.below(i)]);
            Bench::registerNaiveIteratorTable(Bench::baselineRoot(3), shuffled);
        }
        if (ways.count("floor"))
            Bench::registerFloorHandler(Bench::baselineRoot(4), typicalIndexLength(rows), typicalValue(rows));
    } catch (const std::exception& e) {
        std::cerr << appName << ": " << e.what() << "\n";
        return 1;
    }

    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::cout << "ready " << rows.size() << " option rows" << std::endl;
    while (!stopRequested) {
        agent_check_and_process(1);
        Orbel::ActivityLoop::instance().runPending();
    }
    if (module) module->unregisterContext("");
    snmp_shutdown(appName);
    if (module) module->unload();
    feed.reset();
    Statebase::root()->entityDelAll();
    return 0;
}

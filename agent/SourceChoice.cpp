#include "SourceChoice.h"
#include "SupervisorChoice.h"

#include "feed/systemd/SystemdSource.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <stdexcept>

namespace Agent {

void addSourceOptions(CLI::App& app, AgentOptions& o) {
    app.add_flag("--systemd", o.systemd,
                 "Serve the service units of systemd, followed live over the system bus, instead of a state file: "
                 "each loaded unit NAME.service is daemon NAME (see the man page for the mapping)");
    app.add_option("--units", o.units,
                   "With --systemd: the units to serve, comma-separated shell globs on the unit name, e.g. "
                   "'ssh.service,getty@*'; only service units count. With --supervisor: the processes, globs on "
                   "NAME or GROUP:NAME (default *)")
        ->default_str(std::string(Feed::defaultUnitPatterns));
    app.add_option("--refresh", o.refresh,
                   "With --systemd: seconds between readings of what systemd announces no change of (MemoryCurrent, "
                   "CPUUsageNSec, TasksCurrent); 0: read them only when a unit starts or stops. With --supervisor: "
                   "seconds between readings of every process while no event listener is heard; 0: once a minute")
        ->check(CLI::Range(0, 86400))
        ->default_val(10);
    app.add_option("--system-bus", o.systemBus,
                   "With --systemd: the D-Bus address of the system bus, e.g. unix:path=/run/dbus/system_bus_socket")
        ->default_str("$DBUS_SYSTEM_BUS_ADDRESS, else unix:path=/run/dbus/system_bus_socket");
    app.add_flag("--serve-command-lines", o.serveCommandLines,
                 "Serve each daemon's whole command line (systemd: the option ExecStart) instead of the executable's "
                 "path only. Arguments can hold secrets (a password on a command line) and anyone who may read the "
                 "tables reads them: give it only when the tables are read by trusted managers");
    addSupervisorOptions(app, o);
}

std::string sourceProblem(const CLI::App& app, AgentOptions& o) {
    const bool state = app.get_option("--state")->count() > 0;
    o.supervisorOn = app.get_option("--supervisor")->count() > 0;
    if (int(state) + int(o.systemd) + int(o.supervisorOn) > 1)
        return "--state, --systemd and --supervisor exclude each other: give one launcher source (see --help)";
    if (!state && !o.systemd && !o.supervisorOn)
        return "no launcher source: give --state FILE, --systemd or --supervisor (see --help)";
    for (const char* name : {"--units", "--refresh"}) {
        if (app.get_option(name)->count() == 0) continue;
        if (!o.systemd && !o.supervisorOn)
            return std::string(name) + " applies to --systemd and --supervisor only (see --help)";
    }
    if (app.get_option("--system-bus")->count() > 0 && !o.systemd)
        return "--system-bus applies to --systemd only (see --help)";
    if (std::string why = supervisorProblem(app, o); !why.empty()) return why;
    for (const char* name : {"--units", "--system-bus"}) {
        const CLI::Option* opt = app.get_option(name);
        if (opt->count() > 0 && opt->as<std::string>().empty())
            return std::string(name) + " needs a value, not an empty string (see --help)";
    }
    if (o.systemd) {
        if (o.units.empty()) o.units = std::string(Feed::defaultUnitPatterns);
        try {
            Feed::parseUnitPatterns(o.units);
        } catch (const std::invalid_argument& e) {
            return "--units " + o.units + ": " + e.what();
        }
    }
    return {};
}

SourceSettings sourceSettings(const AgentOptions& o) {
    SourceSettings s;
    s.stateFile = o.stateFile;
    s.systemd = o.systemd;
    s.units = o.units;
    s.refresh = std::chrono::seconds(o.refresh);
    s.systemBus = o.systemBus;
    s.supervisor = o.supervisorOn;
    s.supervisorAddress = o.supervisor;
    s.supervisorEvents = o.supervisorEvents;
    s.supervisorAuth = o.supervisorAuth;
    s.serveCommandLines = o.serveCommandLines;
    return s;
}

std::unique_ptr<Feed::Source> makeSource(const AgentOptions& o) {
    try {
        return makeSource(sourceSettings(o));
    } catch (const std::invalid_argument& e) {
        throw std::invalid_argument(std::string("--") + e.what());
    }
}

std::string sourceText(const AgentOptions& o) {
    return sourceText(sourceSettings(o));
}

} // namespace Agent

#include "SourceChoice.h"

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
                   "'ssh.service,getty@*'; only service units count")
        ->default_str(std::string(Feed::defaultUnitPatterns));
    app.add_option("--refresh", o.refresh,
                   "With --systemd: seconds between readings of what systemd announces no change of (MemoryCurrent, "
                   "CPUUsageNSec, TasksCurrent); 0: read them only when a unit starts or stops")
        ->check(CLI::Range(0, 86400))
        ->default_val(10);
    app.add_option("--system-bus", o.systemBus,
                   "With --systemd: the D-Bus address of the system bus, e.g. unix:path=/run/dbus/system_bus_socket")
        ->default_str("$DBUS_SYSTEM_BUS_ADDRESS, else unix:path=/run/dbus/system_bus_socket");
    app.add_flag("--serve-command-lines", o.serveCommandLines,
                 "Serve each daemon's whole command line (systemd: the option ExecStart) instead of the executable's "
                 "path only. Arguments can hold secrets (a password on a command line) and anyone who may read the "
                 "tables reads them: give it only when the tables are read by trusted managers");
}

std::string sourceProblem(const CLI::App& app, AgentOptions& o) {
    const bool state = app.get_option("--state")->count() > 0;
    if (state && o.systemd) return "--state and --systemd exclude each other: give one launcher source (see --help)";
    if (!state && !o.systemd) return "no launcher source: give --state FILE or --systemd (see --help)";
    for (const char* name : {"--units", "--refresh", "--system-bus"}) {
        if (app.get_option(name)->count() == 0) continue;
        if (!o.systemd) return std::string(name) + " applies to --systemd only (see --help)";
    }
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
    s.launcher.serveCommandLines = o.serveCommandLines;
    return s;
}

std::unique_ptr<Feed::Source> makeSource(const AgentOptions& o) {
    try {
        return makeSource(sourceSettings(o));
    } catch (const std::invalid_argument& e) {
        throw std::invalid_argument(std::string("--") + e.what());
    }
}

std::string sourceText(const AgentOptions& o) { return sourceText(sourceSettings(o)); }

} // namespace Agent

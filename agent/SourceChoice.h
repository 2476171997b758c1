// Which launcher source velmar-snmp-agent serves, from its command line: a JSON state file
// (--state FILE) or the service units of systemd (--systemd, with --units, --refresh and
// --system-bus); exactly one of them. Also the words the start line uses for it.
//
//   Agent::addSourceOptions(app, opts);            // in the CLI11 app's build
//   if (auto why = Agent::sourceProblem(app, opts); !why.empty()) { ... exit 2 ... }
//   host.loadState(Agent::makeSource(opts));
//   std::cout << Agent::sourceText(opts, host.feed()->source()) << ": "
//             << Agent::servedText(*host.feed()) << "\n";
#pragma once

#include "AgentOptions.h"
#include "Serving.h"

#include "feed/core/Source.h"
#include "feed/core/StateFeed.h"

#include <memory>
#include <string>

namespace CLI {
class App;
}

namespace Agent {

// Adds --systemd, --units, --refresh and --system-bus (--state is the app's own).
void addSourceOptions(CLI::App& app, AgentOptions& opts);

// Why the source options cannot be used, as one line without the program's name, or
// empty: neither or both of --state and --systemd, --units, --refresh or --system-bus
// without --systemd, an empty or malformed value. Fills opts.units with the default when
// --systemd comes without it.
std::string sourceProblem(const CLI::App& app, AgentOptions& opts);

// The options' source, as the serving piece takes it (Serving.h).
SourceSettings sourceSettings(const AgentOptions& opts);

// The source the options name. Throws std::invalid_argument (naming the option) for a bad
// pattern list.
std::unique_ptr<Feed::Source> makeSource(const AgentOptions& opts);

// What the start line says the agent serves from: "state file PATH", or
// "systemd (system bus unix:path=/run/dbus/system_bus_socket, units *.service)".
std::string sourceText(const AgentOptions& opts);

} // namespace Agent

#include "SupervisorChoice.h"

#include "feed/supervisor/SupervisorSource.h"

#include <CLI/CLI.hpp>

#include <stdexcept>
#include <sys/un.h>

namespace Agent {

void addSupervisorOptions(CLI::App& app, AgentOptions& o) {
    app.add_option("--supervisor", o.supervisor,
                   "Serve the processes of a supervisord, over its XML-RPC interface, instead of a state file: "
                   "a Unix socket path (unix://PATH too) or http://HOST:PORT; each process is daemon GROUP:NAME, "
                   "or NAME when its group is named like it (see the man page for the mapping)")
        ->expected(0, 1)
        ->default_str(Feed::SupervisorSource::defaultSocket);
    app.add_option("--supervisor-events", o.supervisorEvents,
                   "With --supervisor: the Unix datagram socket the agent creates for velmar-supervisor-events, "
                   "supervisord's event listener, so that changes are read as they happen; without it (or while "
                   "the listener is silent) the agent reads every process each --refresh seconds");
    app.add_option("--supervisor-auth", o.supervisorAuth,
                   "With --supervisor: a file whose first line is USER:PASSWORD, for a supervisord whose "
                   "[unix_http_server] or [inet_http_server] asks for them");
}

std::string supervisorProblem(const CLI::App& app, const AgentOptions& o) {
    const bool given = app.get_option("--supervisor")->count() > 0;
    for (const char* name : {"--supervisor-events", "--supervisor-auth"}) {
        if (app.get_option(name)->count() == 0) continue;
        if (!given) return std::string(name) + " applies to --supervisor only (see --help)";
        if (app.get_option(name)->as<std::string>().empty())
            return std::string(name) + " needs a value, not an empty string (see --help)";
    }
    if (!given) return {};
    try {
        Feed::SupervisorEndpoint::parse(o.supervisor.empty() ? Feed::SupervisorSource::defaultSocket : o.supervisor);
    } catch (const std::invalid_argument& e) {
        return "--supervisor: " + std::string(e.what());
    }
    if (o.supervisorEvents.size() >= sizeof(sockaddr_un{}.sun_path))
        return "--supervisor-events " + o.supervisorEvents + ": the path is longer than a Unix socket allows (" +
               std::to_string(sizeof(sockaddr_un{}.sun_path) - 1) + " bytes)";
    if (app.get_option("--units")->count() > 0) {
        try {
            Feed::parseProcessPatterns(o.units);
        } catch (const std::invalid_argument& e) {
            return "--units " + o.units + ": " + e.what();
        }
    }
    return {};
}

} // namespace Agent

#include "SupervisorChoice.h"

#include <CLI/CLI.hpp>

#include <fstream>
#include <stdexcept>

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
    if (o.supervisorEvents.size() >= 108)
        return "--supervisor-events " + o.supervisorEvents + ": the path is longer than a Unix socket allows (107 bytes)";
    return {};
}

std::pair<std::string, std::string> readSupervisorAuth(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("--supervisor-auth " + path + ": cannot read it");
    std::string line;
    std::getline(in, line);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0)
        throw std::runtime_error("--supervisor-auth " + path + ": line 1 is not USER:PASSWORD");
    return {line.substr(0, colon), line.substr(colon + 1)};
}

Feed::SupervisorSource::Options supervisorOptions(const AgentOptions& o) {
    Feed::SupervisorSource::Options s;
    s.endpoint = Feed::SupervisorEndpoint::parse(o.supervisor.empty() ? Feed::SupervisorSource::defaultSocket
                                                                       : o.supervisor);
    try {
        s.patterns = Feed::parseProcessPatterns(o.units.empty() ? "*" : o.units);
    } catch (const std::invalid_argument& e) {
        throw std::invalid_argument("--units " + o.units + ": " + e.what());
    }
    s.eventsSocket = o.supervisorEvents;
    s.refresh = o.refresh > 0 ? std::chrono::seconds(o.refresh) : s.fullRead;   // 0: the full reads only
    s.command = o.serveCommandLines ? Feed::CommandShown::whole : Feed::CommandShown::executable;
    if (!o.supervisorAuth.empty()) std::tie(s.username, s.password) = readSupervisorAuth(o.supervisorAuth);
    return s;
}

std::string supervisorText(const AgentOptions& o) {
    std::string addr = o.supervisor.empty() ? Feed::SupervisorSource::defaultSocket : o.supervisor;
    std::string text = "supervisord (";
    try {
        text += Feed::SupervisorEndpoint::parse(addr).text();
    } catch (const std::invalid_argument&) {
        text += addr;
    }
    text += ", processes " + (o.units.empty() ? std::string("*") : o.units);
    text += o.supervisorEvents.empty() ? ", polled every " + std::to_string(o.refresh > 0 ? o.refresh : 60) + " s"
                                       : ", events " + o.supervisorEvents;
    return text + ")";
}

} // namespace Agent

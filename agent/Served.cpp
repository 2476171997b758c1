#include "Served.h"

#include "GenericAgent/GenericAgentSnmp.h"

namespace Agent {

std::string Served::text() const {
    auto plural = [](std::size_t n, const char* one, const char* many) {
        return std::to_string(n) + " " + (n == 1 ? one : many);
    };
    return plural(daemons, "daemon", "daemons") + ", " + plural(rows(), "row", "rows") + " (enabled " +
           std::to_string(enabledRows) + ", option " + std::to_string(optionRows) + ", running " +
           std::to_string(runningRows) + ", data " + std::to_string(dataRows) + ")";
}

Served servedOf(const Feed::StateFeed& feed) {
    const GenericAgent::DaemonMib& mib = *feed.applier().mib();
    Served s;
    s.daemons = feed.daemons();
    s.enabledRows = mib.enabledTable().size();
    s.optionRows = mib.optionTable().size();
    s.runningRows = mib.runningTable().size();
    s.dataRows = mib.dataTable().size();
    return s;
}

} // namespace Agent

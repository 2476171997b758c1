#include "Served.h"

namespace Agent {

std::string Served::text() const {
    auto plural = [](std::size_t n, const char* one, const char* many) {
        return std::to_string(n) + " " + (n == 1 ? one : many);
    };
    return plural(daemons, "daemon", "daemons") + ", " + plural(rows(), "row", "rows") + " (enabled " +
           std::to_string(enabledRows) + ", option " + std::to_string(optionRows) + ", running " +
           std::to_string(runningRows) + ", data " + std::to_string(dataRows) + ")";
}

Served servedOf(const Feed::LauncherState& state) {
    Served s;
    for (const auto& [name, d] : state) {
        ++s.daemons;
        ++s.enabledRows;
        ++s.runningRows;
        for (const auto& [key, value] : d.options)
            if (!value.empty()) ++s.optionRows;
        for (const auto& [key, value] : d.data)
            if (!value.empty()) ++s.dataRows;
    }
    return s;
}

} // namespace Agent

// What a feed serves: daemons and rows per table, for the
// start line, the readiness status and --check.
//
//   Agent::Served s = Agent::servedOf(*host.feed());
//   log(s.text());    // "3 daemons, 12 rows (enabled 3, option 4, running 3, data 2)"
#pragma once

#include "feed/core/StateFeed.h"

#include <cstddef>
#include <string>

namespace Agent {

struct Served {
    std::size_t daemons = 0;
    std::size_t enabledRows = 0;
    std::size_t optionRows = 0; // options with a non-empty value
    std::size_t runningRows = 0;
    std::size_t dataRows = 0; // data items with a non-empty value
    std::size_t rows() const noexcept { return enabledRows + optionRows + runningRows + dataRows; }
    std::string text() const;
};

// Counted from the rows the feed's DaemonMib holds (the sum is StateFeed::rows()).
Served servedOf(const Feed::StateFeed& feed);

} // namespace Agent

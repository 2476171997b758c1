// Telling the service manager how the agent stands (sd_notify): READY=1 once the tables
// are registered and answering, STATUS= lines, STOPPING=1, and the watchdog's keep-alive
// (WATCHDOG=1, from Net-SNMP's alarms) when the unit sets WatchdogSec=. Without
// NOTIFY_SOCKET every call does nothing.
//
//   Agent::Readiness::ready("serving 3 daemons, 12 rows on udp:127.0.0.1:161");
//   Agent::Readiness::startWatchdog();     // after the select loop's alarms work
//   ...
//   Agent::Readiness::stopping();
#pragma once

#include <cstdint>
#include <string>

namespace Agent::Readiness {

// READY=1 with the status text. Later calls only update the status.
void ready(const std::string& status);

// STATUS= only.
void status(const std::string& status);

// STOPPING=1.
void stopping();

// When the service manager asks for keep-alives (WATCHDOG_USEC for this process),
// sends WATCHDOG=1 at half that interval from Net-SNMP's alarms, and returns the
// interval asked for in microseconds; 0 otherwise.
std::uint64_t startWatchdog();

} // namespace Agent::Readiness

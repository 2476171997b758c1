// The supervisord source from the serving settings (Serving.h), whichever host filled them
// (velmar-snmp-agent's --supervisor, snmpd's velmarSupervisor), and the words the lines use
// for it.
//
//   Agent::SourceSettings s;  s.supervisor = true;  s.supervisorAddress = "/run/supervisor.sock";
//   auto source = std::make_unique<Feed::SupervisorSource>(Agent::supervisorOptions(s));
//   log(Agent::supervisorText(s));   // "supervisord (unix:///run/supervisor.sock, processes *, polled every 10 s)"
#pragma once

#include "Serving.h"

#include "feed/supervisor/SupervisorSource.h"

#include <string>
#include <utility>

namespace Agent {

// The source's options. Throws std::invalid_argument ("units PATTERNS: why", "supervisord
// address ...") for a bad value, std::runtime_error for an auth file that cannot be read or
// holds no USER:PASSWORD line.
Feed::SupervisorSource::Options supervisorOptions(const SourceSettings& settings);

// "supervisord (unix:///run/supervisor.sock, processes *, events /run/x.sock)".
std::string supervisorText(const SourceSettings& settings);

// A credentials file's first line, "USER:PASSWORD", as user and password. Throws
// std::runtime_error naming the file and what is wrong (never the content).
std::pair<std::string, std::string> readSupervisorAuth(const std::string& path);

} // namespace Agent

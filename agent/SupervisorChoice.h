// The supervisord source on velmar-snmp-agent's command line: --supervisor [URL|SOCKET],
// with --supervisor-events SOCKET (where velmar-supervisor-events sends), --supervisor-auth
// FILE (basic authentication, "USER:PASSWORD" on one line, kept off the command line), and
// the shared --units and --refresh. SourceChoice.cpp calls these; nothing else does.
#pragma once

#include "AgentOptions.h"

#include <string>

namespace CLI {
class App;
}

namespace Agent {

// Adds --supervisor, --supervisor-events and --supervisor-auth.
void addSupervisorOptions(CLI::App& app, AgentOptions& opts);

// Why the supervisord options cannot be used, as one line, or empty: an address that is
// not a socket path, unix://PATH or http://HOST:PORT; --supervisor-events or
// --supervisor-auth without --supervisor or with an empty value; an events socket path
// too long for a Unix socket; bad --units patterns.
std::string supervisorProblem(const CLI::App& app, const AgentOptions& opts);

} // namespace Agent

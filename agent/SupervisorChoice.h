// The supervisord source on velmar-snmp-agent's command line: --supervisor [URL|SOCKET],
// with --supervisor-events SOCKET (where velmar-supervisor-events sends), --supervisor-auth
// FILE (basic authentication, "user:password" on one line, kept off the command line), and
// the shared --units and --refresh. SourceChoice.h calls these; nothing else does.
#pragma once

#include "AgentOptions.h"

#include "feed/core/Source.h"
#include "feed/supervisor/SupervisorSource.h"

#include <memory>
#include <string>

namespace CLI {
class App;
}

namespace Agent {

// Adds --supervisor, --supervisor-events and --supervisor-auth.
void addSupervisorOptions(CLI::App& app, AgentOptions& opts);

// Why the supervisord options cannot be used, as one line, or empty: an address that is
// not a socket path, unix://PATH or http://HOST:PORT; --supervisor-events or
// --supervisor-auth without --supervisor; an events socket path that is too long.
std::string supervisorProblem(const CLI::App& app, const AgentOptions& opts);

// The source's options from the command line. Throws std::invalid_argument naming the
// option for a bad value, std::runtime_error for an auth file that cannot be read or
// holds no "user:password" line.
Feed::SupervisorSource::Options supervisorOptions(const AgentOptions& opts);

// "supervisord (unix:///run/supervisor.sock, processes *, events /run/x.sock)".
std::string supervisorText(const AgentOptions& opts);

// A credentials file's content as user and password: the first line, "user:password".
// Throws std::runtime_error naming the file and what is wrong.
std::pair<std::string, std::string> readSupervisorAuth(const std::string& path);

} // namespace Agent

// How a supervisord process becomes a daemon of the launcher state: which processes count,
// the daemon's name, its config (enabled, options) and its status (running, data). Pure
// functions over plain values, so that the rules are tested without a supervisord.
//
//   Feed::ProcessConfig c = Feed::processConfigOf(entryOfGetAllConfigInfo);    // may throw
//   Feed::ProcessInfo i = Feed::processInfoOf(entryOfGetAllProcessInfo);
//   if (Feed::processMatches(i.group, i.name, patterns))
//       Feed::DaemonState d = Feed::daemonStateOf(&c, &i, Feed::CommandShown::executable);
//
// The mapping (the man page's SUPERVISORD SOURCE section shows a worked example):
//   - processes: every process supervisord runs (getAllProcessInfo: programs, the processes
//     of groups, event listeners) whose name or group:name matches one of the patterns
//     (shell globs, fnmatch(3)); configurations read but not yet in use (after `reread`,
//     before `update`) are not daemons;
//   - name: "group:name" as supervisorctl prints it, or just "name" when the group is named
//     like its only process (a [program:x] with numprocs 1); a name over
//     GenericAgent::maxDaemonNameBytes cannot be an SNMP index and is skipped;
//   - config: enabled is autostart; options command (the executable, or the whole command
//     line when asked: it can hold secrets), directory, user (the uid supervisord switches
//     to), autorestart (when supervisord reports it), startsecs, startretries, stopsignal
//     (its name: TERM), priority, group;
//   - status: running while the state is RUNNING; data statename, pid (while there is
//     one), start and stop (ISO 8601 UTC; none before the first start or stop), exitstatus
//     (while EXITED or STOPPED after a run: supervisord forgets it at the next start),
//     spawnerr, description (not while RUNNING, where
//     supervisord's "pid N, uptime T" repeats pid and start and is stale once read);
//   - an unset value has no row: an empty string, supervisord's "none", pid 0, time 0.
#pragma once

#include "feed/core/LauncherState.h"

#include "XmlRpc.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Feed {

// One entry of supervisor.getAllConfigInfo.
struct ProcessConfig {
    std::string name;
    std::string group;
    bool inUse = false; // its group runs (false after reread, before update)
    bool autostart = false;
    std::string command;
    std::string directory;   // "" or "none": not set
    std::string uid;         // as reported; "none": not set
    std::string autorestart; // "" when supervisord does not report it
    std::int64_t startsecs = 0;
    std::int64_t startretries = 0;
    std::int64_t stopsignal = 0;
    std::int64_t priority = 0; // the process's priority

    friend bool operator==(const ProcessConfig&, const ProcessConfig&) = default;
};

// One entry of supervisor.getAllProcessInfo (or the value of getProcessInfo).
struct ProcessInfo {
    std::string name;
    std::string group;
    std::int64_t start = 0; // seconds since the epoch; 0: never
    std::int64_t stop = 0;
    std::int64_t state = 0; // supervisord's state code (RUNNING is 20)
    std::string statename;
    std::string spawnerr;
    std::int64_t exitstatus = 0;
    std::int64_t pid = 0;
    std::string description;

    friend bool operator==(const ProcessInfo&, const ProcessInfo&) = default;
};

// supervisord's state codes that the mapping looks at.
inline constexpr std::int64_t processStopped = 0;
inline constexpr std::int64_t processRunning = 20;
inline constexpr std::int64_t processExited = 100;

// Which part of a program's command line is served.
enum class CommandShown { executable, whole };

inline constexpr std::array<std::string_view, 9> processOptionKeys{
    "command", "directory", "user", "autorestart", "startsecs", "startretries", "stopsignal", "priority", "group"};
inline constexpr std::array<std::string_view, 7> processDataKeys{"statename",  "pid",      "start",      "stop",
                                                                 "exitstatus", "spawnerr", "description"};

// The values of one entry; throw std::invalid_argument naming the member that is missing
// or of the wrong type.
ProcessConfig processConfigOf(const XmlRpc::Value& entry);
ProcessInfo processInfoOf(const XmlRpc::Value& entry);

// "group:name", or "name" when group == name.
std::string processDaemonName(std::string_view group, std::string_view name);
// supervisord's own name for a process in calls: always "group:name".
std::string processCallName(std::string_view group, std::string_view name);

// Splits a comma-separated list of shell globs, dropping white space around each. Throws
// std::invalid_argument, naming the item, for an empty list or item.
std::vector<std::string> parseProcessPatterns(std::string_view patterns);
// True when name or group:name matches one of patterns.
bool processMatches(std::string_view group, std::string_view name, const std::vector<std::string>& patterns);

// The executable of a command line: its first word, with the shell's quotes and
// backslashes taken away as supervisord's own splitting does ("'/opt/my app/run' -x" ->
// "/opt/my app/run").
std::string commandExecutable(std::string_view command);

// "TERM" for 15; the number as text for a signal without a name.
std::string signalText(std::int64_t signal);

// Seconds since the epoch as ISO 8601 UTC ("2026-11-23T19:10:05Z"); empty for 0 or less.
std::string isoSeconds(std::int64_t seconds);

// The daemon of a process; config or info may be null (not known), not both.
DaemonState daemonStateOf(const ProcessConfig* config, const ProcessInfo* info, CommandShown command);

} // namespace Feed

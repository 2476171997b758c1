// How a systemd service unit becomes a daemon of the launcher state: which units count,
// the daemon's name, its config (enabled, options) and its status (running, data). Pure
// functions over plain values, so that the rules are tested without a bus.
//
//   Feed::UnitInfo u;                        // what the bus says of one unit
//   u.id = "ssh.service"; u.loadState = "loaded"; u.unitFileState = "enabled";
//   u.activeState = "active"; u.subState = "running"; u.mainPid = 612;
//   if (Feed::unitIsDaemon(u) && Feed::daemonNameFits(*Feed::daemonNameOf(u.id)))
//       Feed::DaemonState d = Feed::daemonStateOf(u);   // enabled, running, "MainPID" "612"
//
// The mapping (docs/systemd.md shows it with a worked example):
//   - units: service units (".service") whose name matches one of the patterns (shell
//     globs, fnmatch(3) without escapes, as systemd matches them); a template file
//     ("foo@.service") is not a daemon, its instances are. Which units are daemons over
//     time (unit files and loaded units together): UnitTracker.h;
//   - name: the unit name without ".service"; a name over GenericAgent::maxDaemonNameBytes cannot be an
//     SNMP index, and the source skips that unit (with one log line when it first sees it);
//   - config: always present; enabled per UnitFileState (unitFileEnabled); options: the
//     table of UnitProperties.h (Description, LoadState, LoadError, UnitFileState, ...,
//     ExecStart: the executable's path, or the whole command line when asked for);
//   - status: always present; running while the unit is loaded and its main process runs
//     (SubState "running" or a "reload" state); data: the table of UnitProperties.h;
//   - a unit that is only a file (systemd has not loaded it) has the options UnitFileState
//     and FragmentPath (the file's path) and is not running;
//   - an unset value has no row: an empty string, PID 0, a zero timestamp, and systemd's
//     "infinity" (UINT64_MAX) for the counters.
//   - a value longer than maxValueBytes is cut to fit at a character boundary.
#pragma once

#include "GenericAgent/GenericAgentSnmp.h"
#include "feed/core/LauncherState.h"
#include "feed/core/Text.h"
#include "launcher/AgentState.h"
#include "UnitProperties.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Feed {

// The longest value the model holds.
inline constexpr std::size_t maxValueBytes = GenericAgent::AgentVal::maxLength;

// systemd's "infinity" (and "not known") for counters and limits.
inline constexpr std::uint64_t unitInfinity = std::numeric_limits<std::uint64_t>::max();

// What the bus says of one service unit: properties of its org.freedesktop.systemd1.Unit
// and .Service interfaces, as read (strings as sent, numbers in systemd's units).
struct UnitInfo {
    std::string id; // Unit.Id, "ssh.service"
    // org.freedesktop.systemd1.Unit
    std::string description;
    std::string loadState;     // loaded, not-found, masked, bad-setting, error, stub
    std::string loadError;     // why it failed to load (LoadError's message)
    std::string activeState;   // active, reloading, inactive, failed, activating, deactivating
    std::string subState;      // for services: running, exited, dead, auto-restart, ...
    std::string unitFileState; // enabled, enabled-runtime, disabled, static, masked, transient, ...
    std::string unitFilePreset;
    std::string fragmentPath;
    std::vector<std::string> dropInPaths;
    std::uint64_t activeEnterTimestamp = 0; // microseconds since the epoch; 0: never
    std::uint64_t inactiveEnterTimestamp = 0;
    // org.freedesktop.systemd1.Service
    std::string type;
    std::string restart;
    std::string user;
    std::string execPath;               // the executable of the first ExecStart= command line
    std::vector<std::string> execStart; // its argv
    std::string result;
    std::uint32_t mainPid = 0;
    std::uint32_t nRestarts = 0;
    std::int32_t execMainCode = 0; // CLD_EXITED 1, CLD_KILLED 2, CLD_DUMPED 3
    std::int32_t execMainStatus = 0;
    std::uint64_t execMainExitTimestamp = 0; // 0: the main process has not exited
    std::uint64_t memoryCurrent = unitInfinity;
    std::uint64_t cpuUsageNSec = unitInfinity;
    std::uint64_t tasksCurrent = unitInfinity;

    friend bool operator==(const UnitInfo&, const UnitInfo&) = default;
};

// The default unit patterns: every service.
inline constexpr std::string_view defaultUnitPatterns = "*.service";

// Splits a comma-separated list of shell globs ("ssh*,getty@*"), dropping white space
// around each. Throws std::invalid_argument, naming the item, for an empty list or item.
std::vector<std::string> parseUnitPatterns(std::string_view patterns);

// True when unitId is a service unit (".service"), not a template, matching one of patterns.
bool unitMatches(std::string_view unitId, const std::vector<std::string>& patterns);

// The daemon name of a service unit id ("getty@tty1.service" -> "getty@tty1"); none for a
// unit that is not a service.
std::optional<std::string> daemonNameOf(std::string_view unitId);

// True when name can be an SNMP index: 1 to GenericAgent::maxDaemonNameBytes bytes.
bool daemonNameFits(std::string_view name);

// True when the name is a template's ("foo@.service"): a template is not a daemon.
bool isTemplateUnit(std::string_view unitId);

// True when a loaded unit with this LoadState is a daemon: loaded, not-found,
// bad-setting, error, masked ("stub" is a unit systemd only names, not yet loaded).
bool unitIsDaemon(const UnitInfo& unit);

// What velmarDaemonEnabled reads for a UnitFileState: true for enabled, enabled-runtime
// and transient (a unit made at run time to run); false for every other state (static
// and indirect too: such a unit starts only when something else pulls it in, so "not
// running" is normal for it and must not read as a daemon that should run but does not).
bool unitFileEnabled(std::string_view unitFileState);

// True while the unit is loaded and its main process runs.
bool unitRunning(const UnitInfo& unit);

// How the source writes a daemon.
struct MappingOptions {
    // ExecStart as the whole first command line instead of the executable's path.
    // Arguments can hold secrets (a password given on the command line): off by default.
    bool wholeCommandLines = false;
};

// The daemon a loaded unit is. Precondition: unitIsDaemon(unit).
DaemonState daemonStateOf(const UnitInfo& unit, const MappingOptions& options = {});

// The daemon a unit is that is only a unit file: its state and path, not running.
DaemonState daemonStateOfFile(std::string_view unitFileState, std::string_view path);

// A timestamp in microseconds since the epoch as ISO 8601 in UTC, to the second
// ("2026-11-23T19:10:05Z"); empty for 0 and unitInfinity (unset).
std::string isoTimestamp(std::uint64_t usec);

// A command line as text: the arguments separated by spaces; an argument that is empty or
// holds white space, a quote or a backslash is written in double quotes, with `"` and `\`
// escaped by a backslash ("/bin/sh -c \"sleep 1; exit 3\"" for sh, -c, sleep 1; exit 3).
std::string commandLineText(const std::vector<std::string>& argv);

} // namespace Feed

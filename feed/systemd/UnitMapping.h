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
// The mapping (the README's "systemd source" section shows a worked example):
//   - units: service units (".service") whose name matches one of the patterns (shell
//     globs, fnmatch(3) without escapes, as systemd matches them) and whose LoadState is
//     loaded, masked, bad-setting or error; "not-found" and "stub" units are not daemons;
//   - name: the unit name without ".service"; a name over GenericAgent::maxDaemonNameBytes cannot be an
//     SNMP index, and the source skips that unit (with one log line when it first sees it);
//   - config: always present; enabled when UnitFileState is "enabled" or
//     "enabled-runtime"; options (unitOptionKeys) Description, LoadState, UnitFileState,
//     UnitFilePreset, FragmentPath, DropInPaths (space-separated), Type, Restart, User,
//     ExecStart (the first command line, see commandLineText);
//   - status: always present; running while the main process runs (SubState "running" or
//     a "reload" state); data (unitDataKeys) ActiveState, SubState, Result, MainPID,
//     NRestarts, ExecMainStatus (once the main process has exited), ExecMainExitTimestamp,
//     ActiveEnterTimestamp, InactiveEnterTimestamp (isoTimestamp), MemoryCurrent (bytes),
//     CPUUsageNSec, TasksCurrent;
//   - an unset value has no row: an empty string, PID 0, a zero timestamp, and systemd's
//     "infinity" (UINT64_MAX) for the counters.
//   - a value longer than maxValueBytes is cut to fit at a character boundary.
#pragma once

#include "GenericAgent/GenericAgentSnmp.h"
#include "feed/core/LauncherState.h"
#include "launcher/AgentState.h"

#include <array>
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
    std::string id;                         // Unit.Id, "ssh.service"
    // org.freedesktop.systemd1.Unit
    std::string description;
    std::string loadState;                  // loaded, not-found, masked, bad-setting, error, stub
    std::string activeState;                // active, reloading, inactive, failed, activating, deactivating
    std::string subState;                   // for services: running, exited, dead, auto-restart, ...
    std::string unitFileState;              // enabled, enabled-runtime, disabled, static, masked, transient, ...
    std::string unitFilePreset;
    std::string fragmentPath;
    std::vector<std::string> dropInPaths;
    std::uint64_t activeEnterTimestamp = 0;     // microseconds since the epoch; 0: never
    std::uint64_t inactiveEnterTimestamp = 0;
    // org.freedesktop.systemd1.Service
    std::string type;
    std::string restart;
    std::string user;
    std::vector<std::string> execStart;     // argv of the first ExecStart= command line
    std::string result;
    std::uint32_t mainPid = 0;
    std::uint32_t nRestarts = 0;
    std::int32_t execMainStatus = 0;
    std::uint64_t execMainExitTimestamp = 0;    // 0: the main process has not exited
    std::uint64_t memoryCurrent = unitInfinity;
    std::uint64_t cpuUsageNSec = unitInfinity;
    std::uint64_t tasksCurrent = unitInfinity;

    friend bool operator==(const UnitInfo&, const UnitInfo&) = default;
};

// The option and data keys a daemon can have, in the order above. Each is far shorter than
// GenericAgent::maxIndexKeyBytes (checked at compile time), so no unit is skipped for a key.
inline constexpr std::array<std::string_view, 10> unitOptionKeys{
    "Description", "LoadState", "UnitFileState", "UnitFilePreset", "FragmentPath",
    "DropInPaths", "Type", "Restart", "User", "ExecStart"};
inline constexpr std::array<std::string_view, 12> unitDataKeys{
    "ActiveState", "SubState", "Result", "MainPID", "NRestarts", "ExecMainStatus",
    "ExecMainExitTimestamp", "ActiveEnterTimestamp", "InactiveEnterTimestamp",
    "MemoryCurrent", "CPUUsageNSec", "TasksCurrent"};

// The default unit patterns: every service.
inline constexpr std::string_view defaultUnitPatterns = "*.service";

// Splits a comma-separated list of shell globs ("ssh*,getty@*"), dropping white space
// around each. Throws std::invalid_argument, naming the item, for an empty list or item.
std::vector<std::string> parseUnitPatterns(std::string_view patterns);

// True when unitId is a service unit (".service") matching one of patterns.
bool unitMatches(std::string_view unitId, const std::vector<std::string>& patterns);

// The daemon name of a service unit id ("getty@tty1.service" -> "getty@tty1"); none for a
// unit that is not a service.
std::optional<std::string> daemonNameOf(std::string_view unitId);

// True when name can be an SNMP index: 1 to GenericAgent::maxDaemonNameBytes bytes.
bool daemonNameFits(std::string_view name);

// True when a unit with this LoadState is a daemon (see the top of this file).
bool unitIsDaemon(const UnitInfo& unit);

// True while the service's main process runs.
bool unitRunning(const UnitInfo& unit);

// The daemon a unit is. Precondition: unitIsDaemon(unit).
DaemonState daemonStateOf(const UnitInfo& unit);

// A timestamp in microseconds since the epoch as ISO 8601 in UTC, to the second
// ("2026-11-23T19:10:05Z"); empty for 0 and unitInfinity (unset).
std::string isoTimestamp(std::uint64_t usec);

// A command line as text: the arguments separated by spaces; an argument that is empty or
// holds white space, a quote or a backslash is written in double quotes, with `"` and `\`
// escaped by a backslash ("/bin/sh -c \"sleep 1; exit 3\"" for sh, -c, sleep 1; exit 3).
std::string commandLineText(const std::vector<std::string>& argv);

// s cut to at most max bytes without splitting a UTF-8 character.
std::string cutToBytes(std::string s, std::size_t max);

} // namespace Feed

// The launcher's JSON state file: reading and validating it into a Feed::LauncherState.
//
//   Feed::LauncherState state = Feed::loadStateFile("/run/launcher/state.json");  // throws Feed::StateError
//
// The file (written by the launcher, replaced atomically by write + rename):
//
//   { "daemons": {
//       "bgpd": { "config": { "enabled": true,  "options": { "asn": "65001" } },
//                 "status": { "running": true,  "data":    { "pid": "4242" } } },
//       "ntpd": { "config": { "enabled": false, "options": {} } } } }
//
// What is accepted:
//   - The top level is an object with exactly one member, "daemons" (required), an object
//     of daemons by name. A daemon is an object with the optional members "config" and
//     "status". "config" is an object with the optional members "enabled" (true or
//     false; absent means false) and "options" (an object of strings; absent means none).
//     "status" likewise has "running" and "data".
//   - Any other member at any level is refused ("unknown member"): a misspelt member would
//     otherwise silently do nothing. So is a member or key that appears twice in one
//     object, a value of another type (numbers and null included), and every JSON syntax
//     error. No arrays appear anywhere.
//   - A daemon name is 1 to 32 bytes, an option or data key at most 64 bytes (the longest
//     names the SNMP indexes carry; the 1024-byte limit of GenericAgent::AgentKey is
//     therefore never reached), a value at most 10240 bytes. Names, keys and values are
//     valid UTF-8 (escaped surrogates must pair up). Empty keys and empty values are
//     accepted.
//   - A file of at most 256 MiB; an empty one (or only white space) is refused.
//
// What is refused where: a JSON syntax error, a wrong top level (not an object, a member
// other than "daemons", "daemons" missing, twice or not an object), and a file that cannot
// be read, is empty or too big refuse the whole file (StateError). A problem inside one
// daemon's entry (a wrong type, an unknown or repeated member, an over-long or non-UTF-8
// key or value, a name that cannot be an index: empty, over 32 bytes, not UTF-8) and a
// daemon named twice refuse that daemon only, when the caller collects SkippedDaemons:
// every other daemon is read as usual, and the skipped one is left out of the result
// (a caller that serves state keeps serving what it had for it). Without SkippedDaemons
// the first such problem refuses the whole file, for callers that want all or nothing.
//
// Messages (StateError::what() and every line given to the log callback) are one line
// each and start with `state file PATH: `; refusals name the daemon and key where there
// is one and the line, or the line and column for JSON syntax, e.g.
//   state file /x/state.json: daemon "bgpd" option "asn": value is 10241 bytes, more than 10240 (line 7)
//   state file /x/state.json: line 3, column 14: invalid JSON: missing a colon after a name of object member
// Lines and columns count from 1; a column counts bytes. Names and keys in messages are
// quoted, with `"`, `\`, control characters and bytes that are not UTF-8 escaped (`\"`,
// `\\`, `\n`, `\xHH`), and cut after 64 bytes (`...`).
//
// Threads: nothing here touches the model; every function may run on any thread.
#pragma once

#include "feed/core/LauncherState.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Feed {

// The largest file loadStateFile reads.
inline constexpr std::size_t maxStateFileBytes = 256u << 20;

// A daemon entry left out of a file that was otherwise accepted.
struct SkippedDaemon {
    std::string name;       // as written (escaped in message)
    bool indexable = false; // the name could be served; false: it never can be
    std::string message;    // one line, as a StateError's: `state file PATH: daemon "x" ...: why (line N)`
};
using SkippedDaemons = std::vector<SkippedDaemon>;

// Parses and validates a whole file's text. fileName is used only in messages. Throws
// StateError, for any problem (all or nothing).
LauncherState parseState(std::string_view json, const std::string& fileName);
// The same, but a bad daemon entry is left out and described in skipped (replaced, in file
// order); only problems of the file as a whole throw StateError.
LauncherState parseState(std::string_view json, const std::string& fileName, SkippedDaemons& skipped);

// Reads the file at path (refused when it is missing, unreadable, not a regular file,
// larger than maxStateFileBytes or empty) and parses it. Throws StateError.
LauncherState loadStateFile(const std::string& path);
// The same, leaving bad daemon entries out into skipped (see parseState).
LauncherState loadStateFile(const std::string& path, SkippedDaemons& skipped);

// Called for each daemon as soon as the file has described it whole (in file order). When
// it returns false the daemon's keys are dropped at once and only its name stays in the
// parsed state, which keeps telling a daemon that appears twice: a reload that compares
// each daemon with the last file as it goes keeps only those that changed, and never holds
// the whole file at once.
using DaemonSieve = std::function<bool(const std::string& name, const DaemonState& daemon)>;

// loadStateFile with messages naming the file as `shown`, each daemon passed through sieve
// as soon as it has been read (skipped daemons never are), and bad daemon entries left out
// into skipped.
LauncherState loadStateFile(const std::string& path, const std::string& shown, const DaemonSieve& sieve,
                            SkippedDaemons& skipped);

} // namespace Feed

// The agent's log: every line has a level and goes to one destination, chosen once at
// start (--log). Net-SNMP's own messages (snmp_log) are routed into the same destination.
//
//   if (std::string err = Agent::Log::open("auto"); !err.empty()) ...;  // bad --log value
//   Agent::Log::routeNetSnmp();          // after this, snmp_log lines come here too
//   Agent::Log::write(Agent::Log::Level::notice, "serving ...");
//   Agent::Log::reopen();                // SIGHUP: a rotated log file is opened again
//
// Destinations:
//   stderr      "2026-01-02T03:04:05.678+0100 notice velmar-snmp-agent: text"
//   journal     "<5>text" on standard error: the journal's priority prefix, no timestamp
//   syslog      syslog(3), facility daemon, ident velmar-snmp-agent, with the pid
//   file:PATH   appended to PATH, in the stderr format; reopened by reopen()
//   auto        journal when standard error is the journal's stream (JOURNAL_STREAM
//               names its device and inode), stderr otherwise
//
// Net-SNMP's lines are limited per kind (LogLimit: the first 10 of a kind per minute, then
// one summary line with the count), because peers cause them: one line per refused request.
// Lines written with write() are the agent's own and are never limited.
//
// Threads: any thread may write; lines are never interleaved.
#pragma once

#include <functional>
#include <string>

namespace Agent::Log {

// The order and numbers of syslog's priorities.
enum class Level { error = 3, warning = 4, notice = 5, info = 6, debug = 7 };

// "error", "warning", "notice", "info", "debug".
const char* levelText(Level level);

// Chooses the destination from a --log value. Returns an empty string, or why the value
// cannot be used (an unknown destination, a file that cannot be opened for appending);
// the previous destination then stays.
std::string open(const std::string& destination);

// What open() chose, resolved: "stderr", "journal", "syslog" or "file:PATH".
std::string destination();

// Writes one line (a trailing newline is dropped; inner newlines split it into lines).
void write(Level level, const std::string& text);

// Opens the log file again (after it was rotated away). Returns an empty string, or why
// it cannot be opened; the old descriptor is then kept. Other destinations: nothing.
std::string reopen();

// Closes a log file or the syslog connection; later lines go to standard error.
void close();

// Sends Net-SNMP's log (snmp_log and everything built on it) here, with its priorities,
// and nowhere else. Idempotent.
void routeNetSnmp();

// Sees each Net-SNMP line before it is written (priority as syslog's, text without the
// newline); when it returns true it takes the line, which is then not written (the observer
// reports it in its own words). One observer at a time; an empty function removes it. For
// catching what Net-SNMP reports while it reads the configuration or opens its addresses.
using Observer = std::function<bool(int priority, const std::string& line)>;
void observeNetSnmp(Observer observer);

} // namespace Agent::Log

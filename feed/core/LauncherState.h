// The launcher's view of its daemons as plain values, the same whichever launcher (a JSON
// state file, systemd) it came from: what a source produces and the applier serves.
//
//   Feed::DaemonState bgpd;
//   bgpd.hasConfig = true;  bgpd.enabled = true;  bgpd.options["asn"] = "65001";
//   bgpd.hasStatus = true;  bgpd.running = true;  bgpd.data["pid"] = "4242";
//   Feed::LauncherState state{{"bgpd", bgpd}};
//
// Names and keys must fit the SNMP indexes (GenericAgent::maxDaemonNameBytes and
// maxIndexKeyBytes); a source refuses or skips what does not, the values carry no check.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Feed {

// One daemon as its launcher describes it.
struct DaemonState {
    bool hasConfig = false;                     // the launcher has a configuration for it
    bool enabled = false;                       // false without config
    std::map<std::string, std::string> options; // empty without config
    bool hasStatus = false;                     // the launcher reports a status for it
    bool running = false;                       // false without status
    std::map<std::string, std::string> data;    // empty without status

    friend bool operator==(const DaemonState&, const DaemonState&) = default;
};

// Every daemon of a launcher, by name.
using LauncherState = std::map<std::string, DaemonState>;

// A source could not read its launcher's state, or refused what it read; what() is one
// line naming the source and what was wrong.
class StateError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A name or key for a message: quoted, with `"`, `\`, control characters and bytes that
// are not UTF-8 escaped (`\"`, `\\`, `\n`, `\xHH`), so that it stays on one line; cut
// after 64 bytes (`...`).
std::string quote(std::string_view s);

// True when s is well-formed UTF-8: no overlong forms, no surrogates, nothing above
// U+10FFFF.
bool validUtf8(std::string_view s);

} // namespace Feed

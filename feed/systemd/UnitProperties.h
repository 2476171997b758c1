// The properties of a service unit that the systemd source reads, one line each: the
// D-Bus name and interface, the signature systemd sends, whether the value is served as
// an option or a data row (and under which key: the property's name), whether it has no
// change signal and is read on the refresh timer, whether it still holds once systemd
// has unloaded the unit, how it is written as text, and where it lives in UnitInfo.
//
// Decoding (BusDecode.cpp), the properties read again when systemd invalidates them, the
// refresh round and the rows a daemon gets (daemonStateOf) are all driven by this table:
// a new property is one line in UnitProperties.cpp and, when the mapping needs a field of
// its own, one member of UnitInfo.
//
//   for (const Feed::UnitProperty& p : Feed::unitProperties())
//       if (p.refreshed) ...            // read on the timer
//   const Feed::UnitProperty* p = Feed::findUnitProperty(Feed::UnitIface::service, "MainPID");
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Feed {

struct UnitInfo;

// The interface a property belongs to.
enum class UnitIface { unit, service };
// "org.freedesktop.systemd1.Unit", "org.freedesktop.systemd1.Service".
const char* ifaceName(UnitIface iface);

// Where a property's value is served.
enum class Serve {
    none,   // used by the mapping only (Id, the running flag's SubState is also data)
    option, // a row of the option table, key = the property's name
    data,   // a row of the data table, key = the property's name
};

// How a value is written as a row's text; an unset value has no row.
enum class Format {
    text,       // a string as sent; unset when empty
    list,       // strings separated by spaces; unset when none
    command,    // the first command line: the executable's path, or the whole line when
                // the operator asks for it (commandLineText); unset when none
    number,     // a number, always set
    pid,        // a process id; unset when 0
    counter,    // a counter; unset at systemd's "infinity"
    timestamp,  // microseconds since the epoch as ISO 8601 UTC; unset at 0 and infinity
    exitStatus, // the main process's exit status; set once it has exited
    exitCode,   // how the main process ended (exited, killed, dumped); set once it has exited
};

// Where the value lives in UnitInfo; the signature says which alternative.
using UnitField = std::variant<std::string UnitInfo::*, std::vector<std::string> UnitInfo::*, std::uint32_t UnitInfo::*,
                               std::int32_t UnitInfo::*, std::uint64_t UnitInfo::*>;

struct UnitProperty {
    std::string_view name; // the D-Bus property, and the row's key
    UnitIface iface;
    std::string_view signature; // "s", "as", "u", "i", "t", "(ss)" (the message),
                                // "a(sasbttttuii)" (the command lines: their first)
    Serve serve;
    bool refreshed;        // no change signal: read on the refresh timer
    bool keptWhenUnloaded; // still true of the unit once systemd has unloaded it
    Format format;
    UnitField field;
};

// Every property, unit interface first, in the order rows are described.
std::span<const UnitProperty> unitProperties();
// The property of that name on that interface; null when the source does not read it.
const UnitProperty* findUnitProperty(UnitIface iface, std::string_view name);

// The keys the option and the data table can have, in table order.
std::vector<std::string_view> unitOptionKeys();
std::vector<std::string_view> unitDataKeys();

// The value's text as served; empty: no row. wholeCommandLines: Format::command writes
// the whole first command line instead of the executable's path.
std::string propertyText(const UnitProperty& property, const UnitInfo& unit, bool wholeCommandLines);

// Resets the value to what it is when unset (the default of a fresh UnitInfo).
void resetProperty(const UnitProperty& property, UnitInfo& unit);
// Copies the value from one unit to another.
void copyProperty(const UnitProperty& property, const UnitInfo& from, UnitInfo& to);

} // namespace Feed

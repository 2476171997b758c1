// Reading systemd's replies and signals off sd-bus messages into plain values, driven by
// the property table (UnitProperties.h). Each function reads at the message's position
// and returns sd-bus's result (negative errno on a malformed message).
#pragma once

#include "UnitTracker.h"

#include <systemd/sd-bus.h>

#include <string>
#include <vector>

namespace Feed {

// The variant at m's position into the property's field of u; a variant of another
// signature than the table's is skipped (the field is left as it was, and false is
// stored in matched).
int readPropertyValue(sd_bus_message* m, const UnitProperty& property, UnitInfo& u, bool& matched);
// a{sv} of iface's properties: those in the table into out (present lists them), the
// others skipped.
int readPropertyDict(sd_bus_message* m, UnitIface iface, PropertyValues& out);
// as: the names a PropertiesChanged invalidates.
int readStrings(sd_bus_message* m, std::vector<std::string>& out);
// ListUnitsByPatterns' a(ssssssouso).
int readListedUnits(sd_bus_message* m, std::vector<ListedUnit>& out);
// ListUnitFilesByPatterns' a(ss).
int readListedFiles(sd_bus_message* m, std::vector<ListedFile>& out);

} // namespace Feed

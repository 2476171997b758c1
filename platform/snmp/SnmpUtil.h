// Helpers of the SNMP support layer over the state tree.
#pragma once

#include "orbel/Entity.h"

namespace SnmpUtil {

// The entity at a path relative to the system's state root ("snmp/launcher/daemonMIB"),
// or null when nothing is there.
Orbel::Ptr<Orbel::Entity> getEntityRelative(const char* path);

} // namespace SnmpUtil

// The tables the daemon MIB is measured against, each serving the same option rows as the
// module's velmarDaemonOptionTable (index: daemon name and key as length-prefixed octet
// strings; one readable column 3, the value) under a subtree of its own, in the same
// process and through the same agent:
//
//   container  Net-SNMP's table_container helper over its sorted (binary search) container
//              of netsnmp_index rows: what an expert writes for a read-only table.
//   naive      the table_iterator helper as the code generator writes it by default: rows in
//              a list in no particular order, no SORTED flag and no hint, so every request
//              walks the whole list.
//   floor      a plain handler that answers every varbind with a constant and looks nothing
//              up: what the agent itself costs per varbind, whatever serves the table.
//
// None uses a cache helper. Each registration is read-only (HANDLER_CAN_RONLY), like the
// module's, so the agent runs GETBULK through the same bulk-to-next path for all of them.
//
//   Bench::registerContainerTable(root, rows);   // rows as Bench::optionRows gives them
#pragma once

#include "BenchRows.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <cstddef>
#include <vector>

namespace Bench {

// Roots of the baseline tables: enterprises.32473.99.<n>.1.2, eleven sub-identifiers like
// the module's table (enterprises.E.3.17.1.2), so that every way answers with OIDs of the
// same length.
std::vector<oid> baselineRoot(unsigned n);

// The module's option table: enterprises.E.3.17.1.2.
std::vector<oid> moduleOptionRoot();

// Registers the container baseline under root. Copies the rows; the copies live until the
// process ends.
void registerContainerTable(const std::vector<oid>& root, const std::vector<Row>& rows);

// Registers the generated-code iterator baseline under root; rows are kept in the order
// given (callers shuffle them: the generated code keeps whatever order rows arrive in).
void registerNaiveIteratorTable(const std::vector<oid>& root, const std::vector<Row>& rows);

// Registers the floor handler under root. It answers a GET of anything below root with
// constantValue, and a GETNEXT with the next identifier of a fixed-length series
// (root.1.3.<indexLength sub-identifiers>, the last one counting up) and the same value,
// without looking anything up.
void registerFloorHandler(const std::vector<oid>& root, std::size_t indexLength, const std::string& constantValue);

} // namespace Bench

// Conversions between model values and the value buffers Net-SNMP stores in varbinds.
//
//   unsigned char buf[64];
//   int n = Snmp::StringToAsnOctetStringF()(name, buf, 32);   // -1 when name is longer than 32
//   snmp_set_var_typed_value(vb, ASN_OCTET_STR, buf, n);
#pragma once

#include "SnmpString.h"

namespace Snmp {

// A flag as an SNMP TruthValue: true 1, false 2, written as a C long (what Net-SNMP keeps
// for ASN_INTEGER). Returns sizeof(long), or -1 (writing nothing) when the buffer is null
// or shorter than a long.
struct BoolToAsnIntegerF {
    int operator()(bool value, unsigned char* buffer, int bufferLength) const noexcept;
};

// Copies the bytes of value into buffer and returns their count (0 for an empty value).
// When the value is longer than limit, or the buffer is null with a non-empty value, it
// writes nothing and returns -1.
struct StringToAsnOctetStringF {
    int operator()(const Orbel::String8& value, unsigned char* buffer, int limit) const noexcept;
};

// The longest octet string AsnOctetStringToSnmpString accepts: an SNMP message cannot
// carry more, so anything longer is a corrupted length.
inline constexpr unsigned maxOctetStringLength = 65535;

// An Snmp::String from the octets of a varbind. Raises Orbel::RangeException when the
// value cannot be represented: a length above maxOctetStringLength, or a null pointer with
// a non-zero length. A null pointer with length 0 gives the empty string.
String AsnOctetStringToSnmpString(const void* bytes, unsigned length);

} // namespace Snmp

#include "Converters.h"

#include "orbel/ValueNotation.h"

#include <cstring>

namespace Snmp {

int BoolToAsnIntegerF::operator()(bool value, unsigned char* buffer, int bufferLength) const noexcept {
    if (!buffer || bufferLength < static_cast<int>(sizeof(long))) return -1;
    const long v = value ? 1 : 2;
    std::memcpy(buffer, &v, sizeof v);
    return static_cast<int>(sizeof v);
}

int StringToAsnOctetStringF::operator()(const Orbel::String8& value, unsigned char* buffer, int limit) const noexcept {
    if (limit < 0 || value.size() > static_cast<std::size_t>(limit)) return -1;
    if (value.empty()) return 0;
    if (!buffer) return -1;
    std::memcpy(buffer, value.data(), value.size());
    return static_cast<int>(value.size());
}

String AsnOctetStringToSnmpString(const void* bytes, unsigned length) {
    if (length > maxOctetStringLength)
        throw Orbel::RangeException(Orbel::format("octet string of %u bytes exceeds %u", length, maxOctetStringLength));
    if (length == 0) return String();
    if (!bytes) throw Orbel::RangeException(Orbel::format("null octet string with length %u", length));
    return String(static_cast<const char*>(bytes), length);
}

} // namespace Snmp

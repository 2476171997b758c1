// A small BER encoder and a tolerant decoder for SNMP messages, for the protocol fuzzer: it
// encodes what Net-SNMP's own library refuses to (object identifiers past 128
// sub-identifiers, GETBULK in version 1, unknown PDU tags, negative counts) and reads the
// error status of version 1 and 2c answers without a session.
//
//   Ber::Bytes vb = Ber::tlv(Ber::sequence, Ber::oid({1, 3, 6, 1}) + Ber::null());
//   Ber::Bytes msg = Ber::message(1, "public", Ber::pdu(Ber::getRequest, 42, 0, 0, {vb}));
//   std::optional<Ber::Answer> a = Ber::readAnswer(reply);   // none when it is not v1/v2c BER
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Ber {

using Bytes = std::vector<std::uint8_t>;
using Oid = std::vector<std::uint32_t>;

// Universal and SNMP application tags.
inline constexpr std::uint8_t integer = 0x02, bitString = 0x03, octetString = 0x04, nullTag = 0x05, objectId = 0x06,
                              sequence = 0x30, ipAddress = 0x40, counter32 = 0x41, gauge32 = 0x42, timeTicks = 0x43,
                              opaque = 0x44, counter64 = 0x46, noSuchObject = 0x80, noSuchInstance = 0x81,
                              endOfMibView = 0x82;
// PDU tags.
inline constexpr std::uint8_t getRequest = 0xA0, getNextRequest = 0xA1, response = 0xA2, setRequest = 0xA3,
                              trapV1 = 0xA4, getBulkRequest = 0xA5, informRequest = 0xA6, trapV2 = 0xA7, report = 0xA8;

Bytes& operator+=(Bytes& a, const Bytes& b);
Bytes operator+(Bytes a, const Bytes& b);

// A length in definite form (short form under 128).
Bytes length(std::size_t n);
// Tag, definite length, payload.
Bytes tlv(std::uint8_t tag, const Bytes& payload);
// A two's-complement integer in the fewest bytes, under the given tag.
Bytes signedInt(std::int64_t v, std::uint8_t tag = integer);
// An unsigned integer (Counter32, Gauge32, TimeTicks, Counter64) with a leading zero byte
// where the top bit is set.
Bytes unsignedInt(std::uint64_t v, std::uint8_t tag);
Bytes octets(std::string_view s, std::uint8_t tag = octetString);
Bytes octets(const Bytes& b, std::uint8_t tag = octetString);
// Any number of sub-identifiers; the first two are combined as 40 * a + b (b may exceed 39).
// With fewer than two, the encoding is that of the first alone (or empty).
Bytes oid(const Oid& o);
Bytes null(std::uint8_t tag = nullTag);

Bytes varbind(const Oid& name, const Bytes& value);
// A PDU with request id, error status and error index (non-repeaters and max-repetitions for
// GETBULK) and the varbinds' concatenated encodings.
Bytes pdu(std::uint8_t tag, std::int64_t reqId, std::int64_t a, std::int64_t b, const std::vector<Bytes>& varbinds);
// version 0 is SNMPv1, 1 is SNMPv2c.
Bytes message(std::int64_t version, std::string_view community, const Bytes& pdu);

// What a version 1 or 2c answer says.
struct Answer {
    std::int64_t version = -1;
    std::uint8_t pduTag = 0;
    std::int64_t reqId = 0;
    std::int64_t errorStatus = 0;
    std::int64_t errorIndex = 0;
    struct Varbind {
        Oid name;
        std::uint8_t tag = 0;
        Bytes value;
    };
    std::vector<Varbind> varbinds;
};

// Decodes a version 1 or 2c message; none when it is anything else or malformed.
std::optional<Answer> readAnswer(const std::uint8_t* data, std::size_t size);
// True when the message is SEQUENCE { INTEGER 3, ... }: an SNMPv3 message.
bool isVersion3(const std::uint8_t* data, std::size_t size);

} // namespace Ber

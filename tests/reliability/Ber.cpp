// The fuzzer's BER encoder and decoder (see Ber.h).
#include "Ber.h"

namespace Ber {

Bytes& operator+=(Bytes& a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a += b;
    return a;
}

Bytes length(std::size_t n) {
    if (n < 0x80) return {static_cast<std::uint8_t>(n)};
    Bytes size;
    for (std::size_t v = n; v; v >>= 8) size.insert(size.begin(), static_cast<std::uint8_t>(v & 0xFF));
    Bytes out{static_cast<std::uint8_t>(0x80 | size.size())};
    return out + size;
}

Bytes tlv(std::uint8_t tag, const Bytes& payload) {
    Bytes out{tag};
    out += length(payload.size());
    return out + payload;
}

Bytes signedInt(std::int64_t v, std::uint8_t tag) {
    Bytes b;
    for (int i = 7; i >= 0; --i)
        b.push_back(static_cast<std::uint8_t>((static_cast<std::uint64_t>(v) >> (8 * i)) & 0xFF));
    // Drop leading bytes that only repeat the sign.
    std::size_t start = 0;
    while (start + 1 < b.size() &&
           ((b[start] == 0x00 && !(b[start + 1] & 0x80)) || (b[start] == 0xFF && (b[start + 1] & 0x80))))
        ++start;
    return tlv(tag, Bytes(b.begin() + static_cast<std::ptrdiff_t>(start), b.end()));
}

Bytes unsignedInt(std::uint64_t v, std::uint8_t tag) {
    Bytes b;
    do {
        b.insert(b.begin(), static_cast<std::uint8_t>(v & 0xFF));
        v >>= 8;
    } while (v);
    if (b[0] & 0x80) b.insert(b.begin(), 0);
    return tlv(tag, b);
}

Bytes octets(std::string_view s, std::uint8_t tag) {
    return tlv(tag, Bytes(s.begin(), s.end()));
}
Bytes octets(const Bytes& b, std::uint8_t tag) {
    return tlv(tag, b);
}

namespace {
void subId(Bytes& out, std::uint64_t x) {
    Bytes chunk{static_cast<std::uint8_t>(x & 0x7F)};
    for (x >>= 7; x; x >>= 7) chunk.insert(chunk.begin(), static_cast<std::uint8_t>(0x80 | (x & 0x7F)));
    out += chunk;
}
} // namespace

Bytes oid(const Oid& o) {
    Bytes body;
    if (o.size() == 1) subId(body, o[0]);
    if (o.size() >= 2) subId(body, 40ull * o[0] + o[1]);
    for (std::size_t i = 2; i < o.size(); ++i) subId(body, o[i]);
    return tlv(objectId, body);
}

Bytes null(std::uint8_t tag) {
    return {tag, 0};
}

Bytes varbind(const Oid& name, const Bytes& value) {
    return tlv(sequence, oid(name) + value);
}

Bytes pdu(std::uint8_t tag, std::int64_t reqId, std::int64_t a, std::int64_t b, const std::vector<Bytes>& varbinds) {
    Bytes list;
    for (const Bytes& v : varbinds) list += v;
    return tlv(tag, signedInt(reqId) + signedInt(a) + signedInt(b) + tlv(sequence, list));
}

Bytes message(std::int64_t version, std::string_view community, const Bytes& p) {
    return tlv(sequence, signedInt(version) + octets(community) + p);
}

namespace {

// A bounded cursor over one TLV level.
struct Cursor {
    const std::uint8_t* p;
    const std::uint8_t* end;

    bool next(std::uint8_t& tag, const std::uint8_t*& body, std::size_t& len) {
        if (end - p < 2) return false;
        tag = *p++;
        std::size_t n = *p++;
        if (n & 0x80) {
            std::size_t k = n & 0x7F;
            if (k == 0 || k > 4 || static_cast<std::size_t>(end - p) < k) return false;
            n = 0;
            for (std::size_t i = 0; i < k; ++i) n = (n << 8) | *p++;
        }
        if (static_cast<std::size_t>(end - p) < n) return false;
        body = p;
        len = n;
        p += n;
        return true;
    }

    bool readInt(std::int64_t& v) {
        std::uint8_t tag;
        const std::uint8_t* b;
        std::size_t n;
        if (!next(tag, b, n) || tag != integer || n == 0 || n > 8) return false;
        std::uint64_t u = (b[0] & 0x80) ? ~0ull : 0;
        for (std::size_t i = 0; i < n; ++i) u = (u << 8) | b[i];
        v = static_cast<std::int64_t>(u);
        return true;
    }
};

Oid decodeOid(const std::uint8_t* b, std::size_t n) {
    Oid out;
    std::uint64_t x = 0;
    for (std::size_t i = 0; i < n; ++i) {
        x = (x << 7) | (b[i] & 0x7F);
        if (!(b[i] & 0x80)) {
            if (out.empty()) {
                std::uint64_t first = x < 80 ? x / 40 : 2;
                out.push_back(static_cast<std::uint32_t>(first));
                out.push_back(static_cast<std::uint32_t>(x - 40 * first));
            } else {
                out.push_back(static_cast<std::uint32_t>(x));
            }
            x = 0;
        }
    }
    return out;
}

} // namespace

std::optional<Answer> readAnswer(const std::uint8_t* data, std::size_t size) {
    Cursor top{data, data + size};
    std::uint8_t tag;
    const std::uint8_t* body;
    std::size_t len;
    if (!top.next(tag, body, len) || tag != sequence) return std::nullopt;
    Cursor msg{body, body + len};
    Answer a;
    if (!msg.readInt(a.version) || (a.version != 0 && a.version != 1)) return std::nullopt;
    if (!msg.next(tag, body, len) || tag != octetString) return std::nullopt;
    if (!msg.next(tag, body, len)) return std::nullopt;
    a.pduTag = tag;
    Cursor pdu{body, body + len};
    if (!pdu.readInt(a.reqId) || !pdu.readInt(a.errorStatus) || !pdu.readInt(a.errorIndex)) return std::nullopt;
    if (!pdu.next(tag, body, len) || tag != sequence) return std::nullopt;
    Cursor list{body, body + len};
    while (list.p < list.end) {
        if (!list.next(tag, body, len) || tag != sequence) return std::nullopt;
        Cursor vb{body, body + len};
        Answer::Varbind v;
        if (!vb.next(tag, body, len) || tag != objectId) return std::nullopt;
        v.name = decodeOid(body, len);
        if (!vb.next(v.tag, body, len)) return std::nullopt;
        v.value.assign(body, body + len);
        a.varbinds.push_back(std::move(v));
    }
    return a;
}

bool isVersion3(const std::uint8_t* data, std::size_t size) {
    Cursor top{data, data + size};
    std::uint8_t tag;
    const std::uint8_t* body;
    std::size_t len;
    if (!top.next(tag, body, len) || tag != sequence) return false;
    Cursor msg{body, body + len};
    std::int64_t v;
    return msg.readInt(v) && v == 3;
}

} // namespace Ber

// Snmp::String: the SNMP support layer's shared, immutable byte string, used for daemon
// names and keys. Its order is the OID order of a length-prefixed (non-IMPLIED)
// octet-string index: the shorter string first, then bytes compared as unsigned. A map
// ordered by it therefore walks in the order an SNMP walk visits the rows.
//
//   Snmp::String a("ntpd"), b("bgpd4");
//   assert(a < b);                                  // shorter first
//   Orbel::String8 text = Snmp::valueToStrep(a);    // 'ntpd'
//   auto pos = text.begin(); Snmp::String back(pos, text.end());   // parses it back
#pragma once

#include "orbel/GenericIf.h"
#include "orbel/String.h"

#include <cstring>
#include <iosfwd>
#include <string_view>

namespace Orbel {
class TypeDescriptor;
}

namespace Snmp {

class String {
public:
    String() noexcept = default;
    String(const char* s) : s_(s) {}
    String(const char* bytes, std::size_t n) : s_(bytes, n) {}
    String(std::string_view s) : s_(s) {}
    String(const std::string& s) : s_(s) {}
    String(const Orbel::String& s) noexcept : s_(s) {}
    // Parses one quoted string (the form valueToStrep writes) at pos and moves past it.
    // Throws Orbel::RangeException when the text is not a well-formed quoted string.
    String(Orbel::String8::IteratorConst& pos, const Orbel::String8::IteratorConst& end);

    const Orbel::String& str() const noexcept { return s_; }
    operator const Orbel::String&() const noexcept { return s_; }
    std::size_t size() const noexcept { return s_.size(); }
    bool empty() const noexcept { return s_.empty(); }
    const char* data() const noexcept { return s_.data(); }
    std::string_view view() const noexcept { return s_.view(); }
    std::size_t hash() const noexcept { return s_.hash(); }

    // Byte equality.
    friend bool operator==(const String& a, const String& b) noexcept {
        return a.size() == b.size() && (a.s_.sharesBodyWith(b.s_) || std::memcmp(a.data(), b.data(), a.size()) == 0);
    }
    friend bool operator!=(const String& a, const String& b) noexcept { return !(a == b); }
    // The order below as one comparison: negative, zero or positive as a is before, equal
    // to or after b. Index comparisons use it to look at each component's bytes once.
    friend int compare(const String& a, const String& b) noexcept {
        if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
        if (a.s_.sharesBodyWith(b.s_)) return 0;
        return std::memcmp(a.data(), b.data(), a.size());
    }
    // Shorter first, then unsigned bytes.
    friend bool operator<(const String& a, const String& b) noexcept { return compare(a, b) < 0; }
    friend bool operator>(const String& a, const String& b) noexcept { return b < a; }
    friend bool operator<=(const String& a, const String& b) noexcept { return !(b < a); }
    friend bool operator>=(const String& a, const String& b) noexcept { return !(a < b); }

    // Generic interface: Snmp::String values are reached as GenericIf_ (a generic value).
    using GenericIf_ = Orbel::GenericIf::Value_<String>;
    static const Orbel::TypeDescriptor* type();
    static Orbel::Ptr<GenericIf_> genericIf(const String& value, bool isConst);

private:
    Orbel::String s_;
};

// The value notation of the bytes: a single-quoted string, every byte outside printable
// ASCII written as \xHH, so that any byte string parses back unchanged.
Orbel::String8 valueToStrep(const String& s);

// Writes the bytes as they are (the form traces use).
std::ostream& operator<<(std::ostream& os, const String& s);

} // namespace Snmp

template <>
struct std::hash<Snmp::String> {
    std::size_t operator()(const Snmp::String& s) const noexcept { return s.hash(); }
};

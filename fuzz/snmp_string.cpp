// Fuzz target: the text form of Snmp::String (a quoted string with \\ \' \" \n \r \t and
// \xHH escapes), Orbel::strepToValue<Snmp::String> and its parsing constructor.
//
// What must hold, besides running clean under AddressSanitizer and UBSan:
//   - a refused text raises Orbel::Exception, never anything else;
//   - the parsing constructor stops inside the text, and the part it consumed is itself a
//     whole text of the same value; strepToValue accepts exactly the texts that the
//     constructor consumes to the end;
//   - an accepted value prints (valueToStrep) as printable ASCII in single quotes that
//     parses back to an equal value;
//   - the input's bytes as a value print and parse back byte for byte;
//   - the order (shorter first, then unsigned bytes) is a strict weak order that agrees
//     with equality on the values seen.
#include "FuzzCheck.h"

#include "orbel/ValueNotation.h"
#include "snmp/SnmpString.h"

#include <cstring>
#include <exception>
#include <optional>

namespace {

void checkRoundTrip(const Fuzz::Case& c, const Snmp::String& value) {
    Orbel::String8 printed = Snmp::valueToStrep(value);
    std::string_view p = printed.view();
    c.check(p.size() >= 2 && p.front() == '\'' && p.back() == '\'', "valueToStrep is not single-quoted", p);
    for (char ch : p)
        c.check(static_cast<unsigned char>(ch) >= 0x20 && static_cast<unsigned char>(ch) <= 0x7e,
                "valueToStrep wrote a byte outside printable ASCII", p);
    std::optional<Snmp::String> back;
    try {
        back = Orbel::strepToValue<Snmp::String>(printed);
    } catch (const std::exception& e) {
        c.finding("the printed form of a value does not parse", printed.stdString() + " -> " + e.what());
    }
    c.check(*back == value && back->view() == value.view(), "parse(print(value)) differs from value", p);
    c.check(Snmp::valueToStrep(*back) == printed, "print(parse(print(value))) differs from print(value)", p);
}

// The order as documented, computed here.
int expectedOrder(const Snmp::String& a, const Snmp::String& b) {
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    int r = a.size() ? std::memcmp(a.data(), b.data(), a.size()) : 0;
    return r < 0 ? -1 : r > 0 ? 1 : 0;
}

void checkOrder(const Fuzz::Case& c, const Snmp::String& a, const Snmp::String& b) {
    int want = expectedOrder(a, b);
    int got = (a < b) ? -1 : (b < a) ? 1 : 0;
    c.check(got == want, "Snmp::String order is not shorter-first then unsigned bytes");
    c.check((a == b) == (want == 0), "Snmp::String equality disagrees with the order");
    c.check((a <= b) == (want <= 0) && (a >= b) == (want >= 0) && (a > b) == (want > 0),
            "Snmp::String's comparison operators disagree");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fuzz::Case c(data, size);
    const Orbel::String8 text(c.bytes());

    // The constructor on a position.
    std::optional<Snmp::String> prefixValue;
    Orbel::String8::IteratorConst stop = nullptr;
    try {
        Orbel::String8::IteratorConst pos = text.begin();
        prefixValue = Snmp::String(pos, text.end());
        stop = pos;
    } catch (const Orbel::Exception&) {
    } catch (const std::exception& e) {
        c.finding("the parsing constructor raised an exception that is not an Orbel::Exception", e.what());
    }
    if (prefixValue) {
        c.check(stop > text.begin() && stop <= text.end(), "the parsing constructor stopped outside the text");
        Orbel::String8 consumed(std::string_view(text.begin(), static_cast<std::size_t>(stop - text.begin())));
        std::optional<Snmp::String> again;
        try {
            again = Orbel::strepToValue<Snmp::String>(consumed);
        } catch (const std::exception& e) {
            c.finding("the consumed part of a text does not parse as a whole", e.what());
        }
        c.check(*again == *prefixValue, "the consumed part parses to another value", consumed.view());
    }

    // The whole text.
    std::optional<Snmp::String> value;
    try {
        value = Orbel::strepToValue<Snmp::String>(text);
    } catch (const Orbel::Exception&) {
    } catch (const std::exception& e) {
        c.finding("strepToValue raised an exception that is not an Orbel::Exception", e.what());
    }
    c.check(value.has_value() == (prefixValue && stop == text.end()),
            "strepToValue accepts other texts than those the constructor consumes to the end");
    if (value) {
        c.check(*value == *prefixValue, "strepToValue and the constructor disagree on the value");
        checkRoundTrip(c, *value);
    }

    // The input's bytes as a value.
    Snmp::String raw(c.bytes());
    c.check(raw.view() == c.bytes(), "Snmp::String does not keep its bytes");
    checkRoundTrip(c, raw);
    checkOrder(c, raw, raw);
    if (value) {
        checkOrder(c, raw, *value);
        checkOrder(c, *value, raw);
    }
    if (size > 1) {
        Snmp::String head(c.bytes().substr(0, size / 2)), tail(c.bytes().substr(size / 2));
        checkOrder(c, head, tail);
        checkOrder(c, tail, head);
    }
    return 0;
}

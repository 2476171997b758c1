// Fuzz target: the text form of the two-component table indexes,
// Orbel::strepToValue<GenericAgent::OptionTableIndex> and <GenericAgent::DataTableIndex>,
// e.g. Value('GenericAgent::OptionTableIndex', ** {'agentName': 'bgpd', 'key': 'asn'}).
//
// Each input is tried as text of both types, and its bytes are also used as raw index
// components. What must hold, besides running clean under AddressSanitizer and UBSan:
//   - a refused text raises Orbel::Exception, never anything else;
//   - no text is accepted as both types (the type name is part of the text);
//   - an accepted value prints (valueToStrep) as printable ASCII that parses back to an
//     equal value, and that value prints the same text again; operator<< writes exactly
//     those bytes; the order sees the value and its reparse as equal;
//   - the type registry's genericIfFromStrep accepts exactly the texts strepToValue
//     accepts, and its wrapper prints the same text;
//   - any two byte strings as (agentName, key) survive print and parse unchanged.
#include "FuzzCheck.h"

#include "GenericAgent/GenericAgentSnmp.h"
#include "orbel/TypeRegistry.h"
#include "orbel/ValueNotation.h"

#include <exception>
#include <optional>
#include <sstream>

namespace {

using GenericAgent::DataTableIndex;
using GenericAgent::OptionTableIndex;

bool printableAscii(std::string_view s) {
    for (char c : s)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e) return false;
    return true;
}

// Checks that value prints and parses back to itself.
template <class Index>
void checkRoundTrip(const Fuzz::Case& c, const Index& value) {
    Orbel::String8 printed = GenericAgent::valueToStrep(value);
    c.check(printableAscii(printed.view()), "valueToStrep wrote a byte outside printable ASCII", printed.view());
    Index back;
    try {
        back = Orbel::strepToValue<Index>(printed);
    } catch (const std::exception& e) {
        c.finding("the printed form of a value does not parse", printed.stdString() + " -> " + e.what());
    }
    c.check(back == value, "parse(print(value)) differs from value", printed.view());
    c.check(!(back < value) && !(value < back) && back <= value && back >= value,
            "the order does not see a value and its reparse as equal", printed.view());
    c.check(GenericAgent::valueToStrep(back) == printed, "print(parse(print(value))) differs from print(value)",
            printed.view());
    std::ostringstream os;
    os << value;
    c.check(os.str() == printed.view(), "operator<< differs from valueToStrep", os.str());
}

// Parses text as an Index; none when refused (with Orbel::Exception only).
template <class Index>
std::optional<Index> parse(const Fuzz::Case& c, const Orbel::String8& text) {
    std::optional<Index> value;
    try {
        value = Orbel::strepToValue<Index>(text);
    } catch (const Orbel::Exception&) {
    } catch (const std::exception& e) {
        c.finding("strepToValue raised an exception that is not an Orbel::Exception", e.what());
    } catch (...) {
        c.finding("strepToValue raised something that is not an exception");
    }

    // The registry's path to the same parser must agree.
    const Orbel::TypeDescriptor* type = Orbel::TypeRegistry::instance().type(Index::typeName);
    c.check(type && type->genericIfFromStrep, "the index type is not registered");
    Orbel::Ptr<Orbel::GenericIf> generic;
    try {
        generic = type->genericIfFromStrep(text);
    } catch (const Orbel::Exception&) {
    } catch (const std::exception& e) {
        c.finding("genericIfFromStrep raised an exception that is not an Orbel::Exception", e.what());
    }
    c.check(bool(generic) == value.has_value(), "genericIfFromStrep and strepToValue disagree on acceptance");
    if (value) {
        c.check(generic->strRep() == GenericAgent::valueToStrep(*value),
                "the generic wrapper prints differently from valueToStrep", generic->strRep().view());
        checkRoundTrip(c, *value);
    }
    return value;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    GenericAgent::registerDaemonMibTypes();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int initialised = LLVMFuzzerInitialize(nullptr, nullptr);
    (void)initialised;
    Fuzz::Case c(data, size);
    const Orbel::String8 text(c.bytes());

    bool option = parse<OptionTableIndex>(c, text).has_value();
    bool dataIndex = parse<DataTableIndex>(c, text).has_value();
    c.check(!(option && dataIndex), "one text parsed as both an option index and a data index");

    // Raw components: the first byte chooses where the rest splits into name and key.
    if (size > 0) {
        std::string_view rest = c.bytes().substr(1);
        std::size_t cut = rest.empty() ? 0 : data[0] % (rest.size() + 1);
        Snmp::String name(rest.substr(0, cut)), key(rest.substr(cut));
        OptionTableIndex o(name, key);
        DataTableIndex d(name, key);
        checkRoundTrip(c, o);
        checkRoundTrip(c, d);
        c.check(o.agentName() == name && o.key() == key, "an index does not keep its components");
        // The option text is not a data index, nor the other way round.
        bool crossed = true;
        try {
            Orbel::strepToValue<DataTableIndex>(GenericAgent::valueToStrep(o));
        } catch (const Orbel::Exception&) {
            crossed = false;
        }
        c.check(!crossed, "an option index's text parsed as a data index");
    }
    return 0;
}

#include "SnmpString.h"

#include "orbel/TypeRegistry.h"
#include "orbel/ValueNotation.h"

#include <ostream>

namespace Snmp {

String::String(Orbel::String8::IteratorConst& pos, const Orbel::String8::IteratorConst& end)
    : s_(Orbel::sequenceToValue(pos, end)) {}

const Orbel::TypeDescriptor* String::type() {
    static const Orbel::TypeDescriptor* t = [] {
        auto& r = Orbel::TypeRegistry::instance();
        if (const Orbel::TypeDescriptor* existing = r.type("Snmp::String")) return existing;
        Orbel::TypeDescriptor& d = r.typeOpen("Snmp::String");
        d.genericIfSupported = true;
        d.valueType = true;
        d.genericIfFromStrep = [](const Orbel::String& text) -> Orbel::Ptr<Orbel::GenericIf> {
            return genericIf(Orbel::strepToValue<String>(text), false);
        };
        r.typeClose();
        return static_cast<const Orbel::TypeDescriptor*>(&d);
    }();
    return t;
}

Orbel::Ptr<String::GenericIf_> String::genericIf(const String& value, bool isConst) {
    return GenericIf_::make(value, isConst, type());
}

Orbel::String8 valueToStrep(const String& s) {
    return Orbel::quoteBytes(s.view());
}

std::ostream& operator<<(std::ostream& os, const String& s) {
    return os << s.str();
}

} // namespace Snmp

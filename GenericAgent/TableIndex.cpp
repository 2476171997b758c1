// Text form, parsing and generic wrappers of the two index types.
#include "GenericAgentSnmp.h"

#include "orbel/TypeRegistry.h"

#include <ostream>

namespace GenericAgent {

template <class Self>
TableIndex<Self>::TableIndex(Orbel::String8::IteratorConst& pos, const Orbel::String8::IteratorConst& end) {
    using Orbel::needString;
    needString(pos, end, " Value");
    needString(pos, end, " (");
    const std::string typeToken = std::string(" '") + Self::typeName + "'";
    needString(pos, end, typeToken.c_str());
    needString(pos, end, " ,");
    needString(pos, end, " **");
    needString(pos, end, " {");
    for (bool first = true;; first = false) {
        needString(pos, end, " ");
        if (pos == end) throw Orbel::RangeException(Orbel::String("premature end of value type ") + Self::shortName);
        if (*pos == '}') break;
        if (!first) needString(pos, end, ", ");
        Orbel::String name = Orbel::sequenceToValue(pos, end);
        needString(pos, end, " : ");
        if (name == Orbel::String("agentName")) {
            agentName_ = Orbel::deserializeAttr<Snmp::String>(pos, end, name);
        } else if (name == Orbel::String("key")) {
            key_ = Orbel::deserializeAttr<Snmp::String>(pos, end, name);
        } else {
            throw Orbel::RangeException(Orbel::String(Self::shortName) + " has no such attribute: " + name);
        }
    }
    needString(pos, end, "} ");
    needString(pos, end, ") ");
}

template class TableIndex<OptionTableIndex>;
template class TableIndex<DataTableIndex>;

namespace {
template <class Index>
Orbel::String8 strep(const Index& index) {
    std::string out = "Value('";
    out += Index::typeName;
    out += "', ** {'agentName': ";
    out += Snmp::valueToStrep(index.agentName()).view();
    out += ", 'key': ";
    out += Snmp::valueToStrep(index.key()).view();
    out += "})";
    return Orbel::String8(out);
}

template <class Index>
std::ostream& stream(std::ostream& os, const Index& index) {
    Orbel::String8 s = valueToStrep(index);
    return os.write(s.data(), static_cast<std::streamsize>(s.size()));
}
} // namespace

Orbel::String8 valueToStrep(const OptionTableIndex& index) {
    return strep(index);
}
Orbel::String8 valueToStrep(const DataTableIndex& index) {
    return strep(index);
}
std::ostream& operator<<(std::ostream& os, const OptionTableIndex& index) {
    return stream(os, index);
}
std::ostream& operator<<(std::ostream& os, const DataTableIndex& index) {
    return stream(os, index);
}

template <class Index>
const Orbel::TypeDescriptor* TableIndexGenericIf<Index>::type() const noexcept {
    registerDaemonMibTypes();
    return Orbel::TypeRegistry::instance().type(Index::typeName);
}

template <class Index>
Orbel::Ptr<Orbel::GenericIf> TableIndexGenericIf<Index>::attributeOp(
    const AttributeOp& op, const Orbel::Ptr<const Orbel::GenericIf>& index,
    const Orbel::Ptr<const Orbel::GenericIf>& argument) {
    if (isConst() && op.op >= opModifying) throw Orbel::ConstException("attempting to modify a const instance");
    if (op.attributeId == 2 || op.attributeId == 3) {
        const char* name = op.attributeId == 2 ? "agentName" : "key";
        if (index || argument) throw Orbel::BadIndexAttributeException(name);
        if (op.op != opRead) throw Orbel::NotSupportedException(name, op.op);
        return Snmp::String::genericIf(op.attributeId == 2 ? value_.agentName() : value_.key(), isConst());
    }
    if (op.op == opEqual) {
        auto other = dynamic_cast<const TableIndexGenericIf<Index>*>(argument.ptr());
        if (!other) throw Orbel::TypeException("orbelOpArg");
        return Orbel::genericBool(value_ == other->value_, true);
    }
    return Orbel::GenericIf::attributeOp(op, index, argument);
}

template class TableIndexGenericIf<OptionTableIndex>;
template class TableIndexGenericIf<DataTableIndex>;

namespace {
template <class Wrapper, class Index>
Orbel::Ptr<Orbel::GenericIf> fromList(const Orbel::Ptr<const Orbel::GenericIf>& list) {
    auto l = dynamic_cast<const Orbel::GenericIf::List_*>(list.ptr());
    if (!l) throw Orbel::TypeException("Orbel::GenericIf::List_");
    Index index;
    if (l->size() > 0) {
        auto name = dynamic_cast<const Snmp::String::GenericIf_*>(l->at(0).ptr());
        if (!name) throw Orbel::TypeException("agentName");
        auto key = l->size() > 1 ? dynamic_cast<const Snmp::String::GenericIf_*>(l->at(1).ptr()) : nullptr;
        if (!key) throw Orbel::TypeException("key");
        if (l->size() > 2) throw Orbel::UnknownArgumentException(Index::shortName);
        index = Index(name->value(), key->value());
    }
    return Orbel::Ptr<Wrapper>(new Wrapper(Index(), false))->GenericIf_Is(index, false);
}
} // namespace

Orbel::Ptr<Orbel::GenericIf> OptionTableIndex::GenericIf_::genericIfListConstructor(
    const Orbel::Ptr<const Orbel::GenericIf>& list) {
    return fromList<OptionTableIndex::GenericIf_, OptionTableIndex>(list);
}

Orbel::Ptr<Orbel::GenericIf> DataTableIndex::GenericIf_::genericIfListConstructor(
    const Orbel::Ptr<const Orbel::GenericIf>& list) {
    return fromList<DataTableIndex::GenericIf_, DataTableIndex>(list);
}

// Rows.

namespace {
AgentVal lookup(const AgentValMap& values, const Snmp::String& key) {
    auto it = values.find(AgentKey(key));
    return it == values.end() ? AgentVal() : it->second;
}
} // namespace

AgentVal OptionTableEntry::val() const {
    return lookup(agentConfig_->options(), index_.key());
}
AgentVal DataTableEntry::val() const {
    return lookup(agentStatus_->data(), index_.key());
}

} // namespace GenericAgent

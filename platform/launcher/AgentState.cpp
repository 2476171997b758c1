#include "AgentState.h"

#include "orbel/GenericIf.h"
#include "orbel/TypeRegistry.h"

namespace GenericAgent {

AgentKey::AgentKey(const Orbel::String8& s) : Orbel::String8(s) {
    if (size() > maxLength) throw Orbel::RangeException("AgentKey::bytes > AgentKey::maxLength not allowed");
}

AgentVal::AgentVal(const Orbel::String8& s) : Orbel::String8(s) {
    if (size() > maxLength) throw Orbel::RangeException("AgentVal::bytes > AgentVal::maxLength not allowed");
}

Orbel::Ptr<Config> Config::configFactory(Orbel::Name name) { return new Config(std::move(name)); }
Orbel::Ptr<Status> Status::statusFactory(Orbel::Name name) { return new Status(std::move(name)); }

const AgentVal* Config::option(const AgentKey& key) const {
    auto it = options_.find(key);
    return it == options_.end() ? nullptr : &it->second;
}

const AgentVal* Status::data(const AgentKey& key) const {
    auto it = data_.find(key);
    return it == data_.end() ? nullptr : &it->second;
}

namespace {

// Generic access to a Config or Status: its flag (attribute 130) can be read.
template <class T>
class StateGenericIf : public Orbel::GenericIf {
public:
    StateGenericIf(const T* object, bool isConst) : Orbel::GenericIf(isConst), object_(object) {}
    const Orbel::TypeDescriptor* type() const noexcept override { return T::_fwkType; }
    Orbel::String strRep() const override { return Orbel::refStrep(T::_fwkType->name().cStr(), object_.ptr()); }
    Orbel::Ptr<Orbel::GenericIf> attributeOp(const AttributeOp& op, const Orbel::Ptr<const Orbel::GenericIf>& index,
                                             const Orbel::Ptr<const Orbel::GenericIf>& argument) override {
        if (op.op >= opModifying && isConst()) throw Orbel::ConstException();
        if (op.attributeId != 130) return Orbel::GenericIf::attributeOp(op, index, argument);
        const char* name = T::_fwkType->attributes().front().name.cStr();
        if (index) throw Orbel::BadIndexAttributeException(name);
        if (op.op != opRead) throw Orbel::NotSupportedException(name, op.op);
        return Orbel::genericBool(flag(*object_), isConst());
    }
    const T* object() const noexcept { return object_.ptr(); }

private:
    static bool flag(const Config& c) { return c.enabled(); }
    static bool flag(const Status& s) { return s.running(); }
    Orbel::Ptr<const T> object_;
};

template <class T>
const Orbel::TypeDescriptor* registerStateType(const char* name, const char* flagName) {
    auto& r = Orbel::TypeRegistry::instance();
    r.namespaceOpen("GenericAgent");
    Orbel::TypeDescriptor& d = r.typeOpen(name);
    d.genericIfSupported = true;
    d.genericIfOf = [](const Orbel::PtrInterface* o, bool isConst) -> Orbel::Ptr<Orbel::GenericIf> {
        return new StateGenericIf<T>(static_cast<const T*>(o), isConst);
    };
    r.attributeIs({130, flagName, "bool", Orbel::AttributeKind::nonInstantiating, Orbel::attrReadable,
                   Orbel::introDerived});
    r.typeClose();
    r.namespaceClose();
    return &d;
}

} // namespace

const Orbel::TypeDescriptor* Config::_fwkType = registerStateType<Config>("Config", "enabled");
const Orbel::TypeDescriptor* Status::_fwkType = registerStateType<Status>("Status", "running");

} // namespace GenericAgent

#include "AgentState.h"

#include "orbel/GenericIf.h"
#include "orbel/ObserverDelivery.h"
#include "orbel/TypeRegistry.h"

#include <vector>

namespace GenericAgent {

AgentKey::AgentKey(const Orbel::String8& s) : Orbel::String8(s) {
    if (size() > maxLength) throw Orbel::RangeException("AgentKey::bytes > AgentKey::maxLength not allowed");
}

AgentVal::AgentVal(const Orbel::String8& s) : Orbel::String8(s) {
    if (size() > maxLength) throw Orbel::RangeException("AgentVal::bytes > AgentVal::maxLength not allowed");
}

// The one place that reaches an owner's list and its observers' links.
template <class Owner, class Observer>
struct FlagObservers {
    using Base = FlagNotifieeConst<Owner>;

    // Tells every registered observer of o (Orbel::deliverToObservers: in registration
    // order, failures contained).
    template <class F>
    static void forEach(Owner& o, Orbel::AttributeId id, F&& f) {
        auto& list = o.observers_.registered;
        if (list.count() == 0) return;
        // Keeps the owner alive while observers run (one of them may drop the last outside
        // reference); not while it is already being destroyed or told of its last reference.
        Orbel::Ptr<Owner> keep = (o.observers_.destroying || o.references() == 0) ? nullptr : &o;
        Orbel::deliverToObservers<Base>(list, id, std::forward<F>(f));
    }
    static void flagChanged(Owner& o, Orbel::AttributeId id) {
        forEach(o, id, [](Base& n) { n.onFlag(); });
    }
    static void zeroReferences(Owner& o) {
        forEach(o, Owner::zeroReferencesId, [](Base& n) { n.onZeroReferences(); });
    }
    static void destroy(Owner& o) {
        o.observers_.destroying = true;
        for (Base* n : o.observers_.attached) n->orphaned_ = true;
        o.observers_.registered.clear();
        o.observers_.attached.clear();
    }
    static void attach(Owner& o, Base* n) { o.observers_.attached.push_back(n); }
    static void detach(Owner& o, Base* n) { std::erase(o.observers_.attached, n); }
};

template <class Owner>
void FlagNotifieeConst<Owner>::notifierIs(const Orbel::Ptr<const Orbel::PtrInterface>& notifier) {
    using Access = FlagObservers<Owner, FlagNotifieeConst<Owner>>;
    auto* next = const_cast<Owner*>(dynamic_cast<const Owner*>(notifier.ptr()));
    Owner* old = orphaned_ ? nullptr : notifier_;
    if (next == old && !orphaned_) return;
    if (next && !isWeakReference()) next->newRef();
    const bool wasOrphaned = orphaned_;
    notifier_ = next;
    orphaned_ = false;
    if (old) Access::detach(*old, this);
    if (next) Access::attach(*next, this);
    if (isRegisteredNotifiee()) {
        if (old) old->observers_.registered.remove(this);
        if (next) next->observers_.registered.pushBack(this);
    }
    if (old && !isWeakReference() && !wasOrphaned) old->deleteRef();
}

template <class Owner>
void FlagNotifieeConst<Owner>::isRegisteredNotifieeIs(bool registered) {
    if (registered == isRegisteredNotifiee()) return;
    Orbel::Entity::NotifieeConst::isRegisteredNotifieeIs(registered);
    Owner* o = orphaned_ ? nullptr : notifier_;
    if (!o) return;
    if (registered)
        o->observers_.registered.pushBack(this);
    else
        o->observers_.registered.remove(this);
}

template <class Owner>
Orbel::String FlagNotifieeConst<Owner>::name() const {
    const Owner* o = notifier();
    return o ? Orbel::String(o->name()) : Orbel::String();
}

template <class Owner>
void FlagNotifieeConst<Owner>::isWeakReferenceIs(bool weak) {
    if (weak == isWeakReference()) return;
    Orbel::Entity::NotifieeConst::isWeakReferenceIs(weak);
    Owner* o = orphaned_ ? nullptr : notifier_;
    if (!o) return;
    if (weak)
        o->deleteRef(); // may free the object; it then unlinks and orphans us
    else
        o->newRef();
}

template <class Owner>
FlagNotifieeConst<Owner>::~FlagNotifieeConst() {
    Owner* o = orphaned_ ? nullptr : notifier_;
    if (!o) return;
    if (isRegisteredNotifiee()) o->observers_.registered.remove(this);
    FlagObservers<Owner, FlagNotifieeConst<Owner>>::detach(*o, this);
    if (o->observers_.destroying) return;
    if (isWeakReference()) o->newRef(); // keeps the count balanced for the release below
    o->deleteRef();
}

template class FlagNotifieeConst<Config>;
template class FlagNotifieeConst<Status>;

void Config::enabledIs(bool enabled) {
    if (enabled == enabled_) return;
    enabled_ = enabled;
    versionInc();
    FlagObservers<Config, Config::NotifieeConst>::flagChanged(*this, enabledId);
}

void Status::runningIs(bool running) {
    if (running == running_) return;
    running_ = running;
    versionInc();
    FlagObservers<Status, Status::NotifieeConst>::flagChanged(*this, runningId);
}

void Config::zeroReferencesIs(bool) {
    FlagObservers<Config, Config::NotifieeConst>::zeroReferences(*this);
}
void Status::zeroReferencesIs(bool) {
    FlagObservers<Status, Status::NotifieeConst>::zeroReferences(*this);
}

Config::~Config() {
    FlagObservers<Config, Config::NotifieeConst>::destroy(*this);
}
Status::~Status() {
    FlagObservers<Status, Status::NotifieeConst>::destroy(*this);
}

void Config::NotifieeConst::onEnabled() {}
void Status::NotifieeConst::onRunning() {}

Orbel::Ptr<Config> Config::configFactory(Orbel::Name name) {
    return new Config(std::move(name));
}
Orbel::Ptr<Status> Status::statusFactory(Orbel::Name name) {
    return new Status(std::move(name));
}

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
    r.attributeIs(
        {130, flagName, "bool", Orbel::AttributeKind::nonInstantiating, Orbel::attrReadable, Orbel::introDerived});
    r.typeClose();
    r.namespaceClose();
    return &d;
}

} // namespace

const Orbel::TypeDescriptor* Config::_fwkType = registerStateType<Config>("Config", "enabled");
const Orbel::TypeDescriptor* Status::_fwkType = registerStateType<Status>("Status", "running");

} // namespace GenericAgent

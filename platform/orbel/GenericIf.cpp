#include "GenericIf.h"

#include "Activity.h"
#include "TypeRegistry.h"

#include <algorithm>
#include <string>

namespace Orbel {

GenericIf::~GenericIf() = default;

String GenericIf::strRep() const {
    const TypeDescriptor* t = type();
    return t ? t->name() : String("<unregistered>");
}

AttributeId GenericIf::attributeId(String8 name) const {
    const TypeDescriptor* t = type();
    const AttributeDescriptor* a = t ? t->attribute(name) : nullptr;
    if (!a) throw RangeException("no attribute " + name + " in " + (t ? t->name() : String("<unregistered>")));
    return a->number;
}

Ptr<GenericIf> GenericIf::attributeOp(const AttributeOp& op, const Ptr<const GenericIf>&, const Ptr<const GenericIf>&) {
    throw NotSupportedException("attribute " + String(std::to_string(op.attributeId)), op.op);
}

void GenericIf::genericNotifieeIs(const Ptr<Notifiee>& n) {
    if (n && std::find(notifiees_.begin(), notifiees_.end(), n) == notifiees_.end()) notifiees_.push_back(n);
}

void GenericIf::genericNotifieeDel(const Ptr<Notifiee>& n) {
    std::erase(notifiees_, n);
}

bool GenericIf::orbelOnAttribute(AttributeId attributeId) {
    if (!deferred_) return false;
    if (pending_ == attributeNone)
        pending_ = attributeId;
    else if (pending_ != attributeId && pending_ != attributeAllForced)
        pending_ = attributeAll;
    ActivityLoop::instance().pendingIs(Ptr<PtrInterface::NotifieeConst>(this));
    return true;
}

AttributeId GenericIf::pendingAttributeTake() noexcept {
    AttributeId id = pending_;
    pending_ = attributeNone;
    return id;
}

namespace {

// Tells every observer of the snapshot; one that throws gets onNotificationException and
// the others are still told, so one failing observer neither hides the change from the
// rest nor lets the exception reach the code that made the change (or the activity loop).
void tellEach(const std::vector<Ptr<GenericIf::Notifiee>>& snapshot, AttributeId attributeId,
              const Ptr<const GenericIf>& key) {
    for (auto& n : snapshot) {
        try {
            n->onAttribute(attributeId, key);
        } catch (...) {
            try {
                n->onNotificationException(attributeId);
            } catch (...) {
                // An observer's exception handler may not stop delivery either.
            }
        }
    }
}

} // namespace

void GenericIf::onAttribute(AttributeId attributeId) {
    auto snapshot = notifiees_;
    tellEach(snapshot, attributeId, nullptr);
}

void GenericIf::onAttributeKey(AttributeId attributeId, const Ptr<const GenericIf>& key) {
    auto snapshot = notifiees_;
    tellEach(snapshot, attributeId, key);
}

void GenericIf::onNotificationException(AttributeId attributeId) {
    auto snapshot = notifiees_;
    for (auto& n : snapshot) n->onNotificationException(attributeId);
}

void GenericIf::onZeroReferences() {
    auto snapshot = notifiees_;
    for (auto& n : snapshot) {
        try {
            n->onZeroReferences();
        } catch (...) {
            try {
                n->onNotificationException(attributeNone);
            } catch (...) {
            }
        }
    }
}

void GenericIf::defaultNotification(AttributeId attributeId) {
    if (attributeId == attributeNone || attributeId == attributeAll || attributeId == attributeAllForced) return;
    onAttribute(attributeId);
}

void GenericIf::handleNotification(ActivityConfig*) {
    defaultNotification(pendingAttributeTake());
}

void GenericIf::redispatch() {
    ++redispatches_;
}

void GenericIf::Notifiee::onAttribute(AttributeId, const Ptr<const GenericIf>&) {}
void GenericIf::Notifiee::onNotificationException(AttributeId) {}
void GenericIf::Notifiee::onZeroReferences() {}

namespace {
const TypeDescriptor* builtin(const char* name) {
    auto& r = TypeRegistry::instance();
    if (const TypeDescriptor* t = r.type(name)) return t;
    TypeDescriptor& t = r.typeOpen(name);
    t.genericIfSupported = true;
    t.valueType = true;
    r.typeClose();
    return &t;
}
} // namespace

Ptr<GenericIf::List_> GenericIf::List_::make(std::vector<Ptr<const GenericIf>> elements, bool isConst) {
    return Ptr<List_>(new List_(std::move(elements), isConst));
}

const TypeDescriptor* GenericIf::List_::type() const noexcept {
    static const TypeDescriptor* t = builtin("Orbel::GenericIf::List_");
    return t;
}

const TypeDescriptor* boolType() {
    static const TypeDescriptor* t = builtin("bool");
    return t;
}

Ptr<GenericIf> genericBool(bool value, bool isConst) {
    return GenericIf::Value_<bool>::make(value, isConst, boolType());
}

} // namespace Orbel

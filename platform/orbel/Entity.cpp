#include "Entity.h"

#include "ValueNotation.h"

#include <sstream>

namespace Orbel {

void PtrInterface::NotifieeConst::isRegisteredNotifieeIs(bool registered) {
    isRegisteredNotifiee_ = registered;
}
String PtrInterface::NotifieeConst::name() const {
    return String();
}
void PtrInterface::NotifieeConst::notifierIs(const Ptr<const PtrInterface>&) {}
void PtrInterface::NotifieeConst::handleNotification(ActivityConfig*) {}
void PtrInterface::NotifieeConst::onAttribute(AttributeId) {}
void PtrInterface::NotifieeConst::onNotificationException(AttributeId) {}
void PtrInterface::NotifieeConst::onZeroReferences() {}
void PtrInterface::NotifieeConst::isWeakReferenceIs(bool weak) {
    isWeakReference_ = weak;
}
void PtrInterface::NotifieeConst::hasNotificationActiveIs(bool active) {
    hasNotificationActive_ = active;
}

void Entity::NotifieeConst::onParent() {}
void Entity::NotifieeConst::onVersion() {}

void Entity::zeroReferencesIs(bool) {}

void Entity::onLastReference() const {
    if (inZeroReferences_) return; // a reference taken and dropped while observers are told
    inZeroReferences_ = true;
    const_cast<Entity*>(this)->zeroReferencesIs(true);
    inZeroReferences_ = false;
    if (references() == 0) delete this;
}

String refStrep(const char* typeName, const Entity* entity) {
    std::ostringstream os;
    os << "Ref('" << typeName << "', ";
    if (!entity) {
        os << "null)";
    } else {
        os << quoteBytes(entity->name().view()) << ", " << static_cast<const void*>(entity) << ")";
    }
    return String(os.str());
}

} // namespace Orbel

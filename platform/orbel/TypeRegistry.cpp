#include "TypeRegistry.h"

namespace Orbel {

const AttributeDescriptor* TypeDescriptor::attribute(AttributeId number) const noexcept {
    for (const auto& a : attributes_)
        if (a.number == number) return &a;
    return nullptr;
}

const AttributeDescriptor* TypeDescriptor::attribute(const String& name) const noexcept {
    for (const auto& a : attributes_)
        if (a.name == name) return &a;
    return nullptr;
}

TypeRegistry& TypeRegistry::instance() {
    // Never destroyed: libraries unloaded late still withdraw their types.
    static TypeRegistry* r = new TypeRegistry;
    return *r;
}

void TypeRegistry::namespaceOpen(const String& ns) {
    namespace_ = ns;
}
void TypeRegistry::namespaceClose() {
    namespace_ = String();
}

TypeDescriptor& TypeRegistry::typeOpen(const String& name) {
    String qualified = namespace_.empty() ? name : namespace_ + "::" + name;
    if (type(qualified)) throwNameInUseException("type " + qualified + " is already registered");
    types_.push_back(std::make_unique<TypeDescriptor>(qualified));
    open_ = types_.back().get();
    return *open_;
}

void TypeRegistry::attributeIs(AttributeDescriptor attribute) {
    if (!open_) throw RangeException("attribute " + attribute.name + " defined outside a type scope");
    open_->attributes_.push_back(std::move(attribute));
}

void TypeRegistry::typeClose() {
    open_ = nullptr;
}

void TypeRegistry::typeDel(const String& qualifiedName) {
    std::erase_if(types_, [&](const auto& t) { return t->name() == qualifiedName; });
}

const TypeDescriptor* TypeRegistry::type(const String& qualifiedName) const noexcept {
    for (const auto& t : types_)
        if (t->name() == qualifiedName) return t.get();
    return nullptr;
}

std::vector<const TypeDescriptor*> TypeRegistry::types() const {
    std::vector<const TypeDescriptor*> out;
    for (const auto& t : types_) out.push_back(t.get());
    return out;
}

Ptr<GenericIf> TypeRegistry::genericIf(const Entity* entity, bool isConst) const {
    if (!entity) return nullptr;
    const TypeDescriptor* t = entity->type();
    if (!t || !t->genericIfOf) return nullptr;
    return t->genericIfOf(entity, isConst);
}

} // namespace Orbel

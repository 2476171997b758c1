// The type registry: every model type registers a descriptor of itself when its library
// loads (types by qualified name, attributes with number, name, type and flags), so that
// the framework can reach any type by name and number at run time.
//
//   auto& r = Orbel::TypeRegistry::instance();
//   r.namespaceOpen("GenericAgent");
//   Orbel::TypeDescriptor& t = r.typeOpen("EnabledTableEntry");
//   r.attributeIs({130, "agentName", "Snmp::String", ...});
//   r.typeClose();
//   r.namespaceClose();
#pragma once

#include "GenericIf.h"
#include "String.h"

#include <functional>
#include <memory>
#include <vector>

namespace Orbel {

enum class AttributeKind { nonInstantiating, full };

// Shared attribute flags of the framework.
enum AttributeFlag : std::uint32_t {
    attrReadable = 1u << 0,
    attrNotWritableGenerically = 1u << 1,
    attrCollection = 1u << 2,
};

// Introspection flags: 2 for keys and constructor arguments, 0 for values derived through
// the object, 8 for a string value computed on request.
enum IntrospectionFlag : std::uint32_t { introDerived = 0, introKeyOrArgument = 2, introComputedString = 8 };

struct AttributeDescriptor {
    AttributeId number;
    String name;
    String typeName;
    AttributeKind kind;
    std::uint32_t flags;
    std::uint32_t introspection;
};

class TypeDescriptor {
public:
    explicit TypeDescriptor(String qualifiedName) : name_(std::move(qualifiedName)) {}
    const String& name() const noexcept { return name_; }
    const std::vector<AttributeDescriptor>& attributes() const noexcept { return attributes_; }
    const AttributeDescriptor* attribute(AttributeId number) const noexcept;
    const AttributeDescriptor* attribute(const String& name) const noexcept;

    bool genericIfSupported = false;
    bool valueType = false;
    // The generic interface of an object of this type (entities and rows).
    std::function<Ptr<GenericIf>(const PtrInterface* object, bool isConst)> genericIfOf;
    // A value of this type parsed from its value notation (value types).
    std::function<Ptr<GenericIf>(const String& strep)> genericIfFromStrep;
    // A value of this type built from a generic list (value types).
    std::function<Ptr<GenericIf>(const Ptr<const GenericIf>& list)> genericIfFromList;
    // A new entity of this type (entity types); the directory may be ignored.
    std::function<Ptr<Entity>(const Name& name, const Ptr<Entity>& parentDirectory)> newEntity;

private:
    friend class TypeRegistry;
    String name_;
    std::vector<AttributeDescriptor> attributes_;
};

class TypeRegistry {
public:
    static TypeRegistry& instance();

    // The introspection pass. Types opened inside a namespace get "<namespace>::" in front.
    void namespaceOpen(const String& ns);
    void namespaceClose();
    // Registers a new type; NameInUseException if the name is taken.
    TypeDescriptor& typeOpen(const String& name);
    // Appends an attribute to the open type; RangeException outside a type scope.
    void attributeIs(AttributeDescriptor attribute);
    void typeClose();
    // Withdraws a type (a library that registered it is being unloaded).
    void typeDel(const String& qualifiedName);

    const TypeDescriptor* type(const String& qualifiedName) const noexcept;
    // All types in registration order.
    std::vector<const TypeDescriptor*> types() const;
    // The generic interface of an entity through its registered type; null for null or
    // for an entity whose type has no generic interface.
    Ptr<GenericIf> genericIf(const Entity* entity, bool isConst) const;

private:
    std::vector<std::unique_ptr<TypeDescriptor>> types_;
    String namespace_;
    TypeDescriptor* open_ = nullptr;
};

} // namespace Orbel

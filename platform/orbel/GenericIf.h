// GenericIf: reflective access to any registered value or entity, by attribute number and
// operation code, plus the generic (type-independent) observers that such an interface
// serves, with deferred and coalesced delivery through the activity loop.
//
//   Ptr<GenericIf> g = row type's generic interface;
//   Ptr<GenericIf> v = g->attributeOp({132, GenericIf::opRead}, nullptr, nullptr);
//   bool b = dynamic_cast<GenericIf::Value_<bool>&>(*v).value();
//
// Operation codes: 0 reads, 100 compares the whole value, 128 and above modify.
#pragma once

#include "Entity.h"
#include "Exception.h"

#include <cstdint>
#include <vector>

namespace Orbel {

class TypeDescriptor;

class GenericIf : public PtrInterface::NotifieeConst {
public:
    struct AttributeOp {
        AttributeId attributeId = 0;
        unsigned op = 0;
    };
    enum : unsigned { opRead = 0, opEqual = 100, opModifying = 128, opSet = 128, opDel = 129 };
    // Pending-notification codes that stand for every attribute; the forced one asks for the
    // whole-attribute form everywhere.
    static constexpr AttributeId attributeAll = 0xfffffffeu;
    static constexpr AttributeId attributeAllForced = 0xffffffffu;
    static constexpr AttributeId attributeNone = 0;

    class List_;
    template <class T>
    class Value_;
    class Notifiee;

    bool isConst() const noexcept { return isConst_; }
    virtual const TypeDescriptor* type() const noexcept = 0;
    // The value notation of what the interface holds; the type name by default.
    virtual String strRep() const;
    // The number of the named attribute in type(); RangeException if there is none.
    virtual AttributeId attributeId(String8 name) const;
    // Reflective access. The base answers nothing: it raises NotSupportedException naming
    // the attribute number.
    virtual Ptr<GenericIf> attributeOp(const AttributeOp& op, const Ptr<const GenericIf>& index,
                                       const Ptr<const GenericIf>& argument);

    // Generic observers (kept by counted reference, told in registration order).
    void genericNotifieeIs(const Ptr<Notifiee>& n);
    void genericNotifieeDel(const Ptr<Notifiee>& n);
    std::size_t genericNotifiees() const noexcept { return notifiees_.size(); }
    // Whether changes are deferred to the activity loop (and coalesced) or told at once.
    bool notificationDeferred() const noexcept { return deferred_; }
    void notificationDeferredIs(bool deferred) noexcept { deferred_ = deferred; }

    // The framework's deferral decision for a change of attributeId. When deferred, the
    // attribute is marked pending (a second different attribute turns the mark into
    // attributeAll) and handleNotification() is scheduled; returns true. Otherwise false.
    bool orbelOnAttribute(AttributeId attributeId);
    AttributeId pendingAttribute() const noexcept { return pending_; }

    // Whole-attribute form to the generic observers, in registration order. An observer
    // that throws gets onNotificationException(attributeId) (whatever that throws is
    // dropped) and the later ones are still told; nothing escapes to the caller.
    void onAttribute(AttributeId attributeId) override;
    // Per-key form to the generic observers, with the same containment.
    virtual void onAttributeKey(AttributeId attributeId, const Ptr<const GenericIf>& key);
    void onNotificationException(AttributeId attributeId) override;
    void onZeroReferences() override;
    // Default activity handling: takes the pending attribute and tells it as a whole.
    void handleNotification(ActivityConfig* config) override;
    std::uint64_t redispatches() const noexcept { return redispatches_; }

protected:
    explicit GenericIf(bool isConst) : isConst_(isConst) {}
    ~GenericIf() override;
    // Takes the pending attribute id and clears it.
    AttributeId pendingAttributeTake() noexcept;
    // What the framework does with a pending id on its own: an ordinary id is told as a
    // whole attribute; the two all-codes are counted and told to nobody.
    void defaultNotification(AttributeId attributeId);
    // Lets other pending work run between parts of one notification (counted).
    virtual void redispatch();

private:
    bool isConst_;
    bool deferred_ = false;
    AttributeId pending_ = attributeNone;
    std::uint64_t redispatches_ = 0;
    std::vector<Ptr<Notifiee>> notifiees_;
};

// A generic observer of a GenericIf.
class GenericIf::Notifiee : public PtrInterface {
public:
    // key is null for the whole-attribute form.
    virtual void onAttribute(AttributeId attributeId, const Ptr<const GenericIf>& key);
    virtual void onNotificationException(AttributeId attributeId);
    virtual void onZeroReferences();

protected:
    Notifiee() = default;
    ~Notifiee() override = default;
};

// A generic argument list (the operand of calls such as a row's val()).
class GenericIf::List_ : public GenericIf {
public:
    static Ptr<List_> make(std::vector<Ptr<const GenericIf>> elements = {}, bool isConst = false);
    const TypeDescriptor* type() const noexcept override;
    std::size_t size() const noexcept { return elements_.size(); }
    const Ptr<const GenericIf>& at(std::size_t i) const { return elements_.at(i); }

private:
    List_(std::vector<Ptr<const GenericIf>> elements, bool isConst)
        : GenericIf(isConst), elements_(std::move(elements)) {}
    std::vector<Ptr<const GenericIf>> elements_;
};

// A generic interface to one plain value (bool, a string type).
template <class T>
class GenericIf::Value_ : public GenericIf {
public:
    static Ptr<Value_> make(T value, bool isConst, const TypeDescriptor* type) {
        return Ptr<Value_>(new Value_(std::move(value), isConst, type));
    }
    const T& value() const noexcept { return value_; }
    const TypeDescriptor* type() const noexcept override { return type_; }

private:
    Value_(T value, bool isConst, const TypeDescriptor* type)
        : GenericIf(isConst), value_(std::move(value)), type_(type) {}
    T value_;
    const TypeDescriptor* type_;
};

// The registered descriptor of bool, and a generic bool.
const TypeDescriptor* boolType();
Ptr<GenericIf> genericBool(bool value, bool isConst);

} // namespace Orbel

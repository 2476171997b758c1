// Entities and their observers.
//
// An Entity is a named, reference-counted object with a version counter. Observers derive
// from Entity::NotifieeConst (itself on PtrInterface::NotifieeConst); a container keeps
// them in a ListRaw, an intrusive singly linked list, and calls them synchronously.
//
//   class Watcher : public Orbel::Entity::NotifieeConst { void onVersion() override; };
//
// A counted observer holds a counted reference to what it observes unless it is made weak
// (isWeakReferenceIs(true)); the container holds no counted reference to its observers.
//
// Changing the list during delivery: a container tells a change to the observers that were
// registered when the change was told (a snapshot, each observer held by a counted
// reference while it runs). So an observer registered during delivery is not told the
// change under way, only later ones; one unregistered during delivery is still told it if
// somebody else holds it, and skipped if it was released; an observer may unregister and
// release itself inside its handler. A container whose last outside reference is dropped
// inside a handler lives until the delivery ends, and then tells its zero references.
#pragma once

#include "PtrInterface.h"
#include "String.h"

#include <cstdint>

namespace Orbel {

class TypeDescriptor;
class ActivityConfig;

using AttributeId = std::uint32_t;

// Observer base of every reference-counted notifier. The slots below are the framework's
// own; a concrete observer type overrides the first three for its notifier's type.
class PtrInterface::NotifieeConst : public PtrInterface {
public:
    // Puts the observer on (true) or takes it off (false) its notifier's list.
    virtual void isRegisteredNotifieeIs(bool registered);
    // The observed object's name; empty when nothing is observed.
    virtual String name() const;
    // Attaches the observer to a notifier (null detaches).
    virtual void notifierIs(const Ptr<const PtrInterface>& notifier);
    // The activity loop's callback for work that was marked pending (see Activity.h).
    virtual void handleNotification(ActivityConfig* config);
    // An attribute changed as a whole.
    virtual void onAttribute(AttributeId attributeId);
    // A handler of this observer threw while being told of attributeId.
    virtual void onNotificationException(AttributeId attributeId);
    // The notifier lost its last outside reference.
    virtual void onZeroReferences();
    // A weak observer holds no counted reference to its notifier.
    virtual void isWeakReferenceIs(bool weak);
    // Switches delivery to this observer on or off.
    virtual void hasNotificationActiveIs(bool active);

    bool isRegisteredNotifiee() const noexcept { return isRegisteredNotifiee_; }
    bool isWeakReference() const noexcept { return isWeakReference_; }
    bool hasNotificationActive() const noexcept { return hasNotificationActive_; }

protected:
    NotifieeConst() = default;
    ~NotifieeConst() override = default;
    bool isRegisteredNotifiee_ = false;
    bool isWeakReference_ = false;
    bool hasNotificationActive_ = true;
};

// A named, reference-counted object with a version that counts its changes.
class Entity : public PtrInterface {
public:
    class NotifieeConst;

    const Name& name() const noexcept { return name_; }
    // Starts at 0; containers bump it on every change they make (and on confirmations).
    std::uint32_t version() const noexcept { return version_; }
    // The registered type of this entity, or null for an unregistered one.
    virtual const TypeDescriptor* type() const noexcept { return nullptr; }
    // Called when the last outside reference goes, before the entity is freed; an entity
    // with observers tells them here. The flag is informational.
    virtual void zeroReferencesIs(bool zero);

protected:
    explicit Entity(Name name) : name_(std::move(name)) {}
    ~Entity() override = default;
    void versionInc() noexcept { ++version_; }
    void onLastReference() const override;

private:
    Name name_;
    std::uint32_t version_ = 0;
    mutable bool inZeroReferences_ = false;
};

class Entity::NotifieeConst : public PtrInterface::NotifieeConst {
public:
    // The entity's parent changed.
    virtual void onParent();
    // The entity's version changed.
    virtual void onVersion();

protected:
    NotifieeConst() = default;
    ~NotifieeConst() override = default;
};

// The string form of a reference to an entity of the named type:
//   Ref('GenericAgent::Config', 'bgpd', 0x55d0c8a0f2b0)   or   Ref('GenericAgent::Config', null)
String refStrep(const char* typeName, const Entity* entity);

// Intrusive singly linked list of raw pointers, linked through T::*Link. Holds no
// references. Every insertion and removal bumps modCount().
template <class T, T* T::*Link>
class ListRaw {
public:
    T* first() const noexcept { return first_; }
    T* last() const noexcept { return last_; }
    static T* next(const T* t) noexcept { return t->*Link; }
    std::uint32_t count() const noexcept { return count_; }
    std::uint32_t modCount() const noexcept { return modCount_; }

    // Appends t (precondition: not on any list).
    void pushBack(T* t) noexcept {
        t->*Link = nullptr;
        if (last_)
            last_->*Link = t;
        else
            first_ = t;
        last_ = t;
        ++count_;
        ++modCount_;
    }
    // Unlinks t, searching from the head; returns false (and changes nothing) if absent.
    bool remove(T* t) noexcept {
        T* prev = nullptr;
        for (T* cur = first_; cur; prev = cur, cur = cur->*Link) {
            if (cur != t) continue;
            (prev ? prev->*Link : first_) = cur->*Link;
            if (last_ == cur) last_ = prev;
            cur->*Link = nullptr;
            --count_;
            ++modCount_;
            return true;
        }
        return false;
    }
    // Unlinks everything: each element's link is cleared, count goes to 0.
    void clear() noexcept {
        for (T* cur = first_; cur;) {
            T* n = cur->*Link;
            cur->*Link = nullptr;
            cur = n;
        }
        first_ = last_ = nullptr;
        count_ = 0;
        ++modCount_;
    }

private:
    T* first_ = nullptr;
    T* last_ = nullptr;
    std::uint32_t count_ = 0;
    std::uint32_t modCount_ = 0;
};

} // namespace Orbel

// The launcher's per-daemon state: GenericAgent::Config (whether the daemon is enabled and
// its option values) and GenericAgent::Status (whether it runs and the data it publishes).
// Both are entities changed in place by their owner (the state feed); readers such as the
// daemon MIB rows look values up at the moment they are asked, and observers hear when the
// flag (enabled, running) changes.
//
//   auto cfg = GenericAgent::Config::configFactory("bgpd");
//   cfg->enabledIs(true);
//   cfg->optionIs(GenericAgent::AgentKey("asn"), GenericAgent::AgentVal("65001"));
//   GenericAgent::AgentVal v = cfg->option(GenericAgent::AgentKey("asn"));   // "65001"
//
//   class Watch : public GenericAgent::Config::NotifieeConst {
//       void onEnabled() override { ... notifier()->enabled() ... }
//   };
//   Orbel::Ptr<Watch> w = new Watch;
//   w->notifierIs(cfg);
//   w->isRegisteredNotifieeIs(true);
//   cfg->enabledIs(false);    // w->onEnabled(); enabledIs(false) again tells nothing
#pragma once

#include "orbel/Entity.h"
#include "orbel/Exception.h"

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace Orbel {
class TypeDescriptor;
}

namespace GenericAgent {

// A key of the option and data collections: at most 1024 bytes.
class AgentKey : public Orbel::String8 {
public:
    static constexpr std::size_t maxLength = 1024;
    AgentKey() = default;
    // Shares the bytes of s. Throws Orbel::RangeException
    // "AgentKey::bytes > AgentKey::maxLength not allowed" when s is longer than maxLength.
    explicit AgentKey(const Orbel::String8& s);
};

// A value of the option and data collections: at most 10240 bytes.
class AgentVal : public Orbel::String8 {
public:
    static constexpr std::size_t maxLength = 10240;
    AgentVal() = default;
    // Shares the bytes of s. Throws Orbel::RangeException
    // "AgentVal::bytes > AgentVal::maxLength not allowed" when s is longer than maxLength.
    explicit AgentVal(const Orbel::String8& s);
};

// Hashes with the framework string's hash; buckets compare bytes.
struct AgentKeyHash {
    std::size_t operator()(const AgentKey& k) const noexcept { return k.hash(); }
};

using AgentValMap = std::unordered_map<AgentKey, AgentVal, AgentKeyHash>;

template <class Owner, class Observer>
struct FlagObservers;

// The observer list of a Config or Status, and the machinery shared by both observer
// types: an observer is told only while it is both attached (notifierIs) and registered
// (isRegisteredNotifieeIs(true)), in registration order; unless weak it holds a counted
// reference to what it observes.
template <class Owner>
class FlagNotifieeConst : public Orbel::Entity::NotifieeConst {
public:
    // Attaches to notifier if it is an Owner (anything else, like null, detaches). If
    // registered, moves from the old owner's list to the end of the new one's.
    void notifierIs(const Orbel::Ptr<const Orbel::PtrInterface>& notifier) override;
    // Appends to (true) or unlinks from (false) the attached owner's list.
    void isRegisteredNotifieeIs(bool registered) override;
    // The observed object's name; empty when detached.
    Orbel::String name() const override;
    // Weak: the reference to the observed object is given up (or taken again on false).
    void isWeakReferenceIs(bool weak) override;
    // The observed object, or null (also once an object that a weak observer outlived is gone).
    const Owner* notifier() const noexcept { return orphaned_ ? nullptr : notifier_; }

protected:
    FlagNotifieeConst() = default;
    // Unlinks itself if attached and registered, then releases its reference.
    ~FlagNotifieeConst() override;

private:
    template <class, class>
    friend struct FlagObservers;
    template <class>
    friend struct FlagObserverList;
    // The owner's flag changed (each observer type turns it into its own handler).
    virtual void onFlag() = 0;
    Owner* notifier_ = nullptr;
    FlagNotifieeConst* next_ = nullptr;
    bool orphaned_ = false;
};

// The list an owner keeps of its observers (registered ones linked, attached ones known
// so that they can be orphaned when the owner goes).
template <class Owner>
struct FlagObserverList {
    Orbel::ListRaw<FlagNotifieeConst<Owner>, &FlagNotifieeConst<Owner>::next_> registered;
    std::vector<FlagNotifieeConst<Owner>*> attached;
    bool destroying = false;
};

// A daemon's configuration as the launcher holds it.
class Config : public Orbel::Entity {
public:
    class NotifieeConst;
    class Notifiee;
    // The attribute a change of the flag is told under (and a failed handler reported).
    static constexpr Orbel::AttributeId enabledId = 130;
    // The attribute a failed onZeroReferences() is reported under.
    static constexpr Orbel::AttributeId zeroReferencesId = 5;

    static Orbel::Ptr<Config> configFactory(Orbel::Name name);
    static const Orbel::TypeDescriptor* _fwkType;

    bool enabled() const noexcept { return enabled_; }
    // Sets the flag. A different value bumps the version and is told to every registered
    // observer (onEnabled(), in registration order; a handler that throws gets
    // onNotificationException(enabledId) and the others are still told). The same value
    // changes and tells nothing.
    void enabledIs(bool enabled);
    // The option's value, or null when the daemon has no such option.
    const AgentVal* option(const AgentKey& key) const;
    // Sets (or replaces) an option.
    void optionIs(const AgentKey& key, const AgentVal& val) { options_.insert_or_assign(key, val); }
    // Removes an option; false when there was none.
    bool optionDel(const AgentKey& key) { return options_.erase(key) != 0; }
    const AgentValMap& options() const noexcept { return options_; }
    const Orbel::TypeDescriptor* type() const noexcept override { return _fwkType; }

    // Number of registered observers.
    std::uint32_t notifiees() const noexcept { return observers_.registered.count(); }
    // The last outside reference went: each registered observer gets onZeroReferences().
    void zeroReferencesIs(bool zero) override;

protected:
    explicit Config(Orbel::Name name) : Orbel::Entity(std::move(name)) {}
    // Orphans every attached observer (a weak one may outlive the object).
    ~Config() override;

private:
    template <class, class>
    friend struct FlagObservers;
    template <class>
    friend class FlagNotifieeConst;
    bool enabled_ = false;
    AgentValMap options_;
    FlagObserverList<Config> observers_;
};

// An observer of a Config (see FlagNotifieeConst). Observers must be heap objects held
// through Ptr: delivery holds a reference to each while it is called.
class Config::NotifieeConst : public FlagNotifieeConst<Config> {
public:
    // The enabled flag changed; notifier()->enabled() is the new value.
    virtual void onEnabled();

protected:
    NotifieeConst() = default;
    ~NotifieeConst() override = default;

private:
    void onFlag() final { onEnabled(); }
};

class Config::Notifiee : public Config::NotifieeConst {
public:
    Config* notifier() const noexcept { return const_cast<Config*>(NotifieeConst::notifier()); }

protected:
    Notifiee() = default;
    ~Notifiee() override = default;
};

// A daemon's run-time status as the launcher reports it.
class Status : public Orbel::Entity {
public:
    class NotifieeConst;
    class Notifiee;
    static constexpr Orbel::AttributeId runningId = 130;
    static constexpr Orbel::AttributeId zeroReferencesId = 5;

    static Orbel::Ptr<Status> statusFactory(Orbel::Name name);
    static const Orbel::TypeDescriptor* _fwkType;

    bool running() const noexcept { return running_; }
    // Sets the flag; told as Config::enabledIs tells (onRunning(), runningId).
    void runningIs(bool running);
    // The published value, or null when the daemon publishes no such key.
    const AgentVal* data(const AgentKey& key) const;
    void dataIs(const AgentKey& key, const AgentVal& val) { data_.insert_or_assign(key, val); }
    bool dataDel(const AgentKey& key) { return data_.erase(key) != 0; }
    const AgentValMap& data() const noexcept { return data_; }
    const Orbel::TypeDescriptor* type() const noexcept override { return _fwkType; }

    std::uint32_t notifiees() const noexcept { return observers_.registered.count(); }
    void zeroReferencesIs(bool zero) override;

protected:
    explicit Status(Orbel::Name name) : Orbel::Entity(std::move(name)) {}
    ~Status() override;

private:
    template <class, class>
    friend struct FlagObservers;
    template <class>
    friend class FlagNotifieeConst;
    bool running_ = false;
    AgentValMap data_;
    FlagObserverList<Status> observers_;
};

// An observer of a Status (see FlagNotifieeConst).
class Status::NotifieeConst : public FlagNotifieeConst<Status> {
public:
    // The running flag changed; notifier()->running() is the new value.
    virtual void onRunning();

protected:
    NotifieeConst() = default;
    ~NotifieeConst() override = default;

private:
    void onFlag() final { onRunning(); }
};

class Status::Notifiee : public Status::NotifieeConst {
public:
    Status* notifier() const noexcept { return const_cast<Status*>(NotifieeConst::notifier()); }

protected:
    Notifiee() = default;
    ~Notifiee() override = default;
};

} // namespace GenericAgent

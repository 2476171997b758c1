// The launcher's per-daemon state: GenericAgent::Config (whether the daemon is enabled and
// its option values) and GenericAgent::Status (whether it runs and the data it publishes).
// Both are entities changed in place by their owner (the state feed); readers such as the
// daemon MIB rows look values up at the moment they are asked.
//
//   auto cfg = GenericAgent::Config::configFactory("bgpd");
//   cfg->enabledIs(true);
//   cfg->optionIs(GenericAgent::AgentKey("asn"), GenericAgent::AgentVal("65001"));
//   GenericAgent::AgentVal v = cfg->option(GenericAgent::AgentKey("asn"));   // "65001"
#pragma once

#include "orbel/Entity.h"
#include "orbel/Exception.h"

#include <cstddef>
#include <unordered_map>

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

// A daemon's configuration as the launcher holds it.
class Config : public Orbel::Entity {
public:
    static Orbel::Ptr<Config> configFactory(Orbel::Name name);
    static const Orbel::TypeDescriptor* _fwkType;

    bool enabled() const noexcept { return enabled_; }
    void enabledIs(bool enabled) noexcept { enabled_ = enabled; }
    // The option's value, or null when the daemon has no such option.
    const AgentVal* option(const AgentKey& key) const;
    // Sets (or replaces) an option.
    void optionIs(const AgentKey& key, const AgentVal& val) { options_.insert_or_assign(key, val); }
    // Removes an option; false when there was none.
    bool optionDel(const AgentKey& key) { return options_.erase(key) != 0; }
    const AgentValMap& options() const noexcept { return options_; }
    const Orbel::TypeDescriptor* type() const noexcept override { return _fwkType; }

protected:
    explicit Config(Orbel::Name name) : Orbel::Entity(std::move(name)) {}
    ~Config() override = default;

private:
    bool enabled_ = false;
    AgentValMap options_;
};

// A daemon's run-time status as the launcher reports it.
class Status : public Orbel::Entity {
public:
    static Orbel::Ptr<Status> statusFactory(Orbel::Name name);
    static const Orbel::TypeDescriptor* _fwkType;

    bool running() const noexcept { return running_; }
    void runningIs(bool running) noexcept { running_ = running; }
    // The published value, or null when the daemon publishes no such key.
    const AgentVal* data(const AgentKey& key) const;
    void dataIs(const AgentKey& key, const AgentVal& val) { data_.insert_or_assign(key, val); }
    bool dataDel(const AgentKey& key) { return data_.erase(key) != 0; }
    const AgentValMap& data() const noexcept { return data_; }
    const Orbel::TypeDescriptor* type() const noexcept override { return _fwkType; }

protected:
    explicit Status(Orbel::Name name) : Orbel::Entity(std::move(name)) {}
    ~Status() override = default;

private:
    bool running_ = false;
    AgentValMap data_;
};

} // namespace GenericAgent

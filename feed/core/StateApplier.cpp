#include "StateApplier.h"

#include <stdexcept>
#include <utility>

namespace Feed {

namespace {

// ---------------------------------------------------------------------------------------
// The two sides of a daemon: config (enabled row, option rows) and status (running row,
// data rows). One mechanism below serves both.

struct ConfigSide {
    using Object = GenericAgent::Config;
    static const SectionChange& of(const DaemonChange& d) { return d.config; }
    static Orbel::Ptr<Object> make(const Orbel::String& name) { return Object::configFactory(name); }
    static void flagIs(Object& o, bool f) { o.enabledIs(f); }
    static void valueIs(Object& o, const Orbel::String& k, const std::string& v) {
        o.optionIs(GenericAgent::AgentKey(k), GenericAgent::AgentVal(Orbel::String(v)));
    }
    static void valueDel(Object& o, const Orbel::String& k) { o.optionDel(GenericAgent::AgentKey(k)); }
    static const GenericAgent::AgentValMap& values(const Object& o) { return o.options(); }
    static void flagRowIs(GenericAgent::DaemonMib& m, const Orbel::String& n, const Orbel::Ptr<Object>& o) {
        m.enabledTableIs(n, o);
    }
    static void flagRowDel(GenericAgent::DaemonMib& m, const Orbel::String& n) { m.enabledTableDel(n); }
    static void keyRowIs(GenericAgent::DaemonMib& m, const Orbel::String& n, const Orbel::String& k,
                         const Orbel::Ptr<Object>& o) {
        m.optionTableIs(GenericAgent::OptionTableIndex(n, k), o);
    }
    static void keyRowDel(GenericAgent::DaemonMib& m, const Orbel::String& n, const Orbel::String& k) {
        m.optionTableDel(GenericAgent::OptionTableIndex(n, k));
    }
};

struct StatusSide {
    using Object = GenericAgent::Status;
    static const SectionChange& of(const DaemonChange& d) { return d.status; }
    static Orbel::Ptr<Object> make(const Orbel::String& name) { return Object::statusFactory(name); }
    static void flagIs(Object& o, bool f) { o.runningIs(f); }
    static void valueIs(Object& o, const Orbel::String& k, const std::string& v) {
        o.dataIs(GenericAgent::AgentKey(k), GenericAgent::AgentVal(Orbel::String(v)));
    }
    static void valueDel(Object& o, const Orbel::String& k) { o.dataDel(GenericAgent::AgentKey(k)); }
    static const GenericAgent::AgentValMap& values(const Object& o) { return o.data(); }
    static void flagRowIs(GenericAgent::DaemonMib& m, const Orbel::String& n, const Orbel::Ptr<Object>& o) {
        m.runningTableIs(n, o);
    }
    static void flagRowDel(GenericAgent::DaemonMib& m, const Orbel::String& n) { m.runningTableDel(n); }
    static void keyRowIs(GenericAgent::DaemonMib& m, const Orbel::String& n, const Orbel::String& k,
                         const Orbel::Ptr<Object>& o) {
        m.dataTableIs(GenericAgent::DataTableIndex(n, k), o);
    }
    static void keyRowDel(GenericAgent::DaemonMib& m, const Orbel::String& n, const Orbel::String& k) {
        m.dataTableDel(GenericAgent::DataTableIndex(n, k));
    }
};

// The key as the object stores it: a row made with it shares the key's bytes with the
// object's entry instead of holding a copy of its own.
template <class Side>
Orbel::String storedKey(const typename Side::Object& object, const Orbel::String& key) {
    const GenericAgent::AgentValMap& values = Side::values(object);
    auto it = values.find(GenericAgent::AgentKey(key));
    return it == values.end() ? key : Orbel::String(it->first);
}

// A new object filled from a section that appears.
template <class Side>
Orbel::Ptr<typename Side::Object> makeFilled(const Orbel::String& name, const SectionChange& s) {
    auto object = Side::make(name);
    Side::flagIs(*object, s.flag.value_or(false));
    for (const KeyChange& k : s.keys)
        if (k.value) Side::valueIs(*object, Orbel::String(k.key), *k.value);
    return object;
}

template <class Side>
void addKeyRows(GenericAgent::DaemonMib& m, const Orbel::String& name, const SectionChange& s,
                const Orbel::Ptr<typename Side::Object>& object) {
    for (const KeyChange& k : s.keys)
        if (k.rowAfter) Side::keyRowIs(m, name, storedKey<Side>(*object, Orbel::String(k.key)), object);
}

template <class Side>
void removeKeyRows(GenericAgent::DaemonMib& m, const Orbel::String& name, const SectionChange& s) {
    for (const KeyChange& k : s.keys)
        if (k.rowBefore) Side::keyRowDel(m, name, Orbel::String(k.key));
}

// One side of a daemon that stays: in place, or with its object (and flag row) replaced.
template <class Side>
void applySide(GenericAgent::DaemonMib& m, const Orbel::String& name, const SectionChange& s,
               Orbel::Ptr<typename Side::Object>& object) {
    if (s.before && s.after) {
        if (s.flag) Side::flagIs(*object, *s.flag);
        for (const KeyChange& k : s.keys) {
            Orbel::String key(k.key);
            if (k.rowBefore && !k.rowAfter) Side::keyRowDel(m, name, key);
            if (k.value)
                Side::valueIs(*object, key, *k.value);
            else
                Side::valueDel(*object, key);
            if (!k.rowBefore && k.rowAfter) Side::keyRowIs(m, name, storedKey<Side>(*object, key), object);
        }
    } else if (s.after) {
        object = makeFilled<Side>(name, s);
        Side::flagRowDel(m, name);
        Side::flagRowIs(m, name, object);
        addKeyRows<Side>(m, name, s, object);
    } else if (s.before) {
        removeKeyRows<Side>(m, name, s);
        Side::flagRowDel(m, name);
        Side::flagRowIs(m, name, nullptr);
        object = nullptr;
    }
}

} // namespace

StateApplier::StateApplier(Orbel::Ptr<GenericAgent::DaemonMib> mib) : mib_(std::move(mib)) {
    if (!mib_) throw std::invalid_argument("StateApplier: null DaemonMib");
}

Orbel::Ptr<GenericAgent::Config> StateApplier::config(const std::string& daemon) const {
    auto it = objects_.find(daemon);
    return it == objects_.end() ? nullptr : it->second.config;
}

Orbel::Ptr<GenericAgent::Status> StateApplier::status(const std::string& daemon) const {
    auto it = objects_.find(daemon);
    return it == objects_.end() ? nullptr : it->second.status;
}

void StateApplier::apply(const StateDiff& diff) {
    applied_.reset();
    for (const DaemonChange& d : diff.daemons) applyDaemon(d);
}

DaemonState StateApplier::readBack(const Objects& o) {
    DaemonState d;
    auto copy = [](const GenericAgent::AgentValMap& values, std::map<std::string, std::string>& keys) {
        for (const auto& [k, v] : values) keys.emplace(std::string(k.view()), std::string(v.view()));
    };
    if (o.config) {
        d.hasConfig = true;
        d.enabled = o.config->enabled();
        copy(o.config->options(), d.options);
    }
    if (o.status) {
        d.hasStatus = true;
        d.running = o.status->running();
        copy(o.status->data(), d.data);
    }
    return d;
}

std::optional<DaemonState> StateApplier::served(const std::string& daemon) const {
    auto it = objects_.find(daemon);
    if (it == objects_.end()) return std::nullopt;
    return readBack(it->second);
}

const LauncherState& StateApplier::applied() const {
    if (applied_) return *applied_;
    LauncherState state;
    for (const auto& [name, o] : objects_) state.emplace_hint(state.end(), name, readBack(o));
    applied_ = std::move(state);
    return *applied_;
}

void StateApplier::applyDaemon(const DaemonChange& d) {
    GenericAgent::DaemonMib& m = *mib_;
    if (!d.before) {
        if (!d.after) return;
        if (objects_.count(d.name))
            throw std::logic_error("StateApplier: daemon " + quote(d.name) + " is served already");
        Objects& o = objects_[d.name];
        o.name = Orbel::String(d.name);
        if (d.config.after) o.config = makeFilled<ConfigSide>(o.name, d.config);
        if (d.status.after) o.status = makeFilled<StatusSide>(o.name, d.status);
        m.enabledTableIs(o.name, o.config);
        addKeyRows<ConfigSide>(m, o.name, d.config, o.config);
        m.runningTableIs(o.name, o.status);
        addKeyRows<StatusSide>(m, o.name, d.status, o.status);
        return;
    }
    auto it = objects_.find(d.name);
    if (it == objects_.end()) throw std::logic_error("StateApplier: daemon " + quote(d.name) + " is not served");
    Objects& o = it->second;
    if (!d.after) {
        removeKeyRows<ConfigSide>(m, o.name, d.config);
        m.enabledTableDel(o.name);
        removeKeyRows<StatusSide>(m, o.name, d.status);
        m.runningTableDel(o.name);
        objects_.erase(it);
        return;
    }
    applySide<ConfigSide>(m, o.name, d.config, o.config);
    applySide<StatusSide>(m, o.name, d.status, o.status);
}

} // namespace Feed

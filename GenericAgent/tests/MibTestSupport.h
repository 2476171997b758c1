// Helpers shared by the state model tests: a recording observer, live-object counters,
// the Snmp::String order written out independently, and one traits type per table so
// that a test can run the same steps on all four tables.
#pragma once

#include "GenericAgent/GenericAgentSnmp.h"
#include "orbel/Activity.h"
#include "orbel/Entity.h"
#include "orbel/GenericIf.h"
#include "orbel/PtrInterface.h"
#include "orbel/String.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

// Runs f, which must throw E; returns its message (a failure is recorded otherwise).
template <class E, class F>
std::string thrownMessage(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e.message().stdString();
    } catch (const std::exception& e) {
        ADD_FAILURE() << "unexpected exception: " << e.what();
        return "<other exception>";
    }
    ADD_FAILURE() << "nothing thrown";
    return "<nothing thrown>";
}

using GenericAgent::Config;
using GenericAgent::DaemonMib;
using GenericAgent::DataTableIndex;
using GenericAgent::OptionTableIndex;
using GenericAgent::Status;

inline std::string str(const Snmp::String& s) {
    return std::string(s.view());
}

// Bytes made printable for failure messages.
inline std::string printable(std::string_view s) {
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (char ch : s) {
        auto c = static_cast<unsigned char>(ch);
        if (c < 0x20 || c >= 0x7f || c == '\\') {
            out += "\\x";
            out.push_back(hex[c >> 4]);
            out.push_back(hex[c & 15]);
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out;
}

// What an observer was told. kind is "key" (a per-key handler, id 258..261), "exception"
// (onNotificationException(id)), "zero" (onZeroReferences) or "gone" (the observer died).
struct Event {
    std::string who;
    std::string kind;
    Orbel::AttributeId id = 0;
    std::string name;
    std::string key;
    bool operator==(const Event&) const = default;
};

inline std::ostream& operator<<(std::ostream& os, const Event& e) {
    os << "{" << e.who << " " << e.kind << " " << e.id;
    if (e.kind == "key") os << " '" << printable(e.name) << "' '" << printable(e.key) << "'";
    return os << "}";
}

inline Event keyEvent(Orbel::AttributeId id, std::string name, std::string key = {}, std::string who = {}) {
    return Event{std::move(who), "key", id, std::move(name), std::move(key)};
}
inline Event exceptionEvent(Orbel::AttributeId id, std::string who = {}) {
    return Event{std::move(who), "exception", id, {}, {}};
}
inline Event zeroEvent(std::string who = {}) {
    return Event{std::move(who), "zero", 5, {}, {}};
}
inline Event goneEvent(std::string who = {}) {
    return Event{std::move(who), "gone", 0, {}, {}};
}

// An observer that records every per-key handler, exception report and zero-references
// call, in its own list and optionally in a list shared with other observers. A hook runs
// after each recorded per-key or zero-references event and may throw or change things.
class Recorder : public DaemonMib::Notifiee {
public:
    using Hook = std::function<void(Recorder&, const Event&)>;

    static Orbel::Ptr<Recorder> make(std::string who = {}, std::vector<Event>* shared = nullptr) {
        return new Recorder(std::move(who), shared);
    }

    std::vector<Event> events;
    Hook hook;
    Hook exceptionHook;

    void onEnabledTable(Snmp::String n) override { record(keyEvent(DaemonMib::enabledTableId, str(n), {}, who_)); }
    void onOptionTable(const OptionTableIndex& i) override {
        record(keyEvent(DaemonMib::optionTableId, str(i.agentName()), str(i.key()), who_));
    }
    void onRunningTable(Snmp::String n) override { record(keyEvent(DaemonMib::runningTableId, str(n), {}, who_)); }
    void onDataTable(const DataTableIndex& i) override {
        record(keyEvent(DaemonMib::dataTableId, str(i.agentName()), str(i.key()), who_));
    }
    void onNotificationException(Orbel::AttributeId id) override {
        Event e = exceptionEvent(id, who_);
        push(e);
        if (exceptionHook) exceptionHook(*this, e);
    }
    void onZeroReferences() override { record(zeroEvent(who_)); }

    // Only the per-key events, in order.
    std::vector<Event> keyEvents() const {
        std::vector<Event> out;
        for (const auto& e : events)
            if (e.kind == "key") out.push_back(e);
        return out;
    }

protected:
    Recorder(std::string who, std::vector<Event>* shared) : who_(std::move(who)), shared_(shared) {}
    ~Recorder() override {
        if (shared_) shared_->push_back(goneEvent(who_));
    }

private:
    void push(const Event& e) {
        events.push_back(e);
        if (shared_) shared_->push_back(e);
    }
    void record(const Event& e) {
        push(e);
        if (hook) hook(*this, e);
    }
    std::string who_;
    std::vector<Event>* shared_;
};

// Attaches o to m and registers it.
template <class T>
Orbel::Ptr<T> attached(Orbel::Ptr<T> o, const Orbel::Ptr<DaemonMib>& m) {
    o->notifierIs(m);
    o->isRegisteredNotifieeIs(true);
    return o;
}

// Counted objects and string bodies alive in the process. warm() makes once-only,
// process-long objects (type descriptors) before a baseline is taken.
struct LiveCounts {
    std::int64_t instances;
    std::int64_t bodies;
    static void warm() {
        GenericAgent::registerDaemonMibTypes();
        Snmp::String::type();
        Orbel::boolType();
        Orbel::ActivityLoop::instance().runPending();
    }
    static LiveCounts now() { return {Orbel::PtrInterface::liveInstances(), Orbel::String::liveBodies()}; }
    bool operator==(const LiveCounts&) const = default;
};

inline std::ostream& operator<<(std::ostream& os, const LiveCounts& c) {
    return os << "{instances " << c.instances << ", bodies " << c.bodies << "}";
}

// The order of Snmp::String, written out on its own: the shorter string first, then the
// bytes compared as unsigned.
inline bool snmpLess(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return a.size() < b.size();
    for (std::size_t i = 0; i < a.size(); ++i) {
        auto x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
        if (x != y) return x < y;
    }
    return false;
}

// A row key as (name, key); the one-component tables use an empty key.
using RefKey = std::pair<std::string, std::string>;
struct RefKeyLess {
    bool operator()(const RefKey& a, const RefKey& b) const {
        if (snmpLess(a.first, b.first)) return true;
        if (a.first == b.first) return snmpLess(a.second, b.second);
        return false;
    }
};

// The expected text of the name-in-use error.
inline std::string nameInUseText(const char* attribute, const char* type, const Orbel::Entity* given,
                                 const Orbel::Entity* stored) {
    return std::string("Reinstantiating the pointer interface where constructor parameter attribute ") + attribute +
           " has a different value of " + Orbel::refStrep(type, given).stdString() + " than the current value of " +
           Orbel::refStrep(type, stored).stdString() + " not allowed";
}

// One traits type per table: the operations and constants, so tests run on all four.
struct EnabledTable {
    using Entry = GenericAgent::EnabledTableEntry;
    using Key = Snmp::String;
    using Source = Config;
    using Map = DaemonMib::EnabledTableMap;
    static constexpr Orbel::AttributeId id = DaemonMib::enabledTableId;
    static constexpr bool twoComponents = false;
    static constexpr const char* attribute = "_agentConfig";
    static constexpr const char* sourceType = "GenericAgent::Config";
    static Key key(std::string_view name, std::string_view = {}) { return Snmp::String(name); }
    static RefKey refKey(const Key& k) { return {str(k), {}}; }
    static Orbel::Ptr<Source> source(const char* name) { return Config::configFactory(name); }
    static const Orbel::Ptr<Source const>& sourceOf(const Entry& e) { return e.agentConfig(); }
    static const Map& map(const DaemonMib& m) { return m.enabledTable(); }
    static Orbel::Ptr<Entry> lookup(const DaemonMib& m, const Key& k) { return m.enabledTable(k); }
    static Orbel::Ptr<Entry> make(DaemonMib& m, const Key& k, const Orbel::Ptr<Source const>& s) {
        return m.newEnabledTable(k, s);
    }
    static Orbel::Ptr<Entry> is(DaemonMib& m, const Key& k, const Orbel::Ptr<Source const>& s) {
        return m.enabledTableIs(k, s);
    }
    static Orbel::Ptr<Entry> del(DaemonMib& m, const Key& k) { return m.enabledTableDel(k); }
    static Orbel::Ptr<Entry> del(DaemonMib& m, Map::Iterator& it) { return m.enabledTableDel(it); }
    static void delAll(DaemonMib& m) { m.enabledTableDelAll(); }
    static void notify(DaemonMib& m, const Key& k) { m.enabledTableNotify(k); }
};

struct OptionTable {
    using Entry = GenericAgent::OptionTableEntry;
    using Key = OptionTableIndex;
    using Source = Config;
    using Map = DaemonMib::OptionTableMap;
    static constexpr Orbel::AttributeId id = DaemonMib::optionTableId;
    static constexpr bool twoComponents = true;
    static constexpr const char* attribute = "_agentConfig";
    static constexpr const char* sourceType = "GenericAgent::Config";
    static Key key(std::string_view name, std::string_view key = {}) {
        return Key(Snmp::String(name), Snmp::String(key));
    }
    static RefKey refKey(const Key& k) { return {str(k.agentName()), str(k.key())}; }
    static Orbel::Ptr<Source> source(const char* name) { return Config::configFactory(name); }
    static const Orbel::Ptr<Source const>& sourceOf(const Entry& e) { return e.agentConfig(); }
    static const Map& map(const DaemonMib& m) { return m.optionTable(); }
    static Orbel::Ptr<Entry> lookup(const DaemonMib& m, const Key& k) { return m.optionTable(k); }
    static Orbel::Ptr<Entry> make(DaemonMib& m, const Key& k, const Orbel::Ptr<Source const>& s) {
        return m.newOptionTable(k, s);
    }
    static Orbel::Ptr<Entry> is(DaemonMib& m, const Key& k, const Orbel::Ptr<Source const>& s) {
        return m.optionTableIs(k, s);
    }
    static Orbel::Ptr<Entry> del(DaemonMib& m, const Key& k) { return m.optionTableDel(k); }
    static Orbel::Ptr<Entry> del(DaemonMib& m, Map::Iterator& it) { return m.optionTableDel(it); }
    static void delAll(DaemonMib& m) { m.optionTableDelAll(); }
    static void notify(DaemonMib& m, const Key& k) { m.optionTableNotify(k); }
};

struct RunningTable {
    using Entry = GenericAgent::RunningTableEntry;
    using Key = Snmp::String;
    using Source = Status;
    using Map = DaemonMib::RunningTableMap;
    static constexpr Orbel::AttributeId id = DaemonMib::runningTableId;
    static constexpr bool twoComponents = false;
    static constexpr const char* attribute = "_agentStatus";
    static constexpr const char* sourceType = "GenericAgent::Status";
    static Key key(std::string_view name, std::string_view = {}) { return Snmp::String(name); }
    static RefKey refKey(const Key& k) { return {str(k), {}}; }
    static Orbel::Ptr<Source> source(const char* name) { return Status::statusFactory(name); }
    static const Orbel::Ptr<Source const>& sourceOf(const Entry& e) { return e.agentStatus(); }
    static const Map& map(const DaemonMib& m) { return m.runningTable(); }
    static Orbel::Ptr<Entry> lookup(const DaemonMib& m, const Key& k) { return m.runningTable(k); }
    static Orbel::Ptr<Entry> make(DaemonMib& m, const Key& k, const Orbel::Ptr<Source const>& s) {
        return m.newRunningTable(k, s);
    }
    static Orbel::Ptr<Entry> is(DaemonMib& m, const Key& k, const Orbel::Ptr<Source const>& s) {
        return m.runningTableIs(k, s);
    }
    static Orbel::Ptr<Entry> del(DaemonMib& m, const Key& k) { return m.runningTableDel(k); }
    static Orbel::Ptr<Entry> del(DaemonMib& m, Map::Iterator& it) { return m.runningTableDel(it); }
    static void delAll(DaemonMib& m) { m.runningTableDelAll(); }
    static void notify(DaemonMib& m, const Key& k) { m.runningTableNotify(k); }
};

struct DataTable {
    using Entry = GenericAgent::DataTableEntry;
    using Key = DataTableIndex;
    using Source = Status;
    using Map = DaemonMib::DataTableMap;
    static constexpr Orbel::AttributeId id = DaemonMib::dataTableId;
    static constexpr bool twoComponents = true;
    static constexpr const char* attribute = "_agentStatus";
    static constexpr const char* sourceType = "GenericAgent::Status";
    static Key key(std::string_view name, std::string_view key = {}) {
        return Key(Snmp::String(name), Snmp::String(key));
    }
    static RefKey refKey(const Key& k) { return {str(k.agentName()), str(k.key())}; }
    static Orbel::Ptr<Source> source(const char* name) { return Status::statusFactory(name); }
    static const Orbel::Ptr<Source const>& sourceOf(const Entry& e) { return e.agentStatus(); }
    static const Map& map(const DaemonMib& m) { return m.dataTable(); }
    static Orbel::Ptr<Entry> lookup(const DaemonMib& m, const Key& k) { return m.dataTable(k); }
    static Orbel::Ptr<Entry> make(DaemonMib& m, const Key& k, const Orbel::Ptr<Source const>& s) {
        return m.newDataTable(k, s);
    }
    static Orbel::Ptr<Entry> is(DaemonMib& m, const Key& k, const Orbel::Ptr<Source const>& s) {
        return m.dataTableIs(k, s);
    }
    static Orbel::Ptr<Entry> del(DaemonMib& m, const Key& k) { return m.dataTableDel(k); }
    static Orbel::Ptr<Entry> del(DaemonMib& m, Map::Iterator& it) { return m.dataTableDel(it); }
    static void delAll(DaemonMib& m) { m.dataTableDelAll(); }
    static void notify(DaemonMib& m, const Key& k) { m.dataTableNotify(k); }
};

// The key of a row as (name, key).
template <class T>
RefKey refKeyOf(const typename T::Entry& e) {
    return T::refKey(e.fwkKey());
}

// The keys of a table in walk order.
template <class T>
std::vector<RefKey> walk(const DaemonMib& m) {
    std::vector<RefKey> out;
    for (auto it = T::map(m).begin(); !it.isEnd(); ++it) out.push_back(T::refKey(it.key()));
    return out;
}

// The per-key event a change of k on table T produces.
template <class T>
Event eventFor(const RefKey& k, std::string who = {}) {
    return keyEvent(T::id, k.first, k.second, std::move(who));
}

} // namespace

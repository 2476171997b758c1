// The DaemonMib container: one mechanism for the six operations of all four tables, and
// the observer list they notify.
#include "GenericAgentSnmp.h"

#include "orbel/Entity.h"
#include "orbel/ObserverDelivery.h"

#include <algorithm>
#include <vector>

namespace GenericAgent {

// The one place that reaches the container's and observers' internals.
struct DaemonMibAccess {
    using List = Orbel::ListRaw<DaemonMib::NotifieeConst, &DaemonMib::NotifieeConst::next_>;
    static List& list(const DaemonMib& m);
    static void versionInc(DaemonMib& m) { m.versionInc(); }
    static bool destroying(const DaemonMib& m) { return m.destroying_; }
    static DaemonMib::EnabledTableMap& map(DaemonMib& m, const EnabledTableEntry*) { return m.enabledTable_; }
    static DaemonMib::OptionTableMap& map(DaemonMib& m, const OptionTableEntry*) { return m.optionTable_; }
    static DaemonMib::RunningTableMap& map(DaemonMib& m, const RunningTableEntry*) { return m.runningTable_; }
    static DaemonMib::DataTableMap& map(DaemonMib& m, const DataTableEntry*) { return m.dataTable_; }
    static DaemonMib*& notifier(DaemonMib::NotifieeConst& n) { return n.notifier_; }
    static bool& orphaned(DaemonMib::NotifieeConst& n) { return n.orphaned_; }
    static void attach(const DaemonMib& m, DaemonMib::NotifieeConst* n);
    static void detach(const DaemonMib& m, DaemonMib::NotifieeConst* n);
};

struct DaemonMib::NotifieeList {
    DaemonMibAccess::List list;
    // Every observer attached to the container, registered or not: all of them must be
    // orphaned when the container goes, or a weak one would keep a dangling pointer.
    std::vector<DaemonMib::NotifieeConst*> attached;
};

DaemonMibAccess::List& DaemonMibAccess::list(const DaemonMib& m) {
    return m.notifieeList_->list;
}

void DaemonMibAccess::attach(const DaemonMib& m, DaemonMib::NotifieeConst* n) {
    m.notifieeList_->attached.push_back(n);
}

void DaemonMibAccess::detach(const DaemonMib& m, DaemonMib::NotifieeConst* n) {
    auto& attached = m.notifieeList_->attached;
    auto it = std::find(attached.begin(), attached.end(), n);
    if (it != attached.end()) attached.erase(it);
}

namespace {

// What differs between the four tables.
struct EnabledTable {
    using Entry = EnabledTableEntry;
    using Key = Snmp::String;
    using Source = Config;
    static constexpr Orbel::AttributeId id = DaemonMib::enabledTableId;
    static constexpr const char* sourceAttribute = "_agentConfig";
    static constexpr const char* sourceType = "GenericAgent::Config";
    static const Orbel::Ptr<Source const>& source(const Entry& e) { return e.agentConfig(); }
    static void deliver(DaemonMib::NotifieeConst& n, const Key& k) { n.onEnabledTable(k); }
};
struct OptionTable {
    using Entry = OptionTableEntry;
    using Key = OptionTableIndex;
    using Source = Config;
    static constexpr Orbel::AttributeId id = DaemonMib::optionTableId;
    static constexpr const char* sourceAttribute = "_agentConfig";
    static constexpr const char* sourceType = "GenericAgent::Config";
    static const Orbel::Ptr<Source const>& source(const Entry& e) { return e.agentConfig(); }
    static void deliver(DaemonMib::NotifieeConst& n, const Key& k) { n.onOptionTable(k); }
};
struct RunningTable {
    using Entry = RunningTableEntry;
    using Key = Snmp::String;
    using Source = Status;
    static constexpr Orbel::AttributeId id = DaemonMib::runningTableId;
    static constexpr const char* sourceAttribute = "_agentStatus";
    static constexpr const char* sourceType = "GenericAgent::Status";
    static const Orbel::Ptr<Source const>& source(const Entry& e) { return e.agentStatus(); }
    static void deliver(DaemonMib::NotifieeConst& n, const Key& k) { n.onRunningTable(k); }
};
struct DataTable {
    using Entry = DataTableEntry;
    using Key = DataTableIndex;
    using Source = Status;
    static constexpr Orbel::AttributeId id = DaemonMib::dataTableId;
    static constexpr const char* sourceAttribute = "_agentStatus";
    static constexpr const char* sourceType = "GenericAgent::Status";
    static const Orbel::Ptr<Source const>& source(const Entry& e) { return e.agentStatus(); }
    static void deliver(DaemonMib::NotifieeConst& n, const Key& k) { n.onDataTable(k); }
};

// Calls f on every registered observer of m (Orbel::deliverToObservers: in registration
// order, failures contained).
template <class F>
void forEachObserver(DaemonMib& m, Orbel::AttributeId id, F&& f) {
    Orbel::deliverToObservers<DaemonMib::NotifieeConst>(DaemonMibAccess::list(m), id, std::forward<F>(f));
}

template <class T>
struct Table {
    using Entry = typename T::Entry;
    using Key = typename T::Key;
    using SourcePtr = Orbel::Ptr<typename T::Source const>;
    using Map = Orbel::RbTreeMap<Entry, Key, Entry>;

    static Map& map(DaemonMib& m) { return DaemonMibAccess::map(m, static_cast<const Entry*>(nullptr)); }

    static Orbel::Ptr<Entry> newRow(DaemonMib& m, const Key& key, const SourcePtr& source) {
        Orbel::Ptr<Entry> row = new Entry(key, source);
        map(m).insert(row);
        return row;
    }

    static Orbel::Ptr<Entry> is(DaemonMib& m, const Key& key, const SourcePtr& source) {
        if (Entry* existing = map(m).find(key)) {
            const SourcePtr& stored = T::source(*existing);
            if (stored.ptr() == source.ptr()) {
                DaemonMibAccess::versionInc(m);
                return existing;
            }
            Orbel::throwNameInUseException(
                Orbel::String("Reinstantiating the pointer interface where constructor parameter attribute ") +
                T::sourceAttribute + " has a different value of " + Orbel::refStrep(T::sourceType, source.ptr()) +
                " than the current value of " + Orbel::refStrep(T::sourceType, stored.ptr()) + " not allowed");
        }
        Orbel::Ptr<Entry> row = newRow(m, key, source);
        DaemonMibAccess::versionInc(m);
        notify(m, key);
        if (!row) throw Orbel::RangeException("null ValidPtr");
        return row;
    }

    static Orbel::Ptr<Entry> del(DaemonMib& m, const Key& key) {
        Orbel::Ptr<Entry> row = map(m)[key];
        if (!row) return nullptr;
        map(m).erase(row.ptr());
        DaemonMibAccess::versionInc(m);
        notify(m, key);
        return row;
    }

    static Orbel::Ptr<Entry> del(DaemonMib& m, typename Map::Iterator& it) {
        if (it.map() && it.map() != &map(m))
            throw Orbel::RangeException("DaemonMib: delete with an iterator of another container");
        if (it.isEnd()) return nullptr;
        Orbel::Ptr<Entry> row = it.row();
        // The row the iterator stands on may have left the table already (removed by key,
        // perhaps with the key made again since): then there is nothing to remove or tell.
        if (!row->rbInTree()) return nullptr;
        const Key key = row->fwkKey();
        map(m).erase(row.ptr());
        DaemonMibAccess::versionInc(m);
        notify(m, key);
        return row;
    }

    static void delAll(DaemonMib& m) {
        for (auto it = map(m).begin(); !it.isEnd(); ++it) del(m, it);
    }

    static void notify(DaemonMib& m, const Key& key) {
        if (DaemonMibAccess::list(m).count() == 0) return;
        // Keeps the container alive while observers run (one of them may drop the last
        // outside reference); not while it is already being destroyed.
        Orbel::Ptr<DaemonMib> keep = DaemonMibAccess::destroying(m) ? nullptr : &m;
        forEachObserver(m, T::id, [&](DaemonMib::NotifieeConst& n) { T::deliver(n, key); });
    }
};

} // namespace

DaemonMib::DaemonMib(Orbel::Name name) : Orbel::Entity(std::move(name)), notifieeList_(new NotifieeList) {}

DaemonMib::~DaemonMib() {
    destroying_ = true;
    enabledTableDelAll();
    optionTableDelAll();
    runningTableDelAll();
    dataTableDelAll();
    // Observers that outlive the container (weak ones, registered or not) must never reach
    // back into it.
    for (auto* n : notifieeList_->attached) DaemonMibAccess::orphaned(*n) = true;
    notifieeList_->list.clear();
    delete notifieeList_;
}

Orbel::Ptr<DaemonMib> daemonMibFactory(Orbel::Name name) {
    registerDaemonMibTypes();
    struct Made : DaemonMib {
        explicit Made(Orbel::Name n) : DaemonMib(std::move(n)) {}
    };
    return Orbel::Ptr<DaemonMib>(new Made(std::move(name)));
}

std::uint32_t DaemonMib::notifiees() const noexcept {
    return notifieeList_->list.count();
}
std::uint32_t DaemonMib::notifieesModCount() const noexcept {
    return notifieeList_->list.modCount();
}

void DaemonMib::zeroReferencesIs(bool) {
    forEachObserver(*this, zeroReferencesId, [](DaemonMib::NotifieeConst& n) { n.onZeroReferences(); });
}

// The named operations, each the table mechanism with its table's constants.

Orbel::Ptr<EnabledTableEntry> DaemonMib::newEnabledTable(Snmp::String n, const Orbel::Ptr<Config const>& c) {
    return Table<EnabledTable>::newRow(*this, n, c);
}
Orbel::Ptr<EnabledTableEntry> DaemonMib::enabledTableIs(Snmp::String n, const Orbel::Ptr<Config const>& c) {
    return Table<EnabledTable>::is(*this, n, c);
}
Orbel::Ptr<EnabledTableEntry> DaemonMib::enabledTableDel(Snmp::String n) {
    return Table<EnabledTable>::del(*this, n);
}
Orbel::Ptr<EnabledTableEntry> DaemonMib::enabledTableDel(EnabledTableMap::Iterator& it) {
    return Table<EnabledTable>::del(*this, it);
}
void DaemonMib::enabledTableDelAll() {
    Table<EnabledTable>::delAll(*this);
}
void DaemonMib::enabledTableNotify(Snmp::String n) {
    Table<EnabledTable>::notify(*this, n);
}

Orbel::Ptr<OptionTableEntry> DaemonMib::newOptionTable(const OptionTableIndex& i, const Orbel::Ptr<Config const>& c) {
    return Table<OptionTable>::newRow(*this, i, c);
}
Orbel::Ptr<OptionTableEntry> DaemonMib::optionTableIs(const OptionTableIndex& i, const Orbel::Ptr<Config const>& c) {
    return Table<OptionTable>::is(*this, i, c);
}
Orbel::Ptr<OptionTableEntry> DaemonMib::optionTableDel(const OptionTableIndex& i) {
    return Table<OptionTable>::del(*this, i);
}
Orbel::Ptr<OptionTableEntry> DaemonMib::optionTableDel(OptionTableMap::Iterator& it) {
    return Table<OptionTable>::del(*this, it);
}
void DaemonMib::optionTableDelAll() {
    Table<OptionTable>::delAll(*this);
}
void DaemonMib::optionTableNotify(const OptionTableIndex& i) {
    Table<OptionTable>::notify(*this, i);
}

Orbel::Ptr<RunningTableEntry> DaemonMib::newRunningTable(Snmp::String n, const Orbel::Ptr<Status const>& s) {
    return Table<RunningTable>::newRow(*this, n, s);
}
Orbel::Ptr<RunningTableEntry> DaemonMib::runningTableIs(Snmp::String n, const Orbel::Ptr<Status const>& s) {
    return Table<RunningTable>::is(*this, n, s);
}
Orbel::Ptr<RunningTableEntry> DaemonMib::runningTableDel(Snmp::String n) {
    return Table<RunningTable>::del(*this, n);
}
Orbel::Ptr<RunningTableEntry> DaemonMib::runningTableDel(RunningTableMap::Iterator& it) {
    return Table<RunningTable>::del(*this, it);
}
void DaemonMib::runningTableDelAll() {
    Table<RunningTable>::delAll(*this);
}
void DaemonMib::runningTableNotify(Snmp::String n) {
    Table<RunningTable>::notify(*this, n);
}

Orbel::Ptr<DataTableEntry> DaemonMib::newDataTable(const DataTableIndex& i, const Orbel::Ptr<Status const>& s) {
    return Table<DataTable>::newRow(*this, i, s);
}
Orbel::Ptr<DataTableEntry> DaemonMib::dataTableIs(const DataTableIndex& i, const Orbel::Ptr<Status const>& s) {
    return Table<DataTable>::is(*this, i, s);
}
Orbel::Ptr<DataTableEntry> DaemonMib::dataTableDel(const DataTableIndex& i) {
    return Table<DataTable>::del(*this, i);
}
Orbel::Ptr<DataTableEntry> DaemonMib::dataTableDel(DataTableMap::Iterator& it) {
    return Table<DataTable>::del(*this, it);
}
void DaemonMib::dataTableDelAll() {
    Table<DataTable>::delAll(*this);
}
void DaemonMib::dataTableNotify(const DataTableIndex& i) {
    Table<DataTable>::notify(*this, i);
}

// Observers.

void DaemonMib::NotifieeConst::notifierIs(const Orbel::Ptr<const Orbel::PtrInterface>& notifier) {
    auto* next = const_cast<DaemonMib*>(dynamic_cast<const DaemonMib*>(notifier.ptr()));
    DaemonMib* old = orphaned_ ? nullptr : notifier_;
    if (next == old && !orphaned_) return;
    if (next && !isWeakReference()) next->newRef();
    notifier_ = next;
    const bool wasOrphaned = orphaned_;
    orphaned_ = false;
    if (old) DaemonMibAccess::detach(*old, this);
    if (next) DaemonMibAccess::attach(*next, this);
    if (isRegisteredNotifiee()) {
        if (old) DaemonMibAccess::list(*old).remove(this);
        if (next) DaemonMibAccess::list(*next).pushBack(this);
    }
    if (old && !isWeakReference() && !wasOrphaned) old->deleteRef();
}

void DaemonMib::NotifieeConst::isRegisteredNotifieeIs(bool registered) {
    if (registered == isRegisteredNotifiee()) return;
    Orbel::Entity::NotifieeConst::isRegisteredNotifieeIs(registered);
    DaemonMib* m = orphaned_ ? nullptr : notifier_;
    if (!m) return;
    if (registered)
        DaemonMibAccess::list(*m).pushBack(this);
    else
        DaemonMibAccess::list(*m).remove(this);
}

Orbel::String DaemonMib::NotifieeConst::name() const {
    const DaemonMib* m = notifier();
    return m ? Orbel::String(m->name()) : Orbel::String();
}

void DaemonMib::NotifieeConst::isWeakReferenceIs(bool weak) {
    if (weak == isWeakReference()) return;
    Orbel::Entity::NotifieeConst::isWeakReferenceIs(weak);
    DaemonMib* m = orphaned_ ? nullptr : notifier_;
    if (!m) return;
    if (weak)
        m->deleteRef(); // may free the container; it then unlinks and orphans us
    else
        m->newRef();
}

DaemonMib::NotifieeConst::~NotifieeConst() {
    DaemonMib* m = orphaned_ ? nullptr : notifier_;
    if (!m) return;
    if (isRegisteredNotifiee()) DaemonMibAccess::list(*m).remove(this);
    DaemonMibAccess::detach(*m, this);
    // A container that is already being destroyed has no reference left to give back;
    // taking and dropping one would start its destruction a second time.
    if (DaemonMibAccess::destroying(*m)) return;
    if (isWeakReference()) m->newRef(); // keeps the count balanced for the release below
    m->deleteRef();
}

void DaemonMib::NotifieeConst::onEnabledTable(Snmp::String) {}
void DaemonMib::NotifieeConst::onEnabledTableorbelImmediate() {}
void DaemonMib::NotifieeConst::onEnabledTable() {}
void DaemonMib::NotifieeConst::onOptionTable(const OptionTableIndex&) {}
void DaemonMib::NotifieeConst::onOptionTableorbelImmediate() {}
void DaemonMib::NotifieeConst::onOptionTable() {}
void DaemonMib::NotifieeConst::onRunningTable(Snmp::String) {}
void DaemonMib::NotifieeConst::onRunningTableorbelImmediate() {}
void DaemonMib::NotifieeConst::onRunningTable() {}
void DaemonMib::NotifieeConst::onDataTable(const DataTableIndex&) {}
void DaemonMib::NotifieeConst::onDataTableorbelImmediate() {}
void DaemonMib::NotifieeConst::onDataTable() {}

} // namespace GenericAgent

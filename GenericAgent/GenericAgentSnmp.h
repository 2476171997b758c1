// The daemon MIB state model: the four tables that the SNMP module serves, kept in one
// GenericAgent::DaemonMib at "snmp/launcher/daemonMIB" of the state tree.
//
//   auto mib = GenericAgent::daemonMibFactory("daemonMIB");
//   auto cfg = GenericAgent::Config::configFactory("bgpd");
//   mib->enabledTableIs("bgpd", cfg);                                   // one row per daemon
//   mib->optionTableIs(GenericAgent::OptionTableIndex("bgpd", "asn"), cfg);
//   cfg->optionIs(GenericAgent::AgentKey("asn"), GenericAgent::AgentVal("65001"));
//   mib->optionTable()[GenericAgent::OptionTableIndex("bgpd", "asn")]->val();   // "65001"
//
// Rows never copy daemon state: each holds its key and a reference to the daemon's Config
// or Status and reads its value from it when asked. Tables are ordered maps (walk order is
// the SNMP index order); every row added or removed is told, key by key and in
// registration order, to the observers registered with the container.
//
// Nothing here locks: one thread changes and reads the model (the agent's event loop).
#pragma once

#include "launcher/AgentState.h"
#include "orbel/Entity.h"
#include "orbel/GenericIf.h"
#include "orbel/RbTreeMap.h"
#include "orbel/ValueNotation.h"
#include "snmp/SnmpString.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>

namespace GenericAgent {

// Where hosts put the DaemonMib in the state tree, and where the module looks for it.
inline constexpr const char* daemonMibStatePath = "snmp/launcher/daemonMIB";

// The longest daemon name and option or data key that the SNMP indexes carry (the module
// copies them into buffers of these sizes). Every writer of the model must keep names and
// keys within them: for a longer one the converter returns a negative length, the module
// hands that on to Net-SNMP unchecked, and Net-SNMP then overruns its buffer.
inline constexpr std::size_t maxDaemonNameBytes = 32;
inline constexpr std::size_t maxIndexKeyBytes = 64;

// ---------------------------------------------------------------------------------------
// Index values of the two-component tables.

// The common shape of OptionTableIndex and DataTableIndex: a daemon name and a key, both
// Snmp::String, ordered by name and then key. Self supplies the type names.
template <class Self>
class TableIndex {
public:
    TableIndex() = default;
    TableIndex(Snmp::String agentName, Snmp::String key) : agentName_(std::move(agentName)), key_(std::move(key)) {}
    // Parses one value in the value notation at pos and leaves pos just after it.
    // Throws Orbel::RangeException for a missing token, a premature end, an unknown
    // attribute or a malformed string.
    TableIndex(Orbel::String8::IteratorConst& pos, const Orbel::String8::IteratorConst& end);

    const Snmp::String& agentName() const noexcept { return agentName_; }
    const Snmp::String& key() const noexcept { return key_; }
    void agentNameIs(const Snmp::String& s) { agentName_ = s; }
    void keyIs(const Snmp::String& s) { key_ = s; }

    // Byte equality of the name and of the key (the lengths are compared before any byte).
    friend bool operator==(const Self& a, const Self& b) noexcept {
        return a.key_.size() == b.key_.size() && a.agentName_ == b.agentName_ && a.key_ == b.key_;
    }
    friend bool operator!=(const Self& a, const Self& b) noexcept { return !(a == b); }
    // By name in Snmp::String order; for byte-equal names, by key.
    friend bool operator<(const Self& a, const Self& b) noexcept {
        const int byName = compare(a.agentName_, b.agentName_);
        return byName != 0 ? byName < 0 : compare(a.key_, b.key_) < 0;
    }
    friend bool operator<=(const Self& a, const Self& b) noexcept { return !(b < a); }
    friend bool operator>(const Self& a, const Self& b) noexcept { return !(a <= b); }
    friend bool operator>=(const Self& a, const Self& b) noexcept { return !(a < b); }

private:
    Snmp::String agentName_;
    Snmp::String key_;
};

// Key of the option table: (daemon name, option key).
class OptionTableIndex : public TableIndex<OptionTableIndex> {
public:
    using TableIndex::TableIndex;
    static constexpr const char* typeName = "GenericAgent::OptionTableIndex";
    static constexpr const char* shortName = "OptionTableIndex";
    class GenericIf_;
};

// Key of the data table: (daemon name, data key).
class DataTableIndex : public TableIndex<DataTableIndex> {
public:
    using TableIndex::TableIndex;
    static constexpr const char* typeName = "GenericAgent::DataTableIndex";
    static constexpr const char* shortName = "DataTableIndex";
    class GenericIf_;
};

// "Value('GenericAgent::OptionTableIndex', ** {'agentName': <name>, 'key': <key>})".
Orbel::String8 valueToStrep(const OptionTableIndex& index);
Orbel::String8 valueToStrep(const DataTableIndex& index);
// Writes exactly the bytes of valueToStrep (no width or fill applies).
std::ostream& operator<<(std::ostream& os, const OptionTableIndex& index);
std::ostream& operator<<(std::ostream& os, const DataTableIndex& index);

// The generic wrapper of an index value: holds one index by value and a const flag.
// Attributes agentName (2) and key (3) are read with operation 0; operation 100 compares
// the whole value with another wrapper of the same type.
template <class Index>
class TableIndexGenericIf : public Orbel::GenericIf {
public:
    TableIndexGenericIf(const Index& value, bool isConst) : Orbel::GenericIf(isConst), value_(value) {}

    const Index& val() const noexcept { return value_; }
    void valIs(const Index& value) { value_ = value; }

    const Orbel::TypeDescriptor* type() const noexcept override;
    Orbel::String strRep() const override { return valueToStrep(value_); }
    Orbel::AttributeId attributeId(Orbel::String8 name) const override { return Orbel::GenericIf::attributeId(name); }
    Orbel::Ptr<Orbel::GenericIf> attributeOp(const AttributeOp& op, const Orbel::Ptr<const Orbel::GenericIf>& index,
                                             const Orbel::Ptr<const Orbel::GenericIf>& argument) override;

protected:
    ~TableIndexGenericIf() override = default;

private:
    Index value_;
};

class OptionTableIndex::GenericIf_ : public TableIndexGenericIf<OptionTableIndex> {
public:
    using TableIndexGenericIf::TableIndexGenericIf;
    // A new wrapper of the same kind.
    Orbel::Ptr<GenericIf_> GenericIf_Is(const OptionTableIndex& value, bool isConst) const {
        return new GenericIf_(value, isConst);
    }
    Orbel::Ptr<GenericIf_> clone() { return new GenericIf_(val(), isConst()); }
    Orbel::Ptr<const GenericIf_> clone() const { return new GenericIf_(val(), isConst()); }
    // Builds a wrapper from a generic list: empty, or (agentName, key) as Snmp::String.
    // Throws Orbel::TypeException naming "Orbel::GenericIf::List_", "agentName" or "key",
    // or Orbel::UnknownArgumentException naming "OptionTableIndex" for a third element.
    static Orbel::Ptr<Orbel::GenericIf> genericIfListConstructor(const Orbel::Ptr<const Orbel::GenericIf>& list);

protected:
    ~GenericIf_() override = default;
};

class DataTableIndex::GenericIf_ : public TableIndexGenericIf<DataTableIndex> {
public:
    using TableIndexGenericIf::TableIndexGenericIf;
    Orbel::Ptr<GenericIf_> GenericIf_Is(const DataTableIndex& value, bool isConst) const {
        return new GenericIf_(value, isConst);
    }
    Orbel::Ptr<GenericIf_> clone() { return new GenericIf_(val(), isConst()); }
    Orbel::Ptr<const GenericIf_> clone() const { return new GenericIf_(val(), isConst()); }
    // As OptionTableIndex::GenericIf_::genericIfListConstructor, naming "DataTableIndex".
    static Orbel::Ptr<Orbel::GenericIf> genericIfListConstructor(const Orbel::Ptr<const Orbel::GenericIf>& list);

protected:
    ~GenericIf_() override = default;
};

// ---------------------------------------------------------------------------------------
// Rows. Each holds its key and one reference to the daemon's Config or Status (which may
// be null) and derives its value from it when asked. Rows never change after
// construction; they are made only by the DaemonMib's new/Is operations.

class EnabledTableEntry : public Orbel::PtrInterface, public Orbel::RbTreeNode<EnabledTableEntry> {
public:
    EnabledTableEntry(Snmp::String agentName, const Orbel::Ptr<Config const>& agentConfig)
        : agentName_(std::move(agentName)), agentConfig_(agentConfig) {}
    const Snmp::String& agentName() const noexcept { return agentName_; }
    const Snmp::String& fwkKey() const noexcept { return agentName_; }
    const Orbel::Ptr<Config const>& agentConfig() const noexcept { return agentConfig_; }
    // The daemon's enabled flag; false when the row has no Config.
    bool enabled() const noexcept { return agentConfig_ && agentConfig_->enabled(); }
    class GenericIf_;

protected:
    ~EnabledTableEntry() override = default;

private:
    Snmp::String agentName_;
    Orbel::Ptr<Config const> agentConfig_;
};

class OptionTableEntry : public Orbel::PtrInterface, public Orbel::RbTreeNode<OptionTableEntry> {
public:
    OptionTableEntry(const OptionTableIndex& index, const Orbel::Ptr<Config const>& agentConfig)
        : index_(index), agentConfig_(agentConfig) {}
    const OptionTableIndex& index() const noexcept { return index_; }
    const OptionTableIndex& fwkKey() const noexcept { return index_; }
    const Snmp::String& agentName() const noexcept { return index_.agentName(); }
    const Snmp::String& key() const noexcept { return index_.key(); }
    const Orbel::Ptr<Config const>& agentConfig() const noexcept { return agentConfig_; }
    // The option's current value; empty when the Config has no such option.
    // Precondition: the row has a Config. Throws Orbel::RangeException
    // "AgentKey::bytes > AgentKey::maxLength not allowed" for a key over 1024 bytes.
    AgentVal val() const;
    class GenericIf_;

protected:
    ~OptionTableEntry() override = default;

private:
    OptionTableIndex index_;
    Orbel::Ptr<Config const> agentConfig_;
};

class RunningTableEntry : public Orbel::PtrInterface, public Orbel::RbTreeNode<RunningTableEntry> {
public:
    RunningTableEntry(Snmp::String agentName, const Orbel::Ptr<Status const>& agentStatus)
        : agentName_(std::move(agentName)), agentStatus_(agentStatus) {}
    const Snmp::String& agentName() const noexcept { return agentName_; }
    const Snmp::String& fwkKey() const noexcept { return agentName_; }
    const Orbel::Ptr<Status const>& agentStatus() const noexcept { return agentStatus_; }
    // The daemon's running flag; false when the row has no Status.
    bool running() const noexcept { return agentStatus_ && agentStatus_->running(); }
    class GenericIf_;

protected:
    ~RunningTableEntry() override = default;

private:
    Snmp::String agentName_;
    Orbel::Ptr<Status const> agentStatus_;
};

class DataTableEntry : public Orbel::PtrInterface, public Orbel::RbTreeNode<DataTableEntry> {
public:
    DataTableEntry(const DataTableIndex& index, const Orbel::Ptr<Status const>& agentStatus)
        : index_(index), agentStatus_(agentStatus) {}
    const DataTableIndex& index() const noexcept { return index_; }
    const DataTableIndex& fwkKey() const noexcept { return index_; }
    const Snmp::String& agentName() const noexcept { return index_.agentName(); }
    const Snmp::String& key() const noexcept { return index_.key(); }
    const Orbel::Ptr<Status const>& agentStatus() const noexcept { return agentStatus_; }
    // The published value; empty when the Status has no such key.
    // Precondition: the row has a Status. Throws as OptionTableEntry::val().
    AgentVal val() const;
    class GenericIf_;

protected:
    ~DataTableEntry() override = default;

private:
    DataTableIndex index_;
    Orbel::Ptr<Status const> agentStatus_;
};

// ---------------------------------------------------------------------------------------
// The container.

struct DaemonMibAccess;

class DaemonMib : public Orbel::Entity {
public:
    using EnabledTableMap = Orbel::RbTreeMap<EnabledTableEntry, Snmp::String, EnabledTableEntry>;
    using OptionTableMap = Orbel::RbTreeMap<OptionTableEntry, OptionTableIndex, OptionTableEntry>;
    using RunningTableMap = Orbel::RbTreeMap<RunningTableEntry, Snmp::String, RunningTableEntry>;
    using DataTableMap = Orbel::RbTreeMap<DataTableEntry, DataTableIndex, DataTableEntry>;

    // Attribute numbers of the four tables (what notifications are reported under).
    static constexpr Orbel::AttributeId enabledTableId = 258;
    static constexpr Orbel::AttributeId optionTableId = 259;
    static constexpr Orbel::AttributeId runningTableId = 260;
    static constexpr Orbel::AttributeId dataTableId = 261;
    // The attribute a failed onZeroReferences() is reported under.
    static constexpr Orbel::AttributeId zeroReferencesId = 5;

    class NotifieeConst;
    class Notifiee;
    class GenericIf_;

    static const Orbel::TypeDescriptor* _fwkType;
    const Orbel::TypeDescriptor* type() const noexcept override { return _fwkType; }

    // Per table, told on the option table; the others take their own key and pointer type.
    //
    // new: makes a row and puts it in the map, replacing a row of an equal key in place.
    //   Neither counts nor notifies.
    // Is: returns the row of that key. An existing row with the same pointer is confirmed
    //   (version + 1, no notification); with another pointer it raises
    //   Orbel::NameInUseException and changes nothing. A new row is made, version + 1, and
    //   the key told to the observers. Live iterators re-seek after the change.
    // Del (key): removes the row, version + 1, tells the key; returns the row, or null
    //   with nothing done when absent.
    // Del (iterator): the same for the row the iterator stands on; the iterator keeps
    //   standing on the removed row until it is advanced (it then re-seeks to the first
    //   greater key). Null at the end.
    // DelAll: Del of every row in ascending key order, including rows that observers add
    //   meanwhile with greater keys.
    // Notify: tells the key to every registered observer (see NotifieeConst).

    Orbel::Ptr<EnabledTableEntry> newEnabledTable(Snmp::String agentName, const Orbel::Ptr<Config const>& agentConfig);
    Orbel::Ptr<EnabledTableEntry> enabledTableIs(Snmp::String agentName, const Orbel::Ptr<Config const>& agentConfig);
    Orbel::Ptr<EnabledTableEntry> enabledTableDel(Snmp::String agentName);
    Orbel::Ptr<EnabledTableEntry> enabledTableDel(EnabledTableMap::Iterator& it);
    void enabledTableDelAll();
    void enabledTableNotify(Snmp::String agentName);
    Orbel::Ptr<EnabledTableEntry> enabledTable(const Snmp::String& agentName) const { return enabledTable_[agentName]; }
    const EnabledTableMap& enabledTable() const noexcept { return enabledTable_; }

    Orbel::Ptr<OptionTableEntry> newOptionTable(const OptionTableIndex& index,
                                                const Orbel::Ptr<Config const>& agentConfig);
    Orbel::Ptr<OptionTableEntry> optionTableIs(const OptionTableIndex& index,
                                               const Orbel::Ptr<Config const>& agentConfig);
    Orbel::Ptr<OptionTableEntry> optionTableDel(const OptionTableIndex& index);
    Orbel::Ptr<OptionTableEntry> optionTableDel(OptionTableMap::Iterator& it);
    void optionTableDelAll();
    void optionTableNotify(const OptionTableIndex& index);
    Orbel::Ptr<OptionTableEntry> optionTable(const OptionTableIndex& index) const { return optionTable_[index]; }
    const OptionTableMap& optionTable() const noexcept { return optionTable_; }

    Orbel::Ptr<RunningTableEntry> newRunningTable(Snmp::String agentName, const Orbel::Ptr<Status const>& agentStatus);
    Orbel::Ptr<RunningTableEntry> runningTableIs(Snmp::String agentName, const Orbel::Ptr<Status const>& agentStatus);
    Orbel::Ptr<RunningTableEntry> runningTableDel(Snmp::String agentName);
    Orbel::Ptr<RunningTableEntry> runningTableDel(RunningTableMap::Iterator& it);
    void runningTableDelAll();
    void runningTableNotify(Snmp::String agentName);
    Orbel::Ptr<RunningTableEntry> runningTable(const Snmp::String& agentName) const { return runningTable_[agentName]; }
    const RunningTableMap& runningTable() const noexcept { return runningTable_; }

    Orbel::Ptr<DataTableEntry> newDataTable(const DataTableIndex& index, const Orbel::Ptr<Status const>& agentStatus);
    Orbel::Ptr<DataTableEntry> dataTableIs(const DataTableIndex& index, const Orbel::Ptr<Status const>& agentStatus);
    Orbel::Ptr<DataTableEntry> dataTableDel(const DataTableIndex& index);
    Orbel::Ptr<DataTableEntry> dataTableDel(DataTableMap::Iterator& it);
    void dataTableDelAll();
    void dataTableNotify(const DataTableIndex& index);
    Orbel::Ptr<DataTableEntry> dataTable(const DataTableIndex& index) const { return dataTable_[index]; }
    const DataTableMap& dataTable() const noexcept { return dataTable_; }

    // Number of registered observers, and the list's modification count.
    std::uint32_t notifiees() const noexcept;
    std::uint32_t notifieesModCount() const noexcept;

    // The last outside reference went: each registered observer gets onZeroReferences()
    // (a throw is reported through onNotificationException(5)).
    void zeroReferencesIs(bool zero) override;

protected:
    explicit DaemonMib(Orbel::Name name);
    // Deletes every row (enabled, option, running, data; each removal told to the
    // observers still registered), then unlinks every observer.
    ~DaemonMib() override;

private:
    friend struct DaemonMibAccess;
    EnabledTableMap enabledTable_;
    OptionTableMap optionTable_;
    RunningTableMap runningTable_;
    DataTableMap dataTable_;
    struct NotifieeList;
    NotifieeList* notifieeList_;
    bool destroying_ = false;
};

// A new, empty container of that name.
Orbel::Ptr<DaemonMib> daemonMibFactory(Orbel::Name name);

// An observer of a DaemonMib with read access to it.
//
// It is on the container's list only when it is both attached (notifierIs) and
// registered (isRegisteredNotifieeIs(true)), in either order. Unless made weak it holds a
// counted reference to the container. Observers must be heap objects held through Ptr:
// delivery holds a reference to each while it is called.
class DaemonMib::NotifieeConst : public Orbel::Entity::NotifieeConst {
public:
    // Attaches to notifier if it is a DaemonMib (anything else, like null, detaches). If
    // registered, moves from the old container's list to the end of the new one's.
    void notifierIs(const Orbel::Ptr<const Orbel::PtrInterface>& notifier) override;
    // Appends to (true) or unlinks from (false) the attached container's list.
    void isRegisteredNotifieeIs(bool registered) override;
    // The observed container's name; empty when detached.
    Orbel::String name() const override;
    // Weak: the reference to the container is given up (or taken again on false).
    void isWeakReferenceIs(bool weak) override;

    // The observed container, or null (also once a container that a weak observer outlived
    // is gone).
    const DaemonMib* notifier() const noexcept { return orphaned_ ? nullptr : notifier_; }

    virtual void onEnabledTable(Snmp::String agentName);
    virtual void onEnabledTableorbelImmediate();
    virtual void onEnabledTable();
    virtual void onOptionTable(const OptionTableIndex& index);
    virtual void onOptionTableorbelImmediate();
    virtual void onOptionTable();
    virtual void onRunningTable(Snmp::String agentName);
    virtual void onRunningTableorbelImmediate();
    virtual void onRunningTable();
    virtual void onDataTable(const DataTableIndex& index);
    virtual void onDataTableorbelImmediate();
    virtual void onDataTable();

protected:
    NotifieeConst() = default;
    // Unlinks itself from the container's list if attached and registered, then releases
    // its reference to the container.
    ~NotifieeConst() override;

private:
    friend struct DaemonMibAccess;
    DaemonMib* notifier_ = nullptr;
    NotifieeConst* next_ = nullptr;
    bool orphaned_ = false;
};

// An observer that may also change the container.
class DaemonMib::Notifiee : public DaemonMib::NotifieeConst {
public:
    DaemonMib* notifier() const noexcept { return const_cast<DaemonMib*>(NotifieeConst::notifier()); }

protected:
    Notifiee() = default;
    ~Notifiee() override = default;
};

// ---------------------------------------------------------------------------------------
// Generic access (the framework reaches the model reflectively through these).

// The generic interface of a row: holds a counted reference to the row and answers
// attributeOp by attribute number (read-only; see DaemonMibGeneric.cpp).
template <class Row>
class RowGenericIf : public Orbel::GenericIf {
public:
    RowGenericIf(const Row* row, bool isConst) : Orbel::GenericIf(isConst), row_(row) {}
    const Row* row() const noexcept { return row_.ptr(); }
    const Orbel::TypeDescriptor* type() const noexcept override;
    Orbel::Ptr<Orbel::GenericIf> attributeOp(const AttributeOp& op, const Orbel::Ptr<const Orbel::GenericIf>& index,
                                             const Orbel::Ptr<const Orbel::GenericIf>& argument) override;

protected:
    ~RowGenericIf() override = default;

private:
    Orbel::Ptr<const Row> row_;
};

// Each row type's answers are defined beside the type descriptors.
#define VELMAR_ROW_GENERIC_IF_SPECIALIZE(Row)                                                                    \
    template <>                                                                                                  \
    const Orbel::TypeDescriptor* RowGenericIf<Row>::type() const noexcept;                                       \
    template <>                                                                                                  \
    Orbel::Ptr<Orbel::GenericIf> RowGenericIf<Row>::attributeOp(const AttributeOp& op,                           \
                                                                const Orbel::Ptr<const Orbel::GenericIf>& index, \
                                                                const Orbel::Ptr<const Orbel::GenericIf>& argument);
VELMAR_ROW_GENERIC_IF_SPECIALIZE(EnabledTableEntry)
VELMAR_ROW_GENERIC_IF_SPECIALIZE(OptionTableEntry)
VELMAR_ROW_GENERIC_IF_SPECIALIZE(RunningTableEntry)
VELMAR_ROW_GENERIC_IF_SPECIALIZE(DataTableEntry)
#undef VELMAR_ROW_GENERIC_IF_SPECIALIZE

#define VELMAR_ROW_GENERIC_IF(Row)                     \
    class Row::GenericIf_ : public RowGenericIf<Row> { \
    public:                                            \
        using RowGenericIf::RowGenericIf;              \
                                                       \
    protected:                                         \
        ~GenericIf_() override = default;              \
    };
VELMAR_ROW_GENERIC_IF(EnabledTableEntry)
VELMAR_ROW_GENERIC_IF(OptionTableEntry)
VELMAR_ROW_GENERIC_IF(RunningTableEntry)
VELMAR_ROW_GENERIC_IF(DataTableEntry)
#undef VELMAR_ROW_GENERIC_IF

// The container's generic interface, and the target of its generic observer adapter:
// per-key changes are deferred to the activity loop when notification is deferred, and a
// burst of them on one table is told as one whole-table notification.
class DaemonMib::GenericIf_ : public Orbel::GenericIf {
public:
    class GenericIf_Adapter_;

    // Makes the interface and its adapter; the adapter is attached to mib (weakly) and
    // registered. Keeps a reference to mib.
    static Orbel::Ptr<GenericIf_> make(const Orbel::Ptr<const DaemonMib>& mib, bool isConst);

    const Orbel::TypeDescriptor* type() const noexcept override;
    // Attribute 258..261 read with an index (the row's key as a generic value) yields the
    // row's generic interface, or null when there is no such row. Other numbers go to the
    // base.
    Orbel::Ptr<Orbel::GenericIf> attributeOp(const AttributeOp& op, const Orbel::Ptr<const Orbel::GenericIf>& index,
                                             const Orbel::Ptr<const Orbel::GenericIf>& argument) override;
    const DaemonMib* mib() const noexcept { return mib_.ptr(); }
    GenericIf_Adapter_* adapter() const noexcept;

    // A key of table t (0 enabled .. 3 data) changed: recorded as the table's last key;
    // deferred (pending count + 1) or told at once as the per-key form.
    void tableKeyChanged(unsigned t, const Orbel::Ptr<const Orbel::GenericIf>& key);
    // Drains what is pending: one table for 258..261, all four (in order, with a
    // redispatch after each) for the all-codes, the default handling otherwise.
    void handleNotification(Orbel::ActivityConfig* config) override;
    void hasNotificationActiveIs(bool active) override;
    unsigned pendingCount(unsigned t) const noexcept { return pending_[t].count; }

protected:
    GenericIf_(const Orbel::Ptr<const DaemonMib>& mib, bool isConst);
    ~GenericIf_() override;

private:
    void drain(unsigned t, bool forced);
    struct Pending {
        unsigned count = 0;
        Orbel::Ptr<const Orbel::GenericIf> lastKey;
    };
    Orbel::Ptr<const DaemonMib> mib_;
    Orbel::Ptr<GenericIf_Adapter_> adapter_;
    std::array<Pending, 4> pending_{};
};

// Connects a DaemonMib to its generic interface: forwards every handler to the target, if
// one is set, and otherwise does nothing.
class DaemonMib::GenericIf_::GenericIf_Adapter_ : public DaemonMib::Notifiee {
public:
    static Orbel::Ptr<GenericIf_Adapter_> make() { return new GenericIf_Adapter_; }
    // The target is not counted (it owns the adapter); null detaches.
    void targetIs(GenericIf_* target) noexcept { target_ = target; }
    GenericIf_* target() const noexcept { return target_; }

    void onEnabledTable(Snmp::String agentName) override;
    void onEnabledTableorbelImmediate() override;
    void onEnabledTable() override;
    void onOptionTable(const OptionTableIndex& index) override;
    void onOptionTableorbelImmediate() override;
    void onOptionTable() override;
    void onRunningTable(Snmp::String agentName) override;
    void onRunningTableorbelImmediate() override;
    void onRunningTable() override;
    void onDataTable(const DataTableIndex& index) override;
    void onDataTableorbelImmediate() override;
    void onDataTable() override;
    void onNotificationException(Orbel::AttributeId attributeId) override;
    // Forwarded, then the adapter switches its own notification off.
    void onZeroReferences() override;
    // Sets the flag and, unless the adapter is being destroyed, passes it to the target.
    void hasNotificationActiveIs(bool active) override;

protected:
    GenericIf_Adapter_() = default;
    ~GenericIf_Adapter_() override;

private:
    GenericIf_* target_ = nullptr;
    bool destroying_ = false;
};

// Registers the model's type descriptors (done once when the library loads; calling it
// again does nothing).
void registerDaemonMibTypes();

} // namespace GenericAgent

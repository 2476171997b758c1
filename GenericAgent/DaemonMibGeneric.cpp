// Generic access to the model: the rows' and the container's generic interfaces, the
// generic observer adapter, and the type descriptors registered when the library loads.
#include "GenericAgentSnmp.h"

#include "orbel/Activity.h"
#include "orbel/TypeRegistry.h"

#include <mutex>

namespace GenericAgent {

namespace {

using Orbel::AttributeKind;
using Orbel::GenericIf;

// Every attribute of the row and index types shares these flags.
constexpr std::uint32_t rowAttributeFlags = Orbel::attrReadable | Orbel::attrNotWritableGenerically;

void attribute(Orbel::AttributeId number, const char* name, const char* type, std::uint32_t intro) {
    Orbel::TypeRegistry::instance().attributeIs(
        {number, name, type, AttributeKind::nonInstantiating, rowAttributeFlags, intro});
}

void collection(Orbel::AttributeId number, const char* name, const char* type) {
    Orbel::TypeRegistry::instance().attributeIs(
        {number, name, type, AttributeKind::full, Orbel::attrReadable | Orbel::attrCollection, Orbel::introDerived});
}

template <class Row>
Orbel::TypeDescriptor& rowType(const char* name) {
    Orbel::TypeDescriptor& t = Orbel::TypeRegistry::instance().typeOpen(name);
    t.genericIfSupported = true;
    t.genericIfOf = [](const Orbel::PtrInterface* o, bool isConst) -> Orbel::Ptr<GenericIf> {
        return new typename Row::GenericIf_(static_cast<const Row*>(o), isConst);
    };
    return t;
}

template <class Index>
Orbel::TypeDescriptor& indexType(const char* name) {
    Orbel::TypeDescriptor& t = Orbel::TypeRegistry::instance().typeOpen(name);
    t.genericIfSupported = true;
    t.valueType = true;
    t.genericIfFromStrep = [](const Orbel::String& text) -> Orbel::Ptr<GenericIf> {
        return new typename Index::GenericIf_(Orbel::strepToValue<Index>(text), false);
    };
    t.genericIfFromList = [](const Orbel::Ptr<const GenericIf>& list) {
        return Index::GenericIf_::genericIfListConstructor(list);
    };
    return t;
}

const Orbel::TypeDescriptor* typeNamed(const char* name) {
    registerDaemonMibTypes();
    return Orbel::TypeRegistry::instance().type(name);
}

// Steps shared by the row interfaces: const refusal first, then the attribute's own
// checks. Returns true when the attribute number is one of the row's (130..last).
void refuseConstModification(const GenericIf& g, const GenericIf::AttributeOp& op) {
    if (op.op >= GenericIf::opModifying && g.isConst())
        throw Orbel::ConstException("attempting to modify a const instance");
}

void checkScalar(const GenericIf::AttributeOp& op, const Orbel::Ptr<const GenericIf>& index, const char* name) {
    if (index) throw Orbel::BadIndexAttributeException(name);
    if (op.op != GenericIf::opRead) throw Orbel::NotSupportedException(name, op.op);
}

// The call form of val: no index, an empty generic argument list.
void checkValCall(const GenericIf::AttributeOp& op, const Orbel::Ptr<const GenericIf>& index,
                  const Orbel::Ptr<const GenericIf>& argument) {
    if (index) throw Orbel::BadIndexAttributeException("val");
    if (op.op != GenericIf::opRead) throw Orbel::NotSupportedException("val", op.op);
    auto list = dynamic_cast<const GenericIf::List_*>(argument.ptr());
    if (!list) throw Orbel::TypeException("Orbel::GenericIf::List_");
    if (list->size() != 0) throw Orbel::UnknownArgumentException("val");
}

template <class Row, class Source>
Orbel::Ptr<GenericIf> flagRowOp(GenericIf& self, const Row& row, const Orbel::Ptr<const Source>& source, bool flag,
                                const char* sourceName, const char* flagName, const GenericIf::AttributeOp& op,
                                const Orbel::Ptr<const GenericIf>& index, const Orbel::Ptr<const GenericIf>& argument) {
    refuseConstModification(self, op);
    switch (op.attributeId) {
        case 130:
            checkScalar(op, index, "agentName");
            return Snmp::String::genericIf(row.agentName(), self.isConst());
        case 131:
            checkScalar(op, index, sourceName);
            return Orbel::TypeRegistry::instance().genericIf(source.ptr(), self.isConst());
        case 132:
            checkScalar(op, index, flagName);
            return Orbel::genericBool(flag, self.isConst());
        default:
            return self.GenericIf::attributeOp(op, index, argument);
    }
}

template <class Row, class Index, class Source>
Orbel::Ptr<GenericIf> valueRowOp(GenericIf& self, const Row& row, const Orbel::Ptr<const Source>& source,
                                 const char* sourceName, const GenericIf::AttributeOp& op,
                                 const Orbel::Ptr<const GenericIf>& index,
                                 const Orbel::Ptr<const GenericIf>& argument) {
    refuseConstModification(self, op);
    // Operands of the option and data rows are argument lists or nothing.
    auto checkOperand = [&] {
        if (argument && !dynamic_cast<const GenericIf::List_*>(argument.ptr()))
            throw Orbel::TypeException("Orbel::GenericIf::List_");
    };
    switch (op.attributeId) {
        case 130:
            checkScalar(op, index, "index");
            checkOperand();
            return new typename Index::GenericIf_(row.index(), self.isConst());
        case 131:
            checkScalar(op, index, "agentName");
            checkOperand();
            return Snmp::String::genericIf(row.agentName(), self.isConst());
        case 132:
            checkScalar(op, index, "key");
            checkOperand();
            return Snmp::String::genericIf(row.key(), self.isConst());
        case 133:
            checkScalar(op, index, sourceName);
            checkOperand();
            return Orbel::TypeRegistry::instance().genericIf(source.ptr(), self.isConst());
        case 134:
            checkValCall(op, index, argument);
            return Snmp::String::genericIf(Snmp::String(row.val()), self.isConst());
        default:
            return self.GenericIf::attributeOp(op, index, argument);
    }
}

} // namespace

void registerDaemonMibTypes() {
    static std::once_flag once;
    std::call_once(once, [] {
        auto& r = Orbel::TypeRegistry::instance();
        r.namespaceOpen("GenericAgent");

        rowType<EnabledTableEntry>("EnabledTableEntry");
        attribute(130, "agentName", "Snmp::String", Orbel::introKeyOrArgument);
        attribute(131, "agentConfig", "GenericAgent::Config", Orbel::introKeyOrArgument);
        attribute(132, "enabled", "bool", Orbel::introDerived);
        attribute(0, "fwkKey", "Snmp::String", Orbel::introDerived);
        r.typeClose();

        indexType<OptionTableIndex>("OptionTableIndex");
        attribute(2, "agentName", "Snmp::String", Orbel::introKeyOrArgument);
        attribute(3, "key", "Snmp::String", Orbel::introKeyOrArgument);
        r.typeClose();

        rowType<OptionTableEntry>("OptionTableEntry");
        attribute(130, "index", "GenericAgent::OptionTableIndex", Orbel::introKeyOrArgument);
        attribute(131, "agentName", "Snmp::String", Orbel::introDerived);
        attribute(132, "key", "Snmp::String", Orbel::introDerived);
        attribute(133, "agentConfig", "GenericAgent::Config", Orbel::introKeyOrArgument);
        attribute(134, "val", "Snmp::String", Orbel::introComputedString);
        attribute(0, "fwkKey", "GenericAgent::OptionTableIndex", Orbel::introDerived);
        r.typeClose();

        rowType<RunningTableEntry>("RunningTableEntry");
        attribute(130, "agentName", "Snmp::String", Orbel::introKeyOrArgument);
        attribute(131, "agentStatus", "GenericAgent::Status", Orbel::introKeyOrArgument);
        attribute(132, "running", "bool", Orbel::introDerived);
        attribute(0, "fwkKey", "Snmp::String", Orbel::introDerived);
        r.typeClose();

        indexType<DataTableIndex>("DataTableIndex");
        attribute(2, "agentName", "Snmp::String", Orbel::introKeyOrArgument);
        attribute(3, "key", "Snmp::String", Orbel::introKeyOrArgument);
        r.typeClose();

        rowType<DataTableEntry>("DataTableEntry");
        attribute(130, "index", "GenericAgent::DataTableIndex", Orbel::introKeyOrArgument);
        attribute(131, "agentName", "Snmp::String", Orbel::introDerived);
        attribute(132, "key", "Snmp::String", Orbel::introDerived);
        attribute(133, "agentStatus", "GenericAgent::Status", Orbel::introKeyOrArgument);
        attribute(134, "val", "Snmp::String", Orbel::introComputedString);
        attribute(0, "fwkKey", "GenericAgent::DataTableIndex", Orbel::introDerived);
        r.typeClose();

        Orbel::TypeDescriptor& mib = r.typeOpen("DaemonMib");
        mib.genericIfSupported = true;
        mib.genericIfOf = [](const Orbel::PtrInterface* o, bool isConst) -> Orbel::Ptr<GenericIf> {
            return DaemonMib::GenericIf_::make(static_cast<const DaemonMib*>(o), isConst);
        };
        mib.newEntity = [](const Orbel::Name& name, const Orbel::Ptr<Orbel::Entity>&) -> Orbel::Ptr<Orbel::Entity> {
            return daemonMibFactory(name);
        };
        collection(258, "enabledTable", "GenericAgent::EnabledTableEntry");
        collection(259, "optionTable", "GenericAgent::OptionTableEntry");
        collection(260, "runningTable", "GenericAgent::RunningTableEntry");
        collection(261, "dataTable", "GenericAgent::DataTableEntry");
        r.typeClose();

        r.namespaceClose();
        DaemonMib::_fwkType = &mib;
    });
}

const Orbel::TypeDescriptor* DaemonMib::_fwkType = nullptr;

// Registration when the library loads.
namespace {
const bool registeredAtLoad = (registerDaemonMibTypes(), true);
}

template <>
const Orbel::TypeDescriptor* RowGenericIf<EnabledTableEntry>::type() const noexcept {
    return typeNamed("GenericAgent::EnabledTableEntry");
}
template <>
const Orbel::TypeDescriptor* RowGenericIf<OptionTableEntry>::type() const noexcept {
    return typeNamed("GenericAgent::OptionTableEntry");
}
template <>
const Orbel::TypeDescriptor* RowGenericIf<RunningTableEntry>::type() const noexcept {
    return typeNamed("GenericAgent::RunningTableEntry");
}
template <>
const Orbel::TypeDescriptor* RowGenericIf<DataTableEntry>::type() const noexcept {
    return typeNamed("GenericAgent::DataTableEntry");
}

template <>
Orbel::Ptr<GenericIf> RowGenericIf<EnabledTableEntry>::attributeOp(const AttributeOp& op,
                                                                   const Orbel::Ptr<const GenericIf>& index,
                                                                   const Orbel::Ptr<const GenericIf>& argument) {
    return flagRowOp(*this, *row_, row_->agentConfig(), row_->enabled(), "agentConfig", "enabled", op, index, argument);
}

template <>
Orbel::Ptr<GenericIf> RowGenericIf<RunningTableEntry>::attributeOp(const AttributeOp& op,
                                                                   const Orbel::Ptr<const GenericIf>& index,
                                                                   const Orbel::Ptr<const GenericIf>& argument) {
    return flagRowOp(*this, *row_, row_->agentStatus(), row_->running(), "agentStatus", "running", op, index, argument);
}

template <>
Orbel::Ptr<GenericIf> RowGenericIf<OptionTableEntry>::attributeOp(const AttributeOp& op,
                                                                  const Orbel::Ptr<const GenericIf>& index,
                                                                  const Orbel::Ptr<const GenericIf>& argument) {
    return valueRowOp<OptionTableEntry, OptionTableIndex>(*this, *row_, row_->agentConfig(), "agentConfig", op, index,
                                                          argument);
}

template <>
Orbel::Ptr<GenericIf> RowGenericIf<DataTableEntry>::attributeOp(const AttributeOp& op,
                                                                const Orbel::Ptr<const GenericIf>& index,
                                                                const Orbel::Ptr<const GenericIf>& argument) {
    return valueRowOp<DataTableEntry, DataTableIndex>(*this, *row_, row_->agentStatus(), "agentStatus", op, index,
                                                      argument);
}

// The container's generic interface and its adapter.

Orbel::Ptr<DaemonMib::GenericIf_> DaemonMib::GenericIf_::make(const Orbel::Ptr<const DaemonMib>& mib, bool isConst) {
    return Orbel::Ptr<GenericIf_>(new GenericIf_(mib, isConst));
}

DaemonMib::GenericIf_::GenericIf_(const Orbel::Ptr<const DaemonMib>& mib, bool isConst)
    : GenericIf(isConst), mib_(mib), adapter_(GenericIf_Adapter_::make()) {
    adapter_->targetIs(this);
    adapter_->isWeakReferenceIs(true);
    adapter_->notifierIs(mib);
    adapter_->isRegisteredNotifieeIs(true);
}

DaemonMib::GenericIf_::~GenericIf_() {
    adapter_->targetIs(nullptr);
    adapter_->isRegisteredNotifieeIs(false);
}

DaemonMib::GenericIf_::GenericIf_Adapter_* DaemonMib::GenericIf_::adapter() const noexcept {
    return adapter_.ptr();
}

const Orbel::TypeDescriptor* DaemonMib::GenericIf_::type() const noexcept {
    return typeNamed("GenericAgent::DaemonMib");
}

Orbel::Ptr<GenericIf> DaemonMib::GenericIf_::attributeOp(const AttributeOp& op,
                                                         const Orbel::Ptr<const GenericIf>& index,
                                                         const Orbel::Ptr<const GenericIf>& argument) {
    if (op.op >= opModifying && isConst()) throw Orbel::ConstException("attempting to modify a const instance");
    if (op.attributeId < enabledTableId || op.attributeId > dataTableId)
        return GenericIf::attributeOp(op, index, argument);
    static const char* names[] = {"enabledTable", "optionTable", "runningTable", "dataTable"};
    const char* name = names[op.attributeId - enabledTableId];
    if (op.op != opRead) throw Orbel::NotSupportedException(name, op.op);
    if (!index) throw Orbel::BadIndexAttributeException(name);
    auto nameKey = dynamic_cast<const Snmp::String::GenericIf_*>(index.ptr());
    switch (op.attributeId) {
        case enabledTableId:
            if (!nameKey) throw Orbel::TypeException("Snmp::String");
            if (auto row = mib_->enabledTable(nameKey->value()))
                return new EnabledTableEntry::GenericIf_(row.ptr(), isConst());
            return nullptr;
        case runningTableId:
            if (!nameKey) throw Orbel::TypeException("Snmp::String");
            if (auto row = mib_->runningTable(nameKey->value()))
                return new RunningTableEntry::GenericIf_(row.ptr(), isConst());
            return nullptr;
        case optionTableId: {
            auto k = dynamic_cast<const OptionTableIndex::GenericIf_*>(index.ptr());
            if (!k) throw Orbel::TypeException(OptionTableIndex::typeName);
            if (auto row = mib_->optionTable(k->val())) return new OptionTableEntry::GenericIf_(row.ptr(), isConst());
            return nullptr;
        }
        default: {
            auto k = dynamic_cast<const DataTableIndex::GenericIf_*>(index.ptr());
            if (!k) throw Orbel::TypeException(DataTableIndex::typeName);
            if (auto row = mib_->dataTable(k->val())) return new DataTableEntry::GenericIf_(row.ptr(), isConst());
            return nullptr;
        }
    }
}

void DaemonMib::GenericIf_::tableKeyChanged(unsigned t, const Orbel::Ptr<const GenericIf>& key) {
    const Orbel::AttributeId id = enabledTableId + t;
    pending_[t].lastKey = key;
    if (notificationDeferred()) ++pending_[t].count;
    if (orbelOnAttribute(id)) return;
    onAttributeKey(id, key);
}

void DaemonMib::GenericIf_::drain(unsigned t, bool forced) {
    const Orbel::AttributeId id = enabledTableId + t;
    const unsigned count = pending_[t].count;
    pending_[t].count = 0;
    if (count > 1 || forced)
        onAttribute(id);
    else if (count == 1)
        onAttributeKey(id, pending_[t].lastKey);
}

void DaemonMib::GenericIf_::handleNotification(Orbel::ActivityConfig*) {
    const Orbel::AttributeId id = pendingAttributeTake();
    if (id >= enabledTableId && id <= dataTableId) {
        drain(id - enabledTableId, false);
    } else if (id == attributeAll || id == attributeAllForced) {
        defaultNotification(id);
        for (unsigned t = 0; t < 4; ++t) {
            drain(t, id == attributeAllForced);
            redispatch();
        }
    } else {
        defaultNotification(id);
    }
}

void DaemonMib::GenericIf_::hasNotificationActiveIs(bool active) {
    GenericIf::hasNotificationActiveIs(active);
}

DaemonMib::GenericIf_::GenericIf_Adapter_::~GenericIf_Adapter_() {
    destroying_ = true;
}

void DaemonMib::GenericIf_::GenericIf_Adapter_::onEnabledTable(Snmp::String agentName) {
    if (target_) target_->tableKeyChanged(0, Snmp::String::genericIf(agentName, true));
}
void DaemonMib::GenericIf_::GenericIf_Adapter_::onOptionTable(const OptionTableIndex& index) {
    if (target_) target_->tableKeyChanged(1, new OptionTableIndex::GenericIf_(index, true));
}
void DaemonMib::GenericIf_::GenericIf_Adapter_::onRunningTable(Snmp::String agentName) {
    if (target_) target_->tableKeyChanged(2, Snmp::String::genericIf(agentName, true));
}
void DaemonMib::GenericIf_::GenericIf_Adapter_::onDataTable(const DataTableIndex& index) {
    if (target_) target_->tableKeyChanged(3, new DataTableIndex::GenericIf_(index, true));
}
void DaemonMib::GenericIf_::GenericIf_Adapter_::onEnabledTableorbelImmediate() {
    if (target_) target_->onAttribute(enabledTableId);
}
void DaemonMib::GenericIf_::GenericIf_Adapter_::onOptionTableorbelImmediate() {
    if (target_) target_->onAttribute(optionTableId);
}
void DaemonMib::GenericIf_::GenericIf_Adapter_::onRunningTableorbelImmediate() {
    if (target_) target_->onAttribute(runningTableId);
}
void DaemonMib::GenericIf_::GenericIf_Adapter_::onDataTableorbelImmediate() {
    if (target_) target_->onAttribute(dataTableId);
}
void DaemonMib::GenericIf_::GenericIf_Adapter_::onEnabledTable() {
    if (target_) target_->onAttribute(enabledTableId);
}
void DaemonMib::GenericIf_::GenericIf_Adapter_::onOptionTable() {
    if (target_) target_->onAttribute(optionTableId);
}
void DaemonMib::GenericIf_::GenericIf_Adapter_::onRunningTable() {
    if (target_) target_->onAttribute(runningTableId);
}
void DaemonMib::GenericIf_::GenericIf_Adapter_::onDataTable() {
    if (target_) target_->onAttribute(dataTableId);
}

void DaemonMib::GenericIf_::GenericIf_Adapter_::onNotificationException(Orbel::AttributeId attributeId) {
    if (target_) target_->onNotificationException(attributeId);
}

void DaemonMib::GenericIf_::GenericIf_Adapter_::onZeroReferences() {
    if (target_) target_->onZeroReferences();
    hasNotificationActiveIs(false);
}

void DaemonMib::GenericIf_::GenericIf_Adapter_::hasNotificationActiveIs(bool active) {
    DaemonMib::Notifiee::hasNotificationActiveIs(active);
    if (!destroying_ && target_) target_->hasNotificationActiveIs(active);
}

} // namespace GenericAgent

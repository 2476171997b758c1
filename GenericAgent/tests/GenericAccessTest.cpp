// Type descriptors and generic access of the daemon MIB model: what the library registers
// when it loads, and how the framework reads rows and index values by attribute number.
#include "GenericAgent/GenericAgentSnmp.h"

#include "orbel/GenericIf.h"
#include "orbel/TypeRegistry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

using namespace GenericAgent;
using Orbel::GenericIf;
using Orbel::Ptr;

namespace {

using Op = GenericIf::AttributeOp;
using Generic = Ptr<GenericIf>;
using GenericConst = Ptr<const GenericIf>;

// --- Exception expectations -------------------------------------------------------------

// Runs f, which must throw exactly E; returns the message and (for named exceptions) the
// name it carries.
struct Caught {
    bool thrown = false;
    std::string typeName;
    std::string message;
    std::string name;
    unsigned op = ~0u;
};

template <class E>
Caught capture(const std::function<void()>& f) {
    Caught c;
    try {
        f();
    } catch (const E& e) {
        c.thrown = true;
        c.typeName = e.typeName();
        c.message = e.message().stdString();
        if constexpr (std::is_base_of_v<Orbel::NamedException, E>) c.name = e.name().stdString();
        if constexpr (std::is_same_v<E, Orbel::NotSupportedException>) c.op = e.op();
    } catch (const Orbel::Exception& e) {
        ADD_FAILURE() << "unexpected " << e;
    }
    return c;
}

void expectConstRefused(const std::function<void()>& f) {
    Caught c = capture<Orbel::ConstException>(f);
    ASSERT_TRUE(c.thrown) << "no Orbel::ConstException";
    EXPECT_EQ(c.typeName, "Orbel::ConstException");
    EXPECT_EQ(c.message, "attempting to modify a const instance");
}

void expectBadIndex(const std::function<void()>& f, const std::string& attribute) {
    Caught c = capture<Orbel::BadIndexAttributeException>(f);
    ASSERT_TRUE(c.thrown) << "no Orbel::BadIndexAttributeException for " << attribute;
    EXPECT_EQ(c.typeName, "Orbel::BadIndexAttributeException");
    EXPECT_EQ(c.name, attribute);
    EXPECT_EQ(c.message, "attribute " + attribute + " does not take an index");
}

void expectNotSupported(const std::function<void()>& f, const std::string& attribute, unsigned op) {
    Caught c = capture<Orbel::NotSupportedException>(f);
    ASSERT_TRUE(c.thrown) << "no Orbel::NotSupportedException for " << attribute << " op " << op;
    EXPECT_EQ(c.typeName, "Orbel::NotSupportedException");
    EXPECT_EQ(c.name, attribute);
    EXPECT_EQ(c.op, op);
    EXPECT_EQ(c.message, "operation " + std::to_string(op) + " not supported on " + attribute);
}

void expectTypeError(const std::function<void()>& f, const std::string& name) {
    Caught c = capture<Orbel::TypeException>(f);
    ASSERT_TRUE(c.thrown) << "no Orbel::TypeException for " << name;
    EXPECT_EQ(c.typeName, "Orbel::TypeException");
    EXPECT_EQ(c.name, name);
    EXPECT_EQ(c.message, "wrong type for " + name);
}

void expectUnknownArgument(const std::function<void()>& f, const std::string& name) {
    Caught c = capture<Orbel::UnknownArgumentException>(f);
    ASSERT_TRUE(c.thrown) << "no Orbel::UnknownArgumentException for " << name;
    EXPECT_EQ(c.typeName, "Orbel::UnknownArgumentException");
    EXPECT_EQ(c.name, name);
    EXPECT_EQ(c.message, "unknown argument for " + name);
}

// --- Generic values ---------------------------------------------------------------------

const Snmp::String::GenericIf_& asString(const Generic& g) {
    auto s = dynamic_cast<const Snmp::String::GenericIf_*>(g.ptr());
    if (!s) throw std::runtime_error("not a generic Snmp::String");
    return *s;
}

bool asBool(const Generic& g) {
    auto b = dynamic_cast<const GenericIf::Value_<bool>*>(g.ptr());
    if (!b) throw std::runtime_error("not a generic bool");
    EXPECT_EQ(b->type(), Orbel::boolType());
    return b->value();
}

void expectStringValue(const Generic& g, const std::string& bytes, bool isConst) {
    ASSERT_TRUE(g);
    auto s = dynamic_cast<const Snmp::String::GenericIf_*>(g.ptr());
    ASSERT_NE(s, nullptr) << "not a generic Snmp::String";
    EXPECT_EQ(s->value(), Snmp::String(bytes));
    EXPECT_EQ(s->isConst(), isConst);
    EXPECT_EQ(s->type(), Snmp::String::type());
}

GenericConst emptyList() {
    return GenericIf::List_::make();
}
GenericConst someIndex() {
    return Snmp::String::genericIf("x", true);
}

// Operation codes exercised on every attribute: the read, other non-modifying codes, the
// equality code, and modifying codes.
const std::vector<unsigned> nonReadOps = {1, 2, 99, 100, 127, 128, 129, 200};
const std::vector<unsigned> modifyingOps = {128, 129, 200, 255};

const Orbel::TypeDescriptor* registered(const char* name) {
    const Orbel::TypeDescriptor* t = Orbel::TypeRegistry::instance().type(name);
    EXPECT_NE(t, nullptr) << name;
    return t;
}

// --- Rows -------------------------------------------------------------------------------

template <class Row, class... A>
Ptr<Row> makeRow(A&&... a) {
    return Ptr<Row>(new Row(std::forward<A>(a)...));
}

template <class Row>
Ptr<typename Row::GenericIf_> rowIf(const Ptr<Row>& row, bool isConst) {
    return new typename Row::GenericIf_(row.ptr(), isConst);
}

// Steps shared by every row type: const refusal comes first for every attribute number and
// whatever index and operand are given.
void checkConstRefusal(const Generic& constIf, const std::vector<Orbel::AttributeId>& numbers) {
    ASSERT_TRUE(constIf->isConst());
    for (Orbel::AttributeId n : numbers) {
        for (unsigned op : modifyingOps) {
            SCOPED_TRACE("attribute " + std::to_string(n) + " op " + std::to_string(op));
            expectConstRefused([&] { constIf->attributeOp({n, op}, nullptr, nullptr); });
            expectConstRefused([&] { constIf->attributeOp({n, op}, someIndex(), nullptr); });
            expectConstRefused([&] { constIf->attributeOp({n, op}, nullptr, emptyList()); });
            expectConstRefused([&] { constIf->attributeOp({n, op}, someIndex(), someIndex()); });
        }
    }
}

// A scalar attribute of a row: an index is refused naming it (before the operation is
// looked at), every operation but the read is refused naming it; modifying operations on
// a const interface are refused as const.
void checkScalarRefusals(const Generic& g, Orbel::AttributeId number, const std::string& name) {
    SCOPED_TRACE(name + (g->isConst() ? " (const)" : " (non-const)"));
    expectBadIndex([&] { g->attributeOp({number, GenericIf::opRead}, someIndex(), nullptr); }, name);
    for (unsigned op : nonReadOps) {
        if (op >= GenericIf::opModifying && g->isConst()) {
            expectConstRefused([&] { g->attributeOp({number, op}, nullptr, nullptr); });
            continue;
        }
        expectBadIndex([&] { g->attributeOp({number, op}, someIndex(), nullptr); }, name);
        expectNotSupported([&] { g->attributeOp({number, op}, nullptr, nullptr); }, name, op);
    }
}

// Numbers the rows do not answer themselves go to the base implementation.
void checkBaseFallback(const Generic& g, const std::vector<Orbel::AttributeId>& numbers) {
    for (Orbel::AttributeId n : numbers) {
        for (unsigned op : {0u, 1u, 100u, 128u}) {
            if (op >= GenericIf::opModifying && g->isConst()) continue;
            SCOPED_TRACE("attribute " + std::to_string(n) + " op " + std::to_string(op));
            expectNotSupported(
                [&] {
                    g->attributeOp({n, op}, nullptr, nullptr);
                },
                "attribute " + std::to_string(n), op);
            expectNotSupported(
                [&] {
                    g->attributeOp({n, op}, someIndex(), emptyList());
                },
                "attribute " + std::to_string(n), op);
        }
    }
}

// The generic interface of a referenced Config or Status, as the type registry gives it.
template <class State>
void expectStateIf(const Generic& g, const State* state, bool isConst, bool flag) {
    ASSERT_TRUE(g);
    EXPECT_EQ(g->type(), State::_fwkType);
    EXPECT_EQ(g->isConst(), isConst);
    EXPECT_EQ(g->strRep(), Orbel::refStrep(State::_fwkType->name().cStr(), state));
    EXPECT_EQ(asBool(g->attributeOp({130, GenericIf::opRead}, nullptr, nullptr)), flag);
}

} // namespace

// =========================================================================================
// Type descriptors

namespace {

struct ExpectedAttribute {
    Orbel::AttributeId number;
    const char* name;
    const char* type;
    std::uint32_t introspection;
};

struct ExpectedType {
    const char* name;
    bool valueType;
    std::vector<ExpectedAttribute> attributes;
};

const std::vector<ExpectedType>& expectedTypes() {
    static const std::vector<ExpectedType> types = {
        {"GenericAgent::EnabledTableEntry",
         false,
         {{130, "agentName", "Snmp::String", 2},
          {131, "agentConfig", "GenericAgent::Config", 2},
          {132, "enabled", "bool", 0},
          {0, "fwkKey", "Snmp::String", 0}}},
        {"GenericAgent::OptionTableIndex", true, {{2, "agentName", "Snmp::String", 2}, {3, "key", "Snmp::String", 2}}},
        {"GenericAgent::OptionTableEntry",
         false,
         {{130, "index", "GenericAgent::OptionTableIndex", 2},
          {131, "agentName", "Snmp::String", 0},
          {132, "key", "Snmp::String", 0},
          {133, "agentConfig", "GenericAgent::Config", 2},
          {134, "val", "Snmp::String", 8},
          {0, "fwkKey", "GenericAgent::OptionTableIndex", 0}}},
        {"GenericAgent::RunningTableEntry",
         false,
         {{130, "agentName", "Snmp::String", 2},
          {131, "agentStatus", "GenericAgent::Status", 2},
          {132, "running", "bool", 0},
          {0, "fwkKey", "Snmp::String", 0}}},
        {"GenericAgent::DataTableIndex", true, {{2, "agentName", "Snmp::String", 2}, {3, "key", "Snmp::String", 2}}},
        {"GenericAgent::DataTableEntry",
         false,
         {{130, "index", "GenericAgent::DataTableIndex", 2},
          {131, "agentName", "Snmp::String", 0},
          {132, "key", "Snmp::String", 0},
          {133, "agentStatus", "GenericAgent::Status", 2},
          {134, "val", "Snmp::String", 8},
          {0, "fwkKey", "GenericAgent::DataTableIndex", 0}}},
        {"GenericAgent::DaemonMib",
         false,
         {{258, "enabledTable", "GenericAgent::EnabledTableEntry", 0},
          {259, "optionTable", "GenericAgent::OptionTableEntry", 0},
          {260, "runningTable", "GenericAgent::RunningTableEntry", 0},
          {261, "dataTable", "GenericAgent::DataTableEntry", 0}}},
    };
    return types;
}

} // namespace

TEST(TypeRegistry, ModelTypesRegisteredConsecutivelyInOrder) {
    const auto types = Orbel::TypeRegistry::instance().types();
    auto first = std::find_if(types.begin(), types.end(), [](const Orbel::TypeDescriptor* t) {
        return t->name() == Orbel::String("GenericAgent::EnabledTableEntry");
    });
    ASSERT_NE(first, types.end());
    const auto& expected = expectedTypes();
    ASSERT_GE(static_cast<std::size_t>(types.end() - first), expected.size());

    for (std::size_t i = 0; i < expected.size(); ++i) {
        const Orbel::TypeDescriptor* t = first[static_cast<std::ptrdiff_t>(i)];
        const ExpectedType& e = expected[i];
        SCOPED_TRACE(e.name);
        EXPECT_EQ(t->name().stdString(), e.name);
        EXPECT_EQ(Orbel::TypeRegistry::instance().type(e.name), t);
        ASSERT_EQ(t->attributes().size(), e.attributes.size());
        for (std::size_t a = 0; a < e.attributes.size(); ++a) {
            const Orbel::AttributeDescriptor& got = t->attributes()[a];
            const ExpectedAttribute& want = e.attributes[a];
            SCOPED_TRACE(want.name);
            EXPECT_EQ(got.number, want.number);
            EXPECT_EQ(got.name.stdString(), want.name);
            EXPECT_EQ(got.typeName.stdString(), want.type);
            EXPECT_EQ(got.introspection, want.introspection);
            EXPECT_EQ(t->attribute(want.number), &got);
            EXPECT_EQ(t->attribute(Orbel::String(want.name)), &got);
        }
    }
}

TEST(TypeRegistry, RowAndIndexAttributesShareOneFlagSetAndAreNonInstantiating) {
    const auto& expected = expectedTypes();
    const Orbel::TypeDescriptor* enabled = registered("GenericAgent::EnabledTableEntry");
    ASSERT_NE(enabled, nullptr);
    ASSERT_FALSE(enabled->attributes().empty());
    const std::uint32_t shared = enabled->attributes().front().flags;
    for (std::size_t i = 0; i < 6; ++i) {
        const Orbel::TypeDescriptor* t = registered(expected[i].name);
        ASSERT_NE(t, nullptr);
        for (const auto& a : t->attributes()) {
            SCOPED_TRACE(std::string(expected[i].name) + "::" + a.name.stdString());
            EXPECT_EQ(a.kind, Orbel::AttributeKind::nonInstantiating);
            EXPECT_EQ(a.flags, shared);
        }
    }
}

TEST(TypeRegistry, DaemonMibCollectionsAreFullAttributesOfRowTypes) {
    const Orbel::TypeDescriptor* t = registered("GenericAgent::DaemonMib");
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(DaemonMib::_fwkType, t);
    const Orbel::AttributeId ids[] = {DaemonMib::enabledTableId, DaemonMib::optionTableId, DaemonMib::runningTableId,
                                      DaemonMib::dataTableId};
    ASSERT_EQ(t->attributes().size(), 4u);
    for (std::size_t i = 0; i < 4; ++i) {
        const auto& a = t->attributes()[i];
        EXPECT_EQ(a.number, ids[i]);
        EXPECT_EQ(a.kind, Orbel::AttributeKind::full);
        // The element type is a registered row type.
        const Orbel::TypeDescriptor* element = Orbel::TypeRegistry::instance().type(a.typeName);
        ASSERT_NE(element, nullptr) << a.typeName;
        EXPECT_TRUE(element->genericIfOf != nullptr);
    }
}

TEST(TypeRegistry, AttributeTypesAreRegisteredTypes) {
    // The framework's own value types are registered on first use.
    (void)Orbel::boolType();
    (void)Snmp::String::type();
    for (const auto& e : expectedTypes()) {
        for (const auto& a : e.attributes) {
            SCOPED_TRACE(std::string(e.name) + "::" + a.name);
            EXPECT_NE(Orbel::TypeRegistry::instance().type(a.type), nullptr) << a.type;
        }
    }
    EXPECT_EQ(Orbel::TypeRegistry::instance().type("GenericAgent::Config"), Config::_fwkType);
    EXPECT_EQ(Orbel::TypeRegistry::instance().type("GenericAgent::Status"), Status::_fwkType);
}

TEST(TypeRegistry, GenericSupportOnAllAndValueTypeOnIndexesOnly) {
    for (const auto& e : expectedTypes()) {
        const Orbel::TypeDescriptor* t = registered(e.name);
        ASSERT_NE(t, nullptr);
        SCOPED_TRACE(e.name);
        EXPECT_TRUE(t->genericIfSupported);
        EXPECT_EQ(t->valueType, e.valueType);
        if (e.valueType) {
            EXPECT_TRUE(t->genericIfFromStrep != nullptr);
            EXPECT_TRUE(t->genericIfFromList != nullptr);
        } else {
            EXPECT_TRUE(t->genericIfOf != nullptr);
        }
    }
}

TEST(TypeRegistry, RegisteringAgainChangesNothing) {
    const auto before = Orbel::TypeRegistry::instance().types();
    registerDaemonMibTypes();
    EXPECT_EQ(Orbel::TypeRegistry::instance().types(), before);
}

TEST(TypeRegistry, GenericInterfacesReportTheirDescriptors) {
    auto cfg = Config::configFactory("bgpd");
    auto st = Status::statusFactory("bgpd");
    auto e = makeRow<EnabledTableEntry>(Snmp::String("bgpd"), cfg);
    auto o = makeRow<OptionTableEntry>(OptionTableIndex("bgpd", "asn"), cfg);
    auto r = makeRow<RunningTableEntry>(Snmp::String("bgpd"), st);
    auto d = makeRow<DataTableEntry>(DataTableIndex("bgpd", "uptime"), st);
    EXPECT_EQ(rowIf(e, false)->type(), registered("GenericAgent::EnabledTableEntry"));
    EXPECT_EQ(rowIf(o, false)->type(), registered("GenericAgent::OptionTableEntry"));
    EXPECT_EQ(rowIf(r, false)->type(), registered("GenericAgent::RunningTableEntry"));
    EXPECT_EQ(rowIf(d, false)->type(), registered("GenericAgent::DataTableEntry"));
    Ptr<GenericIf> oi = new OptionTableIndex::GenericIf_(OptionTableIndex(), false);
    Ptr<GenericIf> di = new DataTableIndex::GenericIf_(DataTableIndex(), false);
    EXPECT_EQ(oi->type(), registered("GenericAgent::OptionTableIndex"));
    EXPECT_EQ(di->type(), registered("GenericAgent::DataTableIndex"));
    auto mib = daemonMibFactory("daemonMIB");
    EXPECT_EQ(mib->type(), registered("GenericAgent::DaemonMib"));
    EXPECT_EQ(DaemonMib::GenericIf_::make(mib, true)->type(), mib->type());
    // Attribute numbers by name through the descriptor.
    EXPECT_EQ(rowIf(o, true)->attributeId("val"), 134u);
    EXPECT_EQ(rowIf(e, true)->attributeId("enabled"), 132u);
    EXPECT_EQ(rowIf(d, true)->attributeId("agentStatus"), 133u);
    EXPECT_THROW(rowIf(r, true)->attributeId("enabled"), Orbel::RangeException);
}

TEST(TypeRegistry, DescriptorsMakeGenericInterfacesOfRows) {
    auto cfg = Config::configFactory("bgpd");
    cfg->enabledIs(true);
    auto row = makeRow<EnabledTableEntry>(Snmp::String("bgpd"), cfg);
    const Orbel::TypeDescriptor* t = registered("GenericAgent::EnabledTableEntry");
    ASSERT_NE(t, nullptr);
    for (bool isConst : {false, true}) {
        Generic g = t->genericIfOf(row.ptr(), isConst);
        ASSERT_TRUE(g);
        auto typed = dynamic_cast<EnabledTableEntry::GenericIf_*>(g.ptr());
        ASSERT_NE(typed, nullptr);
        EXPECT_EQ(typed->row(), row.ptr());
        EXPECT_EQ(g->isConst(), isConst);
        EXPECT_TRUE(asBool(g->attributeOp({132, 0}, nullptr, nullptr)));
    }
}

TEST(DaemonMibDescriptor, NewEntityMakesAnEmptyDaemonMibIgnoringTheDirectory) {
    const Orbel::TypeDescriptor* t = registered("GenericAgent::DaemonMib");
    ASSERT_NE(t, nullptr);
    ASSERT_TRUE(t->newEntity != nullptr);
    Ptr<Orbel::Entity> directory = Config::configFactory("someDirectory");
    for (const Ptr<Orbel::Entity>& dir : {Ptr<Orbel::Entity>(), directory}) {
        Ptr<Orbel::Entity> made = t->newEntity(Orbel::Name("daemonMIB"), dir);
        ASSERT_TRUE(made);
        auto mib = dynamic_cast<DaemonMib*>(made.ptr());
        ASSERT_NE(mib, nullptr);
        EXPECT_EQ(mib->name(), Orbel::Name("daemonMIB"));
        EXPECT_EQ(mib->type(), t);
        EXPECT_EQ(mib->version(), 0u);
        EXPECT_EQ(mib->notifiees(), 0u);
        EXPECT_TRUE(mib->enabledTable().begin().isEnd());
        EXPECT_TRUE(mib->optionTable().begin().isEnd());
        EXPECT_TRUE(mib->runningTable().begin().isEnd());
        EXPECT_TRUE(mib->dataTable().begin().isEnd());
    }
    EXPECT_EQ(directory->version(), 0u);
    // Two calls make two containers.
    Ptr<Orbel::Entity> a = t->newEntity(Orbel::Name("a"), nullptr);
    Ptr<Orbel::Entity> b = t->newEntity(Orbel::Name("a"), nullptr);
    EXPECT_NE(a.ptr(), b.ptr());
}

// =========================================================================================
// EnabledTableEntry / RunningTableEntry

TEST(EnabledTableEntryGenericIf, ConstRefusalComesFirst) {
    auto row = makeRow<EnabledTableEntry>(Snmp::String("bgpd"), Config::configFactory("bgpd"));
    checkConstRefusal(rowIf(row, true), {0, 1, 129, 130, 131, 132, 133, 134, 258, 999});
}

TEST(EnabledTableEntryGenericIf, ScalarAttributesRefuseIndexAndNonReadOps) {
    auto row = makeRow<EnabledTableEntry>(Snmp::String("bgpd"), Config::configFactory("bgpd"));
    for (bool isConst : {false, true}) {
        Generic g = rowIf(row, isConst);
        checkScalarRefusals(g, 130, "agentName");
        checkScalarRefusals(g, 131, "agentConfig");
        checkScalarRefusals(g, 132, "enabled");
    }
}

TEST(EnabledTableEntryGenericIf, ReadsAgentName) {
    auto row = makeRow<EnabledTableEntry>(Snmp::String("bgpd"), Config::configFactory("bgpd"));
    for (bool isConst : {false, true}) {
        SCOPED_TRACE(isConst);
        Generic v = rowIf(row, isConst)->attributeOp({130, 0}, nullptr, nullptr);
        expectStringValue(v, "bgpd", isConst);
        // The operand is not looked at by a read.
        expectStringValue(rowIf(row, isConst)->attributeOp({130, 0}, nullptr, someIndex()), "bgpd", isConst);
    }
}

TEST(EnabledTableEntryGenericIf, ReadsAgentConfigThroughTheTypeRegistry) {
    auto cfg = Config::configFactory("bgpd");
    auto row = makeRow<EnabledTableEntry>(Snmp::String("bgpd"), cfg);
    for (bool isConst : {false, true}) {
        SCOPED_TRACE(isConst);
        Generic v = rowIf(row, isConst)->attributeOp({131, 0}, nullptr, nullptr);
        expectStateIf(v, cfg.ptr(), isConst, false);
        cfg->enabledIs(true);
        expectStateIf(v, cfg.ptr(), isConst, true);
        cfg->enabledIs(false);
    }
    auto orphan = makeRow<EnabledTableEntry>(Snmp::String("bgpd"), nullptr);
    EXPECT_FALSE(rowIf(orphan, false)->attributeOp({131, 0}, nullptr, nullptr));
    EXPECT_FALSE(rowIf(orphan, true)->attributeOp({131, 0}, nullptr, nullptr));
}

TEST(EnabledTableEntryGenericIf, ReadsEnabledLive) {
    auto cfg = Config::configFactory("bgpd");
    auto row = makeRow<EnabledTableEntry>(Snmp::String("bgpd"), cfg);
    for (bool isConst : {false, true}) {
        Generic g = rowIf(row, isConst);
        cfg->enabledIs(false);
        EXPECT_FALSE(asBool(g->attributeOp({132, 0}, nullptr, nullptr)));
        cfg->enabledIs(true);
        EXPECT_TRUE(asBool(g->attributeOp({132, 0}, nullptr, nullptr)));
    }
    auto orphan = makeRow<EnabledTableEntry>(Snmp::String("bgpd"), nullptr);
    EXPECT_FALSE(asBool(rowIf(orphan, false)->attributeOp({132, 0}, nullptr, nullptr)));
    EXPECT_FALSE(asBool(rowIf(orphan, true)->attributeOp({132, 0}, nullptr, nullptr)));
}

TEST(EnabledTableEntryGenericIf, OtherNumbersGoToTheBase) {
    auto row = makeRow<EnabledTableEntry>(Snmp::String("bgpd"), Config::configFactory("bgpd"));
    for (bool isConst : {false, true}) checkBaseFallback(rowIf(row, isConst), {0, 1, 2, 3, 129, 133, 134, 258, 999});
}

TEST(RunningTableEntryGenericIf, ConstRefusalComesFirst) {
    auto row = makeRow<RunningTableEntry>(Snmp::String("ntpd"), Status::statusFactory("ntpd"));
    checkConstRefusal(rowIf(row, true), {0, 1, 129, 130, 131, 132, 133, 134, 260, 999});
}

TEST(RunningTableEntryGenericIf, ScalarAttributesRefuseIndexAndNonReadOps) {
    auto row = makeRow<RunningTableEntry>(Snmp::String("ntpd"), Status::statusFactory("ntpd"));
    for (bool isConst : {false, true}) {
        Generic g = rowIf(row, isConst);
        checkScalarRefusals(g, 130, "agentName");
        checkScalarRefusals(g, 131, "agentStatus");
        checkScalarRefusals(g, 132, "running");
    }
}

TEST(RunningTableEntryGenericIf, ReadsAgentName) {
    auto row = makeRow<RunningTableEntry>(Snmp::String("ntpd"), Status::statusFactory("ntpd"));
    for (bool isConst : {false, true}) {
        SCOPED_TRACE(isConst);
        expectStringValue(rowIf(row, isConst)->attributeOp({130, 0}, nullptr, nullptr), "ntpd", isConst);
    }
}

TEST(RunningTableEntryGenericIf, ReadsAgentStatusThroughTheTypeRegistry) {
    auto st = Status::statusFactory("ntpd");
    auto row = makeRow<RunningTableEntry>(Snmp::String("ntpd"), st);
    for (bool isConst : {false, true}) {
        SCOPED_TRACE(isConst);
        Generic v = rowIf(row, isConst)->attributeOp({131, 0}, nullptr, nullptr);
        expectStateIf(v, st.ptr(), isConst, false);
        st->runningIs(true);
        expectStateIf(v, st.ptr(), isConst, true);
        st->runningIs(false);
    }
    auto orphan = makeRow<RunningTableEntry>(Snmp::String("ntpd"), nullptr);
    EXPECT_FALSE(rowIf(orphan, false)->attributeOp({131, 0}, nullptr, nullptr));
    EXPECT_FALSE(rowIf(orphan, true)->attributeOp({131, 0}, nullptr, nullptr));
}

TEST(RunningTableEntryGenericIf, ReadsRunningLive) {
    auto st = Status::statusFactory("ntpd");
    auto row = makeRow<RunningTableEntry>(Snmp::String("ntpd"), st);
    for (bool isConst : {false, true}) {
        Generic g = rowIf(row, isConst);
        st->runningIs(false);
        EXPECT_FALSE(asBool(g->attributeOp({132, 0}, nullptr, nullptr)));
        st->runningIs(true);
        EXPECT_TRUE(asBool(g->attributeOp({132, 0}, nullptr, nullptr)));
    }
    auto orphan = makeRow<RunningTableEntry>(Snmp::String("ntpd"), nullptr);
    EXPECT_FALSE(asBool(rowIf(orphan, false)->attributeOp({132, 0}, nullptr, nullptr)));
    EXPECT_FALSE(asBool(rowIf(orphan, true)->attributeOp({132, 0}, nullptr, nullptr)));
}

TEST(RunningTableEntryGenericIf, OtherNumbersGoToTheBase) {
    auto row = makeRow<RunningTableEntry>(Snmp::String("ntpd"), Status::statusFactory("ntpd"));
    for (bool isConst : {false, true}) checkBaseFallback(rowIf(row, isConst), {0, 1, 2, 3, 129, 133, 134, 260, 999});
}

// =========================================================================================
// OptionTableEntry / DataTableEntry

namespace {

// The source (Config or Status) of a value row, with a value set under key.
struct OptionSide {
    using Row = OptionTableEntry;
    using Index = OptionTableIndex;
    using Source = Config;
    static constexpr const char* sourceName = "agentConfig";
    static Ptr<Source> make(const char* name) { return Config::configFactory(name); }
    static void set(Source& s, const char* k, const char* v) { s.optionIs(AgentKey(k), AgentVal(v)); }
    static void del(Source& s, const char* k) { s.optionDel(AgentKey(k)); }
    static void flagIs(Source& s, bool f) { s.enabledIs(f); }
};

struct DataSide {
    using Row = DataTableEntry;
    using Index = DataTableIndex;
    using Source = Status;
    static constexpr const char* sourceName = "agentStatus";
    static Ptr<Source> make(const char* name) { return Status::statusFactory(name); }
    static void set(Source& s, const char* k, const char* v) { s.dataIs(AgentKey(k), AgentVal(v)); }
    static void del(Source& s, const char* k) { s.dataDel(AgentKey(k)); }
    static void flagIs(Source& s, bool f) { s.runningIs(f); }
};

template <class Side>
void checkValueRowConstRefusal() {
    auto src = Side::make("bgpd");
    auto row = makeRow<typename Side::Row>(typename Side::Index("bgpd", "asn"), src);
    checkConstRefusal(rowIf(row, true), {0, 1, 129, 130, 131, 132, 133, 134, 135, 259, 999});
}

template <class Side>
void checkValueRowScalars() {
    auto src = Side::make("bgpd");
    auto row = makeRow<typename Side::Row>(typename Side::Index("bgpd", "asn"), src);
    for (bool isConst : {false, true}) {
        Generic g = rowIf(row, isConst);
        checkScalarRefusals(g, 130, "index");
        checkScalarRefusals(g, 131, "agentName");
        checkScalarRefusals(g, 132, "key");
        checkScalarRefusals(g, 133, Side::sourceName);
    }
}

template <class Side>
void checkValueRowReads() {
    auto src = Side::make("bgpd");
    const typename Side::Index index("bgpd", "asn");
    auto row = makeRow<typename Side::Row>(index, src);
    for (bool isConst : {false, true}) {
        SCOPED_TRACE(isConst);
        Generic g = rowIf(row, isConst);

        Generic i = g->attributeOp({130, 0}, nullptr, nullptr);
        auto wrapper = dynamic_cast<typename Side::Index::GenericIf_*>(i.ptr());
        ASSERT_NE(wrapper, nullptr);
        EXPECT_EQ(wrapper->val(), index);
        EXPECT_EQ(wrapper->isConst(), isConst);
        EXPECT_EQ(wrapper->type(), registered(Side::Index::typeName));
        // The call form of the index read is accepted too.
        Generic called = g->attributeOp({130, 0}, nullptr, emptyList());
        ASSERT_NE(dynamic_cast<typename Side::Index::GenericIf_*>(called.ptr()), nullptr);
        EXPECT_EQ(dynamic_cast<typename Side::Index::GenericIf_&>(*called).val(), index);
        // An operand of another kind is refused.
        expectTypeError([&] { g->attributeOp({130, 0}, nullptr, someIndex()); }, "Orbel::GenericIf::List_");

        expectStringValue(g->attributeOp({131, 0}, nullptr, nullptr), "bgpd", isConst);
        expectStringValue(g->attributeOp({132, 0}, nullptr, nullptr), "asn", isConst);

        Generic s = g->attributeOp({133, 0}, nullptr, nullptr);
        expectStateIf(s, src.ptr(), isConst, false);
        Side::flagIs(*src, true);
        expectStateIf(s, src.ptr(), isConst, true);
        Side::flagIs(*src, false);
    }
    auto orphan = makeRow<typename Side::Row>(index, nullptr);
    EXPECT_FALSE(rowIf(orphan, false)->attributeOp({133, 0}, nullptr, nullptr));
    EXPECT_FALSE(rowIf(orphan, true)->attributeOp({133, 0}, nullptr, nullptr));
    // The other attributes need no source.
    expectStringValue(rowIf(orphan, true)->attributeOp({131, 0}, nullptr, nullptr), "bgpd", true);
    expectStringValue(rowIf(orphan, true)->attributeOp({132, 0}, nullptr, nullptr), "asn", true);
}

template <class Side>
void checkValCall() {
    auto src = Side::make("bgpd");
    Side::set(*src, "asn", "65001");
    auto row = makeRow<typename Side::Row>(typename Side::Index("bgpd", "asn"), src);
    for (bool isConst : {false, true}) {
        SCOPED_TRACE(isConst);
        Generic g = rowIf(row, isConst);
        // The call: an empty argument list gives val().
        Generic v = g->attributeOp({134, 0}, nullptr, emptyList());
        expectStringValue(v, "65001", isConst);
        EXPECT_EQ(asString(v).value().str(), Orbel::String(row->val()));
        // A const list is as good.
        expectStringValue(g->attributeOp({134, 0}, nullptr, GenericIf::List_::make({}, true)), "65001", isConst);

        // The operand must be a list.
        expectTypeError([&] { g->attributeOp({134, 0}, nullptr, nullptr); }, "Orbel::GenericIf::List_");
        expectTypeError(
            [&] {
                g->attributeOp({134, 0}, nullptr, Snmp::String::genericIf("65001", false));
            },
            "Orbel::GenericIf::List_");
        expectTypeError(
            [&] {
                g->attributeOp({134, 0}, nullptr, Orbel::genericBool(true, true));
            },
            "Orbel::GenericIf::List_");
        GenericConst wrapper = new typename Side::Index::GenericIf_(typename Side::Index("bgpd", "asn"), true);
        expectTypeError([&] { g->attributeOp({134, 0}, nullptr, wrapper); }, "Orbel::GenericIf::List_");

        // val takes no arguments.
        GenericConst one = GenericIf::List_::make({Snmp::String::genericIf("x", true)});
        expectUnknownArgument([&] { g->attributeOp({134, 0}, nullptr, one); }, "val");
        GenericConst two =
            GenericIf::List_::make({Snmp::String::genericIf("x", true), Orbel::genericBool(false, true)});
        expectUnknownArgument([&] { g->attributeOp({134, 0}, nullptr, two); }, "val");
        GenericConst nulls = GenericIf::List_::make({GenericConst()});
        expectUnknownArgument([&] { g->attributeOp({134, 0}, nullptr, nulls); }, "val");

        // No index; only the read.
        expectBadIndex([&] { g->attributeOp({134, 0}, someIndex(), emptyList()); }, "val");
        expectBadIndex([&] { g->attributeOp({134, 0}, someIndex(), nullptr); }, "val");
        for (unsigned op : nonReadOps) {
            if (op >= GenericIf::opModifying && isConst) {
                expectConstRefused([&] { g->attributeOp({134, op}, nullptr, emptyList()); });
                continue;
            }
            expectNotSupported([&] { g->attributeOp({134, op}, nullptr, emptyList()); }, "val", op);
        }
    }
    // An absent value reads as empty.
    Side::del(*src, "asn");
    expectStringValue(rowIf(row, true)->attributeOp({134, 0}, nullptr, emptyList()), "", true);
}

template <class Side>
void checkValIsLive() {
    auto mib = daemonMibFactory("daemonMIB");
    auto src = Side::make("bgpd");
    const typename Side::Index index("bgpd", "asn");
    Ptr<typename Side::Row> row;
    if constexpr (std::is_same_v<Side, OptionSide>)
        row = mib->optionTableIs(index, src);
    else
        row = mib->dataTableIs(index, src);
    ASSERT_TRUE(row);
    const Orbel::TypeDescriptor* t = registered(std::is_same_v<Side, OptionSide> ? "GenericAgent::OptionTableEntry"
                                                                                 : "GenericAgent::DataTableEntry");
    ASSERT_NE(t, nullptr);
    Generic g = t->genericIfOf(row.ptr(), true);
    auto read = [&] { return asString(g->attributeOp({134, 0}, nullptr, emptyList())).value(); };

    EXPECT_EQ(read(), Snmp::String(""));
    EXPECT_EQ(read().str(), Orbel::String(row->val()));
    Side::set(*src, "asn", "65001");
    EXPECT_EQ(read(), Snmp::String("65001"));
    EXPECT_EQ(read().str(), Orbel::String(row->val()));
    Side::set(*src, "asn", "65002");
    EXPECT_EQ(read(), Snmp::String("65002"));
    Side::set(*src, "other", "x");
    EXPECT_EQ(read(), Snmp::String("65002"));
    Side::del(*src, "asn");
    EXPECT_EQ(read(), Snmp::String(""));
    Side::set(*src, "asn", "bytes \x01\x7f");
    EXPECT_EQ(read(), Snmp::String("bytes \x01\x7f"));
    // Still the same row.
    if constexpr (std::is_same_v<Side, OptionSide>)
        EXPECT_EQ(mib->optionTable(index).ptr(), row.ptr());
    else
        EXPECT_EQ(mib->dataTable(index).ptr(), row.ptr());
}

} // namespace

TEST(OptionTableEntryGenericIf, ConstRefusalComesFirst) {
    checkValueRowConstRefusal<OptionSide>();
}
TEST(OptionTableEntryGenericIf, ScalarAttributesRefuseIndexAndNonReadOps) {
    checkValueRowScalars<OptionSide>();
}
TEST(OptionTableEntryGenericIf, ReadsIndexAgentNameKeyAndAgentConfig) {
    checkValueRowReads<OptionSide>();
}
TEST(OptionTableEntryGenericIf, ValIsReadAsAnArgumentlessCall) {
    checkValCall<OptionSide>();
}
TEST(OptionTableEntryGenericIf, ValFollowsTheConfigLive) {
    checkValIsLive<OptionSide>();
}
TEST(OptionTableEntryGenericIf, OtherNumbersGoToTheBase) {
    auto row = makeRow<OptionTableEntry>(OptionTableIndex("bgpd", "asn"), Config::configFactory("bgpd"));
    for (bool isConst : {false, true}) checkBaseFallback(rowIf(row, isConst), {0, 1, 2, 3, 129, 135, 259, 999});
}

TEST(DataTableEntryGenericIf, ConstRefusalComesFirst) {
    checkValueRowConstRefusal<DataSide>();
}
TEST(DataTableEntryGenericIf, ScalarAttributesRefuseIndexAndNonReadOps) {
    checkValueRowScalars<DataSide>();
}
TEST(DataTableEntryGenericIf, ReadsIndexAgentNameKeyAndAgentStatus) {
    checkValueRowReads<DataSide>();
}
TEST(DataTableEntryGenericIf, ValIsReadAsAnArgumentlessCall) {
    checkValCall<DataSide>();
}
TEST(DataTableEntryGenericIf, ValFollowsTheStatusLive) {
    checkValIsLive<DataSide>();
}
TEST(DataTableEntryGenericIf, OtherNumbersGoToTheBase) {
    auto row = makeRow<DataTableEntry>(DataTableIndex("bgpd", "uptime"), Status::statusFactory("bgpd"));
    for (bool isConst : {false, true}) checkBaseFallback(rowIf(row, isConst), {0, 1, 2, 3, 129, 135, 261, 999});
}

TEST(OptionTableEntryGenericIf, ValOverlongKeyRaisesRange) {
    auto cfg = Config::configFactory("bgpd");
    auto row = makeRow<OptionTableEntry>(OptionTableIndex("bgpd", Snmp::String(std::string(1025, 'k'))), cfg);
    try {
        rowIf(row, true)->attributeOp({134, 0}, nullptr, emptyList());
        FAIL() << "no exception";
    } catch (const Orbel::RangeException& e) {
        EXPECT_EQ(e.message().stdString(), "AgentKey::bytes > AgentKey::maxLength not allowed");
    }
}

TEST(DaemonMibGenericIf, RowsAreReachedByTableAndKey) {
    auto mib = daemonMibFactory("daemonMIB");
    auto cfg = Config::configFactory("bgpd");
    auto st = Status::statusFactory("bgpd");
    cfg->optionIs(AgentKey("asn"), AgentVal("65001"));
    mib->enabledTableIs("bgpd", cfg);
    auto option = mib->optionTableIs(OptionTableIndex("bgpd", "asn"), cfg);
    mib->runningTableIs("bgpd", st);
    mib->dataTableIs(DataTableIndex("bgpd", "uptime"), st);

    const Orbel::TypeDescriptor* t = registered("GenericAgent::DaemonMib");
    ASSERT_NE(t, nullptr);
    Generic g = t->genericIfOf(mib.ptr(), true);
    ASSERT_TRUE(g);
    EXPECT_TRUE(g->isConst());

    Generic e = g->attributeOp({258, 0}, Snmp::String::genericIf("bgpd", true), nullptr);
    ASSERT_NE(dynamic_cast<EnabledTableEntry::GenericIf_*>(e.ptr()), nullptr);
    EXPECT_EQ(dynamic_cast<EnabledTableEntry::GenericIf_&>(*e).row(), mib->enabledTable("bgpd").ptr());
    EXPECT_TRUE(e->isConst());
    EXPECT_FALSE(g->attributeOp({258, 0}, Snmp::String::genericIf("ntpd", true), nullptr));

    GenericConst key = new OptionTableIndex::GenericIf_(OptionTableIndex("bgpd", "asn"), true);
    Generic o = g->attributeOp({259, 0}, key, nullptr);
    ASSERT_NE(dynamic_cast<OptionTableEntry::GenericIf_*>(o.ptr()), nullptr);
    EXPECT_EQ(dynamic_cast<OptionTableEntry::GenericIf_&>(*o).row(), option.ptr());
    expectStringValue(o->attributeOp({134, 0}, nullptr, emptyList()), "65001", true);
    cfg->optionIs(AgentKey("asn"), AgentVal("65002"));
    expectStringValue(o->attributeOp({134, 0}, nullptr, emptyList()), "65002", true);

    Generic r = g->attributeOp({260, 0}, Snmp::String::genericIf("bgpd", true), nullptr);
    ASSERT_NE(dynamic_cast<RunningTableEntry::GenericIf_*>(r.ptr()), nullptr);
    GenericConst dkey = new DataTableIndex::GenericIf_(DataTableIndex("bgpd", "uptime"), true);
    Generic d = g->attributeOp({261, 0}, dkey, nullptr);
    ASSERT_NE(dynamic_cast<DataTableEntry::GenericIf_*>(d.ptr()), nullptr);
    EXPECT_FALSE(g->attributeOp({261, 0}, new DataTableIndex::GenericIf_(DataTableIndex("bgpd", "x"), true), nullptr));

    // The tables are not writable through a const interface.
    expectConstRefused([&] { g->attributeOp({259, 128}, key, nullptr); });
    // A key of the wrong type is refused.
    Caught c = capture<Orbel::TypeException>([&] { g->attributeOp({259, 0}, dkey, nullptr); });
    EXPECT_TRUE(c.thrown);
    expectNotSupported([&] { g->attributeOp({7, 0}, nullptr, nullptr); }, "attribute 7", 0);
}

// =========================================================================================
// Index value wrappers

namespace {

template <class Index>
using Wrapper = typename Index::GenericIf_;

template <class Index>
Ptr<Wrapper<Index>> wrap(const Index& value, bool isConst) {
    return new Wrapper<Index>(value, isConst);
}

template <class Index>
void checkIndexReads() {
    const Index value("bgpd", "asn");
    for (bool isConst : {false, true}) {
        SCOPED_TRACE(isConst);
        auto w = wrap(value, isConst);
        expectStringValue(w->attributeOp({2, 0}, nullptr, nullptr), "bgpd", isConst);
        expectStringValue(w->attributeOp({3, 0}, nullptr, nullptr), "asn", isConst);
        // Attribute numbers by name.
        EXPECT_EQ(w->attributeId("agentName"), 2u);
        EXPECT_EQ(w->attributeId("key"), 3u);
        EXPECT_THROW(w->attributeId("val"), Orbel::RangeException);
    }
    // Empty fields read as empty strings.
    expectStringValue(wrap(Index(), false)->attributeOp({2, 0}, nullptr, nullptr), "", false);
    expectStringValue(wrap(Index(), false)->attributeOp({3, 0}, nullptr, nullptr), "", false);
}

template <class Index>
void checkIndexRefusals() {
    const Index value("bgpd", "asn");
    for (bool isConst : {false, true}) {
        SCOPED_TRACE(isConst);
        auto w = wrap(value, isConst);
        for (auto [number, name] : {std::pair<Orbel::AttributeId, const char*>{2, "agentName"},
                                    std::pair<Orbel::AttributeId, const char*>{3, "key"}}) {
            // An index or an argument: index values are not changed attribute by attribute.
            expectBadIndex([&] { w->attributeOp({number, 0}, someIndex(), nullptr); }, name);
            expectBadIndex([&] { w->attributeOp({number, 0}, nullptr, someIndex()); }, name);
            expectBadIndex([&] { w->attributeOp({number, 0}, nullptr, emptyList()); }, name);
            for (unsigned op : nonReadOps) {
                if (op >= GenericIf::opModifying && isConst) {
                    expectConstRefused([&] { w->attributeOp({number, op}, nullptr, nullptr); });
                    expectConstRefused([&] { w->attributeOp({number, op}, someIndex(), someIndex()); });
                    continue;
                }
                expectBadIndex([&] { w->attributeOp({number, op}, nullptr, someIndex()); }, name);
                expectNotSupported([&] { w->attributeOp({number, op}, nullptr, nullptr); }, name, op);
            }
        }
        // Other numbers and codes: the base.
        for (Orbel::AttributeId number : {0u, 1u, 4u, 130u}) {
            for (unsigned op : {0u, 1u, 99u, 127u, 128u}) {
                if (op >= GenericIf::opModifying && isConst) {
                    expectConstRefused([&] { w->attributeOp({number, op}, nullptr, nullptr); });
                    continue;
                }
                expectNotSupported(
                    [&] {
                        w->attributeOp({number, op}, nullptr, nullptr);
                    },
                    "attribute " + std::to_string(number), op);
            }
        }
    }
}

template <class Index, class OtherIndex>
void checkIndexEquality() {
    const Index value("bgpd", "asn");
    for (bool isConst : {false, true}) {
        SCOPED_TRACE(isConst);
        auto w = wrap(value, isConst);
        EXPECT_TRUE(asBool(w->attributeOp({0, 100}, nullptr, wrap(Index("bgpd", "asn"), true))));
        EXPECT_TRUE(asBool(w->attributeOp({0, 100}, nullptr, wrap(value, false))));
        EXPECT_TRUE(asBool(w->attributeOp({0, 100}, nullptr, w)));
        EXPECT_FALSE(asBool(w->attributeOp({0, 100}, nullptr, wrap(Index("bgpd", "as"), true))));
        EXPECT_FALSE(asBool(w->attributeOp({0, 100}, nullptr, wrap(Index("ntpd", "asn"), true))));
        EXPECT_FALSE(asBool(w->attributeOp({0, 100}, nullptr, wrap(Index(), true))));
        EXPECT_TRUE(asBool(wrap(Index(), isConst)->attributeOp({0, 100}, nullptr, wrap(Index(), true))));
        // Anything but a wrapper of the same type.
        expectTypeError([&] { w->attributeOp({0, 100}, nullptr, nullptr); }, "orbelOpArg");
        expectTypeError([&] { w->attributeOp({0, 100}, nullptr, someIndex()); }, "orbelOpArg");
        expectTypeError([&] { w->attributeOp({0, 100}, nullptr, emptyList()); }, "orbelOpArg");
        expectTypeError(
            [&] {
                w->attributeOp({0, 100}, nullptr, wrap(OtherIndex("bgpd", "asn"), true));
            },
            "orbelOpArg");
    }
}

template <class Index>
void checkIndexWrapperLifecycle() {
    const Index value("bgpd", "asn");
    for (bool isConst : {false, true}) {
        SCOPED_TRACE(isConst);
        auto w = wrap(value, isConst);
        EXPECT_EQ(w->val(), value);
        EXPECT_EQ(w->isConst(), isConst);

        Ptr<Wrapper<Index>> c = w->clone();
        ASSERT_TRUE(c);
        EXPECT_NE(c.ptr(), w.ptr());
        EXPECT_EQ(c->val(), value);
        EXPECT_EQ(c->isConst(), isConst);
        c->valIs(Index("ntpd", "peer"));
        EXPECT_EQ(c->val(), Index("ntpd", "peer"));
        EXPECT_EQ(w->val(), value); // the clone holds its own copy

        Ptr<const Wrapper<Index>> cw = w;
        Ptr<const Wrapper<Index>> cc = cw->clone();
        ASSERT_TRUE(cc);
        EXPECT_NE(cc.ptr(), w.ptr());
        EXPECT_EQ(cc->val(), value);
        EXPECT_EQ(cc->isConst(), isConst);

        Ptr<Wrapper<Index>> made = w->GenericIf_Is(Index("a", "b"), !isConst);
        ASSERT_TRUE(made);
        EXPECT_NE(made.ptr(), w.ptr());
        EXPECT_EQ(made->val(), Index("a", "b"));
        EXPECT_EQ(made->isConst(), !isConst);
        EXPECT_EQ(made->type(), w->type());
        EXPECT_EQ(w->val(), value);

        // valIs replaces the value; reads follow it.
        w->valIs(Index("zebra", "log"));
        EXPECT_EQ(w->val(), Index("zebra", "log"));
        expectStringValue(w->attributeOp({2, 0}, nullptr, nullptr), "zebra", isConst);
        expectStringValue(w->attributeOp({3, 0}, nullptr, nullptr), "log", isConst);
    }
}

template <class Index>
void checkIndexStrRep() {
    for (const Index& value : {Index("bgpd", "asn"), Index(), Index("it's", std::string("a\x00\xff", 3))}) {
        auto w = wrap(value, true);
        EXPECT_EQ(w->strRep(), valueToStrep(value));
    }
    EXPECT_EQ(wrap(Index("bgpd", "asn"), false)->strRep().stdString(),
              std::string("Value('") + Index::typeName + "', ** {'agentName': 'bgpd', 'key': 'asn'})");
}

template <class Index>
void checkListConstructor(const std::string& shortName) {
    using W = Wrapper<Index>;
    const Orbel::TypeDescriptor* t = registered(Index::typeName);
    ASSERT_NE(t, nullptr);
    ASSERT_TRUE(t->genericIfFromList != nullptr);
    // Directly and through the descriptor.
    const std::function<Generic(const GenericConst&)> makers[] = {
        [](const GenericConst& l) { return W::genericIfListConstructor(l); },
        [t](const GenericConst& l) { return t->genericIfFromList(l); },
    };
    for (const auto& make : makers) {
        auto str = [](const char* s) -> GenericConst { return Snmp::String::genericIf(s, true); };

        expectTypeError([&] { make(nullptr); }, "Orbel::GenericIf::List_");
        expectTypeError([&] { make(str("bgpd")); }, "Orbel::GenericIf::List_");
        expectTypeError([&] { make(wrap(Index("bgpd", "asn"), true)); }, "Orbel::GenericIf::List_");

        Generic empty = make(GenericIf::List_::make());
        ASSERT_NE(dynamic_cast<W*>(empty.ptr()), nullptr);
        EXPECT_EQ(dynamic_cast<W&>(*empty).val(), Index());
        EXPECT_TRUE(dynamic_cast<W&>(*empty).val().agentName().empty());
        EXPECT_TRUE(dynamic_cast<W&>(*empty).val().key().empty());
        EXPECT_FALSE(empty->isConst());

        Generic full = make(GenericIf::List_::make({str("bgpd"), str("asn")}, true));
        ASSERT_NE(dynamic_cast<W*>(full.ptr()), nullptr);
        EXPECT_EQ(dynamic_cast<W&>(*full).val(), Index("bgpd", "asn"));
        EXPECT_FALSE(full->isConst());
        EXPECT_EQ(full->type(), t);
        // Non-const string elements are as good.
        Generic fromMutable =
            make(GenericIf::List_::make({Snmp::String::genericIf("a", false), Snmp::String::genericIf("", false)}));
        EXPECT_EQ(dynamic_cast<W&>(*fromMutable).val(), Index("a", ""));

        expectTypeError([&] { make(GenericIf::List_::make({str("bgpd")})); }, "key");
        expectTypeError([&] { make(GenericIf::List_::make({Orbel::genericBool(true, true)})); }, "agentName");
        expectTypeError([&] { make(GenericIf::List_::make({GenericConst(), str("asn")})); }, "agentName");
        expectTypeError(
            [&] {
                make(GenericIf::List_::make({Orbel::genericBool(true, true), str("asn")}));
            },
            "agentName");
        expectTypeError([&] { make(GenericIf::List_::make({str("bgpd"), Orbel::genericBool(true, true)})); }, "key");
        expectTypeError([&] { make(GenericIf::List_::make({str("bgpd"), GenericConst()})); }, "key");
        expectTypeError([&] { make(GenericIf::List_::make({str("bgpd"), emptyList()})); }, "key");

        expectUnknownArgument([&] { make(GenericIf::List_::make({str("bgpd"), str("asn"), str("x")})); }, shortName);
        expectUnknownArgument(
            [&] {
                make(GenericIf::List_::make({str("bgpd"), str("asn"), Orbel::genericBool(true, true)}));
            },
            shortName);
        expectUnknownArgument(
            [&] {
                make(GenericIf::List_::make({str("a"), str("b"), str("c"), str("d")}));
            },
            shortName);
    }
}

template <class Index, class OtherIndex>
void checkFromStrep() {
    const Orbel::TypeDescriptor* t = registered(Index::typeName);
    ASSERT_NE(t, nullptr);
    ASSERT_TRUE(t->genericIfFromStrep != nullptr);
    for (const Index& value : {Index("bgpd", "asn"), Index(), Index("x", std::string("\x01'\\\xff", 4))}) {
        Generic g = t->genericIfFromStrep(valueToStrep(value));
        auto w = dynamic_cast<Wrapper<Index>*>(g.ptr());
        ASSERT_NE(w, nullptr);
        EXPECT_EQ(w->val(), value);
        EXPECT_FALSE(w->isConst());
        EXPECT_EQ(w->strRep(), valueToStrep(value));
    }
    // Either attribute order; white space between tokens.
    Generic g = t->genericIfFromStrep(std::string(" Value ( '") + Index::typeName +
                                      "' , ** { 'key' : 'asn' , 'agentName' : 'bgpd' } ) ");
    ASSERT_NE(dynamic_cast<Wrapper<Index>*>(g.ptr()), nullptr);
    EXPECT_EQ(dynamic_cast<Wrapper<Index>&>(*g).val(), Index("bgpd", "asn"));
    // Texts that do not parse.
    EXPECT_THROW(t->genericIfFromStrep(valueToStrep(OtherIndex("bgpd", "asn"))), Orbel::RangeException);
    EXPECT_THROW(t->genericIfFromStrep(valueToStrep(Index("bgpd", "asn")) + "x"), Orbel::RangeException);
    EXPECT_THROW(t->genericIfFromStrep(Orbel::String("")), Orbel::RangeException);
}

} // namespace

TEST(OptionTableIndexGenericIf, ReadsAgentNameAndKey) {
    checkIndexReads<OptionTableIndex>();
}
TEST(OptionTableIndexGenericIf, RefusesArgumentsOtherOpsAndConstModification) {
    checkIndexRefusals<OptionTableIndex>();
}
TEST(OptionTableIndexGenericIf, EqualityOpComparesWithAnotherWrapper) {
    checkIndexEquality<OptionTableIndex, DataTableIndex>();
}
TEST(OptionTableIndexGenericIf, CloneValIsAndGenericIfIs) {
    checkIndexWrapperLifecycle<OptionTableIndex>();
}
TEST(OptionTableIndexGenericIf, StrRepIsTheValueNotation) {
    checkIndexStrRep<OptionTableIndex>();
}
TEST(OptionTableIndexGenericIf, ListConstructor) {
    checkListConstructor<OptionTableIndex>("OptionTableIndex");
}
TEST(OptionTableIndexDescriptor, GenericIfFromStrepParsesTheTextForm) {
    checkFromStrep<OptionTableIndex, DataTableIndex>();
}

TEST(DataTableIndexGenericIf, ReadsAgentNameAndKey) {
    checkIndexReads<DataTableIndex>();
}
TEST(DataTableIndexGenericIf, RefusesArgumentsOtherOpsAndConstModification) {
    checkIndexRefusals<DataTableIndex>();
}
TEST(DataTableIndexGenericIf, EqualityOpComparesWithAnotherWrapper) {
    checkIndexEquality<DataTableIndex, OptionTableIndex>();
}
TEST(DataTableIndexGenericIf, CloneValIsAndGenericIfIs) {
    checkIndexWrapperLifecycle<DataTableIndex>();
}
TEST(DataTableIndexGenericIf, StrRepIsTheValueNotation) {
    checkIndexStrRep<DataTableIndex>();
}
TEST(DataTableIndexGenericIf, ListConstructor) {
    checkListConstructor<DataTableIndex>("DataTableIndex");
}
TEST(DataTableIndexDescriptor, GenericIfFromStrepParsesTheTextForm) {
    checkFromStrep<DataTableIndex, OptionTableIndex>();
}

// Nothing made through the generic interfaces outlives its last reference.
TEST(GenericAccess, LeavesNoObjectsBehind) {
    const auto before = Orbel::PtrInterface::liveInstances();
    {
        auto mib = daemonMibFactory("daemonMIB");
        auto cfg = Config::configFactory("bgpd");
        cfg->optionIs(AgentKey("asn"), AgentVal("65001"));
        mib->optionTableIs(OptionTableIndex("bgpd", "asn"), cfg);
        mib->enabledTableIs("bgpd", cfg);
        Generic g = DaemonMib::_fwkType->genericIfOf(mib.ptr(), false);
        Generic o =
            g->attributeOp({259, 0}, new OptionTableIndex::GenericIf_(OptionTableIndex("bgpd", "asn"), true), nullptr);
        Generic v = o->attributeOp({134, 0}, nullptr, emptyList());
        Generic c = o->attributeOp({133, 0}, nullptr, nullptr);
        Generic i = o->attributeOp({130, 0}, nullptr, nullptr);
        Generic e = g->attributeOp({258, 0}, Snmp::String::genericIf("bgpd", true), nullptr);
        Generic b = e->attributeOp({132, 0}, nullptr, nullptr);
        Generic l = OptionTableIndex::GenericIf_::genericIfListConstructor(
            GenericIf::List_::make({Snmp::String::genericIf("a", true), Snmp::String::genericIf("b", true)}));
        EXPECT_GT(Orbel::PtrInterface::liveInstances(), before);
    }
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), before);
}

TEST(OptionTableEntryGenericIf, ScalarAttributesRefuseNonListOperands) {
    auto row = makeRow<OptionTableEntry>(OptionTableIndex("bgpd", "asn"), Config::configFactory("bgpd"));
    for (Orbel::AttributeId id : {130u, 131u, 132u, 133u}) {
        SCOPED_TRACE(id);
        Caught c = capture<Orbel::TypeException>([&] {
            rowIf(row, true)->attributeOp({id, 0}, nullptr, Snmp::String::genericIf("x", true));
        });
        ASSERT_TRUE(c.thrown);
        EXPECT_EQ(c.name, "Orbel::GenericIf::List_");
        EXPECT_TRUE(rowIf(row, true)->attributeOp({id, 0}, nullptr, emptyList()) || id == 133);
    }
}

TEST(DataTableEntryGenericIf, ScalarAttributesRefuseNonListOperands) {
    auto row = makeRow<DataTableEntry>(DataTableIndex("bgpd", "pid"), Status::statusFactory("bgpd"));
    for (Orbel::AttributeId id : {130u, 131u, 132u, 133u}) {
        SCOPED_TRACE(id);
        Caught c = capture<Orbel::TypeException>([&] {
            rowIf(row, false)->attributeOp({id, 0}, nullptr, Orbel::genericBool(true, true));
        });
        ASSERT_TRUE(c.thrown);
        EXPECT_EQ(c.name, "Orbel::GenericIf::List_");
    }
}

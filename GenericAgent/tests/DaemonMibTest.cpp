// The DaemonMib container: the six operations of each table, its version counter, walks
// in key order that survive changes, and what its destruction announces and frees.
#include "GenericAgent/GenericAgentSnmp.h"
#include "MibTestSupport.h"
#include "orbel/TypeRegistry.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using GenericAgent::daemonMibFactory;

// Three keys of table T in ascending order.
template <class T>
std::vector<typename T::Key> threeKeys() {
    return {T::key("aa", "zz"), T::key("bgpd", "asn"), T::key("ntpd", "x")};
}

template <class T>
class DaemonMibTable : public ::testing::Test {};

using Tables = ::testing::Types<EnabledTable, OptionTable, RunningTable, DataTable>;

class TableNames {
public:
    template <class T>
    static std::string GetName(int) {
        if (std::is_same_v<T, EnabledTable>) return "Enabled";
        if (std::is_same_v<T, OptionTable>) return "Option";
        if (std::is_same_v<T, RunningTable>) return "Running";
        return "Data";
    }
};

} // namespace

TYPED_TEST_SUITE(DaemonMibTable, Tables, TableNames);

TYPED_TEST(DaemonMibTable, IsOfANewKeyAddsCountsAndNotifies) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make("a"), mib);
    auto src = T::source("d");
    const auto k = T::key("bgpd", "asn");
    auto row = T::is(*mib, k, src);
    ASSERT_TRUE(row);
    EXPECT_EQ(row->fwkKey(), k);
    EXPECT_EQ(T::sourceOf(*row).ptr(), src.ptr());
    EXPECT_EQ(T::lookup(*mib, k).ptr(), row.ptr());
    EXPECT_EQ(mib->version(), 1u);
    EXPECT_EQ(a->events, std::vector<Event>{eventFor<T>(T::refKey(k), "a")});
}

TYPED_TEST(DaemonMibTable, ConfirmingIsReturnsTheRowAndCountsWithoutNotifying) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    auto src = T::source("d");
    const auto k = T::key("bgpd", "asn");
    auto first = T::is(*mib, k, src);
    auto second = T::is(*mib, k, src);
    EXPECT_EQ(first.ptr(), second.ptr());
    EXPECT_EQ(mib->version(), 2u);
    EXPECT_EQ(a->events.size(), 1u);
    EXPECT_EQ(T::map(*mib).size(), 1u);
    // Two null pointers are the same pointer too.
    const auto n = T::key("ntpd", "x");
    auto nullFirst = T::is(*mib, n, nullptr);
    auto nullSecond = T::is(*mib, n, nullptr);
    EXPECT_EQ(nullFirst.ptr(), nullSecond.ptr());
    EXPECT_EQ(mib->version(), 4u);
    EXPECT_EQ(a->events.size(), 2u);
}

TYPED_TEST(DaemonMibTable, MismatchingIsRaisesNameInUseAndChangesNothing) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    auto first = T::source("first");
    auto second = T::source("second");
    const auto k = T::key("bgpd", "asn");
    auto row = T::is(*mib, k, first);
    const auto version = mib->version();
    const auto modCount = T::map(*mib).modCount();
    EXPECT_EQ(thrownMessage<Orbel::NameInUseException>([&] { T::is(*mib, k, second); }),
              nameInUseText(T::attribute, T::sourceType, second.ptr(), first.ptr()));
    EXPECT_EQ(thrownMessage<Orbel::NameInUseException>([&] { T::is(*mib, k, nullptr); }),
              nameInUseText(T::attribute, T::sourceType, nullptr, first.ptr()));
    EXPECT_EQ(T::lookup(*mib, k).ptr(), row.ptr());
    EXPECT_EQ(T::sourceOf(*row).ptr(), first.ptr());
    EXPECT_EQ(mib->version(), version);
    EXPECT_EQ(T::map(*mib).modCount(), modCount);
    EXPECT_EQ(a->events.size(), 1u);

    // A row made with a null pointer refuses a non-null one.
    const auto n = T::key("ntpd", "x");
    auto nullRow = T::is(*mib, n, nullptr);
    EXPECT_EQ(thrownMessage<Orbel::NameInUseException>([&] { T::is(*mib, n, first); }),
              nameInUseText(T::attribute, T::sourceType, first.ptr(), nullptr));
    EXPECT_EQ(T::lookup(*mib, n).ptr(), nullRow.ptr());
    EXPECT_EQ(T::sourceOf(*nullRow), nullptr);
}

TYPED_TEST(DaemonMibTable, DelOfAnAbsentKeyReturnsNullAndChangesNothing) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    EXPECT_FALSE(T::del(*mib, T::key("bgpd", "asn")));
    T::is(*mib, T::key("bgpd", "asn"), T::source("d"));
    a->events.clear();
    if (T::twoComponents) {
        EXPECT_FALSE(T::del(*mib, T::key("bgpd", "asm")));
    }
    EXPECT_FALSE(T::del(*mib, T::key("bgpe", "asn")));
    EXPECT_FALSE(T::del(*mib, T::key("", "")));
    EXPECT_EQ(mib->version(), 1u);
    EXPECT_TRUE(a->events.empty());
    EXPECT_EQ(T::map(*mib).size(), 1u);
}

TYPED_TEST(DaemonMibTable, DelByKeyRemovesCountsNotifiesAndReturnsTheRow) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    const auto keys = threeKeys<T>();
    for (const auto& k : keys) T::is(*mib, k, nullptr);
    a->events.clear();
    auto row = T::lookup(*mib, keys[1]);
    auto removed = T::del(*mib, keys[1]);
    EXPECT_EQ(removed.ptr(), row.ptr());
    EXPECT_FALSE(T::lookup(*mib, keys[1]));
    EXPECT_EQ(mib->version(), 4u);
    EXPECT_EQ(a->events, std::vector<Event>{eventFor<T>(T::refKey(keys[1]))});
    EXPECT_EQ(walk<T>(*mib), (std::vector<RefKey>{T::refKey(keys[0]), T::refKey(keys[2])}));
}

TYPED_TEST(DaemonMibTable, DelByIteratorAtTheEndDoesNothing) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    auto empty = T::map(*mib).begin();
    EXPECT_FALSE(T::del(*mib, empty));
    T::is(*mib, T::key("bgpd", "asn"), nullptr);
    a->events.clear();
    auto end = T::map(*mib).end();
    EXPECT_FALSE(T::del(*mib, end));
    auto it = T::map(*mib).begin();
    ++it;
    EXPECT_FALSE(T::del(*mib, it));
    EXPECT_EQ(mib->version(), 1u);
    EXPECT_TRUE(a->events.empty());
    EXPECT_EQ(T::map(*mib).size(), 1u);
}

TYPED_TEST(DaemonMibTable, DelByIteratorRemovesTheRowItStandsOn) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    const auto keys = threeKeys<T>();
    for (const auto& k : keys) T::is(*mib, k, nullptr);
    a->events.clear();
    auto it = T::map(*mib).begin();
    ++it;
    auto* standing = it.ptr();
    auto removed = T::del(*mib, it);
    EXPECT_EQ(removed.ptr(), standing);
    EXPECT_EQ(it.ptr(), standing); // still on the removed row until advanced
    EXPECT_EQ(it.key(), keys[1]);
    EXPECT_EQ(mib->version(), 4u);
    EXPECT_EQ(a->events, std::vector<Event>{eventFor<T>(T::refKey(keys[1]))});
    ++it;
    ASSERT_FALSE(it.isEnd());
    EXPECT_EQ(it.key(), keys[2]);
    EXPECT_EQ(walk<T>(*mib), (std::vector<RefKey>{T::refKey(keys[0]), T::refKey(keys[2])}));
}

TYPED_TEST(DaemonMibTable, DelByIteratorWhoseRowWasRemovedChangesAndTellsNothing) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    const auto keys = threeKeys<T>();
    for (const auto& k : keys) T::is(*mib, k, nullptr);
    auto it = T::map(*mib).begin();
    ++it;
    ASSERT_TRUE(T::del(*mib, keys[1]));
    a->events.clear();
    EXPECT_FALSE(T::del(*mib, it));
    EXPECT_EQ(mib->version(), 4u);
    EXPECT_TRUE(a->events.empty());
    EXPECT_EQ(walk<T>(*mib), (std::vector<RefKey>{T::refKey(keys[0]), T::refKey(keys[2])}));
}

TYPED_TEST(DaemonMibTable, DelByIteratorWhoseKeyWasMadeAgainLeavesTheNewRow) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    const auto keys = threeKeys<T>();
    for (const auto& k : keys) T::is(*mib, k, nullptr);
    auto it = T::map(*mib).begin();
    ++it;
    ASSERT_TRUE(T::del(*mib, keys[1]));
    auto again = T::is(*mib, keys[1], nullptr);
    a->events.clear();
    EXPECT_FALSE(T::del(*mib, it));
    EXPECT_EQ(mib->version(), 5u);
    EXPECT_TRUE(a->events.empty());
    EXPECT_EQ(T::lookup(*mib, keys[1]).ptr(), again.ptr());
    EXPECT_EQ(walk<T>(*mib), (std::vector<RefKey>{T::refKey(keys[0]), T::refKey(keys[1]), T::refKey(keys[2])}));
}

TYPED_TEST(DaemonMibTable, DelByIteratorOfAnotherContainerRaisesRangeException) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    auto other = daemonMibFactory("other");
    auto a = attached(Recorder::make(), mib);
    const auto k = T::key("bgpd", "asn");
    T::is(*mib, k, nullptr);
    T::is(*other, k, nullptr);
    a->events.clear();
    auto it = T::map(*other).begin();
    EXPECT_THROW(T::del(*mib, it), Orbel::RangeException);
    auto end = T::map(*other).end();
    EXPECT_THROW(T::del(*mib, end), Orbel::RangeException);
    EXPECT_EQ(mib->version(), 1u);
    EXPECT_EQ(other->version(), 1u);
    EXPECT_TRUE(a->events.empty());
    EXPECT_TRUE(T::lookup(*mib, k));
    EXPECT_TRUE(T::lookup(*other, k));
}

TYPED_TEST(DaemonMibTable, DelAllRemovesEveryRowInAscendingOrder) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    auto keys = threeKeys<T>();
    // Added out of order.
    T::is(*mib, keys[2], nullptr);
    T::is(*mib, keys[0], nullptr);
    T::is(*mib, keys[1], nullptr);
    a->events.clear();
    T::delAll(*mib);
    EXPECT_TRUE(T::map(*mib).empty());
    EXPECT_EQ(mib->version(), 6u);
    EXPECT_EQ(a->events, (std::vector<Event>{eventFor<T>(T::refKey(keys[0])), eventFor<T>(T::refKey(keys[1])),
                                             eventFor<T>(T::refKey(keys[2]))}));
    T::delAll(*mib);
    EXPECT_EQ(mib->version(), 6u);
    EXPECT_EQ(a->events.size(), 3u);
}

TYPED_TEST(DaemonMibTable, NewMakesOrReplacesInPlaceWithoutCountingOrNotifying) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    auto first = T::source("first");
    auto second = T::source("second");
    const auto keys = threeKeys<T>();
    auto made = T::make(*mib, keys[1], first);
    T::make(*mib, keys[0], nullptr);
    T::make(*mib, keys[2], nullptr);
    EXPECT_EQ(T::lookup(*mib, keys[1]).ptr(), made.ptr());
    auto replacement = T::make(*mib, keys[1], second);
    EXPECT_NE(replacement.ptr(), made.ptr());
    EXPECT_EQ(T::lookup(*mib, keys[1]).ptr(), replacement.ptr());
    EXPECT_FALSE(made->rbInTree());
    EXPECT_EQ(made->references(), 1u); // the map's reference went with the replacement
    EXPECT_EQ(T::sourceOf(*replacement).ptr(), second.ptr());
    EXPECT_EQ(T::map(*mib).size(), 3u);
    EXPECT_EQ(walk<T>(*mib), (std::vector<RefKey>{T::refKey(keys[0]), T::refKey(keys[1]), T::refKey(keys[2])}));
    T::map(*mib).checkInvariants();
    EXPECT_EQ(mib->version(), 0u);
    EXPECT_TRUE(a->events.empty());
}

TYPED_TEST(DaemonMibTable, NotifyTellsEveryRegisteredObserverOfTheKey) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    T::notify(*mib, T::key("nobody", "listens")); // no observer: nothing to do
    auto a = attached(Recorder::make("a"), mib);
    auto b = attached(Recorder::make("b"), mib);
    T::notify(*mib, T::key("not", "there"));
    EXPECT_EQ(a->events, std::vector<Event>{eventFor<T>(T::refKey(T::key("not", "there")), "a")});
    EXPECT_EQ(b->events, std::vector<Event>{eventFor<T>(T::refKey(T::key("not", "there")), "b")});
    EXPECT_EQ(mib->version(), 0u);
}

TYPED_TEST(DaemonMibTable, RowsWalkInSnmpOrder) {
    using T = TypeParam;
    auto mib = daemonMibFactory("daemonMIB");
    const std::vector<std::string> names = {"zz", "aaa", "\x80", "\x7f", "", "b", "ab"};
    for (const auto& n : names) {
        T::is(*mib, T::key(n, "k"), nullptr);
        if (T::twoComponents) {
            T::is(*mib, T::key(n, "\xff"), nullptr);
            T::is(*mib, T::key(n, "jj"), nullptr);
        }
    }
    std::vector<RefKey> expected;
    for (const auto& n : {"", "b", "\x7f", "\x80", "ab", "zz", "aaa"}) {
        expected.push_back(T::refKey(T::key(n, "k")));
        if (T::twoComponents) {
            expected.push_back(T::refKey(T::key(n, "\xff")));
            expected.push_back(T::refKey(T::key(n, "jj")));
        }
    }
    EXPECT_EQ(walk<T>(*mib), expected);
    T::map(*mib).checkInvariants();
}

TEST(DaemonMib, NewContainerIsEmpty) {
    auto mib = daemonMibFactory("daemonMIB");
    EXPECT_EQ(mib->name().stdString(), "daemonMIB");
    EXPECT_EQ(mib->version(), 0u);
    EXPECT_TRUE(mib->enabledTable().empty());
    EXPECT_TRUE(mib->optionTable().empty());
    EXPECT_TRUE(mib->runningTable().empty());
    EXPECT_TRUE(mib->dataTable().empty());
    EXPECT_EQ(mib->notifiees(), 0u);
    EXPECT_EQ(mib->references(), 1u);
    ASSERT_NE(mib->type(), nullptr);
    EXPECT_EQ(mib->type(), DaemonMib::_fwkType);
    EXPECT_EQ(mib->type()->name().stdString(), "GenericAgent::DaemonMib");
    EXPECT_FALSE(mib->enabledTable(Snmp::String("bgpd")));
    EXPECT_FALSE(mib->optionTable(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn"))));
}

TEST(DaemonMib, TypeDescriptorMakesEmptyContainers) {
    GenericAgent::registerDaemonMibTypes();
    const Orbel::TypeDescriptor* t = Orbel::TypeRegistry::instance().type("GenericAgent::DaemonMib");
    ASSERT_NE(t, nullptr);
    ASSERT_TRUE(t->newEntity);
    Orbel::Ptr<Orbel::Entity> e = t->newEntity(Orbel::Name("made"), nullptr);
    auto mib = Orbel::dynamicPtrCast<DaemonMib>(e);
    ASSERT_TRUE(mib);
    EXPECT_EQ(mib->name().stdString(), "made");
    EXPECT_TRUE(mib->enabledTable().empty());
    EXPECT_EQ(mib->version(), 0u);
}

TEST(DaemonMib, EnabledTableIsTwiceWithTheSameConfigYieldsOneRowAndOneNotification) {
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    auto cfg = Config::configFactory("bgpd");
    mib->enabledTableIs("ntpd", nullptr);
    const auto before = mib->version();
    auto first = mib->enabledTableIs("bgpd", cfg);
    auto second = mib->enabledTableIs("bgpd", cfg);
    EXPECT_EQ(first.ptr(), second.ptr());
    EXPECT_EQ(mib->version(), before + 2);
    EXPECT_EQ(a->keyEvents(), (std::vector<Event>{keyEvent(258, "ntpd"), keyEvent(258, "bgpd")}));
}

TEST(DaemonMib, EnabledTableIsWithAnotherConfigFailsAndKeepsTheFirst) {
    auto mib = daemonMibFactory("daemonMIB");
    auto cfg1 = Config::configFactory("bgpd");
    auto cfg2 = Config::configFactory("bgpd");
    mib->enabledTableIs("bgpd", cfg1);
    try {
        mib->enabledTableIs("bgpd", cfg2);
        FAIL() << "no exception";
    } catch (const Orbel::NameInUseException& e) {
        EXPECT_EQ(e.message().stdString(),
                  "Reinstantiating the pointer interface where constructor parameter attribute _agentConfig has a "
                  "different value of " +
                      Orbel::refStrep("GenericAgent::Config", cfg2.ptr()).stdString() + " than the current value of " +
                      Orbel::refStrep("GenericAgent::Config", cfg1.ptr()).stdString() + " not allowed");
        EXPECT_EQ(e.id(), Orbel::Exception::nameInUse);
    }
    EXPECT_EQ(mib->enabledTable(Snmp::String("bgpd"))->agentConfig().ptr(), cfg1.ptr());
    EXPECT_EQ(mib->version(), 1u);
}

TEST(DaemonMib, EnabledTableIsBetweenNullAndNonNullConfigFails) {
    auto mib = daemonMibFactory("daemonMIB");
    auto cfg = Config::configFactory("bgpd");
    mib->enabledTableIs("nullFirst", nullptr);
    mib->enabledTableIs("cfgFirst", cfg);
    EXPECT_EQ(thrownMessage<Orbel::NameInUseException>([&] { mib->enabledTableIs("nullFirst", cfg); }),
              "Reinstantiating the pointer interface where constructor parameter attribute _agentConfig has a "
              "different value of " +
                  Orbel::refStrep("GenericAgent::Config", cfg.ptr()).stdString() +
                  " than the current value of Ref('GenericAgent::Config', null) not allowed");
    EXPECT_EQ(thrownMessage<Orbel::NameInUseException>([&] { mib->enabledTableIs("cfgFirst", nullptr); }),
              "Reinstantiating the pointer interface where constructor parameter attribute _agentConfig has a "
              "different value of Ref('GenericAgent::Config', null) than the current value of " +
                  Orbel::refStrep("GenericAgent::Config", cfg.ptr()).stdString() + " not allowed");
    EXPECT_EQ(mib->enabledTable(Snmp::String("nullFirst"))->agentConfig(), nullptr);
    EXPECT_EQ(mib->enabledTable(Snmp::String("cfgFirst"))->agentConfig().ptr(), cfg.ptr());
    EXPECT_EQ(mib->version(), 2u);
}

TEST(DaemonMib, StatusTablesNameAgentStatusInTheMismatch) {
    auto mib = daemonMibFactory("daemonMIB");
    auto st1 = Status::statusFactory("ntpd");
    auto st2 = Status::statusFactory("ntpd");
    mib->runningTableIs("ntpd", st1);
    mib->dataTableIs(DataTableIndex(Snmp::String("ntpd"), Snmp::String("stratum")), nullptr);
    EXPECT_EQ(thrownMessage<Orbel::NameInUseException>([&] { mib->runningTableIs("ntpd", st2); }),
              "Reinstantiating the pointer interface where constructor parameter attribute _agentStatus has a "
              "different value of " +
                  Orbel::refStrep("GenericAgent::Status", st2.ptr()).stdString() + " than the current value of " +
                  Orbel::refStrep("GenericAgent::Status", st1.ptr()).stdString() + " not allowed");
    EXPECT_EQ(thrownMessage<Orbel::NameInUseException>(
                  [&] { mib->dataTableIs(DataTableIndex(Snmp::String("ntpd"), Snmp::String("stratum")), st1); }),
              "Reinstantiating the pointer interface where constructor parameter attribute _agentStatus has a "
              "different value of " +
                  Orbel::refStrep("GenericAgent::Status", st1.ptr()).stdString() +
                  " than the current value of Ref('GenericAgent::Status', null) not allowed");
    // The option table names _agentConfig.
    auto cfg = Config::configFactory("ntpd");
    mib->optionTableIs(OptionTableIndex(Snmp::String("ntpd"), Snmp::String("server")), cfg);
    EXPECT_EQ(thrownMessage<Orbel::NameInUseException>(
                  [&] { mib->optionTableIs(OptionTableIndex(Snmp::String("ntpd"), Snmp::String("server")), nullptr); }),
              "Reinstantiating the pointer interface where constructor parameter attribute _agentConfig has a "
              "different value of Ref('GenericAgent::Config', null) than the current value of " +
                  Orbel::refStrep("GenericAgent::Config", cfg.ptr()).stdString() + " not allowed");
}

TEST(DaemonMib, DataTableDelOfAnAbsentKeyIsSilent) {
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    mib->dataTableIs(DataTableIndex(Snmp::String("ntpd"), Snmp::String("stratum")), nullptr);
    const auto version = mib->version();
    a->events.clear();
    EXPECT_EQ(mib->dataTableDel(DataTableIndex(Snmp::String("ntpd"), Snmp::String("offset"))), nullptr);
    EXPECT_EQ(mib->version(), version);
    EXPECT_TRUE(a->events.empty());
    EXPECT_EQ(mib->dataTable().size(), 1u);
}

TEST(DaemonMib, OptionTableDelAllOnThreeRowsNotifiesInAscendingIndexOrder) {
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    auto cfg = Config::configFactory("bgpd");
    mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("router-id")), cfg);
    mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn")), cfg);
    mib->optionTableIs(OptionTableIndex(Snmp::String("ospf"), Snmp::String("area")), cfg);
    a->events.clear();
    mib->optionTableDelAll();
    EXPECT_TRUE(mib->optionTable().empty());
    EXPECT_EQ(a->events, (std::vector<Event>{keyEvent(259, "bgpd", "asn"), keyEvent(259, "bgpd", "router-id"),
                                             keyEvent(259, "ospf", "area")}));
    EXPECT_EQ(mib->version(), 6u);
}

TEST(DaemonMib, VersionCountsChangesAndConfirmationsOnly) {
    auto mib = daemonMibFactory("daemonMIB");
    auto cfg = Config::configFactory("bgpd");
    auto st = Status::statusFactory("bgpd");
    const OptionTableIndex o(Snmp::String("bgpd"), Snmp::String("asn"));
    const DataTableIndex d(Snmp::String("bgpd"), Snmp::String("peers"));
    std::uint32_t v = 0;
    auto step = [&](std::uint32_t by) {
        v += by;
        EXPECT_EQ(mib->version(), v);
    };
    mib->enabledTableIs("bgpd", cfg), step(1);
    mib->enabledTableIs("bgpd", cfg), step(1); // confirmation
    EXPECT_THROW(mib->enabledTableIs("bgpd", nullptr), Orbel::NameInUseException), step(0);
    mib->optionTableIs(o, cfg), step(1);
    mib->runningTableIs("bgpd", st), step(1);
    mib->dataTableIs(d, st), step(1);
    mib->dataTableIs(d, st), step(1);
    mib->newDataTable(DataTableIndex(Snmp::String("x"), Snmp::String("y")), st), step(0);
    mib->optionTableDel(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("as"))), step(0);
    mib->optionTableDel(o), step(1);
    mib->optionTableDel(o), step(0);
    mib->dataTableDelAll(), step(2);
    mib->enabledTableNotify("bgpd"), step(0);
    mib->runningTableDelAll(), step(1);
    mib->enabledTableDelAll(), step(1);
    mib->enabledTableDelAll(), step(0);
}

TEST(DaemonMib, DestructionAnnouncesEveryRowTableByTableAndFreesEverything) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        auto watcher = Recorder::make("w");
        watcher->isWeakReferenceIs(true);
        {
            auto mib = daemonMibFactory("daemonMIB");
            attached(watcher, mib);
            auto bgpCfg = Config::configFactory("bgpd");
            auto ntpCfg = Config::configFactory("ntpd");
            auto bgpSt = Status::statusFactory("bgpd");
            auto ntpSt = Status::statusFactory("ntpd");
            // Added in an order unlike the walk order.
            mib->enabledTableIs("isisd", nullptr);
            mib->enabledTableIs("ntpd", ntpCfg);
            mib->enabledTableIs("bgpd", bgpCfg);
            mib->optionTableIs(OptionTableIndex(Snmp::String("ntpd"), Snmp::String("server")), ntpCfg);
            mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn")), bgpCfg);
            mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("id")), bgpCfg);
            mib->runningTableIs("ntpd", ntpSt);
            mib->runningTableIs("bgpd", bgpSt);
            mib->dataTableIs(DataTableIndex(Snmp::String("ntpd"), Snmp::String("stratum")), ntpSt);
            mib->dataTableIs(DataTableIndex(Snmp::String("bgpd"), Snmp::String("peers")), bgpSt);
            watcher->events.clear();
            EXPECT_EQ(mib->references(), 1u); // the weak watcher holds none
        }
        const std::vector<Event> expected = {
            zeroEvent("w"),
            keyEvent(258, "bgpd", {}, "w"),
            keyEvent(258, "ntpd", {}, "w"),
            keyEvent(258, "isisd", {}, "w"),
            keyEvent(259, "bgpd", "id", "w"),
            keyEvent(259, "bgpd", "asn", "w"),
            keyEvent(259, "ntpd", "server", "w"),
            keyEvent(260, "bgpd", {}, "w"),
            keyEvent(260, "ntpd", {}, "w"),
            keyEvent(261, "bgpd", "peers", "w"),
            keyEvent(261, "ntpd", "stratum", "w"),
        };
        EXPECT_EQ(watcher->events, expected);
        // Only the observer is left: container, rows, Configs and Statuses are gone.
        EXPECT_EQ(LiveCounts::now(), (LiveCounts{before.instances + 1, before.bodies}));
        EXPECT_EQ(watcher->notifier(), nullptr);
        EXPECT_TRUE(watcher->name().empty());
    }
    EXPECT_EQ(LiveCounts::now(), before);
}

TEST(DaemonMib, RowsConfigsAndStatusesAreFreedWithTheirLastReference) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        auto mib = daemonMibFactory("daemonMIB");
        {
            auto cfg = Config::configFactory("bgpd");
            auto st = Status::statusFactory("bgpd");
            mib->enabledTableIs("bgpd", cfg);
            mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn")), cfg);
            mib->runningTableIs("bgpd", st);
            mib->dataTableIs(DataTableIndex(Snmp::String("bgpd"), Snmp::String("peers")), st);
        }
        const auto full = Orbel::PtrInterface::liveInstances();
        EXPECT_EQ(full, before.instances + 7); // container, four rows, Config, Status
        mib->enabledTableDel("bgpd");
        mib->optionTableDelAll();
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), full - 3); // two rows and the Config
        auto held = mib->runningTable(Snmp::String("bgpd"));
        mib->runningTableDel("bgpd");
        mib->dataTableDel(DataTableIndex(Snmp::String("bgpd"), Snmp::String("peers")));
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), full - 4); // the held row keeps the Status
        EXPECT_FALSE(held->running());
        held = nullptr;
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), before.instances + 1);
    }
    EXPECT_EQ(LiveCounts::now(), before);
}

TEST(DaemonMibWalk, SurvivesDeletionOfTheRowItStandsOn) {
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    for (const char* k : {"e", "a", "c", "b", "d"})
        mib->optionTableIs(OptionTableIndex(Snmp::String("n"), Snmp::String(k)), nullptr);
    a->events.clear();
    std::vector<std::string> visited;
    for (auto it = mib->optionTable().begin(); !it.isEnd(); ++it) {
        visited.push_back(str(it.key().key()));
        auto* row = it.ptr();
        EXPECT_EQ(mib->optionTableDel(it).ptr(), row);
        EXPECT_EQ(it.ptr(), row);
    }
    EXPECT_EQ(visited, (std::vector<std::string>{"a", "b", "c", "d", "e"}));
    EXPECT_TRUE(mib->optionTable().empty());
    EXPECT_EQ(a->events.size(), 5u);
}

TEST(DaemonMibWalk, SurvivesDeletionsAndAdditionsAheadAndBehind) {
    auto mib = daemonMibFactory("daemonMIB");
    for (const char* n : {"a", "b", "c", "d", "e", "f", "g"}) mib->enabledTableIs(n, nullptr);
    std::vector<std::string> visited;
    for (auto it = mib->enabledTable().begin(); !it.isEnd(); ++it) {
        const std::string n = str(it.key());
        visited.push_back(n);
        if (n == "b") {
            mib->enabledTableDel("c"); // ahead
            mib->enabledTableDel("a"); // behind
        } else if (n == "d") {
            mib->enabledTableDel("d");         // the current row, by key
            mib->enabledTableIs("c", nullptr); // behind: not visited
            mib->enabledTableIs("h", nullptr); // ahead: visited
            mib->enabledTableDel("e");
        } else if (n == "f") {
            mib->enabledTableDel("g");
            mib->enabledTableDel("h");
            mib->enabledTableIs("gg", nullptr); // longer, so after every one-byte name
        }
    }
    EXPECT_EQ(visited, (std::vector<std::string>{"a", "b", "d", "f", "gg"}));
    EXPECT_EQ(walk<EnabledTable>(*mib), (std::vector<RefKey>{{"b", ""}, {"c", ""}, {"f", ""}, {"gg", ""}}));
}

TEST(DaemonMibWalk, DelAllAlsoDeletesRowsAnObserverAddsAhead) {
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Recorder::make(), mib);
    auto key = [](const char* k) { return OptionTableIndex(Snmp::String("n"), Snmp::String(k)); };
    mib->optionTableIs(key("b"), nullptr);
    mib->optionTableIs(key("d"), nullptr);
    bool added = false;
    a->hook = [&](Recorder& self, const Event&) {
        if (added) return;
        added = true;
        self.notifier()->optionTableIs(key("c"), nullptr); // ahead of the deleted row
        self.notifier()->optionTableIs(key("e"), nullptr); // ahead, beyond the last
        self.notifier()->optionTableIs(key("a"), nullptr); // behind: survives
    };
    a->events.clear();
    mib->optionTableDelAll();
    a->hook = nullptr;
    EXPECT_EQ(a->events, (std::vector<Event>{keyEvent(259, "n", "b"), keyEvent(259, "n", "c"), keyEvent(259, "n", "e"),
                                             keyEvent(259, "n", "a"), keyEvent(259, "n", "c"), keyEvent(259, "n", "d"),
                                             keyEvent(259, "n", "e")}));
    EXPECT_EQ(walk<OptionTable>(*mib), (std::vector<RefKey>{{"n", "a"}}));
    EXPECT_EQ(mib->version(), 2u + 7u);
}

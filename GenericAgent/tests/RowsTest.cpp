// Rows: each holds its key and a Config or Status and reads its value from it when asked.
#include "GenericAgent/GenericAgentSnmp.h"
#include "MibTestSupport.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using GenericAgent::AgentKey;
using GenericAgent::AgentVal;
using GenericAgent::DataTableEntry;
using GenericAgent::EnabledTableEntry;
using GenericAgent::OptionTableEntry;
using GenericAgent::RunningTableEntry;

AgentKey agentKey(const std::string& s) {
    return AgentKey(Orbel::String8(s));
}
AgentVal agentVal(const std::string& s) {
    return AgentVal(Orbel::String8(s));
}

} // namespace

TEST(EnabledTableEntry, NullConfigReadsAsDisabled) {
    Orbel::Ptr<EnabledTableEntry> row = new EnabledTableEntry("bgpd", nullptr);
    EXPECT_FALSE(row->enabled());
    EXPECT_EQ(row->agentConfig(), nullptr);
    EXPECT_EQ(str(row->agentName()), "bgpd");
    EXPECT_EQ(row->fwkKey(), Snmp::String("bgpd"));
}

TEST(EnabledTableEntry, FlagFollowsTheConfigWithoutRemaking) {
    auto cfg = Config::configFactory("bgpd");
    Orbel::Ptr<EnabledTableEntry> row = new EnabledTableEntry("bgpd", cfg);
    EXPECT_FALSE(row->enabled());
    cfg->enabledIs(true);
    EXPECT_TRUE(row->enabled());
    cfg->enabledIs(false);
    EXPECT_FALSE(row->enabled());
    EXPECT_EQ(row->agentConfig().ptr(), cfg.ptr());
}

TEST(RunningTableEntry, NullStatusReadsAsNotRunning) {
    Orbel::Ptr<RunningTableEntry> row = new RunningTableEntry("ntpd", nullptr);
    EXPECT_FALSE(row->running());
    EXPECT_EQ(row->agentStatus(), nullptr);
    EXPECT_EQ(str(row->agentName()), "ntpd");
}

TEST(RunningTableEntry, FlagFollowsTheStatusWithoutRemaking) {
    auto st = Status::statusFactory("ntpd");
    Orbel::Ptr<RunningTableEntry> row = new RunningTableEntry("ntpd", st);
    EXPECT_FALSE(row->running());
    st->runningIs(true);
    EXPECT_TRUE(row->running());
}

TEST(OptionTableEntry, ExposesItsIndexAndComponents) {
    auto cfg = Config::configFactory("bgpd");
    const OptionTableIndex idx(Snmp::String("bgpd"), Snmp::String("asn"));
    Orbel::Ptr<OptionTableEntry> row = new OptionTableEntry(idx, cfg);
    EXPECT_EQ(row->index(), idx);
    EXPECT_EQ(row->fwkKey(), idx);
    EXPECT_EQ(str(row->agentName()), "bgpd");
    EXPECT_EQ(str(row->key()), "asn");
    EXPECT_EQ(row->agentConfig().ptr(), cfg.ptr());
    // The row shares the index's strings rather than copying the bytes.
    EXPECT_TRUE(row->index().key().str().sharesBodyWith(idx.key().str()));
}

TEST(OptionTableEntry, AbsentOptionReadsEmptyThenTheValueOnceAdded) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    auto cfg = Config::configFactory("bgpd");
    auto row = mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn")), cfg);
    EXPECT_TRUE(row->val().empty());
    EXPECT_EQ(row->val(), AgentVal());
    cfg->optionIs(agentKey("asn"), agentVal("65001"));
    EXPECT_EQ(row->val().stdString(), "65001");
    cfg->optionIs(agentKey("asn"), agentVal("65002"));
    EXPECT_EQ(row->val().stdString(), "65002");
    // Still the same row in the table.
    EXPECT_EQ(mib->optionTable(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn"))).ptr(), row.ptr());
    cfg->optionDel(agentKey("asn"));
    EXPECT_TRUE(row->val().empty());
}

TEST(DataTableEntry, AbsentDataReadsEmptyThenTheValueOnceAdded) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    auto st = Status::statusFactory("ntpd");
    auto row = mib->dataTableIs(DataTableIndex(Snmp::String("ntpd"), Snmp::String("stratum")), st);
    EXPECT_TRUE(row->val().empty());
    st->dataIs(agentKey("stratum"), agentVal("2"));
    EXPECT_EQ(row->val().stdString(), "2");
    EXPECT_EQ(mib->dataTable(DataTableIndex(Snmp::String("ntpd"), Snmp::String("stratum"))).ptr(), row.ptr());
    EXPECT_EQ(str(row->agentName()), "ntpd");
    EXPECT_EQ(str(row->key()), "stratum");
    EXPECT_EQ(row->agentStatus().ptr(), st.ptr());
}

TEST(OptionTableEntry, LookupIsByteExact) {
    auto cfg = Config::configFactory("bgpd");
    cfg->optionIs(agentKey(std::string("a\0b", 3)), agentVal(std::string("v\0\xff", 3)));
    cfg->optionIs(agentKey("A"), agentVal("upper"));
    Orbel::Ptr<OptionTableEntry> hit =
        new OptionTableEntry(OptionTableIndex(Snmp::String("bgpd"), Snmp::String(std::string("a\0b", 3))), cfg);
    Orbel::Ptr<OptionTableEntry> miss =
        new OptionTableEntry(OptionTableIndex(Snmp::String("bgpd"), Snmp::String(std::string("a\0c", 3))), cfg);
    Orbel::Ptr<OptionTableEntry> lower =
        new OptionTableEntry(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("a")), cfg);
    EXPECT_EQ(hit->val().stdString(), std::string("v\0\xff", 3));
    EXPECT_TRUE(miss->val().empty());
    EXPECT_TRUE(lower->val().empty());
}

TEST(OptionTableEntry, KeyOfMaximalLengthIsLookedUp) {
    auto cfg = Config::configFactory("bgpd");
    const std::string key(1024, 'k');
    cfg->optionIs(agentKey(key), agentVal("found"));
    Orbel::Ptr<OptionTableEntry> row =
        new OptionTableEntry(OptionTableIndex(Snmp::String("bgpd"), Snmp::String(key)), cfg);
    EXPECT_EQ(row->val().stdString(), "found");
    Orbel::Ptr<OptionTableEntry> absent =
        new OptionTableEntry(OptionTableIndex(Snmp::String("bgpd"), Snmp::String(std::string(1024, 'j'))), cfg);
    EXPECT_TRUE(absent->val().empty());
}

TEST(OptionTableEntry, KeyOverMaximalLengthRaisesTheKeyRangeError) {
    auto cfg = Config::configFactory("bgpd");
    Orbel::Ptr<OptionTableEntry> row =
        new OptionTableEntry(OptionTableIndex(Snmp::String("bgpd"), Snmp::String(std::string(1025, 'k'))), cfg);
    EXPECT_EQ(thrownMessage<Orbel::RangeException>([&] { (void)row->val(); }),
              "AgentKey::bytes > AgentKey::maxLength not allowed");
}

TEST(DataTableEntry, KeyOfMaximalLengthIsLookedUpAndOneMoreIsRefused) {
    auto st = Status::statusFactory("ntpd");
    const std::string key(1024, '\xff');
    st->dataIs(agentKey(key), agentVal("x"));
    Orbel::Ptr<DataTableEntry> row = new DataTableEntry(DataTableIndex(Snmp::String("ntpd"), Snmp::String(key)), st);
    EXPECT_EQ(row->val().stdString(), "x");
    Orbel::Ptr<DataTableEntry> tooLong =
        new DataTableEntry(DataTableIndex(Snmp::String("ntpd"), Snmp::String(key + "\xff")), st);
    EXPECT_EQ(thrownMessage<Orbel::RangeException>([&] { (void)tooLong->val(); }),
              "AgentKey::bytes > AgentKey::maxLength not allowed");
}

TEST(OptionTableEntry, ValueOfMaximalLengthIsReturnedAsStored) {
    auto cfg = Config::configFactory("bgpd");
    const std::string big(10240, 'v');
    cfg->optionIs(agentKey("big"), agentVal(big));
    Orbel::Ptr<OptionTableEntry> row =
        new OptionTableEntry(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("big")), cfg);
    EXPECT_EQ(row->val().stdString(), big);
    EXPECT_TRUE(row->val().sharesBodyWith(*cfg->option(agentKey("big"))));
}

TEST(AgentVal, LongerThanMaximalLengthIsRefused) {
    EXPECT_EQ(AgentVal(Orbel::String8(std::string(10240, 'v'))).size(), 10240u);
    EXPECT_EQ(thrownMessage<Orbel::RangeException>([] { AgentVal(Orbel::String8(std::string(10241, 'v'))); }),
              "AgentVal::bytes > AgentVal::maxLength not allowed");
    EXPECT_EQ(AgentKey(Orbel::String8(std::string(1024, 'k'))).size(), 1024u);
    EXPECT_EQ(thrownMessage<Orbel::RangeException>([] { AgentKey(Orbel::String8(std::string(1025, 'k'))); }),
              "AgentKey::bytes > AgentKey::maxLength not allowed");
}

TEST(TableRows, RowKeepsItsConfigOrStatusAliveAndFreesItWithItself) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        Orbel::Ptr<EnabledTableEntry> enabled;
        Orbel::Ptr<OptionTableEntry> option;
        Orbel::Ptr<RunningTableEntry> running;
        Orbel::Ptr<DataTableEntry> data;
        {
            auto cfg = Config::configFactory("bgpd");
            auto st = Status::statusFactory("bgpd");
            cfg->optionIs(agentKey("asn"), agentVal("65001"));
            st->dataIs(agentKey("uptime"), agentVal("17"));
            cfg->enabledIs(true);
            st->runningIs(true);
            enabled = new EnabledTableEntry("bgpd", cfg);
            option = new OptionTableEntry(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn")), cfg);
            running = new RunningTableEntry("bgpd", st);
            data = new DataTableEntry(DataTableIndex(Snmp::String("bgpd"), Snmp::String("uptime")), st);
        }
        // The test's own references are gone; the rows still read through theirs.
        EXPECT_TRUE(enabled->enabled());
        EXPECT_EQ(option->val().stdString(), "65001");
        EXPECT_TRUE(running->running());
        EXPECT_EQ(data->val().stdString(), "17");
        EXPECT_EQ(enabled->agentConfig()->references(), 2u);
        EXPECT_EQ(running->agentStatus()->references(), 2u);
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), before.instances + 6);
        enabled = nullptr;
        option = nullptr;
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), before.instances + 3); // the Config went with its last row
        running = nullptr;
        data = nullptr;
    }
    EXPECT_EQ(LiveCounts::now(), before);
}

TEST(TableRows, RemovedRowStaysReadableWhileHeld) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        auto mib = GenericAgent::daemonMibFactory("daemonMIB");
        Orbel::Ptr<OptionTableEntry> held;
        {
            auto cfg = Config::configFactory("bgpd");
            cfg->optionIs(agentKey("asn"), agentVal("65001"));
            held = mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn")), cfg);
        }
        EXPECT_EQ(held->references(), 2u); // the map's and ours
        auto removed = mib->optionTableDel(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn")));
        EXPECT_EQ(removed.ptr(), held.ptr());
        removed = nullptr;
        EXPECT_TRUE(mib->optionTable().empty());
        EXPECT_EQ(held->references(), 1u);
        EXPECT_FALSE(held->rbInTree());
        EXPECT_EQ(held->val().stdString(), "65001");
        EXPECT_EQ(str(held->key()), "asn");
        const auto beforeRelease = Orbel::PtrInterface::liveInstances();
        held = nullptr;
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), beforeRelease - 2); // the row and its Config
    }
    EXPECT_EQ(LiveCounts::now(), before);
}

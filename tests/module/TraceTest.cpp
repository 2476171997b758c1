// The module's trace output: one facility "Snmp", lines naming the module's source file,
// and texts composed only for enabled levels (or for the coverage stream).
#include "ModuleHarness.h"

#include <gmock/gmock.h>

#include <sstream>

using namespace ModuleTest;
using GenericAgent::AgentKey;
using GenericAgent::AgentVal;
using GenericAgent::DataTableIndex;
using GenericAgent::OptionTableIndex;
using testing::ElementsAre;

namespace {

class Tracing : public ModuleFixture {
protected:
    void SetUp() override {
        ModuleFixture::SetUp();
        auto cfg = config("bgpd");
        cfg->enabledIs(true);
        cfg->optionIs(AgentKey("asn"), AgentVal("65001"));
        auto st = status("bgpd");
        st->runningIs(true);
        st->dataIs(AgentKey("uptime"), AgentVal("42"));
        for (const char* name : {"bgpd", "ospfd", "ripd"}) {
            mib().enabledTableIs(name, cfg);
            mib().runningTableIs(name, st);
            mib().optionTableIs(OptionTableIndex(Snmp::String(name), "asn"), cfg);
            mib().dataTableIs(DataTableIndex(Snmp::String(name), "uptime"), st);
        }
    }

    // GETNEXT from the table's identifier until the walk leaves the table; returns the
    // number of values answered.
    std::size_t walk(Table t) {
        std::size_t values = 0;
        std::vector<oid> name = tableOid(t);
        for (int steps = 0; steps < 100; ++steps) {
            RequestList list(MODE_GETNEXT);
            netsnmp_request_info* r = list.add(name);
            list.callChain(module().registration(t));
            if (r->requestvb->type == ASN_NULL) break;
            ++values;
            name = nameOf(r->requestvb);
        }
        return values;
    }
};

} // namespace

TEST_F(Tracing, FullWalkWithEveryLevelOffComposesNoTraceText) {
    ASSERT_EQ(Orbel::coverageStream(), nullptr);
    TraceCapture trace("");
    resetModuleCalls();
    for (Table t : allTables) EXPECT_EQ(walk(t), 3u) << facts(t).name;
    EXPECT_EQ(moduleCalls().traceHelper, 0u);
    EXPECT_EQ(moduleCalls().snprintObjid, 0u);
    EXPECT_TRUE(trace.lines().empty());

    // The same walk with the step-by-step level on does compose (the counter works).
    TraceCapture on("Snmp/2");
    resetModuleCalls();
    for (Table t : allTables) walk(t);
    EXPECT_GT(moduleCalls().traceHelper, 0u);
    EXPECT_EQ(moduleCalls().traceHelper, on.lines().size());
}

TEST_F(Tracing, LevelTwoWithoutLevelZeroLeavesOutTheInvalidColumn) {
    RowContext row(module().iterator(Table::option), "bgpd", "asn");
    {
        TraceCapture trace("Snmp/2");
        resetModuleCalls();
        RequestList list(MODE_GET);
        netsnmp_request_info* r = list.addForHandler(rowOid(Table::option, 4, "bgpd", "asn"), 4, row.get());
        EXPECT_EQ(module().handler(Table::option)(nullptr, nullptr, list.info(), list.head()), SNMP_ERR_NOERROR);
        EXPECT_EQ(r->requestvb->type, SNMP_NOSUCHOBJECT);
        EXPECT_THAT(trace.texts(), ElementsAre("velmarDaemonOptionTable_handler",
                                               "velmarDaemonOptionTable_handler: request mode 160"));
        EXPECT_EQ(moduleCalls().traceHelper, 2u); // the invalid-column text was not even composed
    }
    {
        TraceCapture trace("Snmp/0,2");
        RequestList list(MODE_GET);
        list.addForHandler(rowOid(Table::option, 4, "bgpd", "asn"), 4, row.get());
        module().handler(Table::option)(nullptr, nullptr, list.info(), list.head());
        EXPECT_THAT(trace.texts(),
                    ElementsAre("velmarDaemonOptionTable_handler", "velmarDaemonOptionTable_handler: request mode 160",
                                "velmarDaemonOptionTable invalid column 4"));
    }
}

TEST_F(Tracing, RefusedWriteIsTracedAtLevelZeroOnly) {
    TraceCapture trace("Snmp/0");
    RequestList list(MODE_SET_RESERVE1);
    list.addForHandler(rowOid(Table::running, 2, "bgpd"), 2, nullptr);
    module().handler(Table::running)(nullptr, nullptr, list.info(), list.head());
    ASSERT_EQ(trace.lines().size(), 1u);
    EXPECT_EQ(trace.lines()[0].level, 0u);
    EXPECT_EQ(trace.lines()[0].text, "velmarDaemonRunningTable invalid column 2");
}

TEST_F(Tracing, EveryLineComesFromTheSnmpFacilityAndTheModulesSourceFile) {
    TraceCapture trace("Snmp/*");
    for (Table t : allTables) walk(t);
    module().unregister("nothing");
    module().init("named");
    ASSERT_FALSE(trace.lines().empty());
    for (const Line& l : trace.lines()) {
        EXPECT_EQ(l.facility, "Snmp") << l.text;
        EXPECT_EQ(l.file, "VelmarDaemonMIB") << l.text;
        EXPECT_FALSE(l.function.empty()) << l.text;
        EXPECT_TRUE(l.level == 0 || l.level == 1 || l.level == 2 || l.level == 8) << l.text;
    }
}

TEST_F(Tracing, CoverageStreamComposesTextsOfDisabledLevels) {
    std::ostringstream coverage;
    TraceCapture trace("");
    Orbel::coverageStreamIs(&coverage);
    RequestList list(MODE_SET_COMMIT);
    list.addForHandler(rowOid(Table::data, 3, "bgpd", "uptime"), 3, nullptr);
    module().handler(Table::data)(nullptr, nullptr, list.info(), list.head());
    Orbel::coverageStreamIs(nullptr);
    EXPECT_TRUE(trace.lines().empty());
    const std::string text = coverage.str();
    EXPECT_NE(text.find("Snmp/2 VelmarDaemonMIB:"), std::string::npos) << text;
    EXPECT_NE(text.find("velmarDaemonDataTable_handler: velmarDaemonDataTable_handler: request mode " +
                        std::to_string(MODE_SET_COMMIT)),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("Snmp/0 VelmarDaemonMIB:"), std::string::npos) << text;
    EXPECT_NE(text.find("velmarDaemonDataTable invalid column 3"), std::string::npos) << text;
}

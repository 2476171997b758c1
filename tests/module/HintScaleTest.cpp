// The index hint at scale: with 100,000 rows in the option table, a request for an
// existing row starts on that row instead of walking from the first one.
#include "ModuleHarness.h"

#include <gmock/gmock.h>

#include <cstdio>

using namespace ModuleTest;
using GenericAgent::AgentKey;
using GenericAgent::AgentVal;
using GenericAgent::OptionTableIndex;

namespace {

constexpr int daemons = 100;
constexpr int keysPerDaemon = 1000;

std::string daemonName(int i) {
    char b[16];
    std::snprintf(b, sizeof b, "d%04d", i);
    return b;
}
std::string keyName(int i) {
    char b[16];
    std::snprintf(b, sizeof b, "k%04d", i);
    return b;
}

const std::string helperRow = "velmarDaemonOptionTableIterationHelper - iterator has another value: agentName=";
const std::string advancing = "velmarDaemonOptionTable_get_next_data_point - advancing loop context ";

class HintScale : public ModuleFixture {
protected:
    void SetUp() override {
        ModuleFixture::SetUp();
        for (int d = 0; d < daemons; ++d) {
            auto cfg = config(daemonName(d).c_str());
            for (int k = 0; k < keysPerDaemon; ++k) {
                cfg->optionIs(AgentKey(keyName(k)), AgentVal(daemonName(d) + "/" + keyName(k)));
                mib().newOptionTable(OptionTableIndex(daemonName(d), keyName(k)), cfg);
            }
        }
        ASSERT_EQ(mib().optionTable().size(), 100000u);
    }
    static bool matchedHint(const TraceCapture& trace) {
        for (const std::string& t : trace.texts())
            if (t.find(", hintMatched=1") != std::string::npos) return true;
        return false;
    }
};

} // namespace

TEST_F(HintScale, ExactHintReturnsTheRowAtOnce) {
    Hint hint(2);
    hint.octets("d0050").octets("k0500");
    TraceCapture trace("Snmp/2");
    Pass pass(module().iterator(Table::option));
    netsnmp_variable_list* v = pass.first(hint.info());
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(octets(v), "d0050");
    EXPECT_EQ(octets(v->next_variable), "k0500");
    EXPECT_TRUE(matchedHint(trace));
    EXPECT_EQ(trace.count(helperRow), 1u);
}

TEST_F(HintScale, GetLooksAtOneRow) {
    TraceCapture trace("Snmp/2");
    RequestList list(MODE_GET);
    netsnmp_request_info* r = list.add(rowOid(Table::option, 3, "d0050", "k0500"));
    EXPECT_EQ(list.callChain(module().registration(Table::option)), SNMP_ERR_NOERROR);
    EXPECT_EQ(octets(r->requestvb), "d0050/k0500");
    EXPECT_TRUE(matchedHint(trace));
    EXPECT_EQ(trace.count(helperRow), 1u);
    EXPECT_EQ(trace.count(advancing), 0u);
}

TEST_F(HintScale, GetNextFromAnExistingRowLooksAtTwoRows) {
    TraceCapture trace("Snmp/2");
    RequestList list(MODE_GETNEXT);
    netsnmp_request_info* r = list.add(rowOid(Table::option, 3, "d0050", "k0500"));
    EXPECT_EQ(list.callChain(module().registration(Table::option)), SNMP_ERR_NOERROR);
    EXPECT_EQ(nameOf(r->requestvb), rowOid(Table::option, 3, "d0050", "k0501"));
    EXPECT_EQ(octets(r->requestvb), "d0050/k0501");
    EXPECT_TRUE(matchedHint(trace));
    EXPECT_EQ(trace.count(helperRow), 2u);
    EXPECT_EQ(trace.count(advancing), 1u);
}

TEST_F(HintScale, GetOfAMissingRowWalksTheWholeTable) {
    TraceCapture trace("Snmp/2");
    RequestList list(MODE_GET);
    netsnmp_request_info* r = list.add(rowOid(Table::option, 3, "d0050", "zzzzz"));
    EXPECT_EQ(list.callChain(module().registration(Table::option)), SNMP_ERR_NOERROR);
    EXPECT_NE(r->requestvb->type, ASN_OCTET_STR);
    EXPECT_FALSE(matchedHint(trace));
    EXPECT_EQ(trace.count(helperRow), 100000u);
}

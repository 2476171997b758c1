// Request handling: the four handlers called directly with request lists as the table and
// iterator helpers leave them.
#include "ModuleHarness.h"

#include "snmp/Converters.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>

using namespace ModuleTest;
using GenericAgent::AgentKey;
using GenericAgent::AgentVal;
using GenericAgent::DataTableIndex;
using GenericAgent::OptionTableIndex;
using testing::ElementsAre;

namespace {

long truthValue(bool v) {
    unsigned char buffer[1024];
    const int n = Snmp::BoolToAsnIntegerF()(v, buffer, sizeof buffer);
    long out = 0;
    std::memcpy(&out, buffer, std::min<std::size_t>(static_cast<std::size_t>(n), sizeof out));
    return out;
}

const int setModes[] = {MODE_SET_RESERVE1, MODE_SET_RESERVE2, MODE_SET_ACTION,
                        MODE_SET_COMMIT,   MODE_SET_FREE,     MODE_SET_UNDO};

class Handling : public ModuleFixture {
protected:
    void SetUp() override {
        ModuleFixture::SetUp();
        cfg_ = config("bgpd");
        cfg_->enabledIs(true);
        cfg_->optionIs(AgentKey("asn"), AgentVal("65001"));
        cfg_->optionIs(AgentKey("empty"), AgentVal(""));
        st_ = status("bgpd");
        st_->runningIs(true);
        st_->dataIs(AgentKey("uptime"), AgentVal("42"));
        mib().enabledTableIs("bgpd", cfg_);
        mib().runningTableIs("bgpd", st_);
        mib().optionTableIs(OptionTableIndex("bgpd", "asn"), cfg_);
        mib().optionTableIs(OptionTableIndex("bgpd", "empty"), cfg_);
        mib().optionTableIs(OptionTableIndex("bgpd", "missing"), cfg_);
        mib().dataTableIs(DataTableIndex("bgpd", "uptime"), st_);
        mib().dataTableIs(DataTableIndex("bgpd", "missing"), st_);
    }
    int call(Table t, RequestList& list) { return module().handler(t)(nullptr, nullptr, list.info(), list.head()); }
    netsnmp_iterator_info* ii(Table t) { return module().iterator(t); }

    Orbel::Ptr<GenericAgent::Config> cfg_;
    Orbel::Ptr<GenericAgent::Status> st_;
};

std::string key(const OptionTableIndex& i) {
    return streamed(i);
}
std::string key(const DataTableIndex& i) {
    return streamed(i);
}

} // namespace

TEST_F(Handling, OptionValueIsAnsweredAsAnOctetString) {
    RowContext row(ii(Table::option), "bgpd", "asn");
    TraceCapture trace("Snmp/0-2");
    RequestList list(MODE_GET);
    netsnmp_request_info* r = list.addForHandler(rowOid(Table::option, 3, "bgpd", "asn"), 3, row.get());
    EXPECT_EQ(call(Table::option, list), SNMP_ERR_NOERROR);
    EXPECT_EQ(r->requestvb->type, ASN_OCTET_STR);
    EXPECT_EQ(octets(r->requestvb), "65001");
    EXPECT_EQ(r->status, 0);
    EXPECT_THAT(trace.texts(),
                ElementsAre("velmarDaemonOptionTable_handler", "velmarDaemonOptionTable_handler: request mode 160",
                            "velmarDaemonOptionTable_handler: request GET for column velmarDaemonOptionValue, key " +
                                key(OptionTableIndex("bgpd", "asn"))));
    for (const Line& l : trace.lines()) {
        EXPECT_EQ(l.level, 2u);
        EXPECT_EQ(l.function, "velmarDaemonOptionTable_handler");
    }
}

TEST_F(Handling, EmptyOptionValueAnswersGenErr) {
    for (const char* k : {"empty", "missing"}) {
        SCOPED_TRACE(k);
        RowContext row(ii(Table::option), "bgpd", k);
        TraceCapture trace("Snmp/0-2");
        RequestList list(MODE_GET);
        netsnmp_request_info* r = list.addForHandler(rowOid(Table::option, 3, "bgpd", k), 3, row.get());
        EXPECT_EQ(call(Table::option, list), SNMP_ERR_GENERR);
        EXPECT_EQ(r->status, SNMP_ERR_GENERR);
        EXPECT_EQ(r->processed, 1);
        EXPECT_EQ(r->requestvb->type, ASN_NULL);
        EXPECT_THAT(
            trace.texts(),
            ElementsAre("velmarDaemonOptionTable_handler", "velmarDaemonOptionTable_handler: request mode 160",
                        "velmarDaemonOptionTable_handler: request GET for column velmarDaemonOptionValue, key " +
                            key(OptionTableIndex("bgpd", k)),
                        "handle_velmarDaemonOptionTable - entity /<sysname>/snmp/launcher/daemonMIB length out "
                        "of range: val (0)"));
        EXPECT_EQ(trace.lines().back().level, 2u);
    }
}

TEST_F(Handling, EmptyDataValueAnswersGenErr) {
    RowContext row(ii(Table::data), "bgpd", "missing");
    TraceCapture trace("Snmp/0-2");
    RequestList list(MODE_GET);
    netsnmp_request_info* r = list.addForHandler(rowOid(Table::data, 3, "bgpd", "missing"), 3, row.get());
    EXPECT_EQ(call(Table::data, list), SNMP_ERR_GENERR);
    EXPECT_EQ(r->status, SNMP_ERR_GENERR);
    EXPECT_THAT(trace.texts(),
                ElementsAre("velmarDaemonDataTable_handler", "velmarDaemonDataTable_handler: request mode 160",
                            "velmarDaemonDataTable_handler: request GET for column velmarDaemonDataValue, key " +
                                key(DataTableIndex("bgpd", "missing")),
                            "handle_velmarDaemonDataTable - entity /<sysname>/snmp/launcher/daemonMIB length out of "
                            "range: val (0)"));
}

TEST_F(Handling, ValueOf10240BytesIsAnsweredWhole) {
    std::string big(GenericAgent::AgentVal::maxLength, 'v');
    for (std::size_t i = 0; i < big.size(); i += 97) big[i] = static_cast<char>('a' + i % 26);
    cfg_->optionIs(AgentKey("big"), AgentVal(big));
    st_->dataIs(AgentKey("big"), AgentVal(big));
    mib().optionTableIs(OptionTableIndex("bgpd", "big"), cfg_);
    mib().dataTableIs(DataTableIndex("bgpd", "big"), st_);
    for (Table t : {Table::option, Table::data}) {
        SCOPED_TRACE(facts(t).name);
        RowContext row(ii(t), "bgpd", "big");
        RequestList list(MODE_GET);
        netsnmp_request_info* r = list.addForHandler(rowOid(t, 3, "bgpd", "big"), 3, row.get());
        EXPECT_EQ(call(t, list), SNMP_ERR_NOERROR);
        EXPECT_EQ(r->requestvb->type, ASN_OCTET_STR);
        EXPECT_EQ(r->requestvb->val_len, 10240u);
        EXPECT_EQ(octets(r->requestvb), big);
        EXPECT_EQ(r->status, 0);
    }
}

TEST_F(Handling, FlagsAreAnsweredAsIntegersAndFalseWithoutConfigOrStatus) {
    mib().enabledTableIs("noconf", nullptr);
    mib().runningTableIs("nostat", nullptr);
    struct Case {
        Table table;
        const char* name;
        bool expected;
        const char* trace;
    } cases[] = {
        {Table::enabled, "bgpd", true,
         "velmarDaemonEnabledTable_handler: request GET for column velmarDaemonEnabled, key bgpd"},
        {Table::enabled, "noconf", false,
         "velmarDaemonEnabledTable_handler: request GET for column velmarDaemonEnabled, key noconf"},
        {Table::running, "bgpd", true,
         "velmarDaemonRunningTable_handler: request GET for column velmarDaemonRunning, key bgpd"},
        {Table::running, "nostat", false,
         "velmarDaemonRunningTable_handler: request GET for column velmarDaemonRunning, key nostat"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        RowContext row(ii(c.table), c.name);
        ASSERT_NE(row.get(), nullptr);
        TraceCapture trace("Snmp/0-2");
        RequestList list(MODE_GET);
        netsnmp_request_info* r = list.addForHandler(rowOid(c.table, 2, c.name), 2, row.get());
        EXPECT_EQ(call(c.table, list), SNMP_ERR_NOERROR);
        EXPECT_EQ(r->requestvb->type, ASN_INTEGER);
        EXPECT_EQ(integer(r->requestvb), truthValue(c.expected));
        EXPECT_EQ(trace.texts().size(), 3u);
        EXPECT_EQ(trace.texts().back(), c.trace);
    }
}

TEST_F(Handling, ValueIsReadWhenTheRequestIsAnswered) {
    RowContext row(ii(Table::option), "bgpd", "asn");
    cfg_->optionIs(AgentKey("asn"), AgentVal("65002"));
    RequestList list(MODE_GET);
    netsnmp_request_info* r = list.addForHandler(rowOid(Table::option, 3, "bgpd", "asn"), 3, row.get());
    EXPECT_EQ(call(Table::option, list), SNMP_ERR_NOERROR);
    EXPECT_EQ(octets(r->requestvb), "65002");
}

TEST_F(Handling, WrongColumnMarksNoSuchObjectAndStops) {
    RowContext row(ii(Table::option), "bgpd", "asn");
    for (unsigned column : {1u, 2u, 4u}) {
        SCOPED_TRACE(column);
        TraceCapture trace("Snmp/0-2");
        RequestList list(MODE_GET);
        netsnmp_request_info* wrong =
            list.addForHandler(rowOid(Table::option, column, "bgpd", "asn"), column, row.get());
        netsnmp_request_info* after = list.addForHandler(rowOid(Table::option, 3, "bgpd", "asn"), 3, row.get());
        EXPECT_EQ(call(Table::option, list), SNMP_ERR_NOERROR);
        EXPECT_EQ(wrong->requestvb->type, SNMP_NOSUCHOBJECT);
        EXPECT_EQ(wrong->processed, 1);
        EXPECT_EQ(after->requestvb->type, ASN_NULL); // not visited
        EXPECT_EQ(after->processed, 0);
        EXPECT_THAT(trace.texts(),
                    ElementsAre("velmarDaemonOptionTable_handler", "velmarDaemonOptionTable_handler: request mode 160",
                                "velmarDaemonOptionTable invalid column " + std::to_string(column)));
        EXPECT_EQ(trace.lines().back().level, 0u);
    }
}

TEST_F(Handling, WrongColumnOfAFlagTable) {
    RowContext row(ii(Table::enabled), "bgpd");
    TraceCapture trace("Snmp/0");
    RequestList list(MODE_GET);
    netsnmp_request_info* r = list.addForHandler(rowOid(Table::enabled, 3, "bgpd"), 3, row.get());
    EXPECT_EQ(call(Table::enabled, list), SNMP_ERR_NOERROR);
    EXPECT_EQ(r->requestvb->type, SNMP_NOSUCHOBJECT);
    EXPECT_THAT(trace.texts(), ElementsAre("velmarDaemonEnabledTable invalid column 3"));
}

TEST_F(Handling, EverySetModeRefusesOnlyTheFirstUnprocessedRequest) {
    for (Table t : allTables) {
        const TableFacts& f = facts(t);
        const std::optional<std::string_view> k =
            f.components == 2 ? std::optional<std::string_view>(t == Table::option ? "asn" : "uptime") : std::nullopt;
        for (int mode : setModes) {
            SCOPED_TRACE(std::string(f.name) + " mode " + std::to_string(mode));
            TraceCapture trace("Snmp/0-2");
            RequestList list(mode);
            netsnmp_request_info* done = list.addForHandler(rowOid(t, f.column, "bgpd", k), f.column, nullptr, true);
            netsnmp_request_info* refused = list.addForHandler(rowOid(t, f.column, "bgpd", k), f.column, nullptr);
            netsnmp_request_info* untouched = list.addForHandler(rowOid(t, f.column, "bgpd", k), f.column, nullptr);
            EXPECT_EQ(call(t, list), SNMP_ERR_NOERROR);
            EXPECT_EQ(done->status, 0);
            EXPECT_EQ(refused->status, SNMP_ERR_NOTWRITABLE);
            EXPECT_EQ(refused->processed, 1);
            EXPECT_EQ(untouched->status, 0);
            EXPECT_EQ(untouched->processed, 0);
            EXPECT_THAT(trace.texts(),
                        ElementsAre(f.handlerName(), f.handlerName() + ": request mode " + std::to_string(mode),
                                    f.handlerName() + ": request " + ptr(done) + " already processed",
                                    std::string(f.name) + " invalid column " + std::to_string(f.column)));
            EXPECT_EQ(trace.lines().back().level, 0u);
        }
    }
}

TEST_F(Handling, SetModeWithNothingToRefuse) {
    {
        TraceCapture trace("Snmp/0-2");
        RequestList list(MODE_SET_RESERVE1);
        EXPECT_EQ(call(Table::option, list), SNMP_ERR_NOERROR); // empty list
        EXPECT_EQ(trace.texts().size(), 2u);
    }
    {
        TraceCapture trace("Snmp/0-2");
        RequestList list(MODE_SET_ACTION);
        netsnmp_request_info* a = list.addForHandler(rowOid(Table::option, 3, "bgpd", "asn"), 3, nullptr, true);
        netsnmp_request_info* b = list.addForHandler(rowOid(Table::option, 3, "bgpd", "id"), 3, nullptr, true);
        EXPECT_EQ(call(Table::option, list), SNMP_ERR_NOERROR);
        EXPECT_EQ(a->status, 0);
        EXPECT_EQ(b->status, 0);
        EXPECT_THAT(trace.texts(),
                    ElementsAre("velmarDaemonOptionTable_handler",
                                "velmarDaemonOptionTable_handler: request mode " + std::to_string(MODE_SET_ACTION),
                                "velmarDaemonOptionTable_handler: request " + ptr(a) + " already processed",
                                "velmarDaemonOptionTable_handler: request " + ptr(b) + " already processed"));
    }
}

TEST_F(Handling, AllRequestsAlreadyProcessedAnswersNothing) {
    RowContext row(ii(Table::option), "bgpd", "asn");
    TraceCapture trace("Snmp/0-2");
    RequestList list(MODE_GET);
    std::vector<netsnmp_request_info*> requests;
    for (int i = 0; i < 3; ++i)
        requests.push_back(list.addForHandler(rowOid(Table::option, 3, "bgpd", "asn"), 3, row.get(), true));
    EXPECT_EQ(call(Table::option, list), SNMP_ERR_NOERROR);
    std::vector<std::string> expected = {"velmarDaemonOptionTable_handler",
                                         "velmarDaemonOptionTable_handler: request mode 160"};
    for (netsnmp_request_info* r : requests) {
        EXPECT_EQ(r->requestvb->type, ASN_NULL);
        EXPECT_EQ(r->status, 0);
        expected.push_back("velmarDaemonOptionTable_handler: request " + ptr(r) + " already processed");
    }
    EXPECT_EQ(trace.texts(), expected);
}

TEST_F(Handling, NullDataContextReturnsAtOnce) {
    RowContext row(ii(Table::option), "bgpd", "asn");
    TraceCapture trace("Snmp/0-2");
    RequestList list(MODE_GET);
    netsnmp_request_info* first = list.addForHandler(rowOid(Table::option, 3, "bgpd", "asn"), 3, nullptr);
    netsnmp_request_info* second = list.addForHandler(rowOid(Table::option, 3, "bgpd", "asn"), 3, row.get());
    EXPECT_EQ(call(Table::option, list), SNMP_ERR_NOERROR);
    EXPECT_EQ(first->requestvb->type, ASN_NULL);
    EXPECT_EQ(first->processed, 0);
    EXPECT_EQ(first->status, 0);
    EXPECT_EQ(second->requestvb->type, ASN_NULL); // gets no value from this call
    EXPECT_EQ(second->processed, 0);
    EXPECT_THAT(trace.texts(),
                ElementsAre("velmarDaemonOptionTable_handler", "velmarDaemonOptionTable_handler: request mode 160",
                            "velmarDaemonOptionTable_handler: null data context in request"));
}

TEST_F(Handling, FailedConversionMarksTheFirstRequestOfTheList) {
    RowContext good(ii(Table::option), "bgpd", "asn");
    RowContext empty(ii(Table::option), "bgpd", "empty");
    TraceCapture trace("Snmp/0-2");
    RequestList list(MODE_GET);
    netsnmp_request_info* first = list.addForHandler(rowOid(Table::option, 3, "bgpd", "asn"), 3, good.get());
    netsnmp_request_info* failing = list.addForHandler(rowOid(Table::option, 3, "bgpd", "empty"), 3, empty.get());
    EXPECT_EQ(call(Table::option, list), SNMP_ERR_GENERR);
    EXPECT_EQ(first->requestvb->type, ASN_OCTET_STR); // stored before the failure
    EXPECT_EQ(octets(first->requestvb), "65001");
    EXPECT_EQ(first->status, SNMP_ERR_GENERR);
    EXPECT_EQ(failing->status, 0);
    EXPECT_EQ(failing->requestvb->type, ASN_NULL);
    EXPECT_EQ(
        trace.texts().back(),
        "handle_velmarDaemonOptionTable - entity /<sysname>/snmp/launcher/daemonMIB length out of range: val (0)");
}

// Table set-up: the records each table registers with the agent library, the handler
// chain, the named-context refusal and the two process-stopping failures.
#include "ModuleHarness.h"

#include "launcher/AgentState.h"
#include "statebase/Statebase.h"

#include <gmock/gmock.h>

using namespace ModuleTest;
using testing::ElementsAre;

TEST_F(ModuleFixture, EachTableIsRegisteredReadOnlyUnderItsIdentifier) {
    for (Table t : allTables) {
        SCOPED_TRACE(facts(t).name);
        netsnmp_handler_registration* reg = module().registration(t);
        ASSERT_NE(reg, nullptr);
        EXPECT_STREQ(reg->handlerName, (std::string(facts(t).name) + "_").c_str());
        EXPECT_EQ(std::vector<oid>(reg->rootoid, reg->rootoid + reg->rootoid_len), tableOid(t));
        EXPECT_EQ(reg->rootoid_len, 11u);
        EXPECT_TRUE(reg->contextName == nullptr || reg->contextName[0] == '\0');
        // Registered read-only (GET and GETNEXT only); the iterator helper adds the stash
        // capability of its own.
        EXPECT_EQ(reg->modes & ~HANDLER_CAN_STASH, HANDLER_CAN_RONLY);
        EXPECT_EQ(reg->my_reg_void, static_cast<void*>(&mib()));
    }
}

TEST_F(ModuleFixture, HandlerChainStartsWithSerializeAndEndsInTheTablesHandler) {
    for (Table t : allTables) {
        SCOPED_TRACE(facts(t).name);
        netsnmp_handler_registration* reg = module().registration(t);
        ASSERT_NE(reg, nullptr);
        std::vector<std::string> names;
        netsnmp_mib_handler* last = nullptr;
        for (netsnmp_mib_handler* h = reg->handler; h; h = h->next) {
            names.push_back(h->handler_name);
            last = h;
        }
        // bulk_to_next is the agent library's own, put in for registrations that cannot
        // answer GETBULK themselves.
        EXPECT_THAT(names, ElementsAre("serialize", "bulk_to_next", "table", "table_iterator",
                                       std::string(facts(t).name) + "_"));
        ASSERT_NE(last, nullptr);
        EXPECT_EQ(reinterpret_cast<void*>(last->access_method), reinterpret_cast<void*>(module().handler(t)));
    }
}

TEST_F(ModuleFixture, TableInformationHasOctetStringIndexesAndOneReadableColumn) {
    for (Table t : allTables) {
        SCOPED_TRACE(facts(t).name);
        netsnmp_table_registration_info* ti = module().tableInfo(t);
        ASSERT_NE(ti, nullptr);
        unsigned count = 0;
        for (netsnmp_variable_list* v = ti->indexes; v; v = v->next_variable) {
            EXPECT_EQ(v->type, ASN_OCTET_STR);
            ++count;
        }
        EXPECT_EQ(count, facts(t).components);
        EXPECT_EQ(ti->number_indexes, facts(t).components); // counted by the agent library
        EXPECT_EQ(ti->min_column, facts(t).column);
        EXPECT_EQ(ti->max_column, facts(t).column);
        ASSERT_NE(ti->valid_columns, nullptr);
        EXPECT_EQ(ti->valid_columns->isRange, 0);
        EXPECT_EQ(ti->valid_columns->list_count, 1u);
        ASSERT_NE(ti->valid_columns->details.list, nullptr);
        EXPECT_EQ(ti->valid_columns->details.list[0], facts(t).column);
        EXPECT_EQ(ti->valid_columns->next, nullptr);
    }
}

TEST_F(ModuleFixture, IteratorInformationIsSortedAndHoldsTheStateObject) {
    std::vector<void*> callbacks;
    for (Table t : allTables) {
        SCOPED_TRACE(facts(t).name);
        netsnmp_iterator_info* ii = module().iterator(t);
        ASSERT_NE(ii, nullptr);
        EXPECT_EQ(ii->flags, NETSNMP_ITERATOR_FLAG_SORTED);
        EXPECT_EQ(ii->myvoid, static_cast<void*>(&mib()));
        EXPECT_EQ(ii->table_reginfo, module().tableInfo(t));
        EXPECT_EQ(ii->free_loop_context, nullptr);
        ASSERT_NE(ii->get_first_data_point, nullptr);
        ASSERT_NE(ii->get_next_data_point, nullptr);
        ASSERT_NE(ii->make_data_context, nullptr);
        ASSERT_NE(ii->free_data_context, nullptr);
        ASSERT_NE(ii->free_loop_context_at_end, nullptr);
        for (void* f :
             {reinterpret_cast<void*>(ii->get_first_data_point), reinterpret_cast<void*>(ii->get_next_data_point),
              reinterpret_cast<void*>(ii->make_data_context), reinterpret_cast<void*>(ii->free_data_context),
              reinterpret_cast<void*>(ii->free_loop_context_at_end)})
            callbacks.push_back(f);
    }
    // Twenty distinct callbacks: each table has its own.
    std::sort(callbacks.begin(), callbacks.end());
    EXPECT_EQ(std::unique(callbacks.begin(), callbacks.end()) - callbacks.begin(), 20);
}

TEST_F(ModuleFixture, GetReachesTheTablesHandlerOncePerVarbind) {
    auto cfg = config("bgpd");
    cfg->optionIs(GenericAgent::AgentKey("asn"), GenericAgent::AgentVal("65001"));
    cfg->optionIs(GenericAgent::AgentKey("id"), GenericAgent::AgentVal("10.0.0.1"));
    mib().optionTableIs(GenericAgent::OptionTableIndex("bgpd", "asn"), cfg);
    mib().optionTableIs(GenericAgent::OptionTableIndex("bgpd", "id"), cfg);

    TraceCapture trace("Snmp/2");
    RequestList list(MODE_GET);
    netsnmp_request_info* a = list.add(rowOid(Table::option, 3, "bgpd", "asn"));
    netsnmp_request_info* b = list.add(rowOid(Table::option, 3, "bgpd", "id"));
    EXPECT_EQ(list.callChain(module().registration(Table::option)), SNMP_ERR_NOERROR);
    EXPECT_EQ(a->requestvb->type, ASN_OCTET_STR);
    EXPECT_EQ(octets(a->requestvb), "65001");
    EXPECT_EQ(b->requestvb->type, ASN_OCTET_STR);
    EXPECT_EQ(octets(b->requestvb), "10.0.0.1");
    // The serialize helper hands the two varbinds down one at a time.
    const std::vector<std::string> fromHandler = trace.textsFrom("velmarDaemonOptionTable_handler");
    EXPECT_EQ(std::count(fromHandler.begin(), fromHandler.end(), "velmarDaemonOptionTable_handler"), 2);
    EXPECT_EQ(trace.count("velmarDaemonOptionTable_handler: request mode 160"), 2u);
}

TEST_F(ModuleFixture, DefaultContextSetUpRecordsNothingForUnregistration) {
    struct Seen {
        netsnmp_handler_registration* reg;
        netsnmp_iterator_info* ii;
        netsnmp_column_info* columns;
    };
    std::vector<Seen> before;
    for (Table t : allTables)
        before.push_back({module().registration(t), module().iterator(t), module().tableInfo(t)->valid_columns});

    module().unregister("");

    for (Table t : allTables) {
        SCOPED_TRACE(facts(t).name);
        const Seen& s = before[static_cast<int>(t)];
        EXPECT_EQ(module().registration(t), s.reg);
        EXPECT_EQ(module().iterator(t), s.ii);
        // The column information was not freed (AddressSanitizer would report the reads).
        ASSERT_EQ(module().tableInfo(t)->valid_columns, s.columns);
        EXPECT_EQ(s.columns->list_count, 1u);
        EXPECT_EQ(s.columns->details.list[0], facts(t).column);
        EXPECT_EQ(s.ii->myvoid, static_cast<void*>(&mib()));
    }
}

TEST_F(ModuleFixture, NamedContextRefusesEachTableAndRegistersNothing) {
    for (Table t : allTables) {
        SCOPED_TRACE(facts(t).name);
        TraceCapture trace("Snmp/0,2,8");
        module().initializeTable(t, "ctxB");
        ASSERT_EQ(trace.lines().size(), 1u);
        EXPECT_EQ(trace.lines()[0].level, 2u);
        EXPECT_EQ(trace.lines()[0].function, facts(t).initialize());
        EXPECT_EQ(trace.lines()[0].text,
                  facts(t).initialize() + " in context \"ctxB\" statebasePathWithContext not specified ");
        const std::vector<oid> o = tableOid(t);
        EXPECT_EQ(netsnmp_subtree_find(o.data(), o.size(), nullptr, "ctxB"), nullptr);
        EXPECT_NE(module().registration(t), nullptr);
    }
}

TEST_F(ModuleFixture, IdentifierIsFormattedOnlyWithLevelOneOn) {
    {
        TraceCapture trace("Snmp/0,2-31");
        resetModuleCalls();
        module().init("ctxC");
        EXPECT_EQ(moduleCalls().snprintObjid, 0u);
        EXPECT_EQ(moduleCalls().traceHelper, 4u); // the four refusals, nothing else composed
        EXPECT_EQ(trace.lines().size(), 4u);
    }
    {
        TraceCapture trace("Snmp/1");
        resetModuleCalls();
        module().init("ctxD");
        EXPECT_EQ(moduleCalls().snprintObjid, 4u);
        std::vector<std::string> expected;
        for (Table t : allTables)
            expected.push_back(facts(t).initialize() + " initializing oid " + oidText(tableOid(t)) +
                               " in context \"ctxD\"");
        EXPECT_EQ(trace.textsAt(1), expected);
    }
}

TEST(TableSetUpDeathTest, MissingStateObjectStopsTheProcessAtTheFirstTable) {
    EXPECT_DEATH(
        {
            Snmp::ModuleLoader loader(modulePath);
            loader.initContext("");
        },
        testing::AllOf(testing::ContainsRegex(
                           "(^|\n)Can not getEntityRelative\\( snmp/launcher/daemonMIB \\) for table "
                           "velmarDaemonEnabledTable\\. Is this path correct\\?\n"
                           ".*VelmarDaemonMIB:[0-9]+: void "
                           "initialize_table_velmarDaemonEnabledTable\\(Orbel::String\\): Assertion `e' failed"),
                       testing::Not(testing::HasSubstr("velmarDaemonOptionTable")),
                       testing::Not(testing::HasSubstr("velmarDaemonRunningTable")),
                       testing::Not(testing::HasSubstr("velmarDaemonDataTable"))));
}

TEST(TableSetUpDeathTest, StateObjectOfAnotherTypeStopsTheProcess) {
    EXPECT_DEATH(
        {
            Statebase::root()->entityIs(statePath, GenericAgent::Config::configFactory("daemonMIB"));
            Snmp::ModuleLoader loader(modulePath);
            loader.initContext("");
        },
        testing::ContainsRegex("(^|\n)snmp/launcher/daemonMIB does not appear to be of type "
                               "GenericAgent::DaemonMib\\.\n"
                               ".*VelmarDaemonMIB:[0-9]+: void "
                               "initialize_table_velmarDaemonEnabledTable\\(Orbel::String\\): Assertion `ptr' failed"));
}

// Row iteration: the five callbacks of each table driven directly with hints as the table
// helper parses them, and through the handler chain where the agent library's own
// decisions matter.
#include "ModuleHarness.h"

#include "orbel/Exception.h"
#include "orbel/PtrInterface.h"
#include "snmp/Converters.h"

#include <gmock/gmock.h>

#include <limits>

using namespace ModuleTest;
using GenericAgent::AgentKey;
using GenericAgent::AgentVal;
using GenericAgent::OptionTableIndex;
using testing::ElementsAre;

namespace {

const std::string getFirst = "velmarDaemonOptionTable_get_first_data_point";
const std::string helper = "velmarDaemonOptionTableIterationHelper";

std::string hintLine(const std::string& fn, const void* hint, unsigned n) {
    return fn + " - *hint = " + ptr(hint) + ", number_indexes = " + std::to_string(n);
}
std::string allocatedLine(const std::string& fn, const void* loop, bool matched) {
    return fn + " - allocated new loop context " + ptr(loop) + ", hintMatched=" + (matched ? "1" : "0");
}
std::string rowLines(const std::string& name) {
    return helper + " - iterator has another value: agentName=" + name;
}
std::string keyLine(const std::string& key) {
    return helper + " - iterator has another value: key=" + key;
}

std::string rangeText(const void* bytes, unsigned length) {
    try {
        Snmp::AsnOctetStringToSnmpString(bytes, length);
    } catch (const Orbel::RangeException& e) {
        return streamed(static_cast<const Orbel::Exception&>(e));
    }
    return "(no exception)";
}

class Iteration : public ModuleFixture {
protected:
    void SetUp() override {
        ModuleFixture::SetUp();
        cfg_ = config("bgpd");
        cfg_->optionIs(AgentKey("asn"), AgentVal("65001"));
        cfg_->optionIs(AgentKey("id"), AgentVal("10.0.0.1"));
        // Walk order: ("bgpd","id") < ("bgpd","asn") < ("ospfd","area") (shorter first).
        mib().optionTableIs(OptionTableIndex("bgpd", "asn"), cfg_);
        mib().optionTableIs(OptionTableIndex("bgpd", "id"), cfg_);
        mib().optionTableIs(OptionTableIndex("ospfd", "area"), config("ospfd"));
        ii_ = module().iterator(Table::option);
        ASSERT_NE(ii_, nullptr);
    }
    Orbel::Ptr<GenericAgent::Config> cfg_;
    netsnmp_iterator_info* ii_ = nullptr;
};

} // namespace

TEST_F(Iteration, ExactHintStartsOnThatRow) {
    Hint hint(2);
    hint.octets("bgpd").octets("asn");
    TraceCapture trace("Snmp/0-2");
    Pass pass(ii_);
    netsnmp_variable_list* v = pass.first(hint.info());
    ASSERT_EQ(v, pass.put());
    EXPECT_NE(pass.loopContext(), static_cast<void*>(hint.info())); // the slot was overwritten
    EXPECT_EQ(octets(v), "bgpd");
    EXPECT_EQ(octets(v->next_variable), "asn");
    EXPECT_THAT(trace.texts(),
                ElementsAre(hintLine(getFirst, hint.info(), 2), "hint component velmarDaemonOptionAgentName is 'bgpd'",
                            "hint component velmarDaemonOptionKey is 'asn'",
                            allocatedLine(getFirst, pass.loopContext(), true), rowLines("bgpd"), keyLine("asn")));
    for (const Line& l : trace.lines()) {
        EXPECT_EQ(l.level, 2u) << l.text;
        EXPECT_EQ(l.file, sourceFile);
        EXPECT_EQ(l.facility, "Snmp");
    }
    EXPECT_EQ(trace.lines()[1].function, getFirst);
    EXPECT_EQ(trace.lines()[4].function, helper);
}

TEST_F(Iteration, EveryTableMatchesAnExactHint) {
    mib().enabledTableIs("bgpd", cfg_);
    mib().enabledTableIs("ospfd", cfg_);
    mib().runningTableIs("bgpd", status("bgpd"));
    mib().runningTableIs("ospfd", status("ospfd"));
    mib().dataTableIs(GenericAgent::DataTableIndex("bgpd", "uptime"), status("bgpd"));
    mib().dataTableIs(GenericAgent::DataTableIndex("ospfd", "uptime"), status("ospfd"));
    for (Table t : allTables) {
        SCOPED_TRACE(facts(t).name);
        const bool two = facts(t).components == 2;
        const std::string key = t == Table::option ? "area" : "uptime";
        Hint hint(facts(t).components);
        hint.octets("ospfd");
        if (two) hint.octets(key);
        TraceCapture trace("Snmp/2");
        Pass pass(module().iterator(t));
        netsnmp_variable_list* v = pass.first(hint.info());
        ASSERT_NE(v, nullptr);
        EXPECT_EQ(octets(v), "ospfd");
        if (two) {
            EXPECT_EQ(octets(v->next_variable), key);
        }
        EXPECT_TRUE(trace.has(allocatedLine(facts(t).getFirst(), pass.loopContext(), true)));
        EXPECT_TRUE(trace.has(std::string("hint component ") + facts(t).nameComponent + " is 'ospfd'"));
    }
}

TEST_F(Iteration, HintForAMissingNameWalksFromTheFirstRow) {
    Hint hint(2);
    hint.octets("nosuchd").octets("asn");
    TraceCapture trace("Snmp/0-2");
    Pass pass(ii_);
    netsnmp_variable_list* v = pass.first(hint.info());
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(octets(v), "bgpd");
    EXPECT_EQ(octets(v->next_variable), "id");
    EXPECT_THAT(
        trace.texts(),
        ElementsAre(hintLine(getFirst, hint.info(), 2), "hint component velmarDaemonOptionAgentName is 'nosuchd'",
                    "hint component velmarDaemonOptionKey is 'asn'",
                    getFirst + " - key '" + streamed(OptionTableIndex("nosuchd", "asn")) + "' not found in table",
                    allocatedLine(getFirst, pass.loopContext(), false), rowLines("bgpd"), keyLine("id")));
}

TEST_F(Iteration, GetOfAMissingRowFindsNoRow) {
    TraceCapture trace("Snmp/2");
    RequestList list(MODE_GET);
    netsnmp_request_info* r = list.add(rowOid(Table::option, 3, "nosuchd", "asn"));
    EXPECT_EQ(list.callChain(module().registration(Table::option)), SNMP_ERR_NOERROR);
    EXPECT_NE(r->requestvb->type, ASN_OCTET_STR);
    EXPECT_EQ(trace.count("velmarDaemonOptionTable_make_data_context"), 0u);
    EXPECT_EQ(trace.count("velmarDaemonOptionTable_handler: request GET"), 0u);
    EXPECT_EQ(trace.count(getFirst + " - key '"), 1u);
    // Walked the whole table from the first row.
    EXPECT_EQ(trace.count(helper + " - iterator has another value: agentName="), 3u);
}

TEST_F(Iteration, GetNextFromAnExistingRowAnswersTheFollowingRow) {
    TraceCapture trace("Snmp/2");
    RequestList list(MODE_GETNEXT);
    netsnmp_request_info* r = list.add(rowOid(Table::option, 3, "bgpd", "id"));
    EXPECT_EQ(list.callChain(module().registration(Table::option)), SNMP_ERR_NOERROR);
    EXPECT_EQ(nameOf(r->requestvb), rowOid(Table::option, 3, "bgpd", "asn"));
    EXPECT_EQ(octets(r->requestvb), "65001");
    const std::vector<std::string> rows = trace.textsFrom(helper);
    EXPECT_THAT(rows, ElementsAre(rowLines("bgpd"), keyLine("id"), rowLines("bgpd"), keyLine("asn")));
    EXPECT_EQ(trace.count("velmarDaemonOptionTable_get_next_data_point - advancing loop context "), 1u);
    EXPECT_EQ(trace.count(getFirst + " - allocated new loop context "), 1u);
    bool matched = false;
    for (const std::string& t : trace.texts()) matched |= t.find(", hintMatched=1") != std::string::npos;
    EXPECT_TRUE(matched);
}

TEST_F(Iteration, WrongTypedNameDoesNotStopTheKeyFromBeingExamined) {
    Hint hint(2);
    hint.integer(7).octets("asn");
    TraceCapture trace("Snmp/0-2");
    Pass pass(ii_);
    netsnmp_variable_list* v = pass.first(hint.info());
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(octets(v->next_variable), "id"); // first row
    EXPECT_THAT(
        trace.texts(),
        ElementsAre(hintLine(getFirst, hint.info(), 2),
                    "hint for velmarDaemonOptionAgentName has incorrect type! Expecting 4 but got 2",
                    "hint component velmarDaemonOptionKey is 'asn'", getFirst + " - needed 2 components, found only 1",
                    allocatedLine(getFirst, pass.loopContext(), false), rowLines("bgpd"), keyLine("id")));
    EXPECT_EQ(trace.lines()[1].level, 0u);
    EXPECT_EQ(trace.lines()[2].level, 2u);
    EXPECT_EQ(trace.lines()[3].level, 2u);
}

TEST_F(Iteration, WrongTypedKeyCountsOnlyTheName) {
    Hint hint(2);
    hint.octets("bgpd").integer(7);
    TraceCapture trace("Snmp/0-2");
    Pass pass(ii_);
    pass.first(hint.info());
    EXPECT_THAT(trace.texts(),
                ElementsAre(hintLine(getFirst, hint.info(), 2), "hint component velmarDaemonOptionAgentName is 'bgpd'",
                            "hint for velmarDaemonOptionKey has incorrect type! Expecting 4 but got 2",
                            getFirst + " - needed 2 components, found only 1",
                            allocatedLine(getFirst, pass.loopContext(), false), rowLines("bgpd"), keyLine("id")));
    EXPECT_EQ(trace.lines()[2].level, 0u);
}

TEST_F(Iteration, OneVarbindForATwoComponentTable) {
    {
        Hint hint(2);
        hint.octets("bgpd");
        TraceCapture trace("Snmp/0-2");
        Pass pass(ii_);
        pass.first(hint.info());
        EXPECT_THAT(
            trace.texts(),
            ElementsAre(hintLine(getFirst, hint.info(), 2), "hint component velmarDaemonOptionAgentName is 'bgpd'",
                        getFirst + " - needed 2 components, found only 1",
                        allocatedLine(getFirst, pass.loopContext(), false), rowLines("bgpd"), keyLine("id")));
    }
    {
        Hint hint(2);
        hint.integer(1);
        TraceCapture trace("Snmp/0-2");
        Pass pass(ii_);
        pass.first(hint.info());
        EXPECT_THAT(trace.texts(),
                    ElementsAre(hintLine(getFirst, hint.info(), 2),
                                "hint for velmarDaemonOptionAgentName has incorrect type! Expecting 4 but got 2",
                                getFirst + " - needed 2 components, found only 0",
                                allocatedLine(getFirst, pass.loopContext(), false), rowLines("bgpd"), keyLine("id")));
    }
    {
        Hint hint(2); // number_indexes 2 but no varbinds at all
        TraceCapture trace("Snmp/0-2");
        Pass pass(ii_);
        pass.first(hint.info());
        EXPECT_THAT(trace.texts(),
                    ElementsAre(hintLine(getFirst, hint.info(), 2), getFirst + " - needed 2 components, found only 0",
                                allocatedLine(getFirst, pass.loopContext(), false), rowLines("bgpd"), keyLine("id")));
    }
}

TEST_F(Iteration, OutOfRangeComponentsAreTracedAtLevelZero) {
    {
        Hint hint(2);
        hint.octets("abc").octets("asn");
        // A name the support layer cannot represent: a null pointer with a length.
        netsnmp_variable_list* name = hint.info()->indexes;
        name->val.string = nullptr;
        name->val_len = 3;
        TraceCapture trace("Snmp/0-2");
        Pass pass(ii_);
        pass.first(hint.info());
        EXPECT_THAT(
            trace.texts(),
            ElementsAre(hintLine(getFirst, hint.info(), 2),
                        "hint for index velmarDaemonOptionAgentName of velmarDaemonOptionTable is out of range! " +
                            rangeText(nullptr, 3),
                        "hint component velmarDaemonOptionKey is 'asn'",
                        getFirst + " - needed 2 components, found only 1",
                        allocatedLine(getFirst, pass.loopContext(), false), rowLines("bgpd"), keyLine("id")));
        EXPECT_EQ(trace.lines()[1].level, 0u);
    }
    {
        const std::string huge(Snmp::maxOctetStringLength + 1, 'k');
        Hint hint(2);
        hint.octets("bgpd").octets(huge);
        TraceCapture trace("Snmp/0-2");
        Pass pass(ii_);
        pass.first(hint.info());
        EXPECT_THAT(
            trace.texts(),
            ElementsAre(hintLine(getFirst, hint.info(), 2), "hint component velmarDaemonOptionAgentName is 'bgpd'",
                        "hint for index velmarDaemonOptionKey of velmarDaemonOptionTable is out of range! " +
                            rangeText(huge.data(), static_cast<unsigned>(huge.size())),
                        getFirst + " - needed 2 components, found only 1",
                        allocatedLine(getFirst, pass.loopContext(), false), rowLines("bgpd"), keyLine("id")));
        EXPECT_EQ(trace.lines()[2].level, 0u);
    }
}

TEST_F(Iteration, OneComponentTablesCountZeroForAnyUnusableHint) {
    mib().enabledTableIs("bgpd", cfg_);
    mib().runningTableIs("bgpd", status("bgpd"));
    for (Table t : {Table::enabled, Table::running}) {
        const TableFacts& f = facts(t);
        SCOPED_TRACE(f.name);
        netsnmp_iterator_info* ii = module().iterator(t);
        const std::string first = f.getFirst();
        const std::string needed = first + " - needed 1 components, found only 0";
        {
            Hint hint(1);
            hint.integer(3);
            TraceCapture trace("Snmp/0-2");
            Pass pass(ii);
            EXPECT_EQ(octets(pass.first(hint.info())), "bgpd");
            EXPECT_THAT(trace.textsFrom(first), ElementsAre(hintLine(first, hint.info(), 1),
                                                            std::string("hint for ") + f.nameComponent +
                                                                " has incorrect type! Expecting 4 but got 2",
                                                            needed, allocatedLine(first, pass.loopContext(), false)));
            EXPECT_EQ(trace.lines()[1].level, 0u);
        }
        {
            Hint hint(1);
            TraceCapture trace("Snmp/0-2");
            Pass pass(ii);
            pass.first(hint.info());
            EXPECT_THAT(trace.textsFrom(first), ElementsAre(hintLine(first, hint.info(), 1), needed,
                                                            allocatedLine(first, pass.loopContext(), false)));
        }
        {
            Hint hint(1);
            hint.octets("abc");
            hint.info()->indexes->val.string = nullptr;
            TraceCapture trace("Snmp/0-2");
            Pass pass(ii);
            pass.first(hint.info());
            EXPECT_THAT(trace.textsFrom(first), ElementsAre(hintLine(first, hint.info(), 1),
                                                            std::string("hint for index ") + f.nameComponent + " of " +
                                                                f.name + " is out of range! " + rangeText(nullptr, 3),
                                                            needed, allocatedLine(first, pass.loopContext(), false)));
            EXPECT_EQ(trace.lines()[1].level, 0u);
        }
    }
}

TEST_F(Iteration, MismatchedOrMissingHintWalksFromTheFirstRowSilently) {
    {
        Hint hint(1); // the helper parsed one component of two
        hint.octets("bgpd").octets("asn");
        TraceCapture trace("Snmp/0-2");
        Pass pass(ii_);
        pass.first(hint.info());
        EXPECT_THAT(trace.texts(),
                    ElementsAre(hintLine(getFirst, hint.info(), 1), allocatedLine(getFirst, pass.loopContext(), false),
                                rowLines("bgpd"), keyLine("id")));
    }
    {
        TraceCapture trace("Snmp/0-2");
        Pass pass(ii_);
        pass.first(nullptr);
        EXPECT_THAT(trace.texts(),
                    ElementsAre(hintLine(getFirst, nullptr, 0), allocatedLine(getFirst, pass.loopContext(), false),
                                rowLines("bgpd"), keyLine("id")));
    }
}

TEST_F(Iteration, EmptyMapAllocatesOneLoopContextAtTheEnd) {
    module().clearTables();
    TraceCapture trace("Snmp/0-2");
    Pass pass(ii_);
    EXPECT_EQ(pass.first(nullptr), nullptr);
    void* loop = pass.loopContext();
    ASSERT_NE(loop, nullptr);
    EXPECT_EQ(pass.next(), nullptr);
    pass.freeLoop();
    EXPECT_THAT(trace.texts(),
                ElementsAre(hintLine(getFirst, nullptr, 0), allocatedLine(getFirst, loop, false),
                            helper + " - iterator is at end",
                            "velmarDaemonOptionTable_get_next_data_point - at end of loop context " + ptr(loop),
                            "velmarDaemonOptionTable_free_loop_context_at_end " + ptr(loop)));
}

TEST_F(Iteration, NullContextsAreTracedAndIgnored) {
    TraceCapture trace("Snmp/0-2");
    ii_->free_data_context(nullptr, ii_);
    ii_->free_loop_context_at_end(nullptr, ii_);
    void* loop = nullptr;
    void* data = nullptr;
    netsnmp_variable_list* put = snmp_clone_varbind(ii_->table_reginfo->indexes);
    EXPECT_EQ(ii_->get_next_data_point(&loop, &data, put, ii_), nullptr);
    snmp_free_varbind(put);
    EXPECT_THAT(trace.texts(),
                ElementsAre("velmarDaemonOptionTable_free_data_context " + ptr(nullptr),
                            "velmarDaemonOptionTable_free_loop_context_at_end " + ptr(nullptr),
                            "velmarDaemonOptionTable_get_next_data_point - at end of loop context " + ptr(nullptr)));
}

TEST_F(Iteration, RowRemovedBetweenNextCallsContinuesWithTheNextGreaterKey) {
    for (const char* name : {"a", "b", "c", "d", "e"}) mib().enabledTableIs(name, cfg_);
    netsnmp_iterator_info* ii = module().iterator(Table::enabled);
    std::vector<std::string> walked;
    Pass pass(ii);
    walked.push_back(octets(pass.first(nullptr))); // a
    walked.push_back(octets(pass.next()));         // b
    EXPECT_TRUE(mib().enabledTableDel("b"));       // the row the walk stands on
    walked.push_back(octets(pass.next()));         // c
    EXPECT_TRUE(mib().enabledTableDel("d"));       // the row after it
    for (netsnmp_variable_list* v = pass.next(); v; v = pass.next()) walked.push_back(octets(v));
    EXPECT_THAT(walked, ElementsAre("a", "b", "c", "e"));
}

TEST_F(Iteration, DataContextOutlivesTheRowsDeletion) {
    const std::int64_t live = Orbel::PtrInterface::liveInstances();
    auto row = mib().optionTableIs(OptionTableIndex("bgpd", "area"), cfg_);
    cfg_->optionIs(AgentKey("area"), AgentVal("0.0.0.0"));
    row = nullptr;
    const std::int64_t withRow = Orbel::PtrInterface::liveInstances();
    EXPECT_EQ(withRow, live + 1);

    void* data = nullptr;
    {
        Hint hint(2);
        hint.octets("bgpd").octets("area");
        Pass pass(ii_);
        pass.first(hint.info());
        data = pass.makeData();
        void* second = pass.makeData();
        pass.next(); // moving the loop context does not move the data contexts
        pass.freeLoop();
        ii_->free_data_context(second, ii_);
    }
    EXPECT_TRUE(mib().optionTableDel(OptionTableIndex("bgpd", "area")));
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), withRow); // the data context keeps it

    RequestList list(MODE_GET);
    netsnmp_request_info* r = list.addForHandler(rowOid(Table::option, 3, "bgpd", "area"), 3, data);
    EXPECT_EQ(module().handler(Table::option)(nullptr, nullptr, list.info(), list.head()), SNMP_ERR_NOERROR);
    EXPECT_EQ(octets(r->requestvb), "0.0.0.0");

    ii_->free_data_context(data, ii_);
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), live);
}

TEST_F(Iteration, RowContextsReleaseTheirRowsAfterAWalk) {
    mib().enabledTableIs("bgpd", cfg_);
    mib().runningTableIs("bgpd", status("bgpd"));
    const std::int64_t live = Orbel::PtrInterface::liveInstances();
    for (Table t : allTables) {
        std::vector<oid> name = tableOid(t);
        for (int steps = 0; steps < 10; ++steps) {
            RequestList list(MODE_GETNEXT);
            netsnmp_request_info* r = list.add(name);
            list.callChain(module().registration(t));
            const std::vector<oid> got = nameOf(r->requestvb);
            if (r->requestvb->type == ASN_NULL) break; // past the table's last row
            name = got;
        }
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), live) << facts(t).name;
    }
}

TEST_F(Iteration, OverLongNameAndKeyArePassedToTheConverterWithTheirLimits) {
    const std::string name32(32, 'n'), name33(33, 'n'), key64(64, 'k'), key65(65, 'k');
    const std::size_t failed = static_cast<std::size_t>(-1); // the converter's -1, as a size
    module().clearTables();
    {
        mib().enabledTableIs(Snmp::String(name33), cfg_);
        Pass pass(module().iterator(Table::enabled));
        resetModuleCalls();
        EXPECT_EQ(pass.first(nullptr), pass.put());
        EXPECT_THAT(moduleCalls().valueLengths, ElementsAre(failed));
        module().clearTables();
    }
    {
        mib().enabledTableIs(Snmp::String(name32), cfg_);
        Pass pass(module().iterator(Table::enabled));
        resetModuleCalls();
        EXPECT_EQ(octets(pass.first(nullptr)), name32);
        EXPECT_THAT(moduleCalls().valueLengths, ElementsAre(32u));
        module().clearTables();
    }
    {
        mib().optionTableIs(OptionTableIndex(Snmp::String(name32), Snmp::String(key65)), cfg_);
        Pass pass(ii_);
        resetModuleCalls();
        EXPECT_EQ(pass.first(nullptr), pass.put());
        EXPECT_THAT(moduleCalls().valueLengths, ElementsAre(32u, failed));
        module().clearTables();
    }
    {
        mib().optionTableIs(OptionTableIndex(Snmp::String(name33), Snmp::String(key64)), cfg_);
        Pass pass(ii_);
        resetModuleCalls();
        netsnmp_variable_list* v = pass.first(nullptr);
        EXPECT_EQ(v, pass.put());
        EXPECT_THAT(moduleCalls().valueLengths, ElementsAre(failed, 64u));
        EXPECT_EQ(octets(v->next_variable), key64);
        module().clearTables();
    }
}

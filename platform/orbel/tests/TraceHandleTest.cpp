#include "orbel/Exception.h"
#include "orbel/TraceHandle.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

namespace {

struct Capture {
    std::vector<Orbel::TraceLine> lines;
    Capture() {
        Orbel::traceSinkIs([this](const Orbel::TraceLine& l) { lines.push_back(l); });
    }
    ~Capture() {
        Orbel::traceSinkIs(nullptr);
        Orbel::traceConfigIs("");
    }
};

int sideEffects = 0;
int touch() {
    ++sideEffects;
    return 7;
}

} // namespace

TEST(TraceHandle, DisabledLevelEvaluatesNoArgument) {
    Capture cap;
    Orbel::traceConfigIs("Test/0");
    Orbel::TraceHandle th("Test", false);
    sideEffects = 0;
    ORBEL_TRACE(th, 2, "value " << touch());
    EXPECT_EQ(sideEffects, 0);
    EXPECT_TRUE(cap.lines.empty());
}

TEST(TraceHandle, EnabledLevelEmitsOneLineWithPartsInOrder) {
    Capture cap;
    Orbel::traceConfigIs("Test/0-2,8");
    Orbel::TraceHandle th("Test", false);
    sideEffects = 0;
    const void* p = reinterpret_cast<const void*>(0x1234);
    ORBEL_TRACE_AT(th, 2, "VelmarDaemonMIB", "someFunction", "a=" << touch() << " p=" << p << " b=" << true);
    EXPECT_EQ(sideEffects, 1);
    ASSERT_EQ(cap.lines.size(), 1u);
    const auto& l = cap.lines[0];
    EXPECT_EQ(l.text, "a=7 p=0x1234 b=1");
    EXPECT_EQ(l.level, 2u);
    EXPECT_STREQ(l.file, "VelmarDaemonMIB");
    EXPECT_STREQ(l.function, "someFunction");
    EXPECT_EQ(l.facility, Orbel::String("Test"));
    EXPECT_EQ(l.name, Orbel::String("<unknown>"));
    std::string formatted = Orbel::formatTraceLine(l);
    EXPECT_NE(formatted.find(" Test/2 VelmarDaemonMIB:"), std::string::npos) << formatted;
    EXPECT_NE(formatted.find(" someFunction: a=7 p=0x1234 b=1"), std::string::npos) << formatted;
}

TEST(TraceHandle, LevelsPerFacility) {
    Orbel::traceConfigIs("Snmp/0-2,8,Other/*");
    Orbel::TraceHandle snmp("Snmp", false), other("Other", false), quiet("Quiet", false), loud("Loud", true);
    EXPECT_TRUE(snmp.enabled(0));
    EXPECT_TRUE(snmp.enabled(2));
    EXPECT_FALSE(snmp.enabled(3));
    EXPECT_TRUE(snmp.enabled(8));
    EXPECT_TRUE(other.enabled(31));
    EXPECT_FALSE(quiet.enabled(0));
    EXPECT_TRUE(loud.enabled(5));
    Orbel::traceConfigIs("");
    EXPECT_FALSE(snmp.enabled(0));
}

TEST(TraceHandle, WildcardFacilityAppliesToUnnamed) {
    Orbel::traceConfigIs("*/1,Snmp/3");
    Orbel::TraceHandle snmp("Snmp", false), any("Any", false);
    EXPECT_EQ(snmp.mask(), 1u << 3);
    EXPECT_EQ(any.mask(), 1u << 1);
    Orbel::traceConfigIs("");
}

TEST(TraceHandle, BadConfigurationRaisesAndKeepsOld) {
    Orbel::traceConfigIs("Snmp/2");
    Orbel::TraceHandle snmp("Snmp", false);
    for (const char* bad : {"Snmp", "Snmp/x", "Snmp/3-1", "Snmp/40", "/2", "Snmp/1,"}) {
        SCOPED_TRACE(bad);
        EXPECT_THROW(Orbel::traceConfigIs(bad), Orbel::RangeException);
        EXPECT_EQ(snmp.mask(), 1u << 2);
    }
    Orbel::traceConfigIs("");
}

TEST(TraceHandle, CoverageStreamComposesDisabledLevels) {
    Capture cap;
    Orbel::TraceHandle th("Cov", false);
    std::ostringstream cov;
    Orbel::coverageStreamIs(&cov);
    sideEffects = 0;
    ORBEL_TRACE(th, 4, "covered " << touch());
    Orbel::coverageStreamIs(nullptr);
    EXPECT_EQ(sideEffects, 1);
    EXPECT_TRUE(cap.lines.empty());
    EXPECT_NE(cov.str().find("covered 7"), std::string::npos);
}

#include "GenericAgent/GenericAgentSnmp.h"

#include <gtest/gtest.h>

using namespace GenericAgent;

TEST(DaemonMib, SmokeFillAndWalk) {
    auto mib = daemonMibFactory("daemonMIB");
    auto cfg = Config::configFactory("bgpd");
    mib->enabledTableIs("bgpd", cfg);
    mib->enabledTableIs("ntp", cfg);
    mib->optionTableIs(OptionTableIndex("bgpd", "asn"), cfg);
    cfg->optionIs(AgentKey("asn"), AgentVal("65001"));
    EXPECT_EQ(mib->optionTable(OptionTableIndex("bgpd", "asn"))->val(), Orbel::String("65001"));
    std::vector<std::string> names;
    for (auto it = mib->enabledTable().begin(); !it.isEnd(); ++it) names.push_back(it->agentName().str().stdString());
    EXPECT_EQ(names, (std::vector<std::string>{"ntp", "bgpd"}));
    EXPECT_EQ(mib->version(), 3u);
}

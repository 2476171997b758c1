#include "OptionHints.h"

#include <gtest/gtest.h>

namespace {

const std::vector<std::string> known = {"listen",  "agentx", "agentx-ping", "state",
                                        "systemd", "config", "log",         "check"};

TEST(OptionHints, TyposGetTheClosestOption) {
    EXPECT_EQ(Agent::closestOption("--lisen", known), "--listen");
    EXPECT_EQ(Agent::closestOption("--litsen", known), "--listen");
    EXPECT_EQ(Agent::closestOption("--stat=/x", known), "--state");
    EXPECT_EQ(Agent::closestOption("--agentx-pign", known), "--agentx-ping");
    EXPECT_EQ(Agent::closestOption("--confi", known), "--config");
}

TEST(OptionHints, NothingCloseNoHint) {
    EXPECT_EQ(Agent::closestOption("--frobnicate", known), "");
    EXPECT_EQ(Agent::closestOption("--", known), "");
}

} // namespace

// The data keys a running-change notification carries.
#include "agent/notify/NotifyData.h"

#include <gtest/gtest.h>

using Agent::notifyDataKeys;
using Keys = std::vector<std::string>;

TEST(NotifyData, SplitsOnCommasAndTrimsBlanks) {
    EXPECT_EQ(notifyDataKeys("Result, ExecMainStatus ,pid"), (Keys{"Result", "ExecMainStatus", "pid"}));
}

TEST(NotifyData, EmptyTextIsNoKey) {
    EXPECT_TRUE(notifyDataKeys("").empty());
    EXPECT_TRUE(notifyDataKeys("  ").empty());
}

TEST(NotifyData, AKeyNamedTwiceIsCarriedOnce) {
    EXPECT_EQ(notifyDataKeys("a,b,a"), (Keys{"a", "b"}));
}

TEST(NotifyData, AnEmptyKeyBetweenCommasIsRefusedWithItsPosition) {
    try {
        notifyDataKeys("Result,,pid");
        FAIL() << "accepted";
    } catch (const std::invalid_argument& e) {
        EXPECT_NE(std::string(e.what()).find("empty data key at position 8"), std::string::npos) << e.what();
    }
}

TEST(NotifyData, AKeyLongerThanTheIndexCarriesIsRefusedByName) {
    const std::string longKey(65, 'k');
    try {
        notifyDataKeys("Result," + longKey);
        FAIL() << "accepted";
    } catch (const std::invalid_argument& e) {
        EXPECT_NE(std::string(e.what()).find("'" + longKey + "' is longer than 64 bytes"), std::string::npos)
            << e.what();
    }
    EXPECT_EQ(notifyDataKeys(std::string(64, 'k')).size(), 1u);
}

TEST(NotifyData, DefaultsToSystemdsResultAndExitStatusOnlyForSystemd) {
    EXPECT_EQ(notifyDataKeys(Agent::defaultNotifyData(true)), (Keys{"Result", "ExecMainCode", "ExecMainStatus"}));
    EXPECT_TRUE(notifyDataKeys(Agent::defaultNotifyData(false)).empty());
}

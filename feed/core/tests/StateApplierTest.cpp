// The applier: a difference applied to a DaemonMib is what applied() reads back, through
// additions, in-place changes and removals.
#include "feed/core/StateApplier.h"
#include "feed/core/StateDiff.h"

#include "GenericAgent/GenericAgentSnmp.h"

#include <gtest/gtest.h>

namespace {

Feed::DaemonState daemon(bool enabled, bool running, std::map<std::string, std::string> options = {}) {
    Feed::DaemonState d;
    d.hasConfig = true;
    d.enabled = enabled;
    d.options = std::move(options);
    d.hasStatus = true;
    d.running = running;
    return d;
}

class StateApplierTest : public ::testing::Test {
protected:
    Orbel::Ptr<GenericAgent::DaemonMib> mib = GenericAgent::daemonMibFactory("daemonMIB");
    Feed::StateApplier applier{mib};

    void reach(const Feed::LauncherState& next) {
        applier.apply(Feed::diffStates(applier.applied(), next));
        EXPECT_EQ(applier.applied(), next);
        EXPECT_EQ(applier.daemons(), next.size());
    }
};

TEST_F(StateApplierTest, AppliedReadsBackEveryStateOnTheWay) {
    reach({{"bgpd", daemon(true, true, {{"asn", "65001"}})}, {"ospfd", daemon(false, false)}});
    reach({{"bgpd", daemon(true, false, {{"asn", "65002"}, {"blank", ""}})}, {"ospfd", daemon(false, false)}});
    reach({{"ospfd", daemon(true, true)}});
    reach({});
}

TEST_F(StateApplierTest, ServedAndTheObjectsFollowTheDaemon) {
    reach({{"bgpd", daemon(true, true, {{"asn", "65001"}})}});
    ASSERT_TRUE(applier.served("bgpd").has_value());
    EXPECT_EQ(applier.served("bgpd")->options.at("asn"), "65001");
    EXPECT_FALSE(applier.served("ospfd").has_value());
    EXPECT_TRUE(applier.config("bgpd"));
    EXPECT_TRUE(applier.status("bgpd"));
    EXPECT_FALSE(applier.config("ospfd"));
}

TEST_F(StateApplierTest, ADifferenceNotComputedFromWhatIsServedIsRefused) {
    reach({{"bgpd", daemon(true, true)}});
    // Adds bgpd again: the difference was computed from an empty state.
    EXPECT_THROW(applier.apply(Feed::diffStates({}, {{"bgpd", daemon(true, true)}})), std::logic_error);
    // Changes a daemon that is not served.
    EXPECT_THROW(applier.apply(Feed::diffStates({{"zebra", daemon(true, true)}}, {{"zebra", daemon(false, true)}})),
                 std::logic_error);
    EXPECT_EQ(applier.applied(), (Feed::LauncherState{{"bgpd", daemon(true, true)}}));
}

TEST(StateApplier, RefusesANullModel) {
    EXPECT_THROW(Feed::StateApplier(nullptr), std::invalid_argument);
}

} // namespace

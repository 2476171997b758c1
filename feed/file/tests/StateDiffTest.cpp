// The difference between two states, and its counts.
#include "FeedTestSupport.h"

using namespace FeedTest;

namespace {

TEST(StateDiff, EqualStatesDifferInNothing) {
    std::mt19937 rng(3);
    LauncherState s = randomState(rng);
    StateDiff d = diffStates(s, s);
    EXPECT_TRUE(d.empty());
    EXPECT_EQ(d.changes(), 0u);
}

TEST(StateDiff, CountsWhatApplyingDoes) {
    LauncherState a, b;
    a["kept"] = daemonWith({{"same", "1"}, {"changed", "1"}, {"emptied", "1"}, {"gone", "1"}, {"blank", ""}}, true);
    a["old"] = daemonWith({{"x", "1"}}, false, std::map<std::string, std::string>{{"pid", "1"}});
    b["kept"] = daemonWith({{"same", "1"}, {"changed", "2"}, {"emptied", ""}, {"new", "1"}, {"blank2", ""}}, false);
    b["new"] = DaemonState{};
    StateDiff d = diffStates(a, b);
    ASSERT_EQ(d.daemons.size(), 3u);
    EXPECT_EQ(d.daemons[0].name, "kept");
    const SectionChange& c = d.daemons[0].config;
    EXPECT_TRUE(c.before && c.after);
    EXPECT_EQ(c.flag, std::optional<bool>(false));
    std::vector<KeyChange> keys = {
        {"blank", std::nullopt, false, false}, {"blank2", "", false, false},        {"changed", "2", true, true},
        {"emptied", "", true, false},          {"gone", std::nullopt, true, false}, {"new", "1", false, true},
    };
    EXPECT_EQ(c.keys, keys);
    EXPECT_TRUE(d.daemons[0].status.empty());
    EXPECT_FALSE(d.daemons[1].before); // "new"
    EXPECT_FALSE(d.daemons[2].after);  // "old"

    StateDiff::Counts counts = d.counts();
    EXPECT_EQ(counts.daemonsAdded, 1u);
    EXPECT_EQ(counts.daemonsRemoved, 1u);
    EXPECT_EQ(counts.rowsAdded, 1u + 2u);   // option "new"; new's enabled and running
    EXPECT_EQ(counts.rowsRemoved, 2u + 4u); // "emptied", "gone"; old's four rows
    EXPECT_EQ(counts.inPlace, 1u + 3u);     // the flag; "changed", "blank", "blank2"
    EXPECT_EQ(d.changes(), 13u);
    EXPECT_EQ(d.summary(),
              "applied 13 changes (daemons: 1 added, 1 removed; rows: 3 added, 6 removed; 4 changed in place)");
}

// ---------------------------------------------------------------------------------------
// Applying

} // namespace

// The feed's core as values: differences between launcher states, their counts and
// summary, and the quoting of names for messages.
#include "feed/core/LauncherState.h"
#include "feed/core/StateDiff.h"

#include <gtest/gtest.h>

namespace {

Feed::DaemonState daemon(bool enabled, bool running, std::map<std::string, std::string> options = {},
                         std::map<std::string, std::string> data = {}) {
    Feed::DaemonState d;
    d.hasConfig = true;
    d.enabled = enabled;
    d.options = std::move(options);
    d.hasStatus = true;
    d.running = running;
    d.data = std::move(data);
    return d;
}

TEST(StateDiff, EqualStatesDifferInNothing) {
    const Feed::LauncherState s{{"bgpd", daemon(true, true, {{"asn", "65001"}})}};
    const Feed::StateDiff diff = Feed::diffStates(s, s);
    EXPECT_TRUE(diff.empty());
    EXPECT_EQ(diff.changes(), 0u);
    EXPECT_EQ(diff.counts(), Feed::StateDiff::Counts{});
}

TEST(StateDiff, AnAddedDaemonBringsOneRowPerFlagAndPerNonEmptyValue) {
    const Feed::LauncherState to{{"bgpd", daemon(true, true, {{"asn", "65001"}, {"blank", ""}}, {{"pid", "42"}})}};
    const Feed::StateDiff diff = Feed::diffStates({}, to);
    ASSERT_EQ(diff.daemons.size(), 1u);
    const Feed::DaemonChange& c = diff.daemons.front();
    EXPECT_EQ(c.name, "bgpd");
    EXPECT_FALSE(c.before);
    EXPECT_TRUE(c.after);
    // The empty option has no row.
    ASSERT_EQ(c.config.keys.size(), 2u);
    EXPECT_EQ(c.config.keys[0].key, "asn");
    EXPECT_TRUE(c.config.keys[0].rowAfter);
    EXPECT_EQ(c.config.keys[1].key, "blank");
    EXPECT_FALSE(c.config.keys[1].rowAfter);
    Feed::StateDiff::Counts want;
    want.daemonsAdded = 1;
    want.rowsAdded = 4; // enabled, option asn, running, data pid
    EXPECT_EQ(diff.counts(), want);
    EXPECT_EQ(diff.summary(),
              "applied 4 changes (daemons: 1 added, 0 removed; rows: 4 added, 0 removed; 0 changed in place)");
}

TEST(StateDiff, AChangedValueIsWrittenInPlaceAndAnEmptiedOneLosesItsRow) {
    const Feed::LauncherState from{{"bgpd", daemon(true, true, {{"asn", "65001"}, {"mode", "fast"}})}};
    const Feed::LauncherState to{{"bgpd", daemon(true, true, {{"asn", "65002"}, {"mode", ""}})}};
    const Feed::StateDiff diff = Feed::diffStates(from, to);
    ASSERT_EQ(diff.daemons.size(), 1u);
    const auto& keys = diff.daemons.front().config.keys;
    ASSERT_EQ(keys.size(), 2u);
    EXPECT_EQ(keys[0].value, std::optional<std::string>("65002"));
    EXPECT_TRUE(keys[0].rowBefore && keys[0].rowAfter);
    EXPECT_TRUE(keys[1].rowBefore);
    EXPECT_FALSE(keys[1].rowAfter);
    const auto counts = diff.counts();
    EXPECT_EQ(counts.daemonsAdded + counts.daemonsRemoved, 0u);
    EXPECT_EQ(counts.rowsRemoved, 1u);
    EXPECT_EQ(counts.rowsAdded, 0u);
    EXPECT_GE(counts.inPlace, 1u);
}

TEST(StateDiff, DaemonsComeInNameOrderAndOnlyThoseThatDiffer) {
    const Feed::LauncherState from{{"a", daemon(true, true)}, {"b", daemon(true, true)}, {"c", daemon(true, true)}};
    Feed::LauncherState to = from;
    to["c"].running = false;
    to.erase("a");
    to["d"] = daemon(false, false);
    const Feed::StateDiff diff = Feed::diffStates(from, to);
    std::vector<std::string> names;
    for (const auto& d : diff.daemons) names.push_back(d.name);
    EXPECT_EQ(names, (std::vector<std::string>{"a", "c", "d"}));
    EXPECT_EQ(diff.counts().daemonsRemoved, 1u);
    EXPECT_EQ(diff.counts().daemonsAdded, 1u);
    EXPECT_EQ(diff.daemons[1].status.flag, std::optional<bool>(false));
}

TEST(LauncherState, QuoteEscapesAndCuts) {
    EXPECT_EQ(Feed::quote("bgpd"), "\"bgpd\"");
    EXPECT_EQ(Feed::quote("a\"b\\c\n"), "\"a\\\"b\\\\c\\n\"");
    EXPECT_EQ(Feed::quote(std::string("\xff", 1)), "\"\\xff\"");
    const std::string q = Feed::quote(std::string(100, 'x'));
    EXPECT_NE(q.find("..."), std::string::npos) << q;
    EXPECT_LT(q.size(), 100u);
}

TEST(LauncherState, ValidUtf8RefusesOverlongSurrogatesAndBeyondTheRange) {
    EXPECT_TRUE(Feed::validUtf8("bgpd \xc3\xa9"));
    EXPECT_FALSE(Feed::validUtf8("\xc0\xaf"));         // overlong '/'
    EXPECT_FALSE(Feed::validUtf8("\xed\xa0\x80"));     // a surrogate
    EXPECT_FALSE(Feed::validUtf8("\xf4\x90\x80\x80")); // above U+10FFFF
    EXPECT_FALSE(Feed::validUtf8("\xe2\x82"));         // cut short
}

} // namespace

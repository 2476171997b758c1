#include "LogLimit.h"

#include <gtest/gtest.h>

namespace {

using Agent::LogLimit;
using namespace std::chrono_literals;

LogLimit::Clock::time_point t0() {
    return LogLimit::Clock::time_point(1000s);
}

TEST(LogLimit, KindMasksDigitsAndKeepsTheFirstWords) {
    EXPECT_EQ(LogLimit::kindOf("Authentication failed for alice"), "Authentication failed for");
    EXPECT_EQ(LogLimit::kindOf("Connection from UDP: [127.0.0.1]:40312->[127.0.0.1]:1161"), "Connection from UDP:");
    EXPECT_EQ(LogLimit::kindOf("request 12 of 345"), "request ## of");
}

TEST(LogLimit, WritesTheBurstThenCountsAndSumsUpOncePerInterval) {
    LogLimit limit({.burst = 3, .interval = 60s, .maxKinds = 8});
    int written = 0;
    for (int i = 0; i < 1000; ++i)
        written += limit.admit("Authentication failed for user" + std::to_string(i), t0() + 1ms * i);
    EXPECT_EQ(written, 3);
    EXPECT_TRUE(limit.expired(t0() + 59s).empty());
    const auto summaries = limit.expired(t0() + 60s);
    ASSERT_EQ(summaries.size(), 1u);
    EXPECT_NE(summaries[0].find("997 more lines like \"Authentication failed for user0\""), std::string::npos)
        << summaries[0];
    EXPECT_TRUE(limit.expired(t0() + 61s).empty()); // said once
    // A new interval writes a new burst.
    EXPECT_TRUE(limit.admit("Authentication failed for x", t0() + 62s));
    EXPECT_EQ(limit.dropped(), 997u);
}

TEST(LogLimit, KindsAreLimitedApart) {
    LogLimit limit({.burst = 1, .interval = 60s, .maxKinds = 8});
    EXPECT_TRUE(limit.admit("Authentication failed for a", t0()));
    EXPECT_TRUE(limit.admit("Connection from UDP: x", t0()));
    EXPECT_FALSE(limit.admit("Authentication failed for b", t0()));
    EXPECT_FALSE(limit.admit("Connection from UDP: y", t0()));
    EXPECT_EQ(limit.flush(t0() + 1s).size(), 2u);
}

TEST(LogLimit, KindsBeyondTheCapShareOneLimit) {
    LogLimit limit({.burst = 2, .interval = 60s, .maxKinds = 4});
    int written = 0;
    // 100 lines, each of a kind of its own (a peer varying the first words).
    for (int i = 0; i < 100; ++i) written += limit.admit("kind" + std::string(i + 1, 'x') + " of line", t0());
    // One line each of the first four kinds, then two of everything else together.
    EXPECT_EQ(written, 6);
    EXPECT_EQ(limit.dropped(), 94u);
}

TEST(LogLimit, NothingDroppedNoSummary) {
    LogLimit limit({.burst = 5, .interval = 1s, .maxKinds = 8});
    EXPECT_TRUE(limit.admit("one line", t0()));
    EXPECT_TRUE(limit.expired(t0() + 2s).empty());
    EXPECT_TRUE(limit.flush(t0() + 3s).empty());
}

} // namespace

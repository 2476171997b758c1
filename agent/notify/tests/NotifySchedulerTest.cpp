// The notifier's timing rules, on a clock the test moves.
#include "agent/notify/NotifyScheduler.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Agent::DaemonFlags;
using Agent::Notification;
using Agent::NotificationKind;
using Agent::NotifyScheduler;
using namespace std::chrono_literals;

struct Fixture {
    NotifyScheduler::Clock::time_point t0{};
    std::vector<Notification> sent;
    NotifyScheduler s;
    explicit Fixture(unsigned rate = 100, std::chrono::milliseconds holddown = 1000ms)
        : s(
              {holddown, rate}, [this](const Notification& n) { sent.push_back(n); }, t0) {}
};

constexpr DaemonFlags up{true, true, true};
constexpr DaemonFlags down{true, true, false};

} // namespace

TEST(NotifyScheduler, BaselineSendsNothing) {
    Fixture f;
    f.s.baselineIs("bgpd", up);
    f.s.changed("bgpd", up, f.t0);
    f.s.tick(f.t0 + 5s);
    EXPECT_TRUE(f.sent.empty());
    EXPECT_FALSE(f.s.nextDue());
}

TEST(NotifyScheduler, FirstChangeIsSentAtOnce) {
    Fixture f;
    f.s.baselineIs("bgpd", up);
    f.s.changed("bgpd", down, f.t0);
    ASSERT_EQ(f.sent.size(), 1u);
    EXPECT_EQ(f.sent[0].kind, NotificationKind::runningChange);
    EXPECT_EQ(f.sent[0].daemon, "bgpd");
    EXPECT_FALSE(f.sent[0].running);
    EXPECT_TRUE(f.sent[0].enabled);
    EXPECT_EQ(f.s.nextDue(), f.t0 + 1000ms);
}

TEST(NotifyScheduler, ChangesInsideTheWindowAreHeldAndTheFinalStateSentAtItsEnd) {
    Fixture f;
    f.s.baselineIs("bgpd", up);
    f.s.changed("bgpd", down, f.t0);
    f.s.changed("bgpd", up, f.t0 + 100ms);
    f.s.changed("bgpd", down, f.t0 + 200ms);
    f.s.changed("bgpd", up, f.t0 + 300ms);
    f.s.tick(f.t0 + 999ms);
    EXPECT_EQ(f.sent.size(), 1u);
    f.s.tick(f.t0 + 1000ms);
    ASSERT_EQ(f.sent.size(), 2u);
    EXPECT_TRUE(f.sent[1].running);
    // A new window opened with that send; nothing differs at its end, so it closes.
    f.s.tick(f.t0 + 2000ms);
    EXPECT_EQ(f.sent.size(), 2u);
    EXPECT_FALSE(f.s.nextDue());
    // The next change is again sent at once.
    f.s.changed("bgpd", down, f.t0 + 2500ms);
    EXPECT_EQ(f.sent.size(), 3u);
}

TEST(NotifyScheduler, StateBackToWhatWasSentSendsNothingAtWindowEnd) {
    Fixture f;
    f.s.baselineIs("bgpd", up);
    f.s.changed("bgpd", down, f.t0);
    f.s.changed("bgpd", up, f.t0 + 100ms);
    f.s.changed("bgpd", down, f.t0 + 200ms);
    f.s.tick(f.t0 + 1000ms);
    EXPECT_EQ(f.sent.size(), 1u);
}

TEST(NotifyScheduler, HundredFlipsInTenSecondsGiveAtMostElevenAndEndOnTheFinalState) {
    Fixture f;
    f.s.baselineIs("bgpd", up);
    bool running = true;
    for (int i = 1; i <= 100; ++i) {
        const auto now = f.t0 + std::chrono::milliseconds(i * 100 - 50);
        f.s.tick(now);
        running = !running;
        f.s.changed("bgpd", DaemonFlags{true, true, running}, now);
    }
    for (int ms = 10000; ms <= 13000; ms += 10) f.s.tick(f.t0 + std::chrono::milliseconds(ms));
    EXPECT_LE(f.sent.size(), 11u);
    EXPECT_GE(f.sent.size(), 2u);
    EXPECT_EQ(f.sent.back().running, running);
}

TEST(NotifyScheduler, OnlyEnabledChangedGivesAnEnabledChange) {
    Fixture f;
    f.s.baselineIs("bgpd", up);
    f.s.changed("bgpd", DaemonFlags{true, false, true}, f.t0);
    ASSERT_EQ(f.sent.size(), 1u);
    EXPECT_EQ(f.sent[0].kind, NotificationKind::enabledChange);
    EXPECT_FALSE(f.sent[0].enabled);
}

TEST(NotifyScheduler, NewDaemonGivesARunningChangeAndAGoneOneCarriesItsLastFlags) {
    Fixture f;
    f.s.changed("ntpd", DaemonFlags{true, true, false}, f.t0);
    ASSERT_EQ(f.sent.size(), 1u);
    EXPECT_EQ(f.sent[0].kind, NotificationKind::runningChange);
    f.s.changed("ntpd", DaemonFlags{false, true, false}, f.t0 + 100ms);
    f.s.tick(f.t0 + 1000ms);
    ASSERT_EQ(f.sent.size(), 2u);
    EXPECT_EQ(f.sent[1].kind, NotificationKind::gone);
    EXPECT_TRUE(f.sent[1].enabled);
    EXPECT_FALSE(f.sent[1].running);
    f.s.tick(f.t0 + 2000ms);
    EXPECT_EQ(f.s.tracked(), 0u); // nothing kept of a daemon that went
}

TEST(NotifyScheduler, BudgetQueuesTheRestAndSendsEachDaemonsLatestState) {
    Fixture f(10);
    for (int i = 0; i < 30; ++i) f.s.baselineIs("d" + std::to_string(i), up);
    for (int i = 0; i < 30; ++i) f.s.changed("d" + std::to_string(i), down, f.t0);
    EXPECT_EQ(f.sent.size(), 10u);
    EXPECT_EQ(f.s.queued(), 20u);
    // A queued daemon that comes back to what was last sent is not sent at all.
    f.s.changed("d29", up, f.t0 + 10ms);
    for (int ms = 0; ms <= 5000; ms += 10) f.s.tick(f.t0 + std::chrono::milliseconds(ms));
    EXPECT_EQ(f.sent.size(), 29u);
    EXPECT_EQ(f.s.queued(), 0u);
    // Never more than the budget in any second (the bucket starts full).
    for (std::size_t i = 20; i < f.sent.size(); ++i) EXPECT_FALSE(f.sent[i].running);
}

TEST(NotifyScheduler, NextDueNamesWhenTheBudgetAllowsTheQueueHead) {
    Fixture f(2);
    for (int i = 0; i < 3; ++i) f.s.baselineIs("d" + std::to_string(i), up);
    for (int i = 0; i < 3; ++i) f.s.changed("d" + std::to_string(i), down, f.t0);
    EXPECT_EQ(f.sent.size(), 2u);
    ASSERT_TRUE(f.s.nextDue());
    EXPECT_EQ(*f.s.nextDue(), f.t0 + 500ms);
    f.s.tick(*f.s.nextDue());
    EXPECT_EQ(f.sent.size(), 3u);
}

TEST(NotifyScheduler, ZeroRateIsRefused) {
    EXPECT_THROW(NotifyScheduler({std::chrono::milliseconds(1000), 0}, [](const Notification&) {}),
                 std::invalid_argument);
}

// The skeleton every source shares: queue, wake descriptor and health behind one mutex.
#include "feed/core/SourceSkeleton.h"

#include <gtest/gtest.h>

#include <poll.h>

#include <atomic>
#include <thread>

namespace {

using Feed::ChangedDaemons;
using Feed::DaemonState;
using Feed::Severity;
using Feed::SourceHealth;
using Feed::SourceSkeleton;
using Feed::SourceState;

bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) == 1 && (p.revents & POLLIN);
}

ChangedDaemons one(const std::string& name) {
    ChangedDaemons c;
    c.emplace_back(name, DaemonState{});
    return c;
}

TEST(SourceSkeleton, NothingQueuedIsNotReadable) {
    SourceSkeleton s("test source");
    EXPECT_FALSE(readable(s.eventFd()));
    EXPECT_TRUE(s.take().empty());
    EXPECT_FALSE(s.queued());
}

TEST(SourceSkeleton, PostWakesAndTakeEmpties) {
    SourceSkeleton s("test source");
    s.post(one("a"));
    EXPECT_TRUE(readable(s.eventFd()));
    EXPECT_TRUE(s.queued());
    auto events = s.take();
    ASSERT_EQ(events.size(), 1u);
    ASSERT_TRUE(events[0].changed.has_value());
    ASSERT_EQ(events[0].changed->size(), 1u);
    EXPECT_EQ((*events[0].changed)[0].first, "a");
    EXPECT_TRUE(events[0].line.empty());
    EXPECT_FALSE(readable(s.eventFd()));
    EXPECT_TRUE(s.take().empty());
}

TEST(SourceSkeleton, AnEmptyBatchIsStillABatch) {
    SourceSkeleton s("test source");
    s.post(ChangedDaemons{});
    auto events = s.take();
    ASSERT_EQ(events.size(), 1u);
    ASSERT_TRUE(events[0].changed.has_value());
    EXPECT_TRUE(events[0].changed->empty());
}

TEST(SourceSkeleton, SayPrefixesTheNamePostLineDoesNot) {
    SourceSkeleton s("systemd on unix:path=/x");
    s.say(Severity::warning, "lost the bus");
    s.postLine(Severity::error, "state file f: refused");
    s.post(one("b"), Severity::notice, "with a line");
    auto events = s.take();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_FALSE(events[0].changed.has_value());
    EXPECT_EQ(events[0].severity, Severity::warning);
    EXPECT_EQ(events[0].line, "systemd on unix:path=/x: lost the bus");
    EXPECT_EQ(events[1].severity, Severity::error);
    EXPECT_EQ(events[1].line, "state file f: refused");
    EXPECT_TRUE(events[2].changed.has_value());
    EXPECT_EQ(events[2].severity, Severity::notice);
    EXPECT_EQ(events[2].line, "with a line");
}

TEST(SourceSkeleton, HealthIsACopyEditedUnderTheMutex) {
    SourceSkeleton s("test source");
    EXPECT_EQ(s.health().state, SourceState::notLoaded);
    EXPECT_TRUE(s.health().connected);
    SourceHealth copy = s.health();
    const std::uint64_t returned = s.updateHealth([](SourceHealth& h) {
        h.state = SourceState::unresponsive;
        h.connected = false;
        return ++h.reloads;
    });
    EXPECT_EQ(returned, 1u);
    EXPECT_EQ(copy.state, SourceState::notLoaded); // the copy taken before does not move
    EXPECT_EQ(s.health().state, SourceState::unresponsive);
    EXPECT_FALSE(s.health().connected);
    EXPECT_EQ(s.health().reloads, 1u);
    // A health change queues nothing.
    EXPECT_FALSE(readable(s.eventFd()));
}

TEST(SourceSkeleton, StateTextOfUnresponsive) {
    EXPECT_STREQ(Feed::stateText(SourceState::unresponsive), "not answering");
}

// A worker posting while the loop takes: every event arrives once, in order, and the
// descriptor is readable whenever something is left.
TEST(SourceSkeleton, PostsFromAnotherThreadArriveInOrder) {
    SourceSkeleton s("test source");
    constexpr int count = 5000;
    std::thread worker([&] {
        for (int i = 0; i < count; ++i) s.post(one(std::to_string(i)));
    });
    int next = 0;
    for (int rounds = 0; next < count && rounds < 1'000'000; ++rounds) {
        pollfd p{s.eventFd(), POLLIN, 0};
        if (::poll(&p, 1, 1000) != 1) break;
        for (auto& e : s.take()) {
            ASSERT_TRUE(e.changed.has_value());
            EXPECT_EQ((*e.changed)[0].first, std::to_string(next));
            ++next;
        }
    }
    worker.join();
    for (auto& e : s.take()) {
        EXPECT_EQ((*e.changed)[0].first, std::to_string(next));
        ++next;
    }
    EXPECT_EQ(next, count);
}

} // namespace

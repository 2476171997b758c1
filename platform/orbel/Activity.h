// The activity loop: work that an observer defers runs here later, on the thread that
// drives the loop (the agent's event loop calls runPending()).
//
//   Orbel::ActivityLoop::instance().pendingIs(target);   // target->handleNotification() later
//   Orbel::ActivityLoop::instance().runPending();
#pragma once

#include "Entity.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>

namespace Orbel {

// What one run of the loop tells the observers it calls.
class ActivityConfig {
public:
    explicit ActivityConfig(std::uint64_t pass) : pass_(pass) {}
    // Which run of runPending() this is, counting from 1.
    std::uint64_t pass() const noexcept { return pass_; }

private:
    std::uint64_t pass_;
};

class ActivityLoop {
public:
    static ActivityLoop& instance();

    // Schedules n->handleNotification() for the next run; keeps a reference to n until
    // then. Scheduling an observer that is already pending does nothing.
    void pendingIs(const Ptr<PtrInterface::NotifieeConst>& n);
    // Runs every observer pending at the call, in the order scheduled; what they schedule
    // meanwhile waits for the next run. Returns how many ran. Throws nothing: an observer
    // whose handleNotification() throws gets onNotificationException(0) (whatever that
    // throws is dropped), is counted in failures(), and the others still run.
    std::size_t runPending();
    std::size_t pending() const noexcept { return queue_.size(); }
    // handleNotification() calls that threw, since the start.
    std::uint64_t failures() const noexcept { return failures_; }
    // Called whenever the queue goes from empty to non-empty, so an event loop can wake.
    void wakeupIs(std::function<void()> wakeup) { wakeup_ = std::move(wakeup); }

private:
    std::deque<Ptr<PtrInterface::NotifieeConst>> queue_;
    std::function<void()> wakeup_;
    std::uint64_t pass_ = 0;
    std::uint64_t failures_ = 0;
};

} // namespace Orbel

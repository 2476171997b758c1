// What every launcher source has in common, written once: the queue of events for the
// loop, the descriptor that wakes the loop while the queue holds something, and the
// source's health, all behind one mutex. A source keeps one as a member, has its worker
// queue through it, and forwards Source::eventFd, take and health to it.
//
//   Feed::SourceSkeleton skeleton("state file /run/launcher/state.json");
//   skeleton.post(std::move(changed));                          // worker: daemons that changed
//   skeleton.say(Feed::Severity::warning, "removed; ...");       // "state file ...: removed; ..."
//   skeleton.updateHealth([](Feed::SourceHealth& h) { h.state = Feed::SourceState::ok; });
//   // loop: poll skeleton.eventFd(); for (auto& e : skeleton.take()) ...
//
// Threads: every member may be called from any thread; updateHealth's function runs
// under the mutex, so it must not call back into the skeleton.
#pragma once

#include "EventFd.h"
#include "Source.h"

#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace Feed {

class SourceSkeleton {
public:
    // name starts every line said with say(): "state file X", "systemd on ADDR".
    // Throws std::system_error when no descriptor can be had.
    explicit SourceSkeleton(std::string name);
    SourceSkeleton(const SourceSkeleton&) = delete;
    SourceSkeleton& operator=(const SourceSkeleton&) = delete;

    const std::string& name() const noexcept { return name_; }
    // Readable while take() has something.
    int eventFd() const noexcept { return wake_.fd(); }

    // Queues daemons that changed (an empty batch too: "the state was read, nothing in
    // it"), with a line to log when line is not empty (as given, not prefixed), and wakes
    // the loop.
    void post(ChangedDaemons changed, Severity severity = Severity::info, std::string line = {});
    // Queues the line "NAME: line" and wakes the loop.
    void say(Severity severity, std::string line);
    // Queues a line as given (one that already names the source) and wakes the loop.
    void postLine(Severity severity, std::string line);

    // Everything queued, in order; empties the queue and the descriptor's readiness.
    std::vector<SourceEvent> take();
    // True while something is queued.
    bool queued() const;

    // A copy of the health.
    SourceHealth health() const;
    // Runs f(SourceHealth&) under the mutex and returns what it returns.
    template <typename F>
    auto updateHealth(F&& f) {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::forward<F>(f)(health_);
    }

private:
    void push(SourceEvent event);

    const std::string name_;
    EventFd wake_;
    mutable std::mutex mutex_; // guards queue_ and health_
    std::deque<SourceEvent> queue_;
    SourceHealth health_;
};

} // namespace Feed

// When to tell trap receivers what about which daemon: per-daemon hold-down and a global
// budget, with no clock or transport of its own (the caller gives the time and sends).
//
//   Agent::NotifyScheduler s({std::chrono::milliseconds(1000), 100},
//                            [](const Agent::Notification& n) { ...send it... });
//   s.baselineIs("bgpd", {true, true, true});          // what receivers already know
//   s.changed("bgpd", {true, true, false}, now);        // sent at once (running change)
//   s.changed("bgpd", {true, true, true}, now + 10ms);  // held: inside the hold-down
//   s.changed("bgpd", {true, true, false}, now + 20ms); // held
//   s.tick(now + 1000ms);    // the window ends: sent, since it differs from what was sent
//   s.nextDue();             // when tick() has something to do next
//
// Rules:
//   - A daemon's first change is sent at once, and opens a hold-down window; changes within
//     the window are only remembered. When the window ends, the daemon's current state is
//     sent if it differs from what was last sent (which opens a new window); otherwise the
//     window closes and the next change is again sent at once. So a daemon that flaps sends
//     at most one notification per window, and the last one carries its final state.
//   - A global budget of `rate` notifications per second (a token bucket holding at most one
//     second's worth): a notification due when the budget is spent waits in a queue, one
//     entry per daemon, and is sent, in the order queued, with the daemon's state at the
//     moment the budget allows (or not at all if that no longer differs).
//   - What is sent for a state that differs from the last one sent: the daemon went (it had
//     been there): gone, with its last flags; it is new, or its running flag changed: a
//     running change (carrying both flags); only its enabled flag changed: an enabled change.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>

namespace Agent {

// One daemon as the notifications describe it.
struct DaemonFlags {
    bool present = false; // the daemon has a row (for a daemon that went: false, and the
                          // flags are those it had last)
    bool enabled = false;
    bool running = false;
    friend bool operator==(const DaemonFlags&, const DaemonFlags&) = default;
};

enum class NotificationKind { runningChange, enabledChange, gone };

// One notification to send.
struct Notification {
    std::string daemon;
    NotificationKind kind = NotificationKind::runningChange;
    bool enabled = false;
    bool running = false;
};

// "running change", "enabled change", "gone".
const char* kindName(NotificationKind kind);

class NotifyScheduler {
public:
    using Clock = std::chrono::steady_clock;
    using Send = std::function<void(const Notification&)>;

    struct Settings {
        std::chrono::milliseconds holddown{1000};
        unsigned rate = 100; // notifications per second, at least 1
    };

    // send is called for every notification, from changed() and tick(). Throws
    // std::invalid_argument for a rate of 0 or a negative hold-down.
    NotifyScheduler(Settings settings, Send send, Clock::time_point now = Clock::now());

    // What the receivers are taken to know about daemon (the state loaded at start): sets
    // what was last sent, sends nothing.
    void baselineIs(const std::string& daemon, const DaemonFlags& flags);

    // The daemon's state is now current (see the rules at the top).
    void changed(const std::string& daemon, const DaemonFlags& current, Clock::time_point now);

    // Ends the windows that are over and sends what the budget allows from the queue.
    void tick(Clock::time_point now);

    // When tick() next has something to do: the earliest window end, or when the budget
    // allows the head of the queue. Empty when nothing waits.
    std::optional<Clock::time_point> nextDue() const;

    // Daemons waiting for the budget.
    std::size_t queued() const noexcept { return queue_.size(); }
    // Daemons inside a hold-down window.
    std::size_t holding() const noexcept { return holding_; }
    // Daemons tracked (known to receivers or waiting).
    std::size_t tracked() const noexcept { return daemons_.size(); }
    std::uint64_t sent() const noexcept { return sent_; }
    const Settings& settings() const noexcept { return settings_; }

private:
    struct Daemon {
        DaemonFlags sent; // what receivers were last told (or the baseline)
        DaemonFlags current;
        bool inWindow = false;
        Clock::time_point windowEnd{};
        bool queued = false;
    };
    struct Window {
        Clock::time_point end;
        std::string daemon;
    };

    static std::optional<NotificationKind> whatToSend(const DaemonFlags& sent, const DaemonFlags& current);
    void refill(Clock::time_point now);
    // A whole token (within rounding: the time nextDue() names must be enough).
    bool hasToken() const noexcept { return tokens_ >= 1.0 - 1e-9; }
    // The daemon is due: sent now, queued, or its window closes.
    void due(const std::string& name, Daemon& d, Clock::time_point now);
    void sendNow(const std::string& name, Daemon& d, NotificationKind kind, Clock::time_point now);
    void forgetIfIdle(const std::string& name);

    Settings settings_;
    Send send_;
    std::unordered_map<std::string, Daemon> daemons_;
    std::deque<Window> windows_;    // in order of their end (all windows last as long)
    std::deque<std::string> queue_; // daemons waiting for the budget
    double tokens_;
    Clock::time_point refilled_;
    std::size_t holding_ = 0;
    std::uint64_t sent_ = 0;
};

} // namespace Agent

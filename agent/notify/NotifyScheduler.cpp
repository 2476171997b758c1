#include "NotifyScheduler.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace Agent {

const char* kindName(NotificationKind kind) {
    switch (kind) {
        case NotificationKind::runningChange:
            return "running change";
        case NotificationKind::enabledChange:
            return "enabled change";
        case NotificationKind::gone:
            return "gone";
    }
    return "?";
}

NotifyScheduler::NotifyScheduler(Settings settings, Send send, Clock::time_point now)
    : settings_(settings), send_(std::move(send)), tokens_(settings.rate), refilled_(now) {
    if (settings_.rate == 0) throw std::invalid_argument("notification rate must be at least 1 per second");
    if (settings_.holddown.count() < 0) throw std::invalid_argument("notification hold-down must not be negative");
}

std::optional<NotificationKind> NotifyScheduler::whatToSend(const DaemonFlags& sent, const DaemonFlags& current) {
    if (!current.present) {
        if (sent.present) return NotificationKind::gone;
        return std::nullopt;
    }
    if (!sent.present || sent.running != current.running) return NotificationKind::runningChange;
    if (sent.enabled != current.enabled) return NotificationKind::enabledChange;
    return std::nullopt;
}

void NotifyScheduler::baselineIs(const std::string& daemon, const DaemonFlags& flags) {
    Daemon& d = daemons_[daemon];
    d.sent = flags;
    d.current = flags;
    forgetIfIdle(daemon);
}

void NotifyScheduler::refill(Clock::time_point now) {
    if (now <= refilled_) return;
    const double seconds = std::chrono::duration<double>(now - refilled_).count();
    tokens_ = std::min<double>(settings_.rate, tokens_ + seconds * settings_.rate);
    refilled_ = now;
}

void NotifyScheduler::sendNow(const std::string& name, Daemon& d, NotificationKind kind, Clock::time_point now) {
    tokens_ -= 1;
    d.sent = d.current;
    // The window opens before the send: a transport that fails still paces the daemon.
    if (!d.inWindow) ++holding_;
    d.inWindow = true;
    d.windowEnd = now + settings_.holddown;
    windows_.push_back({d.windowEnd, name});
    ++sent_;
    send_(Notification{name, kind, d.current.enabled, d.current.running});
}

void NotifyScheduler::due(const std::string& name, Daemon& d, Clock::time_point now) {
    const auto kind = whatToSend(d.sent, d.current);
    if (!kind) return;
    refill(now);
    if (queue_.empty() && hasToken()) {
        sendNow(name, d, *kind, now);
        return;
    }
    d.queued = true;
    queue_.push_back(name);
}

void NotifyScheduler::changed(const std::string& daemon, const DaemonFlags& current, Clock::time_point now) {
    Daemon& d = daemons_[daemon];
    d.current = current;
    if (d.queued || d.inWindow) return; // sent when the queue or the window says
    due(daemon, d, now);
    forgetIfIdle(daemon);
}

void NotifyScheduler::tick(Clock::time_point now) {
    // The queue first: what waited longest goes before windows that end now.
    refill(now);
    while (!queue_.empty() && hasToken()) {
        const std::string name = std::move(queue_.front());
        queue_.pop_front();
        auto it = daemons_.find(name);
        if (it == daemons_.end()) continue;
        Daemon& d = it->second;
        d.queued = false;
        if (auto kind = whatToSend(d.sent, d.current)) sendNow(name, d, *kind, now);
        forgetIfIdle(name);
    }
    while (!windows_.empty() && windows_.front().end <= now) {
        const Window w = std::move(windows_.front());
        windows_.pop_front();
        auto it = daemons_.find(w.daemon);
        if (it == daemons_.end() || !it->second.inWindow || it->second.windowEnd != w.end) continue;
        Daemon& d = it->second;
        d.inWindow = false;
        --holding_;
        if (!d.queued) due(w.daemon, d, now);
        forgetIfIdle(w.daemon);
    }
}

std::optional<NotifyScheduler::Clock::time_point> NotifyScheduler::nextDue() const {
    std::optional<Clock::time_point> next;
    if (!windows_.empty()) next = windows_.front().end;
    if (!queue_.empty()) {
        const double missing = std::max(0.0, 1.0 - tokens_);
        const auto wait = std::chrono::ceil<Clock::duration>(std::chrono::duration<double>(missing / settings_.rate));
        const Clock::time_point budget = refilled_ + wait;
        if (!next || budget < *next) next = budget;
    }
    return next;
}

void NotifyScheduler::forgetIfIdle(const std::string& name) {
    auto it = daemons_.find(name);
    if (it == daemons_.end()) return;
    const Daemon& d = it->second;
    // A daemon that is gone, and that receivers were told is gone, needs no memory.
    if (!d.current.present && !d.sent.present && !d.inWindow && !d.queued) daemons_.erase(it);
}

} // namespace Agent

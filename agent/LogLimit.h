// Keeps lines that peers cause from flooding the log: of each kind of line, the first few
// in an interval are written, the rest are counted and summed up in one line when the
// interval ends. A peer that sends 400,000 forged requests then costs a few lines a minute,
// and the agent's own lines (which never pass through here) stay readable.
//
//   Agent::LogLimit limit({.burst = 10, .interval = std::chrono::seconds(60)});
//   if (limit.admit(line, now)) write(line);                      // else counted
//   for (auto& summary : limit.expired(now)) write(summary);      // once a second or so
//
// A line's kind is its first words with every digit masked ("Authentication failed for",
// "Connection from UDP:"), so that one peer's changing ports, user names or request ids do
// not make each line a kind of its own. At most maxKinds kinds are tracked per interval;
// lines of further kinds share one kind, so that varying text cannot exhaust memory or
// escape the limit.
//
// Not thread-safe: the caller serialises (the log holds its mutex).
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace Agent {

class LogLimit {
public:
    using Clock = std::chrono::steady_clock;

    struct Settings {
        std::size_t burst = 10; // lines of a kind written per interval
        std::chrono::seconds interval{60};
        std::size_t maxKinds = 64; // kinds tracked per interval
    };

    LogLimit() = default;
    explicit LogLimit(Settings settings) : settings_(settings) {}

    // Whether line is to be written; counts it otherwise. Ends the intervals that are over
    // first (their summaries are kept for expired()).
    bool admit(const std::string& line, Clock::time_point now);

    // The summary lines of the intervals that ended by now and dropped lines, one per kind:
    // "12345 more lines like \"Authentication failed for alice\" in the last 60 s (...)".
    // Each summary is returned once.
    std::vector<std::string> expired(Clock::time_point now);

    // The summaries of every open interval that dropped lines, as if all ended now (at exit).
    std::vector<std::string> flush(Clock::time_point now);

    // The kind of a line (see above).
    static std::string kindOf(const std::string& line);

    // Lines dropped since this limit was made.
    std::size_t dropped() const noexcept { return droppedTotal_; }

private:
    struct Window {
        Clock::time_point start;
        std::size_t written = 0;
        std::size_t dropped = 0;
        std::string example; // the first line of the kind
    };
    void endWindows(Clock::time_point now, bool all);
    std::string summary(const Window& w, Clock::time_point now) const;

    Settings settings_;
    std::map<std::string, Window> windows_;
    std::vector<std::string> ready_;
    std::size_t droppedTotal_ = 0;
};

} // namespace Agent

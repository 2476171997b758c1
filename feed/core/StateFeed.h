// The feed: one launcher source, applied to the daemon MIB on the event loop.
//
//   Feed::StateFeed feed(std::make_unique<Feed::FileSource>("/run/launcher/state.json"), mib,
//                        [](Feed::Severity, const std::string& line) { ... });
//   feed.loadInitial();                  // throws Feed::StateError when the source refuses
//   feed.start();                        // the source follows its launcher
//   // in the event loop: watch feed.eventFd() for reading (with Net-SNMP, for example,
//   // register_readfd), and when it is readable:
//   feed.handleEvent();                  // applies what the source found
//
// Each batch of daemons that a source says changed is diffed against what is served and
// only the difference is applied (see StateApplier), so applying costs time in proportion
// to the change, not to the number of daemons. An applied difference is logged with what
// is served after it:
//   <source description>: applied 5 changes (daemons: 1 added, 0 removed; rows: 4 added, 1 removed; 0 changed in
//   place); serving 3 daemons, 12 rows
// a difference that turns out empty is not logged; the source's own lines are logged as
// they come.
//
// Threads: every method on the thread that owns the DaemonMib (the agent's event loop).
// The log callback is called on that thread only, one line per call.
#pragma once

#include "Source.h"
#include "StateApplier.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Feed {

class StateFeed {
public:
    using Log = std::function<void(Severity, const std::string&)>;

    // Keeps source and a reference to mib; log may be empty. Throws std::invalid_argument
    // for a null source or mib.
    StateFeed(std::unique_ptr<Source> source, Orbel::Ptr<GenericAgent::DaemonMib> mib, Log log);
    // Stops the source.
    ~StateFeed();
    StateFeed(const StateFeed&) = delete;
    StateFeed& operator=(const StateFeed&) = delete;

    // Has the source read its launcher now and applies what it read (logging the applied
    // line). Throws StateError (not logged) when the source refuses; nothing changes then.
    // Call before start().
    void loadInitial();
    // Starts the source (see Source::start).
    void start();
    // Stops the source; what it queued can still be applied with handleEvent. Safe to repeat.
    void stop();

    // Readable while the source has something for handleEvent.
    int eventFd() const noexcept { return source_->eventFd(); }
    // Applies every waiting batch in order and logs every waiting line; returns the number
    // of differences applied.
    std::size_t handleEvent();

    // Reads the source accepted (changed or not) and refused.
    std::uint64_t reloads() const { return source_->health().reloads; }
    std::uint64_t refused() const { return source_->health().refused; }
    // Differences applied.
    std::uint64_t applies() const noexcept { return applies_; }
    // When a difference was last applied; epoch: never.
    std::chrono::system_clock::time_point lastChange() const noexcept { return lastChange_; }
    // Daemons served, and rows of the four tables served.
    std::size_t daemons() const noexcept { return applier_.daemons(); }
    std::size_t rows() const noexcept;

    Source& source() const noexcept { return *source_; }
    // What is being served.
    const LauncherState& applied() const { return applier_.applied(); }
    const StateApplier& applier() const noexcept { return applier_; }

private:
    std::size_t drain(bool initial);

    std::unique_ptr<Source> source_;
    StateApplier applier_;
    Log log_;
    std::uint64_t applies_ = 0;
    std::chrono::system_clock::time_point lastChange_{};
};

} // namespace Feed

// A launcher source: one launcher's view of its daemons, turned into Feed::DaemonState
// values and handed to the event loop as the daemons that changed. A source never touches
// the model; Feed::StateFeed diffs what it hands over against what is served and applies
// the difference through the shared Feed::StateApplier.
//
// A host drives a source from its event loop (all calls on the loop thread):
//
//   std::unique_ptr<Feed::Source> source = std::make_unique<Feed::FileSource>("/run/launcher/state.json");
//   source->loadInitial();            // the state as it is now, queued; may throw StateError
//   source->start();                  // from now on changes are queued as they happen
//   // watch source->eventFd() for reading; when readable:
//   for (Feed::SourceEvent& e : source->take()) { ... }
//   source->stop();
//
// Sources do their slow work (reading files, talking to a bus) off the loop or in small
// non-blocking steps, so that taking what changed costs time in proportion to the change.
#pragma once

#include "LauncherState.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Feed {

// Daemons that changed, in name order, each as the launcher has it now (none: it is gone).
using ChangedDaemons = std::vector<std::pair<std::string, std::optional<DaemonState>>>;

// How much a log line matters (the order of syslog's priorities).
enum class Severity { error, warning, notice, info };

// One thing a source hands the loop, in the order it happened.
struct SourceEvent {
    std::optional<ChangedDaemons> changed; // daemons to diff against what is served
    Severity severity = Severity::notice;  // of line
    std::string line;                      // to log, when not empty; names the source
};

// Where a source stands.
enum class SourceState {
    notLoaded,    // nothing read yet
    ok,           // the last read was accepted
    refused,      // the last read was refused; the last good state is served
    gone,         // the state file (or its directory) is gone; the last state is served
    busLost,      // the launcher's bus is unreachable; the last state is served
    unresponsive, // the launcher is reachable but does not answer; the last state is served
};

// "not loaded", "ok", "refused", "gone", "bus lost", "not answering".
const char* stateText(SourceState state);

// A source's health, for logs and for monitoring the feed itself.
struct SourceHealth {
    SourceState state = SourceState::notLoaded;
    std::uint64_t reloads = 0; // reads accepted (changed or not), partial ones too
    std::uint64_t refused = 0; // reads refused
    // When the source last proved its launcher alive: an accepted read, or for a launcher
    // that is followed (a bus), an answer to a call or probe. Epoch: never.
    std::chrono::system_clock::time_point lastRead{};
    std::string lastRefusal;      // the last refusal's line; empty: none
    std::uint64_t skipped = 0;    // daemon entries left out of accepted reads
    std::uint64_t skippedNow = 0; // of them, in the last accepted read
    std::string lastSkip;         // the last skipped entry's line; empty: none
    // The entries skipped in the last read in a few words, for a start line ("1 unit
    // skipped (name over 32 bytes)"); empty when none are.
    std::string skippedNote;
    // In touch with the launcher. False for a source that reaches its launcher over a
    // connection (a bus, a socket) while it has none yet or lost it; it keeps trying.
    bool connected = true;
    // What the source follows, in a word for such lines ("systemd"); empty: "its launcher".
    std::string launcher;
};

// What the operator chose for whichever source is served.
struct SourceSettings {
    // Serve a daemon's whole command line. Off: only the executable's path, because
    // arguments can hold secrets (a password on a command line) and the tables are often
    // readable by a community such as "public".
    bool serveCommandLines = false;
};

class Source {
public:
    virtual ~Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    // One line for logs saying what this source reads: "state file /run/launcher/state.json".
    virtual std::string description() const = 0;

    // Reads the launcher's state now, on the calling thread, and queues it for take().
    // Throws StateError when the state is refused and the source cannot go on without it;
    // a source that can wait for its launcher (a bus not up yet) logs instead and returns.
    // Call at most once, before start().
    virtual void loadInitial() = 0;

    // Starts following the launcher. Throws std::system_error when the resources for it
    // (a thread, a descriptor) cannot be had; std::logic_error when already started.
    virtual void start() = 0;

    // Stops following; safe to repeat. What is queued can still be taken.
    virtual void stop() = 0;

    // A descriptor that is readable while take() has something; valid from construction
    // to destruction.
    virtual int eventFd() const noexcept = 0;

    // Everything queued since the last call, in order; empties the queue and the
    // descriptor's readiness.
    virtual std::vector<SourceEvent> take() = 0;

    // Where the source stands now.
    virtual SourceHealth health() const = 0;
    // Asks a started source to read its launcher again soon, as if it had changed (an
    // operator's SIGHUP). Returns at once; what differs from what is served arrives through
    // take(). Does nothing before start().
    virtual void reread() = 0;

protected:
    Source() = default;
};

} // namespace Feed

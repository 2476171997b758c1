// What a supervisor source hands over: the daemons of supervisord's processes, kept from
// the reads the source makes, and for each read only the daemons that differ from what was
// handed over before. No I/O, so that every rule is tested without a supervisord.
//
//   Feed::ProcessTracker tracker(Feed::parseProcessPatterns("*"), Feed::CommandShown::executable);
//   auto r = tracker.replaceAll(configs, infos);     // a full read: every process
//   post(r.changed); for (auto& line : r.lines) say(warning, line);
//   auto one = tracker.update(infoOfOneProcess);    // one process read again
//   if (one.needFullRead) ...                        // a process it does not know
//
// What was handed over is remembered as one digest per daemon, not as a copy.
#pragma once

#include "ProcessMapping.h"

#include "feed/core/Source.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Feed {

class ProcessTracker {
public:
    struct Result {
        ChangedDaemons changed;         // in name order; none: nothing differs
        std::vector<std::string> lines; // warnings (skipped names), without the source's prefix
        bool needFullRead = false;      // a process appeared that only a full read describes
    };

    ProcessTracker(std::vector<std::string> patterns, CommandShown command);

    // Every process as supervisord has it now: configs from getAllConfigInfo, infos from
    // getAllProcessInfo. Daemons handed over before and missing now go.
    Result replaceAll(const std::vector<ProcessConfig>& configs, const std::vector<ProcessInfo>& infos);
    // One process read again (getProcessInfo).
    Result update(const ProcessInfo& info);
    // A process supervisord no longer has (getProcessInfo answered BAD_NAME).
    Result remove(const std::string& group, const std::string& name);

    // Daemons known (matching the patterns, with names that fit), and matching processes
    // skipped in the last full read because their names do not fit an SNMP index.
    std::size_t daemons() const noexcept { return known_.size(); }
    std::size_t skippedNow() const noexcept { return skippedNow_; }
    // A process that has a pid now, as the last read said.
    struct Pid {
        std::int64_t pid;
        std::string group;
        std::string name;
    };
    // Every known process with a pid, in name order.
    std::vector<Pid> pids() const;
    // The info last read of a known process; null: none.
    const ProcessInfo* info(const std::string& group, const std::string& name) const;

    // The last skip line; empty: none.
    const std::string& lastSkip() const noexcept { return lastSkip_; }

private:
    struct Entry {
        std::optional<ProcessConfig> config;
        std::optional<ProcessInfo> info;
    };
    // Hands d over when its digest moved (or it is new).
    void offer(const std::string& name, const Entry& e, ChangedDaemons& out);

    std::vector<std::string> patterns_;
    CommandShown command_;
    std::map<std::string, Entry> known_;
    std::map<std::string, std::uint64_t> handed_; // digest of what was handed over
    std::set<std::string> warned_;                // skipped names said once each
    std::size_t skippedNow_ = 0;
    std::string lastSkip_;
};

// A digest of a daemon's state: equal states have equal digests.
std::uint64_t daemonDigest(const DaemonState& d);

} // namespace Feed

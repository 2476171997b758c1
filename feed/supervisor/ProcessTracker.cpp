#include "ProcessTracker.h"

#include "GenericAgent/GenericAgentSnmp.h"

#include <functional>

namespace Feed {

std::uint64_t daemonDigest(const DaemonState& d) {
    std::string s;
    s += d.hasConfig ? 'C' : 'c';
    s += d.enabled ? 'E' : 'e';
    for (const auto& [k, v] : d.options) {
        s += k;
        s += '\0';
        s += v;
        s += '\0';
    }
    s += d.hasStatus ? 'S' : 's';
    s += d.running ? 'R' : 'r';
    for (const auto& [k, v] : d.data) {
        s += k;
        s += '\0';
        s += v;
        s += '\0';
    }
    return std::hash<std::string>{}(s);
}

ProcessTracker::ProcessTracker(std::vector<std::string> patterns, CommandShown command)
    : patterns_(std::move(patterns)), command_(command) {}

void ProcessTracker::offer(const std::string& name, const Entry& e, ChangedDaemons& out) {
    DaemonState d = daemonStateOf(e.config ? &*e.config : nullptr, e.info ? &*e.info : nullptr, command_);
    std::uint64_t digest = daemonDigest(d);
    auto [it, added] = handed_.try_emplace(name, digest);
    if (!added) {
        if (it->second == digest) return;
        it->second = digest;
    }
    out.emplace_back(name, std::move(d));
}

ProcessTracker::Result ProcessTracker::replaceAll(const std::vector<ProcessConfig>& configs,
                                                  const std::vector<ProcessInfo>& infos) {
    Result r;
    std::map<std::string, Entry> next;
    std::set<std::string> skipped;
    auto admit = [&](const std::string& group, const std::string& name) -> Entry* {
        if (!processMatches(group, name, patterns_)) return nullptr;
        std::string daemon = processDaemonName(group, name);
        if (daemon.size() > GenericAgent::maxDaemonNameBytes) {
            if (skipped.insert(daemon).second && warned_.insert(daemon).second) {
                lastSkip_ = "process " + quote(daemon) + " skipped: its name is " + std::to_string(daemon.size()) +
                            " bytes, more than " + std::to_string(GenericAgent::maxDaemonNameBytes) +
                            " (an SNMP index)";
                r.lines.push_back(lastSkip_);
            }
            return nullptr;
        }
        return &next[daemon];
    };
    for (const ProcessConfig& c : configs)
        if (c.inUse)
            if (Entry* e = admit(c.group, c.name)) e->config = c;
    for (const ProcessInfo& i : infos)
        if (Entry* e = admit(i.group, i.name)) e->info = i;
    skippedNow_ = skipped.size();
    // Names no longer skipped may be said again if they come back too long.
    std::erase_if(warned_, [&](const std::string& n) { return !skipped.contains(n); });

    // Both maps are in name order: one merge gives the changes in name order.
    auto a = next.begin();
    auto h = handed_.begin();
    ChangedDaemons& out = r.changed;
    std::vector<std::string> gone;
    while (a != next.end() || h != handed_.end()) {
        if (h == handed_.end() || (a != next.end() && a->first < h->first)) {
            offer(a->first, a->second, out); // inserts into handed_ before h: h stays valid
            ++a;
        } else if (a == next.end() || h->first < a->first) {
            out.emplace_back(h->first, std::nullopt);
            h = handed_.erase(h);
        } else {
            offer(a->first, a->second, out);
            ++a;
            ++h;
        }
    }
    known_ = std::move(next);
    return r;
}

ProcessTracker::Result ProcessTracker::update(const ProcessInfo& info) {
    Result r;
    if (!processMatches(info.group, info.name, patterns_)) return r;
    std::string daemon = processDaemonName(info.group, info.name);
    if (daemon.size() > GenericAgent::maxDaemonNameBytes) return r;
    auto it = known_.find(daemon);
    if (it == known_.end()) {
        r.needFullRead = true;
        return r;
    }
    it->second.info = info;
    offer(daemon, it->second, r.changed);
    return r;
}

std::vector<ProcessTracker::Pid> ProcessTracker::pids() const {
    std::vector<Pid> out;
    for (const auto& [daemon, e] : known_)
        if (e.info && e.info->pid > 0) out.push_back({e.info->pid, e.info->group, e.info->name});
    return out;
}

const ProcessInfo* ProcessTracker::info(const std::string& group, const std::string& name) const {
    auto it = known_.find(processDaemonName(group, name));
    return it == known_.end() || !it->second.info ? nullptr : &*it->second.info;
}

ProcessTracker::Result ProcessTracker::remove(const std::string& group, const std::string& name) {
    Result r;
    std::string daemon = processDaemonName(group, name);
    known_.erase(daemon);
    if (handed_.erase(daemon)) r.changed.emplace_back(daemon, std::nullopt);
    return r;
}

} // namespace Feed
